#include "tql/result.h"

#include "tql/detail/tree_walk.h"

namespace tql {

// Found by the tree walks through their argument, hence not in an unnamed namespace.
static void child_lists(auto& self, auto&& visit) {
    visit(self.children);
}

static void copy_own(const result_t& from, result_t& to) {
    to.class_ = from.class_;
    to.flags = from.flags;
    to.tags = from.tags;
    to.id = from.id;
    to.version = from.version;
    to.properties = from.properties;
    to.origin = from.origin;
}

static bool equal_own(const result_t& a, const result_t& b) {
    return a.class_ == b.class_ && a.flags == b.flags && a.tags == b.tags && a.id == b.id &&
           a.version == b.version && a.properties == b.properties && a.origin == b.origin;
}

result_t::result_t(const result_t& other) {
    detail::copy_tree(other, *this);
}

result_t& result_t::operator=(const result_t& other) {
    return *this = result_t(other);
}

result_t& result_t::operator=(result_t&& other) noexcept {
    if (this == &other) return *this;
    // What `other` holds may be a node of this very tree, so it is taken out before the tree goes.
    result_t taken(std::move(other));
    detail::dismantle(*this);
    class_ = taken.class_;
    flags = taken.flags;
    tags.swap(taken.tags);
    id = taken.id;
    version = taken.version;
    properties.swap(taken.properties);
    children.swap(taken.children);
    origin = taken.origin;
    return *this;
}

result_t::~result_t() {
    if (!children.empty()) detail::dismantle(*this);
}

bool operator==(const result_t& a, const result_t& b) {
    return detail::equal_trees(a, b);
}

}  // namespace tql
