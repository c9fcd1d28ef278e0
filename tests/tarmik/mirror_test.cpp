#include "tarmik/mirror.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tarmik/event_reader.h"
#include "tarmik/tree_view.h"
#include "tarmik/watch_text.h"

namespace {

using nlohmann::json;
using nlohmann::ordered_json;

/// A tree of domains and nodes as text: "0.1[1.2[1.5 1.6] 1.3]"; ids from 100 in their last place
/// are nodes, from 200 views, the others domains. The label of an object is its id and what stands
/// behind "=".
class TreeText {
  public:
    static ordered_json read(std::string_view text) {
        TreeText reader{text};
        ordered_json list = ordered_json::array();
        while (!reader.text_.empty()) list.push_back(reader.read_node());
        return list;
    }

    static std::string write(const ordered_json& list) {
        std::string text;
        for (const ordered_json& node : list) {
            if (!text.empty()) text += ' ';
            text += node["properties"]["label"].get<std::string>();
            if (node.contains("children")) text += "[" + write(node["children"]) + "]";
        }
        return text;
    }

  private:
    explicit TreeText(std::string_view text) : text_(text) {}

    ordered_json read_node() {
        const size_t end = std::min(text_.find_first_of(" []"), text_.size());
        std::string word(text_.substr(0, end));
        text_.remove_prefix(end);
        ordered_json node;
        const bool on_path = word.ends_with('>');
        if (on_path) word.pop_back();
        node["id"] = word.substr(0, word.find('='));
        const unsigned long place = std::stoul(word.substr(word.find('.') + 1));
        node["class"] = place >= 200 ? "View" : place >= 100 ? "Node" : "Domain";
        node["version"] = fmt::format("1.{}", ++versions_);
        if (on_path) node["on_path"] = true;
        node["properties"] = {{"label", word}};
        if (text_.starts_with('[')) {
            text_.remove_prefix(1);
            node["children"] = ordered_json::array();
            while (!text_.starts_with(']')) node["children"].push_back(read_node());
            text_.remove_prefix(1);
        }
        if (text_.starts_with(' ')) text_.remove_prefix(1);
        return node;
    }

    std::string_view text_;
    size_t versions_ = 0;
};

std::string changes_text(const std::vector<cli::Mirror::Change>& changes) {
    std::string text;
    for (const cli::Mirror::Change& change : changes)
        text += std::string(1, "+~>-"[static_cast<size_t>(change.kind)]) + change.key + " ";
    return text;
}

constexpr const char* kBegin = "0.1[1.2[1.100 1.102] 1.3[1.4[1.101]]]";

cli::Mirror begun(std::string_view tree = kBegin) {
    cli::Mirror mirror;
    (void)mirror.apply("result", {{"results", TreeText::read(tree)},
                                  {"kept_by", {{"Domain", {"Domain", "Node"}}}}});
    return mirror;
}

TEST(Mirror, FollowsPatchesAndDeletes) {
    struct Row {
        const char* name;
        const char* id;
        const char* patch;  ///< null: a delete
        const char* tree;
        const char* changes;
    };
    const Row rows[] = {
        {"new value", "1.100", "0.1>[1.2>[1.100=a]]", "0.1[1.2[1.100=a 1.102] 1.3[1.4[1.101]]]",
         "~1.100 "},
        {"nothing new but a version", "1.100", "0.1>[1.2>[1.100]]", kBegin, ""},
        {"new object, in its place by number", "1.101", "0.1>[1.2>[1.99]]",
         "0.1[1.2[1.99 1.100 1.102] 1.3[1.4[1.101]]]", "+1.99 "},
        {"value on the way", "1.100", "0.1=b>[1.2>[1.100]]",
         "0.1=b[1.2[1.100 1.102] 1.3[1.4[1.101]]]", "~0.1 "},
        {"whole subtree told anew", "1.2", "0.1>[1.2=c[1.100 1.103]]",
         "0.1[1.2=c[1.100 1.103] 1.3[1.4[1.101]]]", "~1.2 +1.103 -1.102 "},
        {"the way is new as well", "1.105", "0.1>[1.5>[1.6>[1.105]]]",
         "0.1[1.2[1.100 1.102] 1.3[1.4[1.101]] 1.5[1.6[1.105]]]", "+1.5 +1.6 +1.105 "},
        {"the way is new, and only for what stands beside", "1.200", "0.1>[1.5>[1.6>[1.200]]]",
         kBegin, ""},
        {"move", "1.102", "0.1>[1.3>[1.102]]", "0.1[1.2[1.100] 1.3[1.4[1.101] 1.102]]", ">1.102 "},
        {"move of the last, the way up goes with it", "1.101", "0.1>[1.2>[1.101]]",
         "0.1[1.2[1.100 1.101 1.102]]", ">1.101 -1.4 -1.3 "},
        {"move of a subtree", "1.4", "0.1>[1.2>[1.4[1.101]]]", "0.1[1.2[1.4[1.101] 1.100 1.102]]",
         ">1.4 -1.3 "},
        {"the root itself", "0.1", "0.1=r[1.3[1.101]]", "0.1=r[1.3[1.101]]",
         "~0.1 >1.101 -1.2 -1.100 -1.102 -1.4 "},
        {"delete", "1.102", nullptr, "0.1[1.2[1.100] 1.3[1.4[1.101]]]", "-1.102 "},
        {"delete of the last", "1.101", nullptr, "0.1[1.2[1.100 1.102]]", "-1.101 -1.4 -1.3 "},
        {"delete with all below", "1.3", nullptr, "0.1[1.2[1.100 1.102]]", "-1.3 -1.4 -1.101 "},
        {"delete of the root", "0.1", nullptr, "", "-0.1 -1.2 -1.100 -1.102 -1.3 -1.4 -1.101 "},
        {"delete of a stranger", "7.7", nullptr, kBegin, ""},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        cli::Mirror mirror = begun();
        const ordered_json data =
            row.patch == nullptr
                ? ordered_json{{"id", row.id}}
                : ordered_json{{"id", row.id}, {"patch", TreeText::read(row.patch)[0]}};
        const auto changes = mirror.apply(row.patch == nullptr ? "delete" : "patch", data);
        EXPECT_EQ(TreeText::write(mirror.results()), row.tree);
        EXPECT_EQ(changes_text(changes), row.changes);
        EXPECT_EQ(mirror.size(),
                  static_cast<size_t>(std::count(row.tree, row.tree + strlen(row.tree), '.')));
    }
}

TEST(Mirror, AResultReplacesEverythingAndTellsWhatIsDifferent) {
    cli::Mirror mirror = begun();
    const auto changes =
        mirror.apply("result", {{"results", TreeText::read("0.1[1.2[1.100=x 1.101] 1.9]")}});
    EXPECT_EQ(changes_text(changes), "~1.100 >1.101 +1.9 -1.102 -1.3 -1.4 ");
    // Without rules nothing goes with its last child.
    (void)mirror.apply("delete", {{"id", "1.101"}});
    (void)mirror.apply("delete", {{"id", "1.100"}});
    EXPECT_EQ(TreeText::write(mirror.results()), "0.1[1.2 1.9]");
    // One root below another: the object stands in both trees.
    EXPECT_EQ(
        changes_text(mirror.apply("result", {{"results", TreeText::read("1.2[1.100] 1.100")}})),
        ">1.2 +1.100 +1.100@2 -0.1 -1.9 ");
}

TEST(Mirror, NodesWithoutIdsAndPartsOfValues) {
    cli::Mirror mirror;
    const auto data = [](const char* text) { return ordered_json::parse(text); };
    (void)mirror.apply("result", data(R"({"results": [{"id": "1.2", "class": "Domain", "tags": [1],
        "properties": {"name": "a", "label": "b"}, "inherited": ["name", "label"], "children": [
            {"id": "", "class": "Info", "properties": {"x": 1}},
            {"id": "", "class": "Info", "properties": {"x": 2}},
            {"id": "1.2", "class": "Node", "flags": 2, "properties": {}},
            {"id": "1.3", "class": "Node", "properties": {}}]}]})"));
    const auto changes = mirror.apply("patch", data(R"({"id": "1.4", "patch": {"id": "1.2",
        "class": "Domain", "on_path": true, "tags": [2], "properties": {"label": "c"}, "children": [
            {"id": "", "class": "Info", "properties": {"x": 3}},
            {"id": "1.4", "class": "Node", "properties": {}}]}})"));
    EXPECT_EQ(changes_text(changes), "~1.2 ~1.2/Info/0 +1.4 -1.2/Info/1 ");
    EXPECT_EQ(json(mirror.results()), json::parse(R"([{"id": "1.2", "class": "Domain",
        "tags": [1, 2], "properties": {"name": "a", "label": "c"}, "inherited": ["name"],
        "children": [
            {"id": "1.2", "class": "Node", "flags": 2, "properties": {}},
            {"id": "", "class": "Info", "properties": {"x": 3}},
            {"id": "1.3", "class": "Node", "properties": {}},
            {"id": "1.4", "class": "Node", "properties": {}}]}])"));
}

TEST(Mirror, GarbageIsToldAndHarmsNothing) {
    std::string deep = R"({"id": "1.1", "class": "Node")";
    for (int i = 2; i < 5000; ++i)
        deep += fmt::format(R"(, "children": [{{"id": "1.{}", "class": "Node")", i);
    for (int i = 2; i < 5000; ++i) deep += "}]";
    deep += "}";
    const std::pair<const char*, std::string> rows[] = {
        {"result", "[]"},
        {"result", "{}"},
        {"result", R"({"results": 5})"},
        {"result", R"({"results": [5]})"},
        {"result", R"({"results": [{"id": "x", "class": "Node"}]})"},
        {"result", R"({"results": [{"id": 5, "class": "Node"}]})"},
        {"result", R"({"results": [{"id": "1.2", "class": "Node", "children": 7}]})"},
        {"result", R"({"results": [{"id": "1.2", "class": "Node", "flags": "a"}]})"},
        {"result", R"({"results": [], "kept_by": {"Domain": [5]}})"},
        {"result", R"({"results": [)" + deep + "]}"},
        {"patch", "null"},
        {"patch", R"({"id": "1.2", "patch": null})"},
        {"patch", R"({"id": "1.2", "patch": {"id": "1.2", "on_path": true}})"},
        {"patch", R"({"id": "0.1", "patch": {"id": "0.1", "class": "Domain", "on_path": true,
                      "children": [{"id": "1.2", "class": "Domain", "children": [
                          {"id": "0.1", "class": "Domain"}]}]}})"},
        {"patch", R"({"id": "0.1", "patch": {"id": "0.1", "class": "Domain", "on_path": true,
                      "properties": 5, "inherited": 7}})"},
        {"delete", R"({"id": 7})"},
        {"remove", R"({"id": "1.2"})"},
    };
    for (const auto& [event, text] : rows) {
        SCOPED_TRACE(text.substr(0, 200));
        cli::Mirror mirror = begun();
        EXPECT_THROW((void)mirror.apply(event, ordered_json::parse(text)), cli::MirrorError);
        EXPECT_EQ(mirror.size(), 0U);
        (void)mirror.apply("result", {{"results", TreeText::read(kBegin)}});
        EXPECT_EQ(TreeText::write(mirror.results()), kBegin);
    }
}

TEST(EventReader, TakesEventsCutAnywhere) {
    const std::string text =
        "retry: 1000\r\n\r\n: comment\nid: 1\nevent: result\ndata: {\"a\":\ndata: 1}\n\n"
        "event: nothing\n\n\ndata:x\r\rweird\nevent: delete\r\ndata: y\r\n\r\n";
    for (size_t piece = 1; piece <= text.size(); ++piece) {
        cli::EventReader reader;
        std::string events;
        for (size_t at = 0; at < text.size(); at += piece)
            reader.feed(std::string_view(text).substr(at, piece), [&](cli::StreamEvent event) {
                events += event.name + "<" + event.data + ">";
            });
        EXPECT_EQ(events, "result<{\"a\":\n1}>message<x>delete<y>") << piece;
    }
}

TEST(WatchText, ShowsTheTreeWithItsChanges) {
    cli::Mirror mirror = begun();
    cli::WatchView view;
    view.note(mirror.apply("patch",
                           {{"id", "1.100"}, {"patch", TreeText::read("0.1>[1.2>[1.100=a]]")[0]}}),
              1000);
    view.note(
        mirror.apply("patch", {{"id", "1.105"}, {"patch", TreeText::read("0.1>[1.2>[1.105]]")[0]}}),
        1000);
    view.note(mirror.apply("delete", {{"id", "1.102"}}), 2000);
    view.note(mirror.apply("delete", {{"id", "1.101"}}), 2000);
    const auto shown = [&](bool colored) {
        std::string text;
        for (const std::string& line : view.lines(mirror, colored)) text += line + "\n";
        return text;
    };
    EXPECT_EQ(shown(false),
              "  Domain 0.1  label=\"0.1\"\n"
              "  ├─ Domain 1.2  label=\"1.2\"\n"
              "~ │  ├─ Node 1.100  label=\"1.100=a\"\n"
              "- │  ├─ Node 1.102  label=\"1.102\"\n"
              "+ │  └─ Node 1.105  label=\"1.105\"\n"
              "- └─ Domain 1.3  label=\"1.3\"\n");
    EXPECT_THAT(shown(true), testing::HasSubstr("\x1b[33m~ \x1b[0m│  ├─ \x1b[1mNode\x1b[0m"));
    EXPECT_EQ(view.next_end_us(), 1000 + cli::WatchView::kMark_us);
    EXPECT_FALSE(view.forget_old(999 + cli::WatchView::kMark_us));
    EXPECT_TRUE(view.forget_old(2000 + cli::WatchView::kMark_us));
    EXPECT_FALSE(view.next_end_us());
    EXPECT_EQ(shown(false),
              "  Domain 0.1  label=\"0.1\"\n"
              "  └─ Domain 1.2  label=\"1.2\"\n"
              "     ├─ Node 1.100  label=\"1.100=a\"\n"
              "     └─ Node 1.105  label=\"1.105\"\n");

    // A window that is smaller than the tree, in both directions.
    size_t first = 1;
    cli::Window window = cli::cut_window(view.lines(mirror, false), 3, 14, &first, "remark");
    EXPECT_THAT(window.lines, testing::ElementsAre("  └─ Domain 1.", "     ├─ Node 1"));
    EXPECT_EQ(window.status, "lines 2-3 of 4");
    first = 100;
    window = cli::cut_window(view.lines(mirror, false), 4, 80, &first, "remark");
    EXPECT_EQ(first, 1U);
    EXPECT_EQ(window.status, "lines 2-4 of 4  remark");
    for (const size_t rows : {0, 1, 50}) {
        window = cli::cut_window(view.lines(mirror, true), rows, rows, &first, "");
        EXPECT_EQ(window.lines.size(), rows == 50 ? 4 : 0);
    }
}

TEST(WatchText, TellsChangesInLines) {
    cli::Mirror mirror = begun("0.1[1.2]");
    std::string text;
    const auto tell = [&](const std::vector<cli::Mirror::Change>& changes) {
        for (const auto& change : changes) text += cli::change_text(change) + "\n";
        return changes;
    };
    tell(mirror.apply("patch",
                      {{"id", "1.100"}, {"patch", TreeText::read("0.1>[1.2>[1.100]]")[0]}}));
    const auto changed = tell(mirror.apply(
        "patch", {{"id", "1.100"}, {"patch", TreeText::read("0.1>[1.2>[1.100=a]]")[0]}}));
    tell(mirror.apply("patch", {{"id", "1.100"}, {"patch", TreeText::read("0.1>[1.100=a]")[0]}}));
    tell(mirror.apply("delete", {{"id", "1.100"}}));
    EXPECT_EQ(text,
              "+ Node 1.100  label=\"1.100\"\n"
              "~ Node 1.100  label: \"1.100\" -> \"1.100=a\"\n"
              "> Node 1.100  label=\"1.100=a\"\n"
              "- Domain 1.2  label=\"1.2\"\n"
              "- Node 1.100  label=\"1.100=a\"\n"
              "- Domain 0.1  label=\"0.1\"\n");
    const json line = json::parse(cli::change_json(changed.at(0)).dump());
    EXPECT_EQ(line["change"], "changed");
    EXPECT_EQ(line["before"]["properties"]["label"], "1.100");
    EXPECT_EQ(line["object"]["properties"]["label"], "1.100=a");
    EXPECT_EQ(cli::operation_text(ordered_json::parse(
                  R"({"operation": "created", "id": "1.5", "class": "Node", "path": [
                      {"id": "1.5", "class": "Node"}, {"id": "1.2", "class": "Domain"},
                      {"id": "0.1", "class": "Domain"}]})")),
              "created  Node 1.5  in Domain 1.2 < Domain 0.1");
}

}  // namespace
