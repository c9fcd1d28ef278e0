// From a row of a class table to the schema object of its kind.
#include <fmt/format.h>

#include "dbcache/class_table.h"
#include "dbcache/property_kinds.h"
#include "dbcache/special_kinds.h"
#include "error/exception.h"
#include "tql/names.h"

namespace dbcache {

namespace {

constexpr std::string_view kKindTexts[] = {
    "u32",
    "u32 with active",
    "i32",
    "real",
    "real-int",
    "bool",
    "date",
    "gid",
    "version",
    "bignum",
    "ipv4",
    "oid",
    "oid from text",
    "blob",
    "png",
    "lob",
    "large png",
    "unit",
    "unit from text",
    "string",
    "bounded string",
    "non-empty string",
    "markup",
    "string any case",
    "identifier",
    "domain identifier",
    "regex",
    "pattern",
    "password",
    "state colors",
    "string list",
    "object",
    "foreign id",
    "object set",
    "acyclic set",
    "user",
    "last user",
    "enum",
    "state action",
    "action",
    "count",
    "mark",
    "series",
};
static_assert(std::size(kKindTexts) == static_cast<size_t>(kind_t::series) + 1,
              "one text for each kind");

bool is_empty(const RowValue& value) {
    return std::holds_alternative<std::monostate>(value);
}

[[noreturn]] void fail_row(const PropertyRow& row, std::string_view what) {
    error::fail_assertion(fmt::format("Row of property {}: {} doesn't fit its kind {}",
                                      tql::property_name(row.number), what, kind_text(row.kind)));
}

/// The value of a row as the memory value of its kind; none for none.
template <class Value>
std::optional<Value> row_value(const PropertyRow& row, const RowValue& value,
                               std::string_view what) {
    if (is_empty(value)) return std::nullopt;
    if constexpr (std::is_same_v<Value, bool>) {
        if (const auto* flag = std::get_if<bool>(&value)) return *flag;
    } else if constexpr (std::is_same_v<Value, double>) {
        if (const auto* real = std::get_if<double>(&value)) return *real;
        if (const auto* whole = std::get_if<int64_t>(&value)) return static_cast<double>(*whole);
    } else if constexpr (std::is_integral_v<Value> || std::is_enum_v<Value>) {
        if (const auto* whole = std::get_if<int64_t>(&value)) {
            const auto made = static_cast<Value>(*whole);
            if (static_cast<int64_t>(made) == *whole) return made;
        }
    } else if constexpr (std::is_same_v<Value, std::string>) {
        if (const auto* text = std::get_if<std::string_view>(&value)) return std::string(*text);
    } else if constexpr (std::is_same_v<Value, NodeId>) {
        if (const auto* id = std::get_if<NodeId>(&value)) return *id;
    }
    fail_row(row, what);
}

/// Start value and end of the chain. `empty_value` is what a property that may not be null starts
/// with by itself.
template <class Value>
Defaults<Value> row_defaults(const PropertyRow& row, std::optional<Value> empty_value = {}) {
    std::optional<Value> create = row_value<Value>(row, row.initial, "its start value");
    if (!create && (row.flags & kNullable) == 0) create = std::move(empty_value);
    Defaults<Value> made;
    if (create) made = Defaults<Value>::both(std::move(*create));
    if (row.fallback_null) made.inherit_default.reset();
    if (auto fallback = row_value<Value>(row, row.fallback, "its fallback"))
        made.inherit_default = std::make_shared<const Value>(std::move(*fallback));
    made.null_value = row_value<Value>(row, row.null_value, "its null value");
    return made;
}

ReferenceRules row_rules(const PropertyRow& row) {
    return {.allowed_classes = {row.classes.begin(), row.classes.end()},
            .own_domains_only = row.own_domains_only,
            .exempt_ids = {row.exempt.begin(), row.exempt.end()}};
}

using Made = std::shared_ptr<PropertySchema>;

template <class Schema>
Made bounded_number(const PropertyRow& row) {
    using Value = typename Schema::value_type;
    return std::make_shared<Schema>(
        row.number, row.flags, row_defaults<Value>(row),
        typename Schema::Bounds{row_value<Value>(row, row.low, "its minimum"),
                                row_value<Value>(row, row.high, "its maximum")});
}

/// A kind with defaults and nothing more; `Empty` says whether it starts empty by itself.
template <class Schema, bool Empty>
Made plain(const PropertyRow& row) {
    using Value = typename Schema::value_type;
    return std::make_shared<Schema>(
        row.number, row.flags,
        row_defaults<Value>(row, Empty ? std::optional<Value>(Value{}) : std::nullopt));
}

template <class Schema>
Made reference(const PropertyRow& row) {
    using Value = typename Schema::value_type;
    constexpr bool is_set = !std::is_same_v<Value, NodeId>;
    return std::make_shared<Schema>(
        row.number, row.flags, row_rules(row),
        row_defaults<Value>(row, is_set ? std::optional<Value>(Value{}) : std::nullopt));
}

template <class Schema>
Made bounded_text(const PropertyRow& row) {
    const auto low = row_value<int64_t>(row, row.low, "its minimum");
    const auto high = row_value<int64_t>(row, row.high, "its maximum");
    PropertyBoundedStringSchema::Lengths lengths{.minimum = static_cast<size_t>(low.value_or(0)),
                                                 .maximum = {}};
    if (high) lengths.maximum = static_cast<size_t>(*high);
    return std::make_shared<Schema>(row.number, row.flags, lengths,
                                    row_defaults<std::string>(row, std::string()));
}

/// Real numbers that older objects hold as unsigned ones have that type's upper limit.
Made real_int(const PropertyRow& row) {
    return std::make_shared<PropertyRealIntConvSchema>(
        row.number, row.number, row.flags, row_defaults<double>(row),
        PropertyRealSchema::Bounds{
            row_value<double>(row, row.low, "its minimum"),
            row_value<double>(row, row.high, "its maximum").value_or(4294967295.0)});
}

Made date(const PropertyRow& row) {
    return std::make_shared<PropertyDateSchema>(
        row.number, row.flags, row_defaults<int64_t>(row),
        PropertyDateSchema::Bounds{
            row_value<int64_t>(row, row.low, "its minimum").value_or(0),
            row_value<int64_t>(row, row.high, "its maximum").value_or(4294967295)});
}

Made number_with_active(const PropertyRow& row) {
    return std::make_shared<PropertyUI32WithActiveSchema>(
        row.number, row.flags, row.companion, row_defaults<uint32_t>(row),
        PropertyUI32Schema::Bounds{row_value<uint32_t>(row, row.low, "its minimum"),
                                   row_value<uint32_t>(row, row.high, "its maximum")});
}

Made enumeration(const PropertyRow& row) {
    error::check(row.enumeration != 0, "Row of property {} names no enumeration",
                 tql::property_name(row.number));
    if (const auto highest = row_value<uint32_t>(row, row.high, "its maximum"))
        return std::make_shared<PropertyBoundedEnumSchema>(
            row.number, row.flags, row.enumeration, *highest, row_defaults<enum_value_t>(row));
    return std::make_shared<PropertyEnumSchema<enum_value_t>>(
        row.number, row.flags, row.enumeration, row_defaults<enum_value_t>(row));
}

Made state_action(const PropertyRow& row) {
    error::check(row.states != nullptr, "Row of property {} names no states",
                 tql::property_name(row.number));
    return std::make_shared<PropertyStateActionSchema>(row.number, row.flags, *row.states,
                                                       row_defaults<enum_value_t>(row));
}

/// A kind that older objects hold as text under the same number.
template <class Schema>
Made from_text(const PropertyRow& row) {
    using Value = typename Schema::value_type;
    return std::make_shared<Schema>(row.number, row.number, row.flags,
                                    row_defaults<Value>(row, Value{}));
}

Made make_text(const PropertyRow& row) {
    switch (row.kind) {
        case kind_t::bounded_string:
            return bounded_text<PropertyBoundedStringSchema>(row);
        case kind_t::non_empty_string:
            return std::make_shared<PropertyNonEmptyStringSchema>(row.number, row.flags,
                                                                  row_defaults<std::string>(row));
        case kind_t::marl:
            return bounded_text<PropertyMarlSchema>(row);
        case kind_t::icase_string:
            return plain<PropertyICaseStringSchema, true>(row);
        case kind_t::identifier:
            return plain<PropertyIdentifierSchema, true>(row);
        case kind_t::domain_identifier:
            return plain<PropertyDomainIdentifierSchema, true>(row);
        case kind_t::regex:
            return plain<PropertyRegexSchema, true>(row);
        case kind_t::pattern:
            return plain<PropertyPatternSchema, false>(row);  // the empty text is none
        case kind_t::password:
            return plain<PropertyPasswordSchema, true>(row);
        case kind_t::state_colors:
            return plain<PropertyStateColorsSchema, true>(row);
        case kind_t::string_list:
            return plain<PropertyStringListSchema, true>(row);
        default:
            return plain<PropertyStringSchema, true>(row);
    }
}

Made make_reference(const PropertyRow& row) {
    switch (row.kind) {
        case kind_t::foreign_id:
            return plain<PropertyForeignIdSchema, false>(row);
        case kind_t::object_set:
            return reference<PropertyNodeIdSetSchema>(row);
        case kind_t::acyclic_set:
            return reference<PropertyDACEdgeSchema>(row);
        case kind_t::user:
            return reference<PropertyUserIdSchema>(row);
        case kind_t::last_user:
            return reference<PropertyLastUpdatedByUserIdSchema>(row);
        default:
            return reference<PropertyNodeIdSchema>(row);
    }
}

/// The kinds whose values the server makes, or which hold bytes.
Made make_special(const PropertyRow& row) {
    switch (row.kind) {
        case kind_t::action:
            return std::make_shared<PropertyActionSchema>(row.number, row.flags);
        case kind_t::count:
            return std::make_shared<PropertyCountSchema>(row.number, row.flags);
        case kind_t::mark:
            return std::make_shared<PropertyMarkIndexSchema>(row.number, row.member);
        case kind_t::series:
            return std::make_shared<PropertyTSDBBlockSchema>(row.number, row.flags);
        case kind_t::blob:
            return plain<PropertyBlobSchema, true>(row);
        case kind_t::png:
            return plain<PropertyPNGDataSchema, false>(row);
        case kind_t::unit:
            return plain<PropertyUnitSchema, true>(row);
        case kind_t::unit_from_text:
            return from_text<PropertyUnitConvSchema>(row);
        case kind_t::lob:
            return std::make_shared<PropertyLobSchema>(row.number, row.flags);
        case kind_t::large_png:
            return std::make_shared<PropertyLargePNGDataSchema>(row.number, row.flags);
        default:
            return nullptr;
    }
}

Made make_number(const PropertyRow& row) {
    switch (row.kind) {
        case kind_t::u32:
            return bounded_number<PropertyUI32Schema>(row);
        case kind_t::u32_with_active:
            return number_with_active(row);
        case kind_t::i32:
            return bounded_number<PropertyI32Schema>(row);
        case kind_t::real:
            return bounded_number<PropertyRealSchema>(row);
        case kind_t::real_int:
            return real_int(row);
        case kind_t::boolean:
            return plain<PropertyBoolSchema, true>(row);
        case kind_t::date:
            return date(row);
        case kind_t::gid:
            return plain<PropertyGidSchema, false>(row);
        case kind_t::version:
            return plain<PropertyVersionSchema, false>(row);
        case kind_t::big_number:
            return plain<PropertyBigNumSchema, false>(row);
        case kind_t::ipv4:
            return plain<PropertyIPv4Schema, false>(row);
        case kind_t::oid:
            return plain<PropertySnmpOidSchema, true>(row);
        case kind_t::oid_from_text:
            return from_text<PropertySnmpOidConvSchema>(row);
        case kind_t::enumeration:
            return enumeration(row);
        case kind_t::state_action:
            return state_action(row);
        default:
            return make_special(row);
    }
}

}  // namespace

std::string_view kind_text(kind_t kind) {
    return kKindTexts[static_cast<size_t>(kind)];
}

std::shared_ptr<PropertySchema> make_property(const PropertyRow& row) {
    Made made;
    if (row.kind >= kind_t::string && row.kind <= kind_t::string_list)
        made = make_text(row);
    else if (row.kind >= kind_t::object && row.kind <= kind_t::last_user)
        made = make_reference(row);
    else
        made = make_number(row);
    made->kind = kind_text(row.kind);
    made->unique_among_siblings = row.unique_among_siblings;
    return made;
}

}  // namespace dbcache
