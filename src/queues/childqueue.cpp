#include "queues/childqueue.h"

#include <algorithm>

#include "io/exception.h"
#include "io/sibling_messenger.h"
#include "meter/meter.h"
#include "platform/clock.h"
#include "queues/wire_error.h"

namespace queues {

namespace {

meter::Group queues_group{"queues"};
meter::MicroSecondTiming blockings{&queues_group, "blockings",
                                   "The time spent blocked awaiting reply from another process"};
meter::IntegerCounter noblockings{
    &queues_group, "noblockings", "",
    "The number of times a reply from another process was immediately available"};

/// What a reader of events takes for a fault of its own process, before it does.
void check_header(const detail::RecordBuffer& record) {
    if (!record.is_bounded())
        throw EMalformedRecord(
            fmt::format("Malformed record: more than {} bytes", detail::RecordBuffer::kMost_bytes));
    const auto number = static_cast<event_t>(record.word(0).value_or(MESSAGE_EXCEPTION));
    if (number <= INVALID_HEAD || number >= INVALID_TAIL)
        throw EMalformedRecord(
            fmt::format("Malformed record: event number {}", static_cast<std::int32_t>(number)));
    constexpr std::size_t kExceptionWord = 3;
    if (number == MESSAGE_EXCEPTION && record.word(kExceptionWord) == 0U)
        throw EMalformedRecord("Malformed record: exception event without exception");
}

}  // namespace

bool lost_peers_t::test(queue_t peer) const {
    const auto bit = static_cast<std::size_t>(peer);
    return peer > queue_t::none && bit < bits_.size() && bits_[bit];
}

void lost_peers_t::set(queue_t peer, bool lost) {
    const auto bit = static_cast<std::size_t>(peer);
    if (bit >= bits_.size()) bits_.resize(bit + 1);
    bits_[bit] = lost;
}

bool childqueue::InFront::isReady() const {
    return !queue_.waiting_.empty() || queue_.messenger_.someSibling().isReady();
}

/// Marks the queue as busy; the outermost one tells the hook when it ends.
class childqueue::Operation {
  public:
    explicit Operation(childqueue& queue) : queue_(queue) { ++queue_.depth_; }
    ~Operation() {
        if (--queue_.depth_ == 0 && queue_.on_free_) queue_.on_free_();
    }
    Operation(const Operation&) = delete;
    Operation& operator=(const Operation&) = delete;

  private:
    childqueue& queue_;
};

childqueue::childqueue(io::SiblingMessenger& messenger, const platform::Clock& clock)
    : messenger_(messenger), clock_(clock), front_(*this) {
    inner_.add(messenger_.someSibling());
    watch_messenger(true);
}

childqueue::~childqueue() {
    watch_messenger(false);
    inner_.remove(messenger_.someSibling());
}

std::uint32_t childqueue::new_uid() {
    // Nobody answers the ids that mean "no reply", so the numbers go round without them.
    do ++last_uid_;
    while (!wants_reply(static_cast<std::uint32_t>(last_uid_)));
    return static_cast<std::uint32_t>(last_uid_);
}

childqueue::Peer& childqueue::peer_streams(queue_t peer) {
    std::unique_ptr<Peer>& streams = streams_[peer];
    if (!streams)
        streams = std::make_unique<Peer>(messenger_.sibling(static_cast<std::uint32_t>(peer)));
    return *streams;
}

void childqueue::send(const event& sent) {
    // The name of an event is put together for a failure only: this is the road of every event.
    if (sent.peer <= queue_t::none) [[unlikely]]
        error::fail_assertion(fmt::format("{} has no queue to go to: {}", event_name(&sent),
                                          static_cast<std::int32_t>(sent.peer)));
    // Two events at once would mix their bytes.
    if (busy()) [[unlikely]]
        error::fail_assertion(fmt::format("{} sent while the queue is busy", event_name(&sent)));
    const Operation operation(*this);
    peer_streams(sent.peer).stream.write(sent);
}

std::unique_ptr<event> childqueue::read() {
    if (!waiting_.empty()) return take(waiting_.begin());
    const Operation operation(*this);
    return read_messenger();
}

std::unique_ptr<event> childqueue::read_messenger() {
    if (!messenger_.someSibling().isReady()) inner_.select(io::wait_t::blocking);
    const auto sender = static_cast<queue_t>(messenger_.nextSender());
    Peer& streams = peer_streams(sender);
    std::unique_ptr<event> received;
    try {
        received = collects_ ? read_whole(streams) : streams.stream.read();
    } catch (const io::EEndOfStream&) {
        lost_peers_.set(sender, true);
        last_uid_at_end_[sender] = last_uid_;
        // A peer that comes back starts anew: what was read of a broken event goes with its
        // streams' state.
        streams.handle->endSeen();
        streams_.erase(sender);
        if (on_end_) on_end_(sender);
        return nullptr;
    }
    if (!received) return nullptr;
    lost_peers_.set(sender, false);
    received->peer = sender;
    return received;
}

// One message at a time, so that the order over all peers stays.
std::unique_ptr<event> childqueue::read_whole(Peer& peer) {
    peer.begun.take_message(peer.handle->in());
    peer.last_piece_us = clock_.monotonic_us();
    if (peer.passed_over) {
        peer.begun.clear();
        return nullptr;
    }
    try {
        check_header(peer.begun);
        std::unique_ptr<event> received = fdio(peer.begun, peer.handle->out()).read();
        if (!peer.begun.is_read())
            throw EMalformedRecord(fmt::format("Malformed record in {}: more bytes than it has",
                                               event_name(received.get())));
        peer.begun.clear();
        return received;
    } catch (const io::ENotReady&) {
        peer.begun.rewind();
        return nullptr;
    } catch (const EMalformedRecord&) {
        peer.begun.clear();
        peer.passed_over = true;
        throw;
    }
}

std::optional<std::uint64_t> childqueue::waits_for_rest_since_us(queue_t peer) const {
    const auto streams = streams_.find(peer);
    if (streams == streams_.end() || streams->second->begun.empty()) return std::nullopt;
    return streams->second->last_piece_us;
}

std::unique_ptr<event> childqueue::take(std::list<std::unique_ptr<event>>::iterator position) {
    std::unique_ptr<event> taken = std::move(*position);
    waiting_.erase(position);
    const auto entry = index_.find({taken->uid, taken->peer});
    error::check(entry != index_.end(), "Corrupted index set");
    index_.erase(entry);
    if (waiting_.empty()) watch_messenger(true);
    return taken;
}

void childqueue::keep(std::unique_ptr<event> received) {
    index_.emplace(received->uid, received->peer);
    waiting_.push_back(std::move(received));
    watch_messenger(false);
}

std::unique_ptr<event> childqueue::await(std::uint32_t uid, queue_t peer) {
    if (index_.contains({uid, peer})) {
        const auto found = std::find_if(waiting_.begin(), waiting_.end(), [&](const auto& kept) {
            return kept->uid == uid && kept->peer == peer;
        });
        error::check(found != waiting_.end(), "Corrupted index set");
        noblockings.increment();
        return take(found);
    }
    if (asked_a_former_life(uid, peer)) return nullptr;
    if (lost_peers_.test(peer)) {
        if (!came_back(peer)) return nullptr;
        lost_peers_.set(peer, false);
    }
    const Operation operation(*this);
    return await_messenger(uid, peer);
}

// Everything asked before its end was read went to the life that ended: after that a send either
// throws or goes to the next life.
bool childqueue::asked_a_former_life(std::uint32_t uid, queue_t peer) const {
    const auto ended = last_uid_at_end_.find(peer);
    if (ended == last_uid_at_end_.end()) return false;
    const std::uint32_t given_since = static_cast<std::uint32_t>(last_uid_) - uid;
    return last_uid_ - given_since <= ended->second;
}

bool childqueue::came_back(queue_t peer) const {
    return !messenger_.sibling(static_cast<std::uint32_t>(peer))->endWasRead();
}

std::unique_ptr<event> childqueue::await_messenger(std::uint32_t uid, queue_t peer) {
    const std::uint64_t start_us = clock_.monotonic_us();
    while (true) {
        std::unique_ptr<event> received = read_messenger();
        if (received && received->uid == uid && received->peer == peer) {
            blockings.add(clock_.monotonic_us() - start_us);
            return received;
        }
        const std::string arrived =
            received && await_limit_s_ > 0 ? event_name(received.get()) : "";
        if (received) keep(std::move(received));
        if (lost_peers_.test(peer) || messenger_.isOrphaned()) return nullptr;
        if (!arrived.empty() &&
            clock_.monotonic_us() - start_us > std::uint64_t{await_limit_s_} * 1'000'000)
            throw errors::queue_await_timeout(arrived);
    }
}

void childqueue::watch_messenger(bool on) {
    setWatch(&messenger_.someSibling(), on);
}

void childqueue::underlyingIsReady(io::Selectable&) {
    // Nothing to do ahead of read(): the front is ready because the messenger is.
}

}  // namespace queues
