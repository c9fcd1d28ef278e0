#include "log/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "error/exception.h"
#include "log/channels.h"

namespace {

using logging::level_t;
using testing::ElementsAre;

/// Collects what reaches the outlet.
struct Collector {
    std::vector<std::string> lines;
    std::vector<level_t> levels;
    logging::OutletScope scope{[this](level_t level, std::string_view line) {
        levels.push_back(level);
        lines.emplace_back(line);
    }};
};

class Log : public testing::Test {
  protected:
    void TearDown() override { logging::set_all_levels(level_t::info); }
};

TEST_F(Log, FormsTheLineAndKeepsTheLevel) {
    const logging::Logger logger("dbcache");
    Collector out;
    logger.warning("{} of {}", 1, 2);
    logger.debug("hidden");
    {
        const logging::Block outer;
        const logging::Block inner;
        logger.error("deep");
    }
    logger.critical("{{}}");
    EXPECT_THAT(out.lines, ElementsAre("[dbcache] [warning] 1 of 2", "    [dbcache] [error] deep",
                                       "[dbcache] [critical] {}"));
    EXPECT_THAT(out.levels, ElementsAre(level_t::warning, level_t::error, level_t::critical));
}

TEST_F(Log, GoesToTheErrorStreamWithoutAnOutlet) {
    const logging::Logger logger("dbms");
    testing::internal::CaptureStderr();
    logger.info("early");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Log: [dbms] [info] early\n");
}

TEST_F(Log, AnOutletThatLogsOrThrowsLosesNothingAndDoesNotRecurse) {
    const logging::Logger logger("dbms");
    testing::internal::CaptureStderr();
    {
        const logging::OutletScope talkative([&](level_t, std::string_view) {
            logger.error("from the outlet");
            throw error::Exception("peer gone");
        });
        logger.info("first");
        logger.info("second");
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Log: [dbms] [error] from the outlet\nLog: [dbms] [info] first\n"
              "Log: [dbms] [error] from the outlet\nLog: [dbms] [info] second\n");
}

TEST_F(Log, OutletsComeBackInReverseOrder) {
    const logging::Logger logger("dbms");
    Collector outer;
    {
        Collector inner;
        logger.info("one");
        EXPECT_EQ(inner.lines.size(), 1U);
    }
    logger.info("two");
    EXPECT_THAT(outer.lines, ElementsAre("[dbms] [info] two"));
}

TEST_F(Log, LevelsFromOutside) {
    const logging::Logger one("level_one");
    const logging::Logger two("level_two");
    Collector out;
    logging::apply_levels({{"level_one", 1}, {"nobody", 1}, {"level_two", 7}, {"", 0}});
    EXPECT_TRUE(one.enabled(level_t::debug));
    EXPECT_FALSE(two.enabled(level_t::debug));
    EXPECT_THAT(out.lines, ElementsAre("[level_one] [debug] Set loglevel to debug"));
    logging::apply_levels({{"*", 4}, {"level_one", 0}});
    EXPECT_FALSE(one.enabled(level_t::warning));
    EXPECT_FALSE(two.enabled(level_t::warning));
    EXPECT_EQ(out.lines.size(), 1U);
    const logging::Logger late("level_late");
    EXPECT_FALSE(late.enabled(level_t::warning));
}

TEST_F(Log, ChannelsHoldOneBitEach) {
    uint64_t all = 0;
    for (const logging::Channel& channel : logging::kChannels) {
        EXPECT_EQ(channel.bit & (channel.bit - 1), 0U) << channel.name;
        all |= channel.bit;
    }
    EXPECT_EQ(all, 0x1FFFFFFFFU);
    EXPECT_EQ(logging::kChannels[1].bit, 2U);
    EXPECT_EQ(logging::log_audit, 2147483648U);
}

}  // namespace
