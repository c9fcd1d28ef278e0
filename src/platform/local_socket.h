// Stream sockets with a name in the file system, for programs of one user on one machine. The name
// may be longer than the system's own limit for such names. All descriptors are close-on-exec.
#pragma once

#include <string>

#include "platform/fifo.h"

namespace platform {

/// Makes a socket at `path` that only its owner can connect to, whatever the umask, and listens,
/// without ever blocking in accept_local(). A socket that was left at `path` is removed first: the
/// caller has to know that nobody serves it. error::ESystemError, also when another kind of file is
/// at `path`.
[[nodiscard]] Fd listen_local(const std::string& path);

/// The next connection that waits at `listener`, non-blocking in both directions, whose other end
/// is a process of this user or of root; others are closed unheard. None if nobody waits.
/// error::ESystemError if the system can give no connection.
[[nodiscard]] Fd accept_local(const Fd& listener);

/// Connects to the socket at `path`; reads and writes of the result block. None if there is no
/// socket or nobody listens at it. error::ESystemError otherwise.
[[nodiscard]] Fd connect_local(const std::string& path);

}  // namespace platform
