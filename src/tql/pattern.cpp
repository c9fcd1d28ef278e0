#include "tql/pattern.h"

#include "tql/detail/tree_walk.h"

namespace tql {

// Found by the tree walks through their argument, hence not in an unnamed namespace.
static void child_lists(auto& self, auto&& visit) {
    visit(self.next);
    visit(self.cond_next);
}

static void copy_own(const pattern_t& from, pattern_t& to) {
    to.class_ = from.class_;
    to.flags = from.flags;
    to.tag = from.tag;
    to.where = from.where;
    to.wanted_properties = from.wanted_properties;
}

static bool equal_own(const pattern_t& a, const pattern_t& b) {
    return a.class_ == b.class_ && a.flags == b.flags && a.tag == b.tag && a.where == b.where &&
           a.wanted_properties == b.wanted_properties;
}

pattern_t::pattern_t(const pattern_t& other) {
    detail::copy_tree(other, *this);
}

pattern_t& pattern_t::operator=(const pattern_t& other) {
    return *this = pattern_t(other);
}

pattern_t& pattern_t::operator=(pattern_t&& other) noexcept {
    if (this == &other) return *this;
    // What `other` holds may be a step of this very tree, so it is taken out before the tree goes.
    pattern_t taken(std::move(other));
    detail::dismantle(*this);
    class_ = taken.class_;
    flags = taken.flags;
    tag = taken.tag;
    next.swap(taken.next);
    cond_next.swap(taken.cond_next);
    where.swap(taken.where);
    wanted_properties.swap(taken.wanted_properties);
    return *this;
}

pattern_t::~pattern_t() {
    if (!next.empty() || !cond_next.empty()) detail::dismantle(*this);
}

size_t pattern_t::depth() const {
    return detail::tree_depth(*this);
}

bool operator==(const pattern_t& a, const pattern_t& b) {
    return detail::equal_trees(a, b);
}

}  // namespace tql
