// Backups of a running family by the operator's tool: what they hold, and what becomes of everybody
// when they are refused, interrupted, slow, or nonsense is said to the server.
#include <array>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include "mdb/block_layout.h"
#include "mdb/header_layout.h"
#include "platform/local_socket.h"
#include "processes.h"
#include "support/rng.h"
#include "util/byte_order.h"
#include "writers.h"

namespace family {
namespace {

namespace fs = std::filesystem;

constexpr int kWriters = 4;

class BackupTest : public testing::Test {
  protected:
    platform::ChildProcess start_backup(const std::string& folder,
                                        const std::vector<std::string>& more = {}) {
        std::vector<std::string> arguments{"backup", folder, "--config",
                                           family.dir().file("tarmik.toml")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        fs::remove(remarks_path);
        return spawn_into_files(
            {.program = RunningFamily::program("tarmik"), .arguments = arguments}, "",
            remarks_path);
    }
    /// The exit code of a backup that runs to its end.
    int backup(const std::string& folder, const std::vector<std::string>& more = {}) {
        return end_of(start_backup(folder, more));
    }
    int end_of(const platform::ChildProcess& tool) {
        EXPECT_TRUE(ends_within(tool.pidfd.get(), 60));
        const platform::ExitStatus status = platform::wait_for_end(tool);
        return status.by_signal ? -status.code : status.code;
    }
    [[nodiscard]] std::string remarks() const { return read_file(remarks_path); }
    /// A connection to the server's control socket that has asked for a copy.
    platform::Fd ask_by_hand() {
        platform::Fd connection = platform::connect_local(family.database_path() + ".control");
        const std::string request = "backup 1\n";
        EXPECT_EQ(::send(connection.get(), request.data(), request.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(request.size()));
        return connection;
    }
    void start_writers() {
        for (int n = 0; n < kWriters; ++n)
            writers.push_back(
                std::make_unique<Writer>(family.url(), fmt::format("w{}", n), domain));
    }
    /// Waits until so many more creates were acknowledged.
    [[nodiscard]] bool goes_on(size_t more) {
        const auto count = [this] {
            size_t sum = 0;
            for (const auto& writer : writers) sum += writer->acknowledged_count();
            return sum;
        };
        const size_t enough = count() + more;
        return wait_for([&] { return count() >= enough; });
    }
    void stop_writers() {
        for (const auto& writer : writers) {
            writer->stop();
            for (const std::string& refusal : writer->refusals()) ADD_FAILURE() << refusal;
        }
    }
    static bool is_whole(const std::string& folder) {
        return fs::exists(folder + "/world.odb") && fs::exists(folder + "/world.odbj") &&
               std::distance(fs::directory_iterator(folder), fs::directory_iterator()) == 2;
    }
    /// Puts the copy in the place of the family's files.
    void restore(const std::string& folder) const {
        const auto over = fs::copy_options::overwrite_existing;
        fs::copy_file(folder + "/world.odb", family.database_path(), over);
        fs::copy_file(folder + "/world.odbj", family.journal_path(), over);
    }

    RunningFamily family;
    cli::ApiClient api{family.url()};
    const std::string domain = create_domain(api);
    const std::string remarks_path = family.dir().file("remarks");
    const std::string target = family.dir().file("copy");
    Writers writers;
};

TEST_F(BackupTest, HoldsAllThatWasAcknowledgedBeforeItBegan) {
    start_writers();
    std::map<std::string, std::string> before;
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(goes_on(10));
        before = acknowledged_to(writers);
        ASSERT_EQ(backup(target, {"--force"}), 0) << remarks();
        EXPECT_TRUE(is_whole(target));
    }
    EXPECT_EQ(backup(target), 1) << "there is one already";
    EXPECT_NE(remarks().find("exists already"), std::string::npos) << remarks();
    EXPECT_EQ(fs::status(target + "/world.odb").permissions(),
              fs::perms::owner_read | fs::perms::owner_write);
    ASSERT_TRUE(goes_on(10));
    stop_writers();
    expect_there(acknowledged_to(writers), api, domain);

    ASSERT_EQ(family.stop().code, 0);
    EXPECT_FALSE(fs::exists(family.database_path() + ".control"));
    restore(target);
    family.start();
    expect_there(before, api, domain);
    EXPECT_LT(nodes_below(api, domain).size(), acknowledged_to(writers).size());
    EXPECT_EQ(family.stop().code, 0);
}

TEST_F(BackupTest, LeavesNothingHalfWhenTheToolIsInterrupted) {
    start_writers();
    const pid_t server = family.child_pid("dbms");
    int interrupted = 0;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGKILL}) {
        for (const bool in_the_middle : {false, true}) {
            SCOPED_TRACE(fmt::format("signal {} in the middle {}", signal, in_the_middle));
            ASSERT_TRUE(goes_on(5));
            // A server that stands still holds the tool where it is.
            if (!in_the_middle) ::kill(server, SIGSTOP);
            const platform::ChildProcess tool = start_backup(target);
            const std::string temporary = target + "/world.odb.backup";
            if (in_the_middle) {
                ASSERT_TRUE(wait_for(
                    [&] { return fs::exists(temporary) || ends_within(tool.pidfd.get(), 0); }));
                ::kill(server, SIGSTOP);
            } else {
                ASSERT_TRUE(wait_for([&] { return fs::exists(target); }));
            }
            ::kill(tool.pid, signal);
            const int code = end_of(tool);
            ::kill(server, SIGCONT);
            if (code == 0) {
                EXPECT_TRUE(is_whole(target)) << "it was faster than the signal";
            } else {
                ++interrupted;
                EXPECT_EQ(code, signal == SIGKILL ? -SIGKILL : 1) << remarks();
                EXPECT_FALSE(fs::exists(target + "/world.odb"));
                EXPECT_EQ(fs::exists(target), signal == SIGKILL) << "nothing is left";
            }
            // What a killed tool left is in nobody's way.
            EXPECT_EQ(backup(target, {"--force"}), 0) << remarks();
            EXPECT_TRUE(is_whole(target));
            fs::remove_all(target);
        }
    }
    EXPECT_GE(interrupted, 4);
    stop_writers();
    EXPECT_EQ(family.child_pid("dbms"), server);
    expect_there(acknowledged_to(writers), api, domain);
}

TEST_F(BackupTest, SurvivesTheDeathOfTheServerInTheMiddle) {
    start_writers();
    ASSERT_TRUE(goes_on(10));
    {
        const platform::Fd slow = ask_by_hand();
        ASSERT_TRUE(family.logs("Backup of "));
        ASSERT_TRUE(goes_on(10));
        ::kill(family.child_pid("dbms"), SIGKILL);
        ASSERT_TRUE(family.wait_healthy());
    }
    for (int round = 0; round < 3; ++round) {
        const platform::ChildProcess tool = start_backup(target);
        ASSERT_TRUE(
            wait_for([&] { return fs::exists(target) || ends_within(tool.pidfd.get(), 0); }));
        ::kill(family.child_pid("dbms"), SIGKILL);
        const int code = end_of(tool);
        if (code == 0) {
            EXPECT_TRUE(is_whole(target)) << "it was faster";
        } else {
            EXPECT_TRUE(code == 1 || code == 3) << code << remarks();
            EXPECT_FALSE(fs::exists(target));
        }
        ASSERT_TRUE(family.wait_healthy());
        // The socket that the killed server left doesn't stand in the way of the next one.
        EXPECT_EQ(backup(target, {"--force"}), 0) << remarks();
        EXPECT_TRUE(is_whole(target));
        fs::remove_all(target);
    }
    stop_writers();
    expect_there(acknowledged_to(writers), api, domain);
    EXPECT_EQ(family.stop().code, 0);
}

TEST_F(BackupTest, NeverHoldsTheServerUp) {
    start_writers();
    {
        const platform::Fd slow = ask_by_hand();
        ASSERT_TRUE(family.logs("Backup of "));
        EXPECT_TRUE(goes_on(20)) << "nobody takes the copy";
        EXPECT_EQ(backup(target), 4) << remarks();
        EXPECT_NE(remarks().find("Another backup is running"), std::string::npos) << remarks();
        EXPECT_FALSE(fs::exists(target));
    }
    support::Rng rng(1);
    for (int n = 0; n < 300; ++n) {
        const platform::Fd nonsense = platform::connect_local(family.database_path() + ".control");
        ASSERT_TRUE(nonsense);
        std::string bytes(rng.below(200), '\0');
        for (char& byte : bytes) byte = static_cast<char>(rng.next());
        (void)::send(nonsense.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    EXPECT_EQ(backup(target), 0) << remarks();
    EXPECT_TRUE(goes_on(10));
    stop_writers();
    expect_there(acknowledged_to(writers), api, domain);
    EXPECT_EQ(family.stop().code, 0);
    EXPECT_EQ(backup(family.dir().file("other")), 3) << "no family, no backup";
    EXPECT_FALSE(fs::exists(family.dir().file("other")));
}

/// Marks an empty block as one of a large object that nothing names.
void damage_map(const std::string& path) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    const auto word_at = [&](uint64_t offset) {
        std::array<char, 4> bytes{};
        file.seekg(static_cast<std::streamoff>(offset));
        file.read(bytes.data(), bytes.size());
        return util::load_be32(reinterpret_cast<const std::byte*>(bytes.data()));
    };
    namespace header = mdb::header_layout;
    namespace area = mdb::layout_area;
    const uint32_t block_size = word_at(header::block_size);
    const uint32_t layout = word_at(header::layout_offset);
    const uint64_t tail = layout + area::roots + 4 * word_at(layout + area::index_count);
    const uint64_t map = uint64_t{word_at(tail + area::map_start)} * block_size;
    uint64_t block = fs::file_size(path) / block_size - 1;
    const auto mark_of = [&](uint64_t number) {
        file.seekg(static_cast<std::streamoff>(map + number));
        return file.get();
    };
    while (mark_of(block) != 0) ASSERT_GT(--block, word_at(tail + area::first_data_block));
    file.seekp(static_cast<std::streamoff>(map + block));
    file.put(static_cast<char>(mdb::mark_t::lob));
}

TEST_F(BackupTest, KeepsACopyWithFaultsBesideTheLastGoodOne) {
    ASSERT_EQ(backup(target), 0) << remarks();
    const std::string good = read_file(target + "/world.odb");
    ASSERT_EQ(family.stop().code, 0);
    damage_map(family.database_path());
    family.start();
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(backup(target, {"--force"}), 1);
        EXPECT_NE(remarks().find("B5 "), std::string::npos) << remarks();
        EXPECT_NE(remarks().find("it is kept as \"" + target + "/world.odb.faulty\""),
                  std::string::npos)
            << remarks();
        EXPECT_TRUE(read_file(target + "/world.odb") == good);
        EXPECT_TRUE(fs::exists(target + "/world.odb.faulty"));
        EXPECT_TRUE(fs::exists(target + "/world.odbj.faulty"));
        EXPECT_EQ(std::distance(fs::directory_iterator(target), fs::directory_iterator()), 4);
    }
    EXPECT_EQ(family.stop().code, 0);
}

TEST_F(BackupTest, RefusesBadTargets) {
    EXPECT_EQ(backup(family.dir().path().string()), 1);
    EXPECT_NE(remarks().find("exists already"), std::string::npos) << remarks();
    EXPECT_EQ(backup(family.dir().path().string(), {"--force"}), 1) << "over the running database";
    EXPECT_NE(remarks().find("in use"), std::string::npos) << remarks();
    EXPECT_EQ(backup(family.dir().file("no/such/folder")), 1);
    EXPECT_EQ(backup(family.dir().file("tarmik.toml")), 1);

    // A full disk, as the limit of the size of files makes one; only the tool has it.
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit small{1U << 20, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const platform::ChildProcess tool = start_backup(target);
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(end_of(tool), 1);
    EXPECT_NE(remarks().find("File too large"), std::string::npos) << remarks();
    EXPECT_FALSE(fs::exists(target));

    EXPECT_TRUE(family.wait_healthy());
    EXPECT_EQ(family.stop().code, 0);
}

}  // namespace
}  // namespace family
