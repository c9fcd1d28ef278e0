// Who subscribed to what, and when what is due to them goes out. The engine knows whom a write has
// touched (tqlengine/subscriptions.h); here it becomes events, after the event that held the write.
//
// One subscription that isn't patchable, as a write touches it:
//
//   watched --write--> queued --tqlPeriodicUpdate--> running --> watched, waiting for an
//   acknowledge
//                        |  |                           ^  ^     if it asked to be waited for
//                        |  +---too early---> deferred -+  |
//                        |                       ^  (timer)|
//                        +-waiting--> pending ---+---------+
//                                       (acknowledge; too early)
//
// Patches go out after every event, whatever has been acknowledged.
//
// A subscription ends when its subscriber forgets it or dies. A subscriber's death is learned of
// when the end of its stream is read, or when something can't be sent to it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "dbms/event_meters.h"
#include "dbms/event_trace.h"
#include "dbms/simple_subscriptions.h"
#include "platform/clock.h"
#include "queues/childqueue.h"
#include "queues/records/dbms_tql.h"
#include "tqlengine/engine.h"
#include "util/time.h"

namespace dbms {

class Subscribers {
  public:
    /// What subscriptions work with; all outlive them.
    struct Parts {
        const platform::Clock& clock;
        queues::childqueue& queue;
        tqlengine::Engine& engine;
        EventMeters& meters;
        EventTrace& trace;
    };

    explicit Subscribers(const Parts& parts) : parts_(parts) {}
    Subscribers(const Subscribers&) = delete;
    Subscribers& operator=(const Subscribers&) = delete;

    // ---- what subscribers ask for ---------------------------------------------------------------

    /// Of one sibling, and as many simple ones. More than any client has a use for: one that never
    /// forgets what it subscribed to must not take the server's memory.
    static constexpr size_t kMostPerSibling = SimpleSubscriptions::kMostPerSibling;

    /// Runs the select, sends its answer (event 83) and keeps the subscriber informed from now on.
    /// An earlier subscription under the same request id ends. One too many is answered with status
    /// 12 and not kept.
    void subscribe(queues::queue_t sibling, uint32_t request_id, Tql_Select_Data request);
    /// The subscriber has taken in the last answer: what came due meanwhile goes out, now or when
    /// its time has come. An unknown request id is passed over.
    void acknowledge(queues::queue_t sibling, uint32_t request_id);
    /// Nothing goes out under this request id any more. Throws errors::db_anomaly when nothing has
    /// been subscribed under it.
    void forget(queues::queue_t sibling, uint32_t request_id);
    /// See SimpleSubscriptions::add().
    void subscribe_simply(queues::queue_t sibling, uint32_t request_id,
                          const Tql_Simple_Subscribe_Data& request) {
        drop_lost();
        simple_.add(sibling, request_id, request);
    }

    // ---- what the server does for them ----------------------------------------------------------

    /// Tells simple subscribers at once; `current` is the sender of the event being handled.
    void notify(tqlengine::TqlObjectHandler& object, tqlengine::object_operation_t operation,
                queues::queue_t current) noexcept;
    /// Sends out what writes have made due. To be called right after each event that went through
    /// the dispatcher, with its sender and its name.
    void tqlPeriodicUpdate(queues::queue_t sender, std::string_view caused_by);
    /// When the earliest deferred evaluation is due, on the clock's monotonic time in microseconds.
    [[nodiscard]] std::optional<uint64_t> next_deferred_us() const;
    /// Runs the earliest deferred evaluation, if its time has come.
    void run_deferred();

    /// A sibling is gone. May be called at any time, also while a subscription is being evaluated;
    /// the sibling's subscriptions end with the next drop_lost().
    void lose(queues::queue_t sibling) { lost_.insert(sibling); }
    /// Ends all subscriptions of siblings that are gone; sends nothing. Everything above begins and
    /// ends with it.
    void drop_lost();
    /// From now on simple subscribers are told nothing.
    void shut_down() noexcept { shutting_down_ = true; }

    /// Subscriptions by select that exist now.
    [[nodiscard]] size_t size() const noexcept { return subscribed_selects_.size(); }

  private:
    using Key = std::pair<queues::queue_t, uint32_t>;  ///< sibling and request id

    struct Deferred {
        uint64_t due_us;
        queues::queue_t cause;
    };
    struct Subscription {
        Subscription(const Key& its_key, Tql_Select_Data its_request)
            : key(its_key), request(std::move(its_request)) {}

        Key key;
        Tql_Select_Data request;
        /// An answer went out and its acknowledge hasn't come.
        bool waiting = false;
        /// An evaluation fell due while waiting: whose event caused it last.
        std::optional<queues::queue_t> pending;
        /// No evaluation before this moment of the monotonic clock; a limit on their rate.
        uint64_t next_evaluation_us = 0;
        std::optional<Deferred> deferred;
    };
    using Selects = std::map<uint32_t, Subscription>;

    void end(Selects::iterator subscription);
    void drop(queues::queue_t sibling);

    void give_patch(const tqlengine::Subscriptions::Patch& patch, queues::queue_t cause,
                    std::string_view caused_by);
    void reevaluate(uint32_t id, queues::queue_t cause);
    bool defer_if_too_early(uint32_t id, Subscription& subscription, queues::queue_t cause);
    /// Logs, evaluates, sends and meters; gives the time it took.
    uint64_t evaluate_again(uint32_t id, Subscription& subscription, queues::queue_t cause);
    uint64_t select(uint32_t id, Subscription& subscription);
    bool refuse_one_too_many(const Key& key);
    [[nodiscard]] tqlengine::RequestContext context_for(const Subscription& subscription) const;
    [[nodiscard]] Time wall_time_of(uint64_t moment_us) const;

    /// Sends an event of the class Event, which holds `content`.
    template <class Event, class Content>
    void send(const Key& to, Content content);

    Parts parts_;
    /// By subscription id, which is never 0.
    Selects subscribed_selects_;
    std::map<Key, uint32_t> ids_;
    std::map<queues::queue_t, size_t> counts_;  ///< entries of ids_ by sibling
    /// The deferred ones: when they are due, and their ids.
    std::set<std::pair<uint64_t, uint32_t>> deferred_;
    SimpleSubscriptions simple_;
    /// Siblings that are gone; nothing is sent to them until their subscriptions have been dropped.
    std::set<queues::queue_t> lost_;
    bool shutting_down_ = false;
};

}  // namespace dbms
