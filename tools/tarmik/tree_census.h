// Counts what the objects of a database are to each other: mark lists, the counters of the root,
// and what deletes have left. It finds no faults; that is for the checks that run beside it.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mdb/verify.h"
#include "util/node_id.h"

namespace cli {

struct TreeFigures {
    struct MarkList {
        /// The root has a record; without it there is no list.
        bool exists = false;
        /// Objects with the mark, and others that are on the way to one.
        uint64_t marked = 0;
        uint64_t linked = 0;
        /// There are objects that belong into the list.
        bool has_candidates = false;

        [[nodiscard]] bool is_missing() const { return has_candidates && !exists; }
    };

    bool has_root = false;
    MarkList active;
    MarkList inherits;
    /// By property number, as far as the root has them.
    std::map<uint32_t, uint32_t> root_counters;
    /// Left of deleted objects for servers that copy from this one.
    uint64_t kept_tombstones = 0;
    /// Of deleted objects with others still below them; and how many those are.
    uint64_t waiting_tombstones = 0;
    uint64_t detached = 0;

    /// One of the counters is missing by which a start tells whether they were ever worked out.
    [[nodiscard]] bool lacks_counters() const;
    /// What a server that starts on the database will do about it, one sentence each.
    [[nodiscard]] std::vector<std::string> remarks() const;
};

/// Fills `figures`, which must outlive it, when all objects have been seen. Costs 16 bytes of
/// memory for each object.
[[nodiscard]] std::unique_ptr<mdb::ObjectCheck> make_tree_census(TreeFigures& figures);

}  // namespace cli
