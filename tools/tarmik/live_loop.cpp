#include "tarmik/live_loop.h"

#include <algorithm>
#include <csignal>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <poll.h>

#include "platform/clock.h"
#include "tarmik/api_client.h"
#include "tarmik/mirror.h"
#include "tarmik/terminal.h"

namespace cli {

namespace {

using nlohmann::ordered_json;

constexpr uint64_t kRetry_us = 1'000'000;
constexpr int kOk = 200;
constexpr int kUnavailable = 503;
constexpr int kNoAnswerInTime = 504;

class Loop {
  public:
    Loop(const std::string& url, const std::string& path, const Parameters& parameters,
         LiveFollower& follower)
        : url_(url), path_(path), parameters_(parameters), follower_(follower) {}

    void run() {
        connect();
        while (follower_.after_turn(clock_.monotonic_us())) {
            pollfd watched[] = {{signals_.fd(), POLLIN, 0},
                                {client_ ? client_->fd() : -1, POLLIN, 0},
                                {follower_.extra_fd(), POLLIN, 0},
                                {follower_.output_fd(), 0, 0}};
            (void)::poll(watched, std::size(watched), wait_ms());
            if (watched[0].revents != 0 && !take_signals()) return;
            if (watched[1].revents != 0) take_items();
            if (watched[2].revents != 0 && !follower_.on_extra()) return;
            if (!client_ && clock_.monotonic_us() >= retry_at_us_) connect();
        }
    }

  private:
    void connect() { client_ = std::make_unique<LiveClient>(url_, path_, parameters_); }

    [[nodiscard]] int wait_ms() const {
        std::optional<uint64_t> until_us = follower_.next_turn_us();
        if (!client_) until_us = std::min(until_us.value_or(retry_at_us_), retry_at_us_);
        if (!until_us) return -1;
        const uint64_t now_us = clock_.monotonic_us();
        // Rounded up, so that a turn is never too early.
        return *until_us <= now_us ? 0 : static_cast<int>((*until_us - now_us + 999) / 1000);
    }

    /// False when it is time to end.
    bool take_signals() {
        for (int signal = 0; (signal = signals_.take()) != 0;) {
            if (signal == SIGWINCH)
                follower_.on_resize();
            else if (signal == SIGTSTP)
                follower_.on_suspend();
            else
                return false;
        }
        return true;
    }

    void take_items() {
        for (StreamItem& item : client_->take()) {
            if (const auto* end = std::get_if<StreamEnd>(&item)) return take_end(*end);
            try {
                take_event(std::get<StreamEvent>(item));
            } catch (const MirrorError& garbage) {
                lose(garbage.text());
                return;
            }
        }
    }

    void take_event(const StreamEvent& event) {
        connected_ = true;
        const ordered_json data = ordered_json::parse(event.data, nullptr, false);
        if (data.is_discarded())
            throw MirrorError(
                fmt::format("The gateway sent what is no JSON: {}", event.data.substr(0, 60)));
        if (event.name == "away") {
            follower_.remark("The server is away, waiting for it");
            return;
        }
        if (event.name == "error") {
            const auto error = data.is_object() ? data.find("error") : data.end();
            follower_.remark(error != data.end() && error->is_object()
                                 ? error->value("text", "The request failed")
                                 : "The request failed");
            return;
        }
        follower_.take(event.name, data);
        follower_.remark("");
    }

    void take_end(const StreamEnd& end) {
        if (end.http_status != 0 && end.http_status != kOk) {
            const bool may_pass =
                end.http_status == kUnavailable || end.http_status == kNoAnswerInTime;
            if (!connected_ || !may_pass) (void)read_answer(end.http_status, end.body);
            return lose("The server is not there yet");
        }
        if (!connected_ && end.http_status == 0)
            throw CommandError(kNotReachable,
                               fmt::format("No family is reachable at {}: {}", url_, end.reason));
        lose("The connection to the gateway is lost");
    }

    void lose(const std::string& why) {
        client_.reset();
        retry_at_us_ = clock_.monotonic_us() + kRetry_us;
        follower_.remark(why + ", trying again");
    }

    const CaughtSignals signals_;  // before any thread
    const platform::SystemClock clock_;
    const std::string& url_;
    const std::string& path_;
    const Parameters& parameters_;
    LiveFollower& follower_;
    std::unique_ptr<LiveClient> client_;
    uint64_t retry_at_us_ = 0;
    bool connected_ = false;
};

}  // namespace

void follow(const std::string& url, const std::string& path, const Parameters& parameters,
            LiveFollower& follower) {
    Loop(url, path, parameters, follower).run();
}

}  // namespace cli
