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
#include "tarmik/offline_commands.h"
#include "tarmik/shell.h"
#include "tarmik/words.h"

namespace cli {

namespace {

constexpr const char* kDefaultUrl = "http://127.0.0.1:8740";

/// Where the arguments of all commands land.
struct Parsed {
    std::string url = kDefaultUrl;
    std::string output = "text";
    SelectArguments select;
    TemplatesArguments templates;
    ChangeArguments change;
    std::string load_path;
    std::string config_path;
    mdb::FormatOptions format;
    OfflineArguments offline;
    BackupArguments backup;
    std::string block_size = "4096";
    std::string journal_size = "64M";
};

CLI::App* command(CLI::App& app, const char* name, const char* description) {
    CLI::App* made = app.add_subcommand(name, description);
    made->footer(kExitCodeTable);
    return made;
}

void add_output_option(CLI::App& app, Parsed& parsed) {
    app.add_option("--output", parsed.output, "Form of the data: text or json")
        ->check(CLI::IsMember({"text", "json"}))
        ->capture_default_str();
}

void add_read_commands(CLI::App& app, Parsed& parsed) {
    CLI::App* select = command(app, "select", "Asks for a piece of the tree of objects");
    select
        ->add_option("pattern", parsed.select.pattern,
                     "What to look for, as 'Domain*[name] > Node[name,label]'")
        ->required();
    select
        ->add_option("--root", parsed.select.roots,
                     "Object to begin at instead of the root of the tree")
        ->allow_extra_args(false);
    CLI::App* templates =
        command(app, "templates", "Lists what the server suggests to create under an object");
    templates->add_option("parent", parsed.templates.parent, "Object under which it would stand")
        ->required();
    templates->add_option("class", parsed.templates.class_name,
                          "Class of templates to show with their values");
    command(app, "classes", "Lists the classes of objects");
    command(app, "properties", "Lists the properties with their types");
}

void add_write_commands(CLI::App& app, Parsed& parsed) {
    CLI::App* create = command(app, "create", "Creates an object and prints its id");
    create->add_option("class", parsed.change.class_name, "Class of the new object")->required();
    create->add_option("--parent", parsed.change.parent, "Object under which it stands")
        ->required();
    create->add_option("--id", parsed.change.id, "Id of the new object instead of a fresh one");
    create->add_option("--template", parsed.change.template_name,
                       "Template to take the other values from: its name, label or number as "
                       "\"templates\" lists it");
    CLI::App* update = command(app, "update", "Changes an object and prints its new version");
    update->add_option("id", parsed.change.id, "Object to change")->required();
    update
        ->add_option("--reset", parsed.change.reset,
                     "Property that takes the inherited value again; may stand several times")
        ->allow_extra_args(false);
    CLI::App* remove = command(app, "delete", "Deletes an object and all below it");
    remove->add_option("id", parsed.change.id, "Object to delete")->required();
    for (CLI::App* change : {update, remove})
        change->add_option("--version", parsed.change.version,
                           "Version that the object must still have; without it, the present one");
    for (CLI::App* change : {create, update}) {
        change->add_option("values", parsed.change.assignments, kAssignmentHelp);
        change->add_option("--inherits", parsed.change.inherits,
                           "Object to inherit from: values that are not given come from there");
        change->add_flag("--ignore-unknown", parsed.change.ignore_unknown,
                         "Pass over properties that the class does not have");
    }
    CLI::App* load =
        command(app, "load", "Creates the objects of a file, skipping what exists already");
    load->add_option("file", parsed.load_path,
                     "JSON: {\"parent\": ID, \"objects\": [{\"class\", "
                     "\"properties\", \"children\"}]}")
        ->required();
}

void add_local_commands(CLI::App& app, Parsed& parsed) {
    CLI::App* run =
        command(app, "run", "Starts the family of processes and runs until it is stopped");
    run->add_option("--config", parsed.config_path,
                    "Configuration file (TOML); none: the defaults");
    CLI::App* format = command(app, "format", "Makes a new, empty database");
    format->add_option("database", parsed.format.database_path, "File of the database")->required();
    format->add_option("journal", parsed.format.journal_path, "File of its journal")->required();
    format->add_option("--block-size", parsed.block_size, "Bytes of a block, a power of two")
        ->capture_default_str();
    format->add_option("--journal-size", parsed.journal_size, "Bytes of the journal, as 64M")
        ->capture_default_str();
    format->add_flag("--force", parsed.format.force, "Replace files that exist");
    CLI::App* backup =
        command(app, "backup", "Copies the database of a running family to a folder");
    backup->add_option("target", parsed.backup.target, "Folder of the copy, made if there is none")
        ->required();
    backup->add_option("--config", parsed.backup.config_path,
                       "Configuration file of the family; none: the defaults");
    backup->add_flag("--force", parsed.backup.force, "Replace a copy that is there");
    command(app, "shell", "Reads commands line by line, with history and completion");
}

void add_offline_commands(CLI::App& app, Parsed& parsed) {
    CLI::App* verify = command(app, "verify", "Checks the files of a database that no server uses");
    CLI::App* dump =
        command(app, "dump", "Prints each object of a database as a line of JSON, by id");
    CLI::App* stat = command(app, "stat", "Tells what the files of a database are filled with");
    for (CLI::App* offline : {verify, dump, stat}) {
        offline->add_option("database", parsed.offline.database_path, "File of the database")
            ->required();
        offline->add_option("journal", parsed.offline.journal_path, "File of its journal")
            ->required();
    }
    verify
        ->add_option("--most-faults", parsed.offline.most_faults,
                     "How many faults to look for before it ends")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
}

/// Runs the command among those that ask the family; false if it is another one.
bool run_api_command(const CLI::App& app, const Parsed& parsed, Commands& commands) {
    if (app.got_subcommand("select"))
        commands.select(parsed.select);
    else if (app.got_subcommand("templates"))
        commands.templates(parsed.templates);
    else if (app.got_subcommand("create"))
        commands.create(parsed.change);
    else if (app.got_subcommand("update"))
        commands.update(parsed.change);
    else if (app.got_subcommand("delete"))
        commands.remove(parsed.change);
    else if (app.got_subcommand("classes"))
        commands.classes();
    else if (app.got_subcommand("properties"))
        commands.properties();
    else if (app.got_subcommand("load"))
        commands.load(parsed.load_path);
    else
        return false;
    return true;
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

int execute(const CLI::App& app, Parsed& parsed) {
    if (app.got_subcommand("run")) return mainprocess::run({.config_path = parsed.config_path});
    if (app.got_subcommand("format")) {
        format_database(parsed);
        return kDone;
    }
    const Output output = make_output(parsed);
    if (app.got_subcommand("verify")) return verify_command(parsed.offline, output);
    if (app.got_subcommand("dump")) return dump_command(parsed.offline, output);
    if (app.got_subcommand("stat")) return stat_command(parsed.offline, output);
    if (app.got_subcommand("backup")) {
        backup(parsed.backup, output);
        return kDone;
    }
    ApiClient api(parsed.url);
    if (app.got_subcommand("shell")) return run_shell(api, output);
    Commands commands(api, output);
    (void)run_api_command(app, parsed, commands);
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
    add_local_commands(app, parsed);
    add_offline_commands(app, parsed);
    add_read_commands(app, parsed);
    add_write_commands(app, parsed);
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
    add_read_commands(app, parsed);
    add_write_commands(app, parsed);
    if (words == std::vector<std::string>{"help"}) words = {"--help"};
    if (const auto ended = parse(app, std::move(words), output)) return *ended;
    return guarded(output.remarks, [&] {
        Output own = output;
        own.json = parsed.output == "json";
        Commands commands(api, own);
        (void)run_api_command(app, parsed, commands);
        return static_cast<int>(kDone);
    });
}

std::vector<std::string> shell_commands() {
    return {"classes", "create",     "delete", "exit",      "help",
            "load",    "properties", "select", "templates", "update"};
}

}  // namespace cli
