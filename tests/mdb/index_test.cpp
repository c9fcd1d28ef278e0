// Cases of the index trees that random keys rarely meet, and what the start of the indexes does.

#include "mdb/index.h"

#include "index_fixture.h"

namespace mdb_test {
namespace {

TEST_F(IndexTest, AnEmptyIndex) {
    EXPECT_THROW(static_cast<void>(indexes->unique_search(kUnique, id(1))), mdb::error_nomatch);
    auto it = indexes->iterate_first(kUnique);
    EXPECT_FALSE(it.valid());
    EXPECT_THROW(indexes->iterator_next(it), mdb::error_internal);
    EXPECT_THROW(static_cast<void>(indexes->iterator_key(it)), mdb::error_internal);
    EXPECT_EQ(child(kUnique, 0), 0U);
    EXPECT_FALSE(indexes->find_after(kUnique, id(0)).valid());
    expect_whole();
}

TEST_F(IndexTest, GoldenBytesOfTheFirstLeaf) {
    change([&] { indexes->unique_update(kUnique, {1, 0xFFFFE381}, {9, 64}, false); });
    const uint32_t leaf = child(kUnique, 0);
    EXPECT_EQ(database->allocator().query_mark(leaf), mark_t::leaf);
    database->journal().full_checkpoint();
    EXPECT_EQ(file.part("db", leaf * 1024, 32),
              hex("4C454146 00000000 00000000 00000001 00000001 FFFFE381 00000009 "
                  "00000040"));
    EXPECT_EQ(file.part("db", root(kUnique) * 1024, 12), [&] {
        auto bytes = hex("52494E54 00000000 00000000");
        bytes[11] = static_cast<uint8_t>(leaf);
        return bytes;
    }());
}

TEST_F(IndexTest, ALeafSplitsInTheMiddleAndTheRootStays) {
    const uint32_t root_block = root(kUnique);
    for (uint32_t n = 1; n <= kLeafCapacity; ++n) insert_unique(n * 10);
    EXPECT_EQ(word(root_block, mdb::node_layout::nkeys), 0U);
    insert_unique(5);
    EXPECT_EQ(word(root_block, mdb::node_layout::nkeys), 1U);
    // Entry 32 of 63 starts the new leaf.
    EXPECT_EQ(word(root_block, 16), 330U);
    for (uint32_t n = kLeafCapacity + 1; n <= 6000; ++n) insert_unique(n * 10);
    EXPECT_EQ(root(kUnique), root_block);
    EXPECT_EQ(database->allocator().query_mark(child(kUnique, 0)), mark_t::non_root_index);
    expect_whole();
    // Taking everything out from the front renames and removes separators all the way.
    erase_unique(5);
    for (uint32_t n = 1; n <= 6000; ++n) erase_unique(n * 10);
    EXPECT_EQ(child(kUnique, 0), 0U);
    expect_whole();
}

TEST_F(IndexTest, RemovingTheFirstKeyOfALeafRenamesItsSeparator) {
    for (uint32_t n = 1; n <= kLeafCapacity + 1; ++n) insert_unique(n * 10);
    EXPECT_EQ(word(root(kUnique), 16), 330U);
    erase_unique(330);
    EXPECT_EQ(word(root(kUnique), 16), 340U);
    erase_unique(10);
    EXPECT_EQ(word(root(kUnique), 16), 340U) << "the leftmost leaf has no separator";
    insert_unique(335);
    EXPECT_EQ(indexes->unique_search(kUnique, id(335)), at(335));
    expect_whole();
}

TEST_F(IndexTest, UniqueConflictsAndAbsence) {
    insert_unique(1);
    const auto text_of = [&](auto&& work) -> std::string {
        Transaction transaction(database->journal());
        try {
            work();
        } catch (const mdb::error_generic& e) {
            return e.text();
        }
        return "";
    };
    EXPECT_EQ(text_of([&] { indexes->unique_update(kUnique, id(1), at(5), false); }),
              "Conflict on ID 1.1 previously 1:64 new 5:64");
    EXPECT_EQ(text_of([&] { indexes->unique_update(kUnique, id(2), at(5), true); }),
              "Missing entry for ID 1.2 new 5:64");
    EXPECT_EQ(text_of([&] { indexes->unique_delete(kUnique, id(2)); }),
              "NodeId index deletion could not find element to delete");
    EXPECT_EQ(text_of([&] { indexes->unique_delete(kRuns, id(2)); }),
              "Attempt to use unique delete on non-unique index");
    EXPECT_EQ(text_of([&] { indexes->non_unique_insert(5, id(2), at(1)); }),
              "Attempt to insert in non-unique non-existant index");
    EXPECT_EQ(text_of([&] { static_cast<void>(indexes->iterate_first(6)); }),
              "Unknown index given at full-index iteration");
    change([&] { indexes->unique_update(kUnique, id(1), at(9), true); });
    EXPECT_EQ(indexes->unique_search(kUnique, id(1)), at(9));
}

TEST_F(IndexTest, ANonUniqueIteratorRunsPastItsKeyToTheEnd) {
    for (uint32_t n = 1; n <= 100; ++n) insert(id(n * 2), n);
    // A key that isn't there: the next greater one, whichever leaf it is in.
    for (uint32_t n = 0; n < 200; n += 2) {
        const auto it = indexes->non_unique_search(kRuns, id(n + 1));
        ASSERT_TRUE(it.valid());
        EXPECT_FALSE(it.at_searched_key());
        EXPECT_EQ(indexes->iterator_key(it).second, n + 2);
    }
    auto it = indexes->non_unique_search(kRuns, id(150));
    uint32_t seen = 0;
    for (; it.valid(); indexes->iterator_next(it)) ++seen;
    EXPECT_EQ(seen, 26U);
    EXPECT_THROW(indexes->iterator_next(it), mdb::error_internal);
    EXPECT_FALSE(indexes->non_unique_search(kRuns, id(201)).valid());
}

TEST_F(IndexTest, StartBuildsMissingIndexesFromADeepTree) {
    const block_handle_t top = create({0, 1}, {});
    // A chain that recursion over objects would not survive.
    constexpr uint32_t kDepth = 10'000;
    for (uint32_t n = 2; n <= kDepth; ++n) create({0, n}, {0, n - 1});
    EXPECT_EQ(indexes->index_count(), 2U);
    mdb::start_indexes(*indexes, top, 12);
    EXPECT_EQ(indexes->index_count(), 6U);
    EXPECT_EQ(keys(mdb::active_parent_index).size(), kDepth / 2);
    EXPECT_EQ(keys(mdb::inherits_index).size(), kDepth);
    EXPECT_EQ(keys(mdb::master_id_index).size(), 0U);
    expect_whole();
    EXPECT_EQ(verify_all(), "");

    open();
    mdb::start_indexes(*indexes, top, 12);
    expect_whole();
    EXPECT_EQ(verify_all(), "");
    EXPECT_THROW(indexes->build_index(top, kRuns), mdb::error_internal);
}

TEST_F(IndexTest, ABuildThatWasCutOffIsGoneOnWith) {
    const block_handle_t top = create({0, 1}, {});
    const block_handle_t right = create({0, 2}, {0, 1});
    create({0, 4}, {0, 1});
    ASSERT_TRUE(indexes->ensure_index(2));
    {
        // One entry that is right, and one of an object that has changed since.
        mdb::Transaction transaction(database->journal());
        indexes->non_unique_insert(2, {0, 1}, right);
        indexes->non_unique_insert(2, {0, 9}, right);
        transaction.commit();
    }
    open();
    create({0, 6}, {0, 1});
    mdb::start_indexes(*indexes, top, 12);
    EXPECT_EQ(verify_all(), "");
    open();
    EXPECT_FALSE(indexes->ensure_index(2)) << "it is built now";
}

TEST_F(IndexTest, ACycleOfParentsEndsTheBuild) {
    const block_handle_t first = create({0, 1}, {0, 2});
    create({0, 2}, {0, 1});
    EXPECT_TRUE(indexes->ensure_index(2));
    EXPECT_THROW(indexes->build_index(first, 2), mdb::error_need_repair);
}

TEST_F(IndexTest, SparseIndexesAreRefused) {
    EXPECT_THROW(static_cast<void>(indexes->ensure_index(3)), mdb::error_internal);
    EXPECT_TRUE(indexes->ensure_index(2));
    EXPECT_TRUE(indexes->ensure_index(2)) << "it isn't built yet";
    indexes->finish_index(2);
    EXPECT_FALSE(indexes->ensure_index(2));
    EXPECT_THROW(static_cast<void>(indexes->ensure_index(4)), mdb::error_internal);
}

TEST_F(IndexTest, ARootThatIsNamedButNotMadeIsNotHandedOut) {
    const block_handle_t top = create({0, 1}, {});
    // A crash between the header and the node of a new index leaves this.
    mdb::Header header = database->header();
    const uint32_t root_block = database->allocator().allocate_empty_block(0, true);
    header.add_index(root_block);
    database->write_header(header);
    open();
    EXPECT_NE(database->allocator().allocate_empty_block(0, true), root_block);
    mdb::start_indexes(*indexes, top, 12);
    EXPECT_EQ(root(2), root_block);
    EXPECT_EQ(verify_all(), "");
}

TEST_F(IndexTest, AnAliasedIndexTakesThoseAboveItAlong) {
    const block_handle_t top = create({0, 1}, {});
    create({0, 2}, {0, 1});
    mdb::start_indexes(*indexes, top, 12);
    damage(root(2), mdb::node_layout::ptr0, top.block);
    for (int life = 0; life < 2; ++life) {
        mdb::start_indexes(*indexes, top, 12);
        EXPECT_EQ(indexes->index_count(), mdb::kMaxIndexes);
        EXPECT_EQ(keys(mdb::active_parent_index), (std::vector<uint32_t>{1}));
        EXPECT_EQ(verify_all(), "");
        open();
    }
}

}  // namespace
}  // namespace mdb_test
