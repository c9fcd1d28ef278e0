#include <algorithm>
#include <array>
#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

#include "platform/clock.h"
#include "platform/random.h"
#include "platform/regex.h"
#include "support/fake_clock.h"

namespace {

TEST(SystemClock, NeverGoesBackAndHoldsItsRange) {
    const platform::SystemClock clock;
    uint64_t last = clock.monotonic_us();
    for (int i = 0; i < 1000; ++i) {
        const uint64_t now = clock.monotonic_us();
        ASSERT_GE(now, last);
        last = now;
        ASSERT_LT(clock.wall().microseconds, 1000000);
    }
    EXPECT_GT(clock.wall().seconds, 1700000000);
}

TEST(Random, DrawsSixteenBitsForTwoBytes) {
    platform::Random whole(42);
    platform::Random odd(42);
    std::array<uint8_t, 4> four{};
    std::array<uint8_t, 3> three{};
    whole.random_fill(four);
    odd.random_fill(three);
    ::srand(42);
    const auto first = static_cast<unsigned>(::rand());
    const auto second = static_cast<unsigned>(::rand());
    EXPECT_EQ(four, (std::array<uint8_t, 4>{
                        static_cast<uint8_t>(first), static_cast<uint8_t>(first >> 8),
                        static_cast<uint8_t>(second), static_cast<uint8_t>(second >> 8)}));
    EXPECT_TRUE(std::equal(three.begin(), three.end(), four.begin()));
    // The odd byte used up its draw: both go on alike.
    EXPECT_EQ(whole.next_u32(), odd.next_u32());
}

TEST(Random, SeedsFromProcessAndTime) {
    const support::FakeClock clock(123456789);
    platform::Random seeded(clock);
    platform::Random same(static_cast<uint32_t>(::getpid()) ^ 123456789U);
    EXPECT_EQ(seeded.next_u32(), same.next_u32());
}

TEST(SystemEntropy, FillsEveryByte) {
    // More than one call of the system gives at a time. A byte that stays 0 through ten rounds was
    // not filled.
    std::vector<uint8_t> seen(600);
    for (int round = 0; round < 10; ++round) {
        std::vector<uint8_t> bytes(600);
        platform::system_entropy(bytes);
        for (size_t i = 0; i < bytes.size(); ++i) seen[i] |= bytes[i];
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 0), 0);
}

TEST(Regex, FindsTheLeftmostMatchWithItsGroups) {
    const platform::Regex regex("(a|x)(b)?c+");
    const auto found = regex.search("..xccd");
    ASSERT_TRUE(found.has_value());
    ASSERT_EQ(found->size(), 3U);
    EXPECT_EQ((*found)[0].start, 2U);
    EXPECT_EQ((*found)[0].end, 5U);
    EXPECT_TRUE((*found)[1].matched);
    EXPECT_FALSE((*found)[2].matched);
    EXPECT_FALSE(regex.matches("abd"));
    EXPECT_TRUE(platform::Regex("^2..").matches("200"));
    EXPECT_TRUE(platform::Regex("b$").matches(std::string_view("a\0b", 3)));
    EXPECT_TRUE(platform::Regex("").matches(""));
}

/// What would take all memory or the whole stack to compile is refused before; all else passes.
TEST(Regex, IsRefusedWhenItComesToTooMuch) {
    const auto times = [](size_t count, const std::string& piece) {
        std::string text;
        for (size_t i = 0; i < count; ++i) text += piece;
        return text;
    };
    const struct {
        const char* name;
        std::string pattern;
        bool fits;
    } rows[] = {
        {"long text", times(4000, "a"), true},
        {"longer text", times(20'000, "a"), false},
        {"repetition", "(a{1,255}){1,15}", true},
        {"repetition of repetitions", "((a{1,255}){1,255}){1,255}", false},
        {"row of repetitions", "a{100}{100}{100}{100}", false},
        {"open repetitions", "((((a{20,}){20,}){20,}){20,}){20,}", false},
        {"copies of copies", times(150, "(") + "a" + times(150, ")+"), false},
        {"deep groups", times(100, "(") + "a" + times(100, ")"), true},
        {"deeper groups", times(100'000, "(") + "a" + times(100'000, ")"), false},
        {"groups that stay open", times(100'000, "("), false},
        {"brackets", times(500, "[]({][^](][[:alpha:]({]"), true},
        {"bracket with repetition", "([]){1,9}]{255}){255}", false},
        {"escaped", times(2000, "\\(\\{"), true},
        {"choices", times(1500, "(a|b)?"), true},
        {"empty choices", times(4000, "|"), true},
        {"signs in a row", times(4000, "a*"), true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        try {
            const platform::Regex regex(row.pattern);
            EXPECT_TRUE(row.fits);
        } catch (const platform::ERegex& e) {
            EXPECT_FALSE(row.fits) << e.text();
            EXPECT_EQ(e.text(), "Regular expression too big");
        }
    }
}

TEST(Regex, RefusesWithTheSystemsMessage) {
    for (const char* wrong : {"(", "[a", "a{2,1}", "*("}) {
        try {
            const platform::Regex regex{wrong};
            ADD_FAILURE() << wrong;
        } catch (const platform::ERegex& e) {
            EXPECT_FALSE(e.text().empty()) << wrong;
            EXPECT_LE(e.text().size(), 79U) << wrong;
        }
    }
    EXPECT_THROW(platform::Regex(std::string("a\0b", 3)), platform::ERegex);
}

}  // namespace
