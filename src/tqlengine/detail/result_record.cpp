#include "tqlengine/detail/result_record.h"

#include <vector>

namespace tqlengine::detail {

namespace {

/// All of a record but its children.
void fill(tql::result_t& record, ResultNode& node) {
    record.class_ = node.class_number;
    record.flags = node.flags;
    record.tags = std::move(node.tags);
    record.id = node.id;
    record.version = node.version;
    record.properties = std::move(node.properties);
    record.origin = node.origin;
}

}  // namespace

tql::result_t to_record(ResultNodePtr node, uint64_t& count) {
    struct Open {
        tql::result_t* record;
        ResultNode* node;
    };
    tql::result_t root;
    std::vector<Open> open{{&root, node.get()}};
    while (!open.empty()) {
        const Open next = open.back();
        open.pop_back();
        ++count;
        fill(*next.record, *next.node);
        auto& children = next.node->children.entries();
        // All at once, so that each stays where it is.
        next.record->children.resize(children.size());
        for (size_t i = 0; i < children.size(); ++i)
            open.push_back({&next.record->children[i], children[i].node.get()});
    }
    return root;
}

}  // namespace tqlengine::detail
