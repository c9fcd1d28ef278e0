// The query language: what people write, what is printed, that both fit, and what a wrong text is
// told.
#include "tql/query_text.h"

#include <bit>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>

#include "support/rng.h"
#include "tql/enumerations.h"
#include "tql/names.h"
#include "tql/property_kinds.h"

namespace tql {
namespace {

template <class Kind>
condition_t where(uint32_t property, relop_t op, typename Kind::value_type value,
                  uint32_t flags = 0) {
    return {std::make_unique<Kind>(property, std::move(value), flags), op};
}

TEST(QueryText, ReadsWhatPeopleWrite) {
    pattern_t expected(cls::Domain, kPatternRecursive);
    expected.wanted_properties = {prop::name, prop::label};
    expected.where.push_back(where<property_string_t>(prop::name, relop_t::eq, "branch"));
    expected.next.emplace_back(cls::Node, kPatternAllProperties);
    EXPECT_EQ(parse_pattern(R"(Domain*[name,label]{name = "branch"} > Node!)"), expected);
    EXPECT_EQ(parse_pattern("3 *\n[51 , 2100]\t{51=\"branch\"}>4!"), expected);
    EXPECT_EQ(pattern_text(expected), R"(Domain*[name, label]{name = "branch"} > Node!)");
}

// Each text is what the pattern it stands for prints as.
TEST(QueryText, PrintsAsRead) {
    for (
        const char* text : {
            ".",
            "Node*!$#^+0x40@7",
            "78",
            "4000000000[9999]",
            "Domain > Node > Check[id]",
            "Domain > ( Node | Domain*$ > Node : View > ViewEntry | User )",
            "Domain > (  : Node )",
            R"(Node{label isubstr "x" & checkinFrequency >= 30 & warn < -5})",
            R"(Node{id in {"1.2", "1.3"} & alertGroup <> "0.2" & dependsOn <= {} & dependsOn >= {"1.2"}})",
            R"(Node{id in null & id = set:null & id in object:"1.2" & name in null})",
            R"(Node{dependsOn le {"1.2"} & id subset "1.2" & dependsOn intersects {"1.2"@("0.1", "")}})",
            R"(Node{label = "tab\t quote\" back\\ bell\x07 byte\xff å"})",
            "Node{label = null & name = int:null & snmpVersion = enum(65556, null) & id op(99) "
            "null}",
            "Node{snmpVersion = enum(65556, 1) & snmpVersion = uint:1 & type = uint:1 & 9999 = "
            "string:\"\"}",
            "Check{warnIfAbove > 0.5 & warnIfBelow <> -inf & plotMin = nan(0x7ff8000000000000)}",
            "Node{stationLocale = 01:02:03:ff & keyPrime = 255 & lastAcknowledge > -1 & releaseKey "
            "= 0}",
            "MibObject{snmpId = 00:00:00:01, 00:00:00:03 & snmpId = []}",
            R"(Node{copyVersion = "5.1.6" & active = true/0x80000000 & icon = "AAEC" & - ~= null})",
            R"(Check{unit = "kB/s" & unit = blob:"EQ0=" & unit = null})",
            R"(PropertyLayout{unit = "s"} > ReportSendTo{destination = "a", "b" & user = "c"})",
            R"(AlertPath{graphShowMinMax = enum(65564, 1) & graphShowMinMax = bool:true})",
            R"(.{order = 5 & order = int:5 & order = int:null & user = object:"1.2" & type = int:5})",
            R"(Node{alertGroup = "1.2"@("0.1", "1.9", 7) & label = strings:"a", "b" & label = strings:[]})",
        }) {
        EXPECT_EQ(pattern_text(parse_pattern(text)), text);
    }
}

TEST(QueryText, ReadsOtherFormsOfTheSame) {
    const std::pair<const char*, const char*> cases[] = {
        {"Domain>(Node)", "Domain > Node"},
        {"Domain > (Node | Check :)", "Domain > ( Node | Check )"},
        {"Node#$!*[]{}", "Node*!$#"},
        {"Node{name eq \"a\"&name ne \"b\"&name ieq \"c\"}",
         R"(Node{name = "a" & name <> "b" & name ~= "c"})"},
        {"ScoreInfo{status = \"alert\" & status = 12}",
         "ScoreInfo{status = enum(65541, 13) & status = enum(65541, 12)}"},
        {"Node{type = Status:\"Alert\"}", "Node{type = enum(65541, 13)}"},
        {"MibObject{snmpId = 1.3.6}", "MibObject{snmpId = 00:00:00:01, 00:00:00:03, 00:00:00:06}"},
        {"Node{lastAcknowledge > \"1970-01-02\"}", "Node{lastAcknowledge > 86400}"},
        {"Node{9999 = \"a\" & 9999 = 5 & 9999 = 5.5 & 9999 = true}",
         "Node{9999 = string:\"a\" & 9999 = int:5 & 9999 = real:5.5 & 9999 = bool:true}"},
        {"Node{dependsOn subset {\"1.2\"}}", "Node{dependsOn <= {\"1.2\"}}"},
        {"Node{snmpPort = 0x10}", "Node{snmpPort = 16}"},
        {R"(Report{date = "Last week" & goodScore = true & type = "Incidents"})",
         "Report{date = enum(65546, 2) & goodScore = true & type = enum(65566, 2)}"},
        {R"(MonthPlanner{order = 1} > Event)", "MonthPlanner{order = 1} > Event"},
        // Of any class: what the usual kind doesn't take and one other does.
        {R"(.{order = -1 & date = "Yesterday" & destination = "a","b" & user = "1.2"@("", "", 7)})",
         R"(.{order = int:-1 & date = enum(65546, 1) & destination = strings:"a", "b" & )"
         R"(user = object:"1.2"@("", "", 7)})"},
        {R"(.{type = "Incidents" & type = 5 & user = "1.2" & order = -1/8})",
         R"(.{type = enum(65566, 2) & type = int:5 & user = "1.2" & order = int:-1/0x8})"},
        {"PropertyLayout{unit = blob:\"UQERDQ==\"} > QuickLink{icon = unit:\"s\"}",
         "PropertyLayout{unit = unit:\"Hz\"} > QuickLink{icon = \"UQERAQ==\"}"},
    };
    for (const auto& [given, printed] : cases)
        EXPECT_EQ(pattern_text(parse_pattern(given)), printed);
}

TEST(QueryText, ANullBehindInIsASet) {
    const pattern_t read = parse_pattern("Node{id in null & alertGroup in null & id = null}");
    EXPECT_EQ(read.where[0].value->type(), property_type_t::object_set);
    EXPECT_EQ(read.where[1].value->type(), property_type_t::object_set);
    EXPECT_EQ(read.where[2].value->type(), property_type_t::object);
}

TEST(QueryText, TellsWhereAndWhatWasExpected) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "line 1, column 1: expected the name or number of a class, found the end"},
        {"Domian > Node",
         "line 1, column 1: expected the name or number of a class, found \"Domian\""},
        {"Domain > ", "line 1, column 10: expected the name or number of a class, found the end"},
        {"Domain\n  > Node?", "line 2, column 9: expected \">\" or the end, found \"?\""},
        {"Domain[...]", "line 1, column 8: expected the name or number of a property, found \".\""},
        {"Domain[name label]", "line 1, column 13: expected \",\" or \"]\", found \"label\""},
        {"Domain{nmae = 1}",
         "line 1, column 8: expected the name or number of a property, found \"nmae\""},
        {"Domain{name : 1}",
         "line 1, column 13: expected an operator (= <> < <= > >= ~= !~= in intersects "
         "isubstr contains), found \":\""},
        {"Domain{name = branch}",
         "line 1, column 15: expected a text in quotation marks, found \"branch\""},
        {"Domain{name = \"branch}",
         "line 1, column 15: expected a closing quotation mark for this text"},
        {"Domain{name = \"a\\q\"}",
         "line 1, column 17: expected one of the escapes \\\", \\\\, \\n, \\r, \\t and "
         "\\x with two digits"},
        {"Domain{name = \"a\" name}", "line 1, column 19: expected \"&\" or \"}\", found \"name\""},
        {"Node{snmpPort = x}",
         "line 1, column 17: \"x\" is not a value of type uint: expected a number from 0 to "
         "4294967295"},
        {"Node{snmpPort = }", "line 1, column 17: expected a value of type uint, found \"}\""},
        {"Node{id = \"1.2.3.4\"}",
         "line 1, column 11: expected an id like \"1.4294960001\", found \"1.2.3.4\""},
        {"ScoreInfo{status = \"Bad\"}",
         "line 1, column 20: expected a value of the enumeration Status, found "
         "\"Bad\""},
        {"Node{9999 = null}",
         "line 1, column 13: expected a value, with its kind in front as in string:null, "
         "found \"null\""},
        {"Node@x", "line 1, column 6: expected a tag, found \"x\""},
        {"5000000000",
         "line 1, column 1: expected the name or number of a class from 0 to 4294967295, found "
         "\"5000000000\""},
        {"Domain > ( Node",
         "line 1, column 16: expected \">\", \"|\", \":\" or \")\", found the end"},
        {"Domain > ( Node : Check : User )",
         "line 1, column 25: expected \">\", \"|\" or \")\", found \":\""},
        {".{order = x}",
         "line 1, column 11: \"x\" is not a value of type uint: expected a number from 0 to "
         "4294967295"},
        {"Node)", "line 1, column 5: expected \">\" or the end, found \")\""},
    };
    for (const auto& [text, message] : cases) {
        try {
            const pattern_t read = parse_pattern(text);
            ADD_FAILURE() << text << " was read as " << pattern_text(read);
        } catch (const query_text_error& error) {
            EXPECT_EQ(error.text(), message) << text;
        }
    }
}

// The examples of docs/query-language.md are what people try first.
TEST(QueryText, ReadsTheDocumentedExamples) {
    const char* source = std::getenv("TARMIK_SOURCE");
    if (!source) GTEST_SKIP() << "TARMIK_SOURCE tells where the documents are";
    std::ifstream document(std::string(source) + "/docs/query-language.md");
    int examples = 0;
    bool inside = false;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("```"))
            inside = line == "```tql";
        else if (inside) {
            ++examples;
            EXPECT_NO_THROW((void)parse_pattern(line)) << line;
        }
    }
    EXPECT_GE(examples, 8);
}

TEST(QueryText, DepthIsBoundedAndHarmless) {
    std::string chain = "Domain";
    for (size_t i = 1; i < kMaxPatternDepth; ++i) chain += " > Domain";
    const pattern_t deepest = parse_pattern(chain);
    EXPECT_EQ(deepest.depth(), kMaxPatternDepth);
    EXPECT_EQ(pattern_text(deepest), chain);
    EXPECT_THROW((void)parse_pattern(chain + " > Node"), query_text_error);

    std::string nested;
    for (int i = 0; i < 100000; ++i) nested += "Domain > ( ";
    EXPECT_THROW((void)parse_pattern(nested), query_text_error);

    pattern_t built;
    pattern_t* at = &built;
    for (int i = 0; i < 200000; ++i)
        at = i % 2 ? &at->next.emplace_back() : &at->cond_next.emplace_back();
    const pattern_t copy = built;
    EXPECT_TRUE(copy == built);
    EXPECT_EQ(copy.depth(), 200001U);
    EXPECT_LE(pattern_log_text(copy).size(), 64U * 1024 + 3);
}

TEST(QueryText, LogsShortenLongLists) {
    pattern_t pattern = parse_pattern(
        "Domain*^@5[name, label, comment, infoUrl, alertGroup]{icon = \"AAEC\" & name = null & 9 "
        "<= set:{}} > "
        "( Node | Check | View | User | Plan : Event | Tag | Series | Report | Node | Check )");
    EXPECT_EQ(pattern_log_text(pattern),
              "Domain*[name, alertGroup, infoUrl, comment, label]{icon = BLOB & name = null & "
              "<unknown property: 9> "
              "<= {}} > ( Node | Check | View | User | Plan : Event | Tag | Series ... | Check )");
    pattern.wanted_properties.insert(prop::id);
    pattern.where.clear();
    pattern.cond_next.clear();
    EXPECT_EQ(pattern_log_text(pattern), "Domain*[...] > ( Node | Check | View | User | Plan :  )");
    pattern.next.resize(1);
    EXPECT_EQ(pattern_log_text(pattern), "Domain*[...] > Node");
    EXPECT_EQ(pattern_log_text(pattern_t(78)), "<unknown class: 78>");
}

// Random patterns of every kind of value, operator and flag.
class PatternMaker {
  public:
    explicit PatternMaker(uint64_t seed) : rng_(seed) {}

    pattern_t pattern(unsigned depth) {
        pattern_t made(number(cls::kCount + 3), rng_.chance(20) ? word() : number(32));
        if (rng_.chance(30)) made.tag = rng_.chance(50) ? number(9) : word();
        for (uint64_t i = rng_.below(4); i > 0; --i) made.wanted_properties.insert(property());
        for (uint64_t i = rng_.below(4); i > 0; --i) made.where.push_back(condition());
        if (depth == 0) return made;
        for (uint64_t i = rng_.below(4); i > 0; --i) made.next.push_back(pattern(depth - 1));
        for (uint64_t i = rng_.below(3); i > 0; --i) made.cond_next.push_back(pattern(depth - 1));
        return made;
    }

  private:
    uint32_t number(uint64_t bound) { return static_cast<uint32_t>(rng_.below(bound)); }
    uint32_t word() { return static_cast<uint32_t>(rng_.next()); }
    uint32_t property() {
        return rng_.chance(80) ? property_rows()[rng_.below(property_rows().size())].number
                               : number(20000);
    }
    std::string text() {
        std::string made;
        for (uint64_t i = rng_.below(12); i > 0; --i)
            made += static_cast<char>(rng_.chance(60) ? 32 + rng_.below(95) : rng_.below(256));
        return made;
    }
    id_t id() {
        id_t made;
        for (uint64_t i = rng_.below(4); i > 0; --i)
            made.push_back(rng_.chance(50) ? number(5) : word());
        return made;
    }

    void fill(property_string_t& to) { to.value = text(); }
    void fill(property_string_list_t& to) {
        for (uint64_t i = rng_.below(4); i > 0; --i) to.value.push_back(text());
    }
    void fill(property_object_set_t& to) {
        for (uint64_t i = rng_.below(4); i > 0; --i) {
            const id_t made = id();
            to.value.insert(made);
            if (rng_.chance(30)) to.origins[made] = {id(), id()};
        }
    }
    void fill(property_object_t& to) {
        to.value = id();
        if (rng_.chance(30)) to.origin = {id(), id(), number(40)};
    }
    void fill(property_version_t& to) { to.value = {rng_.next(), rng_.next()}; }
    void fill(property_real_t& to) {
        to.value = rng_.chance(50) ? std::bit_cast<double>(rng_.next()) : number(100) - 50.0;
    }
    void fill(property_bignum_t& to) {
        std::vector<uint8_t> bytes(rng_.below(80));
        for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(rng_.next());
        to.value = BigNum(std::span<const uint8_t>(bytes));
    }
    void fill(property_enum_t& to) {
        to.enumeration = rng_.chance(70) ? 0x10001 + number(0x26) : word();
        to.value = rng_.chance(70) ? number(14) : word();
    }
    void fill(property_boolean_t& to) { to.value = rng_.chance(50); }
    template <class Kind>
    void fill(Kind& to) {
        if constexpr (std::is_integral_v<typename Kind::value_type>)
            to.value = static_cast<typename Kind::value_type>(rng_.next());
        else
            for (uint64_t i = rng_.below(5); i > 0; --i)
                to.value.push_back(static_cast<typename Kind::value_type::value_type>(rng_.next()));
    }

    condition_t condition() {
        condition_t made;
        made.op = static_cast<relop_t>(rng_.chance(90) ? 1 + number(14) : word());
        if (rng_.chance(5)) return made;
        made.value = make_value(static_cast<property_type_t>(7 + number(19)));
        visit_kind(*made.value, [this](auto& kind) { fill(kind); });
        made.value->property = property();
        made.value->is_null = rng_.chance(15);
        if (rng_.chance(20)) made.value->flags = word();
        return made;
    }

    support::Rng rng_;
};

TEST(QueryText, PrintedPatternsReadBackTheSame) {
    for (uint64_t seed = 1; seed <= 1000; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        const pattern_t pattern = PatternMaker(seed).pattern(3);
        const std::string text = pattern_text(pattern);
        pattern_t read;
        ASSERT_NO_THROW(read = parse_pattern(text)) << text;
        ASSERT_TRUE(read == pattern) << text << "\n" << pattern_text(read);
    }
}

// Damaged texts are refused or read; they never do anything else.
TEST(QueryText, DamagedTextsAreHarmless) {
    support::Rng rng(7);
    for (uint64_t seed = 1; seed <= 1000; ++seed) {
        std::string text = pattern_text(PatternMaker(seed).pattern(2));
        for (uint64_t i = 1 + rng.below(4); i > 0; --i) {
            const size_t at = rng.below(text.size());
            if (rng.chance(50))
                text[at] = static_cast<char>(rng.below(256));
            else
                text.erase(at, 1 + rng.below(3));
            if (text.empty()) text = " ";
        }
        try {
            const pattern_t read = parse_pattern(text);
            EXPECT_TRUE(parse_pattern(pattern_text(read)) == read)
                << "seed " << seed << ": " << text;
        } catch (const query_text_error& error) {
            EXPECT_LE(error.column(), text.size() + 1);
        }
    }
}

}  // namespace
}  // namespace tql
