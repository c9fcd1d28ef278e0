// The live requests: GET /api/v1/subscribe, which keeps the answer to a pattern up to date, and GET
// /api/v1/events, which tells of operations on objects. Each open one is a stream of server-sent
// events and has one subscription in the server.
//
//   checking --its roots exist--> queued --room--> asking --first result--> live
//      |                            ^                |                        |
//      | no server, no such root,   |                |   queue of patches full: forgotten there
//      | refused: an answer, no     |                |                        v
//      v stream                     '-------- client has taken all ------- skipping
//     gone <--client gone, from everywhere; the server forgets the subscription
//
// When the server ends, an open stream says "away" and goes back to queued; the retries begin at
// once and go on until the server is back, and the first thing after it is a full result.
//
// A slow reader holds up nobody. What the server says goes into a queue of the stream; the network
// takes it at the reader's pace. The server evaluates a pattern without patches again only after
// its last result has left (that is the acknowledge). Patches don't wait: when they fill the queue,
// they are thrown away, the server forgets the subscription, and when the reader has caught up it
// gets a full result. Notices of operations that didn't fit are counted, and the reader is told how
// many it has missed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "wapi/endpoint.h"
#include "wapi/live_requests.h"

namespace wapi {

class LiveStreams final : public Endpoint {
  public:
    /// Open at once; a further one gets 503.
    static constexpr size_t kMaxStreams = 100;
    /// What may wait for one reader, besides one full result of any size.
    static constexpr size_t kMaxQueuedBytes = 1U << 20;
    static constexpr size_t kMaxQueuedEvents = 1000;
    /// What may wait for all readers; beyond it the stream that would need more is ended.
    static constexpr size_t kMaxBytesOfAll = 256U << 20;
    /// First results that the server is asked for at the same time.
    static constexpr size_t kMaxAsking = 8;
    /// After so much silence a stream sends a comment, so that both sides notice a dead connection.
    static constexpr uint64_t kHeartbeat_us = 15'000'000;
    /// Between two looks for a server that is away.
    static constexpr uint64_t kRetry_us = 250'000;
    /// For the first result; a client that gets none in this time is answered 504.
    static constexpr uint64_t kAnswerLimit_us = 60'000'000;

    /// Both must outlive this object.
    LiveStreams(GatewayPorts& ports, const platform::Clock& clock);
    ~LiveStreams() override;

    [[nodiscard]] bool serves(std::string_view path) const override;
    void take_request(token_t token, const Request& request) override;
    [[nodiscard]] bool take_event(const queues::event& received) override;
    void peer_lost(queues::queue_t peer) override;
    /// Ends all streams behind what they are sending and has the server forget them.
    void stop() override;
    void stream_taken(token_t token) override;
    void stream_ended(token_t token) override;
    [[nodiscard]] std::optional<uint64_t> next_deadline_us() const override;
    void check_deadlines() override;

    [[nodiscard]] size_t open_streams() const { return streams_.size(); }

  private:
    struct Stream;

    void admit(std::unique_ptr<Stream> stream);
    void ask_queued();
    [[nodiscard]] bool ask(Stream& stream);
    [[nodiscard]] bool ask_for_operations(Stream& stream);
    [[nodiscard]] bool send(Stream& stream, const queues::event& request);
    void enqueue(Stream& stream);
    void say_away(Stream& stream);

    void take(Stream& stream, const queues::event& received);
    void take_roots(Stream& stream, const dbms::Return_Tql_Select_Data& found);
    void take_result(Stream& stream, const dbms::Return_Tql_Select_Data& result);
    void take_failure(Stream& stream, Response failure);
    void no_longer_asking(Stream& stream);

    void ensure_open(Stream& stream);
    void emit(Stream& stream, std::string_view name, std::string_view data);
    void emit_if_room(Stream& stream, std::string_view name, const std::string& data);
    void push(Stream& stream, std::string text);
    void hand_out(Stream& stream);
    void clear(Stream& stream);
    void forget(Stream& stream);
    void forget(uint32_t uid);
    /// The stream doesn't live beyond this call.
    void refuse(Stream& stream, Response response);
    void drop(token_t token);
    void end_doomed();
    [[nodiscard]] Stream* find(token_t token) const;
    [[nodiscard]] std::vector<token_t> tokens() const;

    GatewayPorts& ports_;
    const platform::Clock& clock_;
    std::map<token_t, std::unique_ptr<Stream>> streams_;
    std::map<uint32_t, token_t> by_uid_;  ///< of the request that the server knows
    std::deque<token_t> queued_;          ///< to be asked for in this order
    size_t asking_ = 0;
    size_t bytes_of_all_ = 0;
    /// Dialog id of a forget, with that of the request to forget: until the server has answered the
    /// former, events of the latter may come.
    std::map<uint32_t, uint32_t> forgetting_;
    std::optional<uint64_t> retry_at_us_;
    bool stopped_ = false;
};

}  // namespace wapi
