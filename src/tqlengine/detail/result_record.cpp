#include "tqlengine/detail/result_record.h"

#include <fmt/format.h>

#include "tql/errors.h"

namespace tqlengine::detail {

namespace {

// Recurses over the levels of the result, whose depth has been checked.
void fill(tql::result_t& record, ResultNode& node, uint64_t& count) {
    ++count;
    record.class_ = node.class_number;
    record.flags = node.flags;
    record.tags = std::move(node.tags);
    record.id = node.id;
    record.version = node.version;
    record.properties = std::move(node.properties);
    record.origin = node.origin;
    auto& children = node.children.entries();
    record.children.reserve(children.size());
    for (auto& child : children) fill(record.children.emplace_back(), *child.node, count);
}

void check_depth(const ResultNode& root, size_t limit) {
    struct Level {
        const ResultNode* node;
        size_t depth;
    };
    std::vector<Level> open{{&root, 1}};
    while (!open.empty()) {
        const Level level = open.back();
        open.pop_back();
        if (level.depth > limit)
            throw errors::tql(errors::ERR_NOT_IMPLEMENTED,
                              fmt::format("The result is nested more than {} levels deep", limit));
        for (const auto& entry : level.node->children.entries())
            if (!entry.node->children.empty() || level.depth == limit)
                open.push_back({entry.node.get(), level.depth + 1});
    }
}

}  // namespace

tql::result_t to_record(ResultNodePtr node, size_t depth_limit, uint64_t& count) {
    check_depth(*node, depth_limit);
    tql::result_t record;
    fill(record, *node, count);
    return record;
}

}  // namespace tqlengine::detail
