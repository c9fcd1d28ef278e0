// The rules of the classes of checks: what a check's subtype comes from, which values go together,
// and what a write of one does beside it.
#include <algorithm>
#include <fmt/ranges.h>

#include "check_world.h"
#include "dbcache/object_view.h"
#include "dbcache/schema/agent_check_schema.h"
#include "dbcache/time_series.h"
#include "tql/value_text.h"

using namespace dbcache_test;
using dbcache::AgentCheckSchema;

namespace {

class CheckRules : public CheckWorld {
  protected:
    uint32_t subtype_of(const NodeId& id) {
        return dynamic_cast<dbcache::ObjectHandler&>(*world.get(id)).subtype();
    }
    NodeId mib(uint32_t type, uint32_t last) {
        return world.create(dbcache::kRootId, cls::MibObject,
                            list(oid(prop::snmpId, {1, 3, last}), text(prop::name, "obj"),
                                 choice(prop::snmpType, type)));
    }
    NodeId snmp_check(const NodeId& object_id) {
        const NodeId place =
            world.create(group(2), cls::CheckGroup, list(object(prop::mibObject, object_id)));
        return world.create(place, cls::Check, list(object(prop::mibObject, object_id)));
    }
    NodeId measured_agent_check() { return agent_check(agent_group(group(1), "m", "M"), 0, "cpu"); }

    struct Case {
        const char* what;
        Values values;
        std::string failure;
    };
    void try_updates(const NodeId& id, std::vector<Case> cases) {
        for (Case& one : cases) {
            SCOPED_TRACE(one.what);
            const auto version = world.get(id)->tqlVersion();
            EXPECT_EQ(failure([&] { world.update(id, one.values); }), one.failure);
            if (!one.failure.empty()) {
                EXPECT_EQ(world.get(id)->tqlVersion(), version);
            }
        }
    }
};

// ---- subtypes ----------------------------------------------------------------------------------

TEST_F(CheckRules, SubtypesOfAgentChecksFollowKindAndPlace) {
    const NodeId log = agent_group(group(1), "log", "Logs");
    const NodeId forward = agent_group(log, "/forward", "Forwarded");
    const NodeId systemd = agent_group(log, "/systemd", "Journal");
    const NodeId other = agent_group(group(1), "misc", "Misc");
    const NodeId false_forward = agent_group(other, "/forward", "Not forwarded");
    const NodeId deep_log = agent_group(other, "log", "Deep logs");
    const NodeId deep_forward = agent_group(deep_log, "/forward", "Deep");
    const struct {
        uint32_t type;
        NodeId place;
        uint32_t subtype;
    } cases[] = {
        {0, other, 0},   {7, other, 1},         {1, other, 2},        {2, other, 2},
        {6, other, 2},   {10, other, 2},        {15, other, 2},       {8, other, 3},
        {4, other, 6},   {9, other, 4},         {9, log, 4},          {9, forward, 5},
        {9, systemd, 7}, {9, false_forward, 4}, {9, deep_forward, 4}, {0, forward, 0},
    };
    std::map<NodeId, uint32_t> made;
    for (const auto& one : cases) {
        const NodeId check = agent_check(one.place, one.type, fmt::format("c{}", made.size()));
        made[check] = one.subtype;
        EXPECT_EQ(subtype_of(check), one.subtype) << one.type;
        EXPECT_EQ(world.value(check, prop::separatorRegex) != "-",
                  one.subtype == 4 || one.subtype == 7);
        EXPECT_EQ(world.value(check, prop::acknowledgeAlerts) == "-",
                  one.subtype == 4 || one.subtype == 5 || one.subtype == 7);
    }
    world.open(3'000'000'000U);
    for (const auto& [check, subtype] : made) EXPECT_EQ(subtype_of(check), subtype);

    EXPECT_EQ(failure([&] { agent_check(other, 16, "x"); }), "10 Value for checkType too high");
    EXPECT_EQ(failure([&] { world.create(other, cls::Check, list(text(prop::agentId, "y"))); }),
              "10 Null given for property checkType");
    EXPECT_DEATH(static_cast<void>(world.schemas.get(nodetype::AgentCheck).subtypeFromWork({})),
                 "invoked without handler");
}

TEST_F(CheckRules, SubtypesOfSnmpAndEsxiChecksAndOfGroups) {
    const struct {
        uint32_t type;
        uint32_t subtype;
    } cases[] = {{12, 1}, {14, 2}, {15, 2}, {10, 0}, {2, 0}};
    for (const auto& one : cases) {
        const NodeId check = snmp_check(mib(one.type, 100 + one.type));
        EXPECT_EQ(subtype_of(check), one.subtype) << one.type;
        EXPECT_EQ(world.value(check, prop::forecastEnabled) != "-", one.subtype == 0);
        EXPECT_EQ(world.value(check, prop::warnIfAbove) != "-", one.subtype == 0);
        EXPECT_EQ(world.value(check, prop::warnIfBelow) != "-", one.subtype != 1);
    }
    // The states of an enumerated check are those that the MIB names.
    const NodeId named = mib(12, 1);
    for (const uint32_t value : {1U, 7U})
        world.create(named, cls::MibTypeEnum,
                     list(std::make_unique<tql::property_int_t>(prop::value, value),
                          text(prop::text, "up")));
    const NodeId states = snmp_check(named);
    EXPECT_EQ(world.value(states, prop::stateAction0 + 7).substr(0, 4), "enum");
    EXPECT_EQ(world.value(states, prop::stateAction0), "-");
    // A MIB object that goes leaves a check of a measured value.
    world.remove(named);
    world.open(3'000'000'000U);
    EXPECT_EQ(subtype_of(states), 0U);

    // A row has its tag as a part of the key; a table has a plain one.
    const NodeId table = mib(10, 2);
    const auto snmp_group = [&](std::vector<uint32_t> instance, const char* tag) {
        return world.create(
            group(2), cls::CheckGroup,
            list(object(prop::mibObject, table), oid(prop::snmpInstanceId, std::move(instance)),
                 text(prop::tag, tag)));
    };
    EXPECT_EQ(failure([&] { snmp_group({1}, ""); }), "10 Value of property tag too short");
    const NodeId row = snmp_group({1}, "eth0");
    snmp_group({1}, "eth1");
    EXPECT_EQ(failure([&] { world.update(row, list(text(prop::tag, "lo"))); }).substr(0, 34),
              "8 Cannot update const property tag");
    snmp_group({}, "");
    EXPECT_EQ(failure([&] { world.create(group(2), cls::CheckGroup, list(text(prop::tag, "t"))); }),
              "10 Null given for property mibObject");
}

// ---- values that go together -------------------------------------------------------------------

TEST_F(CheckRules, ThresholdsOfAgentChecks) {
    const NodeId check = measured_agent_check();
    const auto text_of = [](const char* upper, const char* lower) {
        return fmt::format("10 Cannot set '{} (pct)' lower or equal to '{} (pct)", upper, lower);
    };
    const auto none = [](uint32_t number) -> tql::value_t {
        return std::make_unique<tql::property_real_t>(tql::property_real_t::null(number));
    };
    const uint32_t aa = prop::alertIfAbove, wa = prop::warnIfAbove, wb = prop::warnIfBelow,
                   ab = prop::alertIfBelow;
    const auto cases = [&](std::initializer_list<std::pair<uint32_t, double>> given,
                           std::string expected) {
        Values values;
        for (const uint32_t number :
             {aa, wa, wb, ab, prop::alertIfAbovePct, prop::warnIfAbovePct, prop::warnIfBelowPct,
              prop::alertIfBelowPct, prop::rangeMin, prop::rangeMax})
            values.push_back(none(number));
        for (const auto& [number, value] : given) values.push_back(real(number, value));
        EXPECT_EQ(failure([&] { world.update(check, values); }), expected);
    };
    cases({{aa, 40}, {wa, 30}, {wb, 20}, {ab, 10}}, "");
    cases({{aa, 30}, {wa, 30}, {wb, 30}, {ab, 30}}, "");  // equal ones pass
    cases({{aa, 9}, {wa, 10}}, text_of("alert if above", "warn if above"));
    cases({{aa, 9}, {wb, 10}}, text_of("alert if above", "warn if below"));
    cases({{aa, 9}, {ab, 10}}, text_of("alert if above", "alert if below"));
    cases({{wa, 9}, {wb, 10}}, text_of("warn if above", "warn if below"));
    cases({{wa, 9}, {ab, 10}}, text_of("warn if above", "alert if below"));
    cases({{wb, 9}, {ab, 10}}, text_of("warn if below", "alert if below"));
    cases({{wa, 10}, {prop::warnIfAbovePct, 50}},
          "10 Cannot set both warnIfAbove and warnIfAbovePct");
    cases({{ab, 1}, {prop::alertIfBelowPct, 5}, {wa, 10}, {prop::warnIfAbovePct, 50}},
          "10 Cannot set both alertIfBelow and alertIfBelowPct");
    // 50 per cent of 100 to 300 are 200; without both ends a percentage is compared with nothing.
    const std::pair<uint32_t, double> half{prop::warnIfAbovePct, 50};
    cases({{aa, 199}, half, {prop::rangeMin, 100}, {prop::rangeMax, 300}},
          text_of("alert if above", "warn if above"));
    cases({{aa, 200}, half, {prop::rangeMin, 100}, {prop::rangeMax, 300}}, "");
    cases({{aa, 199}, half, {prop::rangeMax, 300}}, "");
    try_updates(check, {{"plot", list(real(prop::plotMin, 5), real(prop::plotMax, 5)),
                         "10 Plot max must be greater than min value"}});
}

// That each class has its rules, and refuses with their words, is held against the listing of all
// classes; here only where their edges lie.
TEST_F(CheckRules, MutualRestrictions) {
    const auto rule = [](const char* upper, const char* lower) {
        return fmt::format("10 '{}' must be greater than '{}'.", upper, lower);
    };
    const uint32_t aa = prop::alertIfAbove, wa = prop::warnIfAbove;
    try_updates(net_check(2), {{"equal", list(real(wa, 500), real(aa, 500)),
                                rule("Alert if above", "Warn if above")},
                               {"apart", list(real(wa, 500), real(aa, 501)), ""}});
    const uint32_t wb = prop::warnIfBelow, ab = prop::alertIfBelow;
    try_updates(snmp_check(mib(14, 2)), {{"uptime", list(real(wb, 1), real(ab, 1)),
                                          rule("Warn if below", "Alert if below")},
                                         {"uptime", list(real(wb, 2), real(ab, 1)), ""}});
    // A kind of which nothing can be recorded may exist, but not be active.
    const NodeId vm = world.create(
        world.create(world.create(group(3), cls::CheckGroup, list(text(prop::name, "VMs"))),
                     cls::CheckGroup, list(text(prop::name, "vm1"))),
        cls::Check,
        list(choice(prop::esxiType, 0), text(prop::name, "cpu"),
             std::make_unique<tql::property_int_t>(prop::esxiValueModifier, 0)));
    EXPECT_EQ(failure([&] {
                  world.update(vm, list(choice(prop::esxiType, 1), flag(prop::active, true)));
              }),
              "10 Invalid value for property esxiType");
}

TEST_F(CheckRules, NetChecks) {
    EXPECT_EQ(failure([&] { net_check(2, list(flag(prop::active, false))); }),
              "10 Invalid value for property active");
    EXPECT_EQ(failure([&] { world.create(group(0), cls::Check, {}); }),
              "10 Null given for property remoteType");
    EXPECT_EQ(failure([&] { net_check(6); }), "10 Null given for property port");
    const NodeId http = net_check(1);
    EXPECT_EQ(world.value(http, prop::port), "80");
    EXPECT_EQ(failure([&] { net_check(1); }).substr(0, 2), "4 ");
    net_check(1, list(number(prop::port, 8080)));  // the port is a part of the key
    net_check(15, list(text(prop::customType, "a")));
    net_check(15, list(text(prop::customType, "b")));
    try_updates(http,
                {{"frequency", list(number(prop::frequency, 0)), "10 Value for frequency too low"},
                 {"score", list(std::make_unique<tql::property_int_t>(prop::goodScore, 1)),
                  "10 Value for goodScore too high"}});
    EXPECT_EQ(failure([&] { world.update(http, list(flag(prop::active, false))); }).substr(0, 37),
              "8 Cannot update const property active");
    EXPECT_EQ(world.value(host, prop::countNetChecks), "4");

    const NodeId model = world.create(http, cls::ForecastModel, {});
    const auto kind = tql::find_property_row(prop::forecastModel)->usual_kind;
    try_updates(model, {{"model", list(choice(prop::forecastModel, 2)), ""},
                        {"none", list(tql::make_null(prop::forecastModel, kind)),
                         "10 Null given for property forecastModel"}});
}

// ---- what a write does beside ------------------------------------------------------------------

TEST_F(CheckRules, SeriesFollowActivityAndForecasts) {
    const auto made = [&] { return world.series_made.size(); };
    EXPECT_EQ(world.series_made, std::vector{dbcache::small_incident_layout()}) << "the node's";
    net_check(2);
    ASSERT_EQ(made(), 2U);
    EXPECT_EQ(world.series_made.back(), dbcache::continuous_layout());

    const NodeId place = agent_group(group(1), "m", "M");
    const struct {
        uint32_t type;
        const tsdb::time_series_layout_t* layout;
    } layouts[] = {{0, &dbcache::continuous_layout()},    {7, &dbcache::continuous_layout()},
                   {1, &dbcache::enumerated_layout()},    {13, &dbcache::enumerated_layout()},
                   {4, &dbcache::uptime_layout()},        {6, &dbcache::large_incident_layout()},
                   {9, &dbcache::large_incident_layout()}};
    for (const auto& one : layouts) {
        agent_check(place, one.type, fmt::format("t{}", one.type), true);
        EXPECT_EQ(world.series_made.back(), *one.layout) << one.type;
    }
    const size_t before = made();
    agent_check(place, 8, "action", true);
    const NodeId idle = agent_check(place, 0, "idle");
    EXPECT_EQ(made(), before);

    world.update(idle, list(flag(prop::forecastEnabled, true)));
    EXPECT_EQ(made(), before);  // no forecast of what isn't measured
    world.update(idle, list(flag(prop::active, true)));
    EXPECT_EQ(made(), before + 2);
    world.update(idle, list(flag(prop::forecastEnabled, false)));
    EXPECT_EQ(world.dropped.size(), 1U);
    world.update(idle, list(flag(prop::active, false)));
    EXPECT_EQ(world.dropped.size(), 2U);
    EXPECT_EQ(world.value(idle, prop::tsdbIndex), "4294967295");

    const NodeId total =
        world.create(idle, cls::CheckAccumulation, list(flag(prop::rolling, true)));
    EXPECT_EQ(world.series_made.back(), dbcache::continuous_layout());
    world.create(idle, cls::CheckAccumulation, {});
    EXPECT_EQ(world.series_made.back(), dbcache::uptime_layout());
    EXPECT_EQ(dbcache::tsdb_data_type(dynamic_cast<dbcache::ObjectHandler&>(*world.get(total)),
                                      prop::tsdbIndex),
              dbcache::kContinuousData);
}

TEST_F(CheckRules, AnotherKindOfValuesNeedsAnotherSeries) {
    const NodeId check = agent_check(agent_group(group(1), "m", "M"), 0, "cpu", true);
    world.update(check, list(flag(prop::forecastEnabled, true)));
    const std::string series = world.value(check, prop::tsdbIndex);
    const std::string forecast = world.value(check, prop::tsdbForecast);
    world.update(check, list(choice(prop::checkType, 7)));
    EXPECT_EQ(world.value(check, prop::tsdbIndex), series) << "of the same layout";
    EXPECT_EQ(world.value(check, prop::tsdbForecast), forecast);
    EXPECT_TRUE(world.dropped.empty());

    world.update(check, list(choice(prop::checkType, 1)));
    EXPECT_EQ(world.series_made.back(), dbcache::enumerated_layout());
    EXPECT_NE(world.value(check, prop::tsdbIndex), series);
    EXPECT_EQ(world.value(check, prop::tsdbForecast), "-");
    std::sort(world.dropped.begin(), world.dropped.end());
    EXPECT_EQ(fmt::format("{}", fmt::join(world.dropped, " ")), series + " " + forecast);
    EXPECT_EQ(dbcache::tsdb_data_type(dynamic_cast<dbcache::ObjectHandler&>(*world.get(check)),
                                      prop::tsdbIndex),
              dbcache::kEnumeratedData);
    world.update(check, list(choice(prop::checkType, 8)));
    EXPECT_EQ(world.value(check, prop::tsdbIndex), "4294967295") << "actions have none";
    EXPECT_EQ(world.dropped.size(), 3U);
}

TEST_F(CheckRules, NodesAndExportsHaveTheirSeriesFromTheStart) {
    world.store_of_series_is_gone = true;
    const NodeId late = world.node(dbcache::kRootId, "late");
    EXPECT_EQ(world.value(late, prop::tsdbIncident), "4294967295");
    world.store_of_series_is_gone = false;
    world.update(late, list(text(prop::label, "l")));
    EXPECT_EQ(world.value(late, prop::tsdbIncident), "101");
    world.update(late, list(text(prop::label, "m")));
    EXPECT_EQ(world.value(late, prop::tsdbIncident), "101");

    const size_t before = world.series_made.size();
    const NodeId shown = world.create(
        dbcache::kRootId, cls::DomainExport,
        list(std::make_unique<tql::property_gid_t>(prop::gid, 0x1234), text(prop::comment, "")));
    EXPECT_EQ(world.series_made.at(before), dbcache::enumerated_layout());
    EXPECT_EQ(world.series_made.at(before + 1), dbcache::small_incident_layout());
    const auto type = [&](uint32_t property) {
        return dbcache::tsdb_data_type(dynamic_cast<dbcache::ObjectHandler&>(*world.get(shown)),
                                       property);
    };
    EXPECT_EQ(type(prop::tsdbIndex), dbcache::kEnumeratedData);
    EXPECT_EQ(type(prop::tsdbIncident), dbcache::kIncidentData);
    world.remove(shown);
    EXPECT_EQ(world.dropped.size(), 2U);
}

TEST_F(CheckRules, ActionsFireAndActiveChecksCount) {
    const NodeId place = agent_group(group(1), "m", "M");
    const NodeId action = agent_check(place, 8, "restart");
    EXPECT_EQ(world.value(action, prop::fire), "false");
    world.update(action, list(std::make_unique<tql::property_action_t>(prop::executeAction, 1)));
    EXPECT_EQ(world.value(action, prop::fire), "true");

    EXPECT_EQ(world.value(host, prop::countAgentChecks), "0");
    world.update(action, list(flag(prop::active, true)));
    const NodeId snmp = snmp_check(mib(10, 1));
    EXPECT_EQ(world.value(host, prop::countSnmpChecks), "0");
    world.update(snmp, list(flag(prop::active, true)));
    for (const uint32_t counter : {prop::countAgentChecks, prop::countSnmpChecks}) {
        EXPECT_EQ(world.value(host, counter), "1");
        EXPECT_EQ(world.value(dbcache::kRootId, counter), "1");
    }
    EXPECT_EQ(world.value(place, prop::countAgentChecks), "1");
}

TEST_F(CheckRules, ChangesTouchTheConfigurationOfTheAgent) {
    const NodeId status = world.create(host, cls::NodeAgentStatus, {});
    const NodeId place = agent_group(group(1), "m", "M");
    const NodeId check = agent_check(place, 9, "syslog");
    const auto touched_by = [&](const std::function<void()>& action) {
        world.update(status, list(flag(prop::agentReconfig, false)));
        action();
        return world.value(status, prop::agentReconfig) == "true";
    };
    EXPECT_FALSE(touched_by([&] { agent_check(place, 0, "idle"); }));
    EXPECT_TRUE(touched_by([&] { agent_check(place, 0, "busy", true); }));
    EXPECT_FALSE(touched_by([&] { world.update(check, list(text(prop::label, "x"))); }));
    EXPECT_TRUE(touched_by([&] { world.update(check, list(flag(prop::active, true))); }));
    EXPECT_TRUE(touched_by([&] { world.update(check, list(flag(prop::active, false))); }));
    EXPECT_TRUE(touched_by([&] { world.update(host, list(text(prop::label, "Front"))); }));
    EXPECT_TRUE(touched_by([&] {
        world.create(check, cls::LogCheckRule,
                     list(number(prop::order, 1), text(prop::logCheckRegex, "'error'"),
                          choice(prop::logCheckStatus, 0), choice(prop::logCheckLogDecision, 0)));
    }));
    EXPECT_FALSE(touched_by([&] { net_check(2); }));

    // What the agent itself has reported it knows already.
    EXPECT_FALSE(touched_by([&] {
        tqlengine::RequestContext request = world.context();
        request.sender = queues::queue_t::gsat;
        const tqlengine::HandlerRef handler = world.get(check);
        const Values values = list(flag(prop::active, true));
        tqlengine::TqlUpdateWatcher watcher(*world.engine, handler, tqlengine::watch_t::existing);
        handler->tqlUpdate({handler->tqlVersion(), request.new_version, values, 0, request});
    }));
}

}  // namespace
