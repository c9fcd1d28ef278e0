// The family's log files: their lines, how they follow each other, and a disk that takes no more.
#include "main/log_files.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "main/log_line.h"
#include "support/fake_clock.h"
#include "support/temp_dir.h"

namespace mainprocess {
namespace {

using testing::HasSubstr;
namespace fs = std::filesystem;

constexpr int64_t kTime_s = 1'700'000'000;  // 2023-11-14 22:13:20 UTC

class LogFilesTest : public testing::Test {
  protected:
    LogFilesTest() {
        set_zone("UTC");
        testing::internal::CaptureStderr();
    }
    ~LogFilesTest() override {
        if (!terminal_taken_) (void)terminal();
        set_zone("UTC");
    }
    static void set_zone(const char* zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    std::string terminal() {
        terminal_taken_ = true;
        return testing::internal::GetCapturedStderr();
    }
    [[nodiscard]] std::string read(const std::string& name) const {
        std::ostringstream text;
        text << std::ifstream(dir.file(name)).rdbuf();
        return text.str();
    }
    [[nodiscard]] std::set<std::string> names() const {
        std::set<std::string> found;
        for (const auto& entry : fs::directory_iterator(dir.path()))
            found.insert(entry.path().filename().string());
        return found;
    }

    support::TempDir dir;
    support::FakeClock clock{kTime_s};

  private:
    bool terminal_taken_ = false;
};

TEST_F(LogFilesTest, LinesSayWhenWhoAndHowBad) {
    LogFiles log(dir.file("new/folder"), {}, clock);
    clock.advance_us(45'678);
    log.write("dbms", "  [dbcache] [warning] two\nlines]\x1b[2J\r");
    set_zone("<+0545>-5:45");
    log.write("main", "stderr", logging::level_t::error, "last [words]");
    const std::string first =
        "2023-11-14T22:13:20.045+00:00 dbms   [dbcache] [warning] two\\nlines]\\x1b[2J\\x0d\n";
    const std::string second = "2023-11-15T03:58:20.045+05:45 main [stderr] [error] last [words]\n";
    EXPECT_EQ(read("new/folder/tarmik-dbms.log"), first);
    EXPECT_EQ(read("new/folder/tarmik-main.log"), second);
    EXPECT_EQ(terminal(), first + second);
    for (const std::string& line : {first, second}) {
        const auto head = parse_log_line(line);
        ASSERT_TRUE(head) << line;
        EXPECT_EQ(head->time_ms, kTime_s * 1000 + 45);
    }
    EXPECT_EQ(parse_log_line(first)->level, logging::level_t::warning);
    EXPECT_EQ(parse_log_line(second)->level, logging::level_t::error);
    for (const char* none : {"", "2023-11-14", "2023-11-14T22:13:20.045+00:00",
                             "2023-11-14 22:13:20.045+00:00 dbms [a] [info] b"})
        EXPECT_FALSE(parse_log_line(none)) << none;
    EXPECT_EQ(parse_log_line("2023-11-14T22:13:20.045+00:00 dbms")->level, logging::level_t::info);
}

TEST_F(LogFilesTest, AFullFileMakesRoomAndTheOldestGoes) {
    const std::string words(50, 'x');
    const size_t line_bytes = std::string("2023-11-14T22:13:20.000+00:00 dbms \n").size() + 50;
    LogFiles log(dir.file(""), {.file_bytes = 2 * line_bytes, .files_kept = 2, .days_kept = 0},
                 clock);
    for (char i = '0'; i < '9'; ++i) {
        log.write("dbms", std::string(1, i) + words.substr(1));
        log.write("wapi", "short");
    }
    EXPECT_THAT(read("tarmik-dbms.log"), HasSubstr(" 8x"));
    EXPECT_THAT(read("tarmik-dbms.log.1"), HasSubstr(" 7x"));
    EXPECT_THAT(read("tarmik-dbms.log.1"), HasSubstr(" 6x"));
    EXPECT_THAT(read("tarmik-dbms.log.2"), HasSubstr(" 5x"));
    EXPECT_FALSE(fs::exists(dir.file("tarmik-dbms.log.3")));
    const std::string longer(5 * line_bytes, 'y');  // than a file: it stands alone
    log.write("dbms", longer);
    EXPECT_EQ(read("tarmik-dbms.log").size(), line_bytes - 50 + longer.size());
    // By somebody else.
    fs::remove(dir.file("tarmik-dbms.log"));
    log.write("dbms", "removed");
    EXPECT_THAT(read("tarmik-dbms.log"), HasSubstr("removed"));
    fs::rename(dir.file("tarmik-dbms.log"), dir.file("aside"));
    log.write("dbms", "renamed");
    EXPECT_THAT(read("tarmik-dbms.log"), HasSubstr("renamed"));
}

TEST_F(LogFilesTest, OldFilesGoWhenADayBeginsAndNothingElseDoes) {
    const std::set<std::string> old_names{"tarmik-dbms.log.1", "tarmik-dbms.log.12"};
    const std::set<std::string> others{
        "tarmik-dbms.log", "tarmik-dbms.log.x",  "tarmik-.log.1",       "tarmik-a-b.log.1",
        "other.log.1",     "tarmik-dbms.log.01", "tarmik-dbms.log.1.gz"};
    const auto make = [&](const std::string& name) {
        std::ofstream(dir.file(name)) << "kept?\n";
        const timespec times[2] = {{kTime_s, 0}, {kTime_s, 0}};
        ::utimensat(AT_FDCWD, dir.file(name).c_str(), times, 0);
    };
    for (const std::string& name : old_names) make(name);
    for (const std::string& name : others) make(name);
    LogFiles log(dir.file(""), {.file_bytes = 4096, .files_kept = 99, .days_kept = 2}, clock);
    clock.advance_s(2 * 86'400);
    log.write("main", "two days later");
    for (const std::string& name : old_names) EXPECT_TRUE(names().contains(name)) << name;
    clock.advance_s(86'400);
    log.write("main", "three days later");
    for (const std::string& name : old_names) EXPECT_FALSE(names().contains(name)) << name;
    for (const std::string& name : others) EXPECT_TRUE(names().contains(name)) << name;
}

TEST_F(LogFilesTest, AFullDiskStopsNobodyAndTheFileSaysWhatIsMissing) {
    ::signal(SIGXFSZ, SIG_IGN);
    std::ofstream(dir.file("tarmik-dbms.log"))
        << std::string(10'000, 'h');  // as a killed process leaves it
    LogFiles log(dir.file(""), {}, clock);
    log.write("dbms", "one");
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit little{10'100, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &little);
    for (int i = 0; i < 3; ++i) log.write("dbms", std::string(90, 'z'));
    ::setrlimit(RLIMIT_FSIZE, &before);
    log.write("dbms", "two");
    EXPECT_THAT(read("tarmik-dbms.log"),
                testing::MatchesRegex("h+\n[^\n]* dbms one\n[^\n]*zzz\n[^\n]* dbms "
                                      "\\[log\\] \\[warning\\] 3 lines could not be written "
                                      "here\n[^\n]* dbms two\n"));
    const std::string shown = terminal();
    EXPECT_THAT(shown, HasSubstr("main [log] [error] cannot write the log file " + dir.file("") +
                                 "/tarmik-dbms.log: File too large"));
    EXPECT_EQ(shown.find("cannot write"), shown.rfind("cannot write")) << "said once";
}

}  // namespace
}  // namespace mainprocess
