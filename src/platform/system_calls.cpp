#include "platform/system_calls.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

namespace platform {

int SystemCalls::open(const char* path, int flags, mode_t mode) {
    return ::open(path, flags, mode);
}

void SystemCalls::close(int descriptor) {
    ::close(descriptor);
}

ssize_t SystemCalls::pread(int descriptor, void* buffer, size_t length, off_t offset) {
    return ::pread(descriptor, buffer, length, offset);
}

ssize_t SystemCalls::pwritev2(int descriptor, const iovec* parts, int count, off_t offset,
                              int flags) {
    return ::pwritev2(descriptor, parts, count, offset, flags);
}

int SystemCalls::fdatasync(int descriptor) {
    return ::fdatasync(descriptor);
}

int SystemCalls::fsync(int descriptor) {
    return ::fsync(descriptor);
}

int SystemCalls::sync_file_range(int descriptor, off_t offset, off_t length, unsigned flags) {
    return ::sync_file_range(descriptor, offset, length, flags);
}

int SystemCalls::fstat(int descriptor, struct stat* status) {
    return ::fstat(descriptor, status);
}

int SystemCalls::lstat(const char* path, struct stat* status) {
    return ::lstat(path, status);
}

off_t SystemCalls::lseek(int descriptor, off_t offset, int whence) {
    return ::lseek(descriptor, offset, whence);
}

int SystemCalls::ftruncate(int descriptor, off_t length) {
    return ::ftruncate(descriptor, length);
}

int SystemCalls::fchmod(int descriptor, mode_t mode) {
    return ::fchmod(descriptor, mode);
}

int SystemCalls::flock(int descriptor, int operation) {
    return ::flock(descriptor, operation);
}

void* SystemCalls::mmap(size_t length, int protection, int flags, int descriptor, off_t offset) {
    return ::mmap(nullptr, length, protection, flags, descriptor, offset);
}

int SystemCalls::rename(const char* from, const char* to) {
    return ::rename(from, to);
}

int SystemCalls::unlink(const char* path) {
    return ::unlink(path);
}

}  // namespace platform
