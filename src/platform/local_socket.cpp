#include "platform/local_socket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "error/exception.h"

namespace platform {

namespace {

constexpr int kMostWaiting = 8;
constexpr mode_t kOwnerOnly = 0600;

/// What the system takes as the name of a socket, and what has to stay open meanwhile.
struct Address {
    sockaddr_un name{};
    Fd folder;

    [[nodiscard]] const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&name); }
};

[[noreturn]] void fail(const std::string& what, const std::string& path) {
    throw error::ESystemError(fmt::format("Cannot {} \"{}\"", what, path), errno);
}

/// A name that is too long for the system is told relative to a descriptor of its folder.
Address make_address(const std::string& path) {
    Address address;
    address.name.sun_family = AF_UNIX;
    std::string name = path;
    if (name.size() >= sizeof address.name.sun_path) {
        const size_t slash = path.rfind('/');
        const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
        address.folder = Fd(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!address.folder) fail("open", folder);
        name = fmt::format("/proc/self/fd/{}/{}", address.folder.get(),
                           slash == std::string::npos ? path : path.substr(slash + 1));
    }
    if (name.size() >= sizeof address.name.sun_path) {
        errno = ENAMETOOLONG;
        fail("use the socket", path);
    }
    std::memcpy(address.name.sun_path, name.c_str(), name.size() + 1);
    return address;
}

void remove_left_socket(const std::string& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno == ENOENT) return;
        fail("look at", path);
    }
    if (!S_ISSOCK(status.st_mode)) {
        errno = EEXIST;
        fail("make the socket", path);
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) fail("remove", path);
}

bool peer_may_ask(const Fd& connection) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    return peer.uid == ::geteuid() || peer.uid == 0;
}

}  // namespace

Fd listen_local(const std::string& path) {
    remove_left_socket(path);
    const Address address = make_address(path);
    Fd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) fail("make the socket", path);
    // The mode of the descriptor limits that of the name from the moment on that there is one; the
    // umask can take more away, which chmod puts back.
    if (::fchmod(listener.get(), kOwnerOnly) != 0 ||
        ::bind(listener.get(), address.get(), sizeof address.name) != 0)
        fail("make the socket", path);
    if (::chmod(path.c_str(), kOwnerOnly) != 0 || ::listen(listener.get(), kMostWaiting) != 0) {
        const int code = errno;
        ::unlink(path.c_str());
        errno = code;
        fail("listen at the socket", path);
    }
    return listener;
}

Fd accept_local(const Fd& listener) {
    for (;;) {
        Fd connection(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!connection) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) return {};
            if (errno == EINTR || errno == ECONNABORTED) continue;
            throw error::ESystemError("Cannot accept a connection", errno);
        }
        if (peer_may_ask(connection)) return connection;
    }
}

Fd connect_local(const std::string& path) {
    const Address address = [&] {
        try {
            return make_address(path);
        } catch (const error::ESystemError& failure) {
            if (failure.code() != ENOENT) throw;
            return Address{};
        }
    }();
    if (address.name.sun_family == 0) return {};
    Fd connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!connection) fail("make a socket for", path);
    if (::connect(connection.get(), address.get(), sizeof address.name) == 0) return connection;
    if (errno == ENOENT || errno == ECONNREFUSED || errno == ENOTDIR) return {};
    fail("connect to", path);
}

}  // namespace platform
