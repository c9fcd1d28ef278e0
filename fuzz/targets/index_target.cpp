// Index blocks, damaged: a unique and a non-unique tree of three levels, changed at random, and
// then searched, walked and changed. Where the verifier finds nothing wrong, both trees are also
// held against a plain list of their entries.
//
//   byte 0     bit 0: tree or blank image
//   ...        changes, as apply_changes() reads them
//   then       operations, four bytes each, to the end

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "log/log.h"
#include "mdb/database.h"
#include "mdb/index.h"
#include "mdb/verify.h"
#include "targets/attempt.h"
#include "targets/images.h"
#include "targets/memory_files.h"
#include "targets/target.h"

namespace fuzz {

namespace {

constexpr size_t kRoom = 2 << 20;
constexpr int kMostOperations = 48;

using mdb::block_handle_t;

struct Entry {
    NodeId key;
    block_handle_t value;
    friend auto operator<=>(const Entry&, const Entry&) = default;
};

/// Both trees, and what should be in them.
class Trees {
  public:
    Trees(MemoryFiles& files, const StillClock& clock) {
        mdb::Settings settings;
        settings.database_path = "db";
        settings.journal_path = "journal";
        settings.buffer_blocks = 8;
        database_.emplace(settings, files, clock);
        indexes_.emplace(*database_);
    }
    [[nodiscard]] bool failed() { return database_->journal().failed(); }

    void start() { indexes_->init_required_indexes(); }
    void read_all() {
        for (uint32_t n = 0; n < kTrees; ++n) entries_[n] = entries(n);
    }
    [[nodiscard]] std::string faults() {
        mdb::VerifyOptions options;
        options.compare_objects = false;
        options.lost_index_blocks = true;
        return mdb::verify(*database_, options).text();
    }

    /// One operation; what it did is noted in the lists too.
    void operate(uint8_t what, NodeId key, uint8_t small) {
        const uint32_t n = what / 8 % kTrees;
        const block_handle_t value{small, 0};
        switch (what % 8) {
            case 0:
            case 1:
                return insert(n, key, value);
            case 2:
            case 3:
                return erase(n, key, small);
            case 4:
                return replace(n, key, value);
            case 5:
                return look_up(n, key);
            case 6:
                return erase_some(n, key, small);
            case 7:
                return insert_some(n, key, small);
        }
    }

    /// The trees must hold what the lists say.
    void compare() {
        for (uint32_t n = 0; n < kTrees; ++n) {
            std::vector<Entry> found = entries(n);
            std::vector<Entry> wanted = entries_[n];
            std::sort(found.begin(), found.end());
            std::sort(wanted.begin(), wanted.end());
            if (found != wanted)
                throw Violation(fmt::format("Index {} holds {} entries that are not the {} put in",
                                            n, found.size(), wanted.size()));
        }
    }

  private:
    static constexpr uint32_t kTrees = 2;

    [[nodiscard]] std::vector<Entry> entries(uint32_t n) {
        std::vector<Entry> found;
        for (auto it = indexes_->iterate_first(n); it.valid(); indexes_->iterator_next(it))
            found.push_back({indexes_->iterator_key(it), indexes_->iterator_value(it)});
        return found;
    }

    [[nodiscard]] std::vector<Entry>::iterator find(uint32_t n, NodeId key) {
        return std::find_if(entries_[n].begin(), entries_[n].end(),
                            [&](const Entry& entry) { return entry.key == key; });
    }

    void insert(uint32_t n, NodeId key, block_handle_t value) {
        // No entry stands in an index twice.
        if (n == 1 && std::count(entries_[n].begin(), entries_[n].end(), Entry{key, value}) > 0)
            return;
        mdb::Transaction transaction(database_->journal());
        if (n == 0)
            indexes_->unique_update(n, key, value, false);
        else
            indexes_->non_unique_insert(n, key, value);
        transaction.commit();
        entries_[n].push_back({key, value});
    }

    /// Erases the `pick`-th entry of those with the next key at or above `key`.
    void erase(uint32_t n, NodeId key, uint8_t pick) {
        std::vector<Entry>& list = entries_[n];
        const auto above = [&](const Entry& entry) { return !(entry.key < key); };
        const auto first = std::find_if(list.begin(), list.end(), above);
        if (first == list.end()) return;
        const auto last = std::find_if(first, list.end(),
                                       [&](const Entry& entry) { return entry.key != first->key; });
        const auto chosen = first + pick % (last - first);
        mdb::Transaction transaction(database_->journal());
        if (n == 0)
            indexes_->unique_delete(n, chosen->key);
        else
            indexes_->non_unique_delete(n, chosen->key, chosen->value);
        transaction.commit();
        list.erase(chosen);
    }

    void replace(uint32_t n, NodeId key, block_handle_t value) {
        const auto entry = find(n, key);
        if (entry == entries_[n].end() ||
            std::count(entries_[n].begin(), entries_[n].end(), Entry{key, value}) > 0)
            return;
        mdb::Transaction transaction(database_->journal());
        if (n == 0)
            indexes_->unique_update(n, key, value, true);
        else
            indexes_->non_unique_update(n, key, entry->value, value);
        transaction.commit();
        entry->value = value;
    }

    void look_up(uint32_t n, NodeId key) {
        const auto entry = find(n, key);
        const bool there = entry != entries_[n].end();
        if (n == 0) {
            // Once by way of the cache, once by way of private copies.
            const auto direct = indexes_->unique_find(n, key);
            const mdb::Transaction transaction(database_->journal());
            const auto generic = indexes_->unique_find(n, key);
            found_ &= direct == generic && direct.has_value() == there;
            walk(indexes_->find_after(n, key));
            return;
        }
        auto it = indexes_->non_unique_search(n, key);
        found_ &= it.at_searched_key() == there;
        walk(std::move(it));
    }

    void walk(mdb::IndexIterator it) {
        for (int left = 40; it.valid() && left > 0; --left) indexes_->iterator_next(it);
    }

    void erase_some(uint32_t n, NodeId key, uint8_t count) {
        for (int left = count % 64; left > 0; --left) erase(n, key, 0);
    }

    void insert_some(uint32_t n, NodeId key, uint8_t count) {
        for (uint32_t i = 0; i < count % 64U; ++i) {
            if (n == 0) ++key.second;
            if (n == 0 && find(n, key) != entries_[n].end()) continue;
            insert(n, key, {1000 + i, count});
        }
    }

  public:
    /// False after a look-up that contradicted the lists.
    [[nodiscard]] bool found_what_is_there() const { return found_; }

  private:
    std::optional<mdb::Database> database_;
    std::optional<mdb::IndexTable> indexes_;
    std::vector<Entry> entries_[kTrees];
    bool found_ = true;
};

class IndexTarget final : public Target {
  public:
    explicit IndexTarget(const std::string& folder)
        : files_(kRoom), tree_(load_image(folder, "tree")), blank_(load_image(folder, "blank")) {}

    void run(std::span<const uint8_t> bytes) override {
        Input input(bytes);
        Image image = input.byte() % 2 == 0 ? tree_ : blank_;
        logging::set_all_levels(logging::level_t::off);
        apply_changes(input, image);
        files_.put("db", image.database);
        files_.put("journal", image.journal);
        live(input);
    }

  private:
    void live(Input& input) {
        std::optional<Trees> trees;
        std::string text;
        const auto failed = [&] { return trees && trees->failed(); };
        const auto run = [&](auto&& work) { return attempt(text, failed, work); };
        if (run([&] { trees.emplace(files_, clock_); }) != outcome_t::done) return;
        if (run([&] { trees->start(); }) != outcome_t::done) return;
        std::string faults;
        const bool whole =
            run([&] { faults = trees->faults(); }) == outcome_t::done && faults.empty();
        const auto expect = [&](outcome_t outcome) {
            if (whole && outcome == outcome_t::damage)
                throw Violation("The verifier has found nothing, but: " + text);
        };
        expect(run([&] { trees->read_all(); }));
        for (int left = kMostOperations; !input.empty() && left > 0; --left) {
            const uint8_t what = input.byte();
            const NodeId key{uint32_t{what} >> 6, input.number(2)};
            const uint8_t small = input.byte();
            expect(run([&] { trees->operate(what, key, small); }));
        }
        expect(run([&] { faults = trees->faults(); }));
        if (!whole) return;
        if (!faults.empty()) throw Violation("Operations did harm: " + faults);
        if (!trees->found_what_is_there()) throw Violation("A look-up missed what is there");
        expect(run([&] { trees->compare(); }));
    }

    MemoryFiles files_;
    StillClock clock_;
    Image tree_;
    Image blank_;
};

}  // namespace

std::unique_ptr<Target> make_index_target(const std::string& folder) {
    return std::make_unique<IndexTarget>(folder);
}

}  // namespace fuzz
