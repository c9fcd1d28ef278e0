#include "wapi/parameters.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace wapi {

void refuse_parameter(std::string text) {
    throw Refused(400, "BAD_REQUEST", std::move(text));
}

std::string shown_part(std::string_view text) {
    return std::string(text.substr(0, 60));
}

void allow_parameters(const Request& request, std::initializer_list<std::string_view> names) {
    for (const auto& [name, value] : request.query)
        if (std::find(names.begin(), names.end(), name) == names.end())
            refuse_parameter(fmt::format("Unknown parameter \"{}\"", shown_part(name)));
}

std::vector<std::string> find_parameters(const Request& request, std::string_view wanted) {
    std::vector<std::string> values;
    for (const auto& [name, value] : request.query)
        if (name == wanted) values.push_back(value);
    return values;
}

std::optional<std::string> find_parameter(const Request& request, std::string_view wanted) {
    std::vector<std::string> values = find_parameters(request, wanted);
    if (values.size() > 1) refuse_parameter(fmt::format("Parameter \"{}\" is given twice", wanted));
    if (values.empty()) return std::nullopt;
    return std::move(values.front());
}

std::optional<uint64_t> find_number(const Request& request, std::string_view wanted, uint64_t most,
                                    std::string_view what) {
    const auto text = find_parameter(request, wanted);
    if (!text) return std::nullopt;
    uint64_t number = 0;
    const auto [end, failure] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (failure != std::errc() || end != text->data() + text->size() || number > most)
        refuse_parameter(fmt::format("Parameter \"{}\": \"{}\" is no {} up to {}", wanted,
                                     shown_part(*text), what, most));
    return number;
}

}  // namespace wapi
