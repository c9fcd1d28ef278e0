#include "util/text.h"

#include <cmath>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "util/marl.h"

namespace {

/// The text of the parse error that `work` throws; "no error" if it throws none.
template <class Work>
std::string fault(Work&& work) {
    try {
        work();
    } catch (const error::EParseError& e) {
        return e.text();
    }
    return "no error";
}

/// Writes down what the parser meets.
class Trace : public marl::MarlConversion {
  public:
    std::string seen;

  private:
    void open_b() override { seen += "+b "; }
    void open_i() override { seen += "+i "; }
    void open_u() override { seen += "+u "; }
    void close_b() override { seen += "-b "; }
    void close_i() override { seen += "-i "; }
    void close_u() override { seen += "-u "; }
    void rule() override { seen += "hr "; }
    void link(std::string_view url) override { seen += "link(" + std::string(url) + ") "; }
    void line_feed() override { seen += "lf "; }
    void text_run(std::size_t start, std::size_t end) override {
        seen += std::to_string(start) + "-" + std::to_string(end) + " ";
    }
};

TEST(Markup, ReadsOrNamesTheFirstFault) {
    const struct {
        const char* text;
        const char* fault;
        const char* seen;
    } rows[] = {
        {"", "no error", ""},
        {"plain > text", "no error", "0-12 "},
        {"a\rb\nc", "no error", "0-1 2-3 lf 4-5 "},
        {"<b>x<i>y</i></b><u></u>", "no error", "+b 3-4 +i 7-8 -i -b +u -u "},
        {"<b><i></b></i>", "Mismatched tags", "+b +i "},
        {"</b>", "Mismatched tags", ""},
        {"</>", "Mismatched tags", ""},
        {"<b>", "Unterminated b-tag", "+b "},
        {"<b><u>", "Unterminated u-tag", "+b +u "},
        {"<hr><hr \t >", "no error", "hr hr "},
        {"<hr/>", "Improperly terminated tag", "hr "},
        {"</hr>", "Mismatched tags", ""},
        {"<b", "Improperly terminated tag", "+b "},
        {"<link url='a'>", "no error", "link(a) "},
        {"<link url = \"it's\" >", "no error", "link(it's) "},
        {"<linkurl='a'>", "Unrecognized tag: linkurl", ""},
        {"</link>", "Mismatched tags", ""},
        {"<link>", "Unrecognized attribute to <link>: ", ""},
        {"<link href='a'>", "Unrecognized attribute to <link>: href", ""},
        {"<link url 'a'>", "Expected = after url", ""},
        {"<link url=", "Expected \" after =", ""},
        {"<link url=a>", "Expected \" after =", ""},
        {"<link url='a>", "Improperly quoted attribute", "link(a>) "},
        {"<link url='a' x>", "Improperly terminated tag", "link(a) "},
        {"<", "Unrecognized tag: ", ""},
        {"< b>", "Unrecognized tag: ", ""},
        {"<B>", "Unrecognized tag: B", ""},
        {"x&amp;", "& (ampersand) not allowed", "0-1 "},
    };
    for (const auto& row : rows) {
        Trace trace;
        EXPECT_EQ(fault([&] { trace.parse(row.text); }), row.fault) << row.text;
        EXPECT_EQ(trace.seen, row.seen) << row.text;
    }
}

TEST(Markup, TakesAnyBytesAndAnyDepth) {
    marl::MarlConversion check;
    check.parse(std::string("\0\xFF\x80", 3));
    std::string deep;
    for (int i = 0; i < 100000; ++i) deep += "<b>";
    EXPECT_EQ(fault([&] { check.parse(deep); }), "Unterminated b-tag");
}

TEST(Quote, EscapesWhatALogLineCantHold) {
    EXPECT_EQ(util::quote(""), "\"\"");
    EXPECT_EQ(util::quote("\t\"").size(), 6U);
    EXPECT_EQ(util::quote("\a\b\t\n\v\f\r\"'\\"), R"("\a\b\t\n\v\f\r\"\'\\")");
    EXPECT_EQ(util::quote(std::string("\0\x1B\x7F\xC3\xA9", 5)), "\"\\000\\033\x7F\xC3\xA9\"");
}

TEST(ParseNumber, ReadsAsAStreamDoes) {
    EXPECT_EQ(util::parse_number<uint32_t>(" 12"), 12U);
    EXPECT_EQ(util::parse_number<uint32_t>("+12"), 12U);
    EXPECT_EQ(util::parse_number<uint32_t>("-1"), 4294967295U);
    EXPECT_EQ(util::parse_number<int32_t>("-2147483648"), -2147483648);
    EXPECT_EQ(util::parse_number<int32_t>("007"), 7);
    EXPECT_EQ(util::parse_number<uint64_t>("18446744073709551615"), 18446744073709551615U);
}

TEST(ParseNumber, NamesTypeAndText) {
    const auto as_unsigned = [](const char* text) {
        return fault([&] { (void)util::parse_number<uint32_t>(text); });
    };
    EXPECT_EQ(as_unsigned(""), "Cannot parse empty string to unsigned int");
    EXPECT_EQ(as_unsigned("12 "), "Trailing data after unsigned int: \"12 \"");
    EXPECT_EQ(as_unsigned("0x10"), "Trailing data after unsigned int: \"0x10\"");
    EXPECT_EQ(as_unsigned("1,000"), "Trailing data after unsigned int: \"1,000\"");
    EXPECT_EQ(as_unsigned("4294967296"), "Cannot parse unsigned int: \"4294967296\"");
    EXPECT_EQ(as_unsigned(" "), "Cannot parse unsigned int: \" \"");
    EXPECT_EQ(as_unsigned("x"), "Cannot parse unsigned int: \"x\"");
    EXPECT_EQ(fault([] { (void)util::parse_number<int32_t>("2147483648"); }),
              "Cannot parse int: \"2147483648\"");
    EXPECT_EQ(fault([] { (void)util::parse_number<uint64_t>("18446744073709551616"); }),
              "Cannot parse unsigned __int64: \"18446744073709551616\"");
    EXPECT_THROW((void)util::parse_number<int32_t>(""), error::EParseEmptyStringError);
}

TEST(ParseDouble, UsesUpTheWholeText) {
    EXPECT_DOUBLE_EQ(util::parse_double("-1.5e3"), -1500.0);
    EXPECT_TRUE(std::isnan(util::parse_double("nan")));
    EXPECT_EQ(util::parse_double("-inf"), -INFINITY);
    for (const char* wrong : {"1x", "1 ", "x", "1.5.5"})
        EXPECT_EQ(fault([&] { (void)util::parse_double(wrong); }),
                  "Error parsing: \"" + std::string(wrong) + "\"");
    EXPECT_THROW((void)util::parse_double(std::string_view("1\0", 2)), error::EParseError);
}

TEST(ParseIp, TakesFourPieces) {
    EXPECT_EQ(util::parse_ip("192.168.1.2"), 0xC0A80102U);
    EXPECT_EQ(util::parse_ip("256.1.1.1"), 0x00010101U);
    EXPECT_EQ(util::parse_ip(".1..2.3.4."), 0x01020304U);
    EXPECT_EQ(fault([] { (void)util::parse_ip("1.2.3"); }), "Malformed IP address: \"1.2.3\"");
    EXPECT_EQ(fault([] { (void)util::parse_ip("1.2.3.4.5"); }),
              "Malformed IP address: \"1.2.3.4.5\"");
    EXPECT_EQ(fault([] { (void)util::parse_ip("1.2.3.x"); }), "Cannot parse unsigned int: \"x\"");
}

TEST(Split, KeepsOrDropsEmptyPieces) {
    using Pieces = std::vector<std::string>;
    EXPECT_EQ(util::split(",a,,b,", ',', false), (Pieces{"a", "b"}));
    EXPECT_EQ(util::split(",a,,b,", ',', true), (Pieces{"", "a", "", "b", ""}));
    EXPECT_EQ(util::split("", ',', false), Pieces{});
    EXPECT_EQ(util::split("abc", ',', true), Pieces{"abc"});
}

TEST(NumberText, HoldsAll64Bits) {
    EXPECT_EQ(util::decimal_text(18446744073709551615U), "18446744073709551615");
    EXPECT_EQ(util::hex_text(0xABCDEF0123456789U), "ABCDEF0123456789");
    EXPECT_EQ(util::hex_text(0x1F, 20), "0000000000000000001F");
    EXPECT_EQ(util::two_digit_text(5), "05");
    EXPECT_EQ(util::signed_text(-2147483647 - 1), "-2147483648");
}

}  // namespace
