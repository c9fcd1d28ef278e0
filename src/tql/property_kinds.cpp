#include "tql/property_kinds.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>

#include "tql/detail/scalar_text.h"
#include "tql/errors.h"
#include "tql/names.h"

namespace tql {

namespace {

// The name of a kind and the word for it in mismatch texts, which isn't always the same.
struct KindNames {
    std::string_view type_name;
    std::string_view mismatch;
};

constexpr KindNames kind_names(property_type_t type) {
    switch (type) {
        case property_type_t::string:
            return {"string", "string"};
        case property_type_t::string_list:
            return {"string list", "string_list"};
        case property_type_t::object_set:
            return {"object set", "object_set"};
        case property_type_t::object:
            return {"object", "object"};
        case property_type_t::version:
            return {"version", "object"};
        case property_type_t::action:
            return {"action", "action"};
        case property_type_t::real:
            return {"real", "real"};
        case property_type_t::bignum:
            return {"bignum", "bignum"};
        case property_type_t::gid:
            return {"uint32", "GID"};
        case property_type_t::gid_list:
            return {"uint32 list", "GIDList"};
        case property_type_t::date:
            return {"timestamp", "date"};
        case property_type_t::index:
            return {"uint", "index"};
        case property_type_t::int_:
            return {"int", "int"};
        case property_type_t::uint:
            return {"uint", "uint"};
        case property_type_t::boolean:
            return {"bool", "boolean"};
        case property_type_t::blob:
            return {"BLOB", "blob"};
        case property_type_t::lob:
            return {"LOB", "lob"};
        case property_type_t::oid:
            return {"uint32 list", "GIDList"};
        case property_type_t::enum_:
            return {"enum", "int"};
        case property_type_t::none:
            break;
    }
    return {};
}

void check_kind(property_type_t type, const property_t& other) {
    if (other.type() != type)
        throw errors::tql_incomparable(fmt::format("Type mismatch, {} != type of {}",
                                                   kind_names(type).mismatch,
                                                   property_name(other.property)));
}

// Order of two payloads: below, at or above 0. Overloaded where the natural order isn't the one
// wanted.
template <class Value>
int order(const Value& a, const Value& b) {
    return a < b ? -1 : b < a ? 1 : 0;
}

int order(const std::vector<uint32_t>& a, const std::vector<uint32_t>& b) {
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    return order<std::vector<uint32_t>>(a, b);
}

int order(const version_t& a, const version_t& b) {
    return compare_versions(a, b);
}

// The ordering number for operands of which at least one is null; none has one from its payload.
int null_order(const property_t& a, const property_t& b) {
    return (a.is_null ? 0 : 2) - (b.is_null ? 0 : 2);
}

bool apply(relop_t op, int r) {
    switch (op) {
        case relop_t::eq:
            return r == 0;
        case relop_t::gt:
            return r > 0;
        case relop_t::lt:
            return r < 0;
        case relop_t::ge:
            return r >= 0;
        case relop_t::le:
            return r <= 0;
        case relop_t::ne:
            return r != 0;
        case relop_t::ieq:
            return -1 <= r && r <= 1;
        case relop_t::ine:
            return r < -1 || r > 1;
        default:
            throw errors::tql_incomparable("Unknown relative operator");
    }
}

char lower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

std::string lowered(std::string_view text) {
    std::string result(text);
    std::ranges::transform(result, result.begin(), lower);
    return result;
}

std::string quoted(std::string_view text) {
    return fmt::format("\"{}\"", text);
}

template <class List, class Print>
std::string print_list(const List& list, Print print_element) {
    std::string text;
    for (const auto& element : list) {
        if (!text.empty()) text += ", ";
        text += print_element(element);
    }
    return text;
}

template <class Kind>
std::string print_payload(const Kind& kind) {
    using Value = typename Kind::value_type;
    const auto& value = kind.value;
    const auto print_id = [](const id_t& id) { return quoted(id.to_string()); };
    if constexpr (Kind::kType == property_type_t::action)
        return "(null)";
    else if constexpr (Kind::kType == property_type_t::gid)
        return detail::gid_text(value);
    else if constexpr (Kind::kType == property_type_t::blob || Kind::kType == property_type_t::lob)
        return std::string(kind_names(Kind::kType).type_name);
    else if constexpr (std::is_same_v<Value, std::string>)
        return quoted(value);
    else if constexpr (std::is_same_v<Value, std::vector<std::string>>)
        return print_list(value, quoted);
    else if constexpr (std::is_same_v<Value, std::set<id_t>>)
        return "{" + print_list(value, print_id) + "}";
    else if constexpr (std::is_same_v<Value, id_t>)
        return print_id(value);
    else if constexpr (std::is_same_v<Value, version_t>)
        return quoted(value.to_string());
    else if constexpr (std::is_same_v<Value, BigNum>)
        return value.to_decimal();
    else if constexpr (std::is_same_v<Value, std::vector<uint32_t>>)
        return print_list(value, detail::gid_text);
    else
        return fmt::format("{}", value);
}

bool same_payload(double a, double b) noexcept {
    return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}
template <class Value>
bool same_payload(const Value& a, const Value& b) noexcept {
    return a == b;
}

}  // namespace

template <class Self, class Value, property_type_t Type>
std::string basic_property<Self, Value, Type>::print() const {
    return print_payload(static_cast<const Self&>(*this));
}

template <class Self, class Value, property_type_t Type>
std::string basic_property<Self, Value, Type>::type_name() const {
    return std::string(kind_names(Type).type_name);
}

template <class Self, class Value, property_type_t Type>
bool basic_property<Self, Value, Type>::compare(relop_t op, const property_t& other) const {
    check_kind(Type, other);
    if (is_null || other.is_null) return apply(op, null_order(*this, other));
    return apply(op, 2 * order(value, static_cast<const Self&>(other).value));
}

template <class Self, class Value, property_type_t Type>
bool basic_property<Self, Value, Type>::identical(const property_t& other) const noexcept {
    if (other.type() != Type || property != other.property || flags != other.flags ||
        is_null != other.is_null)
        return false;
    return is_null || same_payload(value, static_cast<const Self&>(other).value);
}

template class basic_property<property_string_t, std::string, property_type_t::string>;
template class basic_property<property_string_list_t, std::vector<std::string>,
                              property_type_t::string_list>;
template class basic_property<property_object_set_t, std::set<id_t>, property_type_t::object_set>;
template class basic_property<property_object_t, id_t, property_type_t::object>;
template class basic_property<property_version_t, version_t, property_type_t::version>;
template class basic_property<property_action_t, int32_t, property_type_t::action>;
template class basic_property<property_real_t, double, property_type_t::real>;
template class basic_property<property_bignum_t, BigNum, property_type_t::bignum>;
template class basic_property<property_gid_t, uint32_t, property_type_t::gid>;
template class basic_property<property_gid_list_t, std::vector<uint32_t>,
                              property_type_t::gid_list>;
template class basic_property<property_date_t, int64_t, property_type_t::date>;
template class basic_property<property_index_t, uint32_t, property_type_t::index>;
template class basic_property<property_int_t, int32_t, property_type_t::int_>;
template class basic_property<property_uint_t, uint32_t, property_type_t::uint>;
template class basic_property<property_boolean_t, bool, property_type_t::boolean>;
template class basic_property<property_blob_t, std::vector<uint8_t>, property_type_t::blob>;
template class basic_property<property_lob_t, std::vector<uint8_t>, property_type_t::lob>;
template class basic_property<property_oid_t, std::vector<uint32_t>, property_type_t::oid>;
template class basic_property<property_enum_t, uint32_t, property_type_t::enum_>;

bool property_string_t::compare(relop_t op, const property_t& other) const {
    check_kind(kType, other);
    if (is_null || other.is_null) return apply(op, null_order(*this, other));
    const std::string& right = static_cast<const property_string_t&>(other).value;
    if (op == relop_t::isubstr) return lowered(value).find(lowered(right)) != std::string::npos;
    const bool equal_but_for_case = value.size() == right.size() &&
                                    std::ranges::equal(
                                        value, right, {}, [](char c) { return lower(c); }, lower);
    return apply(op, order(value, right) * (equal_but_for_case ? 1 : 2));
}

bool property_object_t::compare(relop_t op, const property_t& other) const {
    if (op != relop_t::in) return basic_property::compare(op, other);
    check_kind(property_type_t::object_set, other);
    if (is_null || other.is_null) return false;
    return static_cast<const property_object_set_t&>(other).value.contains(value);
}

bool property_object_t::identical(const property_t& other) const noexcept {
    return basic_property::identical(other) &&
           (is_null || origin == static_cast<const property_object_t&>(other).origin);
}

bool property_object_set_t::compare(relop_t op, const property_t& other) const {
    check_kind(kType, other);
    const auto& right = static_cast<const property_object_set_t&>(other).value;
    switch (op) {
        case relop_t::subset:
            if (is_null || other.is_null) return is_null;
            return std::ranges::includes(right, value);
        case relop_t::superset:
            if (is_null || other.is_null) return other.is_null;
            return std::ranges::includes(value, right);
        case relop_t::intersects: {
            if (is_null || other.is_null) return false;
            auto a = value.begin();
            auto b = right.begin();
            while (a != value.end() && b != right.end()) {
                const auto ordered = *a <=> *b;
                if (ordered == 0) return true;
                ordered < 0 ? ++a : ++b;
            }
            return false;
        }
        default:
            break;
    }
    if (is_null || other.is_null) return apply(op, null_order(*this, other));
    return apply(op, value == right ? 0 : 2);
}

bool property_object_set_t::identical(const property_t& other) const noexcept {
    return basic_property::identical(other) &&
           (is_null || origins == static_cast<const property_object_set_t&>(other).origins);
}

std::string property_enum_t::print() const {
    return fmt::format("enum({}, {})", enumeration, value);
}

std::string property_enum_t::type_name() const {
    return fmt::format("enum {}", enumeration);
}

bool property_enum_t::compare(relop_t op, const property_t& other) const {
    check_kind(kType, other);
    const auto& right = static_cast<const property_enum_t&>(other);
    if (enumeration != right.enumeration)
        throw errors::tql_incomparable(fmt::format("Type mismatch, enum ({}) != enum ({}) of {}",
                                                   enumeration, right.enumeration,
                                                   property_name(other.property)));
    return basic_property::compare(op, other);
}

bool property_enum_t::identical(const property_t& other) const noexcept {
    return basic_property::identical(other) &&
           enumeration == static_cast<const property_enum_t&>(other).enumeration;
}

value_t make_value(property_type_t type) {
    value_t made;
    switch (type) {
        case property_type_t::string:
            made.emplace<property_string_t>();
            break;
        case property_type_t::string_list:
            made.emplace<property_string_list_t>();
            break;
        case property_type_t::object_set:
            made.emplace<property_object_set_t>();
            break;
        case property_type_t::object:
            made.emplace<property_object_t>();
            break;
        case property_type_t::version:
            made.emplace<property_version_t>();
            break;
        case property_type_t::action:
            made.emplace<property_action_t>();
            break;
        case property_type_t::real:
            made.emplace<property_real_t>();
            break;
        case property_type_t::bignum:
            made.emplace<property_bignum_t>();
            break;
        case property_type_t::gid:
            made.emplace<property_gid_t>();
            break;
        case property_type_t::gid_list:
            made.emplace<property_gid_list_t>();
            break;
        case property_type_t::date:
            made.emplace<property_date_t>();
            break;
        case property_type_t::index:
            made.emplace<property_index_t>();
            break;
        case property_type_t::int_:
            made.emplace<property_int_t>();
            break;
        case property_type_t::uint:
            made.emplace<property_uint_t>();
            break;
        case property_type_t::boolean:
            made.emplace<property_boolean_t>();
            break;
        case property_type_t::blob:
            made.emplace<property_blob_t>();
            break;
        case property_type_t::lob:
            made.emplace<property_lob_t>();
            break;
        case property_type_t::oid:
            made.emplace<property_oid_t>();
            break;
        case property_type_t::enum_:
            made.emplace<property_enum_t>();
            break;
        case property_type_t::none:
            break;
    }
    return made;
}

}  // namespace tql
