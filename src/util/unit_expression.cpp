#include "util/unit_expression.h"

#include <algorithm>
#include <fmt/format.h>

#include "util/text.h"
#include "util/unit_tables.h"

namespace {

constexpr uint8_t kVersion = 1;
constexpr uint8_t kVersionMark = units::kVersionTag | 1;
constexpr uint8_t kTagBits = 0xF0;

bool is_binary_unit(const UnitEntry& entry) {
    return entry.is(units::kUnitTag) &&
           (entry.unit_number() == units::kBit || entry.unit_number() == units::kByte);
}

bool is_prefix(const UnitEntry& entry) {
    return entry.is(units::kPrefixTag);
}

/// Appends the entries of `token` to `list` if it is a unit of the number `unit`, which has the
/// text `name`, with or without a prefix.
bool add_unit(std::string_view token, uint8_t unit, std::string_view name,
              std::vector<UnitEntry>& list) {
    if (token.find(name) == std::string_view::npos) return false;
    for (uint8_t number = 1; number < units::kPrefixCount; ++number)
        for (const std::string_view prefix : units::prefix(number).texts) {
            const bool alone = number == units::kOne;
            if (alone && unit == units::kNoUnit) continue;
            const bool matches = alone ? token == name
                                       : token.size() == prefix.size() + name.size() &&
                                             token.starts_with(prefix) && token.ends_with(name);
            if (!matches) continue;
            if (!alone) list.push_back(UnitEntry::prefix(number));
            if (unit != units::kNoUnit) list.push_back(UnitEntry::unit(unit));
            return true;
        }
    return false;
}

/// Reads a reversed list of entries into both lists of an expression. The operands that are still
/// awaited stand on a stack of their own: a blob may nest as deep as it is long.
class BlobParser {
  public:
    BlobParser(std::vector<UnitEntry>& numerator, std::vector<UnitEntry>& denominator)
        : lists_{&numerator, &denominator} {}

    void parse(const std::vector<UnitEntry>& entries) {
        size_t cursor = entries.size();
        std::vector<bool> awaited{false};  // true: the operand divides
        while (!awaited.empty()) {
            const bool divides = awaited.back();
            awaited.pop_back();
            if (cursor == 0) throw error::EParseError("Error parsing blob, out of data");
            take(entries[--cursor], divides, awaited);
        }
        if (cursor != 0) throw error::EParseError("Error parsing blob, extra input");
    }

  private:
    void take(const UnitEntry& entry, bool divides, std::vector<bool>& awaited) {
        switch (entry.tag()) {
            case units::kPrefixTag:
            case units::kUnitTag:
            case units::kStringTag:
                lists_[divides ? 1 : 0]->push_back(entry);
                return;
            case units::kOperatorTag: {
                const uint8_t operation = entry.operator_number();
                if (operation != units::kProduct && operation != units::kQuotient)
                    throw error::EParseError(
                        fmt::format("Unexpected operator: {}", unsigned{operation}));
                awaited.push_back(operation == units::kQuotient ? !divides : divides);
                awaited.push_back(divides);
                return;
            }
            default:
                throw error::EParseError(
                    fmt::format("Met unexpected unit tag: {}", unsigned{entry.tag()}));
        }
    }

    std::vector<UnitEntry>* lists_[2];
};

void list_to_blob(const std::vector<UnitEntry>& list, std::vector<uint8_t>& blob) {
    for (size_t i = list.size(); i-- > 0;) {
        entryToBlob(list[i], blob);
        if (i + 1 != list.size()) entryToBlob(UnitEntry::operation(units::kProduct), blob);
    }
}

/// The text of one entry. `binary_multiple`: prefixes are of steps of 1024.
std::string entry_label(const UnitEntry& entry, UnitExpression::form_t form, bool binary_multiple) {
    const bool brief = form == UnitExpression::form_t::brief;
    switch (entry.tag()) {
        case units::kPrefixTag: {
            const units::Prefix prefix = units::prefix(entry.prefix_number());
            std::string text(brief ? prefix.label : prefix.texts.front());
            if (!brief || !binary_multiple) return text;
            for (char& c : text)
                if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
            return text + "i";
        }
        case units::kUnitTag: {
            const units::Unit unit = units::unit(entry.unit_number());
            return std::string(brief ? unit.label : unit.texts.front());
        }
        case units::kStringTag:
            return std::string(entry.text());
        case units::kConversionTag:
            return fmt::format("({}/{})", units::unit(entry.from_unit()).label,
                               units::unit(entry.to_unit()).label);
        default:
            throw error::EParseError("Version tag encountered in getLabel");
    }
}

struct LabelStyle {
    UnitExpression::form_t form;
    bool omit_one;
    bool binary_multiple;
    char joint;
};

/// Nothing stands between a prefix and its unit.
std::string list_label(const std::vector<UnitEntry>& list, const LabelStyle& style) {
    std::string text;
    bool prefix_before = false;
    bool first = true;
    for (const UnitEntry& entry : list) {
        if (style.omit_one && is_prefix(entry) && entry.prefix_number() == units::kOne) continue;
        if (!first && !(prefix_before && entry.is(units::kUnitTag))) text += style.joint;
        text += entry_label(entry, style.form, style.binary_multiple);
        prefix_before = is_prefix(entry);
        first = false;
    }
    return text;
}

}  // namespace

// ---- text --------------------------------------------------------------------------------------

UnitExpression::UnitExpression(std::string_view text) {
    std::vector<UnitEntry>* list = &numerator_;
    size_t begin = 0;
    for (size_t at = 0; at <= text.size(); ++at) {
        const char c = at < text.size() ? text[at] : ' ';
        if (c != ' ' && c != '*' && c != '/') continue;
        if (at > begin) add_token(text.substr(begin, at - begin), *list);
        begin = at + 1;
        if (c != ' ') list = c == '*' ? &numerator_ : &denominator_;
    }
    if (!text.empty() && numerator_.empty() && denominator_.empty())
        numerator_.push_back(UnitEntry::string(text));
    binary_ = has_binary_unit();
}

void UnitExpression::add_token(std::string_view token, std::vector<UnitEntry>& list) {
    for (uint8_t unit = units::kUnitCount; unit-- > 0;)
        for (const std::string_view name : units::unit(unit).texts)
            if (add_unit(token, unit, name, list)) return;
    list.push_back(UnitEntry::string(token));
}

std::string UnitExpression::getLabel(form_t form, bool omit_one) const {
    std::string text = list_label(numerator_, {form, omit_one, binary_, '*'});
    if (denominator_.empty()) return text;
    if (text.empty() && !omit_one) text = "1";
    return text + "/" + list_label(denominator_, {form, omit_one, false, '/'});
}

// ---- blob --------------------------------------------------------------------------------------

UnitExpression UnitExpression::from_blob(std::span<const uint8_t> blob) {
    UnitExpression made;
    size_t cursor = 0;
    const bool marked = blob.size() >= 2 && (blob[0] & kTagBits) == units::kVersionTag;
    made.version_ = marked ? blob[1] : 0;
    if (made.version_ > kVersion) {
        made.raw_.assign(blob.begin(), blob.end());
        return made;
    }
    if (marked) cursor = 2;
    std::vector<UnitEntry> entries;
    while (cursor < blob.size()) entries.push_back(entryFromBlob(blob, cursor));
    if (entries.empty()) return made;
    BlobParser(made.numerator_, made.denominator_).parse(entries);
    made.binary_ = made.has_binary_unit();
    return made;
}

std::vector<uint8_t> UnitExpression::to_blob() const {
    if (version_ > kVersion) return raw_;
    std::vector<uint8_t> blob{kVersionMark, kVersion};
    list_to_blob(denominator_, blob);
    if (numerator_.empty() && !denominator_.empty())
        entryToBlob(UnitEntry::prefix(units::kOne), blob);
    list_to_blob(numerator_, blob);
    if (!denominator_.empty()) entryToBlob(UnitEntry::operation(units::kQuotient), blob);
    return blob;
}

// ---- making one from another -------------------------------------------------------------------

UnitExpression::UnitExpression(uint8_t unit) : numerator_{UnitEntry::unit(unit)} {
    binary_ = has_binary_unit();
}

UnitExpression UnitExpression::with_prefix(uint8_t prefix) const {
    UnitExpression made = *this;
    made.numerator_.insert(made.numerator_.begin(), UnitEntry::prefix(prefix));
    made.cancel();
    return made;
}

void UnitExpression::multiply(uint8_t unit, list_t list) {
    (list == list_t::numerator ? numerator_ : denominator_).push_back(UnitEntry::unit(unit));
    cancel();
}

void UnitExpression::cancel() {
    for (auto above = numerator_.begin(); above != numerator_.end();) {
        const auto below = std::find(denominator_.begin(), denominator_.end(), *above);
        if (below == denominator_.end()) {
            ++above;
        } else {
            denominator_.erase(below);
            above = numerator_.erase(above);
        }
    }
}

UnitExpression UnitExpression::without_prefixes() const {
    UnitExpression made = *this;
    std::erase_if(made.numerator_, is_prefix);
    return made;
}

// ---- what it is --------------------------------------------------------------------------------

bool UnitExpression::has_binary_unit() const {
    return std::any_of(numerator_.begin(), numerator_.end(), is_binary_unit);
}

bool UnitExpression::denominator_has(uint8_t unit) const {
    return std::any_of(denominator_.begin(), denominator_.end(), [&](const UnitEntry& entry) {
        return entry.is(units::kUnitTag) &&
               (entry.unit_number() == unit || units::conversion_factor(entry.unit_number(), unit));
    });
}

UnitExpression::Suits UnitExpression::suits() const {
    bool has_unit = false;
    Suits found{true, true};
    for (const UnitEntry& entry : numerator_) {
        if (is_prefix(entry) && entry.prefix_number() == units::kHundredth) return {};
        if (!entry.is(units::kUnitTag)) continue;
        has_unit = true;
        const uint8_t unit = entry.unit_number();
        const bool as_it_is = (unit >= units::kCelsius && unit <= units::kKelvin) ||
                              (unit >= units::kInch && unit <= units::kRpm);
        if ((unit >= units::kMinute && unit <= units::kByte) || unit == units::kHertz || as_it_is)
            found.fractions = false;
        if ((unit >= units::kSecond && unit <= units::kYear) || as_it_is) found.multiples = false;
    }
    return has_unit ? found : Suits{};
}

bool UnitExpression::step_prefix(bool up) {
    const Suits suited = suits();
    const auto first = std::find_if(numerator_.begin(), numerator_.end(), is_prefix);
    const uint8_t present = first == numerator_.end() ? units::kOne : first->prefix_number();
    const uint8_t next = up ? units::prefix(present).up : units::prefix(present).down;
    if (next == units::kNoPrefix) return false;
    const int power = units::prefix(next).power_of_ten;
    if (up ? power > 0 && !suited.multiples : power < 0 && !suited.fractions) return false;
    if (first != numerator_.end()) numerator_.erase(first);
    if (next != units::kOne) numerator_.insert(numerator_.begin(), UnitEntry::prefix(next));
    return true;
}
