// Chains of large objects, damaged: each is read, freed and replaced. Where the verifier finds
// nothing wrong, what was written must be read again, also after a restart.
//
//   byte 0     1: put the checksums of the journal right
//   ...        changes, as apply_changes() reads them
//   then       operations, three bytes each, to the end

#include <map>
#include <optional>
#include <vector>

#include "log/log.h"
#include "mdb/database.h"
#include "mdb/index.h"
#include "mdb/large_object.h"
#include "mdb/verify.h"
#include "targets/attempt.h"
#include "targets/images.h"
#include "targets/memory_files.h"
#include "targets/target.h"

namespace fuzz {

namespace {

constexpr size_t kRoom = 2 << 20;
constexpr int kMostOperations = 24;

using Bytes = std::vector<std::byte>;

/// One run of a server over the files, and what its large objects should hold.
class Chains {
  public:
    Chains(MemoryFiles& files, StillClock& clock) : clock_(clock) {
        mdb::Settings settings;
        settings.database_path = "db";
        settings.journal_path = "journal";
        settings.buffer_blocks = 8;
        database_.emplace(settings, files, clock);
        indexes_.emplace(*database_);
        indexes_->init_required_indexes();
    }
    [[nodiscard]] bool failed() { return database_->journal().failed(); }

    /// The index entries that operations make lead to no objects.
    [[nodiscard]] std::string faults() {
        mdb::VerifyOptions options;
        options.compare_objects = false;
        return mdb::verify(*database_, options).text();
    }

    /// Reads what begins at each block of the file, whatever its mark; notes what is a large
    /// object.
    [[nodiscard]] std::map<uint32_t, Bytes> read_all() {
        std::map<uint32_t, Bytes> found;
        Bytes bytes;
        for (uint32_t block = 0; database_->store().block_in_file(block); ++block) {
            try {
                mdb::read_lob(*database_, block, bytes);
            } catch (const mdb::error_internal&) {
                continue;
            }
            // A freed one can still be read, but is nobody's.
            if (database_->allocator().query_mark(block) == mdb::mark_t::lob)
                found.emplace(block, bytes);
        }
        return found;
    }

    void operate(uint8_t what, uint8_t block, uint8_t size, std::map<uint32_t, Bytes>& held) {
        mdb::Journal& journal = database_->journal();
        switch (what % 6) {
            case 0: {
                mdb::Transaction transaction(journal);
                const auto [first, bytes] = write(size);
                transaction.commit(what < 128);
                held[first] = bytes;
                return;
            }
            case 1: {
                mdb::Transaction transaction(journal);
                mdb::free_lob(*database_, block);
                transaction.commit();
                held.erase(block);
                return;
            }
            case 2: {
                // A replacement, which is undone half of the time.
                mdb::Transaction transaction(journal);
                mdb::free_lob(*database_, block);
                const auto [first, bytes] = write(size);
                if (what >= 128) return;
                transaction.commit();
                held.erase(block);
                held[first] = bytes;
                return;
            }
            case 3:
                clock_.next_second();
                return;
            case 4:
                return journal.checkpoint_and_flip();
            case 5: {
                // An index block where there was a large object, and away again.
                const mdb::block_handle_t value{block, 0};
                mdb::Transaction transaction(journal);
                indexes_->unique_update(mdb::node_id_index, {7, block}, value, false);
                if (size % 2 == 0) indexes_->unique_delete(mdb::node_id_index, {7, block});
                if (what < 128) transaction.commit();
                return;
            }
        }
    }

  private:
    [[nodiscard]] std::pair<uint32_t, Bytes> write(uint8_t size) {
        const Bytes bytes(size * 40U, std::byte{size});
        return {mdb::write_lob(*database_, bytes), bytes};
    }

    StillClock& clock_;
    std::optional<mdb::Database> database_;
    std::optional<mdb::IndexTable> indexes_;
};

class LobTarget final : public Target {
  public:
    explicit LobTarget(const std::string& folder)
        : files_(kRoom), image_(load_image(folder, "lobs")) {}

    void run(std::span<const uint8_t> bytes) override {
        Input input(bytes);
        Image image = image_;
        logging::set_all_levels(logging::level_t::off);
        const bool repair = input.byte() % 2 == 1;
        apply_changes(input, image);
        if (repair) repair_checksums(image);
        files_.put("db", image.database);
        files_.put("journal", image.journal);
        std::map<uint32_t, Bytes> held;
        if (!live(input, held, false)) return;
        Input nothing({});
        if (!live(nothing, held, true)) throw Violation("A whole database is damaged by a restart");
    }

  private:
    /// False when damage was met or a write failed. `held` is what should be there, if `known`, and
    /// what is there at the end.
    [[nodiscard]] bool live(Input& input, std::map<uint32_t, Bytes>& held, bool known) {
        std::optional<Chains> chains;
        std::string text;
        const auto failed = [&] { return chains && chains->failed(); };
        const auto run = [&](auto&& work) { return attempt(text, failed, work); };
        if (run([&] { chains.emplace(files_, clock_); }) != outcome_t::done) return false;
        std::string faults = chains->faults();
        const bool whole = faults.empty();
        std::map<uint32_t, Bytes> found = chains->read_all();
        if (known && whole && found != held) throw Violation("A restart changed a large object");
        held = std::move(found);
        for (int left = kMostOperations; !input.empty() && left > 0; --left) {
            const uint8_t what = input.byte();
            const uint8_t block = input.byte();
            const uint8_t size = input.byte();
            const bool there = held.contains(block) || what % 6 == 0 || what % 6 > 2;
            if (run([&] { chains->operate(what, block, size, held); }) == outcome_t::damage &&
                whole && there)
                throw Violation("The verifier has found nothing, but: " + text);
        }
        if (!whole || chains->failed()) return false;
        faults = chains->faults();
        if (!faults.empty()) throw Violation("Operations did harm: " + faults);
        if (chains->read_all() != held) throw Violation("A large object does not hold its bytes");
        return true;
    }

    MemoryFiles files_;
    StillClock clock_;
    Image image_;
};

}  // namespace

std::unique_ptr<Target> make_lob_target(const std::string& folder) {
    return std::make_unique<LobTarget>(folder);
}

}  // namespace fuzz
