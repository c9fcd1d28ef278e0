// The requests that are one question to the server: the gateway turns a request into an event,
// remembers who waits for which dialog id, and turns the reply into the answer. It knows neither
// connections nor queues; both are behind GatewayPorts.
//
// One call, from request to answer:
//
//   take_request --> queued --room in the window--> in flight --reply--> answered
//                       ^                              |
//                       '---- object looked up --------'   (a change that lacks its version, or
//                                                           needs its class to be read)
//
// Whatever happens, each token gets exactly one answer: the reply, 503 when the server is gone or
// the gateway stops, or 504 when no reply came in time. A call whose client was told 504 stays in
// flight until the server has replied or ended.
//
// The window bounds the bytes that are under way to the server, so that sending never waits for
// room while the server in turn waits for us to read its reply.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string_view>

#include "platform/clock.h"
#include "tql/errors.h"
#include "wapi/endpoint.h"

namespace wapi {

class Gateway final : public Endpoint {
  public:
    /// Both must outlive the gateway.
    Gateway(GatewayPorts& ports, const platform::Clock& clock) : ports_(ports), clock_(clock) {}

    [[nodiscard]] bool serves(std::string_view path) const override;
    /// Answers 404 for a path that it doesn't serve.
    void take_request(token_t token, const Request& request) override;
    [[nodiscard]] bool take_event(const queues::event& received) override;
    /// When the server ended, all calls get 503. Later ones are tried again.
    void peer_lost(queues::queue_t peer) override;
    /// All calls, and every later one, get 503.
    void stop() override;

    /// Requests that the server has not replied to, those given up included.
    [[nodiscard]] size_t open_calls() const { return queued_.size() + in_flight_.size(); }

    [[nodiscard]] std::optional<uint64_t> next_deadline_us() const override;
    /// Answers those that have waited too long.
    void check_deadlines() override;

    /// Bytes of requests in flight together; a larger one goes alone.
    static constexpr size_t kWindowBytes = 128 * 1024;
    static constexpr uint64_t kAnswerLimit_us = 60'000'000;
    static constexpr uint64_t kHealthLimit_us = 5'000'000;

  private:
    struct Routes;
    struct Call {
        token_t token = 0;  ///< 0: nobody waits any more
        std::unique_ptr<queues::event> request;
        /// Makes the change of an object that is looked up first. Throws what wapi::refusal()
        /// takes.
        std::function<std::unique_ptr<queues::event>(const tql::result_t& object)> make_change;
        bool asked_templates = false;  ///< no other object was found
        bool is_health = false;
        /// What an exception in place of an answer is reported as.
        uint32_t failure_code = errors::ERR_BACKEND;
        tql::id_t id;  ///< of an update or delete
        size_t weight_bytes = 0;
        uint64_t deadline_us = 0;
    };

    [[nodiscard]] static Call make_call(const Request& request);
    void send_queued();
    void answer(Call& call, Response response);
    void finish(Call& call, const queues::event& received);
    void take_object(Call call, const dbms::Return_Tql_Select_Data& found);
    void refuse_all(std::string_view text);

    GatewayPorts& ports_;
    const platform::Clock& clock_;
    std::deque<Call> queued_;
    std::map<uint32_t, Call> in_flight_;  ///< by dialog id
    size_t in_flight_bytes_ = 0;
    bool stopped_ = false;
};

}  // namespace wapi
