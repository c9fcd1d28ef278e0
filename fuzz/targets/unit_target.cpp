// Unit expressions of any bytes and any text, and values in them.
//
//   byte 0     length of the text
//   8 bytes    a value, its bits with the most significant byte first
//   text       an expression as people write it
//   the rest   an expression as objects hold it

#include <bit>
#include <string>
#include <vector>

#include "targets/input.h"
#include "targets/target.h"
#include "util/text.h"
#include "util/unit_expression.h"

namespace fuzz {

namespace {

using Blob = std::vector<uint8_t>;
using form_t = UnitExpression::form_t;

/// The longest text that a value can have.
constexpr size_t kMostText = 127;
constexpr uint8_t kNewestVersion = 1;

/// What is written must read again, and be written again the same.
UnitExpression round_trip(const UnitExpression& unit) {
    const Blob blob = unit.to_blob();
    UnitExpression again;
    try {
        again = UnitExpression::from_blob(blob);
    } catch (const error::EParseError& fault) {
        throw Violation("A unit that was just written is refused: " + fault.text());
    }
    if (again.to_blob() != blob) throw Violation("A unit changed by being written and read");
    for (const form_t form : {form_t::brief, form_t::full})
        if (again.getLabel(form, true) != unit.getLabel(form, true))
            throw Violation("The label changed by writing the unit");
    return again;
}

void show(const UnitExpression& unit, double value, const UnitExpression& display) {
    if (format_units(unit, value, display).size() > kMostText)
        throw Violation("The text of a value is too long");
    static_cast<void>(convert_units(unit, value, display, false));
    const UnitValue shown = convert_units(unit, value, display, true);
    for (const bool omit_one : {false, true})
        static_cast<void>(shown.unit.getLabel(form_t::brief, omit_one));
}

class UnitTarget final : public Target {
  public:
    void run(std::span<const uint8_t> bytes) override {
        Input input(bytes);
        const size_t length = input.byte();
        const auto high = static_cast<uint64_t>(input.number(4)) << 32;
        const auto value = std::bit_cast<double>(high | input.number(4));
        const auto name = input.bytes(length);
        const UnitExpression written(
            std::string_view(reinterpret_cast<const char*>(name.data()), name.size()));
        round_trip(written);
        show(written, value, written);

        const Blob blob(input.rest().begin(), input.rest().end());
        UnitExpression stored;
        try {
            stored = UnitExpression::from_blob(blob);
        } catch (const error::EParseError&) {
            return;  // bytes that are none
        }
        if (stored.version() > kNewestVersion && stored.to_blob() != blob)
            throw Violation("A unit of a newer version came back changed");
        const UnitExpression again = round_trip(stored);
        show(stored, value, again);
        show(stored, value, written);
        show(written, value, stored);
    }
};

}  // namespace

std::unique_ptr<Target> make_unit_target() {
    return std::make_unique<UnitTarget>();
}

}  // namespace fuzz
