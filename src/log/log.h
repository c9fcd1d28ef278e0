// Log lines. Each module declares one named logger at namespace scope of its source file,
//
//     const logging::Logger logger{"dbcache"};
//
// and every line of every logger goes, as "[name] [level] text", to one sink. The owner of the
// queue plugs an outlet into the sink; until then, and whenever the outlet can't take a line, lines
// go to the error stream with "Log: " ahead. The registry of loggers is spdlog's; this header keeps
// spdlog's own headers out of everybody's compile time.
#pragma once

#include <cstdint>
#include <fmt/format.h>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace spdlog {
class logger;
}

namespace logging {

enum class level_t : uint32_t {
    trace = 0,
    debug = 1,
    info = 2,
    warning = 3,
    error = 4,
    critical = 5,
    off = 6
};

/// "trace", "debug", "info", "warning", "error", "critical" or "off".
[[nodiscard]] std::string_view level_text(level_t level);
/// The level of a number from outside; none above 6.
[[nodiscard]] std::optional<level_t> find_level(uint32_t number);
/// The level with this text.
[[nodiscard]] std::optional<level_t> find_level(std::string_view text);
/// Bit of a level where a mask of levels is kept: debug 1, info 2, warning 4, error 8. Trace counts
/// as debug and critical as error; off has none.
[[nodiscard]] uint32_t level_mask_bit(level_t level);

/// Whether this process has a logger of that name already.
[[nodiscard]] bool has_logger(const std::string& name);

/// A cheap handle to the named logger; two of one name are the same logger. New loggers stand at
/// level info.
class Logger {
  public:
    explicit Logger(std::string_view name);

    /// Whether a line of this level would be written.
    [[nodiscard]] bool enabled(level_t level) const;

    /// Writes one line if the level is enabled. Arguments are formatted only then.
    template <class... Args>
    void write(level_t level, fmt::format_string<Args...> format, Args&&... args) const {
        if (enabled(level)) write_line(level, fmt::format(format, std::forward<Args>(args)...));
    }
    template <class... Args>
    void debug(fmt::format_string<Args...> format, Args&&... args) const {
        write(level_t::debug, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void info(fmt::format_string<Args...> format, Args&&... args) const {
        write(level_t::info, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void warning(fmt::format_string<Args...> format, Args&&... args) const {
        write(level_t::warning, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void error(fmt::format_string<Args...> format, Args&&... args) const {
        write(level_t::error, format, std::forward<Args>(args)...);
    }
    template <class... Args>
    void critical(fmt::format_string<Args...> format, Args&&... args) const {
        write(level_t::critical, format, std::forward<Args>(args)...);
    }

  private:
    void write_line(level_t level, const std::string& text) const;

    std::shared_ptr<spdlog::logger> logger_;
};

/// Sets every logger, also those made later.
void set_all_levels(level_t level);

/// Levels from outside, in the map's order: the key "*" sets all loggers and ends the work; a known
/// name gets its level and logs "Set loglevel to {}" at it; unknown names and levels above 6 are
/// passed over.
void apply_levels(const std::map<std::string, uint32_t>& levels);

/// Takes a level and a line "[name] [level] text", indented, without a line end. What it logs
/// itself goes to the error stream. If it throws an error::Exception the line goes to the error
/// stream too and the exception ends there.
using Outlet = std::function<void(level_t, std::string_view)>;

/// Plugs an outlet into the sink for its own lifetime; the outlet plugged in before comes back
/// afterwards. Scopes must end in reverse order.
class OutletScope {
  public:
    explicit OutletScope(Outlet outlet);
    ~OutletScope();
    OutletScope(const OutletScope&) = delete;
    OutletScope& operator=(const OutletScope&) = delete;

  private:
    Outlet previous_;
};

/// Indents the lines written during its lifetime by two more blanks.
class Block {
  public:
    Block();
    ~Block();
    Block(const Block&) = delete;
    Block& operator=(const Block&) = delete;
};

}  // namespace logging
