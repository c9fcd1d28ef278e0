#include "dbcache/schema_table.h"

#include <algorithm>
#include <fmt/format.h>

#include "dbcache/property_kinds.h"
#include "error/exception.h"

namespace dbcache {

namespace {

std::string subtype_text(uint32_t subtype) {
    return subtype == kAllSubtypes ? std::string() : fmt::format(" [{}]", subtype);
}

std::string flag_text(uint32_t flags) {
    std::string text;
    for (const auto& [bit, letter] :
         {std::pair{kNullable, 'N'}, std::pair{kPrimaryKey, 'K'}, std::pair{kConst, 'C'},
          std::pair{kNoInheritance, 'X'}, std::pair{kComputed, 'R'}})
        if ((flags & bit) != 0) text += letter;
    return text.empty() ? "-" : text;
}

std::string entry_text(const NodetypeSchema::Entry& entry) {
    const PropertySchema& schema = *entry.schema;
    std::string text =
        fmt::format("  {} {}{} {} {}", entry.property, schema.name(), subtype_text(entry.subtype),
                    schema.kind, flag_text(schema.flags));
    if (const std::string more = schema.describe(); !more.empty()) text += " " + more;
    if (entry.determines_subtype) text += " determines subtype";
    return text + "\n";
}

std::string children_text(const std::map<uint32_t, uint32_t>& classes) {
    std::string text;
    for (const auto& [child_class, child_nodetype] : classes)
        text += fmt::format(" {}:{}", tql::class_name(child_class), child_nodetype);
    return text + "\n";
}

}  // namespace

ENoSchema::ENoSchema(uint32_t nodetype)
    : Exception(fmt::format("No schema found for nodetype {}", nodetype)), nodetype_(nodetype) {}

SchemaTable::SchemaTable() = default;
SchemaTable::~SchemaTable() = default;

NodetypeSchema& SchemaTable::registerSchema(std::unique_ptr<NodetypeSchema> schema) {
    NodetypeSchema& made = *schema;
    made.key_classes_.insert(made.tql_class);
    const auto entries = made.properties();
    const bool has_key = std::any_of(entries.begin(), entries.end(), [](const auto& entry) {
        return entry.schema->has(kPrimaryKey);
    });
    error::check(made.is_singleton() || has_key, "No primary key declared for class {}",
                 made.class_name());
    error::check(made.nodetype < schemas_.size(), "Nodetype out of range");
    error::check(made.tql_class < cls::kCount, "Class {} of nodetype {} out of range",
                 made.tql_class, made.nodetype);
    error::check(schemas_[made.nodetype] == nullptr, "Duplicate nodetype registration for {}",
                 made.nodetype);
    if (made.lookupProperty(prop::parentId, kAllSubtypes))
        reparentable_classes_.insert(made.tql_class);
    schemas_[made.nodetype] = std::move(schema);
    return made;
}

void SchemaTable::seal() {
    const auto known = [this](uint32_t number) { return find(number) != nullptr; };
    for (const auto& schema : schemas_) {
        if (schema == nullptr) continue;
        schema->keep_children(known);
        const std::optional<size_t> inherits = schema->lookupProperty(prop::inherits, kAllSubtypes);
        if (!inherits) {
            for (auto& entry : schema->properties_) entry.schema->flags |= kNoInheritance;
            continue;
        }
        const auto* edge =
            dynamic_cast<const PropertyNodeIdSchema*>(schema->properties_[*inherits].schema.get());
        if (edge == nullptr) continue;
        for (const uint32_t other : edge->rules().allowed_classes)
            check_inheritable(*schema, other);
    }
}

void SchemaTable::check_inheritable(const NodetypeSchema& schema, uint32_t other_class) const {
    if (other_class == schema.tql_class) return;
    // As with children: a table that holds only a part of the classes says nothing of the others.
    const bool registered = std::any_of(schemas_.begin(), schemas_.end(), [&](const auto& other) {
        return other != nullptr && other->tql_class == other_class;
    });
    if (!registered) return;
    const auto has_number = [](const NodetypeSchema& other, uint32_t number) {
        return std::any_of(other.properties_.begin(), other.properties_.end(),
                           [&](const auto& entry) { return entry.property == number; });
    };
    for (const auto& entry : schema.properties_) {
        if (entry.schema->has(kNoInheritance)) continue;
        const bool present = std::any_of(schemas_.begin(), schemas_.end(), [&](const auto& other) {
            return other != nullptr && other->tql_class == other_class &&
                   has_number(*other, entry.property);
        });
        if (!present)
            throw error::EFatal(fmt::format(
                "The class {} has inheritable property {} which is not present in class {}",
                schema.class_name(), entry.schema->name(), tql::class_name(other_class)));
    }
}

const NodetypeSchema& SchemaTable::get(uint32_t nodetype) const {
    const NodetypeSchema* schema = find(nodetype);
    if (schema == nullptr) throw ENoSchema(nodetype);
    return *schema;
}

std::string SchemaTable::dump() const {
    std::string text;
    for (const auto& schema : schemas_) {
        if (schema == nullptr) continue;
        text += fmt::format("nodetype {} class {} {} origin {}{}\n", schema->nodetype,
                            schema->tql_class, schema->class_name(), schema->origin_type,
                            schema->is_singleton() ? " singleton" : "");
        for (const auto& entry : schema->properties()) text += entry_text(entry);
        if (!schema->child_classes().empty())
            text += "  contains" + children_text(schema->child_classes());
        for (const auto& [id, group] : schema->groups())
            text += fmt::format("  group {} {}{}", id, tql::class_name(group.tql_class),
                                children_text(group.child_classes));
        for (const auto& rule : schema->restrictions())
            text += fmt::format("  rule {} {}{}: {}\n", tql::property_name(rule.property_1),
                                tql::property_name(rule.property_2), subtype_text(rule.subtype),
                                rule.message);
    }
    return text;
}

}  // namespace dbcache
