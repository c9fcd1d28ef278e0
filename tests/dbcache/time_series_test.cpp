// Series of objects: series_made and dropped with the writes that need them, and found by their
// property.
#include "dbcache/time_series.h"

#include <gtest/gtest.h>

#include "dbcache/class_table.h"
#include "dbcache/inheritance.h"
#include "support/test_store.h"

using namespace dbcache_test;
using dbcache::kRootId;

namespace {

// clang-format off
constexpr dbcache::PropertyRow kRows[] = {
    {.number = prop::parentId, .kind = dbcache::kind_t::object, .flags = dbcache::N | dbcache::X},
    {.number = prop::name, .kind = dbcache::kind_t::string, .flags = dbcache::K},
    {.number = prop::active, .kind = dbcache::kind_t::boolean},
    {.number = prop::tsdbIndex, .kind = dbcache::kind_t::series, .flags = dbcache::X | dbcache::R},
    {.number = prop::tsdbIncident, .kind = dbcache::kind_t::series, .flags = dbcache::X | dbcache::R},
};
constexpr dbcache::ChildRow kChildren[] = {{cls::Domain, nodetype::Domain}, {cls::Plan, nodetype::Plan}};
// clang-format on

bool fails_after_store = false;

/// Has a series exactly while it is active.
class Watched : public dbcache::TableSchema<dbcache::NodetypeSchema> {
  public:
    using TableSchema::TableSchema;
    void afterUpdate(dbcache::ObjectHandler& handler, tqlengine::RequestContext& /*context*/,
                     dbcache::WorkArray& work) const override {
        const dbcache::work_t& active = work[findProperty(prop::active, 0)];
        const bool needed =
            !active.is_null() && static_cast<const mdb::PropertyBool&>(*active.prop).value;
        dbcache::allocate_if(handler, needed, prop::tsdbIndex, &dbcache::enumerated_layout(), work);
    }
    void afterStore(dbcache::ObjectHandler& /*handler*/) const override {
        if (fails_after_store) throw errors::tql(errors::ERR_BACKEND, "after the store");
    }
};

void declare(dbcache::SchemaTable& table) {
    table.registerSchema(
        std::make_unique<Watched>(dbcache::ClassTable{.nodetype = nodetype::Domain,
                                                      .tql_class = cls::Domain,
                                                      .properties = kRows,
                                                      .children = kChildren,
                                                      .sibling_name = prop::name}));
    table.registerSchema(std::make_unique<dbcache::TableSchema<dbcache::NodetypeSchema>>(
        dbcache::ClassTable{.nodetype = nodetype::Plan,
                            .tql_class = cls::Plan,
                            .properties = std::span(kRows).first(2),
                            .sibling_name = prop::name}));
    table.seal();
}

class TimeSeriesTest : public ::testing::Test {
  protected:
    ~TimeSeriesTest() override { fails_after_store = false; }

    NodeId make(const std::string& name, bool active) {
        Values values;
        values.push_back(text(prop::name, name));
        values.push_back(flag(prop::active, active));
        return world.create(kRootId, cls::Domain, values);
    }
    void activate(const NodeId& id, bool active) {
        Values values;
        values.push_back(flag(prop::active, active));
        world.update(id, values);
    }
    /// The index, or the text of the failure.
    std::string index(const NodeId& id, uint32_t property = prop::tsdbIndex) {
        try {
            return std::to_string(
                dbcache::tsdb_index(*world.store->resolver().find_object(id), property));
        } catch (const errors::db_anomaly& failure) {
            return failure.text();
        }
    }

    TestStore world{{}, declare};
};

TEST_F(TimeSeriesTest, AnObjectHasASeriesExactlyWhileItNeedsOne) {
    const NodeId id = make("a", true);
    EXPECT_EQ(world.series_made, std::vector{dbcache::enumerated_layout()});
    EXPECT_EQ(index(id), "100");
    activate(id, true);
    EXPECT_EQ(index(id), "100") << "the series stays";
    activate(id, false);
    EXPECT_EQ(index(id), "Request of null tsdb property 2600");
    EXPECT_EQ(world.dropped, std::vector<uint32_t>{100});
    activate(id, true);
    EXPECT_EQ(index(id), "101");
    world.open(3'000'000'000U);
    EXPECT_EQ(index(id), "101") << "stored with the object";
    world.remove(id);
    EXPECT_EQ(world.dropped, (std::vector<uint32_t>{100, 101}));
}

TEST_F(TimeSeriesTest, AnAbortedWriteLeavesNoSeriesBehindAndLosesNone) {
    const NodeId id = make("a", true);
    fails_after_store = true;
    EXPECT_EQ(failure([&] { make("b", true); }), "14 after the store");
    EXPECT_EQ(world.dropped, std::vector<uint32_t>{101});
    EXPECT_EQ(failure([&] { activate(id, false); }), "14 after the store");
    EXPECT_EQ(index(id), "100");
    EXPECT_EQ(world.dropped, std::vector<uint32_t>{101}) << "the series is still needed";
    fails_after_store = false;
    {
        // Committed by itself, aborted with what is around it; the other way round it stays gone.
        dbcache::StoreTransaction outer(*world.store);
        make("c", true);
        activate(id, false);
        EXPECT_EQ(world.dropped, std::vector<uint32_t>{101}) << "nothing has ended yet";
    }
    EXPECT_EQ(world.dropped, (std::vector<uint32_t>{101, 102}));
    EXPECT_EQ(index(id), "100");
    {
        dbcache::StoreTransaction outer(*world.store);
        fails_after_store = true;
        EXPECT_EQ(failure([&] { make("d", true); }), "14 after the store");
        fails_after_store = false;
        outer.commit();
    }
    EXPECT_EQ(world.dropped, (std::vector<uint32_t>{101, 102, 103}));
    EXPECT_EQ(world.fault(), "");
}

TEST_F(TimeSeriesTest, ARefusalFailsTheWrite) {
    world.create_refuses = true;
    EXPECT_EQ(failure([&] { make("a", true); }), "14 Error allocating time series: disk full");
    world.create_refuses = false;
    EXPECT_EQ(index(make("a", true)), "100") << "the name is free";
}

TEST_F(TimeSeriesTest, SaysWhyThereIsNoIndex) {
    const NodeId folder = make("a", false);
    const NodeId plan = world.create(kRootId, cls::Plan, {text(prop::name, "p")});
    EXPECT_EQ(index(folder), "Request of null tsdb property 2600");
    EXPECT_EQ(index(plan), "Request of tsdb property from Plan");
    EXPECT_EQ(index(folder, prop::tsdbForecast), "No tsdbIndex found in Domain");
    const auto object = world.store->resolver().find_object(folder);
    EXPECT_EQ(dbcache::tsdb_data_type(*object, prop::tsdbIncident), dbcache::kIncidentData);
    EXPECT_THROW(static_cast<void>(dbcache::tsdb_data_type(*object, prop::tsdbIndex)),
                 errors::db_anomaly);
}

TEST_F(TimeSeriesTest, KeepsTheirSpans) {
    const auto days = [](const tsdb::time_series_layout_t& layout) {
        std::vector<uint32_t> out;
        for (const tsdb::level_t& level : layout.levels)
            out.push_back(level.records * level.span_s / 86'400);
        return out;
    };
    for (const auto& [type, layout] : {std::pair{1U, dbcache::continuous_layout()},
                                       {2U, dbcache::enumerated_layout()},
                                       {3U, dbcache::uptime_layout()}}) {
        EXPECT_EQ(layout.type, type);
        EXPECT_EQ(days(layout), (std::vector<uint32_t>{7, 30, 60, 360, 1080}));
    }
    EXPECT_EQ(dbcache::large_incident_layout(), (tsdb::time_series_layout_t{4, {{1'048'576, 1}}}));
}

}  // namespace
