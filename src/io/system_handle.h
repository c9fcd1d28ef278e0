// A selectable with a file descriptor. Two sorts: streams do their reading or writing when the
// system names them (completesIo), everything else, such as a pidfd, a signalfd or another
// library's epoll descriptor, is handed out as it is (FdSelectable).
#pragma once

#include <cstdint>
#include <string>

#include "io/selectable.h"

namespace io {

class SystemHandle : public virtual Selectable {
  public:
    /// The descriptor; must stay the same and open from being added to a selector until being
    /// removed.
    [[nodiscard]] virtual int fd() const = 0;
    /// What to wait for: POLLIN or POLLOUT.
    [[nodiscard]] virtual short interest() const = 0;
    /// True for a stream: systemReady() moves bytes, and readiness is asked of isReady()
    /// afterwards.
    [[nodiscard]] virtual bool completesIo() const { return false; }
    /// The system says that the descriptor is ready, or in an error state. Must not change
    /// memberships.
    virtual void systemReady() {}

    SystemHandle* systemHandle() override { return this; }
};

enum class direction_t { reading, writing };

/// A descriptor owned by somebody else, handed out whenever it is readable, or writable if it was
/// made for that (level triggered).
class FdSelectable : public SystemHandle {
  public:
    /// `fd` stays with the caller and must outlive this object's memberships.
    FdSelectable(int fd, std::string name, direction_t direction = direction_t::reading);

    void name(std::string& out) const override { out += name_; }
    /// Asks the system; one system call.
    [[nodiscard]] bool isReady() const override;
    [[nodiscard]] int fd() const override { return fd_; }
    [[nodiscard]] short interest() const override;

  private:
    int fd_;
    std::string name_;
    direction_t direction_;
};

}  // namespace io
