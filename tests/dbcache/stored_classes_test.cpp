// The rules of classes that do more than hold their properties: what they refuse, how they name
// themselves, what they suggest, and where their values are stored.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include "dbcache/fixed_ids.h"
#include "mdb/property_types.h"
#include "support/test_store.h"
#include "tql/enumerations.h"
#include "tql/property_map.h"
#include "tql/value_text.h"

using namespace dbcache_test;
using dbcache::kRootId;

namespace {

/// "name=text" of the kind that the property usually has; a name alone is a null.
tql::value_t value(const std::string& assignment) {
    const size_t split = assignment.find('=');
    const uint32_t number = tql::get_property(assignment.substr(0, split));
    const tql::value_kind_t kind = tql::find_property_row(number)->usual_kind;
    if (split == std::string::npos) return tql::make_null(number, kind);
    return tql::parse_value(number, kind, assignment.substr(split + 1));
}
Values values(const std::vector<std::string>& assignments) {
    Values made;
    for (const std::string& assignment : assignments) made.push_back(value(assignment));
    return made;
}
tql::value_t choice(uint32_t property, uint32_t enumeration, uint32_t number) {
    return std::make_unique<tql::property_enum_t>(property, enumeration, number, 0);
}

class StoredClasses : public testing::Test {
  protected:
    /// Creates, and gives what a refusal says.
    std::string refusal(const NodeId& parent, uint32_t class_number, const Values& given) {
        return failure([&] { static_cast<void>(world.create(parent, class_number, given)); });
    }
    /// siblingName, treeLabel and longLabel of the templates of a class, a line for each.
    std::vector<std::string> suggestions(const NodeId& parent, uint32_t class_number) {
        tqlengine::HandlerList list;
        world.get(parent)->tqlChildrenHandlers(
            list, tql::pattern_t(class_number, tql::kPatternTemplates));
        std::vector<std::string> lines;
        for (const tqlengine::HandlerRef& handler : list) {
            tql::property_map_t shown;
            handler->tqlEncode(tql::pattern_t(cls::Any, tql::kPatternAllProperties), shown);
            lines.push_back(fmt::format("{} {} {}", shown.at(prop::siblingName)->print(),
                                        shown.at(prop::treeLabel)->print(),
                                        shown.at(prop::longLabel)->print()));
        }
        return lines;
    }
    void TearDown() override { EXPECT_EQ(world.fault(), ""); }

    TestStore world;
};

struct Case {
    uint32_t class_number;
    std::vector<std::string> given;
    std::string refusal;
};

TEST_F(StoredClasses, RefuseWhatBreaksTheirRules) {
    const std::string gid = "gid=01:02:03:04";
    const std::vector<Case> cases = {
        {cls::View,
         {"name=a", "owner=0.1", "noOfCols=2", "publicEdit=true"},
         "10 Only public viewable views, can be public editable. Enable Public viewable if you "
         "wish for this view to be public editable."},
        {cls::View, {"name=a", "owner=0.1", "noOfCols=2", "publicEdit=true", "public=true"}, ""},
        {cls::GraphicalView,
         {"name=a", "largeImage=iVBORw0KGgo=", "publicEdit=true"},
         "10 Only public viewable graphical views, can be public editable. Enable Public viewable "
         "if you wish for this graphical  view to be public editable."},
        {cls::NetworkScan,
         {"ipRangeBegin=10.0.0.1"},
         "10 You must supply both begin and endpoint of the range of IP addresses to be scanned."},
        {cls::NetworkScan,
         {"ipRangeEnd=10.0.0.1", "nodes=1.1"},
         "10 You must supply both begin and endpoint of the range of IP addresses to be scanned."},
        {cls::NetworkScan,
         {"ipRangeBegin=10.0.0.1", "ipRangeEnd=10.0.0.9", "nodes=1.1"},
         "10 You cannot both supply an IP address range and existing nodes to be scanned."},
        {cls::NetworkScan,
         {},
         "10 You must supply either an IP address range or existing nodes to be scanned."},
        {cls::NetworkScan, {"nodes=1.1"}, ""},
        {cls::AlertGroup, {"name=" + std::string(257, 'a')}, "10 Value of property name too long"},
        {cls::AlertGroup, {"name=" + std::string(256, 'a')}, ""},
        {cls::DomainExport, {gid, "comment=a & b"}, "10 [524]: & (ampersand) not allowed"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(
            fmt::format("{} {}", tql::class_name(one.class_number), fmt::join(one.given, " ")));
        EXPECT_EQ(refusal(kRootId, one.class_number, values(one.given)), one.refusal);
    }

    const NodeId grid = world.create(kRootId, cls::GridConfig, values({gid, "workerNode=0"}));
    EXPECT_EQ(
        refusal(grid, cls::GridLinkConfig, values({"name=a", gid, "port=1", "mayInitiate=true"})),
        "10 Null given for property peerAddress");
    EXPECT_EQ(refusal(grid, cls::GridLinkConfig, values({"name=a", gid, "port=1"})), "");
    EXPECT_EQ(refusal(kRootId, cls::GridConfig, values({gid, "workerNode=0"})).substr(0, 9),
              "4 EXISTS{");
}

TEST_F(StoredClasses, ReportsKeepTheOrderOfTheirLimits) {
    const Values given = {choice(prop::type, tql::enumeration::ReportType, 3), value("name=r"),
                          value("progress=0"), value("order=1"),
                          choice(prop::date, tql::enumeration::ReportPeriod, 1)};
    const NodeId report = world.create(kRootId, cls::Report, given);
    EXPECT_EQ(world.value(report, prop::hideSectionThreshold), "-");
    EXPECT_EQ(failure([&] { world.update(report, values({"publicEdit=true"})); }),
              "10 Only public viewable reports, can be public editable. Enable Public viewable if "
              "you wish for this report to be public editable.");
    EXPECT_EQ(failure([&] {
                  world.update(report, values({"publicEdit=true", "public=true"}));
              }),
              "");
    EXPECT_EQ(suggestions(kRootId, cls::Report),
              (std::vector<std::string>{
                  R"("availability" "System availability" "System availability")",
                  R"("incidents" "Incidents" "Incidents")",
                  R"("responsetime" "Response time" "Response time")",
                  R"("configuration" "Current configuration" "Current configuration")"}));
    const NodeId instance = world.create(
        report, cls::ReportInstance,
        values({"date=2026-11-22 22:30:00", "issueNode=0.1", "startTime=2026-11-22 22:30:00",
                "duration=1970-01-01 00:01:00", "orderTime=2026-11-22 22:30:00"}));
    const NodeId folder = world.create(instance, cls::ReportResultFolder,
                                       {choice(prop::folderType, tql::enumeration::FolderType, 1)});
    EXPECT_EQ(
        refusal(folder, cls::ReportResultGraph, values({"order=1", "plotMin=5", "plotMax=1"})),
        "10 Plot max must be greater than min value");
    EXPECT_EQ(refusal(folder, cls::ReportResultGraph,
                      values({"order=1", "warnIfAbove=5", "alertIfAbove=5"})),
              "10 'Alert if above' must be greater than 'Warn if above'.");
    EXPECT_EQ(refusal(folder, cls::ReportResultGraph,
                      values({"order=1", "warnIfAbove=5", "alertIfAbove=6", "plotMax=1"})),
              "");
}

TEST_F(StoredClasses, AlertPathsAreNamedByHowTheyReachWhom) {
    const NodeId user = world.create(kRootId, cls::User, values({"name=ann"}));
    const auto path = [&](uint32_t method, Values more) {
        more.push_back(choice(prop::method, tql::enumeration::AlertMethod, method));
        more.push_back(value("destination=a@b"));
        return world.create(user, cls::AlertPath, more);
    };
    const NodeId plain = path(4, {});
    EXPECT_EQ(world.value(plain, prop::siblingName), "\"4.a@b\"");
    EXPECT_EQ(world.value(plain, prop::treeLabel), "\"Plaintext e-mail -> a@b\"");
    EXPECT_EQ(world.value(plain, prop::graphNo), "-");
    const NodeId labelled = path(4, {value("label=night")});
    EXPECT_EQ(world.value(labelled, prop::siblingName), "\"4.a@b.night\"");
    EXPECT_EQ(world.value(labelled, prop::longLabel), "\"ann: Plaintext e-mail -> a@b (night)\"");

    const NodeId config = world.create(kRootId, cls::ClusterConfig, {});
    const NodeId pager = world.create(config, cls::CustomAlertPathConfig, values({"name=pager"}));
    Values custom;
    custom.push_back(
        std::make_unique<tql::property_object_t>(prop::customType, tql::id_t::from_node_id(pager)));
    const NodeId own = path(5, custom);
    EXPECT_EQ(world.value(own, prop::treeLabel), "\"pager -> a@b\"");
    world.remove(pager);
    EXPECT_EQ(world.value(own, prop::treeLabel), "\"Custom -> a@b\"");

    EXPECT_EQ(refusal(kRootId, cls::NotificationJob, {}), "10 Missing property alertNotifyJobType");
    EXPECT_EQ(refusal(kRootId, cls::NotificationJob,
                      {choice(prop::alertNotifyJobType, tql::enumeration::NotifyJobType, 6)}),
              "10 Unknown type of notification job (6)");
    EXPECT_EQ(failure([&] { path(9, {}); }), "10 Unknown subtype of alertpath (9)");
    EXPECT_EQ(refusal(user, cls::AlertPath, values({"destination=a"})),
              "10 Null given for property method");
    const std::vector<std::string> offered = suggestions(user, cls::AlertPath);
    ASSERT_EQ(offered.size(), 8U);
    EXPECT_EQ(offered[1],
              "\"template:1\" \"Add SMS via. e-mail gateway path\" "
              "\"Add SMS via. e-mail gateway path\"");
}

TEST_F(StoredClasses, MovedPropertiesReadBothFormsAndWriteTheNewOne) {
    const NodeId user = world.create(kRootId, cls::User, values({"name=ann"}));
    Values given = values({"destination=a"});
    given.push_back(choice(prop::method, tql::enumeration::AlertMethod, 4));
    const NodeId path = world.create(user, cls::AlertPath, given);
    EXPECT_EQ(world.value(path, prop::minDelay), "1800");

    // As an older server has left it.
    {
        const auto handler = world.store->resolver().find_object(path);
        dbcache::StoreTransaction transaction(*world.store);
        handler->rewrite_records([](mdb::ObjectStore& objects, mdb::dobj& image) {
            objects.remove_property(image, prop::repeatInterval, false);
            objects.update_property(image, mdb::PropertyInt32(prop::minDelay, 600), true, false);
        });
        transaction.commit();
    }
    EXPECT_EQ(world.value(path, prop::minDelay), "600");
    EXPECT_EQ(failure([&] { world.update(path, values({"minDelay=-1"})); }),
              "10 Value for minDelay too low");
    world.update(path, values({"label=x"}));
    const mdb::dobj stored =
        world.objects->load_object(*world.indexes->unique_find(mdb::node_id_index, path));
    mdb::PropertyUint32 interval(prop::repeatInterval);
    interval.read(stored);
    EXPECT_EQ(interval.value, 600U);
    mdb::PropertyInt32 delay(prop::minDelay);
    EXPECT_THROW(delay.read(stored), mdb::error_nullprop);
}

TEST_F(StoredClasses, PlansHoldOneDowntimeOfUnknownEnd) {
    const NodeId plan = world.create(kRootId, cls::Plan, values({"name=nights"}));
    const NodeId downtime =
        world.create(plan, cls::UnexpectedEvent, values({"endTime=2026-11-22 22:30:00"}));
    EXPECT_EQ(world.value(downtime, prop::siblingName), "\"singleton\"");
    EXPECT_EQ(world.value(downtime, prop::hasInherits), "false");
    EXPECT_EQ(
        refusal(plan, cls::UnexpectedEvent, values({"endTime=2026-11-23 22:30:00"})).substr(0, 9),
        "4 EXISTS{");
    const NodeId month =
        world.create(plan, cls::MonthPlanner,
                     {value("name=odd"), std::make_unique<tql::property_int_t>(prop::order, 2)});
    EXPECT_EQ(world.value(month, prop::siblingName), "\"odd.2\"");
    const NodeId week = world.create(month, cls::WeekPlanner, {});
    EXPECT_EQ(world.value(week, prop::name), "\"week\"");
    const NodeId heir =
        world.create(plan, cls::WeekPlanner, {[&] {
                         return tql::value_t(std::make_unique<tql::property_object_t>(
                             prop::inherits, tql::id_t::from_node_id(week)));
                     }()});
    EXPECT_EQ(world.value(heir, prop::hasInherits), "true");
}

TEST_F(StoredClasses, EntriesOfViewsShowWhatTheyPointAt) {
    const NodeId node = world.node(kRootId, "n");
    const NodeId check = world.create(
        tql::id_t{node.first, node.second, 0}, cls::Check,
        {value("remoteName=h"), choice(prop::remoteType, tql::enumeration::RemcheckType, 2)});
    const NodeId view =
        world.create(kRootId, cls::View, values({"name=v", "owner=0.1", "noOfCols=1"}));
    const NodeId list =
        world.create(view, cls::ViewEntry, {value("position=1"), object(prop::entry, node)});
    const NodeId graph =
        world.create(view, cls::ViewEntry, {value("position=2"), object(prop::entry, check)});
    EXPECT_EQ(world.value(list, prop::condensed), "false");
    EXPECT_EQ(world.value(list, prop::showGraph), "-");
    EXPECT_EQ(world.value(graph, prop::showGraph), "true");
    world.update(list, {object(prop::entry, check)});
    EXPECT_EQ(world.value(list, prop::showGraph), "true");
    EXPECT_EQ(world.value(list, prop::condensed), "-");
}

TEST_F(StoredClasses, TagMatchesAreFoundByTheListThatASelectGoesBy) {
    const NodeId node = world.node(kRootId, "n");
    const NodeId group = world.create(tql::id_t{node.first, node.second, 2}, cls::CheckGroup,
                                      values({"mibObject=1.1", "snmpInstanceId=1.2", "tag=eth0"}));
    const NodeId match = world.create(group, cls::TagRuleMatch, values({"rule=1.2", "tagId=1.3"}));
    tqlengine::HandlerList found;
    EXPECT_TRUE(world.store->resolver().obviousMatches(found, tql::id_t::from_node_id(kRootId),
                                                       tql::pattern_t(cls::TagRuleMatch)));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found.front()->tqlId(), tql::id_t::from_node_id(match));
}

TEST_F(StoredClasses, ExportsAndLinksAreLabelledByTheirStation) {
    const NodeId bare = world.create(kRootId, cls::DomainExport, values({"gid=01:02:03:04"}));
    EXPECT_EQ(world.value(bare, prop::treeLabel), "\"Export to 01:02:03:04\"");
    world.update(bare, values({"label=west"}));
    EXPECT_EQ(world.value(bare, prop::longLabel), "\"west (01:02:03:04)\"");
    EXPECT_EQ(world.value(bare, prop::stateColors), "\"rryyyg\"");
    EXPECT_EQ(world.value(bare, prop::stateLabel0 + 5), "\"In Sync\"");

    const NodeId usage =
        world.create(bare, cls::AlertPathUsage,
                     values({"path=1.1", "timestamp=2026-11-22 22:30:00", "workerNode=0"}));
    EXPECT_EQ(world.get(usage)->tqlOrigin().type, 30U);
    const NodeId node = world.node(kRootId, "n");
    const NodeId of_node =
        world.create(node, cls::AlertPathUsage,
                     values({"path=1.1", "timestamp=2026-11-22 22:30:00", "workerNode=0"}));
    EXPECT_EQ(world.get(of_node)->tqlOrigin().type, 7U);

    const NodeId scan = world.create(kRootId, cls::NetworkScan,
                                     values({"ipRangeBegin=10.0.0.1", "ipRangeEnd=10.0.0.9"}));
    EXPECT_EQ(world.value(scan, prop::treeLabel), "\"Scanning 10.0.0.1 - 10.0.0.9\"");
}

}  // namespace
