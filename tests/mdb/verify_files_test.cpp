// The verifier on files as killed processes leave them: what it sees, that it changes nothing, and
// files that cannot be verified at all.
#include "mdb/verify_files.h"

#include <algorithm>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <utility>

#include "good_database.h"
#include "mdb/journal_layout.h"
#include "platform/overlay_files.h"
#include "util/crc32.h"

namespace {

using mdb_test::Bytes;
using mdb_test::GoodDatabase;
using mdb_test::kBlockSize;
using mdb_test::kObjects;
using mdb_test::set_word;
using mdb_test::word;

/// The files of a database that was killed with transactions in its journal.
class KilledDatabase : public testing::Test {
  protected:
    KilledDatabase() {
        good_.restore();
        mdb::Database& database = good_.file.open();
        mdb::IndexTable indexes(database);
        indexes.init_required_indexes();
        for (uint32_t n = 2; n < mdb::kMaxIndexes; ++n) static_cast<void>(indexes.ensure_index(n));
        mdb::ObjectStore store(database, indexes);
        for (uint32_t i = 0; i < kAdded; ++i) good_.create(database, store, 1000 + i);
        start_ = mdb::journal_layout::half_start(
            database.journal().journal_length(),
            database.journal().write_pos() > database.journal().journal_length() / 2 ? 1 : 0);
        good_.file.close();
        db_ = good_.file.read("db");
        journal_ = good_.file.read("journal");
    }

    mdb::FileVerification verify() const {
        platform::OverlayFiles files;
        return mdb::verify_files(files, good_.file.dir.file("db"), good_.file.dir.file("journal"),
                                 good_.options());
    }
    /// Gives the first transaction of the journal another content, with its right CRC.
    void change_first_transaction(const std::function<void(Bytes&)>& change) {
        change(journal_);
        uint32_t end = start_ + 16;
        while (word(journal_, end) == mdb::journal_layout::kUpdate)
            end += static_cast<uint32_t>(mdb::journal_layout::update_size(word(journal_, end + 4)));
        security::Crc32 crc;
        crc.update(end - start_, reinterpret_cast<const std::byte*>(journal_.data()) + start_);
        set_word(journal_, end + 4, crc.value());
        good_.file.write("journal", journal_);
    }

    static constexpr uint32_t kAdded = 5;
    GoodDatabase good_;
    Bytes db_;
    Bytes journal_;
    /// First position of the half in use.
    uint32_t start_ = 0;
};

TEST_F(KilledDatabase, IsVerifiedAsItsNextStartWouldSeeItAndLeftAsItIs) {
    struct Status {
        explicit Status(const std::string& path) { ::stat(path.c_str(), &status); }
        bool operator==(const Status& other) const {
            return status.st_mtim.tv_sec == other.status.st_mtim.tv_sec &&
                   status.st_mtim.tv_nsec == other.status.st_mtim.tv_nsec &&
                   status.st_size == other.status.st_size;
        }
        struct stat status {};
    };
    const std::string db = good_.file.dir.file("db");
    const std::string journal = good_.file.dir.file("journal");
    const Status db_before(db);
    const Status journal_before(journal);
    // Nobody could write to them.
    ASSERT_EQ(::chmod(db.c_str(), 0400), 0);
    ASSERT_EQ(::chmod(journal.c_str(), 0400), 0);

    const mdb::FileVerification found = verify();
    EXPECT_EQ(found.verification.text(), "");
    EXPECT_TRUE(found.opened);
    EXPECT_EQ(found.verification.counts.objects, kObjects + kAdded);
    EXPECT_EQ(found.verification.counts.trees[0].entries, kObjects + kAdded);
    EXPECT_EQ(found.verification.counts.trees[0].height, 2U);
    EXPECT_EQ(found.verification.counts.large_objects, 1U);
    EXPECT_EQ(found.verification.counts.large_object_bytes, 2000U);
    EXPECT_EQ(found.journal.transactions, kAdded);
    EXPECT_EQ(found.database_bytes, db_.size());
    EXPECT_GT(found.journal.update_bytes, 0U);
    EXPECT_THAT(found.journal.end_reason,
                testing::AnyOf("no further entry", "a transaction of another filling of the half"));

    EXPECT_EQ(good_.file.read("db"), db_);
    EXPECT_EQ(good_.file.read("journal"), journal_);
    EXPECT_TRUE(Status(db) == db_before);
    EXPECT_TRUE(Status(journal) == journal_before);
}

TEST_F(KilledDatabase, NamesDamageOfTheJournal) {
    change_first_transaction([&](Bytes& journal) { set_word(journal, start_ + 16 + 16, 5); });
    EXPECT_THAT(verify().verification.text(),
                testing::HasSubstr(fmt::format("journal offset {}: J update has 5", start_ + 32)));

    // A later update of the same bytes makes the block whole again, but not the large object safe.
    change_first_transaction([&](Bytes& journal) {
        set_word(journal, start_ + 16 + 16, 0);
        set_word(journal, start_ + 16 + 8, 0);
        set_word(journal, start_ + 16 + 12,
                 static_cast<uint32_t>(good_.at(good_.lob, kBlockSize - 100)));
    });
    EXPECT_THAT(verify().verification.text(),
                testing::HasSubstr(fmt::format("block {} offset 0: B4", good_.lob)));

    change_first_transaction([&](Bytes& journal) { set_word(journal, start_ + 16 + 8, 1); });
    EXPECT_THAT(verify().verification.text(),
                testing::HasSubstr(fmt::format("journal offset {}: J update of", start_ + 16)));
}

TEST_F(KilledDatabase, ATornTransactionEndsTheLogAndIsNoFault) {
    journal_[start_ + 37] ^= 1;
    good_.file.write("journal", journal_);
    const mdb::FileVerification found = verify();
    EXPECT_EQ(found.verification.text(), "");
    EXPECT_EQ(found.journal.transactions, 0U);
    EXPECT_EQ(found.journal.end, start_);
    EXPECT_EQ(found.journal.end_reason, "a transaction with another CRC");
    EXPECT_EQ(found.verification.counts.objects, kObjects);
}

TEST_F(KilledDatabase, ATornHeaderIsMendedByTheReplay) {
    {
        mdb::Database& database = good_.file.open();
        mdb::Transaction transaction(database.journal());
        database.journal_header(database.header());
        transaction.commit();
    }
    good_.file.close();
    Bytes torn = good_.file.read("db");
    std::fill(torn.begin() + 512, torn.begin() + 560, uint8_t{0});
    good_.file.write("db", torn);
    const mdb::FileVerification found = verify();
    EXPECT_EQ(found.verification.text(), "");
    EXPECT_TRUE(found.opened);
}

TEST_F(KilledDatabase, IsRefusedWhileAServerHasIt) {
    good_.file.open();
    try {
        static_cast<void>(verify());
        FAIL() << "verified a running database";
    } catch (const mdb::error_open& refused) {
        EXPECT_THAT(refused.text(), testing::HasSubstr("is in use by a running server"));
    }
    good_.file.close();
    // And the other way round: no server starts meanwhile.
    platform::OverlayFiles files;
    const auto file = files.open(good_.file.dir.file("db"));
    ASSERT_TRUE(file->try_lock());
    EXPECT_THROW(good_.file.open(), mdb::error_open);
    EXPECT_EQ(verify().verification.text(), "") << "readers don't exclude each other";
}

TEST(Verify, FilesThatCannotBeOpenedAreNamed) {
    const GoodDatabase good;
    good.restore();
    const auto& dir = good.file.dir;
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);
    const std::pair<std::string, std::string> rows[] = {
        {dir.file("none"), "No such file or directory"},
        {dir.path().string(), "Is a directory"},
        {dir.file("fifo"), "Invalid argument"},
        {dir.file("db") + "/x", "Not a directory"},
    };
    for (const auto& [path, reason] : rows)
        for (const bool as_journal : {false, true}) {
            platform::OverlayFiles files;
            try {
                static_cast<void>(mdb::verify_files(files, as_journal ? dir.file("db") : path,
                                                    as_journal ? path : dir.file("journal"), {}));
                ADD_FAILURE() << path << " was opened";
            } catch (const mdb::error_open& failure) {
                EXPECT_EQ(failure.text(), fmt::format("Cannot open \"{}\": {}", path, reason));
            }
        }
}

}  // namespace
