#include "wapi/json_values.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>

#include "tql/enumerations.h"
#include "tql/errors.h"
#include "tql/names.h"
#include "tql/property_kinds.h"
#include "tql/value_kind.h"
#include "tql/value_text.h"

namespace wapi {

namespace {

using nlohmann::json;
using nlohmann::ordered_json;
using tql::property_type_t;
using tql::value_kind_t;

/// What the JSON of a value is called in error texts.
std::string json_word(const json& found) {
    switch (found.type()) {
        case json::value_t::null:
            return "null";
        case json::value_t::boolean:
            return found.get<bool>() ? "true" : "false";
        case json::value_t::string:
            return "a text";
        case json::value_t::array:
            return "a list";
        case json::value_t::object:
            return "an object";
        default:
            return "the number " + found.dump();
    }
}

std::string expected_word(property_type_t type) {
    switch (type) {
        case property_type_t::string_list:
        case property_type_t::object_set:
        case property_type_t::gid_list:
            return "a list of texts";
        case property_type_t::oid:
            return "a text or a list of numbers";
        case property_type_t::action:
        case property_type_t::index:
        case property_type_t::int_:
        case property_type_t::uint:
            return "a whole number";
        case property_type_t::real:
            return "a number";
        case property_type_t::boolean:
            return "true or false";
        case property_type_t::gid:
        case property_type_t::date:
        case property_type_t::bignum:
        case property_type_t::enum_:
            return "a text or a whole number";
        default:
            return "a text";
    }
}

[[noreturn]] void refuse_type(uint32_t property, value_kind_t kind, const json& found) {
    throw errors::tql(errors::ERR_ILLEGAL_TYPE,
                      fmt::format("{}: expected {} for a value of type {}, found {}",
                                  tql::property_name(property), expected_word(kind.type),
                                  tql::kind_word(kind), json_word(found)));
}

bool takes_whole_numbers(property_type_t type) {
    switch (type) {
        case property_type_t::action:
        case property_type_t::real:
        case property_type_t::bignum:
        case property_type_t::gid:
        case property_type_t::date:
        case property_type_t::index:
        case property_type_t::int_:
        case property_type_t::uint:
        case property_type_t::enum_:
            return true;
        default:
            return false;
    }
}

bool is_list(property_type_t type) {
    return type == property_type_t::string_list || type == property_type_t::object_set ||
           type == property_type_t::gid_list || type == property_type_t::oid;
}

std::vector<std::string> elements_from_json(uint32_t property, value_kind_t kind,
                                            const json& list) {
    std::vector<std::string> elements;
    const bool numbers =
        kind.type == property_type_t::gid_list || kind.type == property_type_t::oid;
    for (const json& element : list) {
        if (element.is_string())
            elements.push_back(element.get<std::string>());
        else if (numbers && element.is_number_integer())
            elements.push_back(element.dump());
        else
            refuse_type(property, kind, element);
    }
    return elements;
}

tql::value_t read_as(uint32_t property, value_kind_t kind, const json& found) {
    if (found.is_null()) return tql::make_null(property, kind);
    try {
        if (found.is_string())
            return tql::parse_value(property, kind, found.get_ref<const std::string&>());
        if (found.is_array() && is_list(kind.type))
            return tql::parse_value_list(property, kind, elements_from_json(property, kind, found));
        const bool fits = (found.is_boolean() && kind.type == property_type_t::boolean) ||
                          (found.is_number_integer() && takes_whole_numbers(kind.type)) ||
                          (found.is_number_float() && kind.type == property_type_t::real);
        if (!fits) refuse_type(property, kind, found);
        return tql::parse_value(property, kind, found.dump());
    } catch (const tql::value_text_error& wrong) {
        throw errors::tql(errors::ERR_ILLEGAL_VALUE,
                          fmt::format("{}: {}", tql::property_name(property), wrong.text()));
    }
}

[[noreturn]] void refuse_form(uint32_t property, std::string_view reason) {
    throw errors::tql(errors::ERR_ILLEGAL_TYPE,
                      fmt::format("{}: {}", tql::property_name(property), reason));
}

uint32_t enumeration_from_json(uint32_t property, const json& form) {
    const auto named = form.find("enumeration");
    if (named == form.end())
        refuse_form(property, "a value of type \"enum\" also needs \"enumeration\"");
    if (named->is_number_unsigned() && named->get<uint64_t>() <= UINT32_MAX)
        return named->get<uint32_t>();
    if (named->is_string())
        if (const auto* known = tql::find_enumeration(named->get_ref<const std::string&>()))
            return known->id;
    refuse_form(property, fmt::format("{} is no enumeration", named->dump(-1, ' ', true)));
}

/// {"type": ..., "value": ...}
tql::value_t read_form(uint32_t property, const json& form) {
    const auto type = form.find("type");
    const auto value = form.find("value");
    if (type == form.end() || !type->is_string() || value == form.end())
        refuse_form(property, "an object needs the fields \"type\", a text, and \"value\"");
    auto kind = tql::find_kind(type->get_ref<const std::string&>());
    if (!kind)
        refuse_form(property, fmt::format("{} is no type of values", type->dump(-1, ' ', true)));
    const bool is_enumeration = kind->type == property_type_t::enum_;
    if (is_enumeration) kind->enumeration = enumeration_from_json(property, form);
    for (const auto& [field, content] : form.items())
        if (field != "type" && field != "value" && !(field == "enumeration" && is_enumeration))
            refuse_form(property, fmt::format("unknown field \"{}\"", field));
    return read_as(property, *kind, *value);
}

/// {"inherit": true}
tql::value_t read_inherit_request(uint32_t property, const json& form) {
    const json& wish = form.at("inherit");
    if (form.size() != 1 || !wish.is_boolean() || !wish.get<bool>())
        refuse_form(property, "\"inherit\" must be true and stand alone");
    // The request has no payload, so any kind will do where none is usual.
    const tql::property_row_t* row = tql::find_property_row(property);
    value_kind_t kind = row == nullptr ? value_kind_t{} : row->usual_kind;
    if (kind.type == property_type_t::none) kind.type = property_type_t::string;
    tql::value_t request = tql::make_null(property, kind);
    request->flags = tql::kFlagInherited;
    return request;
}

std::string name_of(uint32_t property) {
    const tql::property_row_t* row = tql::find_property_row(property);
    return row == nullptr ? std::to_string(property) : std::string(row->name);
}

template <class Predicate>
ordered_json names_where(const tql::property_map_t& values, Predicate&& holds) {
    ordered_json names = ordered_json::array();
    for (const auto& [property, value] : values)
        if (holds(*value)) names.push_back(name_of(property));
    return names;
}

ordered_json payload_to_json(const tql::property_t& value) {
    if (value.is_null) return nullptr;
    return tql::visit_kind(value, [&]<class Kind>(const Kind& kind) -> ordered_json {
        using Value = typename Kind::value_type;
        constexpr property_type_t type = Kind::kType;
        if constexpr (type == property_type_t::enum_) {
            if (tql::find_enumeration_text(kind.enumeration, kind.value))
                return tql::value_text(value);
            return kind.value;
        } else if constexpr (type == property_type_t::gid || type == property_type_t::date) {
            return tql::value_text(value);
        } else if constexpr (std::is_same_v<Value, double>) {
            if (!std::isfinite(kind.value)) return tql::value_text(value);
            return kind.value;
        } else if constexpr (std::is_arithmetic_v<Value>) {
            return kind.value;
        } else if constexpr (type == property_type_t::string_list ||
                             type == property_type_t::object_set ||
                             type == property_type_t::gid_list) {
            return tql::value_text_list(value);
        } else {
            return tql::value_text(value);
        }
    });
}

}  // namespace

tql::value_t value_from_json(uint32_t class_number, uint32_t property, const json& json_value) {
    if (json_value.is_object() && json_value.contains("inherit"))
        return read_inherit_request(property, json_value);
    if (json_value.is_object()) return read_form(property, json_value);
    const value_kind_t kind = tql::property_kind(class_number, property);
    if (kind.type == property_type_t::none)
        refuse_form(
            property,
            "has no usual type, give {\"type\": ..., \"value\": ...} in place of the value");
    return read_as(property, kind, json_value);
}

std::vector<tql::value_t> values_from_json(uint32_t class_number, const json& object) {
    std::vector<tql::value_t> values;
    values.reserve(object.size());
    for (const auto& [name, value] : object.items())
        values.push_back(value_from_json(class_number, tql::get_property(name), value));
    return values;
}

bool depend_on_class(const json& object) {
    for (const auto& [name, value] : object.items()) {
        const auto property = tql::find_property(name);
        if (property && !value.is_object() && !tql::class_kinds(*property).empty()) return true;
    }
    return false;
}

ordered_json value_to_json(uint32_t class_number, const tql::property_t& value) {
    const value_kind_t kind = tql::kind_of(value);
    ordered_json payload = payload_to_json(value);
    if (tql::property_kind(class_number, value.property) == kind) return payload;
    ordered_json form;
    form["type"] = tql::kind_word(kind);
    if (kind.type == property_type_t::enum_) {
        const tql::enumeration_t* named = tql::find_enumeration(kind.enumeration);
        if (named != nullptr)
            form["enumeration"] = named->name;
        else
            form["enumeration"] = kind.enumeration;
    }
    form["value"] = std::move(payload);
    return form;
}

ordered_json values_to_json(uint32_t class_number, const tql::property_map_t& values) {
    ordered_json object = ordered_json::object();
    for (const auto& [number, value] : values)
        object[name_of(number)] = value_to_json(class_number, *value);
    return object;
}

ordered_json inherited_to_json(const tql::property_map_t& values) {
    return names_where(values, [](const tql::property_t& value) {
        return (value.flags & tql::kFlagInherited) != 0;
    });
}

ordered_json settable_to_json(const tql::property_map_t& values) {
    return names_where(values, [](const tql::property_t& value) {
        return (value.flags & tql::kFlagComputed) == 0 && value.property != prop::parentId &&
               value.type() != property_type_t::action;
    });
}

}  // namespace wapi
