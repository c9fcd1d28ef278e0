#include "io/parent_messenger.h"

#include <algorithm>
#include <unistd.h>

#include "error/exception.h"
#include "io/exception.h"
#include "io/pool_layout.h"
#include "log/log.h"
#include "platform/process.h"

namespace io {

namespace {

const logging::Logger logger{"messenger"};

}  // namespace

NewSiblings::NewSiblings(ParentMessenger& messenger) : StackedSelectableFront(messenger) {}

std::optional<uint32_t> NewSiblings::take() {
    if (ids_.empty()) return std::nullopt;
    const uint32_t first = ids_.front();
    ids_.pop_front();
    return first;
}

ParentMessenger::ParentMessenger(const std::string& fifo_prefix, uint64_t pool_size_bytes,
                                 ParentPolicy& policy)
    : SiblingMessenger(kParentId, SharedMemory::create(pool_size_bytes), fifo_prefix),
      policy_(policy),
      access_{memory().fd(), fifo_prefix, pool_size_bytes},
      table_(pool_layout::kFirstAreaOffset, std::min<uint64_t>(pool_size_bytes, UINT32_MAX)),
      new_siblings_(*this) {
    own_size_ = policy.sliceSize(kParentId);
    const std::optional<uint32_t> offset = table_.place(kParentId, own_size_);
    if (!offset) throw error::EFatal("No room for write area for ID 0");
    own_offset_ = *offset;
    takeOwnArea(own_offset_, own_size_);
}

ParentMessenger::~ParentMessenger() {
    ::unlink(fifoPath(kParentId).c_str());
    for (const auto& [peer_id, known] : peers()) ::unlink(fifoPath(peer_id).c_str());
}

ParentMessenger::Life* ParentMessenger::liveLife(uint32_t sibling_id) {
    for (Life& life : lives_)
        if (life.sibling_id == sibling_id && !life.gone) return &life;
    return nullptr;
}

const ParentMessenger::Life* ParentMessenger::liveLife(uint32_t sibling_id) const {
    return const_cast<ParentMessenger*>(this)->liveLife(sibling_id);
}

bool ParentMessenger::isUp(uint32_t sibling_id) const {
    const Life* life = liveLife(sibling_id);
    return life != nullptr && !life->stopping;
}

bool ParentMessenger::isGone(uint32_t sibling_id) const {
    return liveLife(sibling_id) == nullptr;
}

bool ParentMessenger::isHeldByOthers(uint32_t sibling_id) const {
    const Life* life = liveLife(sibling_id);
    return life != nullptr && life->stopping && !life->awaited.empty();
}

uint64_t ParentMessenger::bytesInAreas() const {
    uint64_t bytes = 0;
    for (const auto& [offset, area] : table_.areas()) bytes += area.size_bytes;
    return bytes;
}

void ParentMessenger::handleControl(const SignalMessage& message) {
    const uint32_t argument = message.argument();
    switch (message.type()) {
        case signal_t::IAmUp:
            onIAmUp(message.sender);
            break;
        case signal_t::RequestPeer:
            onRequestPeer(message.sender, argument);
            break;
        case signal_t::InitShutdown:
            onInitShutdown(argument);
            break;
        case signal_t::AckShutdown:
            onAckShutdown(message.sender, argument);
            break;
        case signal_t::SiblingDied:
            error::fail_assertion("MT_SiblingDied not valid to parent");
        default:
            error::fail_assertion(fmt::format("{} not valid to parent", message.text()));
    }
}

// Coming up

void ParentMessenger::onIAmUp(uint32_t sibling_id) {
    if (sibling_id == kParentId || !policy_.admits(sibling_id)) {
        logger.warning("A process that is none of ours says that it is sibling {}", sibling_id);
        return;
    }
    // A second process under a living id: the first one is as good as gone.
    if (liveLife(sibling_id) != nullptr) endLife(sibling_id);
    if (std::find(waiting_.begin(), waiting_.end(), sibling_id) == waiting_.end())
        waiting_.push_back(sibling_id);
    introduceWaiting();
}

void ParentMessenger::introduceWaiting() {
    for (size_t i = 0; i < waiting_.size();) {
        if (tryIntroduce(waiting_[i]))
            waiting_.erase(waiting_.begin() + static_cast<ptrdiff_t>(i));
        else
            ++i;
    }
}

// False if it must wait: for our own user to read the end of its former life, or for areas of dead
// siblings.
bool ParentMessenger::tryIntroduce(uint32_t sibling_id) {
    SiblingImplementation& sibling = peer(sibling_id);
    if (endIsUnread(sibling)) return false;
    const uint32_t size = policy_.sliceSize(sibling_id);
    const std::optional<uint32_t> offset = table_.place(sibling_id, size);
    if (!offset) {
        const bool some_will_be_free =
            std::any_of(lives_.begin(), lives_.end(), [](const Life& life) { return life.gone; });
        if (some_will_be_free) return false;
        throw error::EFatal(fmt::format("No room for write area for ID {}", sibling_id));
    }
    peerIntroduced(sibling, *offset, size);
    lives_.push_back({sibling_id, *offset, size});
    writeAreas().emplace(*offset, sibling_id);
    introduce(lives_.back());
    requesters_.erase(sibling_id);
    new_siblings_.ids_.push_back(sibling_id);
    return true;
}

// The others hear of the newcomer before it gets its own area, so before its first message can be
// there.
void ParentMessenger::introduce(const Life& newcomer) {
    SiblingImplementation& sibling = peer(newcomer.sibling_id);
    if (!sibling.fifoOpen()) return;  // ended already; its owner will tell
    for (const Life& other : lives_) {
        if (&other == &newcomer || other.gone || other.stopping) continue;
        sendTriple(sibling, other.area_offset, other.area_size, other.sibling_id);
        SiblingImplementation& known = peer(other.sibling_id);
        if (known.fifoOpen())
            sendTriple(known, newcomer.area_offset, newcomer.area_size, newcomer.sibling_id);
    }
    sendTriple(sibling, newcomer.area_offset, newcomer.area_size, newcomer.sibling_id);
    sendTriple(sibling, own_offset_, own_size_, kParentId);
}

void ParentMessenger::onRequestPeer(uint32_t asker, uint32_t wanted) {
    // If it lives, its introduction, or the news of its end, is on the way to the asker.
    if (wanted == kParentId || liveLife(wanted) != nullptr) return;
    if (std::find(waiting_.begin(), waiting_.end(), wanted) != waiting_.end()) return;
    if (policy_.requestPeer(asker, wanted))
        requesters_[wanted].insert(asker);
    else
        sendIfConnected(asker, signal_t::SiblingDied, wanted);
}

void ParentMessenger::requestPeer(SiblingImplementation& wanted) {
    if (liveLife(wanted.id()) != nullptr) return;
    if (!policy_.requestPeer(kParentId, wanted.id())) peerDied(wanted);
}

// Ending

void ParentMessenger::onInitShutdown(uint32_t sibling_id) {
    Life* life = liveLife(sibling_id);
    if (life == nullptr || life->stopping) return;
    askOthersToLetGo(*life);
    advance();
}

void ParentMessenger::askOthersToLetGo(Life& life) {
    life.stopping = true;
    for (const Life& other : lives_) {
        if (&other == &life || other.gone) continue;
        if (!peer(other.sibling_id).fifoOpen()) continue;
        life.awaited.insert(other.sibling_id);
        sendIfConnected(other.sibling_id, signal_t::InitShutdown, life.sibling_id);
    }
}

void ParentMessenger::onAckShutdown(uint32_t from, uint32_t about) {
    if (from == about) {
        endLife(about);
        return;
    }
    // Consents come in the order of the lives they are about.
    for (Life& life : lives_) {
        if (life.sibling_id != about || life.awaited.erase(from) == 0) continue;
        advance();
        return;
    }
    logger.warning("AckShutdown of {} for {}, which was not awaited", from, about);
}

void ParentMessenger::watchEnd(uint32_t sibling_id, pid_t pid) {
    platform::Fd pidfd = platform::open_pidfd(pid);
    dropWatch(sibling_id);
    ProcessEnd& end = ends_.try_emplace(sibling_id, std::move(pidfd)).first->second;
    setWatch(&end.selectable, true);
}

void ParentMessenger::dropWatch(uint32_t sibling_id) {
    const auto end = ends_.find(sibling_id);
    if (end == ends_.end()) return;
    setWatch(&end->second.selectable, false);
    ends_.erase(end);
}

void ParentMessenger::underlyingIsReady(Selectable& underlying) {
    for (const auto& [sibling_id, end] : ends_) {
        if (&underlying != static_cast<const Selectable*>(&end.selectable)) continue;
        siblingGone(sibling_id);
        return;
    }
    SiblingMessenger::underlyingIsReady(underlying);
}

void ParentMessenger::siblingGone(uint32_t sibling_id) {
    dropWatch(sibling_id);
    // The news of its end came past its last signals.
    readArrivedSignals();
    endLife(sibling_id);
}

void ParentMessenger::endLife(uint32_t sibling_id) {
    std::erase(waiting_, sibling_id);
    Life* life = liveLife(sibling_id);
    if (life == nullptr) {
        // It ended before it came up: those who asked for it wait in vain.
        const auto asked = requesters_.extract(sibling_id);
        if (asked)
            for (const uint32_t asker : asked.mapped())
                sendIfConnected(asker, signal_t::SiblingDied, sibling_id);
        return;
    }
    life->gone = true;
    for (Life& other : lives_) other.awaited.erase(sibling_id);
    for (const Life& other : lives_)
        if (!other.gone) sendIfConnected(other.sibling_id, signal_t::SiblingDied, sibling_id);
    peerDied(peer(sibling_id));
    if (!life->stopping) askOthersToLetGo(*life);
    peerShutdown(peer(sibling_id));  // for the parent itself
    advance();
}

void ParentMessenger::letGo(SiblingImplementation& sibling) {
    for (Life& life : lives_)
        if (life.gone && life.sibling_id == sibling.id()) life.parent_let_go = true;
    advance();
}

void ParentMessenger::endWasSeen(SiblingImplementation&) {
    introduceWaiting();
}

// Takes every life as far as it can go by now.
void ParentMessenger::advance() {
    for (Life& life : lives_) {
        if (!life.stopping || !life.awaited.empty() || life.gone || life.consent_sent) continue;
        life.consent_sent = true;
        sendIfConnected(life.sibling_id, signal_t::AckShutdown, life.sibling_id);
    }
    const auto free_now = [](const Life& life) {
        return life.gone && life.parent_let_go && life.awaited.empty();
    };
    for (const Life& life : lives_)
        if (free_now(life)) table_.release(life.area_offset, life.sibling_id);
    if (std::erase_if(lives_, free_now) != 0) introduceWaiting();
}

void ParentMessenger::sendIfConnected(uint32_t to, signal_t type, uint32_t argument) {
    SiblingImplementation& target = peer(to);
    if (target.fifoOpen()) send(target, type, argument);
}

}  // namespace io
