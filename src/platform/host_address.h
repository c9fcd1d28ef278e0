// The name and the address of this machine, as its own resolver knows them.
#pragma once

#include <optional>
#include <string>

namespace platform {

/// The machine's name; none when the system doesn't tell.
[[nodiscard]] std::optional<std::string> host_name();

/// The first IPv4 address that the resolver gives for `name`, in dotted form; none without one. May
/// ask name servers, each of them once and for a second, and blocks meanwhile.
[[nodiscard]] std::optional<std::string> host_address(const std::string& name);

}  // namespace platform
