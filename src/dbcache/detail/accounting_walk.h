// AccountingWalk: the walk from a domain down that works the counters out from what is stored. It
// reads objects as records; where they come from and what becomes of the results its maker says.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "mdb/dobj.h"
#include "util/node_id.h"

namespace dbcache {

/// By property number.
using Counters = std::map<uint32_t, uint32_t>;

/// What counting looks at in one stored object.
struct CountedObject {
    NodeId id;
    NodeId parent;
    mdb::block_handle_t place;
    uint32_t nodetype = 0;
    bool active = false;
    bool has_key = false;
    /// Of domains, nodes and groups of checks.
    std::string name;
    /// The same; nulls are left out.
    Counters stored;

    /// "NAME (ID)", or the id where there is no name.
    [[nodiscard]] std::string to_string() const;
};

/// None for an object that neither counts for anything nor leads to one that does. Throws
/// mdb::error_generic.
[[nodiscard]] std::optional<CountedObject> read_counted_object(const mdb::dobj& object);

/// The stored counter; a missing one is 0.
[[nodiscard]] uint32_t stored_counter(const CountedObject& object, uint32_t number);

class AccountingWalk {
  public:
    using Visit = std::function<void(const CountedObject&)>;
    /// Calls the visit for each child of an object.
    using Children = std::function<void(const NodeId& parent, const Visit& visit)>;
    /// Gets an object that holds counters, with all that it should hold, after all below it.
    /// `kind` is "domain", "node" or the name of the class of groups.
    using Result =
        std::function<void(std::string_view kind, const CountedObject&, const Counters& counted)>;

    AccountingWalk(Children children, Result result);
    ~AccountingWalk();

    /// Throws mdb::error_need_repair for an object below itself, and what the functions throw; the
    /// walk can't be used any more then.
    void run(const CountedObject& root);

  private:
    struct GroupKind;
    struct Open;

    void enter(CountedObject object);
    static void meet(Open& open, const CountedObject& child);
    void leave();
    static std::string_view name_of(const Open& open);
    static Counters use_of_node(const Open& node);
    static const GroupKind* kind_of_group(uint32_t nodetype);

    Children children_;
    Result result_;
    std::vector<Open> way_;  ///< the tree is of any depth, so the way down isn't the stack's
    std::set<NodeId> on_way_;
};

}  // namespace dbcache
