// A real store with classes of the catalogue, a random tree in it, random writes to that tree, and
// a record of what the writes must have left there.
//
//   Domain            nests; keys, labels, references, a suggested Node
//     Node            four groups without storage; suggested checks
//       0: Check      net checks of two kinds, which are other properties
//       1: CheckGroup nests, holds agent checks that are active or not
//       NodeInfoGroup nests; with computed children
//     Plan            below domains and nodes
//       WeekPlanner, ExpectedEvent      inherit from each other
//     NotificationJob names an object, which an index knows
//
// Any object may name a master, which another index knows.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "seen_tree.h"
#include "support/rng.h"
#include "support/test_store.h"

namespace queries {

/// Classes that can stand below others, as far as the world makes them.
std::vector<uint32_t> classes_below(uint32_t class_number);

class World {
  public:
    World();

    /// One random request: create, update, move or delete. Most succeed. Gives what it was, for
    /// whoever looks for the fault.
    std::string write(support::Rng& rng);
    /// What the tree must hold by the writes that succeeded and doesn't, or the other way round.
    /// Empty when all is well.
    std::string difference(const SeenTree& tree, bool with_values);

    /// Known objects, the root among them, or now and then an id that isn't there or that of a
    /// group.
    tql::id_t random_id(support::Rng& rng) const;
    /// Of an object of the class; empty where there is none.
    tql::id_t random_id(support::Rng& rng, uint32_t class_number) const;
    [[nodiscard]] size_t size() const { return known_.size(); }

    /// For a transaction that is aborted.
    [[nodiscard]] auto snapshot() const { return known_; }
    void restore(const auto& earlier) { known_ = earlier; }

    [[nodiscard]] uint64_t writes() const { return writes_; }
    [[nodiscard]] uint64_t refused() const { return refused_; }

    dbcache_test::TestStore store;

  private:
    struct Known {
        tql::id_t parent;
        uint32_t class_number = 0;
        std::map<uint32_t, std::string> values;
    };
    using Values = dbcache_test::Values;

    std::string create(support::Rng& rng);
    std::string update(support::Rng& rng);
    std::string move(support::Rng& rng);
    std::string remove(support::Rng& rng);
    std::string change(const char* what, const tql::id_t& id, Values values);
    std::string told(std::string what, uint32_t status);

    Values start_values(support::Rng& rng, uint32_t class_number, bool under_node);
    tql::value_t random_value(support::Rng& rng, uint32_t class_number);
    tql::id_t random_known(support::Rng& rng, const std::function<bool(const Known&)>& fits) const;
    tql::id_t place_for(support::Rng& rng, uint32_t class_number) const;
    void note_values(Known& known, const Values& values);
    [[nodiscard]] bool is_below(tql::id_t id, const tql::id_t& above) const;
    void forget(const tql::id_t& id);

    std::map<tql::id_t, Known> known_;
    uint32_t last_number_ = 0;
    uint64_t writes_ = 0;
    uint64_t refused_ = 0;
};

std::string random_name(support::Rng& rng);

}  // namespace queries
