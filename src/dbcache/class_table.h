// ClassTable: a class as data. One line per property, child, group and label; what a table can't
// say is an overridden hook of the schema class. Adding a property to a class is adding one line.
//
//     constexpr PropertyRow kRows[] = {
//         {.number = prop::name, .kind = kind_t::identifier, .flags = K},
//         {.number = prop::frequency, .kind = kind_t::u32, .initial = 30, .low = 1, .high = 86400},
//     };
//
// Without `initial`, a property that may not be null starts as the natural empty value of its kind
// where there is one (empty text, list, set, false, zero count); of other kinds a value must be
// given at creation.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <string_view>
#include <variant>

#include "dbcache/nodetype_schema.h"
#include "util/node_id.h"

namespace dbcache {

// Short forms of the flags, for tables.
inline constexpr uint32_t N = kNullable;
inline constexpr uint32_t K = kPrimaryKey;
inline constexpr uint32_t C = kConst;
inline constexpr uint32_t X = kNoInheritance;
inline constexpr uint32_t R = kComputed;

enum class kind_t : uint8_t {
    u32,
    u32_with_active,  ///< `companion` names the boolean
    i32,
    real,
    real_int,
    boolean,
    date,
    gid,
    version,
    big_number,
    ipv4,
    oid,
    oid_from_text,  ///< older objects hold the text
    blob,
    png,
    lob,
    large_png,
    unit,
    unit_from_text,  ///< older objects hold the text
    string,
    bounded_string,
    non_empty_string,
    marl,
    icase_string,
    identifier,
    domain_identifier,
    regex,
    pattern,
    password,
    state_colors,
    string_list,
    object,
    foreign_id,
    object_set,
    acyclic_set,
    user,
    last_user,
    enumeration,   ///< `enumeration` is its id
    state_action,  ///< `states` says which there are; the row of stateAction0 stands for all 32
    action,
    count,
    mark,  ///< `member` is the predicate
    series,
};

class StateEnumeration;

/// The name of a kind for people.
[[nodiscard]] std::string_view kind_text(kind_t kind);

/// Nothing, or a value in the natural type of the kind; ids for references.
using RowValue = std::variant<std::monostate, bool, int64_t, double, std::string_view, NodeId>;

struct PropertyRow {
    uint32_t number = 0;
    kind_t kind = kind_t::u32;
    uint32_t flags = 0;
    /// Start value of a new object, and end of the inheritance chain unless `fallback` says
    /// otherwise.
    RowValue initial{};
    /// What a null reads as at the end of the inheritance chain, where that isn't `initial`.
    RowValue fallback{};
    /// The end of the chain is null although there is an `initial`.
    bool fallback_null = false;
    /// A stored value equal to this one reads as null.
    RowValue null_value{};
    /// Of the value, or of the length of a text.
    RowValue low{};
    RowValue high{};
    /// Of references: the classes they may point to, empty for any.
    std::span<const uint32_t> classes{};
    bool own_domains_only = false;
    std::span<const NodeId> exempt{};
    uint32_t enumeration = 0;
    uint32_t companion = 0;
    const StateEnumeration* states = nullptr;
    bool (*member)(const ObjectHandler&, const WorkArray&) = nullptr;
    /// Empty: all subtypes.
    std::span<const uint32_t> subtypes{};
    bool determines_subtype = false;
    bool unique_among_siblings = false;
};

/// Rows that several classes have in common.
struct SharedRows {
    std::span<const PropertyRow> rows{};
    /// Where it isn't empty: the subtypes that have the rows here.
    std::span<const uint32_t> subtypes{};
};

struct ChildRow {
    uint32_t tql_class = 0;
    uint32_t nodetype = 0;
};

struct GroupRow {
    int32_t id = 0;
    uint32_t tql_class = 0;
    std::span<const ChildRow> children{};
    std::string_view sibling_name{};
    std::string_view tree_label{};
    /// The name of the object that has the group is put behind it.
    std::string_view long_label_head{};
};

/// The second value, where both are there, must be lower than the first.
struct GreaterRow {
    uint32_t greater = 0;
    uint32_t lesser = 0;
    uint32_t subtype = kAllSubtypes;
    std::string_view message{};
};

/// The one suggestion of an object of a class, without values of its own.
struct TemplateRow {
    std::string_view sibling_name{};
    /// Of the tree and in full; empty for no suggestion.
    std::string_view label{};
};

struct ClassTable {
    uint32_t nodetype = 0;
    uint32_t tql_class = 0;
    uint32_t origin_type = kParentsOrigin;
    std::span<const PropertyRow> properties{};
    /// A property that has rows above as well is the class's own and left out here.
    std::span<const SharedRows> shared{};
    std::span<const ChildRow> children{};
    std::span<const GroupRow> groups{};
    std::span<const GreaterRow> greater{};
    /// The property, a text or a number, whose value is the sibling name; 0 for none.
    uint32_t sibling_name = 0;
    TemplateRow suggestion{};
};

/// The schema object of one row; a row that makes no sense is a fatal assertion.
[[nodiscard]] std::shared_ptr<PropertySchema> make_property(const PropertyRow& row);

/// A schema class made from a table; `Base` is NodetypeSchema or one of the singletons. The table's
/// arrays must live as long as the process.
template <class Base = NodetypeSchema>
class TableSchema : public Base {
  public:
    explicit TableSchema(const ClassTable& table);
    [[nodiscard]] std::optional<std::string> siblingName(const PropertyChain& chain) const override;
    [[nodiscard]] bool stores_sibling_name() const override { return table_.sibling_name != 0; }
    void encodeGroupSpecials(const PropertyChain& chain, int32_t group_id,
                             const tql::pattern_t& pattern,
                             tql::property_map_t& out) const override;
    void listTemplates(const SchemaObject& parent, std::vector<TemplateValues>& out) const override;
    void encodeTemplateSpecials(const SchemaObject* parent, const TemplateValues& values,
                                const tql::pattern_t& pattern,
                                tql::property_map_t& out) const override;

  protected:
    [[nodiscard]] const ClassTable& table() const noexcept { return table_; }

  private:
    void add_rows(PropertyRow row);

    const ClassTable table_;
};

extern template class TableSchema<NodetypeSchema>;
extern template class TableSchema<SingletonSchema>;
extern template class TableSchema<SingletonIfChildOfMountPointSchema>;

/// A class whose siblings are told apart by a name that it computes itself.
class SpecialSiblingEncoder : public TableSchema<NodetypeSchema> {
  public:
    using TableSchema::TableSchema;
    [[nodiscard]] std::optional<std::string> siblingName(
        const PropertyChain& chain) const override = 0;
};

/// A class whose siblings are told apart by `order`.
class OrderSiblingEncoder : public SpecialSiblingEncoder {
  public:
    using SpecialSiblingEncoder::SpecialSiblingEncoder;
    [[nodiscard]] std::optional<std::string> siblingName(const PropertyChain& chain) const override;
};

/// Adds siblingName, treeLabel and longLabel as far as `pattern` wants them.
void add_labels(const tql::pattern_t& pattern, tql::property_map_t& out,
                std::string_view sibling_name, std::string_view tree_label,
                std::string_view long_label);

/// The text that the object has for a property stored as text, own or inherited; empty for a null.
[[nodiscard]] std::string read_text(const PropertyChain& chain, const NodetypeSchema& schema,
                                    uint32_t number);

}  // namespace dbcache
