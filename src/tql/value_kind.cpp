#include "tql/value_kind.h"

#include <array>

#include "tql/property_kinds.h"

namespace tql {

namespace {

struct TypeWord {
    property_type_t type;
    std::string_view word;
};

constexpr std::array kTypeWords{
    TypeWord{property_type_t::string, "string"},
    TypeWord{property_type_t::string_list, "strings"},
    TypeWord{property_type_t::object_set, "set"},
    TypeWord{property_type_t::object, "object"},
    TypeWord{property_type_t::version, "version"},
    TypeWord{property_type_t::action, "action"},
    TypeWord{property_type_t::real, "real"},
    TypeWord{property_type_t::bignum, "bignum"},
    TypeWord{property_type_t::gid, "gid"},
    TypeWord{property_type_t::gid_list, "gids"},
    TypeWord{property_type_t::date, "date"},
    TypeWord{property_type_t::index, "index"},
    TypeWord{property_type_t::int_, "int"},
    TypeWord{property_type_t::uint, "uint"},
    TypeWord{property_type_t::boolean, "bool"},
    TypeWord{property_type_t::blob, "blob"},
    TypeWord{property_type_t::lob, "lob"},
    TypeWord{property_type_t::oid, "oid"},
    TypeWord{property_type_t::enum_, "enum"},
};

}  // namespace

value_kind_t kind_of(const property_t& value) noexcept {
    value_kind_t kind{value.type(), 0};
    if (kind.type == property_type_t::enum_)
        kind.enumeration = static_cast<const property_enum_t&>(value).enumeration;
    return kind;
}

std::string_view type_word(property_type_t type) noexcept {
    for (const TypeWord& row : kTypeWords)
        if (row.type == type) return row.word;
    return {};
}

std::optional<property_type_t> find_type(std::string_view word) noexcept {
    for (const TypeWord& row : kTypeWords)
        if (row.word == word) return row.type;
    return std::nullopt;
}

}  // namespace tql
