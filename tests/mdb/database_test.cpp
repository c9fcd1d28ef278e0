#include "mdb/database.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "mdb/detail/block_updates.h"
#include "support/faulty_calls.h"
#include "test_database.h"

namespace {

using mdb_test::Bytes;
using mdb_test::hex;
using mdb_test::put;
using mdb_test::see;
using mdb_test::TestDatabase;
using testing::HasSubstr;

constexpr uint64_t kData = 4 * 1024;

std::string failure_of(const std::function<void()>& action) {
    try {
        action();
    } catch (const mdb::error_generic& failure) {
        return failure.text();
    }
    return "none";
}

void overwrite(Bytes& file, size_t at, const Bytes& bytes) {
    std::copy(bytes.begin(), bytes.end(), file.begin() + static_cast<std::ptrdiff_t>(at));
}

TEST(Format, WritesTheBytesAsDrawn) {
    TestDatabase test(4096);
    const Bytes file = test.read("db");
    EXPECT_EQ(file.size(), 4 * 1024U);
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 20),
              hex("544D4442 00000001 00000400 00000002 00000200"));
    EXPECT_STREQ(reinterpret_cast<const char*>(file.data() + 20), test.dir.file("journal").c_str());
    EXPECT_EQ(Bytes(file.begin() + 532, file.begin() + 552),
              hex("00000002 00000001 00000002 00000000 00000003"));
    EXPECT_EQ(Bytes(file.begin() + 552, file.begin() + 556), hex("00000004"));
    const Bytes journal = test.read("journal");
    EXPECT_EQ(journal.size(), 4096U);
    EXPECT_EQ(Bytes(journal.begin(), journal.begin() + 28),
              hex("4A484452 00000001 0000000000000000 0000000000000001 00000030"));
    EXPECT_TRUE(std::all_of(journal.begin() + 32, journal.end(), [](uint8_t b) { return b == 0; }));
}

TEST(Format, FilesBelongToTheirOwner) {
    const mode_t before = ::umask(0777);
    TestDatabase test;
    ::umask(before);
    for (const char* name : {"db", "journal"}) {
        struct stat status {};
        ASSERT_EQ(::stat(test.dir.file(name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777, 0600U) << name;
    }
}

TEST(Format, RefusesToReplaceUnlessForced) {
    TestDatabase test;
    mdb::FormatOptions options;
    options.database_path = test.dir.file("db");
    options.journal_path = test.dir.file("journal");
    options.journal_size_bytes = 8192;
    const auto format = [&] {
        return failure_of([&] { mdb::format_database(test.files, options); });
    };
    EXPECT_THAT(format(), HasSubstr("exists already"));
    options.force = true;
    test.open();
    EXPECT_THAT(format(), HasSubstr("is in use by another process"));
    test.close();
    EXPECT_EQ(format(), "none");
    EXPECT_EQ(test.open().block_size(), 4096U);
    options.block_size = 1000;
    EXPECT_THAT(format(), HasSubstr("power of two"));
    options.block_size = 4096;
    options.journal_size_bytes = uint64_t{1} << 32;
    EXPECT_THAT(format(), HasSubstr("Journal size"));
    EXPECT_EQ(test.read("journal").size(), 8192U);
}

TEST(Format, AFailureLeavesNoFilesBehind) {
    TestDatabase test;
    const auto leftovers = [&] {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(
                 std::filesystem::path(test.dir.file(""))))
            if (entry.path().extension() == ".format") names.push_back(entry.path());
        return names;
    };
    mdb::FormatOptions options;
    options.database_path = test.dir.file("new");
    options.journal_size_bytes = 8192;
    // Longer than the place in the header, and yet a path that files can have.
    std::string folder = test.dir.file("");
    while (folder.size() < 500) {
        folder += "/" + std::string(100, 'x');
        std::filesystem::create_directory(folder);
    }
    options.journal_path = folder + "/journal";
    const auto format = [&] {
        return failure_of([&] { mdb::format_database(test.files, options); });
    };
    EXPECT_THAT(format(), HasSubstr("Path of the journal is longer than 491 bytes"));
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    options.journal_path = test.dir.file("fresh");
    options.database_path = test.dir.file("no such folder/db");
    EXPECT_THAT(format(), HasSubstr("Cannot format"));
    EXPECT_THAT(leftovers(), testing::IsEmpty());
}

TEST(Open, SecondProcessIsRefused) {
    TestDatabase test;
    test.open();
    mdb::Settings settings;
    settings.database_path = test.dir.file("db");
    const auto second = [&] { mdb::Database other(settings, test.files, test.clock); };
    EXPECT_THAT(failure_of(second), HasSubstr("is in use by another process"));
    test.close();
    EXPECT_EQ(failure_of(second), "none");
}

TEST(Open, RefusesWhatIsNoDatabase) {
    struct Case {
        size_t at;
        const char* bytes;
        const char* text;
    };
    const Case cases[] = {
        {0, "544D4443", "MDB file does not look like a Tarmik Meta Database"},
        {4, "00000002", "This version of Tarmik does not support version 2 databases"},
        {8, "00000000", "Blocksize is 0 bytes - but it must be a power of two"},
        {8, "00000401", "Blocksize is 1025 bytes - but it must be a power of two"},
        {8, "00000200", "Blocksize is 512 bytes - but it must be at least 1024"},
        {12, "00000003", "Unknown journal type"},
        {16, "FFFFFFFF", "lies outside the header"},
        {16, "000003E8", "Meta database does not have the two required indexes defined"},
        {532, "00000001", "Meta database does not have the two required indexes defined"},
        {532, "00000007", "Meta database has 7 indexes defined"},
        {532, "FFFFFFFF", "indexes defined"},
        {552, "00000003", "Allocation map of blocks 3 to 3 is impossible"},
        {552, "00000100", "Database of 4096 bytes has not all of its allocation map"},
        {552, "FFFFFFFF", "Allocation map of 4294967292 blocks describes more than"},
        {536, "00000000", "Block 0 cannot be the root of index 0"},
        {536, "00000003", "Block 3 cannot be the root of index 0"},
        {540, "00000001", "Block 1 cannot be the root of index 1"},
    };
    TestDatabase test;
    const Bytes good = test.read("db");
    for (const Case& c : cases) {
        Bytes bad = good;
        overwrite(bad, c.at, hex(c.bytes));
        test.write("db", bad);
        EXPECT_THAT(failure_of([&] { test.open(); }), HasSubstr(c.text)) << c.at << " " << c.bytes;
    }
    for (const size_t length : {size_t{0}, size_t{1023}}) {
        test.write("db", Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length)));
        EXPECT_THAT(failure_of([&] { test.open(); }), HasSubstr("does not look like")) << length;
    }
    test.write("db", Bytes(good.begin(), good.begin() + 3000));
    EXPECT_THAT(failure_of([&] { test.open(); }), HasSubstr("has not all of its allocation map"));
    test.write("db", good);
    EXPECT_EQ(failure_of([&] { test.open(); }), "none") << "and nothing was spoiled meanwhile";
}

/// The bytes of the database with its journal, whose own file goes, in blocks 513 to 576: the word
/// that says where the layout area begins is the first block of the journal too. Their marks are
/// left to the caller.
Bytes with_journal_inside(TestDatabase& test) {
    Bytes file = test.read("db");
    const Bytes layout(file.begin() + 512, file.begin() + 512 + 60);
    overwrite(file, 513, layout);
    overwrite(file, 12, hex("00000001 00000201 00000040"));
    file.resize((513 + 64) * 1024);
    overwrite(file, 513 * 1024, test.read("journal"));
    test.files.remove(test.dir.file("journal"));
    return file;
}

TEST(Open, JournalMayBeARegionOfTheFile) {
    TestDatabase test(64 * 1024);
    Bytes file = with_journal_inside(test);
    std::fill_n(file.begin() + 3 * 1024 + 513, 64, uint8_t{7});
    file[kData] = '0';
    test.write("db", file);
    for (int round = 0; round < 3; ++round) {
        mdb::Database& db = test.open();
        EXPECT_EQ(db.journal().journal_length(), 64 * 1024U);
        EXPECT_EQ(see(db, kData, 1), std::string(1, static_cast<char>('0' + round)));
        mdb::Transaction transaction(db.journal());
        put(db, kData, std::string(1, static_cast<char>('1' + round)));
        transaction.commit(round == 1);
    }
}

TEST(Open, RefusesAJournalInTheFileWhoseBlocksOthersMayTake) {
    TestDatabase test(64 * 1024);
    Bytes file = with_journal_inside(test);
    struct Case {
        size_t count;
        uint8_t mark;
        size_t root_at;
        const char* text;
    };
    const Case cases[] = {
        {64, 7, 0, "none"},
        {63, 7, 0, "Block 576 of the journal in blocks 513 to 577 has a mark"},
        {64, 2, 0, "Block 513 of the journal in blocks 513 to 577 has a mark"},
        {64, 7, 541, "Block 520 of the journal in blocks 513 to 577 is the root of an index"},
    };
    for (const Case& c : cases) {
        Bytes bad = file;
        std::fill_n(bad.begin() + 3 * 1024 + 513, c.count, c.mark);
        if (c.root_at != 0) overwrite(bad, c.root_at, hex("00000208"));
        test.write("db", bad);
        EXPECT_THAT(failure_of([&] { test.open(); }), HasSubstr(c.text)) << c.text;
        test.close();
    }
}

TEST(Header, IndexesComeAndGo) {
    TestDatabase test;
    mdb::Database& db = test.open();
    mdb::Header header = db.header();
    for (uint32_t root = 20; root < 24; ++root) header.add_index(root);
    EXPECT_THROW(header.add_index(30), mdb::error_internal);
    db.write_header(header);
    EXPECT_EQ(test.part("db", 532, 40), hex("00000006 00000001 00000002 00000014 00000015 00000016 "
                                            "00000017 00000000 00000003 00000004"));
    header.remove_index(2);
    {
        mdb::Transaction transaction(db.journal());
        db.journal_header(header);
        transaction.commit(false);
    }
    EXPECT_EQ(
        test.part("db", 532, 36),
        hex("00000005 00000001 00000002 00000015 00000016 00000017 00000000 00000003 00000004"));
    // A header that was written past the journal must win over one that the journal still holds.
    EXPECT_EQ(see(db, 535, 1), "\5") << "cached";
    header.add_index(40);
    db.write_header(header);
    EXPECT_EQ(see(db, 535, 1), "\6");
    EXPECT_EQ(test.open().header().index_root(5), 40U);
}

TEST(Header, AWriteThatFailsEndsAllFurtherWork) {
    for (uint64_t n = 1;; ++n) {
        SCOPED_TRACE(n);
        const TestDatabase test;
        const auto calls = std::make_shared<support::FaultyCalls>();
        platform::SystemFiles files(calls);
        mdb::Database database({test.dir.file("db"), "", 8}, files, test.clock);
        calls->at(support::call_t::sorts, n, EIO);
        try {
            database.write_header(database.header());
        } catch (const mdb::error_io&) {
            EXPECT_TRUE(database.journal().failed());
            continue;
        }
        EXPECT_GT(n, 6U) << "a checkpoint, a flip, the header and its sync";
        break;
    }
}

TEST(Cache, OneBlockEvictsAndStillShowsTheLastCommit) {
    TestDatabase test;
    mdb::Database& db = test.open(1);
    db.store().ensure_block(9);
    const auto commit = [&](uint64_t at, const std::string& text) {
        mdb::Transaction transaction(db.journal());
        put(db, at, text);
        transaction.commit();
    };
    EXPECT_EQ(see(db, kData, 2), std::string(2, '\0'));
    commit(kData, "in");          // cached
    commit(kData + 1024, "out");  // not cached
    commit(kData + 1023, "XYZ");  // across both
    EXPECT_EQ(see(db, kData + 1024, 3), "YZt");
    EXPECT_EQ(see(db, kData, 2), "in");
    EXPECT_EQ(see(db, kData + 1023, 1), "X");
    EXPECT_EQ(test.part("db", kData, 2), Bytes(2, 0)) << "all of it came from the journal";
    EXPECT_EQ(db.cache().cache_size_kib(), 1U);
    EXPECT_THROW((void)db.cache().cached_block(1000), mdb::error_range);
    EXPECT_EQ(see(db, kData, 2), "in") << "a failed read leaves no trace";
}

TEST(BlockUpdates, HiddenPiecesGoUnlessAnOuterTransactionMadeThem) {
    mdb::detail::BlockUpdates updates;
    const auto sources = [&](uint32_t block) {
        std::vector<mdb::detail::BlockUpdates::Piece> pieces;
        updates.collect(block, pieces);
        std::vector<uint32_t> found;
        for (const auto& piece : pieces) found.push_back(piece.source);
        return found;
    };
    updates.add(5, 10, 10, 1, 0);
    updates.add(5, 40, 10, 2, 0);
    updates.add(5, 10, 10, 3, 0);
    updates.add(6, 0, 100, 4, 0);
    EXPECT_THAT(sources(5), testing::ElementsAre(2, 3));
    const size_t savepoint = updates.count();
    updates.add(5, 0, 100, 5, savepoint);
    updates.add(5, 0, 100, 6, savepoint);
    EXPECT_THAT(sources(5), testing::ElementsAre(2, 3, 6));
    updates.truncate(savepoint);
    EXPECT_THAT(sources(5), testing::ElementsAre(2, 3));
    EXPECT_THAT(sources(6), testing::ElementsAre(4));
    updates.truncate(0);
    EXPECT_THAT(sources(5), testing::IsEmpty());
    for (uint32_t block = 0; block < 1000; ++block) updates.add(block, 0, 1, block, 0);
    EXPECT_THAT(sources(999), testing::ElementsAre(999));
    updates.clear();
    EXPECT_THAT(sources(999), testing::IsEmpty());
}

}  // namespace
