// The family's log files read while they are written and rotated.
#include "tarmik/log_reader.h"

#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>

#include "main/log_files.h"
#include "support/fake_clock.h"
#include "support/rng.h"
#include "support/temp_dir.h"
#include "tarmik/api_client.h"

namespace {

std::string words(const cli::LogEntry& entry) {
    return entry.line.substr(entry.line.find(' ') + 1);
}

TEST(LogReader, GivesEveryLineOnceInTheOrderOfTimeWhateverIsRotated) {
    const support::TempDir dir;
    support::FakeClock clock;
    mainprocess::LogFiles log(dir.file(""), {.file_bytes = 300, .files_kept = 50, .days_kept = 0},
                              clock);
    cli::LogReader reader(dir.file(""), "");
    support::Rng rng(7);
    testing::internal::CaptureStderr();
    std::vector<std::string> written;
    std::vector<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        clock.advance_us(1000);
        const std::string process = rng.below(3) == 0 ? "main" : "dbms";
        const std::string text = fmt::format("[a] [info] {}", i);
        log.write(process, text);
        written.push_back(process + " " + text);
        if (rng.below(40) != 0) continue;
        reader.look_for_processes();
        while (const auto entry = reader.next()) seen.push_back(words(*entry));
    }
    reader.look_for_processes();
    while (const auto entry = reader.next()) seen.push_back(words(*entry));
    (void)testing::internal::GetCapturedStderr();
    EXPECT_EQ(seen, written);
}

TEST(LogReader, HoldsBackHalfALineAndShowsWhatIsNoEntry) {
    const support::TempDir dir;
    const std::string path = dir.file("tarmik-dbms.log");
    const auto append = [&](const std::string& text) {
        std::ofstream(path, std::ios::app) << text;
    };
    const std::string time = "2026-11-23T09:52:00.123+01:00 ";
    append(time + "dbms [a] [warning] one\nnothing\n" + time + "dbms [a] [in");
    std::ofstream(dir.file("other.log")) << time + "other [a] [info] one\n";
    cli::LogReader reader(dir.file(""), "");
    reader.look_for_processes();
    EXPECT_EQ(words(*reader.next()), "dbms [a] [warning] one");
    const auto odd = reader.next();
    EXPECT_EQ(odd->line, "nothing");
    EXPECT_EQ(odd->head.level, logging::level_t::warning) << "that of the entry before";
    EXPECT_FALSE(reader.next());
    append("fo] two\n");
    EXPECT_EQ(words(*reader.next()), "dbms [a] [info] two");
    EXPECT_FALSE(reader.next());
    cli::LogReader nobody(dir.file(""), "wapi");
    nobody.look_for_processes();
    EXPECT_TRUE(nobody.empty());
    cli::LogReader nowhere(dir.file("missing"), "");
    EXPECT_THROW(nowhere.look_for_processes(), cli::CommandError);
}

}  // namespace
