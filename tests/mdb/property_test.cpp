// The records of all property types against bytes worked out by hand, and what reading does with
// absent, null, mistyped and damaged records.

#include <functional>
#include <gtest/gtest.h>
#include <memory>

#include "mdb/errors.h"
#include "mdb/object_slots.h"
#include "mdb/property_types.h"
#include "test_database.h"

namespace {

using mdb::Property;
using mdb_test::Bytes;
using mdb_test::hex;

enum class colour_t : uint32_t { red = 1, blue = 0x10203 };

/// Stores into a buffer that holds other bytes before.
Bytes stored(const Property& property) {
    std::vector<std::byte> record(property.record_length(), std::byte{0xEE});
    property.store(record);
    Bytes bytes;
    for (const std::byte b : record) bytes.push_back(std::to_integer<uint8_t>(b));
    return bytes;
}

std::vector<std::byte> as_bytes(const Bytes& bytes) {
    std::vector<std::byte> result;
    for (const uint8_t b : bytes) result.push_back(std::byte{b});
    return result;
}

template <class P>
void expect_record(const P& property, const std::string& golden) {
    SCOPED_TRACE(golden);
    EXPECT_EQ(stored(property), hex(golden));
    P read;
    read.load(as_bytes(hex(golden)));
    EXPECT_EQ(read.id, property.id);
    EXPECT_EQ(read.value, property.value);
}

TEST(PropertyRecord, WordsOfAllTypes) {
    using namespace mdb;
    expect_record(PropertyUint32(0x0A0B, 0xFFFFFFFE), "00000A0B 00000010 00000001 FFFFFFFE");
    expect_record(PropertyInt32(3, -2), "00000003 00000010 00000002 FFFFFFFE");
    expect_record(PropertyEnum<colour_t>(3, colour_t::blue), "00000003 00000010 00000005 00010203");
    expect_record(PropertyBool(502, true), "000001F6 00000010 00000006 01000000");
    expect_record(PropertyBool(502, false), "000001F6 00000010 00000006 00000000");
    expect_record(PropertyCount(9, 7), "00000009 00000010 00000008 00000007");
    expect_record(PropertySeries(9, 0xFFFFFFFF), "00000009 00000010 00000009 FFFFFFFF");
    // Beyond 2^31 - 1 a date is still positive.
    expect_record(PropertyDate(9, 0x80000001), "00000009 00000010 00000007 80000001");
    expect_record(PropertyUint64(9, 0x0102030405060708),
                  "00000009 00000018 0000000B 01020304 05060708 00000000");
    expect_record(PropertyDouble(9, -2.5), "00000009 00000018 00000006 C0040000 00000000 00000000");
    expect_record(PropertyNodeId(2, NodeId{1, 0xFFFFE381}),
                  "00000002 00000018 00000004 00000001 FFFFE381 00000000");
}

TEST(PropertyRecord, TextsAndBytes) {
    using namespace mdb;
    expect_record(PropertyString(51, ""), "00000033 00000010 00000003 00000000");
    expect_record(PropertyString(51, "abc"), "00000033 00000010 00000003 61626300");
    expect_record(PropertyString(51, "abcd"),
                  "00000033 00000018 00000003 61626364 00000000 00000000");
    expect_record(PropertyBlob(7, {}), "00000007 00000010 0000000D 00000000");
    expect_record(PropertyBlob(7, {1, 0, 2, 0, 3}),
                  "00000007 00000018 0000000D 00000005 01000200 03000000");
    expect_record(PropertyBigNum(7, BigNum()), "00000007 00000010 00000007 00000000");
    expect_record(PropertyBigNum(7, BigNum(0x00ABCDEFU)),
                  "00000007 00000018 00000007 00000003 ABCDEF00 00000000");
    expect_record(PropertyBigNum(7, BigNum(std::string_view("\1\0\0\0\2", 5))),
                  "00000007 00000018 00000007 00000005 02000000 01000000");
}

TEST(PropertyRecord, VersionsAndMarks) {
    using namespace mdb;
    expect_record(PropertyVersion(1, StoredVersion{0x1122334455667788, 2}),
                  "00000001 00000020 0000000A 00000001 11223344 55667788 00000000 00000002");
    expect_record(PropertyMarkIndex(65, MarkLinks{{0, 1}, {1, 0xFFFFFFFE}, {255, 3}, true}),
                  "00000041 00000020 0000000E 010001FF 00000001 FFFFFFFE 00000003 00000000");
    PropertyMarkIndex wide(65, MarkLinks{{256, 1}, {}, {}, false});
    EXPECT_THROW(static_cast<void>(stored(wide)), mdb::error_internal);
}

TEST(PropertyRecord, Lists) {
    using namespace mdb;
    expect_record(PropertySnmpOid(5), "00000005 00000018 00000101 00000000 00000000 00000000");
    expect_record(PropertySnmpOid(5, {1, 0xFFFFFFFF}),
                  "00000005 00000028 00000101 00000002 00000000 00000001 00000000 FFFFFFFF "
                  "00000000 00000000");
    expect_record(PropertyNodeIdList(5, {{0, 1}, {1, 2}}),
                  "00000005 00000028 00000104 00000002 00000000 00000000 00000001 00000001 "
                  "00000002 00000000");
    // 7 letters and the NUL fill 8 bytes, 8 letters take 16.
    expect_record(PropertyStringList(5, {"seven77", "eight888", ""}),
                  "00000005 00000038 00000103 00000003 00000000 736576656E373700 6569676874383838 "
                  "0000000000000000 0000000000000000 00000000");
}

TEST(PropertyRecord, InheritedAndNull) {
    mdb::PropertyUint32 property(3, 9);
    property.inherited = 1;
    EXPECT_EQ(stored(property), hex("00000003 00000010 80000001 00000009"));
    std::array<std::byte, 12> record{};
    property.store_null(record);
    EXPECT_TRUE(std::ranges::equal(record, as_bytes(hex("00000003 0000000C C0000001"))));
    property.inherited = 0;
    property.store_null(record);
    EXPECT_TRUE(std::ranges::equal(record, as_bytes(hex("00000003 0000000C 40000001"))));
}

TEST(PropertyRecord, ATextWithANulIsRefused) {
    EXPECT_THROW(static_cast<void>(stored(mdb::PropertyString(51, std::string("a\0b", 3)))),
                 mdb::error_internal);
    EXPECT_THROW(
        static_cast<void>(stored(mdb::PropertyStringList(51, {"a", std::string(1, '\0')}))),
        mdb::error_internal);
}

/// An object of these records, at offset 8 of a block.
class ObjectBytes {
  public:
    explicit ObjectBytes(const std::string& records)
        : block_(as_bytes(hex("00000009 00000000 00000000" + records))) {
        mdb::set_slot(block_, {8, static_cast<uint32_t>(block_.size()) - 8, false});
    }
    [[nodiscard]] mdb::dobj object() const { return {{17, 8}, block_.data()}; }

  private:
    std::vector<std::byte> block_;
};

/// The class and text of what reading `property` throws; empty when it throws nothing.
std::string read_error(Property& property, const std::string& records) {
    const ObjectBytes bytes(records);
    try {
        property.read(bytes.object());
        return "";
    } catch (const mdb::error_implicit_nullprop& e) {
        return "implicit: " + e.text();
    } catch (const mdb::error_explicit_nullprop& e) {
        return "explicit: " + e.text();
    } catch (const mdb::error_wrongtype& e) {
        return "type: " + e.text();
    } catch (const mdb::error_need_repair& e) {
        return "repair: " + e.text();
    }
}

TEST(PropertyRead, FindsItsRecordAmongOthers) {
    mdb::PropertyUint32 property(3);
    EXPECT_EQ(read_error(property,
                         "00000004 00000010 00000001 00000001"
                         "00000003 00000010 80000001 00000002"),
              "");
    EXPECT_EQ(property.value, 2U);
    EXPECT_EQ(property.inherited, 1);
}

TEST(PropertyRead, TellsAbsenceNullAndWrongType) {
    mdb::PropertyUint32 property(3);
    property.inherited = 1;
    EXPECT_EQ(read_error(property, ""), "implicit: Attempt to read (I)null property \"3\"");
    EXPECT_EQ(property.inherited, 0);
    EXPECT_EQ(read_error(property, "00000003 0000000C C0000001"),
              "explicit: Attempt to read (E)null property \"3\"");
    EXPECT_EQ(property.inherited, 1);
    EXPECT_EQ(read_error(property, "00000003 00000010 00000002 00000001"),
              "type: Attempt to read badly typed property id 3 in object 17:8 had type ID 2, "
              "wanted 1");
}

TEST(PropertyRead, DamageIsAnErrorNotACrash) {
    const std::string other = "00000004 00000010 00000001 00000001";
    struct Row {
        std::string records;
        const char* text;
    };
    mdb::PropertyUint32 number(3);
    for (const Row& row : {
             Row{other + "00000003 00000000 00000001 00000001",
                 "repair: Property of zero size in 17:8"},
             Row{other + "00000003 00000008 00000001", "repair: Property of bad size in 17:8"},
             Row{other + "00000003 00000018 00000001 00000001",
                 "repair: Property of bad size in 17:8"},
             Row{other + "00000003 000000", "repair: Property of bad size in 17:8"},
             Row{"00000003 0000000C 00000001",
                 "repair: Property 3 has a record of 12 bytes that holds no value of type 1"},
         })
        EXPECT_EQ(read_error(number, row.records), row.text);

    const auto expect_cut = [](Property&& property, const std::string& record) {
        EXPECT_EQ(read_error(property, record).substr(0, 6), "repair") << record;
    };
    expect_cut(mdb::PropertyString(3), "00000003 00000010 00000003 61626364");
    expect_cut(mdb::PropertyNodeId(3), "00000003 00000010 00000004 00000001");
    expect_cut(mdb::PropertyBlob(3), "00000003 00000010 0000000D 00000001");
    expect_cut(mdb::PropertyBlob(3), "00000003 00000010 0000000D FFFFFFFF");
    expect_cut(mdb::PropertyBigNum(3), "00000003 00000010 00000007 FFFFFFFF");
    expect_cut(mdb::PropertyMarkIndex(3), "00000003 00000018 0000000E 00000000 00000000 00000000");
    expect_cut(mdb::PropertyVersion(3), "00000003 00000018 0000000A 00000001 00000000 00000000");
    // Counts that no record could hold must not be believed.
    expect_cut(mdb::PropertySnmpOid(3), "00000003 00000018 00000101 FFFFFFFF 00000000 00000000");
    expect_cut(mdb::PropertySnmpOid(3), "00000003 00000018 00000101 00000002 00000000 00000000");
    expect_cut(mdb::PropertyStringList(3),
               "00000003 00000020 00000103 00000002 00000000 61616161 61616100 61616161");
}

TEST(PropertyRead, DoubleAndBoolShareATypeId) {
    mdb::PropertyBool flag(9);
    EXPECT_EQ(read_error(flag, "00000009 00000018 00000006 40040000 00000000 00000000"), "");
    EXPECT_TRUE(flag.value);
}

}  // namespace
