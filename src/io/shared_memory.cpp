#include "io/shared_memory.h"

#include <cstdlib>
#include <cstring>

#include "error/exception.h"
#include "io/pool_layout.h"
#include "util/text.h"

namespace io {

namespace {

constexpr const char* kMapFailure = "Cannot map view for sibling messenger";

std::string required(const std::string& variable, const char* missing_text) {
    const char* value = std::getenv(variable.c_str());
    if (value == nullptr) throw error::EFatal(missing_text);
    return value;
}

}  // namespace

PoolAccess PoolAccess::fromEnvironment(const std::string& name) {
    PoolAccess access;
    access.map_fd = util::parse_number<int32_t>(
        required(name + "::mapfile", "No mapfile passed in environment"));
    access.fifo_prefix = required(name + "::fifoprefix", "No FIFO prefix passed in environment");
    access.map_size = util::parse_number<uint64_t>(
        required(name + "::mapsize", "No mapsize passed in environment"));
    return access;
}

std::vector<std::pair<std::string, std::string>> PoolAccess::toEnvironment(
    const std::string& name) const {
    return {{name + "::mapfile", std::to_string(map_fd)},
            {name + "::fifoprefix", fifo_prefix},
            {name + "::mapsize", std::to_string(map_size)}};
}

SharedMemory SharedMemory::create(uint64_t size_bytes) {
    SharedMemory memory(platform::SharedMapping::create(size_bytes, kMapFailure));
    std::memcpy(memory.data() + pool_layout::kMagicOffset, &pool_layout::kPoolMagic,
                sizeof pool_layout::kPoolMagic);
    return memory;
}

SharedMemory SharedMemory::attach(const PoolAccess& access) {
    SharedMemory memory(
        platform::SharedMapping::attach(access.map_fd, access.map_size, kMapFailure));
    uint32_t magic = 0;
    std::memcpy(&magic, memory.data() + pool_layout::kMagicOffset, sizeof magic);
    error::check(magic == pool_layout::kPoolMagic, "Wrong header of shared memory pool");
    return memory;
}

}  // namespace io
