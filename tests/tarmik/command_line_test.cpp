#include "tarmik/command_line.h"

#include <cstdlib>
#include <deque>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "support/temp_dir.h"
#include "tarmik/assignments.h"
#include "tarmik/terminal.h"
#include "tarmik/tree_view.h"
#include "tarmik/words.h"

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

TEST(Assignments, ReadValuesByName) {
    const auto read = [](const std::vector<std::string>& arguments) {
        return cli::read_assignments(arguments).dump();
    };
    EXPECT_EQ(read({}), "{}");
    EXPECT_EQ(read({"label=Test lab", "comment=a=b:=c", "name=", "x:=null", "y:=[1, 2]"}),
              R"({"comment":"a=b:=c","label":"Test lab","name":"","x":null,"y":[1,2]})");
    for (const std::vector<std::string>& wrong : std::vector<std::vector<std::string>>{
             {"label"}, {"=a"}, {":=1"}, {"a:="}, {"a:={"}, {"a=1", "a=2"}, {"a=1", "a:=2"}})
        EXPECT_THROW((void)cli::read_assignments(wrong), cli::CommandError) << wrong[0];
}

TEST(TreeView, PrintsATreeForPeople) {
    const auto results = ordered_json::parse(R"([
        {"id": "1.17", "class": "Domain", "properties": {"name": "branch", "active": true}, "children": [
            {"id": "1.18", "class": "Node", "properties": {"name": "a\n\u001b[31m"}, "children": [
                {"id": "", "class": "Info", "properties": {}}]},
            {"id": "1.19", "class": "Node", "properties": {"label": null, "ids": ["1.2", "1.3"],
                "x": {"type": "uint", "value": 5}}, "inherited": ["label", "x"]},
            {"id": "1.17", "class": "Node", "flags": 2, "properties": {}}]},
        {"id": "1.20", "class": "View"}])");
    EXPECT_EQ(cli::tree_text(results, false),
              "Domain 1.17  name=\"branch\" active=true\n"
              "├─ Node 1.18  name=\"a\\n\\u001b[31m\"\n"
              "│  └─ Info\n"
              "├─ Node 1.19  label=null (inherited) ids=[\"1.2\", \"1.3\"] x=5 (inherited)\n"
              "└─ Node# 1.17\n"
              "View 1.20\n");
    EXPECT_EQ(cli::tree_text(ordered_json::parse(R"([{"id": "1.2", "class": "View"}])"), true),
              "\x1b[1mView\x1b[0m \x1b[2m1.2\x1b[0m\n");
}

TEST(Words, SizesAndLines) {
    EXPECT_EQ(cli::parse_size("4096"), 4096U);
    EXPECT_EQ(cli::parse_size("64M"), 64U << 20);
    EXPECT_EQ(cli::parse_size("17179869183G"), 17179869183ULL << 30);
    for (const char* wrong :
         {"", "M", "-1", "64MB", "17179869184G", "1.5K", "99999999999999999999"})
        EXPECT_FALSE(cli::parse_size(wrong)) << wrong;

    using Words = std::vector<std::string>;
    EXPECT_EQ(cli::split_words("  update 1.2 label=\"Test lab\" c='a\"\\' d\\ e "),
              (Words{"update", "1.2", "label=Test lab", "c=a\"\\", "d e"}));
    EXPECT_EQ(cli::split_words("select --root 1.2 --output=json Domain{name = \"a b\"} > Node  "),
              (Words{"select", "--root", "1.2", "--output=json", "Domain{name = \"a b\"} > Node"}));
    EXPECT_EQ(cli::split_words("select 'Domain* > Node'"), (Words{"select", "Domain* > Node"}));
    EXPECT_EQ(cli::split_words(""), Words{});
    EXPECT_THROW((void)cli::split_words("create \"Node"), cli::CommandError);
}

TEST(Words, CompletionKnowsWhereItStands) {
    const auto commands = cli::shell_commands();
    EXPECT_THAT(cli::complete("  sel", commands).candidates, testing::ElementsAre("select"));
    EXPECT_THAT(cli::complete("select NodeInfoG", commands).candidates,
                testing::ElementsAre("NodeInfoGroup"));
    const cli::Completion wanted = cli::complete("select Node[name, labe", commands);
    EXPECT_EQ(wanted.word_begin, 18U);
    EXPECT_THAT(wanted.candidates, testing::ElementsAre("label"));
    EXPECT_TRUE(cli::complete("select Node{Nod", commands).candidates.empty());
    EXPECT_THAT(cli::complete("select Node[name] > Domai", commands).candidates,
                testing::Contains("Domain"));
    EXPECT_EQ(cli::common_prefix({"label", "labels", "lab"}), "lab");
}

TEST(Output, ThatNobodyReadsAnyMoreIsNoticedBeforeItIsWrittenTo) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    std::FILE* out = ::fdopen(ends[1], "w");
    std::fputs("line\n", out);
    EXPECT_TRUE(cli::is_read(out));
    ::close(ends[0]);
    EXPECT_FALSE(cli::is_read(out));
    std::fclose(out);
}

/// Plays the gateway: answers in order, and remembers what was asked.
class FakeApi final : public cli::Api {
  public:
    ordered_json post(const std::string& path, const json& body) override {
        asked.push_back(path + " " + body.dump());
        if (answers.empty()) return json{{"id", "1.1"}};
        const auto [status, text] = answers.front();
        answers.pop_front();
        return cli::read_answer(status, text);
    }
    ordered_json get(const std::string& path) override { return post(path, nullptr); }

    std::vector<std::string> asked;
    std::deque<std::pair<int, std::string>> answers;
};

/// Runs a line of the shell and keeps what it wrote.
class ShellTest : public testing::Test {
  protected:
    int run(const std::string& line) {
        std::FILE* data = std::tmpfile();
        std::FILE* remarks = std::tmpfile();
        const int code =
            cli::run_shell_command(cli::split_words(line), api, {.data = data, .remarks = remarks});
        out = read(data);
        err = read(remarks);
        return code;
    }
    static std::string read(std::FILE* file) {
        std::rewind(file);
        std::string text(65536, '\0');
        text.resize(std::fread(text.data(), 1, text.size(), file));
        std::fclose(file);
        return text;
    }
    FakeApi api;
    std::string out;
    std::string err;
};

TEST_F(ShellTest, CommandsAskTheGateway) {
    api.answers = {{200, R"({"id": "1.5", "version": "2.3"})"},
                   {200, R"({"id": "1.5", "version": "2.4", "ignored_properties": true})"},
                   {200, R"({"id": "1.5"})"},
                   {200, R"({"results": []})"},
                   {200, R"({"classes": [{"number": 1, "name": "Node"}]})"}};
    EXPECT_EQ(run("create Domain --parent 0.1 name=lab label=\"Test lab\""), 0);
    EXPECT_EQ(out, "1.5\n");
    EXPECT_EQ(run("update 1.5 --version 2.3 comment:=null --ignore-unknown"), 0);
    EXPECT_EQ(out, "2.4\n");
    EXPECT_EQ(err, "Some properties were ignored: the class does not have them\n");
    EXPECT_EQ(run("delete 1.5"), 0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(run("select --root 1.5 --root 1.6 Domain{name = \"a\"} > Node"), 0);
    EXPECT_EQ(out + err, "Nothing matched\n");
    EXPECT_EQ(run("classes"), 0);
    EXPECT_EQ(out, "     1  Node\n");
    EXPECT_THAT(
        api.asked,
        testing::ElementsAre(
            R"(/api/v1/create {"class":"Domain","parent":"0.1","properties":{"label":"Test lab","name":"lab"}})",
            R"(/api/v1/update {"id":"1.5","ignore_unknown":true,"properties":{"comment":null},"version":"2.3"})",
            R"(/api/v1/delete {"id":"1.5"})",
            R"(/api/v1/select {"pattern":"Domain{name = \"a\"} > Node","roots":["1.5","1.6"]})",
            "/api/v1/classes null"));
}

TEST_F(ShellTest, InheritanceIsTakenAndGivenBack) {
    EXPECT_EQ(run("create Check --parent 1.5 --inherits 1.7 name=a"), 0);
    api.answers = {{200, R"({"id": "1.5", "version": "2.4"})"}};
    EXPECT_EQ(run("update 1.5 --reset label --reset port frequency=60 --inherits 1.8"), 0);
    EXPECT_THAT(
        api.asked,
        testing::ElementsAre(
            R"(/api/v1/create {"class":"Check","parent":"1.5","properties":{"inherits":"1.7","name":"a"}})",
            R"(/api/v1/update {"id":"1.5","properties":{"frequency":"60","inherits":"1.8","label":{"inherit":true},"port":{"inherit":true}}})"));
    api.asked.clear();
    for (const char* wrong : {"update 1.5 --reset label label=a", "update 1.5 --reset a --reset a",
                              "update 1.5 --inherits 1.7 inherits=1.8", "update 1.5 --reset"}) {
        SCOPED_TRACE(wrong);
        EXPECT_EQ(run(wrong), 2);
        EXPECT_NE(err, "");
    }
    EXPECT_TRUE(api.asked.empty());
}

TEST_F(ShellTest, ASeriesIsListedAndDrawn) {
    const std::string answer = R"({"id": "1.5", "label": "web\u001b", "property": "tsdbIndex",
        "layout": {"type": "continuous", "levels": []}, "more": true,
        "columns": [{"name": "start"}, {"name": "avg", "unit": "ms"}], "records": [
        {"start": "2026-11-23T13:00:00Z", "end": "2026-11-23T13:00:00Z", "min": 10, "avg": 10,
         "max": 10, "good": 1, "bad": 0},
        {"start": "2026-11-23T13:30:00Z", "end": "2026-11-23T13:30:00Z", "min": 0, "avg": 0,
         "max": 0, "good": 0, "bad": 2},
        {"start": "2026-11-23T14:00:00Z", "end": "2026-11-23T14:00:00Z", "min": 20, "avg": 21.5,
         "max": 32, "good": 3, "bad": 0}]})";
    api.answers.assign(2, {200, answer});
    EXPECT_EQ(run("series 1.5 --from -1d --count 3"), 0);
    EXPECT_EQ(out,
              "web\\u001b: tsdbIndex, continuous\n"
              "start                 avg (ms)\n"
              "2026-11-23T13:00:00Z  10\n"
              "2026-11-23T13:30:00Z  0\n"
              "2026-11-23T14:00:00Z  21.5\n");
    EXPECT_NE(err, "");
    EXPECT_EQ(run("series 1.5 --graph"), 0);
    const std::string blank(62, ' ');
    const std::string edge = "|" + blank + " :\n";
    EXPECT_THAT(out, testing::HasSubstr("\n32 ms " + edge));
    EXPECT_THAT(out, testing::HasSubstr("|" + blank + " o\n"));
    EXPECT_THAT(out, testing::HasSubstr("\n10 ms |o\n"));
    EXPECT_THAT(out, testing::HasSubstr("\n  bad |" + std::string(31, ' ') + "x\n"));
    EXPECT_EQ(api.asked[0], "/api/v1/series/1.5?count=3&from=-1d null");

    // A single value lies in the middle, and states have a line each.
    std::string flat = answer.substr(0, answer.find(R"(,
        {"start": "2026-11-23T13:30)")) +
                       "]}";
    std::string states = flat;
    states.replace(states.find("continuous"), 10, "enumerated");
    states.replace(states.find(R"("min": 10)"), 9, R"("states": [3, 0])");
    api.answers = {{200, flat}, {200, states}};
    EXPECT_EQ(run("series 1.5 --graph"), 0);
    EXPECT_THAT(out, testing::HasSubstr("|o\n"));
    EXPECT_EQ(run("series 1.5 --graph"), 0);
    EXPECT_THAT(out, testing::HasSubstr("\nstate  0 |#"));
    EXPECT_THAT(out, testing::HasSubstr("\nstate  3 |#"));
}

/// What the gateway tells of two templates of paths under a user, and with `plan` of another one.
std::string templates_answer(const std::string& plan = "") {
    return R"({"results": [{"id": "1.5", "class": "User", "properties": {}, "children": [
        {"id": "1.5", "class": "AlertPath", "flags": 2,
         "properties": {"name": "mail", "method": "Email", "order": {"type": "int", "value": 1},
                        "siblingName": "template:1", "treeLabel": "Add path"},
         "settable": ["name", "method", "order"]},
        {"id": "1.5", "class": "AlertPath", "flags": 2,
         "properties": {"name": "sms", "siblingName": "template:2", "treeLabel": "Add path"},
         "settable": ["name"]})" +
           plan + "]}]}";
}

TEST_F(ShellTest, TemplatesAreListedAndCreatedFrom) {
    const std::string plan = R"(, {"id": "1.5", "class": "Plan", "flags": 2,
        "properties": {"name": null, "treeLabel": "Add\u001b plan"}, "settable": ["name"]})";
    api.answers.assign(3, {200, templates_answer()});
    api.answers.front().second = templates_answer(plan);
    EXPECT_EQ(run("templates 1.5"), 0);
    EXPECT_EQ(out, "AlertPath 1  Add path\nAlertPath 2  Add path\nPlan 1  Add\\u001b plan\n");
    EXPECT_EQ(run("templates 1.5 AlertPath"), 0);
    EXPECT_THAT(out, testing::StartsWith("AlertPath 1  Add path\n  name=\"mail\"\n  "
                                         "method=\"Email\"\n  order=1\nAlertPath 2"));
    EXPECT_EQ(api.asked[0], R"(/api/v1/select {"pattern":".$ > .#!","roots":["1.5"]})");
    EXPECT_EQ(api.asked[1], R"(/api/v1/select {"pattern":".$ > AlertPath#!","roots":["1.5"]})");
    api.asked.clear();

    EXPECT_EQ(run("create AlertPath --parent 1.5 --template template:1 name=x"), 0);
    ASSERT_EQ(api.asked.size(), 2U);
    EXPECT_EQ(api.asked[1], R"(/api/v1/create {"class":"AlertPath","parent":"1.5","properties":)"
                            R"({"method":"Email","name":"x","order":{"type":"int","value":1}}})");
    api.answers.assign(1, {200, templates_answer()});
    // A number is that within the class, unless a template has it for a name.
    EXPECT_EQ(run("create AlertPath --parent 1.5 --template 1 --output json"), 0);
    EXPECT_THAT(api.asked[3], testing::HasSubstr("\"mail\""));
}

TEST_F(ShellTest, TemplatesThatAreNotThereAreTold) {
    api.answers.assign(2, {200, templates_answer()});
    EXPECT_EQ(run("create AlertPath --parent 1.5 --template 3"), 2);
    EXPECT_EQ(err,
              "tarmik: There is no template \"3\" here; there are:\nAlertPath 1  Add path\n"
              "AlertPath 2  Add path\n");
    EXPECT_EQ(run("create AlertPath --parent 1.5 --template 'Add path'"), 2);
    EXPECT_THAT(err, testing::StartsWith("tarmik: More than one template \"Add path\" here;"));
    EXPECT_EQ(api.asked.size(), 2U) << "nothing was created";
    api.answers = {{200, R"({"results": []})"},
                   {200, R"({"results": [{"id": "1.5", "class": "User", "properties": {}}]})"}};
    EXPECT_EQ(run("templates 1.6"), 4);
    EXPECT_EQ(err, "tarmik: There is no object 1.6\n");
    EXPECT_EQ(run("templates 1.5"), 0);
    EXPECT_EQ(out + err, "There are no templates here\n");
    EXPECT_EQ(run("templates 1.5 Nonsense"), 2);
    EXPECT_EQ(api.asked.size(), 4U);
}

TEST_F(ShellTest, ExitCodesTellWhatHappened) {
    const auto refused = [](int code, const char* name) {
        return fmt::format(
            R"({{"error": {{"code": {}, "name": "{}", "text": "No.", "details": []}}}})", code,
            name);
    };
    const std::string away =
        R"({"error": {"code": null, "name": "UNAVAILABLE", "text": "Away", "details": []}})";
    struct Row {
        int status;
        std::string answer;
        int exit_code;
        const char* text;
    };
    const Row rows[] = {
        {409, refused(3, "ERR_VERSION"), 5, "tarmik: No. (code 3, ERR_VERSION)\n"},
        {409, refused(4, "ERR_EXISTS"), 4, "tarmik: No. (code 4, ERR_EXISTS)\n"},
        {404, refused(1, "ERR_NO_SUCH_ID"), 4, "tarmik: No. (code 1, ERR_NO_SUCH_ID)\n"},
        {503, away, 3, "tarmik: Away\n"},
        {504, away, 3, "tarmik: Away\n"},
        {200, "<html>", 1, "tarmik: The answer is not that of a gateway (status 200)\n"},
        {404, "{}", 1, "tarmik: The answer is not that of a gateway (status 404)\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.answer);
        api.answers = {{row.status, row.answer}};
        EXPECT_EQ(run("delete 1.5"), row.exit_code);
        EXPECT_EQ(err, row.text);
    }
    api.asked.clear();
    for (const char* wrong : {"delete", "nonsense", "update 1.2 label", "select Node[nmae]",
                              "create Node name=a", "classes --output xml"}) {
        SCOPED_TRACE(wrong);
        EXPECT_EQ(run(wrong), 2);
        EXPECT_EQ(out, "");
        EXPECT_NE(err, "");
    }
    EXPECT_TRUE(api.asked.empty());
    EXPECT_EQ(run("select Node[nmae]"), 2);
    EXPECT_THAT(err, testing::HasSubstr("\n  Node[nmae]\n       ^\n"));
    EXPECT_EQ(run("nonsense 1"), 2);
    EXPECT_THAT(err, testing::StartsWith("\"nonsense\" is no command\n"));
    EXPECT_EQ(run("create --help"), 0);
    EXPECT_THAT(out, testing::HasSubstr("5  version conflict"));
}

TEST_F(ShellTest, LoadPutsIdsInPlaceOfNames) {
    const support::TempDir dir;
    const auto load = [&](const std::string& objects) {
        std::ofstream(dir.file("site.json")) << R"({"objects": [)" << objects << "]}";
        return run("load " + dir.file("site.json"));
    };
    api.answers = {
        {409,
         R"({"error": {"code": 4, "name": "ERR_EXISTS", "text": "EXISTS{1.7} Duplicate", "details": []}})"},
        {200, R"({"id": "1.8", "version": "1.1"})"},
        {200, R"({"id": "1.9", "version": "1.2"})"}};
    const std::string mail =
        R"({"class": "AlertGroup", "as": "mail"}, {"class": "AlertGroup", "as": "pager"})";
    EXPECT_EQ(load(mail + R"(, {"class": "Node", "properties": {
                  "alertGroup": {"object": "mail"},
                  "dependsOn": [{"object": "pager"}, "1.3"]}})"),
              0);
    ASSERT_EQ(api.asked.size(), 3U);
    EXPECT_THAT(api.asked[2],
                testing::HasSubstr(R"({"alertGroup":"1.7","dependsOn":["1.8","1.3"]})"));

    api.asked.clear();
    const std::map<std::string, std::string> wrong = {
        {R"({"class": "Node", "properties": {"alertGroup": {"object": "mail"}}}, )" + mail,
         "no object above is called \"mail\""},
        {R"({"class": "Node", "properties": {"dependsOn": [{"object": 5}]}})",
         "no object above is called 5"},
        {mail + ", " + mail, "two objects are called \"mail\""},
        {R"({"class": "Node", "as": 5})", "\"as\" must be text: 5"}};
    for (const auto& [objects, text] : wrong) {
        EXPECT_EQ(load(objects), 1) << objects;
        EXPECT_THAT(err, testing::HasSubstr(text));
    }
    EXPECT_TRUE(api.asked.empty()) << "nothing is created of a file that is wrong further down";
}

TEST_F(ShellTest, LoadSkipsWhatExists) {
    const support::TempDir dir;
    std::ofstream(dir.file("site.json")) << R"({"parent": "0.1", "objects": [
        {"class": "Domain", "properties": {"name": "a"}, "children": [{"class": "Node"}]},
        {"class": "Domain", "properties": {"name": "b"}}]})";
    api.answers = {
        {409,
         R"({"error": {"code": 4, "name": "ERR_EXISTS", "text": "EXISTS{1.7} Duplicate", "details": []}})"},
        {200, R"({"id": "1.8", "version": "1.1"})"},
        {200, R"({"id": "1.9", "version": "1.2"})"}};
    EXPECT_EQ(run("load " + dir.file("site.json")), 0);
    EXPECT_EQ(err, "2 objects created, 1 were there already\n");
    ASSERT_EQ(api.asked.size(), 3U);
    EXPECT_EQ(api.asked[1], R"(/api/v1/create {"class":"Node","parent":"1.7","properties":{}})");

    // Another refusal ends it and says where.
    api.answers = {
        {400,
         R"({"error": {"code": 10, "name": "ERR_ILLEGAL_VALUE", "text": "Bad", "details": []}})"}};
    EXPECT_EQ(run("load " + dir.file("site.json")), 4);
    EXPECT_EQ(err,
              "tarmik: Domain under 0.1, after 0 of 3 objects: Bad (code 10, ERR_ILLEGAL_VALUE)\n");

    api.asked.clear();
    std::ofstream(dir.file("wrong.json"))
        << R"({"objects": [{"class": "Domain"}, {"clas": "Domain"}]})";
    EXPECT_EQ(run("load " + dir.file("wrong.json")), 1);
    EXPECT_EQ(run("load " + dir.file("missing.json")), 1);
    EXPECT_EQ(run("load " + dir.path().string()), 1);
    EXPECT_TRUE(api.asked.empty()) << "nothing is created of a file that is wrong further down";
}

TEST(CommandLine, NothingListensIsExitCode3) {
    EXPECT_EQ(cli::run_command_line({"classes", "--url", "http://127.0.0.1:1"}), 3);
    EXPECT_EQ(cli::run_command_line({"--url", "nonsense", "classes"}), 2);
    EXPECT_EQ(cli::run_command_line({}), 2);
}

TEST(CommandLine, FormatMakesADatabase) {
    const support::TempDir dir;
    const std::vector<std::string> command = {
        "format", dir.file("db"), dir.file("journal"), "--block-size", "1024", "--journal-size",
        "1M"};
    EXPECT_EQ(cli::run_command_line(command), 0);
    EXPECT_TRUE(std::filesystem::exists(dir.file("db")));
    EXPECT_EQ(cli::run_command_line(command), 1) << "an existing database is left alone";
    EXPECT_EQ(
        cli::run_command_line({"format", dir.file("a"), dir.file("b"), "--journal-size", "1X"}), 2);
}

}  // namespace
