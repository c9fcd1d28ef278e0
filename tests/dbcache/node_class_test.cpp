// Node classes over real trees of checks: what configurations refuse, how they are told apart, and
// what a check that follows one gets from it.
#include "check_world.h"
#include "dbcache/id_translation.h"
#include "dbcache/mark_verify.h"
#include "tql/query_text.h"
#include "tql/value_text.h"

using namespace dbcache_test;
using dbcache::kRootId;

namespace {

/// "name=text" of the kind that the property usually has; a name alone is a null.
Values given(const std::vector<std::string>& assignments) {
    Values made;
    for (const std::string& one : assignments) {
        const size_t split = one.find('=');
        const uint32_t number = tql::get_property(one.substr(0, split));
        const tql::value_kind_t kind = tql::find_property_row(number)->usual_kind;
        made.push_back(split == std::string::npos
                           ? tql::make_null(number, kind)
                           : tql::parse_value(number, kind, one.substr(split + 1)));
    }
    return made;
}

std::string quoted(const NodeId& id) {
    return '"' + id.to_string() + '"';
}

/// A class with a configuration for agent checks, and a host that has the same groups.
class NodeClasses : public CheckWorld {
  protected:
    NodeId make(const NodeId& parent, uint32_t class_number,
                const std::vector<std::string>& values = {}) {
        return world.create(parent, class_number, given(values));
    }
    NodeId group_config(const NodeId& parent, const std::string& tag, bool for_all = true) {
        return make(parent, cls::NodeClassCheckGroupConfig,
                    {"tag=" + tag, std::string("forAll=") + (for_all ? "true" : "false")});
    }
    NodeId config(const NodeId& parent, const std::string& tag,
                  std::vector<std::string> values = {}) {
        values.push_back("tag=" + tag);
        return make(parent, cls::NodeClassCheckConfig, values);
    }
    /// An agent check of `type` that follows `model`.
    NodeId heir(const NodeId& place, const NodeId& model, uint32_t type = 0,
                const std::vector<std::string>& more = {}) {
        Values values = given(more);
        const std::string name = fmt::format("heir{}", ++heirs);
        values.push_back(choice(prop::checkType, type));
        values.push_back(text(prop::agentId, name));
        values.push_back(object(prop::inherits, model));
        return world.create(place, cls::Check, values);
    }
    /// A value, with a mark when it is inherited.
    std::string shown(const NodeId& id, uint32_t property) {
        const auto values = world.values(id);
        const tql::property_t& value = *values.at(property);
        return (value.is_null ? "null" : value.print()) +
               ((value.flags & tql::kFlagInherited) != 0 ? " inherited" : "");
    }
    std::string set_of(const std::set<NodeId>& ids) {
        std::set<tql::id_t> values;
        for (const NodeId& id : ids) values.insert(tql::id_t::from_node_id(id));
        return tql::property_object_set_t(prop::dependsOn, values).print();
    }
    std::string refusal(const std::function<void()>& request) { return failure(request); }

    const NodeId node_class = make(kRootId, cls::NodeClass, {"name=Web server"});
    const NodeId top = make(node_class, cls::NodeClassNodeConfig);
    const NodeId all = group_config(top, "agentchecks");
    const NodeId disks = group_config(all, "disk");
    const NodeId fans = group_config(all, "fan");
    const NodeId disk = agent_group(group(1), "disk", "Disks");
    const NodeId fan = agent_group(group(1), "fan", "Fans");
    int heirs = 0;
};

// ---- the configurations themselves -------------------------------------------------------------

TEST_F(NodeClasses, AClassThatPromotesBuildsOnAnotherAndNeverOnItself) {
    const std::string no_base =
        "10 A NodeClass with auto-promotion enabled must inherit (be derived) from at least one "
        "other NodeClass.";
    const std::string cycle = "10 Inheritance cycle through property inheritsFrom";
    EXPECT_EQ(refusal([&] {
                  make(kRootId, cls::NodeClass, {"name=p", "autoPromote=true"});
              }),
              no_base);
    const NodeId derived =
        make(kRootId, cls::NodeClass,
             {"name=derived", "autoPromote=true", "inheritsFrom=" + node_class.to_string()});
    EXPECT_EQ(refusal([&] { world.update(derived, given({"inheritsFrom="})); }), no_base);
    for (const NodeId& base : {node_class, derived})
        EXPECT_EQ(
            refusal([&] { world.update(node_class, given({"inheritsFrom=" + base.to_string()})); }),
            cycle);
    EXPECT_NE(refusal([&] { make(node_class, cls::NodeClassNodeConfig); }), "") << "a second one";
    EXPECT_NE(refusal([&] { make(kRootId, cls::NodeClass, {"name=WEB SERVER"}); }), "");
}

TEST_F(NodeClasses, LimitsOfAConfigurationFitEachOther) {
    const NodeId plain = config(disks, "plain");
    const NodeId agent = config(disks, "agent", {"checkType=0"});
    const std::string both = "10 Cannot set both alertIfBelow and alertIfBelowPct";
    const struct {
        NodeId id;
        std::vector<std::string> values;
        std::string failure;
    } cases[] = {
        {plain, {"alertIfBelow=1", "alertIfBelowPct=1"}, both},
        {agent, {"alertIfBelow=1", "alertIfBelowPct=1"}, both},
        {agent, {"alertIfAbove=5", "warnIfAbove=5"}, ""},
        {agent,
         {"alertIfAbove=4"},
         "10 Cannot set 'alert if above (pct)' lower or equal to 'warn if above (pct)"},
        // Nothing is known of the range that the parts are of.
        {agent, {"warnIfBelowPct=99"}, ""},
    };
    for (const auto& one : cases)
        EXPECT_EQ(refusal([&] { world.update(one.id, given(one.values)); }), one.failure)
            << one.values.front();
}

TEST_F(NodeClasses, AreToldApartByTagAndByWhomTheyStandFor) {
    const NodeId tag = make(disks, cls::Tag, {"name=root"});
    const std::string tagged = "tagId=" + tag.to_string();
    const NodeId plain = config(disks, "a");
    const NodeId both = config(disks, "a", {tagged, "forAll=true"});
    const NodeId total = make(plain, cls::NodeClassCheckAccumulationConfig, {"forAll=true"});
    const struct {
        NodeId id;
        const char* name;
    } cases[] = {
        {plain, "\"1a\""},
        {both, "\"tag:root:*\""},
        {total, "\"*\""},
        {disks, "\"*\""},
        {config(disks, "b", {tagged}), "\"tag:root:1b\""},
    };
    for (const auto& one : cases) EXPECT_EQ(world.value(one.id, prop::siblingName), one.name);
    EXPECT_EQ(refusal([&] {
                  config(disks, "a", {tagged, "forAll=true"});
              }).substr(0, 9),
              "4 EXISTS{");
    world.remove(tag);
    EXPECT_EQ(world.value(both, prop::siblingName), "\"*\"");
    for (const NodeId& one : {plain, total}) {
        EXPECT_EQ(world.value(one, prop::rangeMin), "0");
        EXPECT_EQ(world.value(one, prop::rangeMax), "null");
        EXPECT_EQ(world.value(one, prop::hasInherits), "false");
    }
    const NodeId conflict = make(kRootId, cls::NodeClassConflict,
                                 {"object=" + disk.to_string(), "node=" + host.to_string()});
    EXPECT_EQ(world.value(conflict, prop::longLabel), "\"NodeClass conflict\"");

    tqlengine::HandlerList suggestions;
    world.get(disks)->tqlChildrenHandlers(
        suggestions, tql::pattern_t(cls::NodeClassMultiCheckConfig, tql::kPatternTemplates));
    ASSERT_EQ(suggestions.size(), 1U);
    tql::property_map_t values;
    suggestions[0]->tqlEncode(tql::pattern_t(cls::Any, tql::kPatternAllProperties), values);
    for (const uint32_t number :
         {prop::siblingName, prop::siblingNamePattern, prop::treeLabelPattern})
        EXPECT_EQ(values.at(number)->print(), "\"$name\"");
    EXPECT_EQ(values.at(prop::longLabel)->print(), "\"Add MultiCheck\"");
}

// ---- values ------------------------------------------------------------------------------------

TEST_F(NodeClasses, ACheckTakesWhatItDoesNotSetAndDefaultsForWhatIsLeftOpen) {
    const NodeId model =
        config(disks, "used",
               {"frequency=60", "label=Used", "active=true", "warnIfAbove=80", "goodScore=-7"});
    const NodeId check = heir(disk, model, 0, {"label=Own"});
    EXPECT_EQ(shown(check, prop::frequency), "60 inherited");
    EXPECT_EQ(shown(check, prop::active), "true inherited");
    EXPECT_EQ(shown(check, prop::warnIfAbove), "80 inherited");
    EXPECT_EQ(shown(check, prop::warnScore), "6 inherited") << "left open";
    EXPECT_EQ(shown(check, prop::label), "\"Own\"");
    EXPECT_EQ(world.value(check, prop::anyOverridden), "true");
    EXPECT_EQ(world.value(host, prop::countAgentChecks), "1") << "active by its class alone";

    // The copies stay until the check is written; then it catches up.
    world.update(model, given({"frequency=90", "active=false", "warnIfAbove"}));
    EXPECT_EQ(shown(check, prop::frequency), "60 inherited");
    world.update(check, {});
    EXPECT_EQ(shown(check, prop::frequency), "90 inherited");
    EXPECT_EQ(shown(check, prop::warnIfAbove), "null inherited");
    EXPECT_EQ(world.value(host, prop::countAgentChecks), "0");

    // States are judged as the class says, and a value that doesn't suit the check is refused.
    const NodeId states = config(fans, "fan", {"stateAction1=2"});
    EXPECT_EQ(shown(heir(fan, states, 11), prop::stateAction0 + 1), "enum(65538, 2) inherited");
    const NodeId large = config(disks, "large", {"warnIfAbove=5e9"});
    EXPECT_EQ(refusal([&] { heir(disk, large); }), "10 Value for warnIfAbove too high");

    world.remove(model);
    EXPECT_EQ(shown(check, prop::frequency), "90 inherited");
    EXPECT_EQ(refusal([&] { world.update(check, given({"label=x"})); }),
              "10 afterUpdate cannot set property dependsOn to be inherited");
    world.update(check, given({"inherits"}));
    EXPECT_EQ(shown(check, prop::frequency), "90");
}

TEST_F(NodeClasses, AClassThatBuildsOnAnotherLeavesOpenWhatBothLeaveOpen) {
    const NodeId derived = make(kRootId, cls::NodeClass, {"name=derived"});
    const NodeId derived_group = group_config(make(derived, cls::NodeClassNodeConfig), "netchecks");
    const NodeId base = config(disks, "http", {"frequency=300"});
    const NodeId config_2 =
        config(derived_group, "http", {"inherits=" + base.to_string(), "checkAttempts=3"});
    EXPECT_EQ(shown(config_2, prop::frequency), "300 inherited");
    EXPECT_EQ(shown(config_2, prop::goodScore), "null inherited");
    const auto follow = [&](const char* name) {
        Values values =
            given({std::string("remoteName=") + name, "inherits=" + config_2.to_string()});
        return net_check(2, std::move(values));
    };
    const NodeId ping = follow("a");
    EXPECT_EQ(shown(ping, prop::frequency), "300 inherited");
    EXPECT_EQ(shown(ping, prop::checkAttempts), "3 inherited");
    EXPECT_EQ(shown(ping, prop::goodScore), "-5 inherited");
    EXPECT_EQ(shown(ping, prop::alertIfAbove), "1000 inherited") << "not silenced";
    // The derived class says that there is to be no limit; of a score nobody can say that.
    world.update(base, given({"alertIfAbove=700"}));
    world.update(config_2, given({"alertIfAbove"}));
    EXPECT_EQ(shown(config_2, prop::alertIfAbove), "null");
    world.update(ping, {});
    EXPECT_EQ(shown(ping, prop::alertIfAbove), "null inherited");
    world.update(config_2, given({"goodScore"}));
    EXPECT_THROW(world.update(ping, {}), errors::tql);
    world.update(config_2, given({"goodScore=-1"}));
    world.update(ping, {});
    EXPECT_EQ(shown(ping, prop::goodScore), "-1 inherited");
    // Two that follow each other keep what they have: no read goes further than one level.
    world.update(base, {object(prop::inherits, config_2)});
    world.update(config_2, {});
    world.update(base, {});
    EXPECT_EQ(shown(base, prop::frequency), "300 inherited");
    EXPECT_EQ(shown(base, prop::checkAttempts), "3 inherited");
}

// ---- references --------------------------------------------------------------------------------

TEST_F(NodeClasses, ReferencesNameTheObjectsOfTheNodeThatFollows) {
    const NodeId team = make(kRootId, cls::AlertGroup, {"name=team"});
    const NodeId main_disk = config(disks, "main", {"alertGroup=" + team.to_string()});
    const NodeId speed = config(fans, "speed");
    const NodeId repair = config(fans, "repair");
    const NodeId month = make(speed, cls::NodeClassCheckAccumulationConfig, {"tag=month"});
    world.update(main_disk, {object(prop::remedyId, repair)});
    const std::vector<NodeId> needed{top, speed, month, repair, kRootId};
    std::string list;
    for (const NodeId& id : needed) list += (list.empty() ? "" : ",") + id.to_string();
    world.update(main_disk, given({"dependsOn=" + list}));

    const std::string none =
        fmt::format("10 No object corresponding to {} translating property remedyId", repair);
    EXPECT_EQ(refusal([&] { heir(disk, main_disk); }), none);
    const NodeId own_repair = heir(fan, repair, 8);
    const NodeId own_speed = heir(fan, speed);
    const NodeId check = heir(disk, main_disk);
    EXPECT_EQ(shown(check, prop::remedyId), quoted(own_repair) + " inherited");
    EXPECT_EQ(shown(check, prop::alertGroup), quoted(team) + " inherited");
    EXPECT_EQ(world.value(check, prop::dependsOn), set_of({host, own_speed, own_repair, kRootId}));
    const NodeId own_month =
        make(own_speed, cls::CheckAccumulation, {"inherits=" + month.to_string(), "period=1"});
    world.update(check, {});
    EXPECT_EQ(world.value(check, prop::dependsOn),
              set_of({host, own_speed, own_repair, own_month, kRootId}));

    // Another node has objects of its own; a second one that fits makes the reference unclear.
    const NodeId second = heir(fan, repair, 8);
    EXPECT_EQ(refusal([&] { world.update(check, {}); }),
              fmt::format("10 More than one object corresponding to {} translating property "
                          "dependsOn",
                          repair));
    world.remove(second);
    // A move of the node keeps what is inside of it.
    const NodeId branch = world.domain(kRootId, "branch");
    world.update(host, {object(prop::parentId, branch)});
    EXPECT_EQ(world.value(check, prop::remedyId), quoted(own_repair));
}

TEST_F(NodeClasses, LogsAndRemediesFollowTheirClassToo) {
    const NodeId log = agent_group(agent_group(group(1), "log", "Logs"), "/forward", "Forwarded");
    const NodeId log_config = group_config(group_config(all, "log"), "/forward");
    const NodeId source = config(log_config, "source");
    const NodeId reader = config(log_config, "reader", {"parasiteOn=" + source.to_string()});
    const NodeId rule =
        make(reader, cls::LogCheckRule,
             {"order=1", "logCheckRegex='error'", "logCheckStatus=1", "logCheckLogDecision=0"});
    const NodeId remedy =
        make(reader, cls::ActionConnection, {"order=1", "actionId=" + source.to_string()});
    const NodeId own_source = heir(log, source, 9);
    const NodeId own_reader = heir(log, reader, 9);
    EXPECT_EQ(shown(own_reader, prop::parasiteOn), quoted(own_source) + " inherited");
    const NodeId own_rule = make(own_reader, cls::LogCheckRule, {"inherits=" + rule.to_string()});
    EXPECT_EQ(shown(own_rule, prop::logCheckRegex), "\"'error'\" inherited");
    const NodeId own_remedy =
        make(own_reader, cls::ActionConnection, {"inherits=" + remedy.to_string()});
    EXPECT_EQ(shown(own_remedy, prop::actionId), quoted(own_source) + " inherited");

    // All that inherit are found by the list, also inside a class, and the lists stay whole.
    const auto inheriting = [&](const NodeId& root) {
        tqlengine::HandlerList list;
        world.store->resolver().obviousMatches(list, tql::id_t::from_node_id(root),
                                               tql::parse_pattern(".{hasInherits=true}"));
        std::set<NodeId> found;
        for (const auto& one : list) found.insert(one->tqlId().to_node_id());
        return found;
    };
    EXPECT_EQ(inheriting(host), (std::set{own_source, own_reader, own_rule, own_remedy}));
    const NodeId derived = config(log_config, "derived", {"inherits=" + source.to_string()});
    EXPECT_EQ(inheriting(node_class), std::set{derived});
    world.update(reader, given({"label=x"}));
    world.open(3'000'000'000U);
    EXPECT_EQ(inheriting(node_class), std::set{derived});
    const auto marks = dbcache::make_mark_check();
    mdb::VerifyOptions options;
    options.checks.push_back(marks.get());
    EXPECT_EQ(mdb::verify(*world.database, options).text(), "");
}

TEST_F(NodeClasses, OneForAllStandsForEveryObjectOfItsKind) {
    const NodeId every = config(disks, "every", {"forAll=true"});
    const NodeId model = config(disks, "model");
    const NodeId total = make(every, cls::NodeClassCheckAccumulationConfig, {"forAll=true"});
    const NodeId a = agent_check(disk, 0, "a");
    const NodeId b = agent_check(disk, 0, "b");
    const NodeId sum = make(b, cls::CheckAccumulation);
    make(disk, cls::Tag, {"name=no check"});
    make(disk, cls::MultiCheck, {"name=no check"});
    const NodeId exact = group_config(all, "disk", false);
    const NodeId lost = config(exact, "lost");
    const NodeId check = heir(disk, model);
    const dbcache::IdTranslation translation(*world.store, *world.get(check), model);
    const auto candidates = [&](const NodeId& id) {
        const auto found = translation.candidates(id);
        return std::set<NodeId>(found.begin(), found.end());
    };
    EXPECT_EQ(candidates(every), (std::set{a, b, check}));
    EXPECT_EQ(candidates(total), std::set{sum});
    EXPECT_EQ(candidates(fans), (std::set{disk, fan}));
    EXPECT_EQ(candidates(model), std::set{check});
    EXPECT_EQ(candidates(lost), std::set<NodeId>{}) << "a group follows nothing by itself";
}

}  // namespace
