// Indexes whose blocks were damaged on purpose: what the verifier says about them, and how
// operations that meet the damage end.

#include "index_fixture.h"
#include "log/log.h"

namespace mdb_test {
namespace {

TEST_F(IndexTest, DamageEndsOperationsWithAnError) {
    for (uint32_t n = 1; n <= kLeafCapacity * 3; ++n) insert_unique(n * 10);
    const uint32_t first = child(kUnique, 0);
    const uint32_t root_block = root(kUnique);
    const auto expect_repair = [&](uint32_t block, uint32_t offset, uint32_t value) {
        const uint32_t whole = word(block, offset);
        damage(block, offset, value);
        EXPECT_THROW(static_cast<void>(indexes->unique_search(kUnique, id(10))),
                     mdb::error_consistency);
        EXPECT_THROW(insert_unique(11), mdb::error_consistency);
        EXPECT_THROW(static_cast<void>(indexes->iterate_first(kUnique)), mdb::error_consistency);
        EXPECT_FALSE(database->journal().transaction_active());
        damage(block, offset, whole);
        expect_whole();
    };
    expect_repair(first, 0, 0);
    expect_repair(first, mdb::leaf_layout::nkeys, 0xFFFFFFFF);
    expect_repair(root_block, mdb::node_layout::nkeys, 0xFFFFFFFF);
    // A node that is its own child.
    expect_repair(root_block, mdb::node_layout::ptr0, root_block);
}

/// Text of the error that `work` ends with; empty without one.
template <class Work>
std::string error_of(Work&& work) {
    try {
        work();
    } catch (const mdb::error_generic& failure) {
        return failure.text();
    }
    return "";
}

TEST_F(IndexTest, DamagedLinksAndMarksStopAChangeBeforeItSpreads) {
    const uint32_t count = kLeafCapacity * 2;
    for (uint32_t n = 1; n <= count; ++n) insert_unique(n * 10);
    // Leaves of ascending keys are left half full.
    const uint32_t first = child(kUnique, 0);
    const uint32_t second = child(kUnique, 1);
    const uint32_t third = child(kUnique, 2);
    const uint32_t half = (kLeafCapacity + 1) / 2;
    const uint32_t last = word(root(kUnique), mdb::node_layout::nkeys);
    struct Case {
        uint32_t block, offset, value;
        uint32_t key;  // to be inserted
        const char* text;
    };
    const Case cases[] = {
        {first, mdb::leaf_layout::left, third, 11, "Left pointer set, but no data found"},
        {child(kUnique, last), mdb::leaf_layout::right, first, count * 10 + 1,
         "Right pointer set, but no data found"},
        {first, mdb::leaf_layout::right, third, (half + 1) * 10 + 1,
         "Our left element points to a bad right element"},
        {third, mdb::leaf_layout::left, first, (half + 1) * 10 + 1,
         "Our right element points to a bad left element"},
        {second, mdb::leaf_layout::magic, 0, (half + 1) * 10 + 1, "Corrupt index block at"},
        // A leaf that is larger than a block can hold, beside the one that changes.
        {second, mdb::leaf_layout::nkeys, 5000, 11, "Corrupt index block at"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const uint32_t whole = word(c.block, c.offset);
        damage(c.block, c.offset, c.value);
        const auto text = error_of([&] { insert_unique(c.key); });
        EXPECT_NE(text.find(c.text), std::string::npos) << text;
        EXPECT_FALSE(database->journal().transaction_active());
        damage(c.block, c.offset, whole);
        expect_whole();
    }
    // The only entry of a leaf goes, and the leaf with it, but its mark says something else.
    for (uint32_t n = half + 1; n < 2 * half; ++n) erase_unique(n * 10);
    for (const auto& [mark, text] :
         {std::pair{mark_t::empty, "already marked as free"},
          std::pair{mark_t::used, "the allocation map does not agree"}}) {
        SCOPED_TRACE(text);
        change([&] { database->allocator().set_mark(second, mark); });
        const auto thrown = error_of([&] { erase_unique(2 * half * 10); });
        EXPECT_NE(thrown.find(text), std::string::npos) << thrown;
        EXPECT_NE(thrown.find(fmt::format("index block {}", second)), std::string::npos);
        change([&] { database->allocator().set_mark(second, mark_t::leaf); });
        expect_whole();
    }
    erase_unique(2 * half * 10);
    expect_whole();
}

TEST_F(IndexTest, ABadSeparatorStopsTheSplitBelowIt) {
    for (uint32_t n = 1; n <= kLeafCapacity + 1; ++n) insert(id(n * 100), n);
    // The first leaf has become half of one: it is filled again, below a separator that is wrong.
    damage(root(kRuns), mdb::node_layout::entries + 4, 150);
    const auto text = error_of([&] {
        for (uint32_t n = 1; n <= kLeafCapacity; ++n) insert(id(100), 1000 + n);
    });
    EXPECT_NE(text.find("Index node holds badly ordered keys - or fixed position insert had bad "
                        "value (0). Index node: (nkeys: 1)(ptr0: "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("(key 0: 1.150 rptr="), std::string::npos) << text;
}

TEST_F(IndexTest, AbsentEntriesOfARunAreTold) {
    EXPECT_NE(error_of([&] { erase(id(1), 1); }).find("could not find non-empty leaf"),
              std::string::npos);
    insert(id(1), 5);
    insert(id(1), 6);
    insert(id(2), 7);
    EXPECT_EQ(error_of([&] { erase(id(1), 8); }),
              "Non-unique index (1) deletion could not find element to delete");
    EXPECT_EQ(error_of([&] { erase(id(1), 7); }),
              fmt::format("Bad id (1.2) when searching for 1.1 at index 2 with correct data in "
                          "leaf {}",
                          child(kRuns, 0)));
    EXPECT_EQ(
        error_of([&] { change([&] { indexes->non_unique_update(kRuns, id(1), at(7), at(9)); }); }),
        "Update of non-unique index using non-existing block handle (2 candidates)");
    EXPECT_EQ(error_of([&] { erase_unique(3); }),
              "NodeId index deletion could not find element to delete");
    expect_whole();
    // A run that is said to go on where the tree ends.
    damage(child(kRuns, 0), mdb::leaf_layout::right, child(kRuns, 0));
    erase(id(2), 7);
    EXPECT_EQ(error_of([&] { erase(id(1), 8); }),
              "Could not load right leaf when searching for leaf to delete key from");
}

TEST_F(IndexTest, ADeletionThatGoesOnBelowAnotherNodeShowsItsPath) {
    // A run over many leaves, ahead of it one other entry: the root splits within the run.
    insert(id(1), 1);
    uint32_t count = 0;
    while (word(child(kRuns, 0), 0) != mdb::node_layout::kMagic) insert(id(2), ++count);
    std::string lines;
    const logging::OutletScope outlet{
        [&](logging::level_t, std::string_view line) { lines += std::string(line) + "\n"; }};
    logging::set_all_levels(logging::level_t::debug);
    erase(id(2), count);
    logging::set_all_levels(logging::level_t::off);
    const size_t at =
        lines.find("In searchpath_linkto_right: must alter parents in the searchpath");
    ASSERT_NE(at, std::string::npos);
    for (const std::string& part :
         {fmt::format("Level 0: index=1 Index node: (nkeys: 1)(ptr0: {})(key 0: 1.2 rptr={})",
                      child(kRuns, 0), child(kRuns, 1)),
          std::string("Level 1: index=0 Index node: (nkeys: "),
          std::string("Level 2: index=0 Leaf node: (left: ")})
        EXPECT_NE(lines.find(part, at), std::string::npos) << part << "\n" << lines.substr(at, 600);
    EXPECT_EQ(values_of(id(2)).size(), count - 1);
    expect_whole();
}

TEST_F(IndexTest, ANeighbourThatIsNoLeafWantsRepair) {
    for (uint32_t n = 1; n <= kLeafCapacity + 1; ++n) insert(id(n * 100), n);
    damage(child(kRuns, 1), 0, 0);
    const auto split_first_leaf = [&] {
        for (uint32_t n = 1; n <= kLeafCapacity; ++n) insert(id(n), n);
    };
    EXPECT_THROW(split_first_leaf(), mdb::error_need_repair);
}

TEST_F(IndexTest, ARingOfLeavesEndsAnIteration) {
    for (uint32_t n = 1; n <= kLeafCapacity * 2; ++n) insert(id(1), n);
    const uint32_t first = child(kRuns, 0);
    damage(child(kRuns, 1), mdb::leaf_layout::right, first);
    EXPECT_THROW(static_cast<void>(values_of(id(1))), mdb::error_fubar);
    // Without an entry there is nothing to stop at.
    damage(first, mdb::leaf_layout::nkeys, 0);
    damage(first, mdb::leaf_layout::right, first);
    EXPECT_THROW(static_cast<void>(indexes->iterate_first(kRuns)), mdb::error_fubar);
}

}  // namespace
}  // namespace mdb_test
