// Names and numbers of classes and properties, the vocabulary that the system shares with its
// clients.
//
// Numbers are persistent: they are stored and travel in events, and a number is never used again
// for something else. Code uses the constants: cls::Node, prop::label, nodetype::AgentCheck. Each
// number stands once, in detail/class_names.inc, detail/property_names.inc and
// detail/nodetype_names.inc. detail/class_kinds.inc says which classes have another kind of value
// for a property than most.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "tql/value_kind.h"

/// Class numbers, what clients see.
namespace cls {
#define TQL_CLASS(number, constant, text) inline constexpr uint32_t constant = number;
#include "tql/detail/class_names.inc"
#undef TQL_CLASS
/// Class numbers run below this.
inline constexpr uint32_t kCount = 97;
}  // namespace cls

/// Property numbers.
namespace prop {
#define TQL_PROPERTY(number, constant, text, kind) inline constexpr uint32_t constant = number;
#include "tql/detail/property_names.inc"
#undef TQL_PROPERTY
/// stateAction0 to stateAction31 stand in one row of numbers.
inline constexpr uint32_t kStateActionCount = 32;
}  // namespace prop

/// Nodetypes, what the store sees; a class may have several.
namespace nodetype {
#define TQL_NODETYPE(number, constant, class_constant) inline constexpr uint32_t constant = number;
#include "tql/detail/nodetype_names.inc"
#undef TQL_NODETYPE
/// Nodetypes run below this.
inline constexpr uint32_t kCount = 95;
}  // namespace nodetype

namespace tql {

struct property_row_t {
    uint32_t number;
    std::string_view name;
    /// The kind that a value of this property has in most classes; of type none where there is no
    /// usual one.
    value_kind_t usual_kind;
};

/// A class whose values of a property aren't of its usual kind.
struct class_kind_row_t {
    uint32_t property;
    uint32_t class_number;
    value_kind_t kind;
};

/// All class names in order of their numbers; 97 entries. The reserved number 78 has an empty text.
[[nodiscard]] std::span<const std::string_view> class_names() noexcept;
/// All properties in order of their numbers.
[[nodiscard]] std::span<const property_row_t> property_rows() noexcept;

/// The number of a class by its exact name; none for an unknown one and for the empty text.
[[nodiscard]] std::optional<uint32_t> find_class(std::string_view name) noexcept;
/// As find_class(); throws errors::tql for an unknown name.
[[nodiscard]] uint32_t get_class(std::string_view name);
/// The name of a class; empty for the reserved number and beyond the table.
[[nodiscard]] std::string_view find_class_name(uint32_t class_number) noexcept;
/// The name of a class, or "<unknown class: N>".
[[nodiscard]] std::string class_name(uint32_t class_number);

/// The class of a nodetype; none for a number that is no nodetype.
[[nodiscard]] std::optional<uint32_t> find_nodetype_class(uint32_t nodetype) noexcept;

/// The number of a property by its exact name; none for an unknown one.
[[nodiscard]] std::optional<uint32_t> find_property(std::string_view name) noexcept;
/// As find_property(); throws errors::tql with code 7 for an unknown name.
[[nodiscard]] uint32_t get_property(std::string_view name);
/// The row of a property; null for a number without name. Lives for ever.
[[nodiscard]] const property_row_t* find_property_row(uint32_t number) noexcept;
/// The kind that a value of this property has in objects of this class: the usual one but for what
/// class_kinds() tells. Any class may be asked for, also one without the property and cls::Any; of
/// type none where the property has no name, or no usual kind.
[[nodiscard]] value_kind_t property_kind(uint32_t class_number, uint32_t property) noexcept;
/// The classes that have another kind for this property than the usual one, by number. Lives for
/// ever.
[[nodiscard]] std::span<const class_kind_row_t> class_kinds(uint32_t property) noexcept;
/// The name of a property, or "<unknown property: N>".
[[nodiscard]] std::string property_name(uint32_t number);

}  // namespace tql
