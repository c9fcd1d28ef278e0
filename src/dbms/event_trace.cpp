#include "dbms/event_trace.h"

#include <fmt/format.h>

#include "log/log.h"

namespace dbms {

namespace {
const logging::Logger logger{"dbms"};
}

EventTrace::EventTrace(const std::string& path) {
    if (path.empty()) return;
    out_.open(path);
    if (out_.is_open())
        logger.info("Notice: tracing events to: '{}'", path);
    else
        logger.error("Event tracefile setup error. Not tracing events.");
}

void EventTrace::begin() {
    if (active()) out_ << "N:\n";
}

void EventTrace::end(uint64_t elapsed_us, std::string_view label) {
    if (active())
        out_ << fmt::format("T: {} {}\n", static_cast<double>(elapsed_us) / 1000.0, label)
             << std::flush;
}

}  // namespace dbms
