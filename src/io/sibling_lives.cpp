// What becomes of a peer: introduced, told to let go of, dead, back again.
#include <utility>

#include "error/exception.h"
#include "io/exception.h"
#include "io/sibling_messenger.h"

namespace io {

bool SiblingMessenger::endIsUnread(const SiblingImplementation& sibling) const {
    const detail::ReceivedMessage* first = sibling.received_.first;
    return sibling.failed_ && first != nullptr && first->life == sibling.life_;
}

bool SiblingMessenger::hasOutstanding(const SiblingImplementation& sibling) const {
    if (sibling.lent_blocks_ != 0) return true;
    for (const detail::ReceivedMessage* message = sibling.received_.first;
         message != nullptr && !message->isNull() && message->life == sibling.life_;
         message = message->next_of_sender)
        if (!message->copy) return true;
    return false;
}

void SiblingMessenger::peerIntroduced(SiblingImplementation& sibling, uint64_t area_offset,
                                      uint64_t area_size) {
    ++sibling.newest_life_;
    if (endIsUnread(sibling) || !sibling.next_lives_.empty())
        sibling.next_lives_.push_back({area_offset, area_size});
    else
        beginLife(sibling, area_offset, area_size);
}

void SiblingMessenger::beginLife(SiblingImplementation& sibling, uint64_t area_offset,
                                 uint64_t area_size) {
    ++sibling.life_;
    sibling.failed_ = false;
    sibling.shutdown_pending_ = false;
    sibling.requested_ = false;
    sibling.stream_ended_ = false;
    sibling.area_offset_ = area_offset;
    sibling.area_size_ = area_size;
    try {
        openFifo(sibling);
    } catch (const ENoConnection&) {
        return;  // it ended already, which the parent will tell
    }
    for (const uint32_t offset : sibling.out_.undelivered_)
        queueSignal(sibling, signal_t::MessageAt, offset);
    sibling.out_.undelivered_.clear();
    if (!handling_signals_) flush();
}

void SiblingMessenger::takeNextLife(SiblingImplementation& sibling) {
    while (sibling.failed_ && !endIsUnread(sibling) && !sibling.next_lives_.empty()) {
        const SiblingImplementation::NextLife next = sibling.next_lives_.front();
        sibling.next_lives_.erase(sibling.next_lives_.begin());
        beginLife(sibling, next.area_offset, next.area_size);
        if (next.died) {
            closeRoad(sibling);
            sibling.failed_ = true;
        }
        sibling.shutdown_pending_ = next.shutdown_asked;
        letGoWhenDone(sibling);
    }
}

void SiblingMessenger::peerShutdown(SiblingImplementation& sibling) {
    if (!sibling.next_lives_.empty()) {
        sibling.next_lives_.back().shutdown_asked = true;
        return;
    }
    sibling.shutdown_pending_ = true;
    letGoWhenDone(sibling);
}

void SiblingMessenger::letGoWhenDone(SiblingImplementation& sibling) {
    if (!sibling.shutdown_pending_ || hasOutstanding(sibling)) return;
    if (!sibling.failed_ && sibling.fifoOpen()) {
        // It can't end before it has our last acknowledges.
        flush();
        if (!sibling.acks_.empty() || sibling.writer_.hasPendingData()) return;
    }
    sibling.shutdown_pending_ = false;
    closeRoad(sibling);
    write_areas_.erase(sibling.area_offset_);
    letGo(sibling);
}

void SiblingMessenger::peerDied(SiblingImplementation& sibling) {
    if (!sibling.next_lives_.empty()) {
        if (std::exchange(sibling.next_lives_.back().died, true)) return;
        appendNullMessage(sibling);
        return;
    }
    if (std::exchange(sibling.failed_, true)) return;
    sibling.requested_ = false;
    closeRoad(sibling);
    sibling.out_.undelivered_.clear();
    releaseLentTo(sibling);
    appendNullMessage(sibling);
    letGoWhenDone(sibling);
}

void SiblingMessenger::releaseLentTo(SiblingImplementation& sibling) {
    sibling.lent_blocks_ = 0;
    for (auto lent = unacknowledged_.begin(); lent != unacknowledged_.end();) {
        if (lent->second != sibling.id_) {
            ++lent;
            continue;
        }
        const uint32_t offset = lent->first;
        lent = unacknowledged_.erase(lent);
        release(offset);
    }
}

void SiblingMessenger::dropUndelivered() {
    for (const auto& [peer_id, known] : peers_) {
        for (const uint32_t offset : known->out_.undelivered_) {
            unacknowledged_.erase(offset);
            --known->lent_blocks_;
            release(offset);
        }
        known->out_.undelivered_.clear();
    }
}

void SiblingMessenger::closeRoad(SiblingImplementation& sibling) {
    sibling.acks_.clear();
    sibling.ack_bytes_ = 0;
    std::erase(with_acks_, &sibling);
    dropQueuedFor(sibling);
    setWatch(&sibling.writer_, false);
    sibling.writer_.closeWrite();
    if (unflushed_sibling_ == &sibling) unflushed_sibling_ = nullptr;
}

void SiblingMessenger::appendNullMessage(SiblingImplementation& sibling) {
    received_.append(sibling.received_, sibling.id_, 0, 0, sibling.newest_life_);
}

void SiblingMessenger::setAreaSize(SiblingImplementation& sibling, uint64_t size) {
    sibling.area_size_ = size;
}

void SiblingMessenger::endSeen(SiblingImplementation& sibling) {
    const detail::ReceivedMessage* first = sibling.received_.first;
    if (first != nullptr && first->isNull()) {
        received_.popFirst(sibling.received_);
        sibling.in_.bytes_read_ = 0;
        sibling.stream_ended_ = true;
        takeNextLife(sibling);
    }
    endWasSeen(sibling);
}

}  // namespace io
