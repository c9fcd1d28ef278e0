#include "queues/log_outlet.h"

#include <fmt/format.h>

#include "queues/records/control.h"

namespace queues {

log_outlet::log_outlet(childqueue& queue, std::FILE* fallback)
    : queue_(queue), fallback_(fallback) {
    queue_.on_free([this] { flush(); });
}

log_outlet::~log_outlet() {
    queue_.on_free({});
    for (const std::string& line : kept_) fall_back(line);
}

void log_outlet::write(logging::level_t, std::string_view line) {
    // What sending a line gives rise to must not give rise to another one.
    if (flushing_) return fall_back(line);
    if (kept_.size() >= kMaxKept) {
        ++dropped_;
        return;
    }
    kept_.emplace_back(line);
    flush();
}

void log_outlet::flush() {
    if (flushing_ || queue_.busy()) return;
    flushing_ = true;
    while (!kept_.empty()) {
        const std::string line = std::move(kept_.front());
        kept_.pop_front();
        if (!send(line)) fall_back(line);
        if (kept_.empty() && dropped_ > 0) {
            kept_.push_back(fmt::format("[log] [warning] {} log lines were dropped", dropped_));
            dropped_ = 0;
        }
    }
    flushing_ = false;
}

bool log_outlet::send(const std::string& line) {
    if (queue_.lost_peers().test(queue_t::main)) return false;
    try {
        queue_.send(devent<SYSTEM_LOG_REQUEST>(queue_t::main, queue_.new_uid(),
                                               {.msg = line, .log_type = 0}));
    } catch (const error::Exception&) {
        // The parent is gone or we are stopping: whoever sends an event of weight will hear of it.
        return false;
    }
    return true;
}

void log_outlet::fall_back(std::string_view line) {
    // Nobody is left to tell if this fails.
    const std::string text = fmt::format("Log: {}\n", line);
    (void)std::fwrite(text.data(), 1, text.size(), fallback_);
}

}  // namespace queues
