#include "tql/names.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "tql/enumerations.h"
#include "tql/errors.h"

namespace tql {

namespace {

struct ClassRow {
    uint32_t number;
    std::string_view name;
};

constexpr ClassRow kClasses[] = {
#define TQL_CLASS(number, constant, text) {number, text},
#include "tql/detail/class_names.inc"
#undef TQL_CLASS
};

constexpr property_row_t kProperties[] = {
#define TQL_KIND(type) \
    { property_type_t::type, 0 }
#define TQL_KIND_ENUM(constant) \
    { property_type_t::enum_, enumeration::constant }
#define TQL_KIND_UNIT \
    { property_type_t::blob, 0, true }
#define TQL_PROPERTY(number, constant, text, kind) {number, text, kind},
#include "tql/detail/property_names.inc"
#undef TQL_PROPERTY
};

constexpr class_kind_row_t kClassKinds[] = {
#define TQL_CLASS_KIND(class_constant, constant, kind) {prop::constant, cls::class_constant, kind},
#include "tql/detail/class_kinds.inc"
#undef TQL_CLASS_KIND
#undef TQL_KIND_UNIT
#undef TQL_KIND_ENUM
#undef TQL_KIND
};

constexpr std::array<std::string_view, cls::kCount> kClassNames = [] {
    std::array<std::string_view, cls::kCount> names{};
    for (const ClassRow& row : kClasses) names[row.number] = row.name;
    return names;
}();

static_assert(std::size(kClasses) == cls::kCount - 1,
              "all numbers but the reserved one have a name");
static_assert(std::ranges::adjacent_find(kProperties, std::ranges::greater_equal(),
                                         &property_row_t::number) == std::end(kProperties),
              "property numbers ascend and none stands twice");

constexpr bool is_behind(const class_kind_row_t& a, const class_kind_row_t& b) {
    return a.property > b.property ||
           (a.property == b.property && a.class_number >= b.class_number);
}
static_assert(std::ranges::adjacent_find(kClassKinds, is_behind) == std::end(kClassKinds),
              "rows ascend by property and class, and none stands twice");

// Positions of kProperties by name: a search by name costs a few comparisons.
constexpr auto kPropertiesByName = [] {
    std::array<uint16_t, std::size(kProperties)> order{};
    for (size_t i = 0; i < order.size(); ++i) order[i] = static_cast<uint16_t>(i);
    std::ranges::sort(order, {}, [](uint16_t i) { return kProperties[i].name; });
    return order;
}();

}  // namespace

std::span<const std::string_view> class_names() noexcept {
    return kClassNames;
}

std::span<const property_row_t> property_rows() noexcept {
    return kProperties;
}

std::optional<uint32_t> find_class(std::string_view name) noexcept {
    for (const ClassRow& row : kClasses)
        if (row.name == name) return row.number;
    return std::nullopt;
}

uint32_t get_class(std::string_view name) {
    if (const auto number = find_class(name)) return *number;
    throw errors::tql(errors::ERR_ILLEGAL_VALUE, fmt::format("Unknown class \"{}\"", name));
}

std::string_view find_class_name(uint32_t class_number) noexcept {
    return class_number < cls::kCount ? kClassNames[class_number] : std::string_view();
}

std::string class_name(uint32_t class_number) {
    const std::string_view name = find_class_name(class_number);
    return name.empty() ? fmt::format("<unknown class: {}>", class_number) : std::string(name);
}

std::optional<uint32_t> find_nodetype_class(uint32_t nodetype) noexcept {
    switch (nodetype) {
#define TQL_NODETYPE(number, constant, class_constant) \
    case number:                                       \
        return cls::class_constant;
#include "tql/detail/nodetype_names.inc"
#undef TQL_NODETYPE
        default:
            return std::nullopt;
    }
}

std::optional<uint32_t> find_property(std::string_view name) noexcept {
    const auto at = std::ranges::lower_bound(kPropertiesByName, name, {},
                                             [](uint16_t i) { return kProperties[i].name; });
    if (at == kPropertiesByName.end() || kProperties[*at].name != name) return std::nullopt;
    return kProperties[*at].number;
}

uint32_t get_property(std::string_view name) {
    if (const auto number = find_property(name)) return *number;
    throw errors::tql(errors::ERR_NO_SUCH_PROPERTY, fmt::format("Unknown property \"{}\"", name));
}

const property_row_t* find_property_row(uint32_t number) noexcept {
    const auto at = std::ranges::lower_bound(kProperties, number, {}, &property_row_t::number);
    return at == std::end(kProperties) || at->number != number ? nullptr : &*at;
}

std::span<const class_kind_row_t> class_kinds(uint32_t property) noexcept {
    return std::ranges::equal_range(kClassKinds, property, {}, &class_kind_row_t::property);
}

value_kind_t property_kind(uint32_t class_number, uint32_t property) noexcept {
    for (const class_kind_row_t& row : class_kinds(property))
        if (row.class_number == class_number) return row.kind;
    const property_row_t* row = find_property_row(property);
    return row ? row->usual_kind : value_kind_t{};
}

std::string property_name(uint32_t number) {
    const property_row_t* row = find_property_row(number);
    return row ? std::string(row->name) : fmt::format("<unknown property: {}>", number);
}

}  // namespace tql
