// What subscriptions cost: writes that are held against many of them, and the patches that go out.
#pragma once

#include <string>
#include <vector>

#include "common/child_run.h"
#include "common/report.h"

namespace bench {

struct PatchSizes {
    bool small_tree = false;
    uint32_t writes = 5'000;
    /// Subscribers of one and the same domain.
    uint32_t subscribers = 1'000;
    /// Patches that go to all of these.
    uint32_t patches = 100'000;
    /// Watched subscriptions elsewhere in the tree.
    uint32_t watched = 10'000;
};

[[nodiscard]] std::vector<Row> patch_rows();
/// Works in a new folder below `base`. Throws std::runtime_error when a write brings other patches
/// than it should.
[[nodiscard]] Figures measure_patches(const std::string& base, const PatchSizes& sizes);

}  // namespace bench
