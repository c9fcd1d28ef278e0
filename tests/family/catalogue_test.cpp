// Every class that can exist, as clients of the HTTP API have it. What there is comes from the
// listing in tests/data/catalogue: each class, and each of its subtypes, is created where it
// belongs with a value of its own in every property that takes one, read, given values that it must
// refuse, changed in all properties, read again, and deleted.
#include <cstdlib>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "running_family.h"
#include "support/catalogue_listing.h"
#include "tql/enumerations.h"

namespace family {
namespace {

using nlohmann::json;
using support::ListedClass;
using support::ListedProperty;

/// The values of an object when it is created, and after it was changed.
enum class Turn : uint8_t { created, changed };
struct Pair {
    json created;
    json changed;
    [[nodiscard]] const json& at(Turn turn) const {
        return turn == Turn::created ? created : changed;
    }
};

// ---- what the listing doesn't tell -------------------------------------------------------------

/// Values that are tied to each other by rules, by name, or nodetype and name.
const std::map<std::string, Pair>& tied_values() {
    static const std::map<std::string, Pair> kValues = {
        // In order, and either in themselves or in per cent.
        {"alertIfAbove", {904, nullptr}},
        {"warnIfAbove", {903, nullptr}},
        {"warnIfBelow", {902, nullptr}},
        {"alertIfBelow", {901, nullptr}},
        {"alertIfAbovePct", {nullptr, 94}},
        {"warnIfAbovePct", {nullptr, 93}},
        {"warnIfBelowPct", {nullptr, 92}},
        {"alertIfBelowPct", {nullptr, 91}},
        {"plotMin", {1, 2}},
        {"plotMax", {101, 102}},
        {"rangeMin", {1, 2}},
        {"rangeMax", {1001, 1002}},
        // A scan of nodes or of addresses.
        {"nodes", {json::array({"77.1"}), json::array()}},
        {"ipRangeBegin", {nullptr, "10.0.0.1"}},
        {"ipRangeEnd", {nullptr, "10.0.0.9"}},
        // A net check is always active.
        {"13 active", {true, true}},
        // Taken only with values that an older copy doesn't know.
        {"slaveBuild", {}},
        // The client gives it as the parent.
        {"parentId", {}},
    };
    return kValues;
}

/// What makes an object be of a subtype, by nodetype, where it isn't the number of the subtype.
const std::map<uint32_t, std::map<uint32_t, json>>& subtype_values() {
    static const std::map<uint32_t, std::map<uint32_t, json>> kValues = {
        {6, {{3, 0}, {4, 1}, {0, 2}, {5, 3}, {2, 4}, {1, 5}, {6, 6}, {7, 7}}},
        {11, {{0, 0}, {1, 7}, {2, 1}, {3, 8}, {4, 9}, {5, 9}, {6, 4}, {7, 9}}},
        {15, {{0, ""}, {1, "1.7"}}},
        {66, {{0, 3}, {1, 1}, {3, 2}, {2, 4}, {4, 5}}},
    };
    return kValues;
}

/// Subtypes without a property of their own, and those that no object has.
const std::map<uint32_t, std::set<uint32_t>> kFurtherSubtypes = {
    {6, {0, 7}}, {10, {3}}, {13, {9}}, {33, {0}}, {38, {0}}, {53, {0}}, {66, {1}}};
constexpr uint32_t kNoSubtype = 0xFFFFFFFF;

/// What is told of objects beside their properties.
const std::set<std::string> kComputed = {
    "parentId", "siblingName", "treeLabel", "longLabel", "hasInherits", "anyOverridden",
    // Of checks, and of what is measured as they are.
    "isContinuous", "supportsMultiCheck", "unit", "rangeMin", "rangeMax", "stateColors",
    "stateLabel0", "stateLabel1", "stateLabel2", "stateLabel3", "stateLabel4", "stateLabel5"};

class CatalogueOfClasses : public testing::Test {
  protected:
    void SetUp() override {
        const char* source = std::getenv("TARMIK_SOURCE");
        if (source == nullptr) GTEST_SKIP() << "TARMIK_SOURCE tells where the listing is";
        classes = support::read_catalogue(std::string(source) + "/tests/data/catalogue");
        find_places();
    }

    struct Place {
        uint32_t parent = 0;  ///< nodetype; 0 for the root
        int32_t group = -1;
    };

    /// The shortest way down to each class.
    void find_places() {
        places[1] = {};
        for (std::vector<uint32_t> level = {1}; !level.empty();) {
            std::vector<uint32_t> next;
            for (const uint32_t parent : level) {
                const auto add = [&](const std::set<uint32_t>& children, int32_t group) {
                    for (const uint32_t child : children)
                        if (places.emplace(child, Place{parent, group}).second)
                            next.push_back(child);
                };
                const ListedClass& one = classes.at(parent);
                add(one.children, -1);
                for (const auto& [group, children] : one.groups) add(children, group);
            }
            level = std::move(next);
        }
    }

    Outcome ask(const std::string& what, json body) {
        if (!user.empty() && what != "select") body["user"] = user;
        return post(api, "/api/v1/" + what, body);
    }

    std::string create(const ListedClass& one, const std::string& parent, const json& values) {
        const json body = {{"parent", parent}, {"class", one.name}, {"properties", values}};
        const Outcome made = ask("create", body);
        EXPECT_TRUE(made.ok()) << made.text << "\nasked: " << body.dump();
        return made.ok() ? made.answer->at("id").get<std::string>() : "0.1";
    }

    json read(const std::string& id, const std::string& pattern = ".!") {
        const Outcome found = ask("select", {{"roots", {id}}, {"pattern", pattern}});
        if (!found.ok() || found.answer->at("results").empty()) return nullptr;
        return json::parse(found.answer->at("results").at(0).at("properties").dump());
    }

    // ---- objects -------------------------------------------------------------------------------

    /// A new object with no more values than it needs, in a place of its own.
    std::string make(uint32_t nodetype) {
        const ListedClass& one = classes.at(nodetype);
        json values = json::object();
        for (const ListedProperty& property : one.properties)
            if ((property.has('K') || property.must_be_given || property.kind == "identifier") &&
                !property.has('R') && property.subtypes.empty() && !property.has('N'))
                values[property.name] = property.tells_subtype
                                            ? subtype_value(one, property, least_subtype(one))
                                            : value_of(one, property, Turn::created, false);
        return create(one, parent_for(nodetype), values);
    }

    std::string get(uint32_t nodetype) {
        std::string& id = standing[nodetype];
        if (id.empty()) id = make(nodetype);
        return id;
    }

    std::string get(const std::string& class_name) {
        for (const auto& [nodetype, place] : places)
            if (classes.at(nodetype).name == class_name) return get(nodetype);
        ADD_FAILURE() << "no class is named " << class_name;
        return "0.1";
    }

    /// Below a singleton's parent there may be one already.
    std::string parent_for(uint32_t nodetype) {
        const Place place = places.at(nodetype);
        if (place.parent == 0) return "0.1";
        const std::string parent =
            classes.at(nodetype).singleton == "any" ? make(place.parent) : get(place.parent);
        return place.group < 0 ? parent : fmt::format("{}.{}", parent, place.group);
    }

    /// The groups of an agent's log checks that are handed to it, and of those of its services.
    std::string log_group(const std::string& name) {
        const auto group = [&](const std::string& parent, const std::string& agent_id) {
            return create(classes.at(12), parent, {{"agentId", agent_id}, {"name", agent_id}});
        };
        return group(group(make(7) + ".1", "log"), name);
    }

    std::string parent_for(uint32_t nodetype, uint32_t subtype) {
        if (nodetype == 11 && subtype == 5) return log_group("/forward");
        if (nodetype == 11 && subtype == 7) return log_group("/systemd");
        return parent_for(nodetype);
    }

    // ---- values --------------------------------------------------------------------------------

    static uint32_t least_subtype(const ListedClass& one) {
        return one.nodetype == 13 || one.nodetype == 10 ? 2 : 0;
    }

    json subtype_value(const ListedClass& one, const ListedProperty& property, uint32_t subtype) {
        if (one.nodetype == 4) return subtype == 1 ? get("Check") : get("Domain");
        if (property.kind == "object")
            return subtype == 0 ? fmt::format("77.{}", ++serial)
                                : mib_object(subtype == 1 ? 12 : 14);
        if (property.kind == "bool") return subtype != 0;
        const auto found = subtype_values().find(one.nodetype);
        const json value =
            found == subtype_values().end() ? json(subtype) : found->second.at(subtype);
        return property.kind == "enum" ? choice(property, value.get<uint32_t>()) : value;
    }

    std::string mib_object(uint32_t type) {
        return create(
            classes.at(16), get("Domain"),
            {{"snmpId", fmt::format("1.3.{}", ++serial)}, {"name", "traffic"}, {"snmpType", type}});
    }

    /// As clients read it: the text, if there is one.
    static json choice(const ListedProperty& property, uint32_t value) {
        const auto text = tql::find_enumeration_text(enumeration(property), value);
        return text ? json(std::string(*text)) : json(value);
    }

    static uint32_t enumeration(const ListedProperty& property) {
        const std::string& name = property.of.at(0);
        if (name.starts_with("0x")) return static_cast<uint32_t>(std::stoul(name, nullptr, 16));
        return tql::find_enumeration(name)->id;
    }

    static json choice(const ListedProperty& property, Turn turn) {
        std::vector<uint32_t> numbers = {1, 2, 3};
        if (const tql::enumeration_t* listed = tql::find_enumeration(enumeration(property))) {
            numbers.clear();
            for (const auto& value : listed->values) numbers.push_back(value.value);
        }
        std::erase_if(numbers, [&](uint32_t one) { return std::to_string(one) == property.start; });
        return choice(property, numbers.at(turn == Turn::created ? 0 : numbers.size() - 1));
    }

    json reference(const ListedProperty& property, Turn turn, bool existing) {
        const bool any = property.of.empty();
        if (turn == Turn::changed || !existing) return fmt::format("77.{}", ++serial);
        return get(any ? "Node" : property.of.front());
    }

    /// A value that the property doesn't start with, another one each turn, and in the form in
    /// which it is read. `existing`: references point at objects that are there.
    json value_of(const ListedClass& one, const ListedProperty& property, Turn turn,
                  bool existing) {
        for (const std::string& key :
             {fmt::format("{} {}", one.nodetype, property.name), property.name})
            if (const auto tied = tied_values().find(key); tied != tied_values().end())
                return tied->second.at(turn);
        const bool first = turn == Turn::created;
        const std::string& kind = property.kind;
        const unsigned number = ++serial;
        if (kind == "bool") return (property.start == "true") != first;
        if (kind == "u32" || kind == "i32" || kind == "i32-moved") {
            const int small = first ? 11 : 12;
            if (property.has('K')) return 100 + number;
            return property.limits == "..0" ? -small : small;
        }
        if (kind == "real" || kind == "real-int") return first ? 11.5 : 12.5;
        if (kind == "enum" || kind == "state-action") return choice(property, turn);
        if (kind == "object") return reference(property, turn, existing);
        if (kind.starts_with("object-set") || kind == "acyclic-set")
            return json::array({reference(property, turn, existing)});
        if (kind == "string-list") return json::array({"a", std::to_string(number)});
        if (kind == "foreign-id") return fmt::format("77.{}", number);
        if (kind == "gid")
            return fmt::format("01:02:{:02}:{:02}", number / 100 % 100, number % 100);
        if (kind == "version") return fmt::format("3.{}", number);
        if (kind == "bignum") return fmt::format("123{}", number);
        if (kind == "oid") return fmt::format("1.3.6.{}", number);
        if (kind == "ipv4") return fmt::format("10.0.{}.{}", number / 250, number % 250);
        if (kind == "date")
            return fmt::format("2026-11-{} {:02}:{:02}:{:02}", first ? 21 : 22, number / 3600 % 24,
                               number / 60 % 60, number % 60);
        if (kind == "unit" || kind == "unit-from-text") return first ? "B/s" : "V";
        if (kind == "blob") return first ? "AAEC" : "AAED";
        if (kind == "png" || kind == "large-png") return first ? "iVBORw0KGgo=" : "iVBORw0KGgoA";
        if (kind == "pattern") return fmt::format("'{}'", number);
        return fmt::format("{} {}", property.name.substr(0, 20), number);
    }

    json values(const ListedClass& one, uint32_t subtype, Turn turn) {
        json values = json::object();
        for (const ListedProperty& property : one.properties) {
            if (property.has('R') || property.kind == "action" || !property.is_in(subtype) ||
                property.name == "parentId")
                continue;
            const bool stays = property.has('C') || property.tells_subtype;
            if (turn == Turn::changed && stays) continue;
            values[property.name] = property.tells_subtype ? subtype_value(one, property, subtype)
                                                           : value_of(one, property, turn, true);
        }
        return values;
    }

    // ---- what is there -------------------------------------------------------------------------

    void expect(const std::string& id, const ListedClass& one, uint32_t subtype,
                const json& given) {
        const json found = read(id);
        ASSERT_TRUE(found.is_object()) << "not found";
        std::set<std::string> names = kComputed;
        for (const ListedProperty& property : one.properties) {
            if (!property.is_in(subtype)) continue;
            names.insert(property.name);
            if (property.kind == "action") continue;
            const auto value = found.find(property.name);
            if (value == found.end()) {
                // Of the 32 states of a check those are told that its kind has.
                if (property.kind != "state-action")
                    ADD_FAILURE() << property.name << " isn't read";
                continue;
            }
            if (property.kind == "last-user") {
                EXPECT_EQ(*value, user);
            }
            const auto wanted = given.find(property.name);
            if (wanted != given.end()) {
                EXPECT_EQ(*value, *wanted) << property.name;
            }
        }
        // What is stored is the same without what is computed beside it.
        json stored = json::object();
        std::string stored_names;
        for (const auto& [name, value] : found.items()) {
            EXPECT_TRUE(names.contains(name)) << name << " isn't listed";
            if (kComputed.contains(name)) continue;
            stored[name] = value;
            stored_names += (stored_names.empty() ? "" : ", ") + name;
        }
        EXPECT_EQ(read(id, ".[" + stored_names + "]"), stored);
    }

    // ---- what is refused -----------------------------------------------------------------------

    void refuses(const std::string& id, const json& values, const std::string& text) {
        const Outcome asked = ask("update", {{"id", id}, {"properties", values}});
        EXPECT_FALSE(asked.ok()) << "taken: " << values.dump();
        EXPECT_THAT(asked.text, testing::HasSubstr(text)) << "asked: " << values.dump();
    }

    /// Values that no property of the kind takes, with what is said of them.
    static const std::vector<std::pair<json, std::string>>& unsound(const std::string& kind) {
        static const std::map<std::string, std::vector<std::pair<json, std::string>>> kValues = {
            {"identifier", {{"", " must not be empty"}, {"a/b", " may only contain letters"}}},
            {"non-empty", {{"", " too short"}}},
            {"regex", {{"(", ": "}}},
            {"pattern", {{"'", ""}}},
            {"png", {{"AAEC", ": Not a valid png image"}}},
            {"large-png", {{"AAEC", ": Not a valid png image"}}},
        };
        static const std::vector<std::pair<json, std::string>> kNone;
        const auto found = kValues.find(kind);
        return found == kValues.end() ? kNone : found->second;
    }

    void refuses_beyond_limits(const std::string& id, const ListedProperty& property) {
        const std::string& limits = property.limits;
        const size_t dots = limits.find("..");
        if (dots == std::string::npos) return;
        const bool length = limits.starts_with("length ");
        const std::string high = limits.substr(dots + 2);
        const std::string low = length ? limits.substr(7, dots - 7) : limits.substr(0, dots);
        if (length) {
            refuses(id, {{property.name, std::string(std::stoul(high) + 1, 'x')}},
                    fmt::format("Value of property {} too long", property.name));
            return;
        }
        if (property.kind == "date" || property.kind == "enum") return;
        if (!low.empty() && (low != "0" || property.kind == "i32"))
            refuses(id, {{property.name, std::stoll(low) - 1}},
                    fmt::format("Value for {} too low", property.name));
        if (!high.empty())
            refuses(id, {{property.name, std::stoll(high) + 1}},
                    fmt::format("Value for {} too high", property.name));
    }

    void refuses_other_classes(const std::string& id, const ListedProperty& property) {
        const bool set = property.kind.starts_with("object-set");
        if (property.of.empty() || (!set && property.kind != "object")) return;
        const auto& of = property.of;
        const bool takes_views = std::find(of.begin(), of.end(), "View") != of.end();
        const json other = get(takes_views ? "User" : "View");
        refuses(id, {{property.name, set ? json::array({other}) : other}},
                fmt::format("{} points at the wrong class", property.name));
    }

    void refuses_wrong_values(const std::string& id, const ListedClass& one,
                              const ListedProperty& property, const json& held) {
        const std::string& name = property.name;
        if (property.has('R')) {
            if (property.kind == "count")
                refuses(id, {{name, 5}}, "Cannot update computed property " + name);
            if (property.kind == "series")
                refuses(id, {{name, 5}}, "Attempted update of TSDB index");
            return;
        }
        if (property.kind == "action" || name == "parentId" || property.tells_subtype) return;
        if (property.has('C')) {
            const json other = property.kind == "bool"
                                   ? json(!held.get<bool>())
                                   : value_of(one, property, Turn::changed, true);
            refuses(id, {{name, other}}, "Cannot update const property " + name);
            return;
        }
        // A user who is sent back without a password keeps the one there is.
        if (!property.has('N') && property.kind != "password")
            refuses(id, {{name, nullptr}}, "Null given for property " + name);
        for (const auto& [value, text] : unsound(property.kind))
            refuses(id, {{name, value}}, name + text);
        refuses_beyond_limits(id, property);
        refuses_other_classes(id, property);
    }

    /// Each rule of each property once, by the first object that has it.
    void refuse(const std::string& id, const ListedClass& one, uint32_t subtype,
                const json& given) {
        for (const ListedProperty& property : one.properties)
            if (property.is_in(subtype) && refused.insert({one.nodetype, property.name}).second)
                refuses_wrong_values(id, one, property, given.value(property.name, json()));
        for (const auto& rule : one.rules) {
            if (rule.subtype && *rule.subtype != subtype) continue;
            json values = {{rule.greater, 1}, {rule.lesser, 2}};
            for (const auto& other : one.rules)
                if (other.subtype == rule.subtype)
                    for (const std::string& name : {other.greater, other.lesser})
                        if (!values.contains(name)) values[name] = nullptr;
            refuses(id, values, rule.message);
        }
    }

    void live(const ListedClass& one, uint32_t subtype) {
        json given = values(one, subtype, Turn::created);
        const Outcome made = ask("create", {{"parent", parent_for(one.nodetype, subtype)},
                                            {"class", one.name},
                                            {"properties", given}});
        ASSERT_TRUE(made.ok()) << made.text << "\nasked: " << given.dump();
        const std::string id = made.answer->at("id");
        expect(id, one, subtype, given);
        refuse(id, one, subtype, given);
        expect(id, one, subtype, given);

        const json changes = values(one, subtype, Turn::changed);
        const Outcome changed = ask("update", {{"id", id}, {"properties", changes}});
        EXPECT_TRUE(changed.ok()) << changed.text << "\nasked: " << changes.dump();
        if (changed.ok()) given.update(changes);
        expect(id, one, subtype, given);

        json actions = json::object();
        for (const ListedProperty& property : one.properties)
            if (property.kind == "action" && property.is_in(subtype)) actions[property.name] = 1;
        if (!actions.empty()) {
            const Outcome asked = ask("update", {{"id", id}, {"properties", actions}});
            EXPECT_TRUE(asked.ok()) << asked.text << "\nasked: " << actions.dump();
        }
        const Outcome deleted = ask("delete", {{"id", id}});
        EXPECT_TRUE(deleted.ok()) << deleted.text;
        EXPECT_TRUE(read(id).is_null()) << "still there";
    }

    std::set<uint32_t> subtypes(const ListedClass& one) {
        std::set<uint32_t> all;
        for (const ListedProperty& property : one.properties)
            all.insert(property.subtypes.begin(), property.subtypes.end());
        if (const auto more = kFurtherSubtypes.find(one.nodetype); more != kFurtherSubtypes.end())
            all.insert(more->second.begin(), more->second.end());
        const bool told = std::any_of(one.properties.begin(), one.properties.end(),
                                      [](const auto& property) { return property.tells_subtype; });
        if (one.nodetype == 15) all.erase(2);  // no group is of it
        if (!told && all.size() > 1) all = {0};
        if (all.empty()) all.insert(kNoSubtype);
        return all;
    }

    RunningFamily family{4U << 20, {}, 0, 4096};  // some objects are larger than a small block
    cli::ApiClient api{family.url()};
    support::Catalogue classes;
    std::map<uint32_t, Place> places;
    std::map<uint32_t, std::string> standing;            ///< one of each that was asked for
    std::set<std::pair<uint32_t, std::string>> refused;  ///< by nodetype, whose refusals were seen
    unsigned serial = 0;
    std::string user;  ///< who writes
};

TEST_F(CatalogueOfClasses, LivesThroughTheApiAndRefusesWhatItMust) {
    user = make(2);
    for (const auto& [nodetype, one] : classes) {
        if (!places.contains(nodetype)) {
            EXPECT_EQ(nodetype, 69U) << one.name << " belongs nowhere";
            continue;
        }
        for (const uint32_t subtype : subtypes(one)) {
            SCOPED_TRACE(
                fmt::format("nodetype {} {}{}", nodetype, one.name,
                            subtype == kNoSubtype ? "" : fmt::format(", subtype {}", subtype)));
            live(one, subtype);
        }
    }
    EXPECT_EQ(family.stop().code, 0) << family.log_text();
}

}  // namespace
}  // namespace family
