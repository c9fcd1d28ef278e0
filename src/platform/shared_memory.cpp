#include "platform/shared_memory.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "error/exception.h"

namespace platform {

namespace {

uint8_t* map(int fd, size_t size_bytes, const std::string& failure_text) {
    void* address = ::mmap(nullptr, size_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED) throw error::ESystemError(failure_text, errno);
    return static_cast<uint8_t*>(address);
}

}  // namespace

SharedMapping::SharedMapping(Fd fd, uint8_t* data, size_t size_bytes)
    : fd_(std::move(fd)), data_(data), size_bytes_(size_bytes) {}

SharedMapping SharedMapping::create(size_t size_bytes, const std::string& failure_text) {
    Fd fd(::memfd_create("tarmik-pool", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!fd || ::fchmod(fd.get(), 0600) != 0 ||
        ::ftruncate(fd.get(), static_cast<off_t>(size_bytes)) != 0 ||
        ::fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
        throw error::ESystemError(failure_text, errno);
    uint8_t* data = map(fd.get(), size_bytes, failure_text);
    return {std::move(fd), data, size_bytes};
}

SharedMapping SharedMapping::attach(int fd, size_t size_bytes, const std::string& failure_text) {
    // A region shorter than told would show only later, as a bus error in the middle of a message.
    struct stat status {};
    if (::fstat(fd, &status) != 0) throw error::ESystemError(failure_text, errno);
    if (static_cast<size_t>(status.st_size) < size_bytes || size_bytes == 0)
        throw error::ESystemError(failure_text, EINVAL);
    return {Fd(), map(fd, size_bytes, failure_text), size_bytes};
}

SharedMapping::SharedMapping(SharedMapping&& other) noexcept
    : fd_(std::move(other.fd_)),
      data_(std::exchange(other.data_, nullptr)),
      size_bytes_(std::exchange(other.size_bytes_, 0)) {}

SharedMapping::~SharedMapping() {
    if (data_ != nullptr) ::munmap(data_, size_bytes_);
}

}  // namespace platform
