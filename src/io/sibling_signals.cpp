// The messenger's signals: reading and handling them, and the send lists.
#include <algorithm>
#include <array>
#include <cstring>

#include "error/exception.h"
#include "io/exception.h"
#include "io/pool_layout.h"
#include "io/sibling_messenger.h"

namespace io {

namespace {

/// Acknowledges that wait for a wake-up of their own at most.
constexpr size_t kMaxDeferredAcks = 64;
/// They never hold back more than one part in so many of their sender's area.
constexpr uint64_t kAckAreaShare = 8;

/// Sets a flag for as long as it lives.
class FlagScope {
  public:
    explicit FlagScope(bool& flag) : flag_(flag) { flag_ = true; }
    ~FlagScope() { flag_ = false; }
    FlagScope(const FlagScope&) = delete;
    FlagScope& operator=(const FlagScope&) = delete;

  private:
    bool& flag_;
};

}  // namespace

void SiblingMessenger::underlyingIsReady(Selectable& underlying) {
    if (&underlying == &input_) {
        readSignals();
        return;
    }
    for (const auto& [peer_id, known] : peers_) {
        if (&underlying != static_cast<Selectable*>(&known->writer_)) continue;
        setWatch(&known->writer_, false);
        if (unflushed_sibling_ == known.get()) unflushed_sibling_ = nullptr;
        flush();
        letGoWhenDone(*known);
        return;
    }
}

void SiblingMessenger::readSignals() {
    {
        const FlagScope handling(handling_signals_);
        const uint8_t* bytes = nullptr;
        const size_t count = input_.readBegin(bytes);
        error::check(count % kSignalBytes == 0, "Read {} bytes on input FIFO", count);
        for (size_t position = 0; position < count; position += kSignalBytes) {
            SignalMessage message;
            std::memcpy(&message, bytes + position, kSignalBytes);
            input_.readCommit(kSignalBytes);
            handle(message);
        }
    }
    if (queuedSignals() != 0) flush();
}

void SiblingMessenger::readArrivedSignals() {
    if (handling_signals_) return;
    // More reads than a full FIFO takes would wait for what arrives later.
    constexpr int kMostReads = 32;
    for (int reads = 0; reads < kMostReads; ++reads) {
        input_.systemReady();
        if (!input_.isReady()) return;
        readSignals();
    }
}

void SiblingMessenger::handle(const SignalMessage& message) {
    const signal_t type = message.type();
    const bool carries_id = type != signal_t::MessageAt && type != signal_t::AckMessageAt &&
                            type != signal_t::ExtraOffset && type != signal_t::ExtraSize;
    error::check(type != signal_t::MT_Undefined && message.sender <= kMaxSiblingId &&
                     (!carries_id || message.argument() <= kMaxSiblingId),
                 "Got MT_Undefined");
    if (type == signal_t::MessageAt)
        onMessageAt(peer(message.sender), message.argument());
    else if (type == signal_t::AckMessageAt)
        onAckMessageAt(peer(message.sender), message);
    else
        handleControl(message);
}

void SiblingMessenger::onMessageAt(SiblingImplementation& sender, uint32_t offset) {
    const uint64_t pool_size = memory_.size();
    error::check(
        offset >= pool_layout::kFirstAreaOffset && offset + pool_layout::kHeaderBytes <= pool_size,
        "Offset out of range: {} !< {}", offset, pool_size);
    const uint64_t length = pool_layout::load_length(memory_.data(), offset);
    error::check(length <= pool_size - offset - pool_layout::kHeaderBytes,
                 "Offset out of range: {} !< {}", offset + length, pool_size);
    // Whoever has an area was introduced here before its first message.
    if (sender.newest_life_ == 0 && sender.id_ != kParentId) return;
    const bool newest_died =
        sender.next_lives_.empty() ? sender.failed_ : sender.next_lives_.back().died;
    if (newest_died) return;  // said before it died, and nobody promised to keep it
    received_.append(sender.received_, sender.id_, offset, length, sender.newest_life_);
}

void SiblingMessenger::onAckMessageAt(SiblingImplementation& reader, const SignalMessage& message) {
    if (reader.failed_) return;  // its blocks are free already
    const auto lent = unacknowledged_.find(message.argument());
    if (lent == unacknowledged_.end() || lent->second != reader.id_) [[unlikely]]
        error::fail_assertion(fmt::format("Not one of my messages: {}", message.text()));
    unacknowledged_.erase(lent);
    --reader.lent_blocks_;
    release(message.argument());
    letGoWhenDone(reader);
}

// Signals out

void SiblingMessenger::openFifo(SiblingImplementation& target) {
    error::check(!target.fifoOpen(), "Sibling {} openFifo called with open FIFO for sibling {}",
                 id_, target.id_);
    platform::Fd fd = platform::open_fifo_for_writing(
        fifoPath(target.id_),
        fmt::format("Cannot open sibling id {} FIFO for writing", target.id_));
    if (!fd) throw ENoConnection();
    target.writer_.open(std::move(fd));
}

void SiblingMessenger::queueSignal(SiblingImplementation& target, signal_t type,
                                   uint32_t argument) {
    if (!target.fifoOpen()) throw ENoConnection();
    outgoing_.push_back({&target, SignalMessage::make(type, argument, id_)});
}

void SiblingMessenger::send(SiblingImplementation& target, signal_t type, uint32_t argument) {
    queueSignal(target, type, argument);
    if (!handling_signals_) flush();
}

void SiblingMessenger::sendTriple(SiblingImplementation& target, uint32_t offset, uint32_t size,
                                  uint32_t sibling_id) {
    queueSignal(target, signal_t::ExtraOffset, offset);
    queueSignal(target, signal_t::ExtraSize, size);
    send(target, signal_t::SiblingAt, sibling_id);
}

void SiblingMessenger::queueAck(SiblingImplementation& target, uint32_t offset, uint64_t length) {
    if (!target.fifoOpen()) return;
    if (target.acks_.empty()) with_acks_.push_back(&target);
    target.acks_.push_back(SignalMessage::make(signal_t::AckMessageAt, offset, id_));
    target.ack_bytes_ += length;
    if (target.acks_.size() >= kMaxDeferredAcks ||
        target.ack_bytes_ * kAckAreaShare > target.area_size_)
        flush();
}

void SiblingMessenger::flushUnlessBusy() {
    if (handling_signals_) return;
    if (!received_.empty() && queuedSignals() < kMaxDeferredSignals) {
        const uint64_t now_us = clock_.monotonic_us();
        const bool busy = now_us - last_announce_us_ < kMaxDeferral_us;
        last_announce_us_ = now_us;
        if (busy) return;
    }
    flush();
}

void SiblingMessenger::flushIfLate() {
    if (queuedSignals() == 0 || unflushed_sibling_ != nullptr) return;
    if (clock_.monotonic_us() - last_announce_us_ >= kMaxDeferral_us) flush();
}

void SiblingMessenger::flush() {
    while (unflushed_sibling_ == nullptr && queuedSignals() != 0) {
        SiblingImplementation& target = *outgoing_[outgoing_head_].peer;
        if (!target.writer_.hasPendingData()) writeTo(target);
        watchIfBlocked(target);
        if (target.writer_.hasPendingData()) {
            unflushed_sibling_ = &target;
            unflushed_since_us_ = clock_.monotonic_us();
        }
    }
    // Acknowledges are in no order with the rest, so those to other peers need not wait for a
    // blocked one.
    for (SiblingImplementation* target : with_acks_) {
        while (!target->acks_.empty() && !target->writer_.hasPendingData()) writeTo(*target);
        watchIfBlocked(*target);
    }
    std::erase_if(with_acks_,
                  [](const SiblingImplementation* target) { return target->acks_.empty(); });
}

// One write: all acknowledges for the peer, then from the head of the global list what is for it.
void SiblingMessenger::writeTo(SiblingImplementation& target) {
    if (target.writer_.hasFailed()) {
        // Its process is gone, which the parent will tell; what is meant for it is void.
        target.acks_.clear();
        target.ack_bytes_ = 0;
        dropQueuedFor(target);
        return;
    }
    uint8_t* bytes = nullptr;
    const size_t room = target.writer_.writeBegin(bytes) / kSignalBytes;

    const size_t acks = std::min(room, target.acks_.size());
    if (acks != 0) std::memcpy(bytes, target.acks_.data(), acks * kSignalBytes);
    target.acks_.erase(target.acks_.begin(), target.acks_.begin() + static_cast<ptrdiff_t>(acks));
    if (target.acks_.empty()) target.ack_bytes_ = 0;

    size_t written = acks;
    while (unflushed_sibling_ == nullptr && written < room && queuedSignals() != 0 &&
           outgoing_[outgoing_head_].peer == &target) {
        std::memcpy(bytes + written * kSignalBytes, &outgoing_[outgoing_head_].message,
                    kSignalBytes);
        ++outgoing_head_;
        ++written;
    }
    if (queuedSignals() == 0) {
        outgoing_.clear();
        outgoing_head_ = 0;
    }
    target.writer_.writeCommit(written * kSignalBytes);
}

void SiblingMessenger::watchIfBlocked(SiblingImplementation& target) {
    if (target.writer_.hasPendingData()) setWatch(&target.writer_, true);
}

void SiblingMessenger::dropQueuedFor(const SiblingImplementation& target) {
    outgoing_.erase(outgoing_.begin(), outgoing_.begin() + static_cast<ptrdiff_t>(outgoing_head_));
    outgoing_head_ = 0;
    std::erase_if(outgoing_, [&](const Outgoing& entry) { return entry.peer == &target; });
}

void SiblingMessenger::flushOnly(SiblingImplementation& target) {
    for (const auto& [peer_id, known] : peers_)
        if (known.get() != &target) closeRoad(*known);
    flush();
    while (target.writer_.hasPendingData() || queuedSignals() != 0) {
        waitReady(target.writer_);
        underlyingIsReady(target.writer_);
    }
}

}  // namespace io
