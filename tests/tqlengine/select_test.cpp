// Selects: what an object must be to match, what a pattern gives, and that index answers change the
// cost alone.
#include <gtest/gtest.h>

#include "fake_tree.h"
#include "select_model.h"
#include "support/answers.h"
#include "support/fake_clock.h"
#include "support/rng.h"
#include "tql/query_text.h"
#include "tqlengine/computed_handler.h"
#include "tqlengine/engine.h"
#include "tqlengine/requests.h"

namespace {

using tql::relop_t;

template <class Kind>
tql::condition_t where(uint32_t property, relop_t op, typename Kind::value_type value) {
    return {std::make_unique<Kind>(property, std::move(value)), op};
}

tql::condition_t where_id(const tql::id_t& id) {
    return where<tql::property_object_t>(prop::id, relop_t::eq, id);
}

tql::condition_t where_name(const std::string& name) {
    return where<tql::property_string_t>(prop::name, relop_t::eq, name);
}

struct Select : testing::Test {
    Select() { engine.add_resolver(tree); }

    dbms::Return_Tql_Select_Data run(const tql::pattern_t& pattern,
                                     std::vector<tql::id_t> roots = {{0, 1}}) {
        dbms::Tql_Select_Data request;
        request.root_ids.assign(roots.begin(), roots.end());
        request.pattern = pattern;
        tree.listings = 0;
        auto reply = support::received(tqlengine::process_select(request, context, report));
        EXPECT_EQ(tree.referenced, 0U);
        return reply;
    }

    std::string text(const tql::pattern_t& pattern, std::vector<tql::id_t> roots = {{0, 1}}) {
        const auto reply = run(pattern, std::move(roots));
        std::string all;
        if (reply.status != 0)
            all = fmt::format("status {}: {}", reply.status, reply.details.front().msg);
        for (const auto& result : reply.res) all += fake::text_of(result);
        return all;
    }

    fake::Tree tree;
    tqlengine::Engine engine;
    support::FakeClock clock;
    tqlengine::RequestContext context{engine, clock, queues::queue_t::wapi, {}, {}};
    tqlengine::SelectReport report;
};

// ---- one object against one step
// --------------------------------------------------------------------

TEST_F(Select, MatchesByClassTemplateFlagAndConditions) {
    fake::Object& node = tree.add(cls::Node, {5, 6}, &tree.root());
    node.set_name("web1");
    tql::add<tql::property_uint_t>(node.properties, prop::type, 10);
    tql::add_null<tql::property_string_t>(node.properties, prop::siblingName);
    struct Case {
        const char* what;
        const char* pattern;
        const char* expected;  // "yes", "no" or the text of the failure
    };
    const Case cases[] = {
        {"class", "Node", "yes"},
        {"any class", ".", "yes"},
        {"other class", "Check", "no"},
        {"no template", "Node#", "no"},
        {"name", R"(.{name = "web1"})", "yes"},
        {"other name", R"(.{name = "web2"})", "no"},
        {"name in other case", R"(.{name ~= "WEB1"})", "yes"},
        {"all must hold", R"(.{name = "web1" & type > uint:10})", "no"},
        {"null equals null", ".{siblingName = null}", "yes"},
        {"a property that the class doesn't have", ".{comment = null}", "no"},
        {"tested by the class itself", R"(.{label contains ""})", "yes"},
        {"another kind", ".{name = uint:1}", "status 11: Type mismatch, string != type of name"},
        {"id", R"(.{id = "5.6"})", "yes"},
        {"other id", R"(.{id = "5.7"})", "no"},
        {"null id", ".{id = null}", "no"},
        {"not an id", R"(.{id <> "5.7"})", "yes"},
        {"not null", ".{id <> null}", "yes"},
        {"id in set", R"(.{id in {"5.6", "5.7"}})", "yes"},
        {"id in other set", R"(.{id in {"5.7"}})", "no"},
        {"id in null", ".{id in null}", "no"},
        {"id greater", R"(.{id > "5.7"})", "status 11: Unknown relative operator"},
        {"id of another kind", R"(.{id = string:"5.6"})",
         "status 11: Type mismatch, object != type of id"},
        {"nothing to compare with", ".{- = null}",
         "status 9: Condition without a value in the pattern"},
    };
    for (const bool shortcuts : {true, false})
        for (const Case& row : cases) {
            SCOPED_TRACE(fmt::format("{}, shortcuts {}", row.what, shortcuts));
            tree.use_shortcuts = shortcuts;
            const auto reply = run(tql::parse_pattern(row.pattern), {{5, 6}});
            if (reply.status != 0)
                EXPECT_EQ(fmt::format("status {}: {}", reply.status, reply.details.front().msg),
                          row.expected);
            else
                EXPECT_STREQ(reply.res.empty() ? "no" : "yes", row.expected);
        }
}

TEST_F(Select, CountsTestsThatLookedAtProperties) {
    for (uint32_t n = 0; n < 4; ++n) tree.add(n < 2 ? cls::Node : cls::User, {7, n}, &tree.root());
    tql::pattern_t pattern(cls::Domain);
    pattern.next.emplace_back(cls::Node);
    pattern.next[0].where.push_back(where_name("nobody"));
    EXPECT_EQ(text(pattern), "");
    EXPECT_EQ(report.statistics.considered, 5U);
    EXPECT_EQ(report.statistics.object_matches, 5U);
    EXPECT_EQ(report.statistics.lengthy, 2U);
    EXPECT_EQ(report.statistics.included, 0U);
}

// ---- results
// ----------------------------------------------------------------------------------------

struct SelectSmallTree : Select {
    SelectSmallTree() {
        fake::Object& branch = tree.add(cls::Domain, {1, 2}, &tree.root());
        branch.set_name("branch");
        fake::Object& late = tree.add(cls::Node, {1, 9}, &branch);
        late.set_name("late");
        tree.add(cls::Node, {1, 4}, &branch).set_name("early");
        tree.add(cls::Check, {1, 5}, &late).set_name("ping");
        tree.add_template(cls::Check, 3, late).set_name("suggested");
        tree.add(cls::Domain, {1, 3}, &tree.root()).set_name("empty");
    }
};

TEST_F(SelectSmallTree, GivesWhatThePatternDescribes) {
    struct Case {
        const char* what;
        const char* pattern;
        const char* expected;
    };
    const Case cases[] = {
        {"children in the order of their keys", "Domain > Domain > Node[name]",
         "class 3 flags 0 id 0.1 tags\n"
         "  class 3 flags 0 id 1.2 tags\n"
         "    class 4 flags 0 id 1.4 tags 51=\"early\"\n"
         "    class 4 flags 0 id 1.9 tags 51=\"late\"\n"},
        {"$ keeps what has no match below", "Domain > Domain$ > Report",
         "class 3 flags 0 id 0.1 tags\n"
         "  class 3 flags 0 id 1.2 tags\n"
         "  class 3 flags 0 id 1.3 tags\n"},
        {"what follows a recursive step, and the way to it", "Domain* > Check", ""},
        {"through any class", ".* > Check@7",
         "class 3 flags 0 id 0.1 tags\n"
         "  class 3 flags 0 id 1.2 tags\n"
         "    class 4 flags 0 id 1.9 tags\n"
         "      class 1 flags 0 id 1.5 tags 7\n"},
        {"templates only when asked for", ".*^ > Node > Check#[name]",
         "class 3 flags 0 id 0.1 tags\n"
         "  class 4 flags 0 id 1.9 tags\n"
         "    class 1 flags 2 id  tags 51=\"suggested\"\n"},
        {"a hidden level", "Domain > Domain^ > Node",
         "class 3 flags 0 id 0.1 tags\n"
         "  class 4 flags 0 id 1.4 tags\n"
         "  class 4 flags 0 id 1.9 tags\n"},
        {"one node for an object on two branches", "Domain > ( Domain@1 | .@2[name] )",
         "class 3 flags 0 id 0.1 tags\n"
         "  class 3 flags 0 id 1.2 tags 1 2 51=\"branch\"\n"
         "  class 3 flags 0 id 1.3 tags 1 2 51=\"empty\"\n"},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(text(tql::parse_pattern(row.pattern)), row.expected);
    }
    EXPECT_EQ(report.statistics.doublets, 2U);
}

TEST_F(SelectSmallTree, RootsCountOnceInIdOrderAndKeepTheirParent) {
    tql::pattern_t pattern(cls::Domain);
    pattern.wanted_properties.insert(prop::parentId);
    EXPECT_EQ(text(pattern, {{1, 2}, {0, 1}, {4, 4}, {1, 2}, {}, {1, 2, 3}}),
              "class 3 flags 0 id 0.1 tags 2=null\n"
              "class 3 flags 0 id 1.2 tags 2=\"0.1\"\n");
    const auto reply = run(pattern, {{1, 2}});
    EXPECT_EQ(reply.res[0].properties.at(prop::parentId)->flags, tql::kFlagComputed);
}

TEST_F(SelectSmallTree, ShortcutVisitsTheChainAlone) {
    for (uint32_t n = 0; n < 100; ++n) tree.add(cls::Node, {2, n}, tree.lookup({1, 3}));
    const tql::pattern_t pattern = tql::parse_pattern(R"(Domain* > Node > Check{id = "1.5"})");
    const char* expected =
        "class 3 flags 0 id 0.1 tags\n"
        "  class 3 flags 0 id 1.2 tags\n"
        "    class 4 flags 0 id 1.9 tags\n"
        "      class 1 flags 0 id 1.5 tags\n";
    EXPECT_EQ(text(pattern), expected);
    EXPECT_EQ(tree.listings, 0U);
    EXPECT_EQ(text(pattern, {{1, 3}}), "");  // the hit lies elsewhere
    EXPECT_EQ(tree.listings, 0U);
    tree.use_shortcuts = false;
    EXPECT_EQ(text(pattern), expected);
    EXPECT_GT(tree.listings, 100U);
}

struct Singleton final : tqlengine::TqlSingletonHandler {
    explicit Singleton(uint32_t class_number) : TqlSingletonHandler(class_number) {}
    void tqlChildrenHandlers(tqlengine::HandlerList&, const tql::pattern_t&) override {}
    void tqlEncode(const tql::pattern_t&, tql::property_map_t&) override {}
};

TEST_F(Select, SingletonAnswersForEveryRoot) {
    Singleton singleton(cls::MetaInfo);
    engine.add_singleton(singleton);
    EXPECT_EQ(text(tql::pattern_t(cls::MetaInfo), {{9, 9}, {8, 8}}),
              "class 16 flags 0 id  tags\nclass 16 flags 0 id  tags\n");
    EXPECT_EQ(singleton.reference_count(), 0U);
}

// ---- depth and cost
// ---------------------------------------------------------------------------------

tql::pattern_t chain_pattern(size_t depth, uint32_t flags) {
    tql::pattern_t pattern(cls::Any, flags);
    for (size_t n = 1; n < depth; ++n) {
        tql::pattern_t above(cls::Any, flags);
        above.next.push_back(std::move(pattern));
        pattern = std::move(above);
    }
    return pattern;
}

TEST_F(Select, DeepTreeAndDeepPatternEndInAnAnswer) {
    constexpr uint32_t kLevels = 10'000;
    fake::Object* deepest = &tree.root();
    for (uint32_t n = 0; n < kLevels; ++n) deepest = &tree.add(cls::Domain, {3, n}, deepest);
    tree.add(cls::Node, {4, 0}, deepest);

    // From either road.
    tql::pattern_t pattern(cls::Domain, tql::kPatternRecursive | tql::kPatternSplice);
    pattern.next.emplace_back(cls::Node);
    const char* expected = "class 3 flags 0 id 0.1 tags\n  class 4 flags 0 id 4.0 tags\n";
    EXPECT_EQ(text(pattern), expected);
    pattern.next[0].where.push_back(where_id({4, 0}));
    EXPECT_EQ(text(pattern), expected);

    const auto whole = run(tql::pattern_t(cls::Domain, tql::kPatternRecursive));
    EXPECT_EQ(report.results, kLevels + 1);
    const tql::result_t* at = &whole.res.front();
    for (uint32_t n = 0; n < kLevels; ++n) at = &at->children.at(0);
    EXPECT_EQ(at->id, (tql::id_t{3, kLevels - 1}));
    EXPECT_EQ(text(chain_pattern(tql::kMaxPatternDepth + 1, 0)),
              "status 12: The pattern is nested more than 1000 steps deep");
    EXPECT_EQ(run(chain_pattern(tql::kMaxPatternDepth, 0)).status, 0U);
    tql::pattern_t wide(cls::Domain);
    wide.next.resize(engine.limits().pattern_steps);
    EXPECT_EQ(text(wide), "status 12: The pattern has more than 20000 steps");
}

TEST_F(Select, MultiplyingPatternIsCutOff) {
    fake::Object* below = &tree.root();
    for (uint32_t n = 0; n < 30; ++n) below = &tree.add(cls::Domain, {3, n}, below);
    tqlengine::SelectLimits limits;
    limits.considered = 100'000;
    engine.set_limits(limits);
    EXPECT_EQ(text(chain_pattern(30, tql::kPatternRecursive)),
              "status 12: The pattern has to look at more than 100000 objects");
}

// ---- random trees and patterns
// ----------------------------------------------------

struct RandomSelect {
    explicit RandomSelect(uint64_t seed) : rng(seed) {
        engine.add_resolver(tree);
        const size_t objects = 2 + rng.below(40);
        while (tree.size() < objects) add_object();
    }

    void add_object() {
        fake::Object& parent = tree.object(rng.below(tree.size()));
        if (parent.flags == tqlengine::kObjectTemplate) return;
        const auto number = static_cast<uint32_t>(tree.size());
        fake::Object& made = rng.chance(10) ? tree.add_template(random_class(), number, parent)
                                            : tree.add(random_class(), {1, 1000 - number}, &parent);
        made.set_name(random_name());
        if (rng.chance(20))
            tql::add<tql::property_object_t>(made.properties, prop::masterId, random_id());
        if (rng.chance(20))
            tql::add<tql::property_object_t>(made.properties, prop::alertNotifyObject, random_id());
    }

    uint32_t random_class() { return std::array{cls::Domain, cls::Node, cls::Check}[rng.below(3)]; }
    std::string random_name() { return std::string(1, static_cast<char>('a' + rng.below(3))); }
    tql::id_t random_id() { return {1, 1000 - static_cast<uint32_t>(rng.below(tree.size() + 2))}; }

    tql::condition_t random_condition() {
        switch (rng.below(6)) {
            case 0:
                return where_id(random_id());
            case 1:
                return where<tql::property_object_set_t>(prop::id, relop_t::in,
                                                         {random_id(), random_id(), random_id()});
            case 2:
                return where<tql::property_object_t>(prop::masterId, relop_t::eq, random_id());
            case 3:
                return where<tql::property_object_t>(prop::alertNotifyObject, relop_t::eq,
                                                     random_id());
            case 4:
                return where<tql::property_object_t>(prop::id, relop_t::ne, random_id());
            default:
                return where_name(random_name());
        }
    }

    tql::pattern_t random_pattern(int levels) {
        tql::pattern_t step(rng.chance(40) ? cls::Any : random_class());
        if (rng.chance(35)) step.flags |= tql::kPatternRecursive;
        if (rng.chance(20)) step.flags |= tql::kPatternKeep;
        if (rng.chance(15)) step.flags |= tql::kPatternSplice;
        if (rng.chance(5)) step.flags |= tql::kPatternTemplates;
        if (rng.chance(10)) step.flags |= tql::kPatternAllProperties;
        if (rng.chance(40)) step.wanted_properties.insert(prop::name);
        if (rng.chance(50)) step.tag = static_cast<uint32_t>(rng.below(4));
        if (rng.chance(30)) step.where.push_back(random_condition());
        if (levels == 0) return step;
        for (uint64_t n = rng.below(3); n > 0; --n) step.next.push_back(random_pattern(levels - 1));
        if (rng.chance(30)) step.cond_next.push_back(random_pattern(levels - 1));
        return step;
    }

    support::Rng rng;
    fake::Tree tree;
    tqlengine::Engine engine;
};

// ---- random subscriptions against asking everyone
// ---------------------------------------------------

constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

tql::value_t random_value(support::Rng& rng) {
    const auto number = static_cast<uint32_t>(rng.below(3));
    tql::value_t value;
    switch (rng.below(4)) {
        case 0:
            value = std::make_unique<tql::property_string_t>(
                prop::comment, std::array{"alpha", "ALPHA", "beta"}[number]);
            break;
        case 1:
            value = std::make_unique<tql::property_real_t>(prop::order,
                                                           std::array{0.0, -0.0, kNan}[number]);
            break;
        case 2:
            value = std::make_unique<tql::property_enum_t>(prop::snmpPort, 0x10001, number, 0);
            break;
        default:
            value = std::make_unique<tql::property_object_t>(prop::masterId, tql::id_t(1, number));
    }
    value->is_null = rng.chance(20);
    return value;
}

/// Demands of several values at once, mixed with other conditions in any order.
void add_demands(RandomSelect& world, tql::pattern_t& step) {
    for (uint64_t n = world.rng.below(4); n > 0; --n) {
        if (world.rng.chance(15)) {
            step.where.push_back(where_name(world.random_name()));
            step.where.back().value->property = prop::label;
        } else if (world.rng.chance(30)) {
            step.where.push_back(world.random_condition());
        } else {
            const std::array kOperators{relop_t::eq, relop_t::eq, relop_t::ieq, relop_t::ne};
            step.where.push_back({random_value(world.rng), kOperators[world.rng.below(4)]});
        }
    }
    for (tql::pattern_t& successor : step.next) add_demands(world, successor);
}

TEST(SubscriptionRandom, AWriteTouchesThoseWhomAskingEveryoneWouldFind) {
    constexpr uint32_t kSubscriptions = 60;
    size_t touched = 0;
    size_t spared = 0;
    for (uint64_t seed = 1; seed <= 60; ++seed) {
        RandomSelect world(seed);
        tqlengine::Subscriptions& subscriptions = world.engine.subscriptions();
        std::vector<tql::pattern_t> patterns;
        std::vector<std::set<tql::id_t>> roots;
        for (size_t n = 0; n < world.tree.size(); ++n)
            for (int values = 0; values < 4; ++values) {
                tql::value_t value = random_value(world.rng);
                world.tree.object(n).properties[value->property] = value;
            }
        for (uint32_t id = 0; id < kSubscriptions; ++id) {
            patterns.push_back(world.random_pattern(3));
            if (id % 2 == 0) add_demands(world, patterns.back());
            roots.push_back({world.random_id(), {}});
            if (world.rng.chance(70)) roots.back().insert({0, 1});
            if (world.rng.chance(5))  // more than are worth an entry each
                for (uint32_t n = 0; n < 300; ++n) roots.back().insert({7, n});
            subscriptions.watch(id + 1, roots[id], patterns[id], false);
        }
        for (size_t n = 0; n < world.tree.size(); ++n) {
            model::Way<fake::Object> way;
            for (auto* step = &world.tree.object(n); step; step = step->parent())
                way.insert(way.begin(), step);
            subscriptions.note(*way.back());
            std::set<uint32_t> noted;
            while (const auto id = subscriptions.take_reevaluation()) noted.insert(*id);
            for (uint32_t id = 0; id < kSubscriptions; ++id) {
                bool expected = false;
                for (size_t place = 0; place < way.size(); ++place)
                    expected = expected || (!way[place]->tqlId().empty() &&
                                            roots[id].contains(way[place]->tqlId()) &&
                                            model::would_match(way, place, patterns[id]));
                ASSERT_EQ(noted.contains(id + 1), expected)
                    << "seed " << seed << " object " << n << ": "
                    << tql::pattern_text(patterns[id]);
                ++(expected ? touched : spared);
                if (expected) subscriptions.watch(id + 1, roots[id], patterns[id], false);
            }
        }
        for (uint32_t id = 1; id <= kSubscriptions; id += 2) subscriptions.forget(id);
        subscriptions.note(world.tree.root());
        while (const auto id = subscriptions.take_reevaluation()) ASSERT_EQ(*id % 2, 0U);
        ASSERT_EQ(world.tree.referenced, 0U);
    }
    EXPECT_GT(touched, 10'000U);
    EXPECT_GT(spared, 10'000U);
}

}  // namespace
