#include "tql/value_text.h"

#include <fmt/format.h>
#include <type_traits>

#include "tql/detail/scalar_text.h"
#include "tql/enumerations.h"
#include "tql/property_kinds.h"
#include "util/unit_expression.h"

namespace tql {

namespace {

constexpr size_t kShownBytes = 60;

/// What a text of each type looks like, for people who wrote another one.
std::string_view expected_form(property_type_t type) {
    switch (type) {
        case property_type_t::object:
        case property_type_t::object_set:
            return "ids like 1.4294960001";
        case property_type_t::version:
            return "two numbers joined by a point";
        case property_type_t::action:
        case property_type_t::int_:
            return "a number from -2147483648 to 2147483647";
        case property_type_t::real:
            return "a decimal number";
        case property_type_t::bignum:
            return "decimal digits, or hexadecimal ones behind 0x";
        case property_type_t::gid:
        case property_type_t::gid_list:
            return "four bytes like 01:02:0a:ff";
        case property_type_t::date:
            return "a date like 2026-11-22 22:30:00 (UTC) or seconds since 1970";
        case property_type_t::index:
        case property_type_t::uint:
            return "a number from 0 to 4294967295";
        case property_type_t::boolean:
            return "true or false";
        case property_type_t::blob:
        case property_type_t::lob:
            return "base64";
        case property_type_t::oid:
            return "numbers joined by points";
        case property_type_t::enum_:
            return "a name or number of the enumeration";
        default:
            return "text";
    }
}

[[noreturn]] void refuse(value_kind_t kind, std::string_view text) {
    const enumeration_t* enumeration =
        kind.type == property_type_t::enum_ ? find_enumeration(kind.enumeration) : nullptr;
    throw value_text_error(
        fmt::format("\"{}{}\" is not a value of type {}: expected {}", text.substr(0, kShownBytes),
                    text.size() > kShownBytes ? "..." : "",
                    enumeration ? enumeration->name : kind_word(kind), expected_form(kind.type)));
}

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == text.npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// Splits at commas that stand behind no backslash and takes the backslashes off.
std::vector<std::string> split_list(std::string_view text) {
    if (text.empty()) return {};
    if (text == "\\e") return {""};
    std::vector<std::string> elements(1);
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == ',')
            elements.emplace_back();
        else if (text[i] == '\\' && i + 1 < text.size())
            elements.back() += text[++i];
        else
            elements.back() += text[i];
    }
    return elements;
}

std::string join_list(const std::vector<std::string>& elements) {
    if (elements.size() == 1 && elements[0].empty()) return "\\e";
    std::string text;
    for (size_t i = 0; i < elements.size(); ++i) {
        if (i != 0) text += ',';
        for (const char c : elements[i]) {
            if (c == ',' || c == '\\') text += '\\';
            text += c;
        }
    }
    return text;
}

std::optional<bool> read_boolean(std::string_view text) {
    if (text == "true" || text == "1") return true;
    if (text == "false" || text == "0") return false;
    return std::nullopt;
}

std::optional<uint32_t> read_enumeration(uint32_t enumeration, std::string_view text) {
    const auto named = find_enumeration_value(enumeration, text);
    return named ? named : detail::read_integer<uint32_t>(text);
}

// The payload of a scalar kind, or none.
template <class Kind>
std::optional<typename Kind::value_type> read_scalar(std::string_view text) {
    using Value = typename Kind::value_type;
    if constexpr (Kind::kType == property_type_t::gid)
        return detail::read_gid(text);
    else if constexpr (Kind::kType == property_type_t::date)
        return detail::read_date(text);
    else if constexpr (Kind::kType == property_type_t::oid)
        return detail::read_oid(text);
    else if constexpr (std::is_same_v<Value, bool>)
        return read_boolean(text);
    else if constexpr (std::is_integral_v<Value>)
        return detail::read_integer<Value>(text);
    else if constexpr (std::is_same_v<Value, double>)
        return detail::read_real(text);
    else if constexpr (std::is_same_v<Value, BigNum>)
        return detail::read_bignum(text);
    else if constexpr (std::is_same_v<Value, std::vector<uint8_t>>)
        return detail::read_base64(text);
    else
        return Value::parse(text);
}

void read_into(property_string_t& to, value_kind_t, std::string_view text) {
    to.value = text;
}

void read_into(property_enum_t& to, value_kind_t kind, std::string_view text) {
    const auto value = read_enumeration(kind.enumeration, trimmed(text));
    if (!value) refuse(kind, text);
    to.enumeration = kind.enumeration;
    to.value = *value;
}

void read_into(property_blob_t& to, value_kind_t kind, std::string_view text) {
    if (kind.is_unit) {
        to.value = UnitExpression(trimmed(text)).to_blob();
        return;
    }
    to.value = from_base64(trimmed(text));
}

template <class Kind>
void read_into(Kind& to, value_kind_t kind, std::string_view text) {
    auto value = read_scalar<Kind>(trimmed(text));
    if (!value) refuse(kind, text);
    to.value = std::move(*value);
}

void take_elements(property_string_list_t& to, value_kind_t,
                   const std::vector<std::string>& elements) {
    to.value = elements;
}

void take_elements(property_object_set_t& to, value_kind_t kind,
                   const std::vector<std::string>& elements) {
    for (const std::string& element : elements) {
        const auto id = id_t::parse(trimmed(element));
        if (!id) refuse(kind, element);
        to.value.insert(*id);
    }
}

void take_elements(property_gid_list_t& to, value_kind_t kind,
                   const std::vector<std::string>& elements) {
    for (const std::string& element : elements) {
        const auto gid = detail::read_gid(trimmed(element));
        if (!gid) refuse(kind, element);
        to.value.push_back(*gid);
    }
}

void take_elements(property_oid_t& to, value_kind_t kind,
                   const std::vector<std::string>& elements) {
    for (const std::string& element : elements) {
        const auto number = detail::read_integer<uint32_t>(trimmed(element));
        if (!number) refuse(kind, element);
        to.value.push_back(*number);
    }
}

template <class Kind>
void take_elements(Kind&, value_kind_t kind, const std::vector<std::string>&) {
    throw value_text_error(fmt::format("A value of type {} is not a list", kind_word(kind)));
}

// Kinds whose elements stand in one text, joined by commas.
template <class Kind>
constexpr bool kIsCommaList =
    Kind::kType == property_type_t::string_list || Kind::kType == property_type_t::object_set ||
    Kind::kType == property_type_t::gid_list;

std::vector<std::string> elements_of(const property_string_list_t& from) {
    return from.value;
}

std::vector<std::string> elements_of(const property_object_set_t& from) {
    std::vector<std::string> elements;
    for (const id_t& id : from.value) elements.push_back(id.to_string());
    return elements;
}

std::vector<std::string> elements_of(const property_gid_list_t& from) {
    std::vector<std::string> elements;
    for (const uint32_t gid : from.value) elements.push_back(detail::gid_text(gid));
    return elements;
}

std::vector<std::string> elements_of(const property_oid_t& from) {
    std::vector<std::string> elements;
    for (const uint32_t number : from.value) elements.push_back(fmt::format("{}", number));
    return elements;
}

template <class Kind>
std::vector<std::string> elements_of(const Kind& from) {
    return {value_text(from)};
}

template <class Kind>
std::string scalar_text(const Kind& from) {
    using Value = typename Kind::value_type;
    const auto& value = from.value;
    if constexpr (kIsCommaList<Kind>)
        return join_list(elements_of(from));
    else if constexpr (Kind::kType == property_type_t::enum_) {
        const auto text = find_enumeration_text(from.enumeration, value);
        return text ? std::string(*text) : fmt::format("{}", value);
    } else if constexpr (Kind::kType == property_type_t::gid)
        return detail::gid_text(value);
    else if constexpr (Kind::kType == property_type_t::date)
        return detail::date_text(value);
    else if constexpr (Kind::kType == property_type_t::oid)
        return detail::oid_text(value);
    else if constexpr (std::is_same_v<Value, version_t>)
        return fmt::format("{}.{}", value.ring_sequence, value.counter);
    else if constexpr (std::is_same_v<Value, std::string>)
        return value;
    else if constexpr (std::is_same_v<Value, id_t>)
        return value.to_string();
    else if constexpr (std::is_same_v<Value, double>)
        return detail::real_text(value);
    else if constexpr (std::is_same_v<Value, BigNum>)
        return detail::bignum_text(value);
    else if constexpr (std::is_same_v<Value, std::vector<uint8_t>>)
        return detail::base64_text(value);
    else
        return fmt::format("{}", value);
}

value_t start_value(uint32_t property, value_kind_t kind) {
    value_t value = make_value(kind.type);
    error::check(static_cast<bool>(value), "a value of no kind was asked for");
    value->property = property;
    return value;
}

}  // namespace

value_t parse_value(uint32_t property, value_kind_t kind, std::string_view text) {
    value_t value = start_value(property, kind);
    visit_kind(*value, [&]<class Kind>(Kind& made) {
        if constexpr (kIsCommaList<Kind>)
            take_elements(made, kind, split_list(text));
        else
            read_into(made, kind, text);
    });
    return value;
}

std::string value_text(const property_t& value) {
    if (value.is_null) return "null";
    if (kind_of(value).is_unit)
        return *find_unit_text(static_cast<const property_blob_t&>(value).value);
    return visit_kind(value, [](const auto& kind) { return scalar_text(kind); });
}

value_t make_null(uint32_t property, value_kind_t kind) {
    value_t value = start_value(property, kind);
    value->is_null = true;
    if (kind.type == property_type_t::enum_)
        static_cast<property_enum_t&>(*value).enumeration = kind.enumeration;
    return value;
}

value_t parse_value_list(uint32_t property, value_kind_t kind,
                         const std::vector<std::string>& elements) {
    value_t value = start_value(property, kind);
    visit_kind(*value, [&](auto& made) { take_elements(made, kind, elements); });
    return value;
}

std::vector<std::string> value_text_list(const property_t& value) {
    if (value.is_null) return {};
    return visit_kind(value, [](const auto& kind) { return elements_of(kind); });
}

std::string to_base64(const std::vector<uint8_t>& bytes) {
    return detail::base64_text(bytes);
}

std::vector<uint8_t> from_base64(std::string_view text) {
    auto bytes = detail::read_base64(text);
    if (!bytes) refuse({property_type_t::blob, 0}, text);
    return std::move(*bytes);
}

}  // namespace tql
