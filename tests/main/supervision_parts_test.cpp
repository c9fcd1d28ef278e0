#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "error/exception.h"
#include "main/instance_lock.h"
#include "main/log_files.h"
#include "main/restart_policy.h"
#include "main/supervised_sibling.h"
#include "main/variable_store.h"
#include "support/temp_dir.h"

namespace mainprocess {
namespace {

TEST(RestartPolicy, DelayDoublesUpToTheLimitAndStartsAgainAfterStableTime) {
    RestartPolicy policy({.first_delay_ms = 100, .longest_delay_ms = 500, .stable_after_ms = 1000});
    EXPECT_EQ(policy.delay_after_crash_ms(0), 100);
    EXPECT_EQ(policy.delay_after_crash_ms(999), 200);
    EXPECT_EQ(policy.delay_after_crash_ms(0), 400);
    EXPECT_EQ(policy.delay_after_crash_ms(0), 500);
    EXPECT_EQ(policy.delay_after_crash_ms(1000), 100);
    EXPECT_EQ(policy.delay_after_crash_ms(0), 200);
    for (int crash = 0; crash < 100; ++crash) EXPECT_LE(policy.delay_after_crash_ms(0), 500);
}

TEST(SupervisedSibling, ASlowStartIsToldOfAtGrowingIntervals) {
    SupervisedSibling sibling({"sleeper", queues::queue_t::extra, "/bin/sleep", {}, 4096, true},
                              RestartLimits{}, {.start_warning_ms = 100});
    sibling.start({.program = "/bin/sleep", .arguments = {"600"}}, 1000);
    std::vector<int64_t> told;
    for (int64_t now_ms = 1000; now_ms < 2000; ++now_ms)
        if (const auto waited_ms = sibling.slow_start_ms(now_ms)) told.push_back(*waited_ms);
    EXPECT_EQ(told, (std::vector<int64_t>{100, 200, 400, 800}));
    EXPECT_EQ(sibling.next_deadline_ms(), 2600);
    sibling.came_up(2000);
    EXPECT_EQ(sibling.next_deadline_ms(), std::nullopt);
    EXPECT_EQ(sibling.slow_start_ms(9999), std::nullopt);
    sibling.kill_now();
    (void)sibling.ended(9999);
}

TEST(Patience, WarnsOnceEachTimeAndGivesUp) {
    using enum Patience::verdict_t;
    Patience patience({.stuck_warning_ms = 10, .stuck_limit_ms = 60});
    const std::pair<int64_t, Patience::verdict_t> looks[] = {
        {0, wait}, {9, wait}, {10, warn}, {59, wait}, {3, wait}, {12, warn}, {60, give_up}};
    for (const auto& [held_up_ms, verdict] : looks) EXPECT_EQ(patience.look(held_up_ms), verdict);
}

TEST(SupervisedSibling, ALaterStopRequestMovesTheDeadline) {
    SupervisedSibling sibling({"sleeper", queues::queue_t::extra, "/bin/sleep", {}, 4096, true},
                              RestartLimits{}, PatienceLimits{});
    sibling.start({.program = "/bin/sleep", .arguments = {"600"}}, 0);
    sibling.request_stop(10);
    sibling.request_stop(20);
    EXPECT_EQ(sibling.next_deadline_ms(), 20);
    sibling.kill_now();
    EXPECT_EQ(sibling.ended(30), "signal 9 (Killed)");
    EXPECT_EQ(sibling.state(), SupervisedSibling::state_t::stopped);
}

TEST(VariableStore, KeepsValuesAcrossReopenAndOnlyForTheOwner) {
    const support::TempDir dir;
    const std::string path = dir.file("variables.json");
    {
        VariableStore store(path);
        EXPECT_TRUE(store.values().empty());
        store.store({{"last_ring_seq", "17"}, {"text", "a \"quoted\"\nline"}});
        store.store({{"last_ring_seq", "18"}});
    }
    const VariableStore again(path);
    EXPECT_EQ(again.values(),
              (VariableStore::Values{{"last_ring_seq", "18"}, {"text", "a \"quoted\"\nline"}}));
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

TEST(VariableStore, DamagedFileIsRefusedAndFailedWriteKeepsOldValues) {
    const support::TempDir dir;
    const std::string path = dir.file("variables.json");
    for (const char* text : {"", "{", "[]", R"({"a": 1})"}) {
        std::ofstream(path, std::ios::trunc) << text;
        EXPECT_THROW(VariableStore{path}, error::EFatal) << text;
    }
    std::filesystem::remove(path);
    VariableStore store(path);
    store.store({{"a", "1"}});
    std::filesystem::create_directory(path + ".new");
    EXPECT_THROW(store.store({{"a", "2"}}), error::ESystemError);
    EXPECT_EQ(store.values().at("a"), "1");
    EXPECT_THROW(store.store({{"b", "\xff"}}), error::Exception);
    EXPECT_FALSE(store.values().contains("b"));
}

TEST(InstanceLock, TakesADirectoryForItselfUnlessItIsOthersToo) {
    const support::TempDir dir;
    const std::string made = dir.file("made");
    struct stat info {};
    {
        const platform::Fd lock = take_instance_lock(made + "/fifo");
        ASSERT_EQ(::stat(made.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0700U);
        EXPECT_THROW((void)take_instance_lock(made + "/fifo"), error::EFatal);
    }
    const std::string shared = dir.file("shared");
    std::filesystem::create_directory(shared);
    ASSERT_EQ(::chmod(shared.c_str(), 01777), 0);
    EXPECT_THROW((void)take_instance_lock(shared + "/fifo"), error::EFatal);
    ASSERT_EQ(::stat(shared.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 01777U);
}

}  // namespace
}  // namespace mainprocess
