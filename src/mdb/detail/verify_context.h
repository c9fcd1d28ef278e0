// What the steps of one verification share: the database, the faults found so far and, for each
// block, its mark and who has turned out to own it. The steps are the functions at the end;
// verify() says in which order they run. A new check of blocks is a new step here; a check of what
// objects mean is an ObjectCheck.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <fmt/format.h>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "mdb/database.h"
#include "mdb/detail/index_block.h"
#include "mdb/verify.h"

namespace mdb::detail {

/// Who a block belongs to. The owners of index n are tree + n.
enum owner_t : uint8_t {
    owner_none = 0,
    owner_header = 1,
    owner_map = 2,
    owner_journal = 3,
    owner_large_object = 4,
    owner_tree = 8,
};
static_assert(owner_tree + kMaxIndexes < 16, "an owner has four bits");

class VerifyContext {
  public:
    VerifyContext(Database& from, const VerifyOptions& how);

    /// Blocks that both the file and the map have.
    [[nodiscard]] uint64_t block_count() const { return blocks_.size(); }
    [[nodiscard]] bool known(uint32_t block) const { return block < blocks_.size(); }
    /// Mark and owner of a known block.
    [[nodiscard]] mark_t mark(uint32_t block) const {
        return static_cast<mark_t>(blocks_[block] & 0x0F);
    }
    [[nodiscard]] uint8_t owner(uint32_t block) const { return blocks_[block] >> 4; }
    void set_mark(uint32_t block, mark_t mark) {
        blocks_[block] = static_cast<uint8_t>((blocks_[block] & 0xF0) | static_cast<uint8_t>(mark));
    }
    void set_owner(uint32_t block, uint8_t owner) {
        blocks_[block] = static_cast<uint8_t>((blocks_[block] & 0x0F) | owner << 4);
    }

    /// The committed bytes of a known block, until the next is read; empty after a fault of rule
    /// C1 when they cannot be read.
    [[nodiscard]] std::span<const std::byte> read(uint32_t block);

    template <class... Args>
    void fault(const char* rule, uint32_t block, uint32_t offset,
               fmt::format_string<Args...> format, Args&&... args) {
        report.add(rule, block, offset, fmt::format(format, std::forward<Args>(args)...));
    }
    /// Tells the caller how far the step is; called for each of its units.
    void progress(std::string_view step, uint64_t done, uint64_t total) const {
        constexpr uint64_t kInterval = 1024;
        if (options.progress && done % kInterval == 0) options.progress({step, done, total});
    }

    Database& database;
    const VerifyOptions& options;
    FaultReport report;
    VerifyCounts counts;
    uint64_t index_blocks_seen = 0;

  private:
    void check_cached(uint32_t block, const std::byte* cached);

    /// Mark in the low, owner in the high half of the byte.
    std::vector<uint8_t> blocks_;
    std::vector<std::byte> scratch_;
};

/// A key under which an object must stand in an index.
struct WantedEntry {
    IndexKey key;
    block_handle_t handle;
};
/// Of all objects, by index.
using WantedEntries = std::array<std::vector<WantedEntry>, kMaxIndexes>;
/// The first block of a large object, and the object that names it.
struct LargeObjectReference {
    uint32_t first_block;
    block_handle_t from;
};

/// H2, H3: the header. Also takes the header's and an inner journal's blocks out of reach.
void verify_header(VerifyContext& context);
/// M1, M2, O4: the marks. All later steps need it.
void verify_map(VerifyContext& context);
/// O1 to O4, O7, O8: the blocks of objects. Adds what the later steps compare with.
void verify_object_blocks(VerifyContext& context, WantedEntries& wanted,
                          std::vector<LargeObjectReference>& references);
/// N1 to N8 of index `n`, and, with `wanted`, O5 and O6. `wanted` comes back sorted.
void verify_tree(VerifyContext& context, uint32_t n, std::vector<WantedEntry>* wanted);
/// B1 to B3, B5, B6: the large objects.
void verify_large_objects(VerifyContext& context, std::vector<LargeObjectReference>& references);
/// M3, M4: blocks that nobody has claimed, or that nobody may.
void verify_owners(VerifyContext& context);

}  // namespace mdb::detail
