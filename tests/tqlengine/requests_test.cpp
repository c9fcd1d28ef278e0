// Creates, updates and deletes as they come in by event: codes and texts of failures, what the
// watchers of the tree hear, and that nothing stays behind whatever happens.
#include "tqlengine/requests.h"

#include <gtest/gtest.h>

#include "fake_tree.h"
#include "support/fake_clock.h"
#include "tqlengine/computed_handler.h"

namespace {

using tqlengine::object_operation_t;

/// A computed object, of which the writes alone are of interest.
struct Computed final : tqlengine::TqlComputedObjectHandler {
    explicit Computed(uint32_t class_number) : TqlComputedObjectHandler(class_number) {}
    void tqlChildrenHandlers(tqlengine::HandlerList&, const tql::pattern_t&) override {}
    tqlengine::HandlerRef tqlParentHandler() override { return {}; }
    void tqlEncode(const tql::pattern_t&, tql::property_map_t&) override {}
    void tqlRelease() noexcept override {}
};

struct ComputedResolver final : tqlengine::TqlIdResolver {
    tqlengine::HandlerRef find(const tql::id_t& id) override {
        return tqlengine::HandlerRef(id == tql::id_t(8, 8) ? &computed : nullptr);
    }
    bool obviousMatches(tqlengine::HandlerList&, const tql::id_t&, const tql::pattern_t&) override {
        return false;
    }
    void erase(tqlengine::HandlerRef) override {}
    Computed computed{cls::StatusInfo};
};

struct Requests : testing::Test {
    Requests() {
        engine.add_resolver(tree);
        engine.add_resolver(computed);
        engine.set_operation_hook([this](auto& handler, object_operation_t operation) {
            heard += fmt::format("{}:{} ", static_cast<uint32_t>(operation),
                                 handler.tqlId().to_string());
        });
        node.version = {1, 5};
    }
    ~Requests() override {
        EXPECT_EQ(tree.referenced, 0U);
        EXPECT_FALSE(node.watched());
        EXPECT_TRUE(context.user.is_null());
    }

    template <class Reply>
    static std::string outcome(const Reply& reply) {
        std::string text = fmt::format("{}", reply.status);
        for (const auto& detail : reply.details)
            text += fmt::format(" {}:{}", detail.msg_type, detail.msg);
        return text;
    }
    std::string create(dbms::Tql_Create_Data request) {
        const auto reply = tqlengine::process_create(request, context);
        EXPECT_EQ(reply.new_id, request.new_id);
        EXPECT_EQ(reply.new_version, context.new_version);
        return outcome(reply);
    }
    std::string update(const dbms::Tql_Update_Data& request) {
        const auto reply = tqlengine::process_update(request, context);
        EXPECT_EQ(reply.new_version, context.new_version);
        return outcome(reply);
    }
    std::string remove(const dbms::Tql_Delete_Data& request) {
        return outcome(tqlengine::process_delete(request, context));
    }
    template <class Failure>
    void fail_with(Failure failure) {
        tree.during_write = [failure](auto&) { throw failure; };
    }

    fake::Tree tree;
    ComputedResolver computed;
    fake::Object& node = tree.add(cls::Node, {1, 2}, &tree.root());
    tqlengine::Engine engine;
    support::FakeClock clock;
    tqlengine::RequestContext context{engine, clock, queues::queue_t::wapi, {1, 6}, {}};
    std::string heard;
};

TEST_F(Requests, CreateAnswersAndTells) {
    struct Case {
        const char* what;
        dbms::Tql_Create_Data request;
        const char* expected;
        const char* heard;
    };
    const tql::id_t root(0, 1);
    const std::vector<Case> cases{
        {"a child", {root, {1, 3}, cls::Node, {}, 0, {}}, "0", "0:1.3 "},
        {"something left out", {root, {1, 4}, cls::Node, {}, 8, {}}, "16", "0:1.4 "},
        {"no such parent", {{9, 9}, {1, 5}, cls::Node, {}, 0, {}}, "1 3:9.9 not found", ""},
        {"illegal child",
         {root, {1, 6}, cls::User, {}, 0, {}},
         "5 3:User not allowed as child of Domain",
         ""},
        {"the id is taken", {root, {1, 2}, cls::Node, {}, 0, {}}, "4 3:1.2 exists already", ""},
        {"no id", {root, {}, cls::Node, {}, 0, {}}, "10 3:Illegal id for a new object: \"\"", ""},
        {"id of a part",
         {root, {1, 2, 3}, cls::Node, {}, 0, {}},
         "10 3:Illegal id for a new object: \"1.2.3\"",
         ""},
        {"user isn't an object",
         {root, {1, 7}, cls::Node, {}, 0, {1, 2, 3}},
         "14 3:toNodeId invoked on an id_t of size != 2",
         ""},
        {"no value",
         {root, {1, 8}, cls::Node, std::vector<tql::value_t>(1), 0, {}},
         "9 3:Property without a value",
         ""},
        {"below a computed object",
         {{8, 8}, {1, 9}, cls::Node, {}, 0, {}},
         "15 3:Cannot create children of computed objects",
         ""},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.what);
        heard.clear();
        EXPECT_EQ(create(row.request), row.expected);
        EXPECT_EQ(heard, row.heard);
    }
    EXPECT_EQ(tree.orphans_discarded.front(), tql::id_t(1, 3));
    EXPECT_EQ(tree.lookup({1, 3})->version, context.new_version);
}

TEST_F(Requests, UpdateAnswersAndTells) {
    struct Case {
        const char* what;
        dbms::Tql_Update_Data request;
        const char* expected;
        const char* heard;
    };
    const std::vector<Case> cases{
        {"no such object", {{9, 9}, {}, {}, 0, {}}, "1 3:9.9 not found", ""},
        {"stale version",
         {{1, 2}, {1, 4}, {}, 0, {}},
         "3 3:Someone else has updated the object",
         "1:1.2 "},
        {"a computed object",
         {{8, 8}, {}, {}, 0, {}},
         "15 3:Cannot update computed objects",
         "1: "},
        {"the version that stands", {{1, 2}, {1, 5}, {}, 0, {}}, "0", "1:1.2 "},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.what);
        heard.clear();
        EXPECT_EQ(update(row.request), row.expected);
        EXPECT_EQ(heard, row.heard);
    }
    EXPECT_EQ(node.version, context.new_version);
}

TEST_F(Requests, CurrentUserIsSetDuringTheWriteOnly) {
    NodeId seen;
    tree.during_write = [&](tqlengine::RequestContext& during) { seen = during.user; };
    EXPECT_EQ(update({{1, 2}, {1, 5}, {}, 0, {7, 8}}), "0");
    EXPECT_EQ(seen, (NodeId{7, 8}));
    node.version = {1, 5};
    EXPECT_EQ(update({{1, 2}, {1, 5}, {}, 0, {}}), "0");
    EXPECT_TRUE(seen.is_null());
}

TEST_F(Requests, FailuresInsideAWriteBecomeItsAnswer) {
    const dbms::Tql_Update_Data request{{1, 2}, {1, 5}, {}, 0, {7, 8}};
    errors::tql detailed(errors::ERR_ILLEGAL_VALUE, "Value too low");
    detailed.add_detail(2, "name");
    fail_with(detailed);
    EXPECT_EQ(update(request), "10 3:Value too low 2:name");
    fail_with(errors::db_anomaly("broken"));
    EXPECT_EQ(update(request), "14 3:broken");
    fail_with(errors::remote_error("tsdb is ill"));
    EXPECT_EQ(update(request), "14 3:tsdb is ill");
    // What isn't the request's fault passes, and still leaves nothing watched, referenced or set.
    fail_with(error::EFatal("disk gone"));
    EXPECT_THROW((void)update(request), error::EFatal);
    EXPECT_EQ(node.version, (tql::version_t{1, 5}));
}

TEST_F(Requests, DeleteTellsBeforeAndHandsTheRestToTheResolver) {
    EXPECT_EQ(remove({{9, 9}, {}, {}, false}), "1 3:9.9 not found");
    EXPECT_EQ(remove({{8, 8}, {}, {}, false}), "15 3:Cannot delete computed objects");
    heard.clear();
    EXPECT_EQ(remove({{1, 2}, {1, 4}, {}, false}), "3 3:Someone else has updated the object");
    EXPECT_EQ(heard, "2:1.2 1:1.2 ");
    EXPECT_TRUE(tree.erased.empty());

    heard.clear();
    fail_with(errors::tql_dont_delete());
    EXPECT_EQ(remove({{1, 2}, {1, 5}, {}, false}), "0");
    EXPECT_EQ(heard, "2:1.2 1:1.2 ");  // it stays, as after an update
    EXPECT_TRUE(tree.erased.empty());

    heard.clear();
    tree.during_write = [&](auto&) { EXPECT_TRUE(node.watched()); };
    EXPECT_EQ(remove({{1, 2}, {1, 5}, {}, false}), "0");
    EXPECT_EQ(heard, "2:1.2 ");
    EXPECT_EQ(tree.erased, std::vector<tql::id_t>{tql::id_t(1, 2)});
}

TEST_F(Requests, WatchingTwiceEndsTheProcess) {
    const tqlengine::HandlerRef handler(&node);
    EXPECT_DEATH(
        {
            tqlengine::TqlUpdateWatcher first(engine, handler, tqlengine::watch_t::existing);
            tqlengine::TqlUpdateWatcher second(engine, handler, tqlengine::watch_t::existing);
        },
        "Object 1.2 watched twice");
}

TEST_F(Requests, NamesComeInTableOrder) {
    const auto classes = tqlengine::process_class_names();
    EXPECT_EQ(classes.names.size(), cls::kCount);
    EXPECT_EQ(*std::next(classes.names.begin(), 13), ".");
    uint32_t last = 0;
    for (const auto& row : tqlengine::process_property_names().names) {
        EXPECT_GE(row.property, last);
        last = row.property;
        EXPECT_FALSE(row.name.empty());
    }
    engine.set_reparentable_classes({cls::Node, cls::Domain});
    EXPECT_EQ(tqlengine::process_reparentable_classes(context),
              (std::set<uint32_t>{cls::Domain, cls::Node}));
}

// ---- references
// -------------------------------------------------------------------------------------

TEST_F(Requests, FirstAndLastReferenceCallTheHooks) {
    tqlengine::HandlerRef first(&node);
    EXPECT_EQ(tree.referenced, 1U);
    tqlengine::HandlerRef second = first;
    tqlengine::HandlerRef moved = std::move(first);
    EXPECT_EQ(node.reference_count(), 2U);
    second.reset();
    moved = tqlengine::HandlerRef(&tree.root());
    EXPECT_EQ(node.reference_count(), 0U);
    EXPECT_EQ(tree.referenced, 1U);
    moved.reset();
    EXPECT_DEATH(node.release_reference(), "tqlRelease called on unreferenced TqlObjectHandler");
}

}  // namespace
