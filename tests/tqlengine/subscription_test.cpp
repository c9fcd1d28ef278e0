// Subscriptions as the engine sees them: whom a write touches, and what a patch holds.
#include <gtest/gtest.h>

#include "fake_tree.h"
#include "support/answers.h"
#include "support/fake_clock.h"
#include "tql/query_text.h"
#include "tqlengine/engine.h"
#include "tqlengine/requests.h"

namespace {

using tqlengine::kSelectPatchable;

/// "0.1!(1.1!4=a(2.1))": id, "!" for the tag of the way, other tags, the name if wanted, children.
std::string brief(const tql::result_t& node) {
    std::string text = node.id.to_string();
    for (const uint32_t tag : node.tags)
        text += tag == tqlengine::kPatchPath ? "!" : fmt::format("#{}", tag);
    const auto name = node.properties.find(prop::name);
    if (name != node.properties.end()) text += "=" + name->second->print();
    if (node.children.empty()) return text;
    text += "(";
    for (const tql::result_t& child : node.children)
        text += (text.back() == '(' ? "" : " ") + brief(child);
    return text + ")";
}

/// The root 0.1 with a domain "a" (1.1), which holds the node "x" (2.1) and a domain "b" (1.2) with
/// the node "y" (2.2); beside them the node "z" (2.3). Below 2.1 stands a computed object.
struct Subscribing : testing::Test {
    Subscribing() {
        engine.add_resolver(tree);
        a.set_name("a");
        b.set_name("b");
        x.set_name("x");
        y.set_name("y");
        z.set_name("z");
        part.flags = tqlengine::kObjectComputed;
    }
    ~Subscribing() override { EXPECT_EQ(tree.referenced, 0U); }

    void subscribe(uint32_t id, const std::string& pattern, uint32_t flags = kSelectPatchable,
                   std::list<tql::id_t> roots = {{0, 1}}) {
        dbms::Tql_Select_Data& request = requests[id];
        request = {std::move(roots), tql::parse_pattern(pattern),
                   flags | tqlengine::kSelectSubscribe, 0};
        tqlengine::SelectReport report;
        (void)tqlengine::process_select(request, context, report, id);
    }

    void update(
        fake::Object& object, const std::function<void()>& change = [] {}) {
        tree.during_write = [&](auto&) { change(); };
        tqlengine::process_update({object.tqlId(), object.version, {}, 0, {}}, context);
        EXPECT_FALSE(object.watched());
    }
    void rename(fake::Object& object, const std::string& name) {
        update(object, [&] { object.set_name(name); });
    }

    /// All that is due, each as "SUBSCRIPTION:WHAT ".
    std::string due() {
        std::string text;
        while (const auto patch = engine.subscriptions().take_patch()) {
            const auto tree_of_patch = support::received(
                patch->object,
                tqlengine::process_patch(patch->object, requests.at(patch->subscription), context));
            text += fmt::format(
                "{}:{} ", patch->subscription,
                tree_of_patch ? brief(*tree_of_patch) : patch->object.to_string() + " gone");
        }
        while (const auto id = engine.subscriptions().take_reevaluation())
            text += fmt::format("{}:again ", *id);
        EXPECT_EQ(tree.referenced, 0U);
        return text;
    }

    fake::Tree tree;
    fake::Object& a = tree.add(cls::Domain, {1, 1}, &tree.root());
    fake::Object& x = tree.add(cls::Node, {2, 1}, &a);
    fake::Object& part = tree.add(cls::Check, {2, 1, 7}, &x);
    fake::Object& b = tree.add(cls::Domain, {1, 2}, &a);
    fake::Object& y = tree.add(cls::Node, {2, 2}, &b);
    fake::Object& z = tree.add(cls::Node, {2, 3}, &tree.root());
    tqlengine::Engine engine;
    support::FakeClock clock;
    tqlengine::RequestContext context{engine, clock, queues::queue_t::wapi, {1, 6}, {}};
    std::map<uint32_t, dbms::Tql_Select_Data> requests;
};

TEST_F(Subscribing, AWriteGivesThePatchOfWhatItTouched) {
    struct Case {
        const char* what;
        const char* pattern;
        std::function<void()> write;
        const char* due;
    };
    const std::vector<Case> cases{
        {"seen all the time", "Domain* > Node[name]", [&] { rename(y, "y2"); },
         "1:0.1!(1.1!(1.2!(2.2!=\"y2\"))) "},
        {"on the way", "Domain* > Node", [&] { rename(b, "b2"); }, "1:0.1!(1.1!(1.2!(2.2))) "},
        {"of another class", "Domain* > Domain", [&] { rename(y, "y"); }, ""},
        {"too deep for plain steps", "Domain > Node", [&] { rename(x, "x"); }, ""},
        {"comes into the selection", "Domain* > Node{name = \"new\"}", [&] { rename(y, "new"); },
         "1:0.1!(1.1!(1.2!(2.2!))) "},
        {"leaves it by a value", "Domain* > Node{name = \"y\"}", [&] { rename(y, "other"); },
         "1:2.2 gone "},
        {"leaves it by a move", "Domain{id = \"0.1\"} > Domain{id = \"1.1\"} > Node",
         [&] { update(x, [&] { x.move_to(&tree.root()); }); }, "1:2.1 gone "},
        {"moves inside", "Domain* > Node", [&] { update(x, [&] { x.move_to(&b); }); },
         "1:0.1!(1.1!(1.2!(2.1!))) "},
        {"moves in", "Domain > Node", [&] { update(x, [&] { x.move_to(&tree.root()); }); },
         "1:0.1!(2.1!) "},
        {"what stands beside comes along", "Domain > ( Domain[name] : Node[name] )",
         [&] { rename(a, "a2"); }, "1:0.1!(1.1!=\"a2\" 2.3=\"z\") "},
        {"beside a recursive step", "Domain* > ( Domain{name = \"b\"} : Node[name] )",
         [&] { rename(b, "b"); }, "1:0.1!(1.1!(1.2! 2.1=\"x\") 2.3=\"z\") "},
        {"reached by such a step alone", "Domain > ( Domain : Node[name] )",
         [&] { rename(z, "z2"); }, "1:0.1!(2.3!=\"z2\") "},
        {"a computed object", "Domain* > Node[name] > Check", [&] { update(part); },
         "1:0.1!(1.1!(2.1!=\"x\"(2.1.7))) "},
        {"found from where a kept recursive step stands", "Domain*$ > Domain > Node",
         [&] { rename(x, "x"); }, "1:0.1!(1.1!(2.1!)) "},
        {"tags of the steps", "Domain*@1 > Node@2", [&] { rename(x, "x"); },
         "1:0.1#1!(1.1#1!(2.1#2!)) "},
        {"hidden on the way", "Domain > Domain^ > Node", [&] { rename(x, "x"); },
         "1:0.1!(1.1!(2.1!)) "},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.what);
        subscribe(1, one.pattern);
        one.write();
        EXPECT_EQ(due(), one.due);
        engine.subscriptions().forget(1);
        x.move_to(&a);
        y.set_name("y");
        b.set_name("b");
    }
}

TEST_F(Subscribing, CreateAndDeleteAreTold) {
    subscribe(1, "Domain* > Node[name]");
    subscribe(2, "Domain* > Node", 0);
    std::vector<tql::value_t> name;
    name.push_back(std::make_unique<tql::property_string_t>(prop::name, "new"));
    tqlengine::process_create({{1, 2}, {2, 9}, cls::Node, name, 0, {}}, context);
    EXPECT_EQ(due(), "1:0.1!(1.1!(1.2!(2.9!=\"new\"))) 2:again ");

    // The second one is told of nothing until it has been evaluated again.
    tree.during_write = [&](auto&) { tree.take_out(y); };
    tqlengine::process_delete({{2, 2}, {}, {}, false}, context);
    EXPECT_EQ(due(), "1:2.2 gone ");
    subscribe(2, "Domain* > Node", 0);
    tree.during_write = [](auto&) { throw errors::tql_dont_delete(); };
    tqlengine::process_delete({{2, 3}, {}, {}, false}, context);
    EXPECT_EQ(due(), "1:0.1!(2.3!=\"z\") 2:again ");
}

TEST_F(Subscribing, WhatIsDueIsDueOnceAndInOrder) {
    subscribe(3, "Domain > Node");
    subscribe(1, "Domain* > Node");
    subscribe(2, "Domain* > Node", 0);
    rename(z, "one");
    rename(x, "two");
    rename(z, "three");
    EXPECT_EQ(engine.subscriptions().watched(), 2U);
    EXPECT_EQ(due(), "1:0.1!(1.1!(2.1!)) 1:0.1!(2.3!) 3:0.1!(2.3!) 2:again ");
    // A write that fails has been announced all the same.
    update(z, [] { throw errors::tql(errors::ERR_ILLEGAL_VALUE, "no"); });
    engine.subscriptions().forget(1);
    EXPECT_EQ(due(), "3:0.1!(2.3!) ");
    rename(x, "five");
    EXPECT_EQ(due(), "");
}

TEST_F(Subscribing, TheFirstRootInOrderThatLeadsThereGivesThePatch) {
    subscribe(1, "Domain* > Node", kSelectPatchable, {{1, 2}, {7, 7}, {0, 1}, {1, 1}});
    subscribe(2, "Domain > Node", kSelectPatchable, {{1, 2}, {7, 7}, {0, 1}, {1, 1}, {}});
    subscribe(3, "Node[parentId]", kSelectPatchable, {{2, 2}});
    rename(y, "y");
    EXPECT_EQ(due(), "1:0.1!(1.1!(1.2!(2.2!))) 2:1.2!(2.2!) 3:2.2! ");
}

// Nobody may lose a write because somebody else subscribed to nonsense.
TEST_F(Subscribing, AConditionThatCannotBeTestedCountsAsTouched) {
    subscribe(1, "Domain* > Node{id > \"1.1\"}");
    subscribe(2, "Domain* > Node{id > \"1.1\"}", 0);
    subscribe(3, "Domain* > Node[name]");
    rename(x, "kept");
    EXPECT_EQ(tql::as_string(*x.properties.at(prop::name)), "kept");
    const auto patch = engine.subscriptions().take_patch();
    ASSERT_TRUE(patch);
    EXPECT_EQ(patch->subscription, 1U);
    EXPECT_THROW((void)tqlengine::process_patch(patch->object, requests.at(1), context),
                 errors::tql_incomparable);
    EXPECT_EQ(due(), "3:0.1!(1.1!(2.1!=\"kept\")) 2:again ");
}

TEST_F(Subscribing, WhoDemandsAnotherValueIsNotAsked) {
    constexpr uint32_t kNames = 1'000;
    for (uint32_t n = 1; n <= kNames; ++n)
        engine.subscriptions().watch(
            n, {{0, 1}}, tql::parse_pattern(fmt::format("Domain* > Node{{name = \"{}\"}}", n)),
            false);
    x.encoded = 0;
    rename(x, "7");
    rename(x, "8");
    EXPECT_EQ(due(), "7:again 8:again ");
    EXPECT_LE(x.encoded, 8U);

    // What is demanded can't be compared with what x holds now: for all that anybody knows, they
    // all are touched.
    x.properties[prop::name] = std::make_unique<tql::property_uint_t>(prop::name, 9U);
    update(x);
    EXPECT_EQ(engine.subscriptions().watched(), 0U);
}

TEST_F(Subscribing, DepthCostsNeitherStackNorSquares) {
    constexpr uint32_t kLevels = 10'000;
    fake::Object* deepest = &tree.root();
    for (uint32_t n = 0; n < kLevels; ++n) deepest = &tree.add(cls::Domain, {3, n}, deepest);
    fake::Object& node = tree.add(cls::Node, {4, 0}, deepest);
    subscribe(1, "Domain*^ > Node");
    engine.subscriptions().watch(
        2, {{0, 1}}, tql::parse_pattern("Domain* > Domain* > Domain* > Node{name = \"gone\"}"),
        false);
    rename(node, "deep");
    const auto patch = engine.subscriptions().take_patch();
    ASSERT_TRUE(patch);
    tqlengine::SelectStatistics cost;
    const auto found = engine.evaluatePatch(patch->object, {{0, 1}}, requests.at(1).pattern, cost);
    ASSERT_TRUE(found);
    EXPECT_LE(cost.considered, 3 * kLevels);
    EXPECT_EQ(due(), "");
}

}  // namespace
