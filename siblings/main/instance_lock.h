// Keeps two main processes from sharing one set of FIFOs: the second would take the first one's
// away.
#pragma once

#include <string>

#include "platform/fifo.h"

namespace mainprocess {

/// Makes the directory of `fifo_prefix`, open to its owner alone, and takes the lock file beside
/// the FIFOs (the prefix and ".lock"). The lock lasts as long as the descriptor. Throws
/// error::EFatal with the prefix when another process holds it or when the directory was there and
/// belongs to, or can be written by, somebody else; error::ESystemError when directory or file
/// cannot be made.
[[nodiscard]] platform::Fd take_instance_lock(const std::string& fifo_prefix);

}  // namespace mainprocess
