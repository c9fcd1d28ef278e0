#include <array>
#include <gtest/gtest.h>
#include <numeric>
#include <string>
#include <vector>

#include "support/fake_clock.h"
#include "support/rng.h"
#include "util/big_num.h"
#include "util/byte_order.h"
#include "util/crc32.h"
#include "util/node_id.h"
#include "util/text.h"
#include "util/time.h"

namespace {

TEST(ByteOrder, PlacesBytesAtAnyAlignment) {
    std::array<uint8_t, 9> bytes{};
    util::store_be64(&bytes[1], 0x0102030405060708);
    for (uint8_t i = 0; i < 9; ++i) EXPECT_EQ(bytes[i], i);
    EXPECT_EQ(util::load_be16(&bytes[1]), 0x0102);
    EXPECT_EQ(util::load_be32(&bytes[5]), 0x05060708U);
    EXPECT_EQ(util::load_le32(&bytes[5]), 0x08070605U);
    EXPECT_EQ(util::load_be64(&bytes[1]), 0x0102030405060708U);
}

TEST(NodeId, OrdersByFirstWordThenSecondUnsigned) {
    EXPECT_LT((NodeId{0, 0xFFFFFFFF}), (NodeId{1, 0}));
    EXPECT_LT((NodeId{1, 1}), (NodeId{1, 0x80000000}));
    EXPECT_TRUE(NodeId{}.is_null());
    EXPECT_FALSE((NodeId{0, 1}).is_null());
}

TEST(NodeId, ReadsOnlyItsOwnTextForm) {
    EXPECT_EQ(NodeId::parse("0.1"), (NodeId{0, 1}));
    EXPECT_EQ(NodeId::parse("1.4294967295"), (NodeId{1, 4294967295}));
    EXPECT_EQ(fmt::format("{}", NodeId{1, 4294960001}), "1.4294960001");
    EXPECT_THROW((void)NodeId::parse(""), error::EParseEmptyStringError);
    for (const char* wrong :
         {"1", "1.", ".1", "1.2.3", " 1.2", "1.2 ", "-1.2", "1.+2", "1.4294967296", "a.b", "1,2"})
        EXPECT_THROW((void)NodeId::parse(wrong), error::EParseError) << wrong;
}

TEST(Time, PrintsSixDigitsOnBothSidesOfTheEpoch) {
    const struct {
        Time time;
        const char* text;
    } rows[] = {
        {Time(12, 5), "12.000005"},     {Time(0), "0.000000"},
        {Time(5, 2500000), "7.500000"}, {Time(-2, 500000), "-1.500000"},
        {Time(-3), "-3.000000"},        {Time(-1, 999999), "-0.000001"},
        {Time(-2, 1), "-1.999999"},     {Time::far_future(), "2147483647.000000"},
    };
    for (const auto& row : rows) EXPECT_EQ(row.time.to_string(), row.text);
}

TEST(Time, KeepsMicrosecondsInRange) {
    EXPECT_EQ(Time(1) - Time(1, 1), Time(-1, 999999));
    EXPECT_EQ(Time(1, 999999) + Time(0, 1), Time(2));
    EXPECT_EQ(Time(-2, 500000) + Time(1, 600000), Time(0, 100000));
    EXPECT_EQ(Time(3) * 0.5, Time(1, 500000));
    EXPECT_EQ(Time(3) * -0.5, Time(-2, 500000));
    EXPECT_EQ(Time(2147483647) * 2.0, Time(2147483647));
    EXPECT_DOUBLE_EQ(Time(-2, 500000).as_double(), -1.5);
    EXPECT_LT(Time(-2, 999999), Time(-1));
    EXPECT_LE(Time(2147483647, 1), Time(2147483647, 2));
    EXPECT_DEATH(Time(0, -1), "Assertion failed: Cannot normalize negative microseconds");
}

TEST(Time, ComesFromTheClockAndFormatsInUtc) {
    support::FakeClock clock(86400);
    clock.advance_us(250000);
    EXPECT_EQ(Time::now(clock), Time(86400, 250000));
    EXPECT_EQ(Time::now(clock).format("%Y-%m-%d %H:%M:%S", Time::zone_t::utc),
              "1970-01-02 00:00:00");
    EXPECT_EQ(Time(0).format("", Time::zone_t::utc), "");
    EXPECT_EQ(Time(0).format(std::string(1100, 'x').c_str(), Time::zone_t::utc), "");
    clock.set_wall(-2, 0);
    clock.advance_us(1);
    EXPECT_EQ(Time::now(clock), Time(-2, 1));
}

std::vector<uint8_t> big_endian_of(const BigNum& number) {
    std::vector<uint8_t> bytes(number.byte_length());
    EXPECT_EQ(number.bn_get_data(bytes), bytes.size());
    return bytes;
}

TEST(BigNum, PrintsKnownValuesInDecimal) {
    BigNum two_to_128(1);
    two_to_128.shift_left(128);
    BigNum padded(1);  // the chunk below the top one is all zeros
    for (int i = 0; i < 4; ++i)
        padded =
            padded + padded + padded + padded + padded + padded + padded + padded + padded + padded;
    const std::vector<uint8_t> billion = {0, 0, 0x3B, 0x9A, 0xCA, 0x00};
    const struct {
        BigNum number;
        const char* text;
    } rows[] = {
        {BigNum(), "0"},
        {BigNum(uint32_t{0}), "0"},
        {BigNum(4294967295U), "4294967295"},
        {BigNum(4294967295U) + BigNum(1U), "4294967296"},
        {BigNum(std::span<const uint8_t>(billion)), "1000000000"},
        {padded, "10000"},
        {two_to_128, "340282366920938463463374607431768211456"},
    };
    for (const auto& row : rows) EXPECT_EQ(row.number.to_decimal(), row.text);
}

TEST(BigNum, KeepsTheTwoByteOrdersApart) {
    const BigNum from_string(std::string_view("\x01\x02\x00", 3));
    EXPECT_EQ(from_string.to_decimal(), "513");
    EXPECT_EQ(from_string.to_bytes(4), std::string("\x01\x02\x00\x00", 4));
    EXPECT_EQ(from_string.to_bytes(0), "\x01\x02");
    EXPECT_EQ(big_endian_of(from_string), (std::vector<uint8_t>{2, 1}));
    EXPECT_EQ(BigNum().to_bytes(3), std::string(3, '\0'));
    EXPECT_EQ(BigNum(std::string_view("")).length(), 0U);
}

TEST(BigNum, WritesDataToTheStartOfTheBuffer) {
    std::array<uint8_t, 8> buffer;
    buffer.fill(0xEE);
    EXPECT_EQ(BigNum(1U).bn_get_data(buffer), 1U);
    EXPECT_EQ(buffer, (std::array<uint8_t, 8>{1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(BigNum().bn_get_data(buffer), 0U);
    EXPECT_EQ(buffer[0], 0);
    BigNum wide(1U);
    wide.shift_left(64);
    EXPECT_DEATH(wide.bn_get_data(buffer),
                 "Assertion failed: Buffer given to bn_get_data is too small \\(wanted 9\\)");
}

TEST(BigNum, CopiesShareUntilOneChanges) {
    BigNum source(7U);
    BigNum copy = source;
    EXPECT_EQ(source.share_count(), 2U);
    copy.shift_left(40);
    EXPECT_EQ(source.share_count(), 1U);
    EXPECT_EQ(source, BigNum(7U));
    BigNum divided = source;
    EXPECT_EQ(divided.divide_small(4), 3U);
    EXPECT_EQ(source, BigNum(7U));
    EXPECT_EQ(divided, BigNum(1U));
    BigNum& self = source;
    source = self;
    EXPECT_EQ(source.share_count(), 1U);
    EXPECT_EQ(source, BigNum(7U));
    copy.resize(9);
    EXPECT_EQ(copy.length(), 2U);
    EXPECT_DEATH(copy.resize(1), "Assertion failed: Bad reallocation in BigNum");
}

TEST(BigNum, AgreesWith128BitArithmetic) {
    __extension__ using u128 = unsigned __int128;
    const auto make = [](u128 value) {
        std::string bytes;
        for (; value != 0; value >>= 8) bytes.push_back(static_cast<char>(value & 0xFF));
        return BigNum(std::string_view(bytes));
    };
    support::Rng rng(20261122);
    for (int step = 0; step < 20000; ++step) {
        SCOPED_TRACE(testing::Message() << "seed 20261122 step " << step);
        const auto random = [&] {
            return ((u128{rng.next()} << 64) | rng.next()) >> rng.below(128) >> 1;
        };
        const u128 a = random();
        const u128 b = random();
        ASSERT_EQ(make(a) + make(b), make(a + b));
        ASSERT_EQ(make(a) < make(b), a < b);
        ASSERT_EQ(make(a) > make(b), a > b);
        const size_t bits = rng.below(128);
        BigNum shifted = make(a);
        shifted.shift_right(bits);
        ASSERT_EQ(shifted, make(a >> bits));
        shifted.shift_left(bits);
        ASSERT_EQ(shifted, make(a >> bits << bits));
        const auto divisor = static_cast<uint32_t>(rng.below(0xFFFFFFFF) + 1);
        BigNum quotient = make(a);
        ASSERT_EQ(quotient.divide_small(divisor), static_cast<uint32_t>(a % divisor));
        ASSERT_EQ(quotient, make(a / divisor));
        const std::vector<uint8_t> data = big_endian_of(make(a));
        ASSERT_EQ(BigNum(std::span<const uint8_t>(data)), make(a));
    }
}

uint32_t crc_of(std::string_view text) {
    security::Crc32 crc;
    crc.update(text.size(), text.data());
    return crc.value();
}

TEST(Crc32, GivesTheKnownChecksums) {
    EXPECT_EQ(crc_of("abc"), 0x352441C2U);
    EXPECT_EQ(crc_of("123456789"), 0xCBF43926U);
    EXPECT_EQ(crc_of(""), 0U);
    EXPECT_EQ(crc_of(std::string(32, '\0')), 0x190A55ADU);
    EXPECT_EQ(crc_of("The quick brown fox jumps over the lazy dog"), 0x414FA339U);
}

TEST(Crc32, AnySplitGivesTheSameAndACopyTakesTheStateBack) {
    std::vector<uint8_t> data(5000);
    std::iota(data.begin(), data.end(), uint8_t{0});
    security::Crc32 whole;
    whole.update(data.size(), data.data());
    for (const size_t cut :
         {size_t{0}, size_t{1}, size_t{7}, size_t{2500}, data.size() - 1, data.size()}) {
        security::Crc32 parts;
        parts.update(cut, data.data());
        const security::Crc32 saved = parts;
        parts.update_byte(0x55);
        parts = saved;
        parts.update(0, nullptr);
        parts.update(data.size() - cut, data.data() + cut);
        EXPECT_EQ(parts.value(), whole.value()) << cut;
    }
    std::array<uint8_t, 4> digest{};
    whole.reset();
    for (const char letter : {'a', 'b', 'c'}) whole.update_byte(static_cast<uint8_t>(letter));
    whole.final(digest.data());
    EXPECT_EQ(digest, (std::array<uint8_t, 4>{0x35, 0x24, 0x41, 0xC2}));
}

}  // namespace
