// The verifier: walks a whole database and names everything in it that breaks an invariant of the
// layout headers. Tests call it after each crash, `tarmik verify` on files that nobody uses
// (verify_files.h). It reads and never mends.
//
// It knows blocks, slots, records, indexes and large objects. What objects mean to each other, as
// parents, counters or mark lists, is the business of ObjectChecks that the caller gives along.
//
// Rules, as they stand in Fault::rule; N, O and L are told in the headers of their layouts:
//   H1  the header is one that a database can be opened with
//   H2  the header in memory is the one in the file
//   H3  the map knows of the root of each index
//   H4  the database can be opened; the text says why not
//   M1  every byte of the map is a mark that a block can have
//   M2  the marks in memory are those in the file
//   M3  a block marked as part of an index is part of one (and of only one: N1)
//   M4  a journal among the data has marks that keep others out of its blocks
//   C1  a cached block holds what file and journal say
//   N1 to N9  the trees of the indexes: index_layout.h
//   O1 to O8  object blocks and the indexes that name them: object_layout.h
//   B1 to B6  large objects: large_object_layout.h
//   P1 P2     parents: verify_parents.h
//   J         the journal on the disk: verify_files.h
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "mdb/block_layout.h"
#include "mdb/index.h"

namespace mdb {

class Database;

/// One thing that is wrong.
struct Fault {
    /// "N3"; the table above says where it is told.
    std::string rule;
    uint32_t block = 0;
    /// In the block; of rule J: the position in the journal.
    uint32_t offset = 0;
    std::string text;

    /// "block 12 offset 64: N3 TEXT", or "journal offset 64: J TEXT".
    [[nodiscard]] std::string to_string() const;
};

/// Collects faults up to a bound.
class FaultReport {
  public:
    explicit FaultReport(size_t most) : most_(most) {}

    void add(std::string rule, uint32_t block, uint32_t offset, std::string text) {
        ++count_;
        if (faults_.size() < most_)
            faults_.push_back({std::move(rule), block, offset, std::move(text)});
    }
    /// True once a further fault would be counted only; long walks end then.
    [[nodiscard]] bool full() const { return count_ >= most_; }
    [[nodiscard]] uint64_t count() const { return count_; }
    [[nodiscard]] std::vector<Fault>& faults() { return faults_; }

  private:
    size_t most_;
    uint64_t count_ = 0;
    std::vector<Fault> faults_;
};

/// A check of what the objects mean, which the store doesn't know. Make one for each verification.
class ObjectCheck {
  public:
    virtual ~ObjectCheck() = default;
    /// Called once for each object whose records are whole, in the order of their places. `object`
    /// lives for the call only; the check must not use the database meanwhile.
    virtual void see(const dobj& object, FaultReport& report) = 0;
    /// Called after the last object.
    virtual void finish(FaultReport& report) = 0;
};

struct VerifyProgress {
    /// What is being done, "objects" or the like.
    std::string_view step;
    uint64_t done = 0;
    uint64_t total = 0;
};

struct VerifyOptions {
    /// The verification ends early when this many were found.
    size_t most_faults = 100;
    /// Called about every thousand blocks.
    std::function<void(const VerifyProgress&)> progress;
    /// Not owned; asked in this order.
    std::vector<ObjectCheck*> checks;
    /// The properties that hold the first block of a large object. If there are any, each large
    /// object must be named by exactly one of them; otherwise who names it is not looked at.
    std::vector<uint32_t> large_object_properties;
    /// Off: what the indexes hold is not compared with the objects. For tests that fill indexes
    /// without any.
    bool compare_objects = true;
    /// On: M3 allows blocks of no index, as dropping an index leaves them.
    bool lost_index_blocks = false;
    /// On: O7 allows objects without an id.
    bool nameless_objects = false;
};

/// What a verification went over.
struct VerifyCounts {
    struct Tree {
        uint64_t nodes = 0;
        uint64_t leaves = 0;
        uint64_t entries = 0;
        /// Blocks from the root to a leaf, both included; 1 for a tree without leaves.
        uint32_t height = 0;
    };

    uint64_t blocks_in_file = 0;
    /// Blocks of each mark; of empty ones only those that can be handed out.
    std::array<uint64_t, kGreatestMark + 1> marks{};
    uint64_t objects = 0;
    uint64_t records = 0;
    /// Bytes in slots of objects, and in placeholders of blocks marked used or full.
    uint64_t object_bytes = 0;
    uint64_t placeholder_bytes = 0;
    uint32_t index_count = 0;
    std::array<Tree, kMaxIndexes> trees{};
    uint64_t large_objects = 0;
    uint64_t large_object_bytes = 0;
    /// Blocks that belong to a dropped index.
    uint64_t lost_index_blocks = 0;
};

struct Verification {
    VerifyCounts counts;
    /// At most as many as asked for, in the order in which they were found.
    std::vector<Fault> faults;
    /// Faults found, those beyond the bound included.
    uint64_t fault_count = 0;

    [[nodiscard]] bool whole() const { return fault_count == 0; }
    /// One line for each fault; empty when all is whole.
    [[nodiscard]] std::string text() const;
};

/// Checks all of the database's committed state; no transaction may be open. Damage of any kind is
/// a fault in the result, never an exception; only memory may run out. Costs a read of each block
/// in use, and memory of 16 bytes for each entry that the objects want in the indexes, 24 for each
/// entry of the index being walked and 1 for each block of the file: for an object in three indexes
/// up to 140 bytes while the lists grow. Never changes what the database holds, in memory or on the
/// disk, but fills its cache.
[[nodiscard]] Verification verify(Database& database, const VerifyOptions& options = {});

/// Checks N1 to N8 of one index alone. `n` must be below the index count of the header.
[[nodiscard]] Verification verify_index(Database& database, uint32_t n,
                                        const VerifyOptions& options = {});

}  // namespace mdb
