#include "dbcache/schema_table.h"

#include <algorithm>
#include <fmt/format.h>

#include "dbcache/property_kinds.h"
#include "error/exception.h"

namespace dbcache {

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

}  // namespace dbcache
