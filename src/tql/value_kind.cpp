#include "tql/value_kind.h"

#include <array>

#include "tql/names.h"
#include "tql/property_kinds.h"
#include "util/text.h"
#include "util/unit_expression.h"

namespace tql {

namespace {

struct KindWord {
    value_kind_t kind;
    std::string_view word;
};

constexpr std::array kKindWords{
    KindWord{{property_type_t::string}, "string"},
    KindWord{{property_type_t::string_list}, "strings"},
    KindWord{{property_type_t::object_set}, "set"},
    KindWord{{property_type_t::object}, "object"},
    KindWord{{property_type_t::version}, "version"},
    KindWord{{property_type_t::action}, "action"},
    KindWord{{property_type_t::real}, "real"},
    KindWord{{property_type_t::bignum}, "bignum"},
    KindWord{{property_type_t::gid}, "gid"},
    KindWord{{property_type_t::gid_list}, "gids"},
    KindWord{{property_type_t::date}, "date"},
    KindWord{{property_type_t::index}, "index"},
    KindWord{{property_type_t::int_}, "int"},
    KindWord{{property_type_t::uint}, "uint"},
    KindWord{{property_type_t::boolean}, "bool"},
    KindWord{{property_type_t::blob}, "blob"},
    KindWord{{property_type_t::blob, 0, true}, "unit"},
    KindWord{{property_type_t::lob}, "lob"},
    KindWord{{property_type_t::oid}, "oid"},
    KindWord{{property_type_t::enum_}, "enum"},
};

bool holds_unit(const property_t& value) {
    const property_row_t* row = find_property_row(value.property);
    return row != nullptr && row->usual_kind.is_unit &&
           (value.is_null || find_unit_text(static_cast<const property_blob_t&>(value).value));
}

}  // namespace

value_kind_t kind_of(const property_t& value) {
    value_kind_t kind{value.type(), 0};
    if (kind.type == property_type_t::enum_)
        kind.enumeration = static_cast<const property_enum_t&>(value).enumeration;
    else if (kind.type == property_type_t::blob)
        kind.is_unit = holds_unit(value);
    return kind;
}

std::string_view kind_word(value_kind_t kind) noexcept {
    for (const KindWord& row : kKindWords)
        if (row.kind.type == kind.type && row.kind.is_unit == kind.is_unit) return row.word;
    return {};
}

std::optional<value_kind_t> find_kind(std::string_view word) noexcept {
    for (const KindWord& row : kKindWords)
        if (row.word == word) return row.kind;
    return std::nullopt;
}

std::optional<std::string> find_unit_text(const std::vector<uint8_t>& bytes) {
    try {
        const UnitExpression unit = UnitExpression::from_blob(bytes);
        // The label for people, else the one with the texts that a reader looks for.
        for (const auto form : {UnitExpression::form_t::brief, UnitExpression::form_t::full})
            for (const bool omit_one : {true, false}) {
                std::string text = unit.getLabel(form, omit_one);
                if (UnitExpression(std::string_view(text)).to_blob() == unit.to_blob()) return text;
            }
    } catch (const error::EParseError&) {  // not a unit: the bytes are all there is to show
    }
    return std::nullopt;
}

}  // namespace tql
