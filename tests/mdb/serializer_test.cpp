// The serialization cache by itself, and the walk over objects that needs no index.
#include "mdb/serializer.h"

#include <gtest/gtest.h>

#include "mdb/errors.h"
#include "mdb/index.h"
#include "mdb/object_scan.h"
#include "mdb/object_slots.h"
#include "mdb/object_store.h"
#include "mdb/property_types.h"
#include "test_database.h"

namespace {

using mdb_test::Bytes;
using mdb_test::hex;

constexpr uint32_t kBlock = 1024;

Bytes content(const mdb::Serializer& serializer) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(serializer.data());
    return {bytes, bytes + serializer.serial_size()};
}

TEST(Serializer, KeepsTheFirstRecordOfAnIdInWhateverFormItCame) {
    const Bytes number = hex("00000007 00000010 00000001 00000005");
    const Bytes null = hex("00000008 0000000C 40000003");
    const Bytes raw = hex("00000009 00000010 80000001 000000AB");
    mdb::Serializer serializer(kBlock);
    serializer.serial_add(mdb::PropertyUint32(7, 5));
    serializer.serial_add_null(mdb::PropertyString(8));
    serializer.serial_add_raw(reinterpret_cast<const std::byte*>(raw.data()));
    for (const uint32_t id : {7U, 8U, 9U}) {
        serializer.serial_add(mdb::PropertyUint32(id, 99));
        serializer.serial_add_null(mdb::PropertyUint32(id, 99));
    }
    Bytes second_raw = raw;
    for (const uint8_t id : hex("07 08 09")) {
        second_raw[3] = id;
        serializer.serial_add_raw(reinterpret_cast<const std::byte*>(second_raw.data()));
    }
    Bytes wanted = number;
    wanted.insert(wanted.end(), null.begin(), null.end());
    wanted.insert(wanted.end(), raw.begin(), raw.end());
    EXPECT_EQ(content(serializer), wanted);
    serializer.serial_reset();
    serializer.serial_add_null(mdb::PropertyString(8));
    EXPECT_EQ(content(serializer), null);
}

TEST(Serializer, ARecordOfAnyFormThatDoesNotFitChangesNothing) {
    mdb::Serializer serializer(kBlock);
    serializer.serial_add(mdb::PropertyBlob(1, Bytes(kBlock - 8 - 16)));
    ASSERT_EQ(serializer.serial_size(), kBlock - 8);
    const Bytes raw = hex("00000009 00000010 00000001 000000AB");
    EXPECT_THROW(serializer.serial_add(mdb::PropertyUint32(7, 5)), mdb::error_bigobj);
    EXPECT_THROW(serializer.serial_add_null(mdb::PropertyUint32(7)), mdb::error_bigobj);
    EXPECT_THROW(serializer.serial_add_raw(reinterpret_cast<const std::byte*>(raw.data())),
                 mdb::error_bigobj);
    EXPECT_EQ(serializer.serial_size(), kBlock - 8);
    EXPECT_THROW(mdb::Serializer{0}, mdb::error_internal);
}

TEST(Serializer, StoresIntoAPlaceholderOfItsSize) {
    mdb::BlockPool pool(kBlock);
    mdb::dobj object({5, 100}, pool.acquire());
    const std::span<std::byte> block(object.writable(), kBlock);
    std::fill(block.begin(), block.end(), std::byte{0xEE});
    mdb::Serializer serializer(kBlock);
    serializer.serial_add(mdb::PropertyUint32(7, 5));

    mdb::set_slot(block, {100, 20, true});
    serializer.serial_store_at(object);
    const Bytes wanted = hex("00000014 00000007 00000010 00000001 00000005 EEEEEEEE");
    EXPECT_EQ(std::memcmp(&block[100], wanted.data(), wanted.size()), 0) << "an object slot now";
    EXPECT_EQ(block[99], std::byte{0xEE});
}

TEST(ScanObjects, FindsAllWithoutAnIndexAndPassesOverDamage) {
    mdb_test::TestDatabase file(1 << 20);
    mdb::Database& database = file.open();
    std::vector<mdb::block_handle_t> places;
    {
        mdb::IndexTable indexes(database);
        indexes.init_required_indexes();
        mdb::ObjectStore store(database, indexes);
        for (uint32_t n = 1; n <= 12; ++n) {
            auto& serializer = database.serializer();
            serializer.serial_reset();
            serializer.serial_add(mdb::PropertyNodeId(0, {0, n}));
            serializer.serial_add(mdb::PropertyString(51, std::string(200, 'x')));
            places.push_back(store.store_object({}));
        }
        store.delete_object(places[3], true);
        places.erase(places.begin() + 3);
    }
    const auto scan = [&] {
        std::vector<std::pair<uint32_t, uint32_t>> found;
        mdb::scan_objects(database, [&](const mdb::dobj& object) {
            found.emplace_back(object.block, object.offset);
            mdb::PropertyNodeId id(0);
            EXPECT_NO_THROW(id.read(object));
        });
        std::sort(found.begin(), found.end());
        return found;
    };
    std::vector<std::pair<uint32_t, uint32_t>> wanted;
    for (const auto& place : places) wanted.emplace_back(place.block, place.offset);
    std::sort(wanted.begin(), wanted.end());
    ASSERT_GT(wanted.back().first, wanted.front().first);
    EXPECT_EQ(scan(), wanted);

    // Lengths of nothing, of more than the block, and of a slot too short for an object.
    const auto [block, offset] = wanted[1];
    ASSERT_EQ(wanted[0].first, block);
    for (const char* length : {"00000000", "00000800", "00000002"}) {
        SCOPED_TRACE(length);
        const Bytes word = hex(length);
        mdb::Transaction transaction(database.journal());
        database.journal().journal_update(word.data(), 4,
                                          database.store().block_offset(block) + offset);
        transaction.commit();
        auto left = scan();
        // What lies ahead of the damage and in other blocks is there.
        EXPECT_EQ(left.front(), wanted.front());
        EXPECT_EQ(left.back(), wanted.back());
        EXPECT_LT(left.size(), wanted.size());
        EXPECT_TRUE(std::includes(wanted.begin(), wanted.end(), left.begin(), left.end()));
    }
}

}  // namespace
