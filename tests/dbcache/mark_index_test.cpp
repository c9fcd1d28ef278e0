// The mark lists case by case: what enters, what stays as a link, what leaves, what a walk gives.
#include <algorithm>
#include <gtest/gtest.h>

#include "mark_world.h"
#include "tql/query_text.h"

using namespace dbcache_test;
using dbcache::kMarks;
using dbcache::kRootId;
using dbcache::MarkIndex;
using dbcache::ObjectHandlerRef;

namespace {

class MarkTest : public ::testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(world.fault(), ""); }

    NodeId add(const NodeId& parent, const std::string& name, uint32_t class_number,
               std::optional<bool> active = {}) {
        Values values{text(prop::name, name)};
        if (active) values.push_back(flag(prop::active, *active));
        const NodeId id = world.create(parent, class_number, values);
        names[id] = name;
        return id;
    }
    NodeId domain(const NodeId& parent, const std::string& name) {
        return add(parent, name, cls::Domain);
    }
    NodeId check(const NodeId& parent, const std::string& name, bool active) {
        return add(parent, name, cls::Check, active);
    }
    void activate(const NodeId& id, bool active) { world.update(id, {flag(prop::active, active)}); }
    void move(const NodeId& id, const NodeId& parent) {
        world.update(id, {object(prop::parentId, parent)});
    }

    /// "r a(b* c*)": the list of a mark from the root on, each object with its stretch and a star
    /// when it is a member. "broken" when the pointers back or to the ends differ.
    std::string list(size_t mark = 0) {
        std::string out;
        std::vector<NodeId> ends;
        NodeId before;
        for (NodeId at = kRootId; !at.is_null();) {
            const dbcache::MarkRecord record = world.record(at, mark);
            if (!record) return at == kRootId ? "" : "broken: white";
            if (record->prev != before) return out + " broken: prev of " + names[at];
            out += (out.empty() || out.back() == '(' ? "" : " ") + names[at];
            if (record->marked) out += '*';
            if (record->last != at) {
                ends.push_back(record->last);
                out += '(';
            } else if (!record->marked) {
                return out + " broken: a link to nothing";
            }
            for (; !ends.empty() && ends.back() == at; ends.pop_back()) out += ')';
            before = at;
            at = record->next;
        }
        return ends.empty() ? out : out + " broken: last";
    }
    std::string members(const NodeId& origin, uint32_t mark = prop::activeMark) {
        std::string out;
        for (const NodeId& id : world.traverse(mark, origin))
            out += (out.empty() ? "" : " ") + names[id];
        return out;
    }
    /// What an index gives for a step below `origin`; "walk" when none fits.
    std::string matches(const tql::id_t& origin, const std::string& query) {
        tqlengine::HandlerList found;
        if (!world.store->resolver().obviousMatches(found, origin, tql::parse_pattern(query)))
            return "walk";
        std::string out;
        for (const auto& handler : found)
            out += (out.empty() ? "" : " ") + names[handler->tqlId().to_node_id_lenient()];
        return out;
    }
    /// Writes a mark record past all rules.
    void damage(const NodeId& id, const std::optional<mdb::MarkLinks>& links) {
        const ObjectHandlerRef handler = world.store->resolver().find_stored(id);
        dbcache::PropUpdate record(handler, prop::activeMark);
        links ? record.set(*links) : record.drop();
        record.close();
    }

    Hooks hooks;
    MarkWorld world{hooks};
    std::map<NodeId, std::string> names{{kRootId, "r"}};
};

}  // namespace

TEST_F(MarkTest, MembersBringTheirWayToTheRootAndTakeItAlong) {
    const NodeId a = domain(kRootId, "a");
    const NodeId b = domain(a, "b");
    EXPECT_EQ(list(), "");
    const NodeId c = check(b, "c", true);
    EXPECT_EQ(list(), "r(a(b(c*)))") << "white ancestors become links";
    const NodeId d = check(b, "d", false);
    activate(d, true);
    EXPECT_EQ(list(), "r(a(b(d* c*)))");
    const NodeId e = check(d, "e", true);
    const NodeId f = add(a, "f", cls::MultiCheck);
    EXPECT_EQ(list(), "r(a(f* b(d*(e*) c*)))");
    activate(d, false);
    EXPECT_EQ(list(), "r(a(f* b(d(e*) c*)))") << "a link as long as something is below";
    activate(c, false);
    EXPECT_EQ(list(), "r(a(f* b(d(e*))))");
    activate(e, false);
    EXPECT_EQ(list(), "r(a(f*))") << "links leave up to the first with another reason";
    activate(d, true);
    activate(e, true);
    activate(e, false);
    EXPECT_EQ(list(), "r(a(b(d*) f*))") << "and stop at a member";
    world.remove(f);
    world.remove(d);
    EXPECT_EQ(list(), "");
    EXPECT_EQ(list(1), "");
}

TEST_F(MarkTest, AMoveTakesTheWholeStretch) {
    const NodeId a = domain(kRootId, "a");
    const NodeId b = domain(kRootId, "b");
    const NodeId x = check(a, "x", true);
    const NodeId y = check(x, "y", false);
    const NodeId z = check(y, "z", true);
    const NodeId w = check(x, "w", true);
    const auto place = [&](const NodeId& id) {
        return world.store->resolver().find_stored(id)->location();
    };
    EXPECT_EQ(list(), "r(a(x*(w* y(z*))))");
    const mdb::block_handle_t inside[] = {place(y), place(w)};
    move(x, b);
    EXPECT_EQ(list(), "r(b(x*(w* y(z*))))");
    EXPECT_EQ(place(y), inside[0]);
    EXPECT_EQ(place(w), inside[1]);
    move(y, a);
    EXPECT_EQ(list(), "r(a(y(z*)) b(x*(w*)))") << "a link with members below goes on as a link";
    world.update(y, {object(prop::parentId, b), flag(prop::active, true)});
    EXPECT_EQ(list(), "r(b(y*(z*) x*(w*)))");
    world.update(y, {object(prop::parentId, w), flag(prop::active, false)});
    EXPECT_EQ(list(), "r(b(x*(w*(y(z*)))))");
    world.update(z, {object(prop::parentId, a), flag(prop::active, false)});
    EXPECT_EQ(list(), "r(b(x*(w*)))") << "moved and no member any more";
    world.update(z, {object(prop::parentId, b), flag(prop::active, true)});
    EXPECT_EQ(list(), "r(b(z* x*(w*)))") << "moved and a member now";
    move(a, b);
    EXPECT_EQ(list(), "r(b(z* x*(w*)))") << "white ones move without a trace";
    move(x, kRootId);
    move(b, x);
    EXPECT_EQ(list(), "r(x*(b(z*) w*))");
    world.remove(x);
    EXPECT_EQ(list(), "") << "a delete takes the stretch along";
}

TEST_F(MarkTest, AWalkGivesTheMembersOfTheSubtreeAlone) {
    const NodeId a = domain(kRootId, "a");
    const NodeId b = check(a, "b", true);
    const NodeId c = check(b, "c", false);
    const NodeId d = check(c, "d", true);
    const NodeId e = domain(kRootId, "e");
    const NodeId f = check(e, "f", true);
    const NodeId g = domain(e, "g");
    const struct {
        NodeId origin;
        std::string members;
    } cases[] = {
        {kRootId, "f b d"}, {a, "b d"}, {b, "b d"}, {c, "d"},     {d, "d"},
        {e, "f"},           {f, "f"},   {g, ""},    {{7, 7}, ""},
    };
    for (const bool reopened : {false, true}) {
        if (reopened) world.open();
        for (const auto& one : cases) EXPECT_EQ(members(one.origin), one.members);
    }
    world.remove(a);
    EXPECT_EQ(members(kRootId), "f");
    for (const NodeId& detached : {a, b, c, d}) EXPECT_EQ(members(detached), "");
    const auto tombstone = world.indexes->unique_find(mdb::node_id_index, a);
    ASSERT_TRUE(tombstone);
    EXPECT_EQ(dbcache::read_marks(*world.store, *tombstone), dbcache::MarkRecords{});
}

TEST_F(MarkTest, StepsOfAQueryAreAnsweredFromTheLists) {
    const NodeId a = domain(kRootId, "a");
    const NodeId b = check(a, "b", true);
    const NodeId c = check(a, "c", false);
    const NodeId d = domain(kRootId, "d");
    const NodeId e = add(d, "e", cls::MultiCheck);
    world.update(c, {object(prop::inherits, b)});
    EXPECT_EQ(list(1), "r(a(c*))");
    const tql::id_t root = tql::id_t::from_node_id(kRootId);
    const std::string id_of_b = b.to_string();
    const struct {
        tql::id_t origin;
        std::string query;
        std::string found;
    } cases[] = {
        {root, "Check{active = true}", "e b"},
        {root, "MultiCheck{active = true}", "e b"},
        {root, "Domain{active = true}", "walk"},
        {root, "Check{active = false}", "walk"},
        {root, "Check{active <> true}", "walk"},
        {root, "Check", "walk"},
        {root, "TagRuleMatch", "e b"},
        {root, "Domain{hasInherits = true}", "c"},
        {root, "Check{active = true & hasInherits = true}", "e b"},
        {root, "Check{hasInherits = false}", "walk"},
        {root, "Check{active = true & masterId = \"5.50\"}", "e b"},
        {root, "Check{active = true & id = \"" + id_of_b + "\"}", "b"},
        {tql::id_t::from_node_id(a), "Check{active = true}", "b"},
        {{a.first, a.second, 3}, "Check{active = true}", "b"},
        {tql::id_t::from_node_id(e), "Check{hasInherits = true}", ""},
    };
    for (const auto& one : cases) EXPECT_EQ(matches(one.origin, one.query), one.found) << one.query;
    EXPECT_EQ(world.value(c, prop::hasInherits), "true");
    EXPECT_EQ(world.value(b, prop::hasInherits), "false");
    EXPECT_EQ(world.value(a, prop::hasInherits), "-");
}

TEST_F(MarkTest, AClassThatKnowsNoMarkLiesOnTheWayAllTheSame) {
    const NodeId a = add(kRootId, "a", cls::CheckGroup);
    const NodeId b = domain(kRootId, "b");
    const NodeId c = check(a, "c", true);
    EXPECT_EQ(list(), "r(a(c*))");
    world.update(a, {text(prop::label, "the record stays")});
    move(a, b);
    EXPECT_EQ(list(), "r(b(a(c*)))");
    activate(c, false);
    EXPECT_EQ(list(), "");
}

TEST_F(MarkTest, AnIdThatNoRecordCanHoldIsRefused) {
    EXPECT_EQ(failure([&] {
                  world.create(kRootId, cls::Check, {text(prop::name, "far")}, 0, NodeId{256, 1});
              }),
              "10 Illegal id for a new object: \"256.1\", its first number must not be above 255");
    world.create(kRootId, cls::Check, {text(prop::name, "near"), flag(prop::active, true)}, 0,
                 NodeId{255, 1});
    names[{255, 1}] = "near";
    EXPECT_EQ(list(), "r(near*)");
}

TEST_F(MarkTest, AStrayThatAListingDeletesLeavesTheLists) {
    const NodeId a = domain(kRootId, "a");
    const NodeId b = check(a, "b", true);
    check(b, "c", true);
    check(kRootId, "d", true);
    world.store->resolver().find_stored(a)->rewrite_records([](auto& objects, auto& image) {
        objects.update_property(
            image, dbcache::PropertyNodeType(prop::nodeType, dbcache::node_type_t{nodetype::User}),
            false, false);
    });
    world.open();
    EXPECT_EQ(list(), "r(d* a(b*(c*)))");
    EXPECT_TRUE(world.children(a).empty());
    EXPECT_EQ(list(), "r(d*)");
}

TEST_F(MarkTest, WhatAHookChangesInTheListsIsNotForgotten) {
    const NodeId a = check(kRootId, "a", true);
    const NodeId b = check(kRootId, "b", false);
    const NodeId c = check(a, "c", false);
    // Each makes another object enter behind, in front of or below the one that is being written.
    for (auto* hook : {&hooks.after_update, &hooks.after_store}) {
        for (const NodeId& other : {b, c}) {
            *hook = [&](dbcache::ObjectHandler& handler) {
                if (handler.node_id() == a) activate(other, true);
            };
            world.update(a, {text(prop::label, std::string(300, 'x'))});
            EXPECT_EQ(list(), other == b ? "r(b* a*)" : "r(a*(c*))");
            world.update(a, {flag(prop::active, false)});
            EXPECT_EQ(list(), other == b ? "r(b*)" : "r(a(c*))");
            *hook = {};
            activate(other, false);
            EXPECT_EQ(list(), "");
            activate(a, true);
        }
    }
}

using MarkDeathTest = MarkTest;

TEST_F(MarkDeathTest, ABrokenListEndsTheProcess) {
    ::testing::GTEST_FLAG(death_test_style) = "fast";
    const NodeId a = domain(kRootId, "a");
    const NodeId b = check(a, "b", true);
    const NodeId c = check(a, "c", true);
    const NodeId white = domain(kRootId, "white");
    const NodeId gone{7, 7};
    ASSERT_EQ(list(), "r(a(c* b*))");
    MarkIndex marks(*world.store, prop::activeMark);
    const auto record = [&](const NodeId& id) { return *world.record(id, 0); };
    const auto with = [&](const NodeId& id, NodeId mdb::MarkLinks::*field, const NodeId& to) {
        mdb::MarkLinks links = record(id);
        links.*field = to;
        damage(id, links);
    };
    using Links = mdb::MarkLinks;
    const auto traverse = [&] { static_cast<void>(world.traverse(prop::activeMark, kRootId)); };
    const auto unlink_b = [&] { marks.unlink(a, c, b); };
    const auto link_at_a = [&](const NodeId& first, const NodeId& last) {
        static_cast<void>(marks.link(a, first, last));
    };
    const struct {
        std::string text;
        std::function<void()> act;
    } cases[] = {
        {"dereferencing empty PropUpdate",
         [&] {
             static_cast<void>(*dbcache::PropUpdate(world.store->resolver().find_stored(white),
                                                    prop::activeMark));
         }},
        {"Did not find object 7.7 in index_next",
         [&] { static_cast<void>(marks.index_next(gone)); }},
        {"Cycle detected in mark-index activeMark object 0.1",
         [&] { with(c, &Links::next, kRootId), traverse(); }},
        {"Cycle detected in mark-index activeMark object " + c.to_string(),
         [&] { with(c, &Links::next, c), traverse(); }},
        {"Did not find object 7.7 during mark-index traversal",
         [&] { with(c, &Links::next, gone), traverse(); }},
        {"prev is not nil on unlink", [&] { marks.unlink({}, a, b); }},
        {"Unlink invoked with white object", [&] { marks.unlink(white, a, b); }},
        {"Could not fetch prev: 7.7", [&] { marks.unlink(a, gone, b); }},
        {"Prev points to white object", [&] { marks.unlink(a, white, b); }},
        {"Next points to white object in unlink",
         [&] { with(b, &Links::next, white), unlink_b(); }},
        {"Ancestor is white object", [&] { damage(kRootId, {}), unlink_b(); }},
        {"Next points to white object in link",
         [&] { with(a, &Links::next, white), link_at_a(white, white); }},
        {"Could not locate last_id: 7.7", [&] { link_at_a(white, gone); }},
        {"Last points to white object", [&] { link_at_a(gone, white); }},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.text);
        EXPECT_DEATH(
            {
                const dbcache::StoreTransaction transaction(*world.store);
                one.act();
            },
            "Assertion failed: " + one.text);
    }
}

TEST_F(MarkTest, NothingComesAfterAWhiteObject) {
    const NodeId white = domain(kRootId, "white");
    MarkIndex marks(*world.store, prop::activeMark);
    try {
        static_cast<void>(marks.index_next(white));
        FAIL();
    } catch (const error::EFatal& failure) {
        EXPECT_EQ(failure.text(),
                  "Attempt to fetch next-pointer of white object " + white.to_string());
    }
}
