#include "main/supervised_sibling.h"

#include <cstring>
#include <signal.h>

#include "error/exception.h"

namespace mainprocess {

SupervisedSibling::SupervisedSibling(SiblingConfig config, RestartLimits limits,
                                     PatienceLimits patience)
    : config_(std::move(config)), policy_(limits), limits_(patience), patience_(patience) {}

void SupervisedSibling::start(platform::SpawnRequest request, int64_t now_ms) {
    error::check(state_ == state_t::waiting, "Sibling {} started twice", config_.name);
    try {
        errors_.emplace();
        request.error_fd = errors_->writing_end();
        process_ = platform::spawn(request);
        errors_->close_writing_end();
    } catch (const error::ESystemError&) {
        errors_.reset();
        note_crash(now_ms, 0);
        throw;
    }
    end_.emplace(process_.pidfd.get(), "end of " + config_.name);
    state_ = state_t::starting;
    started_ms_ = now_ms;
    deadline_ms_ = now_ms + limits_.start_warning_ms;
    patience_ = Patience(limits_);
}

void SupervisedSibling::came_up(int64_t now_ms) {
    if (state_ != state_t::starting) return;
    state_ = state_t::up;
    up_since_ms_ = now_ms;
}

std::string SupervisedSibling::ended(int64_t now_ms) {
    const platform::ExitStatus status = platform::wait_for_end(process_);
    end_.reset();
    errors_.reset();
    process_ = {};
    if (state_ == state_t::stopping)
        state_ = state_t::stopped;
    else
        note_crash(now_ms, state_ == state_t::up ? now_ms - up_since_ms_ : 0);
    if (status.by_signal)
        return fmt::format("signal {} ({})", status.code, ::strsignal(status.code));
    return fmt::format("exit code {}", status.code);
}

void SupervisedSibling::note_crash(int64_t now_ms, int64_t uptime_ms) {
    state_ = state_t::delayed;
    deadline_ms_ = now_ms + policy_.delay_after_crash_ms(uptime_ms);
}

void SupervisedSibling::request_stop(int64_t give_up_at_ms) {
    if (state_ == state_t::stopped) return;
    state_ = has_process() ? state_t::stopping : state_t::stopped;
    deadline_ms_ = give_up_at_ms;
}

void SupervisedSibling::kill_now() {
    if (has_process()) ::kill(process_.pid, SIGKILL);
}

std::optional<int64_t> SupervisedSibling::next_deadline_ms() const {
    if (state_ == state_t::waiting || state_ == state_t::up || state_ == state_t::stopped)
        return std::nullopt;
    return deadline_ms_;
}

std::optional<int64_t> SupervisedSibling::slow_start_ms(int64_t now_ms) {
    if (state_ != state_t::starting || now_ms < deadline_ms_) return std::nullopt;
    const int64_t waited_ms = now_ms - started_ms_;
    deadline_ms_ = now_ms + waited_ms;
    return waited_ms;
}

bool SupervisedSibling::due(int64_t now_ms) {
    if (state_ != state_t::delayed || now_ms < deadline_ms_) return false;
    state_ = state_t::waiting;
    return true;
}

}  // namespace mainprocess
