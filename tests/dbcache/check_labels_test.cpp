// What checks and their groups are called, the format language of long labels, and the templates
// of checks.
#include <gmock/gmock.h>

#include "check_world.h"
#include "dbcache/schema/name_format.h"
#include "tql/query_text.h"

using namespace dbcache_test;

namespace {

TEST(NameFormat, Table) {
    const std::vector<std::string> abc = {"a", "b", "c"};
    const struct {
        const char* format;
        std::vector<std::string> names;
        const char* expected;
    } cases[] = {
        {"", abc, ""},
        {"plain", {}, "plain"},
        {"%0l-%2l-%0r-%2r", abc, "a-c-c-a"},
        {"%c,0l, - ,0r,", abc, "a - b - c"},
        {"%c,0l, - ,1r, for %0r", abc, "a - b for c"},
        {"<%c|1l|, |1l|>", abc, "<b>"},
        {"%c,0l,,0r,", abc, "abc"},
        {"100%", abc, "!Format ends with %"},
        {"%c", abc, "!Format ends with %c"},
        {"%c,", abc, "!Format ends with %c"},
        {"%c,0l, - ,0r", abc, "!Format ends with %c"},
        {"%12", abc, "!Format ends with number"},
        {"%c,0,-,0r,", abc, "!Format ends with number"},
        {"%0x", abc, "!Expected either l or r"},
        {"%%", abc, "!Expected either l or r"},
        {"%c,0l x,-,0r,", abc, "!Extra input after l or r"},
        {"%3l", abc, "!Index out of bounds"},
        {"%0l", {}, "!Index out of bounds"},
        {"%99999999999999999999r", abc, "!Index out of bounds"},
        {"%c,2l,-,0l,", abc, "!Left > right"},
    };
    for (const auto& one : cases) {
        std::string got;
        try {
            got = dbcache::format_names(one.format, one.names);
        } catch (const errors::format& fault) {
            got = "!" + fault.text();
        }
        EXPECT_EQ(got, one.expected) << one.format;
    }
}

class CheckLabels : public CheckWorld {
  protected:
    /// siblingName|treeLabel|longLabel, without quotes.
    std::string labels(const NodeId& id) {
        const tql::property_map_t values = world.values(id);
        std::string all;
        for (const uint32_t number : {prop::siblingName, prop::treeLabel, prop::longLabel})
            all += (all.empty() ? "" : "|") + tql::as_string(*values.at(number));
        return all;
    }
    /// The templates of a class under a place, with all their values.
    std::vector<tql::property_map_t> templates(const tql::id_t& place, uint32_t class_number) {
        tqlengine::HandlerList found;
        world.engine->get(place)->tqlChildrenHandlers(
            found, tql::pattern_t(class_number, tql::kPatternTemplates));
        std::vector<tql::property_map_t> all;
        for (const tqlengine::HandlerRef& one : found)
            one->tqlEncode(tql::pattern_t(cls::Any, tql::kPatternAllProperties),
                           all.emplace_back());
        return all;
    }
    static std::string text_in(const tql::property_map_t& values, uint32_t number) {
        const auto found = values.find(number);
        return found == values.end() ? "-" : tql::as_string(*found->second);
    }
    /// Creates what a template suggests by sending its values back, as clients do.
    NodeId create_from(const tql::property_map_t& suggested, const tql::id_t& place, Values more) {
        for (const auto& [property, value] : suggested)
            if ((value->flags & dbcache::kComputed) == 0 && !value->is_null)
                more.push_back(value->clone());
        return world.create(place, cls::Check, more);
    }
};

TEST_F(CheckLabels, OfEachClass) {
    EXPECT_EQ(labels(net_check(2, list(text(prop::remoteName, "gw")))),
              "[ICMP]|gw [ICMP]|gw [ICMP]");
    EXPECT_EQ(labels(net_check(1, list(flag(prop::useSsl, true), number(prop::port, 443)))),
              "[HTTPS/443]|[HTTPS/443]|[HTTPS/443]");
    EXPECT_EQ(labels(net_check(6, list(number(prop::port, 22)))), "[TCP/22]|[TCP/22]|[TCP/22]");
    const NodeId custom = net_check(15, list(text(prop::customType, "ldap")));
    EXPECT_EQ(labels(custom), "[Custom/ldap]|[Custom/ldap]|[Custom/ldap]");

    const NodeId disks = agent_group(group(1), "disk", "Disks");
    const NodeId one_disk = agent_group(disks, "/dev/sda", "sda");
    EXPECT_EQ(labels(one_disk), "/dev/sda|sda|Disks - sda");
    const NodeId usage = agent_check(one_disk, 0, "usage");
    EXPECT_EQ(labels(usage), "usage|usage|Disks - sda for usage");
    world.update(usage, list(text(prop::label, "Full?")));
    EXPECT_EQ(labels(usage), "usage|Full? (usage)|Full? (Disks - sda for usage)");
    // The innermost format counts; one with a fault is passed over.
    world.update(disks, list(text(prop::checkNameFormat, "%0r of %0l")));
    EXPECT_EQ(labels(usage), "usage|Full? (usage)|Full? (usage of Disks)");
    world.update(one_disk, list(text(prop::checkNameFormat, "%9l")));
    EXPECT_EQ(labels(usage), "usage|Full? (usage)|Full? (Disks - sda - usage)");

    const NodeId mib =
        world.create(dbcache::kRootId, cls::MibObject,
                     list(oid(prop::snmpId, {1, 3, 6}), text(prop::name, "ifSpeed")));
    const NodeId row = world.create(group(2), cls::CheckGroup,
                                    list(object(prop::mibObject, mib),
                                         oid(prop::snmpInstanceId, {4}), text(prop::tag, "eth0")));
    const NodeId speed = world.create(
        row, cls::Check, list(object(prop::mibObject, mib), text(prop::label, "Link")));
    EXPECT_EQ(labels(speed), "1.3.6.4|Link (ifSpeed)|Link (ifSpeed) [eth0]");
    EXPECT_EQ(labels(row), "1.3.6.4:eth0|ifSpeed [eth0]|ifSpeed [eth0]");

    const NodeId total = world.create(usage, cls::CheckAccumulation,
                                      list(choice(prop::period, 4), flag(prop::rolling, true)));
    EXPECT_EQ(labels(total),
              "1 week:rolling|1 week rolling accumulation|"
              "1 week rolling accumulation of Full? (usage)");
    EXPECT_EQ(labels(world.create(one_disk, cls::MultiCheck, list(text(prop::name, "Sum")))),
              "Sum|Sum|Disks - sda - Sum");
    // Read-only values.
    EXPECT_EQ(world.value(usage, prop::isContinuous), "true");
    EXPECT_EQ(world.value(usage, prop::supportsMultiCheck), "true");
    EXPECT_EQ(world.value(agent_check(one_disk, 1, "proc"), prop::isContinuous), "false");
    EXPECT_EQ(world.value(usage, prop::hasInherits), "false");
    EXPECT_NE(world.value(custom, prop::unit), "-");
}

TEST_F(CheckLabels, TemplatesOfNetChecks) {
    const auto offered = templates(group(0), cls::Check);
    std::map<std::string, std::string> found;
    for (const auto& one : offered)
        found[text_in(one, prop::treeLabel)] =
            text_in(one, prop::siblingNamePattern) + "|" + text_in(one, prop::treeLabelPattern);
    EXPECT_EQ(found.size(), 8U);
    EXPECT_EQ(found["Add HTTP Check"], "HTTP.$remoteName.$port|$remoteName [HTTP/$port]");
    EXPECT_EQ(found["Add ICMP Check"], "ICMP.$remoteName.0|$remoteName [ICMP]");
    EXPECT_EQ(found["Add generic TCP Check"], "TCP.$remoteName.$port|$remoteName [TCP/$port]");
    for (const auto& one : offered) {
        if (text_in(one, prop::treeLabel) != "Add SMTP Check") continue;
        EXPECT_EQ(labels(create_from(one, group(0), {})), "[SMTP/25]|[SMTP/25]|[SMTP/25]");
    }

    const NodeId ping = net_check(2);
    const NodeId custom = net_check(15, list(text(prop::customType, "x")));
    EXPECT_TRUE(templates(tql::id_t::from_node_id(ping), cls::CustomParameter).empty());
    const auto parameters = templates(tql::id_t::from_node_id(custom), cls::CustomParameter);
    ASSERT_EQ(parameters.size(), 1U);
    EXPECT_EQ(text_in(parameters[0], prop::treeLabel), "Add custom parameter");
    const auto totals = templates(tql::id_t::from_node_id(ping), cls::CheckAccumulation);
    ASSERT_EQ(totals.size(), 1U);
    EXPECT_EQ(text_in(totals[0], prop::treeLabel), "Add accumulation");
    EXPECT_EQ(text_in(totals[0], prop::longLabel), "Add accumulation of [ICMP]");
    EXPECT_EQ(text_in(totals[0], prop::siblingNamePattern),
              "$period:${rolling?rolling:non-rolling}");
    EXPECT_EQ(text_in(templates(group(0), cls::MultiCheck).at(0), prop::treeLabel),
              "Add MultiCheck");
}

TEST_F(CheckLabels, ReadyMadeTemplatesOfAgentChecks) {
    const NodeId proc = agent_group(group(1), "proc", "Processes");
    const NodeId log = agent_group(group(1), "log", "Logs");
    const NodeId forward = agent_group(log, "/forward", "Forwarded");
    const NodeId systemd = agent_group(log, "/systemd", "Journal");
    const NodeId nowhere[] = {log, agent_group(proc, "proc", "Deep"),
                              agent_group(proc, "/forward", "False")};
    for (const NodeId& place : nowhere)
        EXPECT_TRUE(templates(tql::id_t::from_node_id(place), cls::Check).empty());

    const struct {
        NodeId place;
        const char* shown;
        const char* states;
        uint32_t subtype;
    } cases[] = {{proc, "Add process",
                  "Process state is good|Process state is suspicious|Process state is bad", 2},
                 {forward, "Add LogCheck", "Log OK|Log suspicious|Log is bad", 5},
                 {systemd, "Add LogCheck", "Log OK|Log suspicious|Log is bad", 7}};
    for (const auto& one : cases) {
        const tql::id_t place = tql::id_t::from_node_id(one.place);
        const auto offered = templates(place, cls::Check);
        ASSERT_EQ(offered.size(), 1U);
        EXPECT_EQ(text_in(offered[0], prop::treeLabel), one.shown);
        for (const uint32_t number :
             {prop::name, prop::label, prop::treeLabelPattern, prop::siblingNamePattern})
            EXPECT_EQ(text_in(offered[0], number), "$checkName");
        EXPECT_TRUE(templates(place, cls::Tag).empty());
        const NodeId made = create_from(offered[0], place, list(text(prop::checkName, "sshd")));
        EXPECT_EQ(labels(made).substr(0, 9), "sshd|sshd");
        const tql::property_map_t values = world.values(made);
        EXPECT_EQ(text_in(values, prop::descriptionGood) + "|" +
                      text_in(values, prop::descriptionWarn) + "|" +
                      text_in(values, prop::descriptionAlert),
                  one.states);
        EXPECT_EQ(dynamic_cast<dbcache::ObjectHandler&>(*world.get(made)).subtype(), one.subtype);
        EXPECT_EQ(world.children(place, tql::pattern_t(cls::Check)).size(), 1U);
    }
}

}  // namespace
