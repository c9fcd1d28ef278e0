// What an HTTP request is to the parts of the gateway that answer requests, and what such a part is
// to the service: it takes the requests of its own paths, the events that answer what it asked, and
// hears what becomes of its peers and of its clients.
//
// A part answers each token that it took exactly once, at any later time: through GatewayPorts. All
// calls come from the one loop of the process, none while another one runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "queues/event.h"
#include "wapi/api.h"

namespace wapi {

/// Names one HTTP request that waits for its answer.
using token_t = uint64_t;

struct Request {
    std::string method;
    std::string path;  ///< without the query part
    /// The parameters behind the question mark, decoded, in their order.
    std::vector<std::pair<std::string, std::string>> query{};
    std::string body{};
};

/// Throws Refused for another method than the one that the path has.
void allow_method(const Request& request, std::string_view allowed);

/// What a part of the gateway reaches of the world.
class GatewayPorts {
  public:
    virtual ~GatewayPorts() = default;
    /// A dialog id that no call in flight has.
    [[nodiscard]] virtual uint32_t new_uid() = 0;
    /// Sends to the peer of the event; false if it isn't there.
    [[nodiscard]] virtual bool send(const queues::event& sent) = 0;
    virtual void answer(token_t token, Response response) = 0;
    /// In place of answer(): a stream of text, written piece by piece. See http_server.h.
    /// False if the client is known to be gone.
    [[nodiscard]] virtual bool open_stream(token_t token, const std::string& content_type) = 0;
    virtual void write(token_t token, std::string_view text) = 0;
    virtual void end_stream(token_t token) = 0;
};

class Endpoint {
  public:
    virtual ~Endpoint() = default;

    /// Whether requests for this path are this part's.
    [[nodiscard]] virtual bool serves(std::string_view path) const = 0;
    /// A whole request for a path that it serves; may answer at once.
    virtual void take_request(token_t token, const Request& request) = 0;

    /// An event of a sibling. False if it is none of this part's, and another one is to be asked.
    [[nodiscard]] virtual bool take_event(const queues::event& received) = 0;
    /// This sibling ended: what it was asked gets no answer. It may come back.
    virtual void peer_lost(queues::queue_t peer) = 0;
    /// The end: all that waits, and every later request, is answered at once.
    virtual void stop() = 0;

    /// All that was written to this stream has left for the client; the token may be another's.
    virtual void stream_taken(token_t) {}
    /// A stream is over, whoever ended it; the token may be another's.
    virtual void stream_ended(token_t) {}

    /// The monotonic microsecond at which check_deadlines() has something to do; none: never.
    [[nodiscard]] virtual std::optional<uint64_t> next_deadline_us() const { return std::nullopt; }
    /// Called after each turn of the loop, mostly with nothing to do.
    virtual void check_deadlines() {}
};

}  // namespace wapi
