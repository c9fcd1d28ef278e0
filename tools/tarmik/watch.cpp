#include "tarmik/watch.h"

#include <chrono>
#include <fmt/chrono.h>
#include <nlohmann/json.hpp>
#include <optional>

#include "platform/clock.h"
#include "tarmik/live_loop.h"
#include "tarmik/mirror.h"
#include "tarmik/terminal.h"
#include "tarmik/tree_view.h"
#include "tarmik/watch_text.h"

namespace cli {

namespace {

using nlohmann::ordered_json;

/// Between two drawings of the screen.
constexpr uint64_t kDrawPause_us = 50'000;

std::string clock_time() {
    const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    return fmt::format("{:%H:%M:%S}", fmt::localtime(std::chrono::system_clock::to_time_t(now)));
}

/// A line for programs, with the time in front.
std::string json_line(const ordered_json& data) {
    const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    ordered_json line;
    line["time"] = fmt::format("{:%Y-%m-%dT%H:%M:%SZ}",
                               fmt::gmtime(std::chrono::system_clock::to_time_t(now)));
    line.update(data);
    return line.dump(-1, ' ', false, ordered_json::error_handler_t::replace) + "\n";
}

/// Prints lines; remarks go to the error stream.
class LineFollower : public LiveFollower {
  public:
    explicit LineFollower(const Output& output) : output_(output) {}

    void remark(const std::string& text) override {
        if (text == remark_) return;
        if (!text.empty())
            output_.remark(fmt::format("{} {}\n", clock_time(), text));
        else if (!remark_.empty())
            output_.remark(fmt::format("{} Up to date again\n", clock_time()));
        remark_ = text;
    }
    /// False when nobody reads any more.
    bool after_turn(uint64_t) override { return is_read(output_.data); }
    [[nodiscard]] int output_fd() const override { return ::fileno(output_.data); }
    [[nodiscard]] std::optional<uint64_t> next_turn_us() const override { return std::nullopt; }

  protected:
    const Output& output_;

  private:
    std::string remark_;
};

class WatchLines final : public LineFollower {
  public:
    WatchLines(const Output& output, bool json) : LineFollower(output), json_(json) {}

    void take(const std::string& name, const ordered_json& data) override {
        for (const Mirror::Change& change : mirror_.apply(name, data))
            output_.print(json_ ? json_line(change_json(change))
                                : fmt::format("{} {}\n", clock_time(), change_text(change)));
    }

  private:
    bool json_;
    Mirror mirror_;
};

class WatchScreen final : public LiveFollower {
  public:
    explicit WatchScreen(bool colored) : colored_(colored) {}

    void take(const std::string& name, const ordered_json& data) override {
        const auto changes = mirror_.apply(name, data);
        if (!screen_) {
            screen_.emplace();  // only now is there something to show
        } else {
            view_.note(changes, clock_.monotonic_us());
            if (!changes.empty()) last_change_ = "last change " + clock_time();
        }
        dirty_ = true;
    }
    void remark(const std::string& text) override {
        dirty_ = dirty_ || remark_ != text;
        remark_ = text;
    }

    bool after_turn(uint64_t now_us) override {
        if (view_.forget_old(now_us)) dirty_ = true;
        if (!dirty_ || !screen_ || now_us < draw_at_us_) return true;
        dirty_ = false;
        draw();
        // A large tree takes its time to draw; the changes go on meanwhile.
        const uint64_t drawn_us = clock_.monotonic_us();
        draw_at_us_ = drawn_us + std::max(kDrawPause_us, drawn_us - now_us);
        return true;
    }
    [[nodiscard]] std::optional<uint64_t> next_turn_us() const override {
        const auto end_us = view_.next_end_us();
        if (!dirty_ || !screen_) return end_us;
        return std::min(end_us.value_or(draw_at_us_), draw_at_us_);
    }

    [[nodiscard]] int extra_fd() const override { return screen_ ? screen_->keys_fd() : -1; }
    bool on_extra() override {
        const size_t page = std::max<size_t>(screen_->size().rows, 3) - 2;
        for (const key_t key : screen_->take_keys()) {
            if (key == key_t::quit) return false;
            scroll(key, page);
        }
        draw();
        return true;
    }
    void on_resize() override {
        if (screen_) draw();
    }
    void on_suspend() override {
        if (!screen_) return;
        screen_->suspend();
        draw();
    }

  private:
    void scroll(key_t key, size_t page) {
        const auto back = [&](size_t lines) { first_ -= std::min(first_, lines); };
        if (key == key_t::up) back(1);
        if (key == key_t::page_up) back(page);
        if (key == key_t::home) first_ = 0;
        if (key == key_t::down) ++first_;
        if (key == key_t::page_down) first_ += page;
        if (key == key_t::end) first_ = SIZE_MAX / 2;
    }

    void draw() {
        const Screen::Size size = screen_->size();
        const std::string& remark = remark_.empty() ? last_change_ : remark_;
        const Window window =
            cut_window(view_.lines(mirror_, colored_), size.rows, size.columns, &first_, remark);
        screen_->draw(window.lines, window.status);
    }

    const platform::SystemClock clock_;
    bool colored_;
    Mirror mirror_;
    WatchView view_;
    std::optional<Screen> screen_;
    size_t first_ = 0;  ///< line at the top of the window
    bool dirty_ = false;
    uint64_t draw_at_us_ = 0;
    std::string remark_;
    std::string last_change_ = "Ctrl-C ends";
};

class OperationLines final : public LineFollower {
  public:
    OperationLines(const Output& output, bool json) : LineFollower(output), json_(json) {}

    void take(const std::string& name, const ordered_json& data) override {
        if (name == "ready") return;
        if (json_) return output_.print(json_line(data));
        if (!data.is_object()) throw MirrorError("The gateway sent what is no operation");
        if (name == "missed")
            output_.print(fmt::format("{} {} operations were too many to tell\n", clock_time(),
                                      data.value("count", 0U)));
        else
            output_.print(fmt::format("{} {}\n", clock_time(), operation_text(data)));
    }

  private:
    bool json_;
};

}  // namespace

int watch_command(const WatchArguments& arguments, const std::string& url, const Output& output) {
    check_pattern(arguments.pattern);
    Parameters parameters{{"pattern", arguments.pattern}, {"patches", "1"}};
    for (const std::string& root : arguments.roots) parameters.emplace_back("root", root);
    if (arguments.interval_s > 0)
        parameters.emplace_back("interval", std::to_string(arguments.interval_s));
    const bool json = arguments.json || output.json;
    std::unique_ptr<LiveFollower> follower;
    if (!json && can_draw())
        follower = std::make_unique<WatchScreen>(output.colored);
    else
        follower = std::make_unique<WatchLines>(output, json);
    follow(url, "/api/v1/subscribe", parameters, *follower);
    return kDone;
}

int events_command(const EventsArguments& arguments, const std::string& url, const Output& output) {
    Parameters parameters;
    if (!arguments.root.empty()) parameters.emplace_back("root", arguments.root);
    for (const std::string& name : arguments.classes) parameters.emplace_back("class", name);
    for (const std::string& name : arguments.operations) parameters.emplace_back("operation", name);
    OperationLines follower(output, arguments.json || output.json);
    follow(url, "/api/v1/events", parameters, follower);
    return kDone;
}

}  // namespace cli
