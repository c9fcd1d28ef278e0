#include "dbcache/class_table.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "dbcache/property_kinds.h"
#include "dbcache/special_kinds.h"
#include "error/exception.h"
#include "tql/names.h"
#include "tql/property_map.h"

namespace dbcache {

std::optional<std::string> OrderSiblingEncoder::siblingName(const PropertyChain& chain) const {
    mdb::PropertyUint32 order(prop::order);
    if (chain.read(0, order) != found_t::value) return std::nullopt;
    return fmt::format("{}", order.value);
}

template <class Base>
TableSchema<Base>::TableSchema(const ClassTable& table)
    : Base(table.nodetype, table.tql_class, table.origin_type), table_(table) {
    for (const PropertyRow& row : table.properties) add_rows(row);
    for (const SharedRows& shared : table.shared)
        for (PropertyRow row : shared.rows) {
            const bool own = std::any_of(table.properties.begin(), table.properties.end(),
                                         [&](const auto& one) { return one.number == row.number; });
            if (own) continue;
            if (!shared.subtypes.empty()) row.subtypes = shared.subtypes;
            add_rows(row);
        }
    for (const ChildRow& child : table.children)
        this->addChildClass(child.tql_class, child.nodetype);
    for (const GroupRow& group : table.groups) {
        this->addGroup(group.id, group.tql_class);
        for (const ChildRow& child : group.children)
            this->addGroupChild(child.tql_class, group.id, child.nodetype);
    }
    for (const GreaterRow& rule : table.greater) {
        const auto holds = [this, rule](const work_t& greater, const work_t& lesser) {
            if (greater.is_null() || lesser.is_null()) return true;
            const size_t index = this->findProperty(rule.greater, rule.subtype);
            return this->properties()[index].schema->compare(greater, lesser) > 0;
        };
        this->addRestriction(rule.greater, rule.lesser, rule.subtype, holds,
                             std::string(rule.message));
    }
}

/// One property of each of the row's subtypes; of the states of a check one for each.
template <class Base>
void TableSchema<Base>::add_rows(PropertyRow row) {
    const uint32_t end =
        row.number + (row.kind == kind_t::state_action ? prop::kStateActionCount : 1);
    for (; row.number < end; ++row.number) {
        const std::shared_ptr<PropertySchema> schema = make_property(row);
        if (row.subtypes.empty())
            this->addPropertySchema(schema, kAllSubtypes, row.determines_subtype);
        for (const uint32_t subtype : row.subtypes)
            this->addPropertySchema(schema, subtype, row.determines_subtype);
    }
}

template <class Base>
std::optional<std::string> TableSchema<Base>::siblingName(const PropertyChain& chain) const {
    if (table_.sibling_name == 0) return std::nullopt;
    mdb::PropertyString name(table_.sibling_name);
    if (chain.read(0, name) != found_t::value) return std::nullopt;
    return std::move(name.value);
}

template <class Base>
void TableSchema<Base>::encodeGroupSpecials(const PropertyChain& chain, int32_t group_id,
                                            const tql::pattern_t& pattern,
                                            tql::property_map_t& out) const {
    for (const GroupRow& group : table_.groups) {
        if (group.id != group_id) continue;
        mdb::PropertyString name(prop::name);
        static_cast<void>(chain.read(0, name));
        add_labels(pattern, out, group.sibling_name, group.tree_label,
                   std::string(group.long_label_head) + name.value);
        return;
    }
    error::check(false, "{}Schema::encodeGroupSpecials invoked with group_id={}",
                 this->class_name(), group_id);
}

template <class Base>
void TableSchema<Base>::listTemplates(const SchemaObject& /*parent*/,
                                      std::vector<TemplateValues>& out) const {
    if (!table_.suggestion.label.empty()) out.emplace_back();
}

template <class Base>
void TableSchema<Base>::encodeTemplateSpecials(const SchemaObject* parent,
                                               const TemplateValues& values,
                                               const tql::pattern_t& pattern,
                                               tql::property_map_t& out) const {
    const TemplateRow& suggestion = table_.suggestion;
    if (suggestion.label.empty())
        Base::encodeTemplateSpecials(parent, values, pattern, out);
    else
        add_labels(pattern, out, suggestion.sibling_name, suggestion.label, suggestion.label);
}

template class TableSchema<NodetypeSchema>;
template class TableSchema<SingletonSchema>;
template class TableSchema<SingletonIfChildOfMountPointSchema>;

void add_labels(const tql::pattern_t& pattern, tql::property_map_t& out,
                std::string_view sibling_name, std::string_view tree_label,
                std::string_view long_label) {
    const auto put = [&](uint32_t number, std::string_view text) {
        if (pattern.wants(number))
            tql::add<tql::property_string_t>(out, number, std::string(text), kComputed);
    };
    put(prop::siblingName, sibling_name);
    put(prop::treeLabel, tree_label);
    put(prop::longLabel, long_label);
}

std::string read_text(const PropertyChain& chain, const NodetypeSchema& schema, uint32_t number) {
    const auto& entry = schema.properties()[schema.findProperty(number, kAllSubtypes)];
    work_t work;
    entry.schema->load(chain, work);
    return work.is_null() ? std::string()
                          : std::move(static_cast<mdb::PropertyString&>(*work.prop).value);
}

}  // namespace dbcache
