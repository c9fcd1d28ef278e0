// The system's calls with faults: the Nth call of a sort is interrupted, transfers less than asked,
// or fails. Everything else goes to the system.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <sys/mman.h>

#include "platform/system_calls.h"

namespace support {

enum class call_t {
    open,
    pread,
    pwritev2,
    fdatasync,
    fsync,
    fstat,
    lstat,
    ftruncate,
    fchmod,
    flock,
    mmap,
    rename,
    unlink,
    sorts,
};

class FaultyCalls : public platform::SystemCalls {
  public:
    /// What becomes of a call: its errno, or kHalf or kNothing for a transfer.
    static constexpr int kHalf = -1;
    static constexpr int kNothing = -2;
    static constexpr int kNoFault = 0;

    /// The `n`-th call of this sort from now on, 1 being the next, gets `fault`; for
    /// `call_t::sorts` the n-th of any sort. A half of a byte is all of it.
    void at(call_t sort, uint64_t n, int fault) {
        sort_ = sort;
        left_ = n;
        fault_ = fault;
    }
    /// From now on every call that can be interrupted or cut short is, once, before it gets
    /// through: first EINTR, then, for a transfer, half of it.
    void disturb_all() { disturb_all_ = true; }
    [[nodiscard]] bool struck() const { return struck_; }
    /// Calls of a sort so far; for call_t::sorts all of them.
    [[nodiscard]] uint64_t count(call_t sort) const { return counts_[static_cast<size_t>(sort)]; }
    /// From now on a sync returns at once: for tests whose power is never cut.
    void skip_syncs() { syncs_skipped_ = true; }
    /// Turns a durable write into EOPNOTSUPP, as file systems without the flag do.
    void refuse_durable_writes() { durable_refused_ = true; }

    int open(const char* path, int flags, mode_t mode) override {
        if (fails(call_t::open, true)) return -1;
        return SystemCalls::open(path, flags, mode);
    }
    ssize_t pread(int descriptor, void* buffer, size_t length, off_t offset) override {
        if (fails(call_t::pread, true)) return -1;
        if (nothing_) return 0;
        return SystemCalls::pread(descriptor, buffer, shortened(length), offset);
    }
    ssize_t pwritev2(int descriptor, const iovec* parts, int count, off_t offset,
                     int flags) override {
        if (durable_refused_ && flags != 0) {
            errno = EOPNOTSUPP;
            return -1;
        }
        if (fails(call_t::pwritev2, true)) return -1;
        if (nothing_) return 0;
        iovec part = *parts;
        part.iov_len = shortened(part.iov_len);
        return SystemCalls::pwritev2(descriptor, &part, count, offset, syncs_skipped_ ? 0 : flags);
    }
    int fdatasync(int descriptor) override {
        if (fails(call_t::fdatasync)) return -1;
        return syncs_skipped_ ? 0 : SystemCalls::fdatasync(descriptor);
    }
    int fsync(int descriptor) override {
        if (fails(call_t::fsync)) return -1;
        return syncs_skipped_ ? 0 : SystemCalls::fsync(descriptor);
    }
    int fstat(int descriptor, struct stat* status) override {
        return fails(call_t::fstat) ? -1 : SystemCalls::fstat(descriptor, status);
    }
    int lstat(const char* path, struct stat* status) override {
        return fails(call_t::lstat) ? -1 : SystemCalls::lstat(path, status);
    }
    int ftruncate(int descriptor, off_t length) override {
        return fails(call_t::ftruncate, true) ? -1 : SystemCalls::ftruncate(descriptor, length);
    }
    int fchmod(int descriptor, mode_t mode) override {
        return fails(call_t::fchmod, true) ? -1 : SystemCalls::fchmod(descriptor, mode);
    }
    int flock(int descriptor, int operation) override {
        return fails(call_t::flock, true) ? -1 : SystemCalls::flock(descriptor, operation);
    }
    void* mmap(size_t length, int protection, int flags, int descriptor, off_t offset) override {
        if (fails(call_t::mmap)) return MAP_FAILED;
        return SystemCalls::mmap(length, protection, flags, descriptor, offset);
    }
    int rename(const char* from, const char* to) override {
        return fails(call_t::rename) ? -1 : SystemCalls::rename(from, to);
    }
    int unlink(const char* path) override {
        return fails(call_t::unlink) ? -1 : SystemCalls::unlink(path);
    }

  private:
    /// Counts the call; true with errno set when it is to fail. A fault of a transfer is left in
    /// half_ and nothing_.
    bool fails(call_t sort, bool interruptible = false) {
        ++counts_[static_cast<size_t>(sort)];
        ++counts_[static_cast<size_t>(call_t::sorts)];
        half_ = nothing_ = false;
        if (disturb_all_ && interruptible && (interrupt_next_ = !interrupt_next_)) {
            errno = EINTR;
            return true;
        }
        half_ = disturb_all_;
        if (left_ == 0 || (sort_ != sort && sort_ != call_t::sorts) || --left_ > 0) return false;
        struck_ = true;
        half_ = fault_ == kHalf;
        nothing_ = fault_ == kNothing;
        if (fault_ > 0) errno = fault_;
        return fault_ > 0;
    }
    [[nodiscard]] size_t shortened(size_t length) const {
        return half_ ? std::max<size_t>(length / 2, 1) : length;
    }

    std::array<uint64_t, static_cast<size_t>(call_t::sorts) + 1> counts_{};
    call_t sort_ = call_t::sorts;
    uint64_t left_ = 0;
    int fault_ = kNoFault;
    bool struck_ = false;
    bool disturb_all_ = false;
    bool interrupt_next_ = false;
    bool durable_refused_ = false;
    bool syncs_skipped_ = false;
    bool half_ = false;
    bool nothing_ = false;
};

}  // namespace support
