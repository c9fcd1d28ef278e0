// The parameters behind the question mark of a request, and ids in them. All throw Refused, with
// status 400 and the name of the parameter in the text.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wapi/endpoint.h"

namespace wapi {

/// Refuses with status 400 and the name BAD_REQUEST.
[[noreturn]] void refuse_parameter(std::string text);
/// As much of a client's text as a refusal repeats.
[[nodiscard]] std::string shown_part(std::string_view text);

/// Refuses every other parameter.
void allow_parameters(const Request& request, std::initializer_list<std::string_view> names);
/// The values of a parameter that may stand several times.
[[nodiscard]] std::vector<std::string> find_parameters(const Request& request,
                                                       std::string_view wanted);
/// The value of one that may stand once; none if it isn't there.
[[nodiscard]] std::optional<std::string> find_parameter(const Request& request,
                                                        std::string_view wanted);
/// A decimal number up to `most`; none if it isn't there. `what` it is stands in the refusal.
[[nodiscard]] std::optional<uint64_t> find_number(const Request& request, std::string_view wanted,
                                                  uint64_t most, std::string_view what);

}  // namespace wapi
