#include "tarmik/backup.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "log/log.h"
#include "main/config.h"
#include "mdb/snapshot_layout.h"
#include "mdb/snapshot_receiver.h"
#include "platform/local_socket.h"
#include "tarmik/database_report.h"

namespace cli {

namespace {

constexpr size_t kReceived_bytes = 256 * 1024;
/// Further faults of a copy are only counted.
constexpr size_t kMostFaults = 100;
/// A server that says nothing for so long is given up.
constexpr int kSilence_ms = 300'000;

/// SIGINT, SIGTERM and SIGHUP, to be asked for between two steps.
class StopSignals {
  public:
    StopSignals() {
        sigset_t set;
        ::sigemptyset(&set);
        for (const int number : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&set, number);
        ::sigprocmask(SIG_BLOCK, &set, nullptr);
        fd_ = platform::Fd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
        if (!fd_) throw error::ESystemError("Cannot watch for signals", errno);
    }

    /// Throws CommandError if one has come.
    void check() const {
        pollfd waiting{fd_.get(), POLLIN, 0};
        if (::poll(&waiting, 1, 0) > 0) interrupted();
    }
    /// Waits until `fd` is readable; throws CommandError if a signal comes first or nothing at all.
    void wait_readable(int fd) const {
        std::array<pollfd, 2> waiting{{{fd_.get(), POLLIN, 0}, {fd, POLLIN, 0}}};
        int count = 0;
        do {
            count = ::poll(waiting.data(), waiting.size(), kSilence_ms);
        } while (count < 0 && errno == EINTR);
        if (count < 0) throw error::ESystemError("Cannot wait for the server", errno);
        if (waiting[0].revents != 0) interrupted();
        if (count == 0) throw CommandError(kFailed, "The server does not answer");
    }

  private:
    [[noreturn]] static void interrupted() {
        throw CommandError(kFailed, "Interrupted; there is no backup");
    }

    platform::Fd fd_;
};

/// The folder of the copy, for one backup at a time. It is removed again if it was made here and is
/// empty in the end.
class TargetFolder {
  public:
    explicit TargetFolder(std::string path) : path_(std::move(path)) {
        made_ = ::mkdir(path_.c_str(), 0700) == 0;
        if (!made_ && errno != EEXIST) fail("make");
        fd_ = platform::Fd(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (!fd_) fail("open");
        if (::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0) return;
        if (errno != EWOULDBLOCK) fail("lock");
        throw CommandError(kFailed, fmt::format("Another backup writes to \"{}\"", path_));
    }
    ~TargetFolder() {
        if (made_) ::rmdir(path_.c_str());
    }
    TargetFolder(const TargetFolder&) = delete;
    TargetFolder& operator=(const TargetFolder&) = delete;

  private:
    [[noreturn]] void fail(const char* what) const {
        throw error::ESystemError(fmt::format("Cannot {} the folder \"{}\"", what, path_), errno);
    }

    std::string path_;
    platform::Fd fd_;
    bool made_ = false;
};

/// What is copied and where to.
struct Paths {
    std::string database;
    std::string database_copy;
    std::string journal_copy;
};

Paths make_paths(const BackupArguments& arguments) {
    const mainprocess::Config config = arguments.config_path.empty()
                                           ? mainprocess::default_config("")
                                           : mainprocess::read_config(arguments.config_path, "");
    const std::filesystem::path database = config.server.dbms_odb_file_path;
    const std::filesystem::path journal = config.server.dbms_odbj_file_path;
    if (database.filename() == journal.filename())
        throw CommandError(kFailed,
                           fmt::format("Database and journal have the same name, \"{}\", and can't "
                                       "lie in one folder",
                                       database.filename().string()));
    const std::filesystem::path target = arguments.target;
    return {database.string(), (target / database.filename()).string(),
            (target / journal.filename()).string()};
}

platform::Fd ask_server(const std::string& database) {
    const std::string path = database + std::string(mdb::snapshot_layout::kSocketSuffix);
    platform::Fd connection = platform::connect_local(path);
    if (!connection)
        throw CommandError(
            kNotReachable,
            fmt::format("No server has \"{}\" open: nobody listens at \"{}\"", database, path));
    const std::string request = std::string(mdb::snapshot_layout::kRequest) + '\n';
    if (::send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL) !=
        static_cast<ssize_t>(request.size()))
        throw error::ESystemError("Cannot ask the server", errno);
    return connection;
}

class Progress {
  public:
    Progress(const Output& output, const char* what) : output_(output), what_(what) {}
    ~Progress() {
        if (shown_) output_.remark("\n");
    }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(uint64_t done, uint64_t total) {
        if (!output_.remarks_are_terminal || total == 0) return;
        const auto percent = static_cast<int>(done * 100 / total);
        if (percent == percent_) return;
        percent_ = percent;
        shown_ = true;
        output_.remark(fmt::format("\r{} {} %", what_, percent));
    }

  private:
    const Output& output_;
    const char* what_;
    int percent_ = -1;
    bool shown_ = false;
};

void receive(mdb::SnapshotReceiver& receiver, const platform::Fd& connection,
             const StopSignals& signals, const Output& output) {
    Progress progress(output, "Copying");
    std::vector<std::byte> bytes(kReceived_bytes);
    while (!receiver.received()) {
        signals.wait_readable(connection.get());
        const ssize_t got = ::recv(connection.get(), bytes.data(), bytes.size(), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && errno != ECONNRESET)
            throw error::ESystemError("Cannot read from the server", errno);
        if (got <= 0)
            throw CommandError(kFailed,
                               "The server ended the connection before the copy was whole");
        receiver.take({bytes.data(), static_cast<size_t>(got)});
        progress.show(receiver.received_bytes(), receiver.total_bytes());
    }
}

/// True when the copy is whole; its faults are told otherwise.
bool is_whole(const mdb::SnapshotReceiver& receiver, const StopSignals& signals,
              const Output& output) {
    OfflineArguments copy;
    copy.database_path = receiver.temporary_database();
    if (receiver.has_journal_file()) copy.journal_path = receiver.temporary_journal();
    copy.most_faults = kMostFaults;
    Progress progress(output, "Verifying");
    const DatabaseReport report =
        verify_with_all_checks(copy, [&](const mdb::VerifyProgress&) { signals.check(); });
    const mdb::Verification& found = report.files.verification;
    output.remark(found.text());
    return found.whole();
}

/// The faults are the running database's own: this may be the best copy that there will ever be,
/// but it must not take the place of a better one.
[[noreturn]] void keep_as_faulty(mdb::SnapshotReceiver& receiver, const Paths& paths) {
    receiver.publish_as_faulty();
    throw CommandError(
        kFailed,
        fmt::format("The copy has faults, which the database then has too: it is kept as \"{}{}\". "
                    "An earlier backup is left as it was",
                    paths.database_copy, mdb::SnapshotReceiver::kFaultyEnding));
}

void report(const Paths& paths, const mdb::SnapshotReceiver& receiver, const Output& output) {
    if (!output.json) {
        output.remark(fmt::format("{} bytes copied to \"{}\"\n", receiver.total_bytes(),
                                  paths.database_copy));
        return;
    }
    nlohmann::ordered_json answer{{"database", paths.database_copy}};
    if (receiver.has_journal_file()) answer["journal"] = paths.journal_copy;
    answer["bytes"] = receiver.total_bytes();
    output.print(answer.dump() + "\n");
}

void refuse_existing(platform::FileSystem& files, const Paths& paths, bool force) {
    for (const std::string& path : {paths.database_copy, paths.journal_copy})
        if (!force && files.exists(path))
            throw CommandError(
                kFailed, fmt::format("\"{}\" exists already; --force replaces a backup", path));
}

}  // namespace

void backup(const BackupArguments& arguments, const Output& output) {
    logging::set_all_levels(logging::level_t::error);
    const Paths paths = make_paths(arguments);
    platform::SystemFiles files;
    refuse_existing(files, paths, arguments.force);
    const StopSignals signals;
    const platform::Fd connection = ask_server(paths.database);
    const TargetFolder folder(arguments.target);
    mdb::SnapshotReceiver receiver(files, paths.database_copy, paths.journal_copy);
    try {
        receive(receiver, connection, signals, output);
    } catch (const mdb::error_copy_refused& refusal) {
        throw CommandError(kRefused, refusal.text());
    }
    signals.check();
    receiver.finish();
    const bool whole = is_whole(receiver, signals, output);
    signals.check();
    if (!whole) keep_as_faulty(receiver, paths);
    receiver.publish(arguments.force);
    report(paths, receiver, output);
}

}  // namespace cli
