#include "util/node_id.h"

#include <charconv>

#include "util/text.h"

std::string NodeId::to_string() const {
    return fmt::format("{}.{}", first, second);
}

NodeId NodeId::parse(std::string_view text) {
    if (text.empty()) throw error::EParseEmptyStringError("Cannot parse empty string to NodeId");
    NodeId id;
    const char* const end = text.data() + text.size();
    const auto [point, first_error] = std::from_chars(text.data(), end, id.first);
    if (first_error == std::errc{} && point != end && *point == '.') {
        const auto [last, second_error] = std::from_chars(point + 1, end, id.second);
        if (second_error == std::errc{} && last == end) return id;
    }
    throw error::EParseError(fmt::format("Cannot parse NodeId: \"{}\"", text));
}
