// What makes a struct a record: a name and one list of its fields, in the order in which they
// travel.
//
//     struct Sample {
//         std::uint32_t count = 0;
//         std::string text{};
//
//         static constexpr std::string_view record = "Sample";
//         static constexpr void fields(auto& self, auto&& visit) {
//             visit("count", self.count);
//             visit("text", self.text);
//         }
//     };
//
// Whatever walks records (reading, writing, printing, comparing) walks that list; nothing else
// names the fields.
#pragma once

#include <concepts>
#include <string_view>

namespace queues {

template <class R>
concept Record = requires {
    { R::record } -> std::convertible_to<std::string_view>;
};

}  // namespace queues
