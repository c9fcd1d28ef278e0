#include "log/log.h"

#include <spdlog/spdlog.h>

#include "log/detail/tarmik_sink.h"

namespace logging {

namespace {

/// The one sink; it belongs to the registry of loggers and lives as long.
const std::shared_ptr<stdquery::TarmikSink>& sink() {
    static const auto the_sink = std::make_shared<stdquery::TarmikSink>();
    return the_sink;
}

spdlog::level::level_enum to_spdlog(level_t level) {
    return static_cast<spdlog::level::level_enum>(level);
}
static_assert(static_cast<int>(level_t::trace) == spdlog::level::trace);
static_assert(static_cast<int>(level_t::debug) == spdlog::level::debug);
static_assert(static_cast<int>(level_t::info) == spdlog::level::info);
static_assert(static_cast<int>(level_t::warning) == spdlog::level::warn);
static_assert(static_cast<int>(level_t::error) == spdlog::level::err);
static_assert(static_cast<int>(level_t::critical) == spdlog::level::critical);
static_assert(static_cast<int>(level_t::off) == spdlog::level::off);

}  // namespace

std::string_view level_text(level_t level) {
    const auto text = spdlog::level::to_string_view(to_spdlog(level));
    return {text.data(), text.size()};
}

std::optional<level_t> find_level(uint32_t number) {
    if (number > static_cast<uint32_t>(level_t::off)) return std::nullopt;
    return static_cast<level_t>(number);
}

std::optional<level_t> find_level(std::string_view text) {
    for (uint32_t number = 0; const auto level = find_level(number); ++number)
        if (level_text(*level) == text) return level;
    return std::nullopt;
}

uint32_t level_mask_bit(level_t level) {
    switch (level) {
        case level_t::trace:
        case level_t::debug:
            return 1;
        case level_t::info:
            return 2;
        case level_t::warning:
            return 4;
        case level_t::error:
        case level_t::critical:
            return 8;
        case level_t::off:
            break;
    }
    return 0;
}

// The library's own default logger has the empty name; it isn't one of ours.
bool has_logger(const std::string& name) {
    return !name.empty() && spdlog::get(name) != nullptr;
}

Logger::Logger(std::string_view name) : logger_(spdlog::get(std::string(name))) {
    if (logger_) return;
    logger_ = std::make_shared<spdlog::logger>(std::string(name), sink());
    spdlog::initialize_logger(logger_);  // takes the level in force and enters the registry
}

bool Logger::enabled(level_t level) const {
    return logger_->should_log(to_spdlog(level));
}

void Logger::write_line(level_t level, const std::string& text) const {
    logger_->log(to_spdlog(level), spdlog::string_view_t(text));
}

void set_all_levels(level_t level) {
    spdlog::set_level(to_spdlog(level));
}

void apply_levels(const std::map<std::string, uint32_t>& levels) {
    for (const auto& [name, number] : levels) {
        const std::optional<level_t> level = find_level(number);
        if (name == "*") {
            if (level) set_all_levels(*level);
            return;
        }
        if (!level || !has_logger(name)) continue;
        spdlog::get(name)->set_level(to_spdlog(*level));
        Logger(name).write(*level, "Set loglevel to {}", level_text(*level));
    }
}

OutletScope::OutletScope(Outlet outlet) : previous_(sink()->exchange_outlet(std::move(outlet))) {}
OutletScope::~OutletScope() {
    sink()->exchange_outlet(std::move(previous_));
}

Block::Block() {
    sink()->enter_block();
}
Block::~Block() {
    sink()->leave_block();
}

}  // namespace logging
