#include "queues/event_types.h"

#include <array>
#include <fmt/format.h>
#include <string_view>
#include <utility>

namespace queues {

namespace {

// The compiler's own spelling of an enumerator: the name of an event is the name of its constant.
template <event_t N>
consteval std::string_view spelled() {
    constexpr std::string_view kPrefix = "N = queues::";
    std::string_view text = __PRETTY_FUNCTION__;
    text.remove_prefix(text.find(kPrefix) + kPrefix.size());
    return text.substr(0, text.find_first_of("];"));
}

template <int... Numbers>
consteval auto spell_all(std::integer_sequence<int, Numbers...>) {
    return std::array<std::string_view, sizeof...(Numbers)>{
        spelled<static_cast<event_t>(Numbers)>()...};
}

constexpr auto kEventNames = spell_all(std::make_integer_sequence<int, INVALID_TAIL + 1>());
static_assert(kEventNames[0] == "INVALID_HEAD" && kEventNames[76] == "GET_TQL_CLASS_NAMES" &&
                  kEventNames[205] == "INVALID_TAIL",
              "the compiler spells enumerators in a way of its own");

constexpr std::string_view kQueueNames[] = {"none", "main", "schd", "dbms", "rmch", "skio", "alrm",
                                            "alrt", "snmp", "brdc", "bnch", "port", "keyg", "rept",
                                            "forc", "kngt", "nets", "grid", "ncup", "gmas", "gsat",
                                            "tsdb", "upln", "esxi", "wapi", "extra"};

}  // namespace

std::string event_name(event_t number) {
    if (number >= INVALID_HEAD && number <= INVALID_TAIL)
        return std::string(kEventNames[static_cast<std::size_t>(number)]);
    return fmt::format("(event_t){}", static_cast<std::int32_t>(number));
}

std::string queue_name(queue_t queue) {
    const auto number = static_cast<std::int32_t>(queue);
    if (queue >= queue_t::none && queue <= queue_t::extra)
        return std::string(kQueueNames[static_cast<std::size_t>(number + 1)]);
    return fmt::format("{:x>4}", number);
}

}  // namespace queues
