// The process `wapi`: gateway and HTTP server as a member of the family, driven by one selector.
//
//   running --"SYS_EXIT"--> answering --all answered, or time is up--> shutting down
//   shutting down --end of stream from the main process--> stopped
#pragma once

#include "io/selector.h"
#include "io/sibling_messenger.h"
#include "io/system_handle.h"
#include "io/timer.h"
#include "meter/meter.h"
#include "platform/span_clock.h"
#include "queues/childqueue.h"
#include "queues/introspection.h"
#include "wapi/gateway.h"
#include "wapi/http_server.h"
#include "wapi/live_streams.h"
#include "wapi/metrics_endpoint.h"
#include "wapi/series_endpoint.h"

namespace wapi {

class Service final : private GatewayPorts, private HttpRequests {
  public:
    /// Listens at once. All references must outlive the service. Throws error::EFatal when the port
    /// can't be had.
    Service(io::ChildMessenger& messenger, queues::childqueue& queue, const platform::Clock& clock,
            uint16_t port);
    ~Service() override;

    /// Says that it is ready, and returns when the main process has let it go or is gone.
    void run();

    [[nodiscard]] uint16_t port() const { return http_.port(); }

    /// How long clients have to take their answers when the process stops.
    static constexpr uint64_t kAnsweringLimit_us = 2'000'000;

  private:
    // GatewayPorts
    uint32_t new_uid() override { return queue_.new_uid(); }
    bool send(const queues::event& sent) override;
    void answer(token_t token, Response response) override {
        http_.answer(token, std::move(response));
    }
    bool open_stream(token_t token, const std::string& content_type) override {
        return http_.open_stream(token, content_type);
    }
    void write(token_t token, std::string_view text) override { http_.write(token, text); }
    void end_stream(token_t token) override { http_.end_stream(token); }
    // HttpRequests
    void take_request(token_t token, const Request& request) override;
    void stream_taken(token_t token) override {
        for (Endpoint* each : endpoints_) each->stream_taken(token);
    }
    void stream_ended(token_t token) override {
        for (Endpoint* each : endpoints_) each->stream_ended(token);
    }

    void take_event();
    void dispatch(const queues::event& received);
    void note_end_of(queues::queue_t peer);
    void begin_stop();
    void stop_answering();
    void shut_down_if_answered();
    void arm_timer();

    io::ChildMessenger& messenger_;
    queues::childqueue& queue_;
    const platform::Clock& clock_;
    HttpServer http_;
    Gateway gateway_;
    LiveStreams streams_;
    MetricsEndpoint metrics_;
    SeriesEndpoint series_;
    /// What others look into here.
    meter::Tree own_metrics_{"wapi"};
    std::optional<queues::Introspection> introspection_;  ///< from run() on
    /// All parts that answer requests. What none of them serves goes to the last one.
    std::vector<Endpoint*> endpoints_{&streams_, &metrics_, &series_, &gateway_};
    io::FdSelectable http_ready_;
    platform::SpanClock span_clock_;
    io::Timer timer_;
    io::Selector<int> selector_;
    std::optional<uint64_t> answering_until_us_;
    bool stopped_ = false;
};

/// The whole life of the process; gives its exit code.
[[nodiscard]] int run_process();

}  // namespace wapi
