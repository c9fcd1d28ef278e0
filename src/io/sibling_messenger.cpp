// Construction, the own area and the streams of all peers. Signals are in sibling_signals.cpp, the
// lives of peers in sibling_lives.cpp.
#include "io/sibling_messenger.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "error/exception.h"
#include "io/exception.h"
#include "io/pool_layout.h"

namespace io {

namespace {

uint32_t checked_id(uint32_t own_id) {
    error::check(own_id <= kMaxSiblingId, "my_sibling_id is out of range.");
    return own_id;
}

}  // namespace

InputSignalReader::InputSignalReader(SiblingMessenger& messenger, platform::Fd fd, std::string path)
    : PipeIStream(std::move(fd), std::move(path)), messenger_(messenger) {}

void InputSignalReader::prepare() {
    messenger_.flush();
}

SomeSibling::SomeSibling(SiblingMessenger& messenger)
    : StackedSelectableFront(messenger), messenger_(messenger) {}

bool SomeSibling::isReady() const {
    return !messenger_.received_.empty() || messenger_.isOrphaned();
}

SiblingMessenger::SiblingMessenger(uint32_t own_id, SharedMemory memory, std::string fifo_prefix)
    : id_(checked_id(own_id)),
      memory_(std::move(memory)),
      fifo_prefix_(std::move(fifo_prefix)),
      input_(*this, platform::create_fifo(fifoPath(own_id)), fifoPath(own_id)),
      some_sibling_(*this),
      peer_by_id_(kMaxSiblingId + 1, nullptr),
      area_(memory_.data()),
      unacknowledged_(&map_memory_) {
    platform::ignore_broken_pipe_signal();
    setWatch(&input_, true);
}

SiblingMessenger::~SiblingMessenger() = default;

std::string SiblingMessenger::fifoPath(uint32_t sibling_id) const {
    return fifo_prefix_ + "." + std::to_string(sibling_id);
}

SiblingHandle SiblingMessenger::sibling(uint32_t peer_id) {
    return SiblingHandle(peer(peer_id));
}

SiblingImplementation& SiblingMessenger::peer(uint32_t peer_id) {
    error::check(peer_id <= kMaxSiblingId, "Sibling id {} is out of range.", peer_id);
    SiblingImplementation*& known = peer_by_id_[peer_id];
    if (known == nullptr) {
        auto made = std::make_unique<SiblingImplementation>(*this, peer_id);
        known = made.get();
        peers_.emplace(peer_id, std::move(made));
    }
    return *known;
}

bool SiblingMessenger::isOrphaned() const {
    const SiblingImplementation* parent = peer_by_id_[kParentId];
    return parent != nullptr && parent->processFailed() && received_.empty();
}

uint32_t SiblingMessenger::nextSender() const {
    const detail::ReceivedMessage* first = received_.front();
    if (first == nullptr) return kParentId;
    if (first->isNull() && peer_by_id_[first->sender]->received_.first != first)
        throw error::EFatal(fmt::format("Sibling {} terminated unexpectedly", first->sender));
    return first->sender;
}

uint64_t SiblingMessenger::lentBytes(uint32_t peer_id) const {
    uint64_t bytes = 0;
    for (const auto& [offset, receiver] : unacknowledged_)
        if (receiver == peer_id) bytes += pool_layout::load_length(memory_.data(), offset);
    return bytes;
}

std::optional<uint64_t> SiblingMessenger::holdsUpOthersSince_us(uint32_t peer_id) const {
    if (unflushed_sibling_ == nullptr || unflushed_sibling_->id_ != peer_id) return std::nullopt;
    return unflushed_since_us_;
}

std::string SiblingMessenger::check_area() const {
    std::vector<uint64_t> used;
    for (const auto& [offset, receiver] : unacknowledged_) used.push_back(offset);
    used.insert(used.end(), deferred_releases_.begin(), deferred_releases_.end());
    std::sort(used.begin(), used.end());
    return area_.check_area(used);
}

// Writing

bool SiblingMessenger::writerReady(const SiblingOStream& stream) const {
    if (area_.hasFreeBlock()) return true;
    return stream.sibling_.failed_ || writeForbidden(stream.sibling_.id_) != nullptr;
}

size_t SiblingMessenger::writeBegin(SiblingOStream& stream, uint8_t*& out) {
    const SiblingImplementation& receiver = stream.sibling_;
    if (receiver.failed_)
        throw EEndOfStream(stream.nameText(), "Write to failed process", receiver.id_);
    if (const char* reason = writeForbidden(receiver.id_))
        throw EEndOfStream(stream.nameText(), reason, receiver.id_);
    if (!area_.hasFreeBlock()) throw ENotReady(stream.nameText());
    // The same stream may begin again: what it did not commit is dropped.
    error::check(writing_ == nullptr || writing_ == &stream, "Multiple OStreams writing");
    writing_ = &stream;
    const WriteArea::FreeBlock block = area_.currentBlock();
    block_size_ = block.size;
    out = block.payload;
    return block.size;
}

void SiblingMessenger::writeCommit(SiblingOStream& stream, size_t count) {
    error::check(writing_ == &stream, "Commit without an OStream writing");
    writing_ = nullptr;
    error::check(count <= block_size_,
                 "write offset {} above current block size {} after adding {}", count, block_size_,
                 count);
    SiblingImplementation& receiver = stream.sibling_;
    // A receiver that died in between gets nothing; the next writeBegin says so.
    if (count != 0 && !receiver.failed_) {
        const auto offset = static_cast<uint32_t>(area_.publish(count));
        unacknowledged_.emplace(offset, receiver.id_);
        ++receiver.lent_blocks_;
        announce(receiver, offset);
    }
    for (const uint32_t offset : deferred_releases_) area_.release(offset);
    deferred_releases_.clear();
}

void SiblingMessenger::announce(SiblingImplementation& receiver, uint32_t offset) {
    if (receiver.fifoOpen()) {
        queueSignal(receiver, signal_t::MessageAt, offset);
        flushUnlessBusy();
        return;
    }
    error::check(receiver.id_ != id_, "Sibling {} has no FIFO to itself", id_);
    receiver.out_.undelivered_.push_back(offset);
    if (receiver.requested_) return;
    receiver.requested_ = true;
    requestPeer(receiver);
}

void SiblingMessenger::release(uint32_t offset) {
    // A release may merge the block that is just being written with the one before it.
    if (writing_ != nullptr)
        deferred_releases_.push_back(offset);
    else
        area_.release(offset);
    blockReleased();
}

// Reading

bool SiblingMessenger::readerReady(const SiblingIStream& stream) const {
    const SiblingImplementation& sender = stream.sibling_;
    return sender.received_.first != nullptr || sender.failed_ || sender.stream_ended_;
}

size_t SiblingMessenger::readBegin(SiblingIStream& stream, const uint8_t*& out) {
    flushIfLate();
    const SiblingImplementation& sender = stream.sibling_;
    const detail::ReceivedMessage* message = sender.received_.first;
    if (message == nullptr && sender.failed_)
        throw EEndOfStream(stream.nameText(), "readBegin had empty queue and process error",
                           sender.id_);
    if (message == nullptr && !sender.stream_ended_) throw ENotReady(stream.nameText());
    if (message == nullptr || message->isNull())
        throw EEndOfStream(stream.nameText(), "readBegin encountered the null message", sender.id_);
    error::check(message->sender == sender.id_, "curr_msg does not hold a message for us");
    error::check(message->length > stream.bytes_read_,
                 "Message not larger than number of bytes read {}", stream.bytes_read_);
    const uint8_t* start = message->copy ? message->copy.get()
                                         : memory_.data() + message->offset + pool_layout::kPayload;
    out = start + stream.bytes_read_;
    stream.borrowed_ = true;
    return message->length - stream.bytes_read_;
}

void SiblingMessenger::readCommit(SiblingIStream& stream, size_t count) {
    SiblingImplementation& sender = stream.sibling_;
    const detail::ReceivedMessage* message = sender.received_.first;
    error::check(message != nullptr && !message->isNull(),
                 "Read committed with no messages in queue");
    error::check(count <= message->length - stream.bytes_read_,
                 "Cannot commit more read data than what there was");
    stream.bytes_read_ += count;
    if (stream.bytes_read_ != message->length) return;

    const uint32_t offset = message->offset;
    const uint64_t length = message->length;
    // A sender that died, back or not, wants no acknowledge for what it sent before.
    const bool wanted = !message->copy && message->life == sender.life_ && !sender.failed_;
    if (message->copy) copied_bytes_ -= length;
    received_.popFirst(sender.received_);
    stream.bytes_read_ = 0;
    stream.borrowed_ = false;
    if (wanted) queueAck(sender, offset, length);
    letGoWhenDone(sender);
}

// Called while a write waits: gives back the blocks of messages that nobody reads as long as it
// does.
void SiblingMessenger::makeRoomForOthers() {
    if (area_.hasFreeBlock()) return;
    for (detail::ReceivedMessage* message = received_.front(); message != nullptr;
         message = message->after) {
        if (message->isNull() || message->copy) continue;
        SiblingImplementation& sender = *peer_by_id_[message->sender];
        if (message == sender.received_.first && sender.in_.borrowed_) continue;
        if (copied_bytes_ + message->length > kMaxCopied_bytes) return;
        message->copy = std::make_unique_for_overwrite<uint8_t[]>(message->length);
        std::memcpy(message->copy.get(), memory_.data() + message->offset + pool_layout::kPayload,
                    message->length);
        copied_bytes_ += message->length;
        if (message->life == sender.life_ && !sender.failed_)
            queueAck(sender, message->offset, message->length);
        letGoWhenDone(sender);
    }
}

}  // namespace io
