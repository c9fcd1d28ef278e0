// MarkListCheck: whether one mark list runs through the tree in depth-first order with pointers
// that agree, and whether every object that belongs into it is there. It reads and never mends.
//
// What must hold, with "listed" for an object with a record of the mark:
//   1 the parent of a listed object is listed
//   2 the list runs in depth-first order: an object, then its listed children each with its stretch
//   3 `last` names the end of the stretch of an object's subtree
//   4 `next` of A is B exactly if `prev` of B is A
//   5 a listed object without the mark has a listed one below it
//   6 every marked object is listed, and whoever has a record is in the list
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "dbcache/detail/mark_nodetypes.h"
#include "mdb/property_types.h"

namespace dbcache::detail {

/// What the check has to know of one object.
struct MarkedObject {
    /// Null for none.
    NodeId parent;
    mark_role_t role = mark_role_t::outside;
    /// Whether the object should be marked; none where nothing in its records says so.
    std::optional<bool> should;
    std::optional<mdb::MarkLinks> links;
};

/// Reads it from the records of an object. Throws mdb::error_wrongtype.
[[nodiscard]] MarkedObject read_marked_object(const mdb::dobj& object, uint32_t mark);

/// Where the objects come from.
class MarkedObjects {
  public:
    virtual ~MarkedObjects() = default;
    [[nodiscard]] virtual std::optional<MarkedObject> find(const NodeId& id, uint32_t mark) = 0;
};

class MarkListCheck {
  public:
    /// Gets the object at fault and the text. It may throw, which ends the check.
    using Report = std::function<void(const NodeId&, const std::string&)>;

    /// `objects` must outlive the check.
    MarkListCheck(MarkedObjects& objects, uint32_t mark, Report report);

    /// Follows the list from the root. After a fault that leaves open how it goes on the walk ends.
    /// Costs memory for the id of each listed object.
    void follow_list();
    /// Checks that the object is in the list if it must be, with all above it. To be called after
    /// follow_list(); silent when that came to no end.
    void expect(const NodeId& id);
    /// Checks, likewise, that the object has no record unless it is in the list.
    void expect_no_stray(const NodeId& id);

    /// How many objects that expect() was given are marked, and how many others are above them.
    [[nodiscard]] uint64_t marked() const { return marked_; }
    [[nodiscard]] uint64_t ancestors() const { return ancestors_.size(); }

  private:
    /// An object whose stretch isn't over.
    struct Open {
        NodeId id;
        NodeId last;
    };
    enum class standing_t : uint8_t {
        /// Under the root, and so is all above it that a list needs.
        in_reach,
        /// Under the root, but something above it has no part in the list.
        apart,
        /// Not under the root: what a delete has left.
        detached
    };

    void check_place(const NodeId& id, const MarkedObject& object);
    void check_parent(const NodeId& id, const MarkedObject& object);
    [[nodiscard]] std::optional<MarkedObject> find_next(const NodeId& id, const NodeId& next);
    void check_end(const NodeId& id);
    [[nodiscard]] bool is_ahead(const NodeId& id);
    [[nodiscard]] standing_t standing(NodeId id);
    void expect_ancestors(NodeId id, NodeId parent);
    /// Reports, and has the walk end.
    void break_off(const NodeId& object, const std::string& text);
    void report_last(const NodeId& id);
    void report_stray(const NodeId& id);

    MarkedObjects& objects_;
    const uint32_t mark_;
    const std::string name_;
    const Report report_;
    std::vector<Open> open_;
    /// The object at which the walk was last.
    NodeId before_;
    std::unordered_set<NodeId> listed_;
    std::unordered_set<NodeId> ancestors_;
    std::unordered_map<NodeId, standing_t> standings_;
    bool broken_ = false;
    uint64_t marked_ = 0;
};

}  // namespace dbcache::detail
