// Copying, comparing and destroying of trees of plain values without recursion.
//
// A node type tells its child lists by `child_lists(self, visit)`, which calls visit with each
// vector of children, and its other fields by `copy_own` and `equal_own`. Depth costs heap here,
// never stack.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace tql::detail {

/// Empties the child lists of `root` node by node, so that no destructor meets a node with
/// children.
template <class Node>
void dismantle(Node& root) noexcept {
    std::vector<Node> pending;
    const auto has_children = [](const Node& node) {
        bool any = false;
        child_lists(node, [&any](const std::vector<Node>& list) { any = any || !list.empty(); });
        return any;
    };
    // Most nodes are leaves, which can go where they are.
    const auto take_children = [&](Node& node) {
        child_lists(node, [&](std::vector<Node>& list) {
            for (Node& child : list)
                if (has_children(child)) pending.push_back(std::move(child));
            list.clear();
        });
    };
    take_children(root);
    while (!pending.empty()) {
        Node node = std::move(pending.back());
        pending.pop_back();
        take_children(node);
    }
}

/// Makes `to`, which has no children, a deep copy of `from`.
template <class Node>
void copy_tree(const Node& from, Node& to) {
    std::vector<std::pair<const Node*, Node*>> pending{{&from, &to}};
    while (!pending.empty()) {
        const auto [source, target] = pending.back();
        pending.pop_back();
        copy_own(*source, *target);
        std::vector<const std::vector<Node>*> lists;
        child_lists(*source, [&lists](const std::vector<Node>& list) { lists.push_back(&list); });
        auto next_list = lists.begin();
        child_lists(*target, [&](std::vector<Node>& list) {
            const std::vector<Node>& model = **next_list++;
            list.resize(model.size());
            for (size_t i = 0; i < model.size(); ++i) pending.emplace_back(&model[i], &list[i]);
        });
    }
}

template <class Node>
bool equal_trees(const Node& a, const Node& b) {
    std::vector<std::pair<const Node*, const Node*>> pending{{&a, &b}};
    while (!pending.empty()) {
        const auto [left, right] = pending.back();
        pending.pop_back();
        if (!equal_own(*left, *right)) return false;
        std::vector<const std::vector<Node>*> lists;
        child_lists(*left, [&lists](const std::vector<Node>& list) { lists.push_back(&list); });
        auto next_list = lists.begin();
        bool same_shape = true;
        child_lists(*right, [&](const std::vector<Node>& list) {
            const std::vector<Node>& other = **next_list++;
            if (other.size() != list.size()) same_shape = false;
            if (!same_shape) return;
            for (size_t i = 0; i < list.size(); ++i) pending.emplace_back(&other[i], &list[i]);
        });
        if (!same_shape) return false;
    }
    return true;
}

/// Nodes on the longest way down.
template <class Node>
size_t tree_depth(const Node& root) {
    size_t deepest = 0;
    std::vector<std::pair<const Node*, size_t>> pending{{&root, 1}};
    while (!pending.empty()) {
        const auto [node, depth] = pending.back();
        pending.pop_back();
        deepest = depth > deepest ? depth : deepest;
        child_lists(*node, [&pending, below = depth + 1](const std::vector<Node>& list) {
            for (const Node& child : list) pending.emplace_back(&child, below);
        });
    }
    return deepest;
}

}  // namespace tql::detail
