#include "queues/result_wire.h"

#include "queues/detail/wire.h"

namespace queues {

void put_select_head(protocol::ioprim& out, std::uint32_t status,
                     const std::list<dbms::detail_t>& details, std::size_t trees) {
    detail::put(out, status);
    detail::put(out, details);
    detail::put_count(out, trees);
}

void put_node_head(protocol::ioprim& out, const NodeHead& node) {
    detail::put(out, node.class_number);
    detail::put(out, node.flags);
    detail::put(out, node.tags);
    detail::put(out, node.id);
    detail::put(out, node.version);
    put(out, node.values);
    detail::put_count(out, node.children);
}

void put_node_end(protocol::ioprim& out, const tql::origin_t& origin) {
    detail::put(out, origin);
}

void put_patch_head(protocol::ioprim& out, const tql::id_t& object) {
    detail::put(out, object);
}

void put_patch_end(protocol::ioprim& out) {
    detail::put(out, tql::version_t{});
}

}  // namespace queues
