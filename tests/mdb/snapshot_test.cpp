// Copies taken while the database changes: each is exactly the state at its begin, or none.
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <span>

#include "log/log.h"
#include "mdb/detail/file_pair.h"
#include "mdb/snapshot_layout.h"
#include "mdb/snapshot_receiver.h"
#include "mdb/snapshot_stream.h"
#include "mdb/verify.h"
#include "support/faulty_calls.h"
#include "support/rng.h"
#include "test_database.h"
#include "util/byte_order.h"

namespace {

using mdb_test::Bytes;
using mdb_test::TestDatabase;
using support::call_t;
using support::Rng;

constexpr uint32_t kBlock = TestDatabase::kBlockSize;
/// Blocks that are changed by transactions, and those that are written past the journal, as large
/// objects are.
constexpr uint32_t kFirst = 8;
constexpr uint32_t kFirstPast = kFirst + 150;
constexpr uint32_t kEnd = kFirst + 200;
/// The file grows no further than about this.
constexpr uint32_t kMostBlocks = 600;

/// A database whose blocks are changed at random, and what they hold.
class Source {
  public:
    explicit Source(uint64_t seed, uint32_t end = kEnd) : rng(seed), end_(end) {
        logging::set_all_levels(logging::level_t::off);
        store.open(8).store().ensure_block(end - 1);
    }

    mdb::Database& database() { return *store.database; }

    /// A commit of some updates, or now and then a write past the journal or a growth of the file.
    void change() {
        store.clock.advance_us(rng.below(800'000));
        if (rng.chance(5)) return database().write_header(database().header());
        if (rng.chance(10) && end_ > kFirstPast) return write_past_journal();
        if (rng.chance(2) && last_block() < kMostBlocks)
            return database().store().ensure_block(last_block() + 1);
        mdb::Transaction transaction(database().journal());
        for (uint64_t n = rng.below(6) + 1; n > 0; --n) update();
        transaction.commit(rng.chance(60));
    }
    [[nodiscard]] const std::map<uint32_t, Bytes>& blocks() const { return blocks_; }

    TestDatabase store;
    Rng rng;

  private:
    [[nodiscard]] uint32_t last_block() {
        return static_cast<uint32_t>(database().store().file_length() / kBlock) - 1;
    }
    Bytes& block(uint32_t number) {
        Bytes& bytes = blocks_[number];
        bytes.resize(kBlock);
        return bytes;
    }
    void update() {
        const uint32_t end = std::min(end_, kFirstPast);
        const uint32_t number = kFirst + static_cast<uint32_t>(rng.below(end - kFirst));
        Bytes& bytes = block(number);
        const bool whole = rng.chance(20);
        const size_t at = whole ? 0 : rng.below(kBlock);
        const size_t length = whole ? kBlock : rng.below(kBlock - at) + 1;
        for (size_t i = at; i < at + length; ++i) bytes[i] = static_cast<uint8_t>(rng.next());
        database().journal().journal_update(bytes.data() + at, length,
                                            database().store().block_offset(number) + at);
    }
    void write_past_journal() {
        const uint32_t number =
            kFirstPast + static_cast<uint32_t>(rng.below(end_ - kFirstPast - 1));
        Bytes both;
        for (const uint32_t one : {number, number + 1}) {
            for (uint8_t& byte : block(one)) byte = static_cast<uint8_t>(rng.next());
            both.insert(both.end(), block(one).begin(), block(one).end());
        }
        database().store().block_write(both.data(), number, 2);
    }

    uint32_t end_;
    std::map<uint32_t, Bytes> blocks_;
};

/// The files at the other end, in a folder of their own.
class Copy {
  public:
    explicit Copy(platform::FileSystem& files)
        : receiver(files, folder.file("db"), folder.file("journal")) {}

    void take_rest(mdb::SnapshotStream& stream) {
        std::vector<std::byte> bytes;
        while (!stream.ended()) {
            bytes.clear();
            stream.append_next(bytes);
            receiver.take(bytes);
        }
    }
    [[nodiscard]] size_t files_there() const {
        return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder.path()),
                                                 std::filesystem::directory_iterator()));
    }

    support::TempDir folder;
    mdb::SnapshotReceiver receiver;
};

Bytes read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

/// Opens a database with its journal and compares its blocks.
void expect_blocks(const std::string& database_path, const std::string& journal_path,
                   const std::map<uint32_t, Bytes>& blocks) {
    platform::SystemFiles files;
    const support::FakeClock clock;
    mdb::Database database({database_path, journal_path, 8}, files, clock);
    for (const auto& [number, bytes] : blocks)
        ASSERT_EQ(mdb_test::see(database, database.store().block_offset(number), kBlock),
                  std::string(bytes.begin(), bytes.end()))
            << "block " << number;
}

TEST(Snapshot, IsTheStateAtItsBeginWhateverIsWrittenMeanwhile) {
    uint64_t most_kept = 0;
    for (uint64_t seed = 1; seed <= 8; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        Source source(seed);
        Rng& rng = source.rng;
        for (int n = 0; n < 60; ++n) source.change();

        mdb::SnapshotStream stream(source.database());
        const std::map<uint32_t, Bytes> at_begin = source.blocks();
        const Bytes file_at_begin = source.store.read("db");
        platform::SystemFiles files;
        Copy copy(files);
        const unsigned changes_percent = static_cast<unsigned>(rng.below(80));
        std::vector<std::byte> bytes;
        while (!stream.ended()) {
            while (rng.chance(changes_percent)) source.change();
            most_kept = std::max(most_kept, stream.snapshot().kept_bytes());
            stream.append_next(bytes);
            // However the bytes are cut on their way.
            const size_t part = rng.below(bytes.size() + 1);
            copy.receiver.take(std::span(bytes).first(part));
            bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(part));
        }
        copy.receiver.take(bytes);
        ASSERT_TRUE(copy.receiver.received());
        for (int n = 0; n < 20; ++n) source.change();
        copy.receiver.finish();
        EXPECT_FALSE(files.exists(copy.folder.file("db")));
        copy.receiver.publish(false);

        EXPECT_TRUE(read(copy.folder.file("db")) == file_at_begin);
        EXPECT_EQ(copy.files_there(), 2U);
        EXPECT_EQ(std::filesystem::file_size(copy.folder.file("journal")), 64U * 1024);
        expect_blocks(copy.folder.file("db"), copy.folder.file("journal"), at_begin);
        source.store.close();
        expect_blocks(source.store.dir.file("db"), source.store.dir.file("journal"),
                      source.blocks());
    }
    EXPECT_GT(most_kept, 0U) << "nothing was ever overwritten before it was given out";
}

TEST(Snapshot, GivesUpRatherThanKeepTooMuch) {
    Source source(1);
    mdb::SnapshotStream stream(source.database(), 16 * kBlock);
    for (int n = 0; n < 200; ++n) {
        source.change();
        ASSERT_LE(stream.snapshot().kept_bytes(), 16 * kBlock);
    }
    EXPECT_FALSE(source.database().store().observed());
    platform::SystemFiles files;
    Copy copy(files);
    try {
        copy.take_rest(stream);
        FAIL() << "a copy with holes";
    } catch (const mdb::error_generic& failure) {
        EXPECT_NE(failure.text().find("taken too slowly"), std::string::npos) << failure.text();
    }
    EXPECT_TRUE(stream.ended());
    // The database goes on, and the next copy may be taken in time.
    source.change();
    mdb::SnapshotStream second(source.database());
    Copy second_copy(files);
    second_copy.take_rest(second);
    EXPECT_TRUE(second_copy.receiver.received());
}

TEST(Snapshot, IsTakenOnceAtATime) {
    Source source(1);
    {
        const mdb::Snapshot first(source.database());
        EXPECT_THROW(mdb::Snapshot{source.database()}, mdb::error_internal);
        EXPECT_TRUE(source.database().store().observed());
    }
    EXPECT_FALSE(source.database().store().observed());
    const mdb::Snapshot after(source.database());
}

TEST(Snapshot, FailsAloneWhenTheFileCannotBeRead) {
    for (const bool while_writing : {false, true}) {
        SCOPED_TRACE(while_writing);
        Source source(1);
        source.store.close();
        const auto calls = std::make_shared<support::FaultyCalls>();
        platform::SystemFiles files(calls);
        mdb::Database database({source.store.dir.file("db"), "", 8}, files, source.store.clock);
        mdb::Snapshot snapshot(database);
        calls->at(call_t::pread, 1, EIO);
        if (while_writing) {
            mdb::Transaction transaction(database.journal());
            mdb_test::put(database, kFirst * kBlock, "committed");
            transaction.commit(false);
        } else {
            EXPECT_FALSE(snapshot.next().has_value());
        }
        EXPECT_EQ(snapshot.state(), mdb::Snapshot::state_t::failed);
        EXPECT_NE(snapshot.failure().find("can't be read"), std::string::npos);
        EXPECT_FALSE(database.journal().failed());
        mdb::Transaction transaction(database.journal());
        mdb_test::put(database, kFirst * kBlock, "committed");
        transaction.commit(false);
        EXPECT_EQ(mdb_test::see(database, kFirst * kBlock, 9), "committed");
    }
}

/// A database with its journal in the same file: blocks from 512 on, as many as 64 KiB take.
void move_journal_into_file(TestDatabase& store) {
    constexpr uint32_t kJournalBlock = 512;
    Bytes file = store.read("db");
    auto* header = reinterpret_cast<std::byte*>(file.data());
    util::store_be32(header + mdb::header_layout::journal_type, mdb::header_layout::kJournalInFile);
    ASSERT_EQ(util::load_be32(header + mdb::header_layout::layout_offset), kJournalBlock);
    util::store_be32(header + mdb::header_layout::journal_place, 64);
    file.resize(kJournalBlock * kBlock);
    const Bytes journal = store.read("journal");
    file.insert(file.end(), journal.begin(), journal.end());
    constexpr uint32_t kMapStart = 3;
    std::fill_n(file.begin() + kMapStart * kBlock + kJournalBlock, 64, uint8_t{7});
    store.write("db", file);
    std::filesystem::remove(store.dir.file("journal"));
}

TEST(Snapshot, HasAnEmptyJournalInsideTheFile) {
    TestDatabase store;
    move_journal_into_file(store);
    mdb::Database& database = store.open(8);
    const auto commit = [&](const std::string& text) {
        mdb::Transaction transaction(database.journal());
        mdb_test::put(database, kFirst * kBlock, text);
        transaction.commit(false);
    };
    commit("before");
    mdb::SnapshotStream stream(database);
    commit("behind");
    platform::SystemFiles files;
    Copy copy(files);
    copy.take_rest(stream);
    copy.receiver.finish();
    copy.receiver.publish(false);
    EXPECT_EQ(copy.files_there(), 1U);

    mdb::Database opened({copy.folder.file("db"), "", 8}, files, store.clock);
    EXPECT_EQ(mdb_test::see(opened, kFirst * kBlock, 6), "before");
    EXPECT_EQ(mdb::verify(opened).text(), "");
}

/// The stream of a small database, and where its records begin.
struct Recorded {
    std::vector<std::byte> bytes;
    std::vector<size_t> records;
};

Recorded record_stream() {
    Source source(1, kFirst + 4);
    for (int n = 0; n < 5; ++n) source.change();
    mdb::SnapshotStream stream(source.database());
    Recorded recorded;
    while (!stream.ended()) {
        recorded.records.push_back(recorded.bytes.size());
        stream.append_next(recorded.bytes);
        // So that it comes in several pieces.
        source.change();
    }
    return recorded;
}

/// True when the stream makes a copy; checks that it leaves nothing otherwise.
bool makes_copy(const std::vector<std::byte>& bytes) {
    platform::SystemFiles files;
    support::TempDir folder;
    bool whole = false;
    try {
        mdb::SnapshotReceiver receiver(files, folder.file("db"), folder.file("journal"));
        receiver.take(bytes);
        whole = receiver.received();
    } catch (const mdb::error_generic&) {
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
    return whole;
}

TEST(SnapshotReceiver, TakesNoStreamWithADamagedByte) {
    const Recorded whole = record_stream();
    ASSERT_TRUE(makes_copy(whole.bytes));
    ASSERT_GE(whole.records.size(), 4U);
    std::set<size_t> places;
    for (const size_t record : whole.records)
        for (size_t at = record; at < std::min(record + 40, whole.bytes.size()); ++at)
            places.insert(at);
    for (size_t at = 0; at < whole.bytes.size(); at += 61) places.insert(at);
    for (const size_t at : places) {
        std::vector<std::byte> damaged = whole.bytes;
        damaged[at] ^= std::byte{0x01};
        EXPECT_FALSE(makes_copy(damaged)) << "byte " << at;
        damaged[at] ^= std::byte{0x81};
        EXPECT_FALSE(makes_copy(damaged)) << "byte " << at;
    }
}

TEST(SnapshotReceiver, TakesNoStreamWithoutItsEndOrInAnotherOrder) {
    const Recorded whole = record_stream();
    const auto record = [&](size_t n) {
        const size_t end = n + 1 < whole.records.size() ? whole.records[n + 1] : whole.bytes.size();
        return std::vector<std::byte>(
            whole.bytes.begin() + static_cast<std::ptrdiff_t>(whole.records[n]),
            whole.bytes.begin() + static_cast<std::ptrdiff_t>(end));
    };
    const size_t last = whole.records.size() - 1;
    const auto joined = [&](const std::vector<size_t>& order) {
        std::vector<std::byte> bytes;
        for (const size_t n : order) {
            const auto one = record(n);
            bytes.insert(bytes.end(), one.begin(), one.end());
        }
        return bytes;
    };
    std::vector<size_t> all(whole.records.size());
    for (size_t n = 0; n < all.size(); ++n) all[n] = n;
    ASSERT_TRUE(makes_copy(joined(all)));
    for (size_t n = 0; n <= last; ++n) {
        std::vector<size_t> without = all;
        without.erase(without.begin() + static_cast<std::ptrdiff_t>(n));
        EXPECT_FALSE(makes_copy(joined(without))) << "without record " << n;
        std::vector<size_t> twice = all;
        twice.insert(twice.begin() + static_cast<std::ptrdiff_t>(n), n);
        EXPECT_FALSE(makes_copy(joined(twice))) << "record " << n << " twice";
        EXPECT_FALSE(
            makes_copy({whole.bytes.begin(),
                        whole.bytes.begin() + static_cast<std::ptrdiff_t>(whole.records[n])}))
            << "up to record " << n;
    }
    EXPECT_FALSE(makes_copy({whole.bytes.begin(), whole.bytes.end() - 1}));
}

TEST(SnapshotReceiver, NamesARefusalAndALaterFailureDifferently) {
    const Recorded whole = record_stream();
    std::vector<std::byte> failure;
    mdb::SnapshotStream::append_failure("no room", failure);
    platform::SystemFiles files;
    Copy refused(files);
    EXPECT_THROW(refused.receiver.take(failure), mdb::error_copy_refused);
    Copy failed(files);
    failed.receiver.take(std::span(whole.bytes).first(whole.records[2]));
    try {
        failed.receiver.take(failure);
        FAIL();
    } catch (const mdb::error_copy_refused&) {
        FAIL() << "the copy had begun";
    } catch (const mdb::error_generic& text) {
        EXPECT_EQ(text.text(), "no room");
    }
}

/// What stands at the place of the copy before it comes.
enum class before_t { nothing, copy, other_database };

/// Each call of a copy fails once. What stands there afterwards is what stood there before, the
/// copy, or no database.
void fail_each_call(before_t before) {
    const Recorded old_stream = record_stream();
    Recorded new_stream;
    {
        Source source(2, kFirst + 4);
        source.change();
        mdb::SnapshotStream stream(source.database());
        while (!stream.ended()) stream.append_next(new_stream.bytes);
    }
    for (uint64_t n = 1;; ++n) {
        SCOPED_TRACE(testing::Message() << "call " << n);
        const auto calls = std::make_shared<support::FaultyCalls>();
        platform::SystemFiles files(calls);
        support::TempDir folder;
        const auto copy = [&](const std::vector<std::byte>& bytes) {
            mdb::SnapshotReceiver receiver(files, folder.file("db"), folder.file("journal"));
            receiver.take(bytes);
            receiver.finish();
            receiver.publish(true);
        };
        if (before != before_t::nothing) copy(old_stream.bytes);
        if (before == before_t::other_database) {
            const support::FakeClock clock;
            mdb::Database used({folder.file("db"), folder.file("journal"), 8}, files, clock);
            mdb::Transaction transaction(used.journal());
            mdb_test::put(used, kFirst * kBlock, "used");
            transaction.commit(false);
        }
        const Bytes old_database = read(folder.file("db"));
        const Bytes old_journal = read(folder.file("journal"));
        calls->at(call_t::sorts, n, EIO);
        bool done = false;
        try {
            copy(new_stream.bytes);
            done = true;
        } catch (const mdb::error_io&) {
        }
        if (!calls->struck()) {
            EXPECT_TRUE(done);
            EXPECT_GT(n, 10U);
            return;
        }
        const Bytes database = read(folder.file("db"));
        const Bytes journal = read(folder.file("journal"));
        const bool is_old = database == old_database && journal == old_journal;
        const bool is_none = database.empty();
        const bool is_new = !database.empty() && database != old_database && !journal.empty() &&
                            journal.size() == 64U * 1024;
        EXPECT_TRUE(done ? is_new : is_old || is_new || (is_none && before != before_t::copy));
        if (is_new) {
            platform::SystemFiles sound;
            const support::FakeClock clock;
            const mdb::Database opened({folder.file("db"), folder.file("journal"), 8}, sound,
                                       clock);
        }
    }
}

TEST(SnapshotReceiver, LeavesNoHalfCopyWhicheverCallFails) {
    fail_each_call(before_t::nothing);
    fail_each_call(before_t::copy);
    fail_each_call(before_t::other_database);
}

TEST(SnapshotReceiver, SetsACopyWithFaultsAsideAndLeavesTheOneBeforeAlone) {
    const Recorded stream = record_stream();
    support::TempDir folder;
    const auto copy = [&](platform::FileSystem& files, bool faulty) {
        mdb::SnapshotReceiver receiver(files, folder.file("db"), folder.file("journal"));
        receiver.take(stream.bytes);
        receiver.finish();
        if (faulty)
            receiver.publish_as_faulty();
        else
            receiver.publish(false);
    };
    platform::SystemFiles sound;
    copy(sound, false);
    const Bytes database = read(folder.file("db"));
    const Bytes journal = read(folder.file("journal"));
    bool struck = true;
    for (uint64_t n = 1; struck; ++n) {
        SCOPED_TRACE(testing::Message() << "call " << n);
        const auto calls = std::make_shared<support::FaultyCalls>();
        platform::SystemFiles files(calls);
        calls->at(call_t::sorts, n, EIO);
        bool done = false;
        try {
            copy(files, true);
            done = true;
        } catch (const mdb::error_io&) {
        }
        struck = calls->struck();
        EXPECT_TRUE(done || struck);
        EXPECT_EQ(read(folder.file("db")), database);
        EXPECT_EQ(read(folder.file("journal")), journal);
        if (const Bytes aside = read(folder.file("db.faulty")); done || !aside.empty()) {
            EXPECT_EQ(aside, database);
            EXPECT_EQ(read(folder.file("journal.faulty")), journal);
        }
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()),
                            std::filesystem::directory_iterator()),
              4);
    const support::FakeClock clock;
    const mdb::Database opened({folder.file("db.faulty"), folder.file("journal.faulty"), 8}, sound,
                               clock);
}

}  // namespace
