// The layout file: what each construct fills, what is refused and in which line.
#include "tqlengine/layout_file.h"

#include <gtest/gtest.h>

#include "support/temp_dir.h"
#include "util/text.h"

namespace {

using tqlengine::Layouts;
using tqlengine::parse_layouts;

TEST(LayoutFile, EachConstructFillsItsField) {
    const char* text = R"(# A comment; class Node "Node" {
class Node "A \"node\"\\"{on_delete "gone" on_create"made";
  template "first" { on_create "one"; } template "second" { on_create "two"; }
  group "Agent" required_experience 2 {	# behind a tab
    "checkinFrequency" "Every" unit "min" null "Never" unit "s" special { "1" "Always" } values "1,2"
      special { "" "" };
    object { "NodeSummary", "a" } "b" handler "h" description "d" blobmime "m";
    "x" "y" password multiline hidden_create; }
  group "Empty" { }
}
class __ "" { } # the end needs no line end)";
    const Layouts expected{
        {.name = "Node",
         .label = "A \"node\"\\",
         .on_delete = "gone",
         .on_create = "made",
         .templates = {{"first", "one"}, {"second", "two"}},
         .groups = {{.label = "Agent",
                     .required_experience = 2,
                     .properties = {{.name = "checkinFrequency",
                                     .label = "Every",
                                     .unit = "s",
                                     .null_text = "Never",
                                     .values = "1,2",
                                     .special_values = {{"1", "Always"}, {"", ""}}},
                                    {.class_name = "NodeSummary",
                                     .name = "a",
                                     .label = "b",
                                     .handler = "h",
                                     .description = "d",
                                     .blob_mime = "m"},
                                    {.name = "x",
                                     .label = "y",
                                     .is_password = true,
                                     .is_multiline = true,
                                     .hidden_create = true}}},
                    {.label = "Empty"}}},
        {.name = "__"}};
    EXPECT_EQ(parse_layouts(text), expected);
    // The buffer of a source may end anywhere.
    std::string_view rest = text;
    EXPECT_EQ(parse_layouts([&](char* buffer, size_t) {
                  const size_t taken = rest.copy(buffer, 1);
                  rest.remove_prefix(taken);
                  return taken;
              }),
              expected);
}

std::string outcome(const std::string& text) {
    try {
        return fmt::format("{} classes", parse_layouts(text).size());
    } catch (const error::EParseError& failure) {
        return failure.text();
    }
}

TEST(LayoutFile, WhatIsOutOfPlaceIsToldWithItsLine) {
    const auto property = [](const std::string& text) {
        return "class Node \"\" {\ngroup \"\" {\n" + text + "\n}}";
    };
    const std::pair<std::string, const char*> cases[] = {
        {"", "0 classes"},
        {"# nothing", "0 classes"},
        {"\n \t\n\n", "0 classes"},
        {"class Node \"\" {}\n\nclass No", "In: 3 syntax error"},
        {"class Node {}", "In: 1 syntax error"},
        {"class N \"\" {}", "In: 1 syntax error"},
        {"class \"Node\" \"\" {}", "In: 1 syntax error"},
        {"class group \"\" {}", "In: 1 syntax error"},
        {"class groups \"\" {}", "1 classes"},
        {"class N1 \"\" {}", "1 classes"},
        {"class 1N \"\" {}", "In: 1 syntax error"},
        {"Class Node \"\" {}", "In: 1 syntax error"},
        {"class Node \"\" {}}", "In: 1 syntax error"},
        {"class Node \"\" {};", "In: 1 syntax error"},
        {"class Node \"\" {\n", "In: 2 syntax error"},
        {"class Node \"\"\n{}\r\n", "In: 2 syntax error"},
        // Of the two, one ends with a semicolon.
        {"class Node \"\" { on_delete \"\" }", "1 classes"},
        {"class Node \"\" { on_delete \"\"; }", "In: 1 syntax error"},
        {"class Node \"\" { on_create \"\"; }", "1 classes"},
        {"class Node \"\" { on_create \"\" }", "In: 1 syntax error"},
        {"class Node \"\" { on_create \"\"; on_delete \"\" }", "In: 1 syntax error"},
        {"class Node \"\" { group \"\" {} template \"\" { on_create \"\"; } }",
         "In: 1 syntax error"},
        {"class Node \"\" { template \"\" { } }", "In: 1 syntax error"},
        {"class Node \"\" { group \"\" required_experience 0 {} }", "1 classes"},
        {"class Node \"\" { group required_experience 0 \"\" {} }", "In: 1 syntax error"},
        {"class Node \"\" { group \"\" required_experience - {} }", "In: 1 syntax error"},
        {"class Node \"\" { group \"\" required_experience 4294967295 {} }", "1 classes"},
        {"class Node \"\" {\n group \"\" required_experience 4294967296 {} }",
         "In: 2 required_experience 4294967296 is out of range"},
        {"class Node \"\" { group \"\" required_experience -1 {} }",
         "In: 1 required_experience -1 is out of range"},
        // Properties.
        {property(R"("name" "Name" unit "%";)"), "1 classes"},
        {property(R"("n" "N";)"), "1 classes"},
        {property(R"("name" "Name")"), "In: 4 syntax error"},
        {property(R"("name";)"), "In: 3 syntax error"},
        {property(R"("name" unit "%" "Name";)"), "In: 3 syntax error"},
        {property(R"(name "Name";)"), "In: 3 syntax error"},
        {property(R"("name" "Name"; unit "%";)"), "In: 3 syntax error"},
        {property(R"("name" "Name" unit;)"), "In: 3 syntax error"},
        {property(R"("name" "Name" password "yes";)"), "In: 3 syntax error"},
        {property(R"("name" "Name" special { "a" };)"), "In: 3 syntax error"},
        {property(R"("name" "Name" special { "a", "b" };)"), "In: 3 syntax error"},
        {property(R"(object { "Node" "name" } "Name";)"), "In: 3 syntax error"},
        {property(";"), "In: 3 syntax error"},
        // Strings stay on their line, and a backslash is no way out.
        {property("\"name\"\n\n\"Na\nme\";"), "In: 5 syntax error"},
        {property("\"name\" \"Na\\\nme\";"), "In: 3 syntax error"},
        {"class Node \"", "In: 1 syntax error"},
        {"class Node \"\\", "In: 1 syntax error"},
        {std::string("class Node \"\0\" {}", 17), "1 classes"},
        {std::string("\0", 1), "In: 1 syntax error"},
        {"\n\xc3\xa4", "In: 2 syntax error"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(outcome(text), expected) << text;
}

TEST(LayoutFile, AFileThatCannotBeReadIsNamed) {
    const support::TempDir dir;
    try {
        (void)tqlengine::read_layout_file(dir.file("none"));
        FAIL();
    } catch (const error::EFatal& failure) {
        EXPECT_EQ(failure.text(), "Error opening " + dir.file("none"));
    }
    EXPECT_EXIT((void)tqlengine::read_layout_file(dir.path().string()), testing::ExitedWithCode(2),
                "input in flex scanner failed\n$");
}

}  // namespace
