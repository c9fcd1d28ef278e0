// queues::childqueue: whole events in place of byte streams. It sends an event to a peer, hands out
// the next event, and waits for the answer to a request while everything else that arrives is kept
// in order on a waiting list.
//
// It stands on a messenger, that of a child or that of the parent: both sides of the family use
// this class. It dispatches nothing; that is the main loop's matter. There is one in a process.
//
//   watching  --await keeps an event-->  ready      the front is ready by the waiting list alone
//   ready     --the list ran empty-->    watching   the front is ready when the messenger has
//   something
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "io/selector.h"
#include "io/sibling.h"
#include "io/stack.h"
#include "queues/detail/record_buffer.h"
#include "queues/event.h"
#include "queues/fdio.h"

namespace io {
class SiblingMessenger;
}
namespace platform {
class Clock;
}

namespace errors {

/// A wait with a limit took too long; the text is the name of the event that arrived instead.
class queue_await_timeout : public error::Exception {
  public:
    using Exception::Exception;
};

}  // namespace errors

namespace queues {

/// Which peers' streams have ended since they last delivered an event. Grows as needed.
class lost_peers_t {
  public:
    [[nodiscard]] bool test(queue_t peer) const;
    void set(queue_t peer, bool lost);

  private:
    std::vector<bool> bits_ = std::vector<bool>(25);
};

class childqueue : public io::StackedSelectableBack {
  public:
    /// What a selector sees of the queue: ready when read() has something to hand out.
    class InFront final : public io::StackedSelectableFront {
      public:
        explicit InFront(childqueue& queue) : io::StackedSelectableFront(queue), queue_(queue) {}
        void name(std::string& out) const override { out += "parentqueue.in"; }
        [[nodiscard]] bool isReady() const override;

      private:
        childqueue& queue_;
    };

    /// Both must outlive the queue. `clock` measures how long dialogs wait.
    childqueue(io::SiblingMessenger& messenger, const platform::Clock& clock);
    /// Events that nobody took are dropped.
    ~childqueue() override;

    /// The next dialog id; never one that gets no reply.
    [[nodiscard]] std::uint32_t new_uid();

    /// Sends `sent` to the queue that its peer names; the caller keeps it. Blocks while there is no
    /// room and serves only the messenger meanwhile. io::EEndOfStream if the peer ended or a
    /// shutdown forbids the write. A peer below 0, or a send from within a send, is a fatal
    /// assertion.
    void send(const event& sent);

    /// The next event: the first of the waiting list, else the next from the messenger, for which
    /// it waits. None after the end of some peer's stream; lost_peers() tells whose. Its peer is
    /// the sender. A record that cannot be one throws EMalformedRecord, or is a fatal assertion.
    [[nodiscard]] std::unique_ptr<event> read();

    /// From now on read() never waits for the rest of a record. It takes what has arrived and gives
    /// none until the record is whole, so that a peer that stops in the middle of one holds up
    /// nobody. A record that cannot be one, whatever is wrong with it, throws EMalformedRecord, and
    /// everything else of its peer is passed over until that ends. To be called before anything is
    /// read; for a process that has no dialogs.
    void never_wait_for_rest() { collects_ = true; }
    /// Since when the rest of a record of `peer` is missing: the time of its last piece on the
    /// queue's monotonic clock. None if no rest is missing. Only after never_wait_for_rest().
    [[nodiscard]] std::optional<std::uint64_t> waits_for_rest_since_us(queue_t peer) const;

    /// The event with this uid, the result of new_uid(), from this peer, which may have arrived
    /// already. Waits without limit and keeps what else arrives. None if the peer ended, or the
    /// parent, who would tell of that. A peer that came back answers what it is asked from then on;
    /// what its former life was asked stays without answer.
    [[nodiscard]] std::unique_ptr<event> await(std::uint32_t uid, queue_t peer);

    [[nodiscard]] const lost_peers_t& lost_peers() const { return lost_peers_; }
    [[nodiscard]] InFront& front() { return front_; }
    /// Events kept for later.
    [[nodiscard]] std::size_t waiting() const { return waiting_.size(); }

    /// True while an operation of the queue is on the stack: nothing may be sent then.
    [[nodiscard]] bool busy() const { return depth_ > 0; }
    /// Called when an operation has ended and the queue is free again; it may send and must not
    /// throw. One at a time; an empty function takes it away.
    void on_free(std::function<void()> hook) { on_free_ = std::move(hook); }

    /// Called when the end of a peer's stream has been read, whoever read it; must not send or
    /// throw. One at a time; an empty function takes it away.
    void on_end(std::function<void(queue_t)> hook) { on_end_ = std::move(hook); }

    /// Limits waits: an await that is still open `limit_s` seconds after it began throws
    /// errors::queue_await_timeout when another event arrives. 0, as at the start, means no limit.
    void limit_await(std::uint32_t limit_s) { await_limit_s_ = limit_s; }
    static constexpr std::uint32_t kUsualAwaitLimit_s = 300;

    void underlyingIsReady(io::Selectable& underlying) override;

  private:
    using index_t = std::multiset<std::pair<std::uint32_t, queue_t>>;

    /// The streams of one peer; the handle keeps them.
    struct Peer {
        explicit Peer(io::SiblingHandle sibling)
            : handle(std::move(sibling)), stream(handle->in(), handle->out()) {}
        io::SiblingHandle handle;
        fdio stream;
        detail::RecordBuffer begun;  ///< of a record whose rest is missing
        std::uint64_t last_piece_us = 0;
        bool passed_over = false;  ///< its place in the stream is lost
    };
    class Operation;

    Peer& peer_streams(queue_t peer);
    std::unique_ptr<event> read_messenger();
    std::unique_ptr<event> read_whole(Peer& peer);
    std::unique_ptr<event> await_messenger(std::uint32_t uid, queue_t peer);
    [[nodiscard]] bool asked_a_former_life(std::uint32_t uid, queue_t peer) const;
    [[nodiscard]] bool came_back(queue_t peer) const;
    std::unique_ptr<event> take(std::list<std::unique_ptr<event>>::iterator position);
    void keep(std::unique_ptr<event> received);
    void watch_messenger(bool on);

    io::SiblingMessenger& messenger_;
    const platform::Clock& clock_;
    io::BareSelector inner_;
    InFront front_;
    std::map<queue_t, std::unique_ptr<Peer>> streams_;
    std::list<std::unique_ptr<event>> waiting_;
    index_t index_;               ///< (uid, peer) of each event on the waiting list
    std::uint64_t last_uid_ = 1;  ///< its lower half is the uid
    lost_peers_t lost_peers_;
    std::map<queue_t, std::uint64_t> last_uid_at_end_;  ///< of peers that ended at some time
    unsigned depth_ = 0;
    std::function<void()> on_free_;
    std::function<void(queue_t)> on_end_;
    std::uint32_t await_limit_s_ = 0;
    bool collects_ = false;
};

}  // namespace queues
