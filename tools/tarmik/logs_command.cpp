#include "tarmik/logs_command.h"

#include <chrono>
#include <deque>
#include <fmt/format.h>
#include <thread>

#include "main/config.h"
#include "tarmik/log_reader.h"
#include "tarmik/terminal.h"

namespace cli {

namespace {

constexpr std::chrono::milliseconds kLookEvery{200};

std::string log_directory(const std::string& config_path) {
    const mainprocess::Config config = config_path.empty()
                                           ? mainprocess::default_config("")
                                           : mainprocess::read_config(config_path, "");
    if (config.log_dir.empty())
        throw CommandError(kFailed, "The family has no log directory: family.log_dir is empty");
    return config.log_dir;
}

class LogPrinter {
  public:
    LogPrinter(LogReader& reader, logging::level_t lowest, const Output& output)
        : reader_(reader), lowest_(lowest), output_(output) {}

    /// Prints all there is, or its last lines.
    void print_present(uint64_t last_lines) {
        if (last_lines == 0) return print_new();
        std::deque<std::string> last;
        while (const auto line = next_shown()) {
            last.push_back(*line);
            if (last.size() > last_lines) last.pop_front();
        }
        for (const std::string& line : last) output_.print(line);
    }
    void print_new() {
        while (const auto line = next_shown()) output_.print(*line);
    }

  private:
    std::optional<std::string> next_shown() {
        while (const auto entry = reader_.next())
            if (entry->head.level >= lowest_) return entry->line + "\n";
        return std::nullopt;
    }

    LogReader& reader_;
    logging::level_t lowest_;
    const Output& output_;
};

}  // namespace

void show_logs(const LogsArguments& arguments, const Output& output) {
    const auto lowest = logging::find_level(arguments.level);
    if (!lowest) throw CommandError(kUsage, fmt::format("\"{}\" is no level", arguments.level));
    const std::string directory = log_directory(arguments.config_path);
    LogReader reader(directory, arguments.process);
    reader.look_for_processes();
    if (reader.empty() && !arguments.follow)
        throw CommandError(
            kFailed,
            fmt::format("There is no log{} in {}",
                        arguments.process.empty() ? "" : " of " + arguments.process, directory));
    LogPrinter printer(reader, *lowest, output);
    printer.print_present(arguments.last_lines);
    while (arguments.follow && is_read(output.data)) {
        std::this_thread::sleep_for(kLookEvery);
        reader.look_for_processes();
        printer.print_new();
    }
}

}  // namespace cli
