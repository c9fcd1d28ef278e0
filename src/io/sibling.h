// What a messenger knows of one peer: the two streams that its users read and write, the road for
// signals to it, and the state of the connection. Users reach it through SiblingHandle; everything
// else here is the messenger's own business.
//
// States of a peer (the function of SiblingMessenger that makes each step):
//
//   not met --introduce--> open --peerShutdown, nothing outstanding--> closed --peerDied--> failed
//      |                    |  \--peerShutdown, else--> shutdown pending --letGoIfDone--> closed
//      |                    \--peerDied--> failed
//      \--announce (first write)--> waiting --introduce--> open
//   failed --endSeen, with a new introduction at hand--> open
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "io/detail/received_list.h"
#include "io/pipe_stream.h"
#include "io/signal_message.h"
#include "io/stack.h"
#include "io/stream.h"

namespace io {

class SiblingImplementation;
class SiblingMessenger;

/// The bytes of all messages of one peer, in order. Named "SiblingIStream[", the id, "]".
class SiblingIStream final : public IStream, public StackedSelectableFront {
  public:
    explicit SiblingIStream(SiblingImplementation& sibling);

    void name(std::string& out) const override;
    [[nodiscard]] bool hasFailed() const override;
    [[nodiscard]] bool isReady() const override;
    /// Points into the message in the pool; one call never offers bytes of two messages.
    /// EEndOfStream when the peer ended and everything of it was read; it goes on throwing until
    /// the peer comes back.
    size_t readBegin(const uint8_t*& out) override;
    /// The message is acknowledged once, after its last byte.
    void readCommit(size_t count) override;
    /// Nothing to close: the stream lives as long as the messenger.
    void closeRead() override {}

  private:
    friend class SiblingMessenger;

    SiblingImplementation& sibling_;
    uint64_t bytes_read_ = 0;  ///< of the first message of the peer
    bool borrowed_ = false;    ///< its reader may hold a pointer into that message
};

/// Messages to one peer: each commit publishes one. Named "SiblingOStream[", the id, "]".
class SiblingOStream final : public OStream, public StackedSelectableFront {
  public:
    explicit SiblingOStream(SiblingImplementation& sibling);

    void name(std::string& out) const override;
    [[nodiscard]] bool hasFailed() const override;
    [[nodiscard]] bool isReady() const override;
    /// EEndOfStream when the peer failed or a shutdown forbids the write.
    size_t writeBegin(uint8_t*& out) override;
    /// Publishes the bytes as one message; 0 publishes nothing.
    void writeCommit(size_t count) override;
    /// True while messages wait for the peer to be introduced.
    [[nodiscard]] bool hasPendingData() const override { return !undelivered_.empty(); }
    void closeWrite() override {}
    /// Before a wait for room: see SiblingMessenger about what others wrote to us.
    void prepare() override;

  private:
    friend class SiblingMessenger;

    SiblingImplementation& sibling_;
    std::vector<uint32_t> undelivered_;  ///< published, but the peer's FIFO is not open yet
};

/// The peer's input FIFO, from the writing side.
class OutputSignalWriter final : public PipeOStream {
  public:
    explicit OutputSignalWriter(uint32_t peer_id);
    void open(platform::Fd fd) { reopen(std::move(fd)); }
};

/// One peer. Made by the messenger, lives as long as it.
class SiblingImplementation {
  public:
    SiblingImplementation(SiblingMessenger& messenger, uint32_t id);
    ~SiblingImplementation();
    SiblingImplementation(const SiblingImplementation&) = delete;
    SiblingImplementation& operator=(const SiblingImplementation&) = delete;

    [[nodiscard]] uint32_t id() const { return id_; }
    [[nodiscard]] SiblingMessenger& messenger() const { return messenger_; }
    [[nodiscard]] SiblingIStream& in() { return in_; }
    [[nodiscard]] SiblingOStream& out() { return out_; }
    /// The user took note of the end of the input stream. Removes the end mark, so that messages of
    /// others behind it can be reached; if the peer came back meanwhile, its streams work again.
    void endSeen();

    [[nodiscard]] bool fifoOpen() const { return writer_.isOpen(); }
    [[nodiscard]] bool processFailed() const { return failed_; }
    /// True from the moment at which the end of its stream was read until it comes back.
    [[nodiscard]] bool endWasRead() const { return stream_ended_; }

  private:
    friend class SiblingMessenger;
    friend class SiblingHandle;
    friend class SiblingIStream;
    friend class SiblingOStream;

    /// What arrived about a life of the peer after the present one, while its end mark is unread.
    struct NextLife {
        uint64_t area_offset = 0;
        uint64_t area_size = 0;
        bool died = false;
        bool shutdown_asked = false;
    };

    SiblingMessenger& messenger_;
    uint32_t id_;
    unsigned references_ = 0;

    OutputSignalWriter writer_;
    SiblingIStream in_;
    SiblingOStream out_;

    bool failed_ = false;            ///< died, and not back yet
    bool shutdown_pending_ = false;  ///< told to let go of it, but messages are outstanding
    bool requested_ = false;         ///< the parent was asked for it
    bool stream_ended_ = false;      ///< its end mark was read
    uint32_t life_ = 0;              ///< counts introductions that took effect
    uint32_t newest_life_ = 0;       ///< counts introductions that arrived
    uint64_t area_offset_ = 0;       ///< of its present life; 0: none
    uint64_t area_size_ = 0;
    uint32_t lent_blocks_ = 0;      ///< our blocks that it has not acknowledged
    detail::SenderQueue received_;  ///< its messages that we have not read
    std::vector<NextLife> next_lives_;

    std::vector<SignalMessage> acks_;  ///< acknowledges that did not leave yet
    uint64_t ack_bytes_ = 0;           ///< payload that they give back
};

/// A counted reference to a peer.
class SiblingHandle {
  public:
    explicit SiblingHandle(SiblingImplementation& sibling);
    SiblingHandle(SiblingHandle&& other) noexcept;
    SiblingHandle& operator=(SiblingHandle&& other) noexcept;
    ~SiblingHandle();

    SiblingImplementation* operator->() const { return sibling_; }
    SiblingImplementation& operator*() const { return *sibling_; }

  private:
    SiblingImplementation* sibling_;
};

}  // namespace io
