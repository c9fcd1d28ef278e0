#include "mdb/journal.h"

#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>

#include "mdb/journal_layout.h"
#include "support/rng.h"
#include "test_database.h"
#include "util/byte_order.h"
#include "util/crc32.h"

namespace {

using mdb_test::Bytes;
using mdb_test::hex;
using mdb_test::put;
using mdb_test::see;
using mdb_test::TestDatabase;
namespace layout = mdb::journal_layout;
using testing::HasSubstr;

/// First byte of the first block that a fresh test database may hand out: header, two roots, map of
/// one block.
constexpr uint64_t kData = 4 * 1024;

template <class Exception>
void expect_open_fails(TestDatabase& test, const std::string& text) {
    try {
        test.open();
        FAIL() << "opened, but expected: " << text;
    } catch (const Exception& failure) {
        EXPECT_THAT(failure.text(), HasSubstr(text));
    }
}

uint32_t crc_of(const Bytes& bytes) {
    security::Crc32 crc;
    crc.update(bytes.size(), bytes.data());
    return crc.value();
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes word(uint32_t value) {
    Bytes bytes(4);
    util::store_be32(bytes.data(), value);
    return bytes;
}

Bytes with_crc(const Bytes& bytes) {
    return bytes + word(crc_of(bytes));
}

Bytes index_entry(const std::string& serial_and_position) {
    return with_crc(hex(serial_and_position));
}

void overwrite(Bytes& file, size_t at, const Bytes& bytes) {
    ASSERT_LE(at + bytes.size(), file.size());
    std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<std::ptrdiff_t>(at));
}

/// A whole transaction that writes the letter `c` to offset 0x1000 + `at` of the file, 48 bytes
/// long.
Bytes letter_transaction(uint8_t serial, char c, uint8_t at) {
    Bytes body =
        hex("54424547 00000000 00000000 00000000 54555044 00000001 00000000 00001000 00000000 "
            "00000000");
    body[15] = serial;
    body[31] = at;
    body[36] = static_cast<uint8_t>(c);
    return body + hex("54454E44") + word(crc_of(body));
}

TEST(JournalBytes, OneTransactionAsDrawn) {
    TestDatabase test(1024);
    // Fill bytes and the gap of the begin entry keep what the journal held.
    Bytes before = test.read("journal");
    std::fill(before.begin() + 512, before.end(), uint8_t{0xEE});
    test.write("journal", before);
    mdb::Database& db = test.open();
    ASSERT_EQ(db.journal().current_serial(), 2U);
    ASSERT_EQ(db.journal().write_pos(), 512U);
    {
        mdb::Transaction transaction(db.journal());
        put(db, kData + 2, "abcd");
        put(db, kData + 9, "vwxyz");
        transaction.commit();
    }
    const Bytes body =
        hex("54424547 EEEEEEEE 00000000 00000002"
            "54555044 00000004 00000000 00001002 00000000 61626364"
            "54555044 00000005 00000000 00001009 00000000 76777879 7AEEEEEE EEEEEEEE");
    EXPECT_EQ(test.part("journal", 512, 80), body + hex("54454E44") + word(crc_of(body)));
    EXPECT_EQ(test.part("journal", 32, 16), index_entry("00000000 00000002 00000200"));
    EXPECT_EQ(db.journal().write_pos(), 592U);
}

TEST(JournalBytes, EmptyTransactionLeavesNoTrace) {
    TestDatabase test;
    mdb::Database& db = test.open();
    const uint32_t before = db.journal().write_pos();
    {
        mdb::Transaction outer(db.journal());
        {
            mdb::Transaction inner(db.journal());
            inner.commit();
        }
        outer.commit(false);
    }
    EXPECT_EQ(db.journal().write_pos(), before);
    EXPECT_EQ(db.journal().n_committed(), 0U);
}

TEST(Transactions, SeeTheirOwnChangesAndAbortsTakeThemBack) {
    for (const uint32_t cached : {1U, 64U}) {
        TestDatabase test;
        mdb::Database& db = test.open(cached);
        db.store().ensure_block(12);
        std::set<NodeId> reloaded;
        db.journal().set_abort_hook([&](const std::set<NodeId>& ids) { reloaded = ids; });

        db.journal().transaction_begin();
        put(db, kData, "outer");
        db.journal().transaction_touch({1, 1});
        db.journal().transaction_begin();
        put(db, kData, "INNER");
        put(db, kData + 8 * 1024, "other");
        db.journal().transaction_touch({1, 2});
        EXPECT_EQ(see(db, kData, 5), "INNER");
        db.journal().transaction_abort();
        EXPECT_EQ(reloaded, (std::set<NodeId>{{1, 2}}));
        EXPECT_EQ(see(db, kData, 5), "outer");
        EXPECT_EQ(see(db, kData + 8 * 1024, 5), std::string(5, '\0'));

        db.journal().transaction_begin();
        put(db, kData + 5, "!");
        db.journal().transaction_touch({1, 3});
        db.journal().transaction_end(true);
        EXPECT_EQ(see(db, kData, 6), "outer!");
        db.journal().transaction_abort();
        EXPECT_EQ(reloaded, (std::set<NodeId>{{1, 1}, {1, 3}}));
        EXPECT_EQ(see(db, kData, 6), std::string(6, '\0'));
        EXPECT_FALSE(db.journal().transaction_active());

        mdb::Transaction last(db.journal());
        put(db, kData, "third");
        last.commit();
        EXPECT_EQ(see(db, kData, 5), "third");
    }
}

TEST(Transactions, MisuseIsRefused) {
    TestDatabase test(4096);
    mdb::Database& db = test.open();
    mdb::Journal& journal = db.journal();
    EXPECT_THROW(put(db, kData, "x"), mdb::error_internal);
    EXPECT_THROW(journal.transaction_end(true), mdb::error_internal);
    EXPECT_THROW(journal.transaction_abort(), mdb::error_internal);
    journal.transaction_begin();
    EXPECT_THROW(journal.full_checkpoint(), mdb::error_internal);
    EXPECT_THROW(put(db, uint64_t{1} << 42, "x"), mdb::error_range);
    journal.transaction_begin();
    EXPECT_DEATH(journal.transaction_end(false), "Syncronous nested transactions not supported");
}

TEST(Transactions, LogFullKeepsRoomForTheEnd) {
    TestDatabase test(1024);
    mdb::Database& db = test.open();  // second half: 512 to 1016
    db.store().ensure_block(8);
    db.journal().transaction_begin();
    // 504 bytes: begin 16, end 8, so one update may take 480, that is 460 bytes of data.
    EXPECT_THROW(put(db, kData, std::string(461, 'x')), mdb::error_transact);
    put(db, kData, std::string(460, 'x'));
    EXPECT_THROW(put(db, kData, ""), mdb::error_transact);
    db.journal().transaction_end(false);
    EXPECT_EQ(db.journal().write_pos(), 1016U);
    mdb::Database& again = test.open();
    EXPECT_EQ(see(again, kData, 460), std::string(460, 'x'));
}

TEST(Replay, EveryBadByteOfATransactionDropsIt) {
    TestDatabase test(2000);
    const Bytes fresh = test.read("journal");
    const Bytes file = test.read("db");
    const Bytes transaction = letter_transaction(1, 'x', 0);
    for (size_t at = 0; at < transaction.size(); ++at) {
        if (at >= 4 && at < 8) continue;
        SCOPED_TRACE(at);
        Bytes bad = fresh;
        overwrite(bad, 48, transaction);
        bad[48 + at] ^= 0x80;
        test.write("journal", bad);
        test.write("db", file);
        test.open();
        test.close();
        EXPECT_EQ(test.read("db"), file);
    }
}

TEST(Replay, PicksTheIndexEntry) {
    struct Case {
        const char* what;
        Bytes entry0, entry1;
        const char* expected;  // which half was replayed, or the text of the failure
    };
    const Bytes invalid(16, 0);
    const Case cases[] = {
        {"only 0", index_entry("00000000 00000001 00000030"), invalid, "0"},
        {"only 1", invalid, index_entry("00000000 00000001 000003E8"), "1"},
        {"1 newer", index_entry("00000000 00000000 00000030"),
         index_entry("00000000 00000001 000003E8"), "1"},
        {"0 newer", index_entry("00000000 00000001 00000030"),
         index_entry("00000000 00000000 000003E8"), "0"},
        {"equal", index_entry("00000000 00000001 00000030"),
         index_entry("00000000 00000001 000003E8"), "0"},
        {"equal, 0 without position", index_entry("00000000 00000001 00000000"),
         index_entry("00000000 00000001 000003E8"), "1"},
        {"none", invalid, invalid, "Both index pointers were invalid"},
        {"beyond the end", index_entry("00000000 00000001 000007D0"), invalid,
         "Access beyond end of journal attempted"},
        {"last three bytes", index_entry("00000000 00000001 000007CE"), invalid,
         "Access beyond end of journal attempted"},
        {"shortened", index_entry("00000000 00000001 00000030"),
         index_entry("00000000 00000000 000003F0"), "Journal was longer once"},
        {"shortened by more than half", index_entry("00000000 00000001 00000030"),
         index_entry("00000000 00000000 000007D0"), "Journal was longer once"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TestDatabase test(2000);
        Bytes journal = test.read("journal");
        overwrite(journal, 16, c.entry0);
        overwrite(journal, 32, c.entry1);
        overwrite(journal, 48, letter_transaction(1, '0', 0));
        overwrite(journal, 1000, letter_transaction(1, '1', 0));
        test.write("journal", journal);
        if (std::string(c.expected).size() > 1) {
            expect_open_fails<mdb::error_generic>(test, c.expected);
            continue;
        }
        mdb::Database& db = test.open();
        EXPECT_EQ(see(db, kData, 1), c.expected);
    }
}

TEST(Replay, WhatADamagedIndexEntryDroppedStaysDropped) {
    TestDatabase test;
    const auto commit = [](mdb::Database& database, const std::string& text) {
        database.store().ensure_block(kData / TestDatabase::kBlockSize);
        mdb::Transaction transaction(database.journal());
        put(database, kData, text);
        transaction.commit(false);
    };
    for (const int half : {0, 1}) {
        SCOPED_TRACE(half);
        mdb::Database& database = test.open();
        const int current =
            database.journal().write_pos() < layout::half_start(64 * 1024, 1) ? 0 : 1;
        if (current != half) database.journal().checkpoint_and_flip();
        commit(database, "first one");
        commit(database, "dropped 1");
        commit(database, "dropped 2");
        test.close();
        Bytes journal = test.read("journal");
        journal[layout::index_entries + layout::kIndexEntrySize * static_cast<size_t>(half)] ^= 1;
        test.write("journal", journal);
        // As long as the first of those that were dropped.
        commit(test.open(), "newer one");
        EXPECT_EQ(see(test.open(), kData, 9), "newer one");
        EXPECT_EQ(see(test.open(), kData, 9), "newer one");
    }
}

// The index entry of the newest half is damaged, and so is the first transaction there: the others
// are as whole as ever, and a log of the next life that ended where one of them begins would have
// it come back.
TEST(Replay, WhatIsBehindADamagedTransactionStaysDroppedToo) {
    TestDatabase test(2000);
    Bytes journal = test.read("journal");
    overwrite(journal, 16, index_entry("00000000 00000004 00000030"));
    overwrite(journal, 32, Bytes(16, 0x55));
    overwrite(journal, 1000, Bytes(48, 0x66));
    overwrite(journal, 1048, letter_transaction(5, 'x', 0));
    overwrite(journal, 1096, letter_transaction(6, 'y', 0));
    test.write("journal", journal);
    {
        mdb::Database& db = test.open();
        EXPECT_EQ(db.journal().current_serial(), 7U);
        db.store().ensure_block(kData / TestDatabase::kBlockSize);
        mdb::Transaction transaction(db.journal());
        put(db, kData, "n");
        transaction.commit(false);
        ASSERT_EQ(db.journal().write_pos(), 1048U) << "the log ends where the old one goes on";
    }
    EXPECT_EQ(see(test.open(), kData, 1), "n");
    EXPECT_EQ(see(test.open(), kData, 1), "n");
}

TEST(Replay, RefusesASerialThatWouldWrap) {
    for (const char* entry : {"FFFFFFFF FFFFFFFF 00000030", "FFFFFFFF FFFFFFFE 00000030",
                              "80000000 00000000 00000030"}) {
        SCOPED_TRACE(entry);
        TestDatabase test(2000);
        Bytes journal = test.read("journal");
        overwrite(journal, 16, index_entry(entry));
        test.write("journal", journal);
        const Bytes file = test.read("db");
        expect_open_fails<mdb::error_need_repair>(test, "which no count of its fillings reaches");
        EXPECT_EQ(test.read("db"), file);
        EXPECT_EQ(test.read("journal"), journal);
    }
}

TEST(Replay, FollowsOneRedirection) {
    const Bytes redirect_to_second = hex("54524544 000003E8");
    struct Case {
        const char* what;
        Bytes behind_first, in_second;
        std::string expected;
    };
    const Case cases[] = {
        {"followed", redirect_to_second, letter_transaction(2, 'b', 1), std::string("ab")},
        {"stale behind it", redirect_to_second, letter_transaction(0, 'b', 1),
         std::string("a\0", 2)},
        {"second one ends", redirect_to_second, hex("54524544 00000030"), std::string("a\0", 2)},
        {"target at the end", hex("54524544 000007CA"), letter_transaction(2, 'b', 1),
         std::string("a\0", 2)},
        {"target far away", hex("54524544 FFFFFFFF"), letter_transaction(2, 'b', 1),
         std::string("a\0", 2)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        TestDatabase test(2000);
        Bytes journal = test.read("journal");
        overwrite(journal, 48, letter_transaction(1, 'a', 0) + c.behind_first);
        overwrite(journal, 1000, c.in_second);
        test.write("journal", journal);
        mdb::Database& db = test.open();
        EXPECT_EQ(see(db, kData, 2), c.expected);
    }
}

TEST(Replay, LengthsPointingAnywhereEndIt) {
    for (const uint32_t length : {0x80U, 0x7A8U, 0x7FFFFFFFU, 0xFFFFFFE0U, 0xFFFFFFFFU}) {
        SCOPED_TRACE(length);
        TestDatabase test(2000);
        const Bytes file = test.read("db");
        Bytes journal = test.read("journal");
        Bytes bad = letter_transaction(1, 'b', 1);
        overwrite(bad, 20, word(length));
        overwrite(journal, 48, letter_transaction(1, 'a', 0) + bad);
        test.write("journal", journal);
        mdb::Database& db = test.open();
        EXPECT_EQ(see(db, kData, 2), std::string("a\0", 2));
    }
}

TEST(Replay, RefusesWhatIsNoJournal) {
    TestDatabase test(2000);
    const Bytes good = test.read("journal");
    const auto with = [&](size_t at, const char* bytes) {
        Bytes journal = good;
        overwrite(journal, at, hex(bytes));
        test.write("journal", journal);
    };
    with(0, "4A484453");
    expect_open_fails<mdb::error_fubar>(test, "Journal does not start with a journal header");
    with(4, "00000002");
    expect_open_fails<mdb::error_unsupported>(test, "Journal version 2 is unsupported");
    test.write("journal", Bytes(good.begin(), good.begin() + 20));
    expect_open_fails<mdb::error_fubar>(test, "Journal does not start with a journal header");
    test.write("journal", Bytes(good.begin(), good.begin() + 60));
    expect_open_fails<mdb::error_fubar>(test, "no room for entries");
    test.write("journal", {});
    expect_open_fails<mdb::error_io>(test, "Cannot memory map journal");
    test.files.remove(test.dir.file("journal"));
    expect_open_fails<mdb::error_open>(test, "Cannot open journal in");
}

TEST(Halves, OfAnyLengthAreFilledToTheLastByte) {
    // Lengths whose half is no multiple of 8, and both halves; the last usable byte is that of an
    // end entry, behind which a redirection still fits.
    for (const uint32_t length : {1024U, 1025U, 1030U, 2002U, 2003U, 2010U, 2047U}) {
        TestDatabase test;
        Bytes journal = test.read("journal");
        journal.resize(length);
        test.write("journal", journal);
        mdb::Database* db = &test.open();
        db->store().ensure_block(12);
        for (int round = 0; round < 6; ++round) {
            SCOPED_TRACE(testing::Message() << "length " << length << " round " << round);
            const uint32_t free = db->journal().free_space();
            const uint32_t end = db->journal().write_pos() + free;
            EXPECT_EQ(end % 8, 0U);
            EXPECT_LE(end + layout::kRedirectSize, round % 2 == 1 ? length / 2 : length);
            const std::string text(free - 16 - 20 - 8, static_cast<char>('a' + round));
            for (const bool too_long : {true, false}) {
                mdb::Transaction transaction(db->journal());
                if (too_long) {
                    EXPECT_THROW(put(*db, kData, text + "x"), mdb::error_transact);
                    continue;
                }
                put(*db, kData, text);
                transaction.commit(false);
            }
            EXPECT_EQ(db->journal().free_space(), 0U);
            // The next filling of the half finds this redirection behind an equally long one.
            if (round >= 2) {
                db->journal().flip(true);
                EXPECT_EQ(test.part("journal", end, 4), hex("54524544"));
            }
            if (round == 3) {
                db = &test.open();
                db->journal().flip(false);
            }
            if (round < 2) db->journal().flip(false);
            EXPECT_EQ(see(*db, kData, text.size()), text);
        }
        EXPECT_EQ(see(test.open(), kData, 1), "f");
    }
}

TEST(Checkpoint, FollowsTheClockAndTheFill) {
    TestDatabase test(8192);
    mdb::Database& db = test.open();
    db.store().ensure_block(8);
    const auto commit = [&](const std::string& text) {
        mdb::Transaction transaction(db.journal());
        put(db, kData, text);
        transaction.commit();
    };
    const auto in_file = [&] { return test.part("db", kData, 1)[0]; };
    commit("a");
    db.journal().journal_checkpoint();
    EXPECT_EQ(in_file(), '\0') << "nothing is due in the second of the last flush";
    test.clock.advance_s(1);
    db.journal().transaction_begin();
    EXPECT_EQ(in_file(), 'a') << "a begin in a later second writes";
    put(db, kData, "b");
    test.clock.advance_s(1);
    db.journal().transaction_end(true);
    EXPECT_EQ(in_file(), 'b') << "and so does an asynchronous commit";
    commit("c");
    test.clock.advance_s(1);
    db.journal().journal_checkpoint();
    EXPECT_EQ(in_file(), 'c');
    const uint64_t serial = db.journal().current_serial();
    while (db.journal().current_serial() == serial) commit(std::string(200, 'd'));
    EXPECT_EQ(in_file(), 'd') << "a flip brings everything to the file";
    EXPECT_GE(db.journal().free_space(), 3000U);
}

/// Random transactions over few bytes, with inner aborts, reopening and tiny caches, against a copy
/// in memory.
void run_against_model(uint64_t seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    support::Rng rng(seed);
    TestDatabase test(16 * 1024);
    constexpr size_t kSize = 6 * 1024;
    const auto cache_size = [&] { return static_cast<uint32_t>(1 + rng.below(7)); };
    mdb::Database* db = &test.open(cache_size());
    db->store().ensure_block(10);
    std::vector<std::string> model{std::string(kSize, '\0')};
    const auto check = [&] {
        for (size_t block = 0; block < kSize / 1024; ++block)
            ASSERT_EQ(see(*db, kData + block * 1024, 1024),
                      model.back().substr(block * 1024, 1024));
    };
    for (int step = 0; step < 1500; ++step) {
        SCOPED_TRACE(step);
        const uint64_t what = rng.below(100);
        if (what < 25 && model.size() < 5) {
            db->journal().transaction_begin();
            model.push_back(model.back());
        } else if (what < 70 && model.size() > 1) {
            const size_t at = rng.below(kSize);
            const size_t length =
                std::min<size_t>(kSize - at, rng.chance(5) ? 1500 : rng.below(40));
            std::string text(length, ' ');
            for (char& letter : text) letter = static_cast<char>('a' + rng.below(26));
            try {
                put(*db, kData + at, text);
                model.back().replace(at, length, text);
            } catch (const mdb::error_transact&) {
                while (db->journal().transaction_active()) db->journal().transaction_abort();
                model.resize(1);
            }
        } else if (what < 85 && model.size() > 1) {
            db->journal().transaction_end(model.size() > 2 || rng.chance(80));
            model[model.size() - 2] = model.back();
            model.pop_back();
        } else if (what < 93 && model.size() > 1) {
            db->journal().transaction_abort();
            model.pop_back();
        } else if (what < 96) {
            db = &test.open(cache_size());
            model.resize(1);
        } else {
            test.clock.advance_us(rng.below(800'000));
        }
        if (rng.chance(20)) check();
    }
    check();
}

TEST(JournalModel, RandomTransactions) {
    for (uint64_t seed = 1; seed <= 12; ++seed) run_against_model(seed);
}

}  // namespace
