// The real server on files that are not what they should be, with the test as its main process:
// whatever is wrong with them, it says so, ends with code 1 and leaves them as they are.
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>

#include "hosted_server.h"
#include "mdb/database.h"
#include "mdb/format.h"
#include "platform/file.h"
#include "processes.h"
#include "running_family.h"

namespace family {
namespace {

/// A database in which the server has been: root, indexes and settings, brought to the file by an
/// orderly stop.
class BrokenFiles : public testing::Test {
  protected:
    BrokenFiles() {
        platform::SystemFiles system;
        mdb::format_database(system, {.database_path = good_.database,
                                      .journal_path = good_.journal,
                                      .block_size = 1024,
                                      .journal_size_bytes = 1U << 20,
                                      .capacity_bytes = 64U << 20});
        HostedServer server(good_);
        EXPECT_TRUE(server.start()) << server.errors();
        EXPECT_EQ(server.stop().code, 0) << server.errors();
    }

    void restore() const {
        std::filesystem::copy_file(good_.database, broken_.database,
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::copy_file(good_.journal, broken_.journal,
                                   std::filesystem::copy_options::overwrite_existing);
    }
    /// Starts the server on the broken files.
    void expect_refused() const {
        const std::string database = read_file(broken_.database);
        const std::string journal = read_file(broken_.journal);
        const bool had_database = std::filesystem::exists(broken_.database);
        const bool had_journal = std::filesystem::exists(broken_.journal);
        HostedServer server(broken_);
        if (server.start()) {
            ADD_FAILURE() << "the server has started";
            server.stop();
            return;
        }
        const platform::ExitStatus status = server.wait_for_end();
        EXPECT_FALSE(status.by_signal) << status.code;
        EXPECT_EQ(status.code, 1);
        const std::string errors = server.errors();
        EXPECT_EQ(errors.find("Caught: "), 0U) << errors;
        EXPECT_GT(errors.size(), std::string("Caught: ").size() + 10) << errors;
        EXPECT_TRUE(read_file(broken_.database) == database) << "the database was changed";
        EXPECT_TRUE(read_file(broken_.journal) == journal) << "the journal was changed";
        EXPECT_EQ(std::filesystem::exists(broken_.database), had_database);
        EXPECT_EQ(std::filesystem::exists(broken_.journal), had_journal);
    }

    support::TempDir good_dir_, broken_dir_;
    Files good_{good_dir_}, broken_{broken_dir_};
};

void overwrite(const std::string& path, std::streamoff at, const std::string& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(at);
    file << bytes;
}

/// Length of the part of the database up to its last block in use.
uint64_t length_in_use(const Files& files) {
    platform::SystemFiles system;
    const platform::SystemClock clock;
    mdb::Database database({.database_path = files.database, .journal_path = files.journal}, system,
                           clock);
    auto block = static_cast<uint32_t>(database.store().file_length() / database.block_size());
    while (database.allocator().query_mark(block - 1) == mdb::mark_t::empty) --block;
    return database.store().block_offset(block);
}

TEST_F(BrokenFiles, AreRefusedAndLeftAsTheyAre) {
    const uint64_t used = length_in_use(good_);
    const uint64_t journal = std::filesystem::file_size(good_.journal);
    const auto cut = [](const std::string& path, uint64_t size) {
        return [=] { std::filesystem::resize_file(path, size); };
    };
    const std::pair<const char*, std::function<void()>> harms[] = {
        {"no database by its magic", [&] { overwrite(broken_.database, 0, "garbage!"); }},
        {"no journal by its magic", [&] { overwrite(broken_.journal, 0, "garbage!"); }},
        {"no database", [&] { std::filesystem::remove(broken_.database); }},
        {"no journal", [&] { std::filesystem::remove(broken_.journal); }},
        {"an empty database", cut(broken_.database, 0)},
        {"a part of the header", cut(broken_.database, 512)},
        {"no map", cut(broken_.database, 1024)},
        {"half of the database", cut(broken_.database, used / 2)},
        {"all but the last byte in use", cut(broken_.database, used - 1)},
        {"an empty journal", cut(broken_.journal, 0)},
        {"half of the journal", cut(broken_.journal, journal / 2)},
        {"a journal without its last bytes", cut(broken_.journal, journal - 16)},
    };
    for (const auto& [what, harm] : harms) {
        SCOPED_TRACE(what);
        restore();
        harm();
        expect_refused();
    }
    // What lies behind is no loss.
    restore();
    std::filesystem::resize_file(broken_.database, used);
    HostedServer server(broken_);
    EXPECT_TRUE(server.start()) << server.errors();
    EXPECT_EQ(server.stop().code, 0) << server.errors();
}

TEST_F(BrokenFiles, ASecondServerOnOneDatabaseIsRefused) {
    restore();
    HostedServer first(broken_);
    ASSERT_TRUE(first.start());
    HostedServer second(broken_);
    EXPECT_FALSE(second.start());
    EXPECT_EQ(second.wait_for_end().code, 1);
    EXPECT_EQ(
        second.errors(),
        fmt::format("Caught: Database in \"{}\" is in use by another process\n", broken_.database));
    EXPECT_EQ(first.stop().code, 0) << first.errors();
}

}  // namespace
}  // namespace family
