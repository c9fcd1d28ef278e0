#include "tqlengine/answers.h"

#include "queues/result_wire.h"

namespace tqlengine {

namespace {

void put_head(protocol::ioprim& out, const ResultNode& node) {
    queues::put_node_head(out, {node.class_number, node.flags, node.tags, node.id, node.version,
                                node.values, node.children.size()});
}

// Without recursion, since results may be of any depth. A node without children is written at once.
void put_tree(protocol::ioprim& out, const ResultNode& root) {
    struct Open {
        const ResultNode* node;
        size_t next;  ///< the child that comes next
    };
    put_head(out, root);
    std::vector<Open> way{{&root, 0}};
    while (!way.empty()) {
        Open& open = way.back();
        const auto& children = open.node->children.entries();
        if (open.next == children.size()) {
            queues::put_node_end(out, open.node->origin);
            way.pop_back();
            continue;
        }
        const ResultNode& child = *children[open.next++].node;
        put_head(out, child);
        if (child.children.empty())
            queues::put_node_end(out, child.origin);
        else
            way.push_back({&child, 0});
    }
}

}  // namespace

void SelectAnswer::write(protocol::ioprim& out) const {
    queues::put_select_head(out, status, details, results.size());
    for (const ResultNodePtr& root : results) put_tree(out, *root);
}

void PatchAnswer::write(protocol::ioprim& out) const {
    queues::put_patch_head(out, id);
    put_tree(out, *patch);
    queues::put_patch_end(out);
}

}  // namespace tqlengine
