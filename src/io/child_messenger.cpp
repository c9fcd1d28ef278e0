#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "error/exception.h"
#include "io/exception.h"
#include "io/sibling_messenger.h"
#include "platform/process.h"

namespace io {

ChildMessenger::ChildMessenger(uint32_t own_id, const std::string& name)
    : ChildMessenger(own_id, PoolAccess::fromEnvironment(name)) {}

ChildMessenger::ChildMessenger(uint32_t own_id, const PoolAccess& access)
    : SiblingMessenger(own_id, SharedMemory::attach(access), access.fifo_prefix),
      parent_pidfd_(platform::open_pidfd(::getppid())),
      parent_end_(parent_pidfd_.get(), "end of parent") {
    setWatch(&parent_end_, true);
    SiblingImplementation& parent = peer(kParentId);
    openFifo(parent);
    send(parent, signal_t::IAmUp, id());
    // Not before: with its parent gone, the FIFO at the parent's path may be that of the next
    // family.
    platform::outlive_parent();
}

void ChildMessenger::underlyingIsReady(Selectable& underlying) {
    if (&underlying == &parent_end_)
        parentIsGone();
    else
        SiblingMessenger::underlyingIsReady(underlying);
}

void ChildMessenger::handleControl(const SignalMessage& message) {
    const uint32_t argument = message.argument();
    switch (message.type()) {
        case signal_t::ExtraOffset:
        case signal_t::ExtraSize:
        case signal_t::ExtraSiblingId:
            push(message);
            break;
        case signal_t::SiblingAt:
            onSiblingAt(argument);
            break;
        case signal_t::InitShutdown:
            peerShutdown(peer(argument));
            break;
        case signal_t::AckShutdown:
            onAckShutdown();
            break;
        case signal_t::SiblingDied:
            peerDied(peer(argument));
            break;
        case signal_t::RequestPeer:
            error::fail_assertion("Got RequestPeer but we're a child");
        case signal_t::IAmUp:
            error::fail_assertion("Got IAmUp but we're a child");
        default:
            error::fail_assertion("Got MT_Undefined");
    }
}

void ChildMessenger::push(const SignalMessage& message) {
    operands_.push_back(message);
    if (operands_.size() < 3) return;
    std::fprintf(stderr, "Too big a stack: ");
    for (const SignalMessage& operand : operands_)
        std::fprintf(stderr, "%s ", operand.text().c_str());
    std::fprintf(stderr, "\n");
    std::fflush(stderr);
    std::abort();
}

void ChildMessenger::onSiblingAt(uint32_t sibling_id) {
    error::check(operands_.size() == 2, "Stack size is {} on SiblingAt", operands_.size());
    error::check(operands_[0].type() == signal_t::ExtraOffset, "No ExtraOffset on SiblingAt");
    error::check(operands_[1].type() == signal_t::ExtraSize, "No ExtraSize on SiblingAt");
    const uint64_t offset = operands_[0].argument();
    const uint64_t size = operands_[1].argument();
    operands_.clear();
    error::check(writeAreas().emplace(offset, sibling_id).second,
                 "Failed insertion in into write_areas");

    if (sibling_id == id()) takeOwnArea(offset, size);
    if (sibling_id == kParentId)
        setAreaSize(peer(kParentId), size);  // the road to the parent is open from the start
    else
        peerIntroduced(peer(sibling_id), offset, size);
}

void ChildMessenger::requestPeer(SiblingImplementation& wanted) {
    SiblingImplementation& parent = peer(kParentId);
    error::check(parent.fifoOpen() || parent.processFailed(), "No parent siblingimplementation");
    if (parent.fifoOpen())
        send(parent, signal_t::RequestPeer, wanted.id());
    else
        peerDied(wanted);
}

const char* ChildMessenger::writeForbidden(uint32_t peer_id) const {
    if (!shutdown_) return nullptr;
    if (shutdown_->allowed) return "Write disabled due to acknowledged shutdown";
    if (peer_id != kParentId) return "Write to non-parent disabled during shutdown";
    return nullptr;
}

void ChildMessenger::letGo(SiblingImplementation& stopping) {
    SiblingImplementation& parent = peer(kParentId);
    if (parent.fifoOpen()) send(parent, signal_t::AckShutdown, stopping.id());
}

// Shutdown, in the order of its steps:
//   initiateShutdown -> (parent asks the others) -> onAckShutdown -> drainIfDone ->
//   completeShutdown

void ChildMessenger::initiateShutdown() {
    error::check(!shutdown_.has_value(), "Shutdown already in progress...");
    shutdown_.emplace();
    SiblingImplementation& parent = peer(kParentId);
    if (parent.fifoOpen()) send(parent, signal_t::InitShutdown, id());
}

void ChildMessenger::onAckShutdown() {
    error::check(shutdown_.has_value(), "Protocol violation; got AckShutdown unexpectedly");
    shutdown_->allowed = true;
    dropUndelivered();
    drainIfDone();
}

void ChildMessenger::blockReleased() {
    drainIfDone();
}

void ChildMessenger::drainIfDone() {
    if (drained_ || !shutdown_ || !shutdown_->allowed || unacknowledgedCount() != 0) return;
    drained_ = true;
    for (const auto& [peer_id, known] : peers())
        if (!known->processFailed()) appendNullMessage(*known);
}

void ChildMessenger::completeShutdown() {
    error::check(shutdown_ && shutdown_->allowed,
                 "Protocol violation; premature completeShutdown()");
    error::check(!shutdown_->completed, "Protocol violation; duplicate completeShutdown()");
    shutdown_->completed = true;
    SiblingImplementation& parent = peer(kParentId);
    try {
        send(parent, signal_t::AckShutdown, id());
        flushOnly(parent);
    } catch (const ENoConnection&) {
        std::fprintf(stderr, "completeShutdown has no parent connection\n");
    }
}

// Nobody is left who could consent to a shutdown, so it counts as granted.
void ChildMessenger::parentIsGone() {
    setWatch(&parent_end_, false);
    peerDied(peer(kParentId));
    if (!shutdown_) shutdown_.emplace();
    onAckShutdown();
}

}  // namespace io
