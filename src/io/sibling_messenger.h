// io::SiblingMessenger: how a process of the family exchanges messages with the others. Bulk data
// lies in the pool, in the writer's own area (write_area.h); 8-byte signals through FIFOs
// (signal_message.h) say that a message lies there, that it was read, who is there, who ended and
// who wants to stop. The parent, id 0, arbitrates. The two sides are ChildMessenger and, in
// parent_messenger.h, ParentMessenger; this class is what they share.
//
// It knows no events: what the bytes of a message mean is told by whoever uses the streams.
//
// Order. For one sender and one receiver messages arrive in order of publishing and are one stream
// of bytes. All signals of a process but acknowledges leave in one order across peers, so that what
// the parent says of a sibling is there before the sibling's first message. Acknowledges may
// overtake.
//
// When signals leave. Before every wait of a selector that holds a front of the messenger, in one
// write per peer. Before that at once, unless there is more input waiting to be read and the
// process is busy with it: then up to kMaxDeferredSignals messages wait for each other, and
// acknowledges wait as long as they hold back less than an eighth of their sender's area.
//
// A process blocked in a write still serves its input, since it waits in a selector that includes
// the messenger's input. That alone would not do for two that write to each other: with both areas
// full of unread messages neither could go on. So while a write waits for room in the own area,
// messages that wait here to be read are copied, up to kMaxCopied_bytes, and their blocks given
// back at once. Nothing else is ever copied.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string>
#include <vector>

#include "io/detail/received_list.h"
#include "io/pipe_stream.h"
#include "io/shared_memory.h"
#include "io/sibling.h"
#include "io/signal_message.h"
#include "io/stack.h"
#include "io/system_handle.h"
#include "io/write_area.h"
#include "platform/clock.h"

namespace io {

inline constexpr uint32_t kParentId = 0;
/// Ids of peers are 0 to this.
inline constexpr uint32_t kMaxSiblingId = 128;

/// This process's FIFO, over which all others signal it.
class InputSignalReader final : public PipeIStream {
  public:
    InputSignalReader(SiblingMessenger& messenger, platform::Fd fd, std::string path);
    /// Sends off the signals that wait, before the process goes to sleep.
    void prepare() override;

  private:
    SiblingMessenger& messenger_;
};

/// Ready when a message, or the end of a peer, waits to be read.
class SomeSibling final : public StackedSelectableFront {
  public:
    explicit SomeSibling(SiblingMessenger& messenger);
    void name(std::string& out) const override { out += "SomeSibling"; }
    [[nodiscard]] bool isReady() const override;

  private:
    SiblingMessenger& messenger_;
};

class SiblingMessenger : public StackedSelectableBack {
  public:
    ~SiblingMessenger() override;

    [[nodiscard]] uint32_t id() const { return id_; }

    /// The peer with this id, made on first use. The handle must not outlive the messenger.
    [[nodiscard]] SiblingHandle sibling(uint32_t peer_id);
    /// Who sent the first message or end mark that waits; the parent's id if none waits and the
    /// parent failed. Call it when someSibling() is ready.
    [[nodiscard]] uint32_t nextSender() const;
    /// True when the parent ended and everything that arrived was read: nobody is left to tell of
    /// the end of any other peer.
    [[nodiscard]] bool isOrphaned() const;
    /// What to wait for to read anything from anybody.
    [[nodiscard]] SomeSibling& someSibling() { return some_sibling_; }

    /// Sends off all signals that wait, as far as the FIFOs take them. Call it before long work
    /// that waits in no selector.
    void flush();

    /// What an own message still lacks: blocks published and not acknowledged.
    [[nodiscard]] size_t unacknowledgedCount() const { return unacknowledged_.size(); }
    /// Bytes of published messages that `peer_id` has not acknowledged. Walks all of them.
    [[nodiscard]] uint64_t lentBytes(uint32_t peer_id) const;
    /// Since when the FIFO of `peer_id` is full and holds up what is to be said to all others, on
    /// the monotonic clock; none if it does not.
    [[nodiscard]] std::optional<uint64_t> holdsUpOthersSince_us(uint32_t peer_id) const;
    /// Checks the own area against invariants A1 to A6; an empty text if all is well. Walks the
    /// whole area.
    [[nodiscard]] std::string check_area() const;

    void underlyingIsReady(Selectable& underlying) override;

    static constexpr uint64_t kMaxCopied_bytes = 64 << 20;
    static constexpr size_t kMaxDeferredSignals = 16;
    static constexpr uint64_t kMaxDeferral_us = 20;

  protected:
    /// Makes the FIFO of `own_id`, ready to receive. An id that is out of range is a fatal
    /// assertion.
    SiblingMessenger(uint32_t own_id, SharedMemory memory, std::string fifo_prefix);

    /// A signal that parent and child treat differently; MessageAt, AckMessageAt and MT_Undefined
    /// never come here.
    virtual void handleControl(const SignalMessage& message) = 0;
    /// A message could not be announced to `peer`: see that it is introduced, or declare it dead.
    virtual void requestPeer(SiblingImplementation& peer) = 0;
    /// A reason why nothing may be written to `peer_id`, or null.
    [[nodiscard]] virtual const char* writeForbidden(uint32_t peer_id) const = 0;
    /// An own block came back.
    virtual void blockReleased() {}
    /// Nothing of `peer`'s present life is outstanding any more, as the parent wanted. Its FIFO is
    /// closed.
    virtual void letGo(SiblingImplementation& peer) = 0;
    /// The user read the end of `peer`.
    virtual void endWasSeen(SiblingImplementation&) {}

    /// The peer, made on first use.
    SiblingImplementation& peer(uint32_t peer_id);
    using PeerMap = std::map<uint32_t, std::unique_ptr<SiblingImplementation>>;
    [[nodiscard]] const PeerMap& peers() const { return peers_; }
    /// Opens the peer's FIFO; ENoConnection if nobody reads it, a fatal assertion if it is open.
    void openFifo(SiblingImplementation& peer);
    [[nodiscard]] std::string fifoPath(uint32_t sibling_id) const;

    /// Queues a signal to a peer whose FIFO is open and tries to write it, else throws
    /// ENoConnection.
    void send(SiblingImplementation& peer, signal_t type, uint32_t argument);
    /// The three signals that tell `peer` of a sibling's area.
    void sendTriple(SiblingImplementation& peer, uint32_t offset, uint32_t size,
                    uint32_t sibling_id);
    /// Waits until all signals to `peer` left and drops those to others. The last thing a process
    /// does.
    void flushOnly(SiblingImplementation& peer);

    /// `peer` has this area now. Takes effect at once, or when the end of its former life was read.
    void peerIntroduced(SiblingImplementation& peer, uint64_t area_offset, uint64_t area_size);
    /// True if `peer` died and its end was not read yet.
    [[nodiscard]] bool endIsUnread(const SiblingImplementation& peer) const;
    /// The parent wants nothing of `peer` to be outstanding: it stops, or it died and its area is
    /// to be used again.
    void peerShutdown(SiblingImplementation& peer);
    void peerDied(SiblingImplementation& peer);
    /// Takes an area as the own one, free as a whole; all writers become ready.
    void takeOwnArea(uint64_t offset, uint64_t size) { area_.init(offset, size); }
    /// The size of the area of a peer that needs no introduction.
    void setAreaSize(SiblingImplementation& peer, uint64_t size);
    /// Handles what already arrived in this process's FIFO. Nothing while signals are being
    /// handled.
    void readArrivedSignals();
    /// Marks the end of the peer's stream for its reader.
    void appendNullMessage(SiblingImplementation& peer);
    /// Frees the messages that wait for peers which were not introduced yet.
    void dropUndelivered();

    std::map<uint64_t, uint32_t>& writeAreas() { return write_areas_; }
    SharedMemory& memory() { return memory_; }
    WriteArea& area() { return area_; }

  private:
    friend class InputSignalReader;
    friend class SomeSibling;
    friend class SiblingImplementation;
    friend class SiblingIStream;
    friend class SiblingOStream;

    struct Outgoing {
        SiblingImplementation* peer;
        SignalMessage message;
    };

    // Writing: the streams call these.
    [[nodiscard]] bool writerReady(const SiblingOStream& stream) const;
    size_t writeBegin(SiblingOStream& stream, uint8_t*& out);
    void writeCommit(SiblingOStream& stream, size_t count);
    void announce(SiblingImplementation& peer, uint32_t offset);
    void release(uint32_t offset);

    // Reading: the streams call these.
    [[nodiscard]] bool readerReady(const SiblingIStream& stream) const;
    size_t readBegin(SiblingIStream& stream, const uint8_t*& out);
    void readCommit(SiblingIStream& stream, size_t count);
    void endSeen(SiblingImplementation& peer);
    void makeRoomForOthers();

    // Lives of a peer.
    [[nodiscard]] bool hasOutstanding(const SiblingImplementation& peer) const;
    void letGoWhenDone(SiblingImplementation& peer);
    void takeNextLife(SiblingImplementation& peer);
    void beginLife(SiblingImplementation& peer, uint64_t area_offset, uint64_t area_size);
    void releaseLentTo(SiblingImplementation& peer);
    void closeRoad(SiblingImplementation& peer);

    // Signals in.
    void readSignals();
    void handle(const SignalMessage& message);
    void onMessageAt(SiblingImplementation& peer, uint32_t offset);
    void onAckMessageAt(SiblingImplementation& peer, const SignalMessage& message);

    // Signals out.
    void queueSignal(SiblingImplementation& peer, signal_t type, uint32_t argument);
    void queueAck(SiblingImplementation& peer, uint32_t offset, uint64_t length);
    void flushUnlessBusy();
    void flushIfLate();
    void writeTo(SiblingImplementation& peer);
    void watchIfBlocked(SiblingImplementation& peer);
    void dropQueuedFor(const SiblingImplementation& peer);
    [[nodiscard]] size_t queuedSignals() const { return outgoing_.size() - outgoing_head_; }

    uint32_t id_;
    SharedMemory memory_;
    std::string fifo_prefix_;
    platform::SystemClock clock_;
    InputSignalReader input_;
    SomeSibling some_sibling_;
    PeerMap peers_;
    std::vector<SiblingImplementation*> peer_by_id_;  ///< the same, by number

    WriteArea area_;
    std::map<uint64_t, uint32_t> write_areas_;  ///< area offset to sibling, of all known ones
    std::pmr::unsynchronized_pool_resource map_memory_;
    std::pmr::map<uint32_t, uint32_t> unacknowledged_;  ///< block offset to receiver
    SiblingOStream* writing_ = nullptr;                 ///< between writeBegin and writeCommit
    uint64_t block_size_ = 0;                           ///< what writeBegin offered
    std::vector<uint32_t> deferred_releases_;           ///< acknowledged while writing

    detail::ReceivedList received_;
    uint64_t copied_bytes_ = 0;  ///< in copies of messages not read yet

    std::vector<Outgoing> outgoing_;  ///< the global send list, from outgoing_head_ on
    size_t outgoing_head_ = 0;
    std::vector<SiblingImplementation*> with_acks_;
    SiblingImplementation* unflushed_sibling_ =
        nullptr;  ///< its FIFO is full and the list goes on with it
    uint64_t unflushed_since_us_ = 0;
    bool handling_signals_ = false;
    uint64_t last_announce_us_ = 0;
};

/// A child of the family.
class ChildMessenger final : public SiblingMessenger {
  public:
    /// Finds the pool by the environment variables of `name`, connects to the parent and tells it
    /// "IAmUp". error::EFatal for a missing variable, ENoConnection if there is no parent.
    ChildMessenger(uint32_t own_id, const std::string& name);
    ChildMessenger(uint32_t own_id, const PoolAccess& access);

    /// Asks the parent to be allowed to stop. From now on only the parent can be written to; after
    /// its consent nobody. Once everything sent was read, each peer's stream ends. A second call is
    /// a fatal assertion.
    void initiateShutdown();
    [[nodiscard]] bool shutdownInitiated() const { return shutdown_.has_value(); }
    /// The last word to the parent, waits until it is in the parent's FIFO. Before the parent's
    /// consent it is a fatal assertion, also a second time. Without a living parent it says so on
    /// the error stream.
    void completeShutdown();

    void underlyingIsReady(Selectable& underlying) override;

  protected:
    void handleControl(const SignalMessage& message) override;
    void requestPeer(SiblingImplementation& peer) override;
    [[nodiscard]] const char* writeForbidden(uint32_t peer_id) const override;
    void blockReleased() override;
    void letGo(SiblingImplementation& peer) override;

  private:
    void onSiblingAt(uint32_t sibling_id);
    void push(const SignalMessage& message);
    void onAckShutdown();
    void drainIfDone();
    void parentIsGone();

    struct Shutdown {
        bool allowed = false;
        bool completed = false;
    };

    std::vector<SignalMessage> operands_;
    std::optional<Shutdown> shutdown_;
    bool drained_ = false;
    platform::Fd parent_pidfd_;
    FdSelectable parent_end_;
};

}  // namespace io
