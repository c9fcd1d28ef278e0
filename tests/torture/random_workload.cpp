// Workloads drawn by a seed: how the database is set up, and which operations come in which order.
// They meet what nobody has thought of, and are the same again for the same seed.
#include <algorithm>
#include <fmt/format.h>

#include "mdb/errors.h"
#include "support/rng.h"
#include "workload.h"

namespace torture {

namespace {

using support::Rng;

constexpr int kSteps = 60;
constexpr uint32_t kMostObjects = 24;
constexpr size_t kDeepest = 3;

Setup draw_setup(Rng& rng) {
    Setup setup;
    setup.buffer_blocks = 1 + static_cast<uint32_t>(rng.below(16));
    setup.six_indexes = rng.chance(70);
    // A quarter of a half takes what is done after a crash, but not each transaction that is drawn:
    // larger ones fail.
    constexpr uint64_t kJournals[] = {40 * 1024, 64 * 1024, 120'008, 160 * 1024};
    setup.journal_size = kJournals[rng.below(2) + (setup.six_indexes ? 2 : 0)];
    setup.capacity = rng.chance(70) ? 1 << 20 : 3 << 20;
    setup.large_objects = rng.chance(60);
    setup.drops_indexes = setup.six_indexes && rng.chance(30);
    if (rng.chance(30)) {
        setup.journal_block = 24 + static_cast<uint32_t>(rng.below(40));
        setup.journal_size = setup.journal_size / setup.block_size * setup.block_size;
    }
    return setup;
}

/// The operations of one run.
class Drawn {
  public:
    Drawn(Script& script, uint64_t seed) : script_(script), rng_(seed) {}

    void run() {
        script_.open();
        for (int n = 0; n < kSteps; ++n) {
            try {
                step();
            } catch (const mdb::error_transact&) {
                script_.abort_all();
            } catch (const mdb::error_dbnospace&) {
                script_.abort_all();
                script_.limit_growth({});
            }
        }
    }

  private:
    void step() {
        const uint64_t lot = rng_.below(100);
        if (lot < 24) return create();
        if (lot < 42) return update();
        if (lot < 54) return remove();
        if (lot < 64) return set_large();
        if (lot < 86) return transaction();
        if (lot < 90) return script_.pass_time(200 + rng_.below(1500));
        if (lot < 92) return script_.limit_growth(rng_.below(4000));
        if (lot < 94) return script_.open();
        if (!script_.in_transaction()) between_transactions();
    }
    void transaction() {
        const size_t depth = script_.depth();
        if (depth == 0 || (depth < kDeepest && rng_.chance(40))) return script_.begin();
        if (rng_.chance(20)) return script_.abort();
        // Inner ones can only be asynchronous.
        script_.commit(depth > 1 || rng_.chance(55));
    }
    void between_transactions() {
        switch (rng_.below(script_.setup().drops_indexes ? 5 : 4)) {
            case 0:
                return script_.full_checkpoint();
            case 1:
                return script_.flip(false);
            case 2:
                return script_.flip(true);
            case 3:
                return script_.journal_checkpoint();
            default:
                if (const uint32_t count = script_.indexes().index_count();
                    count > mdb::kRequiredIndexes)
                    script_.drop_index(count - 1);
        }
    }

    void create() {
        const NodeId id{1, 1 + static_cast<uint32_t>(rng_.below(kMostObjects))};
        if (!script_.model().contains(id)) script_.create(id, draw_values(id));
    }
    void update() {
        if (const NodeId id = draw_object(); id != kRoot) script_.update(id, draw_values(id));
    }
    /// Not one that others name as their parent: an index is built from the root down.
    void remove() {
        const NodeId id = draw_object();
        const auto& model = script_.model();
        const bool childless = std::none_of(model.begin(), model.end(), [&](const auto& entry) {
            return entry.second.parent == id;
        });
        if (id != kRoot && childless) script_.remove(id);
    }
    void set_large() {
        const NodeId id = draw_object();
        if (!script_.setup().large_objects || id == kRoot) return;
        if (rng_.chance(10)) return script_.set_large(id, {});
        constexpr size_t kLengths[] = {0, 1008, 1009, 2024, 2025};
        const size_t length =
            rng_.chance(30) ? kLengths[rng_.below(std::size(kLengths))] : rng_.below(6000);
        std::string bytes(length, static_cast<char>('a' + rng_.below(26)));
        for (size_t at = 0; at < length; at += 11) bytes[at] = static_cast<char>('0' + at / 700);
        script_.set_large(id, bytes);
    }

    /// Any but the root, which is given when there is no other.
    NodeId draw_object() {
        if (script_.model().size() < 2) return kRoot;
        const auto skipped = 1 + rng_.below(script_.model().size() - 1);
        return std::next(script_.model().begin(), static_cast<std::ptrdiff_t>(skipped))->first;
    }
    Values draw_values(NodeId id) {
        Values values;
        // Parents have lower ids, so that none is its own ancestor.
        const NodeId parent = draw_object();
        values.parent = parent < id ? parent : kRoot;
        values.active = rng_.chance(50);
        if (rng_.chance(40)) values.inherits = draw_object();
        if (rng_.chance(40)) values.master = draw_object();
        if (rng_.chance(40)) values.notify = draw_object();
        values.text = std::string(rng_.chance(20) ? rng_.below(850) : rng_.below(120),
                                  static_cast<char>('a' + rng_.below(26)));
        return values;
    }

    Script& script_;
    Rng rng_;
};

}  // namespace

Workload random_workload(uint64_t seed) {
    Rng rng(seed);
    const Setup setup = draw_setup(rng);
    const auto prepare = [](Script& script) {
        script.format();
        script.open();
    };
    return {fmt::format("random_{}", seed), setup, prepare,
            [seed](Script& script) { Drawn(script, seed).run(); }};
}

}  // namespace torture
