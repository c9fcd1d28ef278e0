#include "dbcache/group_handler.h"

#include <fmt/format.h>

#include "dbcache/inheritance.h"
#include "dbcache/schema_table.h"
#include "mdb/errors.h"
#include "tql/errors.h"
#include "tql/names.h"

namespace dbcache {

GroupHandler::GroupHandler(ObjectHandlerRef parent, int32_t group_id)
    : TqlObjectHandler(parent->schema().groups().at(group_id).tql_class),
      parent_(std::move(parent)),
      group_id_(group_id) {}

const NodetypeSchema::Group& GroupHandler::group() const {
    return parent_->schema().groups().at(group_id_);
}

tql::id_t GroupHandler::tqlId() const {
    tql::id_t id = parent_->tqlId();
    id.push_back(static_cast<uint32_t>(group_id_));
    return id;
}

void GroupHandler::tqlChildrenHandlers(tqlengine::HandlerList& out, const tql::pattern_t& pattern) {
    error::check(out.empty(), "Output list not empty upon entry in tqlChildrenHandlres()");
    parent_->list_children(group().child_classes, group().children, *this, pattern, out);
}

void GroupHandler::tqlEncode(const tql::pattern_t& pattern, tql::property_map_t& out) {
    try {
        const InheritanceChain chain(parent_->store(), parent_->node_id(), parent_->location());
        parent_->schema().encodeGroupSpecials(chain, group_id_, pattern, out);
    } catch (const mdb::error_generic& failure) {
        throw errors::tql(
            errors::ERR_BACKEND,
            fmt::format("Error computing properties for {} {}: {}", tql::class_name(class_number()),
                        tqlId().to_string(), failure.text()));
    }
}

uint32_t GroupHandler::tqlCreate(const tql::id_t& new_id, uint32_t child_class,
                                 const tqlengine::WriteArguments& arguments) {
    const auto child = group().child_classes.find(child_class);
    if (child == group().child_classes.end())
        throw errors::tql(errors::ERR_ILLEGAL_CHILD,
                          fmt::format("{} not allowed as child of {}", tql::class_name(child_class),
                                      tql::class_name(class_number())));
    return parent_->create_child(new_id, parent_->store().schemas().get(child->second), arguments);
}

uint32_t GroupHandler::tqlUpdate(const tqlengine::WriteArguments&) {
    return 0;
}

void GroupHandler::tqlDelete(const tqlengine::DeleteArguments&) {
    throw errors::tql(errors::ERR_ACCESS_DENIED, "Cannot delete this object");
}

}  // namespace dbcache
