// Values that were written when their object was met, against a map of them as it travels.
#include "queues/encoded_values.h"

#include <gtest/gtest.h>

#include "queues/detail/wire.h"
#include "support/memory_stream.h"
#include "support/rng.h"
#include "tql/property_kinds.h"
#include "tql/property_map.h"

namespace queues_test {
namespace {

using namespace queues;
using namespace support;

template <class Values>
Bytes sent(const Values& values, size_t area_size) {
    MemoryIStream nothing({});
    MemoryOStream out(area_size);
    protocol::ioprim prim(nothing, out);
    if constexpr (std::is_same_v<Values, EncodedValues>)
        put(prim, values);
    else
        detail::put(prim, values);
    prim.commit();
    return out.bytes;
}

// Thousands of objects in one arena, which must not move what it gave; values in any order, some of
// them twice, some larger than an area of the stream, some larger than a piece of the arena.
TEST(EncodedValues, TravelAsAMapOfThemDoes) {
    ValueArena arena;
    ValueWriter writer(arena);
    Rng rng(11);
    const auto below = [&rng](uint64_t bound) { return static_cast<uint32_t>(rng.below(bound)); };
    for (int round = 0; round < 3; ++round) {
        std::vector<std::pair<tql::property_map_t, EncodedValues>> objects;
        for (int n = 0; n < 1'000; ++n) {
            if (rng.chance(5)) {  // one that was given up half way
                writer.begin();
                writer.add_text(tql::property_type_t::string, 1, 0, "nobody's");
            }
            writer.begin();
            tql::property_map_t expected;
            for (uint32_t left = below(12); left > 0; --left) {
                const uint32_t number = below(100);
                const uint32_t flags = below(4) << 17;
                const bool huge = rng.chance(1);
                const std::string text(below(huge ? 100'000 : 60), 'x');
                switch (below(4)) {
                    case 0:
                        tql::add<tql::property_string_t>(expected, number, text, flags);
                        writer.add_text(tql::property_type_t::string, number, flags, text);
                        break;
                    case 1:
                        tql::add<tql::property_uint_t>(expected, number, left, flags);
                        writer.add_word(tql::property_type_t::uint, number, flags, left);
                        break;
                    case 2:
                        tql::add_null<tql::property_object_t>(expected, number, flags);
                        writer.add(*expected.at(number));
                        break;
                    case 3:
                        tql::add<tql::property_string_list_t>(expected, number, {text, "", "b"});
                        writer.add(*expected.at(number));
                        break;
                }
            }
            objects.emplace_back(std::move(expected), writer.finish());
        }
        for (const auto& [expected, encoded] : objects) {
            ASSERT_EQ(decode(encoded), expected);
            ASSERT_EQ(sent(encoded, 4096), sent(expected, 4096));
            ASSERT_EQ(sent(encoded, 64), sent(expected, 64));
        }
        arena.clear();
    }
}

}  // namespace
}  // namespace queues_test
