// The classes that the server registers against those that stand in tests/data/catalogue, which a
// person has typed: what one of the two has and the other hasn't, and what they say differently.
#include "support/catalogue_listing.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include "dbcache/schema/declare_all.h"
#include "dbcache/schema_table.h"
#include "fake_tree.h"
#include "tql/enumerations.h"
#include "tql/property_kinds.h"

namespace dbcache {
namespace {

/// What a class is, a line of text for each thing that can be told apart, by its name.
using Told = std::map<std::string, std::string>;

std::string joined(const std::set<uint32_t>& numbers) {
    return fmt::format("{}", fmt::join(numbers, " "));
}

// ---- what the listing tells --------------------------------------------------------------------

uint32_t enumeration_of(const std::string& name) {
    if (name.starts_with("0x")) return static_cast<uint32_t>(std::stoul(name, nullptr, 16));
    const tql::enumeration_t* found = tql::find_enumeration(name);
    if (found == nullptr) throw std::runtime_error("no enumeration is named " + name);
    return found->id;
}

bool is_enumeration(const std::string& kind) {
    return kind == "enum" || kind == "state-action";
}

/// The targets of a reference: classes in order of their numbers, then ids.
std::string targets_of(const std::vector<std::string>& of) {
    std::set<uint32_t> classes;
    std::string ids;
    for (const std::string& one : of)
        if (std::isdigit(static_cast<unsigned char>(one[0])) != 0)
            ids += ", or " + one;
        else
            classes.insert(*tql::find_class(one));
    std::vector<std::string> names;
    for (const uint32_t one : classes) names.push_back(tql::class_name(one));
    return names.empty() ? "" : fmt::format("to {}{}", fmt::join(names, ", "), ids);
}

std::string told_by_listing(const support::ListedProperty& property, bool class_inherits) {
    std::string flags = property.flags;
    if (!class_inherits && !property.has('X')) flags += 'X';
    if (property.kind == "mark" && !property.has('X')) flags += 'X';
    std::string ordered;
    for (const char one : std::string_view("NKCXR"))
        if (flags.find(one) != std::string::npos) ordered += one;
    std::string more = property.limits;
    if (more.empty() && property.kind == "real-int") more = "..4294967295";
    if (more.empty() && property.kind == "date") more = "0..4294967295";
    if (more.empty() && property.kind == "non-empty-string") more = "length 1..";
    if (is_enumeration(property.kind))
        more +=
            fmt::format("{}of {:x}", more.empty() ? "" : " ", enumeration_of(property.of.at(0)));
    else
        more += targets_of(property.of);
    return fmt::format("{} {} = {} or {} {}{}", property.kind, ordered,
                       property.start.value_or("null"), property.end.value_or("null"), more,
                       property.tells_subtype ? " subtype" : "");
}

Told told_by_listing(const support::ListedClass& one) {
    Told told;
    told["class"] = fmt::format("{} {} origin {}", one.number, one.name, one.origin);
    told["singleton"] = one.singleton.empty() ? "nowhere" : one.singleton;
    told["children"] = joined(one.children);
    for (const auto& [id, children] : one.groups)
        told[fmt::format("group {}", id)] = joined(children);
    for (const support::ListedRule& rule : one.rules)
        told[fmt::format("rule {} > {} in {}", rule.greater, rule.lesser,
                         rule.subtype ? std::to_string(*rule.subtype) : "all")] = rule.message;
    const bool inherits = std::any_of(one.properties.begin(), one.properties.end(),
                                      [](const auto& each) { return each.name == "inherits"; });
    for (const support::ListedProperty& property : one.properties) {
        const std::string text = told_by_listing(property, inherits);
        const std::string name = fmt::format("{} {}", property.number, property.name);
        if (property.subtypes.empty()) told[name] = text;
        for (const uint32_t subtype : property.subtypes)
            told[fmt::format("{} in {}", name, subtype)] = text;
    }
    return told;
}

// ---- what the schemas tell ---------------------------------------------------------------------

class Listing : public testing::Test {
  protected:
    Listing() { schema::declare_all(table); }

    /// The value as a person types it.
    static std::string value_text(const PropertySchema& property, const work_t& work,
                                  const PropertyChain& chain) {
        if (work.is_null() || property.has(kComputed)) return "null";
        const std::unique_ptr<tql::property_t> value = property.to_tql(work, chain);
        if (const auto* choice = dynamic_cast<const tql::property_enum_t*>(value.get()))
            return std::to_string(choice->value);
        std::string text = value->print();
        if (text == "{}" || text == "BLOB") return "";
        if (text.starts_with('"')) text = text.substr(1, text.size() - 2);
        return text;
    }

    [[nodiscard]] std::string told_by_schema(const NodetypeSchema::Entry& entry) const {
        const PropertySchema& property = *entry.schema;
        const test::FakeChain nothing(tree, kObject);
        work_t start;
        property.initial(start);
        work_t end;
        property.load(nothing, end);
        const std::unique_ptr<tql::property_t> null = property.to_tql({}, nothing);
        std::string kind(property.kind);
        std::erase(kind, ',');
        std::replace(kind.begin(), kind.end(), ' ', '-');
        std::string flags;
        for (const auto& [bit, letter] :
             {std::pair{kNullable, 'N'}, std::pair{kPrimaryKey, 'K'}, std::pair{kConst, 'C'},
              std::pair{kNoInheritance, 'X'}, std::pair{kComputed, 'R'}})
            if (property.has(bit)) flags += letter;

        // Behind its default, which the values above tell, a property describes its limits.
        std::string more = property.describe();
        const auto* choice = dynamic_cast<const tql::property_enum_t*>(null.get());
        for (const auto& [head, work] :
             {std::pair{"default ", &start}, std::pair{" inherited default ", &end}})
            if (more.starts_with(head) && !work->is_null())
                more.erase(0, std::string_view(head).size() +
                                  property.to_tql(*work, nothing)->print().size());
        if (choice != nullptr) {
            const size_t limit = more.find("..");
            more = (limit == std::string::npos ? "" : more.substr(limit) + " ") +
                   fmt::format("of {:x}", choice->enumeration);
        }
        more.erase(0, more.find_first_not_of(' '));
        return fmt::format("{} {} = {} or {} {}{}", kind, flags,
                           value_text(property, start, nothing), value_text(property, end, nothing),
                           more, entry.determines_subtype ? " subtype" : "");
    }

    [[nodiscard]] Told told_by_schema(const NodetypeSchema& schema) const {
        Told told;
        told["class"] = fmt::format("{} {} origin {}", schema.tql_class, schema.class_name(),
                                    schema.origin_type);
        std::string singleton = "nowhere";
        if (schema.is_singleton_under(cls::MountPoint)) singleton = "MountPoint";
        if (schema.is_singleton_under(cls::Domain)) singleton = "any";
        told["singleton"] = singleton;
        told["children"] = joined(schema.direct_children());
        for (const auto& [id, group] : schema.groups())
            told[fmt::format("group {}", id)] = joined(group.children);
        for (const auto& rule : schema.restrictions())
            told[fmt::format("rule {} > {} in {}", tql::property_name(rule.property_1),
                             tql::property_name(rule.property_2),
                             rule.subtype == kAllSubtypes ? "all" : std::to_string(rule.subtype))] =
                rule.message;
        for (const NodetypeSchema::Entry& entry : schema.properties())
            told[fmt::format(
                "{} {}{}", entry.property, entry.schema->name(),
                entry.subtype == kAllSubtypes ? "" : fmt::format(" in {}", entry.subtype))] =
                told_by_schema(entry);
        return told;
    }

    static constexpr NodeId kObject{1, 500};
    SchemaTable table;
    test::FakeTree tree;
};

void compare(const std::string& where, const Told& listed, const Told& registered) {
    for (const auto& [what, text] : listed) {
        const auto found = registered.find(what);
        if (found == registered.end())
            ADD_FAILURE() << where << ", " << what << ": only the listing has it: " << text;
        else if (found->second != text)
            ADD_FAILURE() << where << ", " << what << ":\n  listing: " << text
                          << "\n  schema:  " << found->second;
    }
    for (const auto& [what, text] : registered)
        if (!listed.contains(what))
            ADD_FAILURE() << where << ", " << what << ": only the schema has it: " << text;
}

TEST_F(Listing, SaysTheSameAsTheSchemas) {
    const char* source = std::getenv("TARMIK_SOURCE");
    if (source == nullptr) GTEST_SKIP() << "TARMIK_SOURCE tells where the listing is";
    const support::Catalogue catalogue =
        support::read_catalogue(std::string(source) + "/tests/data/catalogue");
    tree.add(kObject, cls::Domain, {});
    for (uint32_t nodetype = 0; nodetype < nodetype::kCount; ++nodetype) {
        const NodetypeSchema* schema = table.find(nodetype);
        const auto listed = catalogue.find(nodetype);
        const std::string where = fmt::format("nodetype {} {}", nodetype,
                                              schema != nullptr           ? schema->class_name()
                                              : listed != catalogue.end() ? listed->second.name
                                                                          : "");
        if ((schema != nullptr) != (listed != catalogue.end()))
            ADD_FAILURE() << where << ": only the " << (schema != nullptr ? "server" : "listing")
                          << " has it";
        else if (schema != nullptr)
            compare(where, told_by_listing(listed->second), told_by_schema(*schema));
    }
}

}  // namespace
}  // namespace dbcache
