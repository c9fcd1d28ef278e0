// Requests for the time series of an object:
//
//   GET  /api/v1/series/ID    records of a series, with its layout and columns
//   POST /api/v1/series/ID    appends records; answered when they are durable
//
// The series are the server's to reach, so a call is two or three questions to it:
//
//   looking up --the object has one-----> reading --data--> answered
//              --append, has one--------> asking for its type --> appending --> answered
//              --append, first data-----> appending
//
// Each call is answered once: 503 when the server is gone, the store of series fails, too many are
// asked for at a time or the gateway stops, 504 when no reply came in time.
#pragma once

#include <map>
#include <memory>

#include "platform/clock.h"
#include "wapi/series_requests.h"

namespace wapi {

class SeriesEndpoint final : public Endpoint {
  public:
    /// Both must outlive this object.
    SeriesEndpoint(GatewayPorts& ports, const platform::Clock& clock)
        : ports_(ports), clock_(clock) {}

    [[nodiscard]] bool serves(std::string_view path) const override;
    void take_request(token_t token, const Request& request) override;
    [[nodiscard]] bool take_event(const queues::event& received) override;
    void peer_lost(queues::queue_t peer) override;
    void stop() override;
    [[nodiscard]] std::optional<uint64_t> next_deadline_us() const override;
    void check_deadlines() override;

    static constexpr size_t kMostCalls = 16;
    static constexpr uint64_t kAnswerLimit_us = 30'000'000;

  private:
    struct Call {
        token_t token = 0;
        uint64_t deadline_us = 0;
        SeriesRequest wanted{};
        tql::result_t object{};  ///< once it is looked up
    };

    /// Sends a question to the server; its reply goes on with `call`.
    template <queues::event_t N>
    void ask(Call call, queues::record_t<N> record);
    /// Throws what wapi::refusal() takes.
    void go_on(Call& call, const queues::event& received);
    void take_object(Call& call, const dbms::Return_Tql_Select_Data& found);
    void append(Call& call, uint32_t data_type);
    void refuse_all(std::string_view text);

    GatewayPorts& ports_;
    const platform::Clock& clock_;
    std::map<uint32_t, Call> calls_;  ///< by the dialog id of what is awaited
    bool stopped_ = false;
};

}  // namespace wapi
