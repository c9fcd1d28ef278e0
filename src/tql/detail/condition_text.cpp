#include "tql/detail/condition_text.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>

#include "tql/detail/scalar_text.h"
#include "tql/enumerations.h"
#include "tql/names.h"
#include "tql/property_kinds.h"
#include "tql/query_text.h"
#include "tql/value_text.h"

namespace tql::detail {

namespace {

constexpr uint32_t kRelopCount = 14;

// Signs, longest first where one starts with another. "<=" and ">=" mean subset and superset in
// front of an object set, as they print there.
struct OperatorSign {
    std::string_view sign;
    relop_t op;
};
constexpr std::array kSigns{
    OperatorSign{"!~=", relop_t::ine}, OperatorSign{"~=", relop_t::ieq},
    OperatorSign{"<=", relop_t::le},   OperatorSign{">=", relop_t::ge},
    OperatorSign{"<>", relop_t::ne},   OperatorSign{"=", relop_t::eq},
    OperatorSign{">", relop_t::gt},    OperatorSign{"<", relop_t::lt},
};

constexpr std::array<std::string_view, kRelopCount> kOperatorWords{
    "eq",  "gt",     "lt",       "ge",         "le", "ne",       "ieq",
    "ine", "subset", "superset", "intersects", "in", "contains", "isubstr",
};

// What was read in place of an operator; `by_sign` leaves open whether "<=" is meant for sets.
struct OperatorRead {
    relop_t op;
    bool by_sign;
};

relop_t for_sets(relop_t op) {
    return op == relop_t::le ? relop_t::subset : op == relop_t::ge ? relop_t::superset : op;
}

std::string operator_text(relop_t op, bool before_set) {
    const auto number = static_cast<uint32_t>(op);
    if (number == 0 || number > kRelopCount) return fmt::format(" op({}) ", number);
    // The sign is used where it reads back as this operator; where sign and meaning part, the word.
    for (const OperatorSign& row : kSigns)
        if ((before_set ? for_sets(row.op) : row.op) == op) return fmt::format(" {} ", row.sign);
    return fmt::format(" {} ", kOperatorWords[number - 1]);
}

OperatorRead read_operator(QueryLexer& lexer) {
    for (const OperatorSign& row : kSigns)
        if (lexer.take(row.sign)) return {row.op, true};
    const std::string_view word = lexer.peek_name();
    if (word == "op") {
        lexer.advance(word.size());
        lexer.expect("(");
        const auto op = static_cast<relop_t>(read_number(lexer, "the number of an operator"));
        lexer.expect(")");
        return {op, false};
    }
    for (uint32_t i = 0; i < kRelopCount; ++i) {
        if (word != kOperatorWords[i]) continue;
        lexer.advance(word.size());
        return {static_cast<relop_t>(i + 1), false};
    }
    lexer.fail("an operator (= <> < <= > >= ~= !~= in intersects isubstr contains)");
}

std::string object_text(const property_object_t& object) {
    std::string text = quoted_text(object.value.to_string());
    if (object.origin != origin_t())
        text += fmt::format("@(\"{}\", \"{}\", {})", object.origin.domain_id.to_string(),
                            object.origin.user_id.to_string(), object.origin.type);
    return text;
}

std::string set_text(const property_object_set_t& set) {
    std::string text = "{";
    for (const id_t& id : set.value) {
        if (text.size() > 1) text += ", ";
        text += quoted_text(id.to_string());
        const auto origin = set.origins.find(id);
        if (origin != set.origins.end())
            text += fmt::format("@(\"{}\", \"{}\")", origin->second.domain_id.to_string(),
                                origin->second.user_id.to_string());
    }
    return text + "}";
}

template <class List, class Text>
std::string list_text(const List& list, Text element_text) {
    std::string text;
    for (const auto& element : list) {
        if (!text.empty()) text += ", ";
        text += element_text(element);
    }
    return text.empty() ? "[]" : text;
}

template <class Kind>
std::string literal_text(const Kind& from) {
    using Value = typename Kind::value_type;
    if constexpr (Kind::kType == property_type_t::object)
        return object_text(from);
    else if constexpr (Kind::kType == property_type_t::object_set)
        return set_text(from);
    else if constexpr (std::is_same_v<Value, std::vector<std::string>>)
        return list_text(from.value, quoted_text);
    else if constexpr (std::is_same_v<Value, std::vector<uint32_t>>)
        return list_text(from.value, gid_text);
    else if constexpr (std::is_same_v<Value, std::string>)
        return quoted_text(from.value);
    else if constexpr (std::is_same_v<Value, std::vector<uint8_t>>)
        return quoted_text(base64_text(from.value));
    else if constexpr (Kind::kType == property_type_t::gid)
        return gid_text(from.value);
    else if constexpr (std::is_same_v<Value, double>)
        return real_text(from.value);
    else if constexpr (std::is_same_v<Value, BigNum>)
        return bignum_text(from.value);
    else if constexpr (Kind::kType == property_type_t::version ||
                       Kind::kType == property_type_t::enum_)
        return from.print();
    else
        return fmt::format("{}", from.value);
}

// Where a condition stands: the kind of its value hangs on all three.
struct Place {
    uint32_t class_number;
    uint32_t property;
    relop_t op;
};

// For "in", the set that may hold an object.
value_kind_t behind(relop_t op, value_kind_t kind) {
    const bool is_set = op == relop_t::in && kind.type == property_type_t::object;
    return is_set ? value_kind_t{property_type_t::object_set, 0} : kind;
}

// The kind of a value without one in front.
value_kind_t expected_kind(const Place& place) {
    return behind(place.op, property_kind(place.class_number, place.property));
}

// The kinds that the property has in one class or another, but for the usual one; where the class
// is known, there is no question.
std::vector<value_kind_t> other_kinds(const Place& place) {
    std::vector<value_kind_t> kinds;
    if (place.class_number != cls::Any) return kinds;
    for (const class_kind_row_t& row : class_kinds(place.property)) {
        const value_kind_t kind = behind(place.op, row.kind);
        if (std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) kinds.push_back(kind);
    }
    return kinds;
}

// Several stored forms may be one unit; its text stands for one of them.
bool is_told_by_text(const property_blob_t& unit, value_kind_t kind) {
    if (unit.is_null) return true;
    const value_t read = parse_value(unit.property, kind, value_text(unit));
    return static_cast<const property_blob_t&>(*read).value == unit.value;
}

value_kind_t written_kind(const property_t& value) {
    value_kind_t kind = kind_of(value);
    if (kind.is_unit)
        kind.is_unit = is_told_by_text(static_cast<const property_blob_t&>(value), kind);
    return kind;
}

std::string condition_value_text(const property_t& value, const Place& place) {
    const value_kind_t kind = written_kind(value);
    const value_kind_t expected = expected_kind(place);
    std::string text;
    if (kind.type == property_type_t::enum_ && value.is_null)
        text = fmt::format("enum({}, null)", kind.enumeration);
    else {
        // Enumerations and whole sets tell their kind by their form.
        const bool speaks_for_itself = kind.type == property_type_t::enum_ ||
                                       (kind.type == property_type_t::object_set && !value.is_null);
        if (!speaks_for_itself && (kind.type != expected.type || kind.is_unit != expected.is_unit))
            text = fmt::format("{}:", kind_word(kind));
        if (value.is_null)
            text += "null";
        else if (kind.is_unit)
            text += quoted_text(value_text(value));
        else
            text += visit_kind(value, [](const auto& from) { return literal_text(from); });
    }
    if (value.flags != 0) text += fmt::format("/{:#x}", value.flags);
    return text;
}

id_t read_quoted_id(QueryLexer& lexer) {
    lexer.skip_blanks();
    const size_t place = lexer.place();
    const std::string text = lexer.take_quoted("an id in quotation marks");
    const auto id = id_t::parse(text);
    if (!id)
        lexer.fail_at(place, fmt::format("expected an id like \"1.4294960001\", found {}",
                                         quoted_text(text)));
    return *id;
}

void read_literal(QueryLexer& lexer, value_kind_t, property_object_t& to) {
    to.value = read_quoted_id(lexer);
    if (!lexer.take("@")) return;
    lexer.expect("(");
    to.origin.domain_id = read_quoted_id(lexer);
    lexer.expect(",");
    to.origin.user_id = read_quoted_id(lexer);
    lexer.expect(",");
    to.origin.type = read_number(lexer, "the type of an origin");
    lexer.expect(")");
}

void read_literal(QueryLexer& lexer, value_kind_t, property_object_set_t& to) {
    lexer.expect("{");
    if (lexer.take("}")) return;
    do {
        const id_t id = read_quoted_id(lexer);
        to.value.insert(id);
        if (!lexer.take("@")) continue;
        entry_origin_t& origin = to.origins[id];
        lexer.expect("(");
        origin.domain_id = read_quoted_id(lexer);
        lexer.expect(",");
        origin.user_id = read_quoted_id(lexer);
        lexer.expect(")");
    } while (lexer.take(","));
    lexer.expect("}");
}

void read_literal(QueryLexer& lexer, value_kind_t, property_string_t& to) {
    to.value = lexer.take_quoted("a text in quotation marks");
}

void read_literal(QueryLexer& lexer, value_kind_t, property_string_list_t& to) {
    if (lexer.take("[")) {
        lexer.expect("]");
        return;
    }
    do to.value.push_back(lexer.take_quoted("a text in quotation marks"));
    while (lexer.take(","));
}

// Lists of numbers in the four-byte form; an object identifier is also read with points, as people
// write it.
void read_number_list(QueryLexer& lexer, std::vector<uint32_t>& to, bool dotted) {
    if (lexer.take("[")) {
        lexer.expect("]");
        return;
    }
    do {
        lexer.skip_blanks();
        const size_t place = lexer.place();
        const std::string_view word = lexer.take_word();
        const auto oid = dotted && word.find('.') != word.npos ? read_oid(word) : std::nullopt;
        const auto gid = oid ? std::nullopt : read_gid(word);
        if (oid)
            to.insert(to.end(), oid->begin(), oid->end());
        else if (gid)
            to.push_back(*gid);
        else
            lexer.fail_at(place, fmt::format("expected four bytes like 01:02:0a:ff{}, found {}",
                                             dotted ? " or numbers joined by points" : "",
                                             quoted_text(word)));
    } while (lexer.take(","));
}

void read_literal(QueryLexer& lexer, value_kind_t, property_gid_list_t& to) {
    read_number_list(lexer, to.value, false);
}

void read_literal(QueryLexer& lexer, value_kind_t, property_oid_t& to) {
    read_number_list(lexer, to.value, true);
}

void read_literal(QueryLexer& lexer, value_kind_t kind, property_enum_t& to) {
    to.enumeration = kind.enumeration;
    if (lexer.peek_name() == "enum") {
        lexer.advance(4);
        lexer.expect("(");
        to.enumeration = read_number(lexer, "the number of an enumeration");
        lexer.expect(",");
        if (lexer.peek_name() == "null") {
            lexer.advance(4);
            to.is_null = true;
        } else {
            to.value = read_number(lexer, "a number or null");
        }
        lexer.expect(")");
        return;
    }
    if (lexer.peek() != '"') {
        to.value =
            read_number(lexer,
                        "a value of an enumeration: its text in quotation marks, its number or "
                        "enum(ENUMERATION, NUMBER)");
        return;
    }
    const size_t place = lexer.place();
    const std::string text = lexer.take_quoted("");
    const auto value = find_enumeration_value(kind.enumeration, text);
    const enumeration_t* enumeration = find_enumeration(kind.enumeration);
    if (!value)
        lexer.fail_at(place, fmt::format("expected a value of the enumeration {}, found {}",
                                         enumeration ? enumeration->name : "without texts",
                                         quoted_text(text)));
    to.value = *value;
}

// All other kinds: one word or one quoted text, in the form that stands alone.
template <class Kind>
void read_literal(QueryLexer& lexer, value_kind_t kind, Kind& to) {
    lexer.skip_blanks();
    const size_t place = lexer.place();
    std::string text = lexer.peek() == '"' ? lexer.take_quoted("") : std::string(lexer.take_word());
    if (text.empty() && lexer.place() == place)
        lexer.fail(fmt::format("a value of type {}", kind_word(kind)));
    if (text == "nan" && lexer.take("(")) {
        text += fmt::format("({})", lexer.take_word());
        lexer.expect(")");
    }
    try {
        const value_t read = parse_value(to.property, kind, text);
        to.value = static_cast<const Kind&>(*read).value;
    } catch (const value_text_error& error) {
        // The text of a value says what it should look like; only the place is added.
        lexer.fail_at(place, error.text());
    }
}

// The kind that a value's form tells where neither a word nor the property does.
std::optional<property_type_t> kind_by_form(QueryLexer& lexer) {
    const char first = lexer.peek();
    const std::string_view name = lexer.peek_name();
    if (first == '"') return property_type_t::string;
    if (name == "true" || name == "false") return property_type_t::boolean;
    if (first != '-' && (first < '0' || first > '9')) return std::nullopt;
    QueryLexer ahead = lexer;
    return read_integer<int32_t>(ahead.take_word()) ? property_type_t::int_ : property_type_t::real;
}

// Passes over "kind:" or the name of an enumeration with a colon, if one stands there.
std::optional<value_kind_t> take_kind(QueryLexer& lexer) {
    const std::string_view word = lexer.peek_name();
    const auto kind = find_kind(word);
    const enumeration_t* enumeration = kind ? nullptr : find_enumeration(word);
    if (!kind && !enumeration) return std::nullopt;
    QueryLexer ahead = lexer;
    ahead.advance(word.size());
    if (!ahead.take(":")) return std::nullopt;
    lexer = ahead;
    if (enumeration) return value_kind_t{property_type_t::enum_, enumeration->id};
    return kind;
}

// The kind that the text tells by a word or by its form.
std::optional<value_kind_t> take_told_kind(QueryLexer& lexer, value_kind_t expected) {
    if (auto told = take_kind(lexer)) {
        if (told->type == property_type_t::enum_ && told->enumeration == 0 &&
            expected.type == property_type_t::enum_)
            return expected;
        return told;
    }
    if (lexer.peek() == '{') return value_kind_t{property_type_t::object_set, 0};
    if (lexer.peek_name() == "enum")
        return value_kind_t{property_type_t::enum_, expected.enumeration};
    return std::nullopt;
}

value_t read_value_as(QueryLexer& lexer, uint32_t property, value_kind_t kind) {
    if (lexer.peek_name() == "null") {
        lexer.advance(4);
        return make_null(property, kind);
    }
    value_t value = make_value(kind.type);
    value->property = property;
    visit_kind(*value, [&](auto& to) { read_literal(lexer, kind, to); });
    return value;
}

// Whether a whole value of this kind stands at the lexer's place. What is wrong with a value that
// doesn't fit costs no more than a look at that value.
bool fits(const QueryLexer& lexer, uint32_t property, value_kind_t kind) {
    QueryLexer ahead(lexer.rest());
    try {
        (void)read_value_as(ahead, property, kind);
        const char next = ahead.peek();
        return next == '&' || next == '}' || next == '/';
    } catch (const query_text_error&) {
        return false;
    }
}

// The kind of a value that doesn't tell it. The expected one goes before those of single classes,
// and of these one is taken only if no other would do.
value_kind_t decide_kind(QueryLexer& lexer, const Place& place, value_kind_t expected) {
    const bool is_expected = expected.type != property_type_t::none;
    const std::vector<value_kind_t> others = other_kinds(place);
    if (others.empty() && is_expected) return expected;
    if (is_expected && fits(lexer, place.property, expected)) return expected;
    const auto fitting = [&](value_kind_t kind) { return fits(lexer, place.property, kind); };
    if (std::count_if(others.begin(), others.end(), fitting) == 1)
        return *std::find_if(others.begin(), others.end(), fitting);
    if (is_expected) return expected;  // to be told what is wrong with it
    if (const auto type = kind_by_form(lexer)) return {*type, 0};
    lexer.fail("a value, with its kind in front as in string:null");
}

value_t read_value(QueryLexer& lexer, const Place& place) {
    const value_kind_t expected = expected_kind(place);
    const auto told = take_told_kind(lexer, expected);
    const value_kind_t kind = told ? *told : decide_kind(lexer, place, expected);
    value_t value = read_value_as(lexer, place.property, kind);
    if (lexer.take("/")) value->flags = read_number(lexer, "the flags of the value");
    return value;
}

}  // namespace

std::string property_text(uint32_t property) {
    const property_row_t* row = find_property_row(property);
    return row ? std::string(row->name) : fmt::format("{}", property);
}

uint32_t read_number(QueryLexer& lexer, std::string_view what) {
    const char first = lexer.peek();
    if (first < '0' || first > '9') lexer.fail(what);
    const size_t place = lexer.place();
    const std::string_view word = lexer.take_digits();
    const auto number = read_integer<uint32_t>(word);
    if (!number)
        lexer.fail_at(place, fmt::format("expected {} from 0 to 4294967295, found {}", what,
                                         quoted_text(word)));
    return *number;
}

uint32_t read_property(QueryLexer& lexer) {
    const std::string_view name = lexer.peek_name();
    if (name.empty()) return read_number(lexer, "the name or number of a property");
    const auto property = find_property(name);
    if (!property) lexer.fail("the name or number of a property");
    lexer.advance(name.size());
    return *property;
}

std::string condition_text(const condition_t& condition, uint32_t class_number) {
    if (!condition.value) return "-" + operator_text(condition.op, false) + "null";
    const bool before_set = condition.value->type() == property_type_t::object_set;
    return property_text(condition.value->property) + operator_text(condition.op, before_set) +
           condition_value_text(*condition.value,
                                {class_number, condition.value->property, condition.op});
}

condition_t read_condition(QueryLexer& lexer, uint32_t class_number) {
    condition_t condition;
    if (lexer.take("-")) {
        condition.op = read_operator(lexer).op;
        if (lexer.peek_name() != "null") lexer.fail("null");
        lexer.advance(4);
        return condition;
    }
    const uint32_t property = read_property(lexer);
    const OperatorRead read = read_operator(lexer);
    condition.value = read_value(lexer, {class_number, property, read.op});
    const bool before_set = condition.value->type() == property_type_t::object_set;
    condition.op = read.by_sign && before_set ? for_sets(read.op) : read.op;
    return condition;
}

}  // namespace tql::detail
