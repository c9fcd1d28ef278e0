// Slots within a block, stored objects, and random work on an object store beside a map that it
// must agree with.

#include <gtest/gtest.h>
#include <map>

#include "mdb/index.h"
#include "mdb/object_slots.h"
#include "mdb/object_store.h"
#include "mdb/property_types.h"
#include "mdb/verify.h"
#include "support/rng.h"
#include "test_database.h"

namespace {

using mdb::block_handle_t;
using mdb::Slot;
using mdb::Transaction;

/// The slots of a block in short form: "p1020 o4" is a placeholder and an object.
std::string slots_of(std::span<const std::byte> block) {
    std::string text;
    for (uint32_t at = 0; at < block.size();) {
        const Slot slot = mdb::slot_at(block, at);
        text += fmt::format("{}{}{}", text.empty() ? "" : " ", slot.placeholder ? "p" : "o",
                            slot.length);
        if (!mdb::slot_fits(slot, block.size())) return text + "!";
        at = slot.end();
    }
    return text;
}

std::vector<std::byte> block_of(const std::vector<std::pair<bool, uint32_t>>& slots) {
    std::vector<std::byte> block(1024);
    uint32_t at = 0;
    for (const auto& [placeholder, length] : slots) {
        mdb::set_slot(block, {at, length, placeholder});
        at += length;
    }
    return block;
}

TEST(ObjectSlots, SplitCutsFromTheEnd) {
    auto block = block_of({{true, 1024}});
    const auto split = mdb::split_placeholder(block, 0, 1020);
    EXPECT_TRUE(split.cut);
    EXPECT_EQ(split.slot.offset, 4U);
    EXPECT_EQ(slots_of(block), "p4 o1020");

    block = block_of({{true, 1024}});
    EXPECT_FALSE(mdb::split_placeholder(block, 0, 1024).cut);
    EXPECT_EQ(slots_of(block), "p1024") << "an exact fit stays untouched";
    EXPECT_THROW(mdb::split_placeholder(block, 0, 1026), mdb::error_internal);
    EXPECT_THROW(mdb::split_placeholder(block, 0, 21), mdb::error_internal);
}

TEST(ObjectSlots, FreeingJoinsPlaceholdersOnBothSides) {
    struct Row {
        std::vector<std::pair<bool, uint32_t>> before;
        uint32_t freed;
        uint32_t changed;
        const char* after;
    };
    const Row rows[] = {
        {{{false, 1024}}, 0, 0, "p1024"},
        {{{true, 100}, {false, 24}, {true, 900}}, 100, 0, "p1024"},
        {{{true, 100}, {false, 24}, {false, 900}}, 100, 0, "p124 o900"},
        {{{false, 100}, {false, 24}, {true, 900}}, 100, 100, "o100 p924"},
        // A placeholder further ahead isn't the neighbour.
        {{{true, 50}, {false, 50}, {false, 24}, {false, 900}}, 100, 100, "p50 o50 p24 o900"},
        {{{false, 1000}, {false, 24}}, 1000, 1000, "o1000 p24"},
        {{{false, 4}, {false, 1020}}, 0, 0, "p4 o1020"},
    };
    for (const Row& row : rows) {
        auto block = block_of(row.before);
        const auto result = mdb::free_slot_in_block(block, row.freed);
        EXPECT_EQ(slots_of(block), row.after);
        EXPECT_EQ(result.changed_offset, row.changed);
        EXPECT_EQ(result.damaged_offset, std::nullopt);
    }
}

TEST(ObjectSlots, FreeingGoesOnPastDamage) {
    auto block = block_of({{false, 100}, {false, 100}, {false, 824}});
    mdb::set_slot(block, {100, 0, true});
    const auto result = mdb::free_slot_in_block(block, 200);
    EXPECT_EQ(result.damaged_offset, 100U);
    EXPECT_EQ(result.changed_offset, 200U);
    EXPECT_TRUE(mdb::slot_at(block, 200).placeholder);
}

/// A database with its required indexes and an object store, which can be opened again.
class ObjectStoreTest : public testing::Test {
  protected:
    ObjectStoreTest() : file(4 << 20, 16 << 20) { open(); }

    /// As by the death of the process.
    void close() {
        store.reset();
        indexes.reset();
        file.close();
    }
    void open(uint32_t buffer_blocks = 64) {
        close();
        database = &file.open(buffer_blocks);
        indexes.emplace(*database);
        indexes->init_required_indexes();
        store.emplace(*database, *indexes);
        if (indexes->index_count() == mdb::kRequiredIndexes) {
            for (uint32_t n = mdb::kRequiredIndexes; n < mdb::kMaxIndexes; ++n) {
                EXPECT_TRUE(indexes->ensure_index(n));
                indexes->finish_index(n);
            }
        }
    }

    block_handle_t create(NodeId id, NodeId parent, const std::string& text) {
        auto& serializer = database->serializer();
        serializer.serial_reset();
        serializer.serial_add(mdb::PropertyNodeId(0, id));
        serializer.serial_add(mdb::PropertyNodeId(2, parent));
        serializer.serial_add(mdb::PropertyString(51, text));
        return store->store_object({});
    }
    std::string text_of(block_handle_t handle) {
        mdb::PropertyString property(51);
        property.read(store->fetch_object(handle));
        return property.value;
    }
    block_handle_t place(NodeId id) { return indexes->unique_search(mdb::node_id_index, id); }
    mdb::mark_t mark(uint32_t block) { return database->allocator().query_mark(block); }
    std::string slots(uint32_t block) {
        return slots_of({database->cache().cached_block(block), database->block_size()});
    }
    void expect_whole() {
        mdb::VerifyOptions options;
        options.nameless_objects = true;
        ASSERT_EQ(mdb::verify(*database, options).text(), "");
    }

    mdb_test::TestDatabase file;
    mdb::Database* database = nullptr;
    std::optional<mdb::IndexTable> indexes;
    std::optional<mdb::ObjectStore> store;
};

TEST_F(ObjectStoreTest, AnObjectLivesAndDies) {
    const block_handle_t handle = create({0, 1}, {}, "root");
    EXPECT_EQ(place({0, 1}), handle);
    EXPECT_EQ(text_of(handle), "root");
    EXPECT_EQ(mark(handle.block), mdb::mark_t::used);
    // 4 + 24 + 24 + 24 bytes, cut from the end.
    EXPECT_EQ(slots(handle.block), "p948 o76");

    open();
    EXPECT_EQ(text_of(place({0, 1})), "root");
    store->delete_object(handle, false);
    EXPECT_EQ(mark(handle.block), mdb::mark_t::empty);
    EXPECT_EQ(slots(handle.block), "p1024") << "the freed block keeps one placeholder";
    EXPECT_THROW(static_cast<void>(place({0, 1})), mdb::error_nomatch);
    expect_whole();
}

TEST_F(ObjectStoreTest, AnUpdateOfTheSameSizeStays) {
    const block_handle_t handle = create({0, 1}, {}, "abc");
    auto image = store->begin_object_update(handle);
    store->update_property(image, mdb::PropertyString(51, "xyz"), false, false);
    EXPECT_EQ(store->commit_object_update(image), handle);
    EXPECT_FALSE(image.loaded());
    EXPECT_EQ(text_of(handle), "xyz");
}

TEST_F(ObjectStoreTest, GrowingMovesTheObjectWithinItsBlock) {
    const block_handle_t handle = create({0, 1}, {}, "abc");
    create({0, 2}, {0, 1}, "other");
    auto image = store->begin_object_update(handle);
    store->update_property(image, mdb::PropertyString(51, std::string(100, 'x')), false, false);
    const block_handle_t moved = store->commit_object_update(image);
    EXPECT_EQ(moved.block, handle.block);
    EXPECT_NE(moved, handle);
    EXPECT_EQ(place({0, 1}), moved);
    EXPECT_EQ(text_of(moved), std::string(100, 'x'));
    expect_whole();
}

TEST_F(ObjectStoreTest, RewritingTheSameBytesJournalsNothing) {
    const block_handle_t handle = create({0, 1}, {}, "abc");
    const uint32_t before = database->journal().write_pos();
    auto image = store->begin_object_update(handle);
    store->update_property(image, mdb::PropertyString(51, "abc"), false, false);
    EXPECT_EQ(store->commit_object_update(image), handle);
    EXPECT_EQ(database->journal().write_pos(), before);
}

TEST_F(ObjectStoreTest, ImagesAddNullRemoveAndRefuse) {
    const block_handle_t handle = create({0, 1}, {}, "abc");
    auto image = store->begin_object_update(handle);
    store->update_property(image, mdb::PropertyUint32(7, 5), true, false);
    store->update_property(image, mdb::PropertyString(51), true, true);
    EXPECT_THROW(store->update_property(image, mdb::PropertyUint32(8, 5), false, false),
                 mdb::error_implicit_nullprop);
    EXPECT_THROW(store->remove_property(image, 8, false), mdb::error_implicit_nullprop);
    store->remove_property(image, 8, true);
    EXPECT_THROW(
        store->update_property(image, mdb::PropertyBlob(9, mdb_test::Bytes(1000)), true, false),
        mdb::error_bigobj);
    mdb::PropertyUint32 number(7);
    number.read(image);
    EXPECT_EQ(number.value, 5U) << "an image can be read while it changes";
    const block_handle_t moved = store->commit_object_update(image);
    mdb::PropertyString text(51);
    EXPECT_THROW(text.read(store->fetch_object(moved)), mdb::error_explicit_nullprop);

    image = store->begin_object_update(moved);
    for (const uint32_t id : {0U, 2U, 7U, 51U}) store->remove_property(image, id, false);
    EXPECT_THROW(store->remove_property(image, 0, false), mdb::error_implicit_nullprop);
    const block_handle_t bare = store->commit_object_update(image);
    EXPECT_THROW(text.read(store->fetch_object(bare)), mdb::error_implicit_nullprop);
    EXPECT_THROW(static_cast<void>(place({0, 1})), mdb::error_nomatch);
    EXPECT_EQ(slots(bare.block), "p1020 o4");
    expect_whole();
}

TEST_F(ObjectStoreTest, DuplicateRecordsAreMergedIntoTheFirst) {
    const block_handle_t handle = create({0, 1}, {}, "abc");
    auto image = store->begin_object_update(handle);
    // A second record with id 51, as only damage can leave one.
    std::byte* bytes = image.writable();
    const auto slot = mdb::object_slot(image);
    std::copy_n(slot.end() - 16, 16, bytes + slot.size());
    mdb::set_slot({bytes, 1024}, {0, static_cast<uint32_t>(slot.size()) + 16, false});
    store->update_property(image, mdb::PropertyString(51, "new"), false, false);
    EXPECT_EQ(mdb::object_slot(image).size(), 4U + 24 + 24 + 16);
    EXPECT_EQ(text_of(store->commit_object_update(image)), "new");
}

TEST_F(ObjectStoreTest, AnObjectBehindDamageCanBeDeleted) {
    create({0, 1}, {}, "stays");
    const block_handle_t last = place({0, 1});
    const uint64_t block = database->store().block_offset(last.block);
    {
        Transaction transaction(database->journal());
        mdb_test::put(*database, block, std::string(4, '\0'));
        transaction.commit();
    }
    const auto before = mark(last.block);
    store->delete_object(last, true);
    EXPECT_THROW(static_cast<void>(place({0, 1})), mdb::error_nomatch);
    EXPECT_THROW(static_cast<void>(store->load_object(last)), mdb::error_need_repair);
    EXPECT_EQ(mark(last.block), before);
}

TEST_F(ObjectStoreTest, BadHandlesAreRefused) {
    const block_handle_t handle = create({0, 1}, {}, "abc");
    EXPECT_THROW(static_cast<void>(store->load_object({})), mdb::error_nullobj);
    EXPECT_THROW(static_cast<void>(store->fetch_object({})), mdb::error_nullobj);
    EXPECT_THROW(static_cast<void>(store->begin_object_update({})), mdb::error_internal);
    EXPECT_THROW(static_cast<void>(store->load_object({handle.block, 0})), mdb::error_need_repair);
    EXPECT_THROW(static_cast<void>(store->fetch_object({handle.block, 0})), mdb::error_need_repair);
    for (const uint32_t offset : {1021U, 1024U, 5000U})
        EXPECT_THROW(static_cast<void>(store->fetch_object({handle.block, offset})),
                     mdb::error_need_repair);
    EXPECT_THROW(static_cast<void>(store->fetch_object({4'000'000, 0})), mdb::error_generic);
}

TEST_F(ObjectStoreTest, ABlockHoldsOneObjectOfItsOwnSize) {
    auto& serializer = database->serializer();
    const auto fill = [&](size_t text_length) {
        serializer.serial_reset();
        serializer.serial_add(mdb::PropertyString(51, std::string(text_length, 'x')));
    };
    fill(1016 - 12 - 1);
    const block_handle_t handle = store->store_object({});
    EXPECT_EQ(slots(handle.block), "p4 o1020");
    // The cache takes records of a whole block, which no slot can.
    fill(1024 - 12 - 1);
    EXPECT_EQ(serializer.serial_size(), 1024U);
    EXPECT_THROW(store->store_object({}), mdb::error_dbnospace);
    EXPECT_FALSE(database->journal().transaction_active());
    EXPECT_THROW(fill(1024 - 12), mdb::error_bigobj);
    expect_whole();
}

TEST_F(ObjectStoreTest, AFailedStoreLeavesNothing) {
    create({0, 1}, {}, "abc");
    const uint32_t before = database->journal().write_pos();
    EXPECT_THROW(create({0, 1}, {}, "twin"), mdb::error_index_conflict);
    EXPECT_FALSE(database->journal().transaction_active());
    EXPECT_EQ(database->journal().write_pos(), before);
    expect_whole();
}

TEST_F(ObjectStoreTest, TheHookHearsOfChangesNotOfCreation) {
    std::vector<block_handle_t> heard;
    store->set_object_change_hook([&](block_handle_t h) { heard.push_back(h); });
    const block_handle_t handle = create({0, 1}, {}, "abc");
    EXPECT_TRUE(heard.empty());
    auto image = store->begin_object_update(handle);
    store->commit_object_update(image);
    EXPECT_EQ(store->store_object(handle), handle);
    store->delete_object(handle, true);
    EXPECT_EQ(heard, std::vector(3, handle));
}

/// What the map beside the store knows of one object.
struct ModelObject {
    NodeId parent;
    bool active = false;
    std::string text;
    friend bool operator==(const ModelObject&, const ModelObject&) = default;
};
using Model = std::map<NodeId, ModelObject>;

class ObjectStoreModel : public ObjectStoreTest {
  protected:
    void put(NodeId id, const ModelObject& object) {
        auto& serializer = database->serializer();
        serializer.serial_reset();
        serializer.serial_add(mdb::PropertyNodeId(0, id));
        serializer.serial_add(mdb::PropertyNodeId(2, object.parent));
        serializer.serial_add(mdb::PropertyBool(502, object.active));
        serializer.serial_add(mdb::PropertyString(51, object.text));
    }
    ModelObject get(block_handle_t handle) {
        mdb::PropertyNodeId parent(2);
        mdb::PropertyBool active(502);
        mdb::PropertyString text(51);
        const mdb::dobj object = store->load_object(handle);
        parent.read(object);
        active.read(object);
        text.read(object);
        return {parent.value, active.value, text.value};
    }
    ModelObject random_object() {
        const size_t length = rng.chance(5) ? rng.below(850) : rng.below(90);
        return {{0, static_cast<uint32_t>(rng.below(8))},
                rng.chance(50),
                std::string(length, static_cast<char>('a' + rng.below(26)))};
    }
    void random_step() {
        const NodeId id{1, static_cast<uint32_t>(rng.below(250))};
        const auto known = model.find(id);
        if (known == model.end()) {
            if (rng.chance(30)) return;
            model[id] = random_object();
            put(id, model[id]);
            store->store_object({});
        } else if (rng.chance(30)) {
            store->delete_object(place(id), true);
            model.erase(known);
        } else if (rng.chance(30)) {
            known->second = random_object();
            put(id, known->second);
            store->store_object(place(id));
        } else {
            const ModelObject fresh = random_object();
            auto image = store->begin_object_update(place(id));
            store->update_property(image, mdb::PropertyString(51, fresh.text), false, false);
            known->second.text = fresh.text;
            if (rng.chance(50)) {
                store->update_property(image, mdb::PropertyNodeId(2, fresh.parent), false, false);
                known->second.parent = fresh.parent;
            }
            store->commit_object_update(image);
        }
    }
    /// Transactions in transactions; what is undone is undone in the model too.
    void random_transaction(int depth) {
        const Model before = model;
        Transaction transaction(database->journal());
        for (uint64_t left = 1 + rng.below(6); left > 0; --left) {
            if (depth < 3 && rng.chance(20))
                random_transaction(depth + 1);
            else
                random_step();
        }
        if (rng.chance(25))
            model = before;
        else
            transaction.commit();
    }
    void expect_model() {
        expect_whole();
        size_t found = 0;
        for (auto it = indexes->iterate_first(mdb::node_id_index); it.valid();
             indexes->iterator_next(it), ++found) {
            const auto known = model.find(indexes->iterator_key(it));
            ASSERT_NE(known, model.end());
            ASSERT_EQ(get(indexes->iterator_value(it)), known->second);
        }
        ASSERT_EQ(found, model.size());
    }

    support::Rng rng{0};
    Model model;
};

TEST_F(ObjectStoreModel, RandomTransactionsAgreeWithAMap) {
    for (const uint64_t seed : {21, 22, 23}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        rng = support::Rng(seed);
        for (int round = 0; round < 600; ++round) {
            random_transaction(0);
            if (rng.chance(1)) open(static_cast<uint32_t>(1 + rng.below(40)));
            if (round % 60 == 0) expect_model();
            if (HasFatalFailure()) return;
        }
        open();
        expect_model();
    }
    // With everything deleted no object block may be left, and the file must have been reused.
    while (!model.empty()) {
        store->delete_object(place(model.begin()->first), true);
        model.erase(model.begin());
    }
    expect_model();
    for (uint32_t b = database->allocator().first_data_block(); b < 16384; ++b)
        ASSERT_TRUE(mark(b) != mdb::mark_t::used && mark(b) != mdb::mark_t::full) << b;
    EXPECT_LT(database->store().file_length(), 2U << 20);
}

}  // namespace
