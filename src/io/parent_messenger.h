// io::ParentMessenger: the parent side of the family's messenger. It makes the pool and its own
// FIFO, gives each sibling that comes up an area, introduces the siblings to each other, and sees
// to it that an area is used again only when nobody reads it any more. Starting, watching and
// restarting processes is its owner's matter.
//
// Life of a sibling here (who makes the step):
//
//   absent --IAmUp--> up --InitShutdown from it--> stopping --AckShutdown from it--> gone
//                     \--siblingGone--> gone       \--siblingGone--> gone
//   gone, everybody let go of its area --> area free
//   a sibling that comes up again while its old area is not free gets another one, or waits for
//   room
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

#include "io/area_table.h"
#include "io/sibling_messenger.h"

namespace io {

/// What the parent's owner decides.
class ParentPolicy {
  public:
    virtual ~ParentPolicy() = default;
    /// A process says that it is sibling `sibling_id`, and is up. False: it is none of ours, and
    /// gets neither an area nor an introduction.
    [[nodiscard]] virtual bool admits(uint32_t) { return true; }
    /// Size of the area of a sibling (0: the parent's own) in bytes, a multiple of 8 and at
    /// least 64.
    [[nodiscard]] virtual uint32_t sliceSize(uint32_t sibling_id) = 0;
    /// `asker` wants to talk to `wanted`, which is not up. True: it will come up (start it unless
    /// it is starting already); false: the asker is told that it is dead.
    [[nodiscard]] virtual bool requestPeer(uint32_t asker, uint32_t wanted) = 0;
};

class ParentMessenger;

/// Ready when a sibling came up that the owner has not taken note of.
class NewSiblings final : public StackedSelectableFront {
  public:
    explicit NewSiblings(ParentMessenger& messenger);
    void name(std::string& out) const override { out += "NewSiblings"; }
    [[nodiscard]] bool isReady() const override { return !ids_.empty(); }
    /// The next one in order of coming up, or none.
    std::optional<uint32_t> take();

  private:
    friend class ParentMessenger;
    std::deque<uint32_t> ids_;
};

class ParentMessenger final : public SiblingMessenger {
  public:
    /// Makes pool, own area and FIFO; do it before children start. `policy` must outlive the
    /// messenger. error::ESystemError when the system refuses, error::EFatal "No room for write
    /// area for ID 0".
    ParentMessenger(const std::string& fifo_prefix, uint64_t pool_size_bytes, ParentPolicy& policy);
    ~ParentMessenger() override;

    /// What a child needs: its process must inherit map_fd, and its environment have
    /// PoolAccess::toEnvironment().
    [[nodiscard]] const PoolAccess& access() const { return access_; }

    [[nodiscard]] NewSiblings& newSiblings() { return new_siblings_; }
    /// Introduced, and neither stopping nor gone.
    [[nodiscard]] bool isUp(uint32_t sibling_id) const;
    /// Said its last word, or was declared gone; true also for one that never was up.
    [[nodiscard]] bool isGone(uint32_t sibling_id) const;
    /// True if it has asked to stop and others have not let go of it yet.
    [[nodiscard]] bool isHeldByOthers(uint32_t sibling_id) const;

    /// The process of this sibling ended. Everyone is told; what waited for it waits no more. What
    /// it said before stays to be read. A second call does nothing, also after an orderly end. Call
    /// it before the sibling is started again.
    void siblingGone(uint32_t sibling_id);
    /// Has the messenger itself look after the end of process `pid`, started as this sibling: a
    /// wait for room, or for the rest of an event, then ends although its owner's loop, which
    /// would call siblingGone(), does not run. error::ESystemError if there is no such process.
    void watchEnd(uint32_t sibling_id, pid_t pid);

    void underlyingIsReady(Selectable& underlying) override;

    /// Bytes of the pool that are in areas, those of the dead included that are not free yet.
    [[nodiscard]] uint64_t bytesInAreas() const;

  protected:
    void handleControl(const SignalMessage& message) override;
    void requestPeer(SiblingImplementation& peer) override;
    [[nodiscard]] const char* writeForbidden(uint32_t) const override { return nullptr; }
    void letGo(SiblingImplementation& peer) override;
    void endWasSeen(SiblingImplementation& peer) override;

  private:
    /// One life of a sibling, from coming up until its area is free.
    struct Life {
        uint32_t sibling_id;
        uint32_t area_offset;
        uint32_t area_size;
        bool stopping = false;         ///< others were asked to let go
        bool gone = false;             ///< its process ended or said its last word
        bool parent_let_go = false;    ///< we read all of its messages
        bool consent_sent = false;     ///< it got its AckShutdown
        std::set<uint32_t> awaited{};  ///< siblings that did not let go yet
    };

    /// A process that is watched.
    struct ProcessEnd {
        explicit ProcessEnd(platform::Fd opened)
            : pidfd(std::move(opened)), selectable(pidfd.get(), "end of sibling") {}
        platform::Fd pidfd;
        FdSelectable selectable;
    };

    void endLife(uint32_t sibling_id);
    void dropWatch(uint32_t sibling_id);
    [[nodiscard]] Life* liveLife(uint32_t sibling_id);
    [[nodiscard]] const Life* liveLife(uint32_t sibling_id) const;
    void onIAmUp(uint32_t sibling_id);
    void introduceWaiting();
    bool tryIntroduce(uint32_t sibling_id);
    void introduce(const Life& newcomer);
    void onRequestPeer(uint32_t asker, uint32_t wanted);
    void onInitShutdown(uint32_t sibling_id);
    void onAckShutdown(uint32_t from, uint32_t about);
    void askOthersToLetGo(Life& life);
    void advance();
    void sendIfConnected(uint32_t to, signal_t type, uint32_t argument);

    ParentPolicy& policy_;
    PoolAccess access_;
    AreaTable table_;
    uint32_t own_offset_ = 0;
    uint32_t own_size_ = 0;
    std::list<Life> lives_;          ///< in order of coming up
    std::vector<uint32_t> waiting_;  ///< said IAmUp, not introduced yet
    std::map<uint32_t, std::set<uint32_t>>
        requesters_;  ///< promised sibling to those who asked for it
    NewSiblings new_siblings_;
    std::map<uint32_t, ProcessEnd> ends_;
};

}  // namespace io
