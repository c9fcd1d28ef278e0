// The stored forms of readings: whole, short where they are usual, and never read where cut off.
#include "tsdb/reading.h"

#include <gtest/gtest.h>

#include "support/rng.h"
#include "tsdb/failures.h"

namespace tsdb {
namespace {

constexpr int64_t kSlot = 1'700'000'040;

std::string bytes(std::initializer_list<uint8_t> values) {
    return {values.begin(), values.end()};
}

TEST(Reading, HasTheFormsThatFilesHold) {
    const Reading one{.start = kSlot + 5,
                      .end = kSlot + 205,
                      .min = 1.5,
                      .max = 1.5,
                      .avg = 1.5,
                      .mask = 0,
                      .ngood = 1};
    const std::string usual = bytes({0x0F, 5, 0xC8, 0x01, 0, 0, 0xC0, 0x3F});
    EXPECT_EQ(encode(one, continuous, kSlot), usual);
    EXPECT_EQ(decode(usual, continuous, kSlot), one);
    const Reading failed{.start = kSlot, .end = kSlot, .nbad = 1};
    EXPECT_EQ(encode(failed, uptime, kSlot), bytes({0x14, 0, 0, 0, 1}));
    const Reading states{.start = kSlot, .end = kSlot, .mask = 9, .ngood = 3};
    EXPECT_EQ(encode(states, enumerated, kSlot), bytes({0x02, 0, 0, 3, 9}));
    const std::string full =
        bytes({5, 0, 0,    0,    200, 0, 0,    0,    1, 0, 0, 0, 0, 0, 0,    0,  //
               0, 0, 0xC0, 0x3F, 0,   0, 0xC0, 0x3F, 0, 0, 0, 0, 0, 0, 0xF8, 0x3F});
    EXPECT_EQ(decode(full, continuous, kSlot), one) << "of older files";
}

TEST(Reading, ComesBackAsItWas) {
    constexpr uint64_t kSeed = 20;
    SCOPED_TRACE(kSeed);
    support::Rng rng(kSeed);
    const auto number = [&] { return static_cast<uint32_t>(rng.next() >> rng.below(64)); };
    for (int round = 0; round < 20'000; ++round) {
        Reading reading;
        reading.start = kSlot + number();
        reading.end = reading.start + number();
        reading.ngood = rng.below(3) == 0 ? 1 : number();
        reading.nbad = rng.below(2) == 0 ? 0 : number();
        const uint32_t type = rng.below(3) == 0 ? enumerated : continuous;
        if (type == enumerated) {
            reading.mask = number();
        } else if (rng.below(4) != 0) {
            reading.min = static_cast<float>(number()) / 7 - 1;
            reading.max = rng.below(2) == 0 ? reading.min : static_cast<float>(number()) / 3;
            reading.avg = rng.below(2) == 0 ? double{reading.min} : number() / 11.0;
        }
        const std::string form = encode(reading, type, kSlot);
        ASSERT_EQ(decode(form, type, kSlot), reading);
        const size_t full = type == enumerated ? 20 : 32;
        ASSERT_LE(form.size(), full);
        if (form.size() == full) continue;
        for (size_t size = 0; size < form.size(); ++size)
            ASSERT_THROW((void)decode(form.substr(0, size), type, kSlot), EDamaged);
    }
    EXPECT_THROW((void)decode(bytes({0x20, 0, 0}), continuous, kSlot), EDamaged);
    EXPECT_THROW((void)decode(std::string(33, '\0'), continuous, kSlot), EDamaged);
}

}  // namespace
}  // namespace tsdb
