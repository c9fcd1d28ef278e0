// Simple subscriptions: who is told at once of each operation on objects of certain classes under a
// root, without a query and without the objects' values.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <utility>

#include "queues/event_types.h"
#include "queues/records/dbms_tql.h"
#include "tqlengine/engine.h"

namespace dbms {

class SimpleSubscriptions {
  public:
    /// Sends what a subscription is told, under its request id. Must not throw.
    using Send = std::function<void(queues::queue_t, uint32_t, Return_Tql_Simple_Subscribe_Data&&)>;

    /// Of one sibling.
    static constexpr size_t kMostPerSibling = 20'000;

    /// Throws errors::db_anomaly when `sibling` has one under this request id already, or has
    /// kMostPerSibling. An operation of 32 or above is a fatal assertion.
    void add(queues::queue_t sibling, uint32_t request_id,
             const Tql_Simple_Subscribe_Data& request);
    /// False when there is none.
    bool remove(queues::queue_t sibling, uint32_t request_id);
    /// How many `sibling` had.
    size_t remove_all_of(queues::queue_t sibling);

    /// Tells of `operation` on `object` to all who want to know, while an event of `current` is
    /// being handled. An object above it that can't be read, or that stands above itself, ends
    /// the way to the top early: who subscribed to a root above that isn't told, and others get no
    /// origin, which the log says.
    void notify(tqlengine::TqlObjectHandler& object, tqlengine::object_operation_t operation,
                queues::queue_t current, const Send& send) const;

  private:
    struct Entry {
        std::set<uint32_t> classes;
        bool all_classes;
        uint32_t operations;  ///< bit n for operation n
        bool include_own_operations;
        tql::id_t root;
    };

    std::map<std::pair<queues::queue_t, uint32_t>, Entry> entries_;
    std::map<queues::queue_t, size_t> counts_;  ///< entries by sibling
};

}  // namespace dbms
