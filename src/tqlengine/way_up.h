// WayUp: the way from an object up to the top of the tree. Whatever climbs goes by it, since a tree
// may be of any depth and nothing but the parents themselves says where the way ends: in a damaged
// file it may lead round in a ring, and a climb would never come back.
#pragma once

#include <utility>

#include "tqlengine/object_handler.h"
#include "util/cycle_check.h"

namespace tqlengine {

/// Throws errors::tql with code 14, "Object ID is its own ancestor".
[[noreturn]] void fail_own_ancestor(const tql::id_t& id);

inline HandlerRef parent_of(TqlObjectHandler& object) {
    return object.tqlParentHandler();
}

/// Holds a reference to the object where it stands. A kind of handler with a cheaper way to its
/// parent says so by a parent_of() of its own.
template <class Handler>
class WayUp {
  public:
    using Ref = BasicHandlerRef<Handler>;

    /// Stands at `from`; past the top when that is empty.
    explicit WayUp(Ref from)
        : at_(std::move(from)), id_(at_ ? at_->tqlId() : tql::id_t()), ring_(id_) {}

    /// False past the top.
    [[nodiscard]] explicit operator bool() const noexcept { return static_cast<bool>(at_); }
    [[nodiscard]] const Ref& ref() const noexcept { return at_; }
    [[nodiscard]] Handler* operator->() const noexcept { return at_.get(); }
    [[nodiscard]] Handler& operator*() const noexcept { return *at_; }
    [[nodiscard]] const tql::id_t& id() const noexcept { return id_; }

    /// To the parent. False when the way leads in a ring; it then stands at an object of the ring.
    [[nodiscard]] bool try_up() {
        at_ = parent_of(*at_);
        if (!at_) return true;
        id_ = at_->tqlId();
        return id_.empty() || !ring_.closes_at(id_);
    }
    /// To the parent. Throws fail_own_ancestor() for a ring, and what looking for the parent
    /// throws.
    void up() {
        if (!try_up()) [[unlikely]]
            fail_own_ancestor(id_);
    }

  private:
    Ref at_;
    tql::id_t id_;
    util::CycleCheck<tql::id_t> ring_;
};

template <class Handler>
WayUp(BasicHandlerRef<Handler>) -> WayUp<Handler>;

}  // namespace tqlengine
