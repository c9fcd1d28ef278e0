// What a power cut may leave of a disk, derived from a record of the operations on it. Between two
// syncs of a file the system may bring its pages to the disk at any time and in any order, also
// between two writes of one page. So a sector that was written since then is, after the cut, in any
// of the states that it had meanwhile; the file has any of the lengths that it had, and a name in a
// folder is any of the files that it was given to since the folder's last sync.
//
// Points are the moments of a cut: before the first operation, after each one, and in the middle of
// each durable write. (In the middle of a sync the disk can hold what it can hold before it.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/rng.h"
#include "support/sim_disk.h"

namespace support {

class PowerCuts {
  public:
    /// Both must outlive this. It stands at point 0.
    PowerCuts(const DiskImage& base, const std::vector<DiskOp>& log);

    [[nodiscard]] size_t points() const { return points_.size(); }
    /// Goes forward to a point; costs what the operations between wrote.
    void go_to(size_t point);
    [[nodiscard]] size_t point() const { return point_; }
    /// Operations that are complete at this point.
    [[nodiscard]] size_t completed() const { return points_[point_].completed; }
    /// Operations begun: one more in the middle of a durable write.
    [[nodiscard]] size_t begun() const { return completed() + (points_[point_].in_flight ? 1 : 0); }

    /// How many sectors, lengths and names are open.
    [[nodiscard]] size_t open() const { return open_.size(); }
    /// How many different states the disk may be in here, when no sector is torn; `limit` when
    /// there are as many or more.
    [[nodiscard]] uint64_t combinations(uint64_t limit) const;
    /// The `number`-th of these states, below combinations(); 0 is the one with nothing kept.
    void combination(uint64_t number, DiskImage& out) const;
    /// A state drawn at random: now with whole pages, now with single sectors, now as the writes
    /// went, now with one thing lost or one thing kept, at times with one sector torn.
    void draw(Rng& rng, DiskImage& out) const;
    /// Some writes in their order, and one sector torn where its bytes changed. False, and nothing
    /// done, when no sector is open.
    bool draw_torn(Rng& rng, DiskImage& out) const;
    /// Only what is on stable storage.
    [[nodiscard]] const DiskImage& stable() const { return stable_; }
    /// Everything written is kept: what the death of the process leaves.
    void everything(DiskImage& out) const;

  private:
    struct Point {
        size_t completed;
        bool in_flight;
    };
    enum class thing_t : uint8_t { sector, length, name };
    /// What can be in several states after a cut.
    struct Key {
        thing_t kind;
        uint32_t file = 0;
        uint64_t sector = 0;
        std::string path;
        auto operator<=>(const Key&) const = default;
    };
    /// A state that it had since it was last durable. `op` made it.
    struct Version {
        size_t op;
        const std::byte* bytes = nullptr;
        uint64_t length = 0;
        std::optional<uint32_t> file = {};
    };
    using Versions = std::vector<Version>;
    /// A state for each open thing, in their order: 0 the durable one, n its version n - 1. One
    /// sector may be torn: its first bytes are of that state, the rest of the one before it.
    struct Choice {
        std::vector<size_t> states;
        std::optional<size_t> torn;
        size_t torn_at = 0;
    };

    void apply(size_t op);
    void add_versions(size_t op);
    void settle_write(const DiskOp& op);
    void settle_file(uint32_t file);
    void forget_file(uint32_t file);
    void remember(const DiskOp& op);
    void settle_names();
    void put_sector(DiskImage& image, uint32_t file, uint64_t sector, const std::byte* bytes,
                    size_t length) const;
    void build(const Choice& choice, DiskImage& out) const;
    /// What the things were when the operations before `end` were done.
    [[nodiscard]] Choice as_of(size_t end) const;
    [[nodiscard]] size_t random_moment(Rng& rng) const;
    [[nodiscard]] Choice pages(Rng& rng) const;
    [[nodiscard]] Choice single_sectors(Rng& rng) const;
    [[nodiscard]] Choice one_odd(Rng& rng, bool keep_the_others) const;
    [[nodiscard]] Choice last_write_in_part(Rng& rng) const;
    void tear_one(Rng& rng, Choice& choice) const;

    const std::vector<DiskOp>& log_;
    std::vector<Point> points_;
    size_t point_ = 0;
    DiskImage stable_;
    std::map<Key, Versions> open_;
    /// Sectors of open_ that a failed sync has left to themselves.
    std::set<Key> forgotten_;
};

}  // namespace support
