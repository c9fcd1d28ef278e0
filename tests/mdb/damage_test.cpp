// Bytes changed at random in both files of a small database: whatever is met there, every start and
// every operation has to work or to end in an exception.
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "log/log.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "mdb/property_types.h"
#include "mdb/verify.h"
#include "support/rng.h"
#include "test_database.h"

namespace {

using mdb_test::Bytes;
using mdb_test::TestDatabase;

constexpr uint32_t kObjects = 90;
/// Longer than any round may take.
constexpr unsigned kDeadline_s = 60;

/// What a server does with a database: start, read, walk, change.
class Session {
  public:
    explicit Session(mdb::Database& database)
        : database_(database), indexes_(database), store_(database, indexes_) {
        indexes_.init_required_indexes();
        if (!indexes_.unique_find(mdb::node_id_index, {0, 1})) create({0, 1}, "root");
        mdb::start_indexes(indexes_, indexes_.unique_search(mdb::node_id_index, {0, 1}), 12);
    }

    void create(NodeId id, const std::string& text) {
        mdb::Serializer& serializer = database_.serializer();
        serializer.serial_reset();
        serializer.serial_add(mdb::PropertyNodeId(0, id));
        if (id != NodeId{0, 1})
            serializer.serial_add(mdb::PropertyNodeId(2, {0, 1 + id.second % 3}));
        serializer.serial_add(mdb::PropertyBool(502, id.second % 2 == 0));
        serializer.serial_add(mdb::PropertyStringList(52, {text, "", "two"}));
        serializer.serial_add(mdb::PropertyString(51, text));
        serializer.serial_add(mdb::PropertyBlob(53, {1, 2, 3}));
        static_cast<void>(store_.store_object({}));
    }

    void read(NodeId id) {
        const mdb::dobj object = store_.load_object(place(id));
        mdb::PropertyString(51).read(object);
        mdb::PropertyStringList(52).read(object);
        mdb::PropertyBlob(53).read(object);
    }

    void change(NodeId id, const std::string& text) {
        mdb::dobj image = store_.begin_object_update(place(id));
        store_.update_property(image, mdb::PropertyString(51, text), true, false);
        static_cast<void>(store_.commit_object_update(image));
    }

    void remove(NodeId id) { store_.delete_object(place(id), true); }

    void walk(NodeId parent) {
        for (auto it = indexes_.non_unique_search(mdb::parent_id_index, parent);
             it.at_searched_key(); indexes_.iterator_next(it))
            static_cast<void>(indexes_.iterator_value(it));
        for (auto it = indexes_.find_after(mdb::node_id_index, parent); it.valid();
             indexes_.iterator_next(it))
            static_cast<void>(indexes_.iterator_key(it));
    }

    void verify() { static_cast<void>(mdb::verify(database_)); }

  private:
    mdb::block_handle_t place(NodeId id) { return indexes_.unique_search(mdb::node_id_index, id); }

    mdb::Database& database_;
    mdb::IndexTable indexes_;
    mdb::ObjectStore store_;
};

class Damage : public testing::Test {
  protected:
    Damage() : file_(64 * 1024) {
        logging::set_all_levels(logging::level_t::off);
        file_.clock.advance_us(5'000'000);
        fill(file_.open());
        file_.close();
        database_ = file_.read("db");
        journal_ = file_.read("journal");
    }
    ~Damage() override { ::alarm(0); }

    static void fill(mdb::Database& database) {
        Session session(database);
        for (uint32_t i = 2; i < kObjects; ++i) session.create({0, i}, std::string(i, 'x'));
        database.journal().full_checkpoint();
        // The last changes stand in the journal alone.
        for (uint32_t i = 2; i < 6; ++i) session.change({0, i}, std::string(2 * i + 40, 'y'));
    }

    /// Changes some bytes; a place is in the header, the map, the journal or anywhere.
    void spoil(support::Rng& rng) {
        Bytes database = database_;
        Bytes journal = journal_;
        for (uint64_t n = 1 + rng.below(4); n > 0; --n) {
            const uint64_t where = rng.below(5);
            if (where == 0)
                spoil_byte(rng, database, rng.chance(50) ? 32 : 560, rng.chance(50) ? 0 : 500);
            else if (where == 1)
                spoil_byte(rng, database, 3 * 1024 + 80, 3 * 1024);
            else if (where == 2)
                spoil_byte(rng, journal,
                           rng.chance(40) ? 48 : journal.size() * (1 + rng.below(8)) / 8, 0);
            else
                spoil_byte(rng, database, database.size(), 1024);
        }
        file_.write("db", database);
        file_.write("journal", journal);
    }

    /// True when nothing was found to be wrong.
    template <class Work>
    bool try_out(Work&& work) {
        try {
            work();
            return true;
        } catch (const mdb::error_generic&) {
        } catch (const error::EFatal&) {
            // Only after an earlier failure of the store.
            EXPECT_TRUE(file_.database && file_.database->journal().failed());
        }
        return false;
    }

    /// True when all went well.
    bool live(support::Rng& rng) {
        std::optional<Session> session;
        if (!try_out([&] { session.emplace(file_.open(4)); })) return false;
        bool good = true;
        for (int step = 0; step < 25; ++step) {
            const NodeId id{0, 1 + static_cast<uint32_t>(rng.below(kObjects))};
            const uint64_t what = rng.below(5);
            good &= try_out([&] {
                if (what == 0) session->read(id);
                if (what == 1) session->change(id, std::string(rng.below(200), 'z'));
                if (what == 2) session->remove(id);
                if (what == 3) session->create({1, static_cast<uint32_t>(rng.below(1000))}, "new");
                if (what == 4) session->walk(id);
            });
        }
        return try_out([&] { session->verify(); }) && good;
    }

    TestDatabase file_;
    Bytes database_;
    Bytes journal_;

  private:
    static void spoil_byte(support::Rng& rng, Bytes& bytes, size_t end, size_t start) {
        if (start >= end) std::swap(start, end);
        const size_t at = start + rng.below(end - start);
        bytes[at] = rng.chance(50) ? static_cast<uint8_t>(bytes[at] ^ (1U << rng.below(8)))
                                   : static_cast<uint8_t>(rng.next());
    }
};

TEST_F(Damage, AtRandomIsHarmless) {
    constexpr int kRounds = 250;
    int unharmed = 0;
    for (uint64_t seed = 1; seed <= kRounds && !HasFailure(); ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        support::Rng rng(seed);
        spoil(rng);
        ::alarm(kDeadline_s);
        if (live(rng)) ++unharmed;
        // What the first life left behind must not break the second.
        live(rng);
        file_.close();
        ::alarm(0);
    }
    EXPECT_GT(unharmed, kRounds / 10) << "the undamaged database is to work";
    EXPECT_LT(unharmed, kRounds / 2) << "the damage is to be met";
}

}  // namespace
