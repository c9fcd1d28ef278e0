// The one driver loop that every store goes through, and the disk's own rate beside it.
#pragma once

#include <string>

#include "common/child_run.h"
#include "store/store.h"

namespace bench {

/// How much is done for each figure.
struct Sizes {
    uint32_t objects = 100'000;
    uint32_t updates = 50'000;
    uint32_t durable_commits = 2'000;
    uint32_t reads = 200'000;
    uint32_t lists = 20'000;
};

/// One round of one store in a new folder below `base`, removed at the end. Throws
/// std::runtime_error when the store fails or gives back anything but what was stored.
[[nodiscard]] Figures measure_store(OpenStore open, const std::string& base, const Sizes& sizes);

/// How many writes of 400 bytes, each on stable storage before the next, the disk takes in a
/// second, one behind the other in a file written in advance.
[[nodiscard]] Figures measure_disk(const std::string& base, const Sizes& sizes);

}  // namespace bench
