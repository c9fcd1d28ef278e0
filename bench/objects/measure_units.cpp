#include <stdexcept>

#include "objects/measure.h"
#include "util/unit_expression.h"

namespace bench {

Figures measure_units(const Sizes& sizes) {
    const UnitExpression rate("B/s"), bits("bit/s"), seconds("s");
    double value = 1;
    size_t length = 0;
    const auto next = [&] { return value = value < 1e12 ? value * 1.37 : 1; };
    const auto formats_per_second = [&](const UnitExpression& unit, const UnitExpression& display) {
        return sizes.formats / seconds_of([&] {
                   for (uint32_t i = 0; i < sizes.formats; ++i)
                       length += format_units(unit, next(), display).size();
               });
    };
    Figures figures{{"format_same", formats_per_second(rate, rate)},
                    {"format_converted", formats_per_second(rate, bits)},
                    {"format_duration", formats_per_second(seconds, seconds)}};
    if (length < sizes.formats) throw std::runtime_error("wrong result: empty texts");
    return figures;
}

}  // namespace bench
