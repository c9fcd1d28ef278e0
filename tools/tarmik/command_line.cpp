#include "tarmik/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fmt/format.h>
#include <functional>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "main/run.h"
#include "mdb/format.h"
#include "platform/fifo.h"
#include "tarmik/assignments.h"
#include "tarmik/backup.h"
#include "tarmik/logs_command.h"
#include "tarmik/offline_commands.h"
#include "tarmik/shell.h"
#include "tarmik/watch.h"
#include "tarmik/words.h"

namespace cli {

namespace {

constexpr const char* kDefaultUrl = "http://127.0.0.1:8740";
/// Whoever wants more of a list leaves the option out.
constexpr unsigned kMostLines = 1'000'000'000;

/// Where the arguments of all commands land.
struct Parsed {
    std::string url = kDefaultUrl;
    std::string output = "text";
    SelectArguments select;
    WatchArguments watch;
    EventsArguments events;
    TemplatesArguments templates;
    ChangeArguments change;
    std::string load_path;
    std::string config_path;
    mdb::FormatOptions format;
    OfflineArguments offline;
    BackupArguments backup;
    LogsArguments logs;
    LogLevelArguments log_level;
    std::string metrics_path;
    SeriesArguments series;
    std::string block_size = "4096";
    std::string journal_size = "64M";
};

void add_output_option(CLI::App& app, Parsed& parsed) {
    app.add_option("--output", parsed.output, "Form of the data: text or json")
        ->check(CLI::IsMember({"text", "json"}))
        ->capture_default_str();
}

// Each of the following declares the arguments of a command.

void no_arguments(CLI::App&, Parsed&) {}

void select_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("pattern", parsed.select.pattern,
                   "What to look for, as 'Domain*[name] > Node[name,label]'")
        ->required();
    app.add_option("--root", parsed.select.roots,
                   "Object to begin at instead of the root of the tree")
        ->allow_extra_args(false);
}

void watch_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("pattern", parsed.watch.pattern,
                   "What to look for, as 'Domain*[name] > Node[name,label]'")
        ->required();
    app.add_option("--root", parsed.watch.roots,
                   "Object to begin at instead of the root of the tree")
        ->allow_extra_args(false);
    app.add_option("--interval", parsed.watch.interval_s,
                   "Seconds between two results at least, where a pattern gives whole results")
        ->check(CLI::Range(0U, 86'400U));
    app.add_flag("--json", parsed.watch.json, "A line of JSON for each change");
}

void events_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("--root", parsed.events.root, "Object at or below which to look");
    app.add_option("--class", parsed.events.classes, "Class of objects; may stand several times")
        ->allow_extra_args(false);
    app.add_option("--operation", parsed.events.operations,
                   "created, updated, deleted, data or checkin; may stand several times")
        ->allow_extra_args(false);
    app.add_flag("--json", parsed.events.json, "A line of JSON for each operation");
}

void templates_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("parent", parsed.templates.parent, "Object under which it would stand")
        ->required();
    app.add_option("class", parsed.templates.class_name,
                   "Class of templates to show with their values");
}

/// What a create and an update have in common.
void value_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("values", parsed.change.assignments, kAssignmentHelp);
    app.add_option("--inherits", parsed.change.inherits,
                   "Object to inherit from: values that are not given come from there");
    app.add_flag("--ignore-unknown", parsed.change.ignore_unknown,
                 "Pass over properties that the class does not have");
}

/// What an update and a delete have in common.
void version_argument(CLI::App& app, Parsed& parsed) {
    app.add_option("--version", parsed.change.version,
                   "Version that the object must still have; without it, the present one");
}

void create_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("class", parsed.change.class_name, "Class of the new object")->required();
    app.add_option("--parent", parsed.change.parent, "Object under which it stands")->required();
    app.add_option("--id", parsed.change.id, "Id of the new object instead of a fresh one");
    app.add_option("--template", parsed.change.template_name,
                   "Template to take the other values from: its name, label or number as "
                   "\"templates\" lists it");
    value_arguments(app, parsed);
}

void update_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("id", parsed.change.id, "Object to change")->required();
    app.add_option("--reset", parsed.change.reset,
                   "Property that takes the inherited value again; may stand several times")
        ->allow_extra_args(false);
    version_argument(app, parsed);
    value_arguments(app, parsed);
}

void delete_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("id", parsed.change.id, "Object to delete")->required();
    version_argument(app, parsed);
}

void load_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("file", parsed.load_path,
                   "JSON: {\"parent\": ID, \"objects\": [{\"class\", "
                   "\"properties\", \"children\"}]}")
        ->required();
}

void metrics_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("path", parsed.metrics_path, "What to show, as event/proc; without it, all");
}

void series_arguments(CLI::App& app, Parsed& parsed) {
    constexpr const char* kMoment =
        "as 2026-11-23T13:00:00Z, seconds since 1970, now, or -90m, -12h, -1d, -2w";
    app.add_option("id", parsed.series.id, "Object that has the series")->required();
    app.add_option("--property", parsed.series.property,
                   "tsdbIndex (without it), tsdbIncident or tsdbForecast");
    app.add_option("--from", parsed.series.from, fmt::format("Earliest time, {}", kMoment));
    app.add_option("--to", parsed.series.to, "Latest time, likewise");
    app.add_option("--count", parsed.series.count, "Only so many of the newest; without it, 500");
    app.add_option("--resolution", parsed.series.resolution,
                   "Seconds that a record may span; without it, the finest there is");
    app.add_flag("--graph", parsed.series.graph, "Draw measured values and states over time");
}

CLI::IsMember is_level() {
    return CLI::IsMember({"trace", "debug", "info", "warning", "error", "critical", "off"});
}

void log_level_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("logger", parsed.log_level.logger,
                   "Logger, as \"dbcache\"; \"*\" for all; one that doesn't exist is passed over")
        ->required();
    app.add_option("level", parsed.log_level.level, "Lowest level that is written from now on")
        ->required()
        ->check(is_level());
    app.add_option("--process", parsed.log_level.process,
                   "Process, as \"wapi\"; without it, the server and the gateway");
}

void logs_arguments(CLI::App& app, Parsed& parsed) {
    app.add_flag("-f,--follow", parsed.logs.follow, "Go on with what comes");
    app.add_option("--process", parsed.logs.process, "Process, as \"dbms\"; without it, all");
    app.add_option("--level", parsed.logs.level, "Lowest level to show")
        ->default_val("trace")
        ->check(is_level());
    app.add_option("-n,--lines", parsed.logs.last_lines, "Only so many of the last lines")
        ->check(CLI::Range(1U, kMostLines));
    app.add_option("--config", parsed.logs.config_path,
                   "Configuration file of the family; none: the defaults");
}

void run_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("--config", parsed.config_path, "Configuration file (TOML); none: the defaults");
}

void format_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("database", parsed.format.database_path, "File of the database")->required();
    app.add_option("journal", parsed.format.journal_path, "File of its journal")->required();
    app.add_option("--block-size", parsed.block_size, "Bytes of a block, a power of two")
        ->capture_default_str();
    app.add_option("--journal-size", parsed.journal_size, "Bytes of the journal, as 64M")
        ->capture_default_str();
    app.add_flag("--force", parsed.format.force, "Replace files that exist");
}

void backup_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("target", parsed.backup.target, "Folder of the copy, made if there is none")
        ->required();
    app.add_option("--config", parsed.backup.config_path,
                   "Configuration file of the family; none: the defaults");
    app.add_flag("--force", parsed.backup.force, "Replace a copy that is there");
}

void offline_arguments(CLI::App& app, Parsed& parsed) {
    app.add_option("database", parsed.offline.database_path, "File of the database")->required();
    app.add_option("journal", parsed.offline.journal_path, "File of its journal")->required();
}

void verify_arguments(CLI::App& app, Parsed& parsed) {
    offline_arguments(app, parsed);
    app.add_option("--most-faults", parsed.offline.most_faults,
                   "How many faults to look for before it ends")
        ->check(CLI::Range(1U, kMostLines))
        ->capture_default_str();
}

uint64_t get_size(const std::string& text, const char* option) {
    const auto size = parse_size(text);
    if (!size)
        throw CommandError(
            kUsage,
            fmt::format("{}: \"{}\" is no size, expected one like 4096 or 64M", option, text));
    return *size;
}

void format_database(Parsed& parsed) {
    const uint64_t block_size = get_size(parsed.block_size, "--block-size");
    if (block_size > UINT32_MAX) throw CommandError(kUsage, "--block-size is too large");
    parsed.format.block_size = static_cast<uint32_t>(block_size);
    parsed.format.journal_size_bytes = get_size(parsed.journal_size, "--journal-size");
    platform::SystemFiles files;
    mdb::format_database(files, parsed.format);
}

Output make_output(const Parsed& parsed) {
    Output output;
    output.json = parsed.output == "json";
    const char* no_color = std::getenv("NO_COLOR");
    output.colored = (no_color == nullptr || *no_color == '\0') && ::isatty(STDOUT_FILENO) == 1;
    output.remarks_are_terminal = ::isatty(STDERR_FILENO) == 1;
    return output;
}

/// How a command is declared: its name, its line in the help, its arguments.
struct Declared {
    const char* name;
    const char* description;
    void (*declare)(CLI::App& app, Parsed& parsed);
};

/// A command that asks the family one thing after another; the shell knows it too.
struct FamilyCommand : Declared {
    void (*run)(Commands& commands, const Parsed& parsed);
};

/// Any other command. Gives the exit code.
struct ToolCommand : Declared {
    int (*run)(Parsed& parsed, const Output& output);
};

const FamilyCommand kFamilyCommands[] = {
    {{"select", "Asks for a piece of the tree of objects", select_arguments},
     [](Commands& commands, const Parsed& parsed) { commands.select(parsed.select); }},
    {{"templates", "Lists what the server suggests to create under an object", templates_arguments},
     [](Commands& commands, const Parsed& parsed) { commands.templates(parsed.templates); }},
    {{"classes", "Lists the classes of objects", no_arguments},
     [](Commands& commands, const Parsed&) { commands.classes(); }},
    {{"properties", "Lists the properties with their types", no_arguments},
     [](Commands& commands, const Parsed&) { commands.properties(); }},
    {{"create", "Creates an object and prints its id", create_arguments},
     [](Commands& commands, const Parsed& parsed) { commands.create(parsed.change); }},
    {{"update", "Changes an object and prints its new version", update_arguments},
     [](Commands& commands, const Parsed& parsed) { commands.update(parsed.change); }},
    {{"delete", "Deletes an object and all below it", delete_arguments},
     [](Commands& commands, const Parsed& parsed) { commands.remove(parsed.change); }},
    {{"load", "Creates the objects of a file, skipping what exists already", load_arguments},
     [](Commands& commands, const Parsed& parsed) { commands.load(parsed.load_path); }},
    {{"metrics", "Shows what the server counts and measures", metrics_arguments},
     [](Commands& commands, const Parsed& parsed) { commands.metrics(parsed.metrics_path); }},
    {{"series", "Shows the records of a time series", series_arguments},
     [](Commands& commands, const Parsed& parsed) { commands.series(parsed.series); }},
    {{"log-level", "Sets from which level on a logger writes", log_level_arguments},
     [](Commands& commands, const Parsed& parsed) { commands.log_level(parsed.log_level); }},
};

const ToolCommand kToolCommands[] = {
    {{"run", "Starts the family of processes and runs until it is stopped", run_arguments},
     [](Parsed& parsed, const Output&) {
         return mainprocess::run({.config_path = parsed.config_path});
     }},
    {{"format", "Makes a new, empty database", format_arguments},
     [](Parsed& parsed, const Output&) {
         format_database(parsed);
         return int{kDone};
     }},
    {{"backup", "Copies the database of a running family to a folder", backup_arguments},
     [](Parsed& parsed, const Output& output) {
         backup(parsed.backup, output);
         return int{kDone};
     }},
    {{"watch", "Shows a piece of the tree and keeps it up to date", watch_arguments},
     [](Parsed& parsed, const Output& output) {
         return watch_command(parsed.watch, parsed.url, output);
     }},
    {{"events", "Prints what is created, updated and deleted", events_arguments},
     [](Parsed& parsed, const Output& output) {
         return events_command(parsed.events, parsed.url, output);
     }},
    {{"logs", "Shows the log files of the family, by time", logs_arguments},
     [](Parsed& parsed, const Output& output) {
         show_logs(parsed.logs, output);
         return int{kDone};
     }},
    {{"shell", "Reads commands line by line, with history and completion", no_arguments},
     [](Parsed& parsed, const Output& output) {
         ApiClient api(parsed.url);
         return run_shell(api, output);
     }},
    {{"verify", "Checks the files of a database that no server uses", verify_arguments},
     [](Parsed& parsed, const Output& output) -> int {
         return verify_command(parsed.offline, output);
     }},
    {{"dump", "Prints each object of a database as a line of JSON, by id", offline_arguments},
     [](Parsed& parsed, const Output& output) -> int {
         return dump_command(parsed.offline, output);
     }},
    {{"stat", "Tells what the files of a database are filled with", offline_arguments},
     [](Parsed& parsed, const Output& output) -> int {
         return stat_command(parsed.offline, output);
     }},
};

void declare(CLI::App& app, const Declared& command, Parsed& parsed) {
    CLI::App* made = app.add_subcommand(command.name, command.description);
    made->footer(kExitCodeTable);
    command.declare(*made, parsed);
}

/// Runs the command among those that ask the family; false if it is another one.
bool run_family_command(const CLI::App& app, const Parsed& parsed, Api& api, const Output& output) {
    for (const FamilyCommand& each : kFamilyCommands) {
        if (!app.got_subcommand(each.name)) continue;
        Commands commands(api, output);
        each.run(commands, parsed);
        return true;
    }
    return false;
}

int execute(const CLI::App& app, Parsed& parsed) {
    const Output output = make_output(parsed);
    for (const ToolCommand& each : kToolCommands)
        if (app.got_subcommand(each.name)) return each.run(parsed, output);
    ApiClient api(parsed.url);
    (void)run_family_command(app, parsed, api, output);
    return kDone;
}

int report(std::FILE* remarks, const std::string& text, int exit_code) {
    (void)std::fprintf(remarks, "tarmik: %s\n", text.c_str());
    return exit_code;
}

/// Runs `work`; whatever goes wrong becomes a text on `remarks` and an exit code.
int guarded(std::FILE* remarks, const std::function<int()>& work) {
    try {
        const int exit_code = work();
        errno = 0;
        if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return exit_code;
        // A reader that has enough, as head, needs no explanation.
        return errno == EPIPE ? int{kFailed}
                              : report(remarks, "The output cannot be written", kFailed);
    } catch (const CommandError& wrong) {
        return report(remarks, wrong.text(), wrong.exit_code());
    } catch (const error::Exception& failure) {
        return report(remarks, failure.text(), kFailed);
    } catch (const nlohmann::json::exception& other) {
        return report(remarks, fmt::format("The answer is not that of a gateway: {}", other.what()),
                      kFailed);
    }
}

/// Parses; the exit code if that ends the matter, for help or wrong usage.
std::optional<int> parse(CLI::App& app, std::vector<std::string> words, const Output& output) {
    std::reverse(words.begin(), words.end());  // the parser takes them from the back
    try {
        app.parse(std::move(words));
        return std::nullopt;
    } catch (const CLI::RequiredError& missing) {
        // What stands where a command should is the better thing to name.
        const std::vector<std::string> left = app.remaining();
        output.remark(app.get_subcommands().empty() && !left.empty()
                          ? fmt::format("\"{}\" is no command\n", left.front())
                          : fmt::format("{}\n", missing.what()));
        output.remark("Run with --help for more information.\n");
        return kUsage;
    } catch (const CLI::ParseError& ended) {
        std::ostringstream data;
        std::ostringstream remarks;
        const int code = app.exit(ended, data, remarks);
        output.print(data.str());
        output.remark(remarks.str());
        return code == 0 ? kDone : kUsage;
    }
}

}  // namespace

int run_command_line(std::vector<std::string> arguments) {
    // A gateway that ends while we send, or a reader of our output that has enough, is to be told
    // by an exit code.
    platform::ignore_broken_pipe_signal();
    platform::ignore_file_size_signal();
    Parsed parsed;
    CLI::App app("Tarmik monitors networks and servers: the operator's tool", "tarmik");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(kExitCodeTable);
    app.add_option("--url", parsed.url, "Address of the family's gateway")->capture_default_str();
    add_output_option(app, parsed);
    for (const ToolCommand& each : kToolCommands) declare(app, each, parsed);
    for (const FamilyCommand& each : kFamilyCommands) declare(app, each, parsed);
    if (const auto ended = parse(app, std::move(arguments), Output())) return *ended;
    return guarded(stderr, [&] { return execute(app, parsed); });
}

int run_shell_command(std::vector<std::string> words, Api& api, const Output& output) {
    Parsed parsed;
    parsed.output = output.json ? "json" : "text";
    CLI::App app("Commands of the shell; \"exit\" leaves it", "");
    app.require_subcommand(1);
    app.fallthrough();
    add_output_option(app, parsed);
    for (const FamilyCommand& each : kFamilyCommands) declare(app, each, parsed);
    if (words == std::vector<std::string>{"help"}) words = {"--help"};
    if (const auto ended = parse(app, std::move(words), output)) return *ended;
    return guarded(output.remarks, [&] {
        Output own = output;
        own.json = parsed.output == "json";
        (void)run_family_command(app, parsed, api, own);
        return static_cast<int>(kDone);
    });
}

std::vector<std::string> shell_commands() {
    std::vector<std::string> names{"exit", "help"};
    for (const FamilyCommand& each : kFamilyCommands) names.emplace_back(each.name);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace cli
