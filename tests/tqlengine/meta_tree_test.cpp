// What the server says about itself, asked for by selects as a client would.
#include "tqlengine/meta_tree.h"

#include <gtest/gtest.h>

#include "select_model.h"
#include "support/answers.h"
#include "support/fake_clock.h"
#include "tql/query_text.h"
#include "tqlengine/engine.h"
#include "tqlengine/requests.h"

namespace {

constexpr const char* kFile = R"(
class Node "A node" { on_delete "gone" on_create "made";
  template "some" { on_create "t0"; }
  template "none" { on_create "t1"; }
  group "Agent" { }
  group "Rest" required_experience 3 {
    "plain" "P";
    object { "NodeSummary", "full" } "F" unit "s" null "never" values "v" handler "h" description "d"
      blobmime "m" password multiline hidden_create special { "1" "one" } special { "0" "zero" };
  }
}
class Alarm "Listed behind, as in the file" { }
)";

struct MetaTree : testing::Test {
    MetaTree() { meta_tree.register_with(engine); }

    std::string select(const char* pattern, std::list<tql::id_t> roots = {{0, 1}}) {
        const auto reply = support::received(tqlengine::process_select(
            {.root_ids = std::move(roots), .pattern = tql::parse_pattern(pattern)}, context,
            report));
        EXPECT_EQ(reply.status, 0U);
        std::string text;
        for (const auto& result : reply.res) text += fake::text_of(result);
        return text;
    }

    tqlengine::MetaTree meta_tree{tqlengine::parse_layouts(kFile), "/opt/report"};
    tqlengine::Engine engine;
    support::FakeClock clock;
    tqlengine::RequestContext context{engine, clock, queues::queue_t::wapi, {}, {}};
    tqlengine::SelectReport report;
};

TEST_F(MetaTree, LayoutsComeInTheOrderOfTheFile) {
    EXPECT_EQ(select("MetaInfo > ClassLayout[name, label]"),
              R"(class 16 flags 0 id  tags
  class 23 flags 1 id  tags 51="Node" 2100="A node"
  class 23 flags 1 id  tags 51="Alarm" 2100="Listed behind, as in the file"
)");
    EXPECT_EQ(
        select(R"(MetaInfo! > ClassLayout!{name = "Node"} > (TemplateLayout! | GroupLayout!))"),
        R"(class 16 flags 0 id  tags
  class 23 flags 1 id  tags 51="Node" 2100="A node" 2101="gone" 2102="made"
    class 24 flags 1 id  tags 2100="Agent" 2200=0 2201=0
    class 24 flags 1 id  tags 2100="Rest" 2200=1 2201=3
    class 73 flags 1 id  tags 52="some" 2102="t0" 2200=0
    class 73 flags 1 id  tags 52="none" 2102="t1" 2200=1
)");
    EXPECT_EQ(select("MetaInfo > .*^ > PropertyLayout!$ > PropertySpecialValue!"),
              R"(class 16 flags 0 id  tags
  class 25 flags 1 id  tags 51="plain" 55=false 150=false 151=false 152=null 153="" 154="" 1800="" 2100="P" 2200=0 2300="" 2301="" 2302=""
  class 25 flags 1 id  tags 51="full" 55=true 150=true 151=true 152="h" 153="m" 154="v" 1800="d" 2100="F" 2200=1 2300="s" 2301="never" 2302="NodeSummary"
    class 26 flags 1 id  tags 1700="one" 2000="1"
    class 26 flags 1 id  tags 1700="zero" 2000="0"
)");
}

TEST_F(MetaTree, AStepListsItsOwnClassAlone) {
    // Of the nineteen enumerations and two layouts, those of the step are looked at.
    (void)select("MetaInfo > ClassLayout");
    EXPECT_EQ(report.statistics.considered, 1U + 2);
    (void)select("MetaInfo > Enumeration");
    EXPECT_EQ(report.statistics.considered, 1U + 19);
    (void)select("MetaInfo > .");
    EXPECT_EQ(report.statistics.considered, 1U + 21);
    EXPECT_EQ(select("MetaInfo > Node"), "");
    EXPECT_EQ(select("MetaInfo > .#"), "");
    EXPECT_EQ(select("MetaInfo", {}), "");
    EXPECT_EQ(select(R"(MetaInfo! > Enumeration[name, type]{name = "StateAction"} > )"
                     "EnumerationValue!{value > uint:0}"),
              R"(class 16 flags 0 id  tags
  class 12 flags 1 id  tags 51="StateAction" 500=65538
    class 18 flags 1 id  tags 1700="Warn" 2000=1
    class 18 flags 1 id  tags 1700="Alert" 2000=2
)");
}

TEST_F(MetaTree, TheClusterIsToldAsItIs) {
    EXPECT_EQ(select("ClusterInfo!", {{9, 9}}),
              "class 15 flags 0 id  tags 1901=null 1902=true 1906=\"/opt/report\"\n");
    EXPECT_EQ(select("ClusterInfo[allUp]"), "class 15 flags 0 id  tags 1902=true\n");
}

}  // namespace
