// The calls of the operating system that SystemFiles is made of, one function each, so that a test
// can let the Nth of them be interrupted, transfer less than asked, or fail. Each answers as the
// system's call of its name does: the result, or -1 (MAP_FAILED) with errno set. Nothing is retried
// or completed here; that is what SystemFiles is for.
#pragma once

#include <cstddef>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>

namespace platform {

class SystemCalls {
  public:
    virtual ~SystemCalls() = default;

    virtual int open(const char* path, int flags, mode_t mode);
    /// Closes, and is always done: there is nothing that a caller could do about a failure.
    virtual void close(int descriptor);
    virtual ssize_t pread(int descriptor, void* buffer, size_t length, off_t offset);
    virtual ssize_t pwritev2(int descriptor, const iovec* parts, int count, off_t offset,
                             int flags);
    virtual int fdatasync(int descriptor);
    virtual int fsync(int descriptor);
    virtual int sync_file_range(int descriptor, off_t offset, off_t length, unsigned flags);
    virtual int fstat(int descriptor, struct stat* status);
    virtual int lstat(const char* path, struct stat* status);
    virtual off_t lseek(int descriptor, off_t offset, int whence);
    virtual int ftruncate(int descriptor, off_t length);
    virtual int fchmod(int descriptor, mode_t mode);
    virtual int flock(int descriptor, int operation);
    virtual void* mmap(size_t length, int protection, int flags, int descriptor, off_t offset);
    virtual int rename(const char* from, const char* to);
    virtual int unlink(const char* path);
};

}  // namespace platform
