// Requests that look into the server: its metrics, and the levels of loggers.
//
//   GET /metrics                  all metrics in the text format of Prometheus (metrics_text.h)
//   GET /api/v1/metrics[/PATH]    those below a path, as JSON
//   PUT or POST /api/v1/log-levels   sets levels of the server, of this process or of both
//
// A reading asks for the tree first and then for one value after the other, some at a time:
//
//   listing --tree--> reading --all values are there--> answered
//
// Each reading is answered once: whole, 503 when the server is gone, is asked too much at a time or
// the gateway stops, 504 when the values didn't come in time.
#pragma once

#include <map>
#include <optional>
#include <vector>

#include "platform/clock.h"
#include "wapi/endpoint.h"
#include "wapi/metrics_text.h"

namespace wapi {

class MetricsEndpoint final : public Endpoint {
  public:
    /// Both must outlive this object.
    MetricsEndpoint(GatewayPorts& ports, const platform::Clock& clock)
        : ports_(ports), clock_(clock) {}

    [[nodiscard]] bool serves(std::string_view path) const override;
    void take_request(token_t token, const Request& request) override;
    [[nodiscard]] bool take_event(const queues::event& received) override;
    void peer_lost(queues::queue_t peer) override;
    void stop() override;
    [[nodiscard]] std::optional<uint64_t> next_deadline_us() const override;
    void check_deadlines() override;

    static constexpr size_t kMostReadings = 8;
    /// Values of one reading that are asked for at the same time.
    static constexpr size_t kWindow = 64;
    static constexpr uint64_t kAnswerLimit_us = 10'000'000;

  private:
    struct Reading {
        token_t token = 0;
        bool as_text = false;
        /// Path of what is wanted, which may begin with the root's name; empty for all.
        std::string below{};
        uint64_t deadline_us = 0;
        std::vector<MetricSample> samples{};
        size_t next = 0;  ///< first sample that wasn't asked for
        /// What is asked for: dialog ids of samples.
        std::map<uint32_t, size_t> asked{};
        std::optional<uint32_t> list_uid{};  ///< while the tree is awaited
    };

    void begin(token_t token, const Request& request);
    void set_levels(token_t token, const Request& request);
    void take_tree(Reading& reading, const queues::event& received);
    /// False when the server is gone.
    [[nodiscard]] bool ask_on(Reading& reading);
    void finish(Reading& reading);
    void refuse_all(std::string_view text);

    GatewayPorts& ports_;
    const platform::Clock& clock_;
    std::vector<Reading> readings_;
    bool stopped_ = false;
};

}  // namespace wapi
