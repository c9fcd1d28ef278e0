#include "platform/host_address.h"

#include <arpa/inet.h>
#include <array>
#include <climits>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>
#include <sys/socket.h>
#include <unistd.h>

namespace platform {

std::optional<std::string> host_name() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0 || name[0] == '\0') return std::nullopt;
    return std::string(name.data());
}

std::optional<std::string> host_address(const std::string& name) {
    // The resolver's own patience is half a minute, which nobody who is waiting for an answer has.
    if (::res_init() == 0) {
        _res.retrans = 1;
        _res.retry = 1;
    }
    addrinfo wanted{};
    wanted.ai_family = AF_INET;
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name.c_str(), nullptr, &wanted, &found) != 0) return std::nullopt;
    const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owned(found, ::freeaddrinfo);
    if (found == nullptr || found->ai_family != AF_INET) return std::nullopt;
    std::array<char, INET_ADDRSTRLEN> text{};
    const auto& address = reinterpret_cast<const sockaddr_in&>(*found->ai_addr);
    if (::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) == nullptr)
        return std::nullopt;
    return std::string(text.data());
}

}  // namespace platform
