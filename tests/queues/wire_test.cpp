// The wire format against bytes worked out by hand, and what is refused.
#include "queues/detail/wire.h"

#include <bit>
#include <cstdint>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <string_view>

#include "queues/detail/same.h"
#include "queues/event.h"
#include "queues/fdio.h"
#include "queues/records/checks.h"
#include "queues/records/control.h"
#include "queues/records/dbms_replication.h"
#include "queues/records/dbms_tql.h"
#include "queues/records/dbms_tsdb.h"
#include "queues/records/network.h"
#include "queues/wire_error.h"
#include "support/memory_stream.h"
#include "tql/property_kinds.h"
#include "util/big_num.h"

namespace queues_test {
namespace {

using namespace queues;
using namespace support;
using tql::id_t;

static_assert(std::endian::native == std::endian::little,
              "the bytes below are those of such a host");

/// Bytes from text: pairs of hex digits; "n*" ahead of a pair repeats it, 'x' is the byte of that
/// sign.
Bytes hex(std::string_view text) {
    Bytes bytes;
    std::istringstream in{std::string(text)};
    for (std::string word; in >> word;) {
        if (word.front() == '\'') {
            bytes.push_back(static_cast<std::uint8_t>(word[1]));
            continue;
        }
        const std::size_t star = word.find('*');
        const std::size_t times = star == std::string::npos ? 1 : std::stoul(word.substr(0, star));
        const std::string pair = star == std::string::npos ? word : word.substr(star + 1);
        bytes.insert(bytes.end(), times, static_cast<std::uint8_t>(std::stoul(pair, nullptr, 16)));
    }
    return bytes;
}

template <class T>
void expect_bytes(const T& field, std::string_view expected) {
    SCOPED_TRACE(expected);
    MemoryIStream nothing({});
    MemoryOStream out;
    protocol::ioprim prim(nothing, out);
    detail::put(prim, field);
    prim.commit();
    EXPECT_EQ(out.bytes, hex(expected));

    MemoryIStream in(hex(expected));
    protocol::ioprim source(in, out);
    detail::Reader reader(source, TQL_SELECT);
    T back{};
    detail::get(reader, back);
    EXPECT_TRUE(in.at_end());
    EXPECT_TRUE(detail::same(field, back));
}

TEST(Wire, PlainFields) {
    expect_bytes<std::int32_t>(-2, "fe 3*ff");
    expect_bytes<std::uint16_t>(0x1234, "34 12 2*00");
    expect_bytes<std::uint64_t>(0x0102030405060708, "08 07 06 05 04 03 02 01");
    expect_bytes<std::int64_t>(-1, "8*ff");
    expect_bytes(1.5, "6*00 f8 3f");
    expect_bytes(1.5F, "2*00 c0 3f");
    expect_bytes(true, "01 3*00");
    expect_bytes(false, "4*00");
    expect_bytes(queue_t::tsdb, "14 3*00");
    expect_bytes(queue_t::none, "4*ff");
    expect_bytes(std::string("ab"), "02 7*00 'a 'b");
    expect_bytes(std::string(), "8*00");
    expect_bytes(std::vector<std::uint8_t>{1, 2, 255}, "03 7*00 01 02 ff");
    expect_bytes(Time(-2, 500000), "fe 3*ff 20 a1 07 00");
    expect_bytes(id_t(), "4*00");
    expect_bytes(id_t(1, 256, 7), "03 3*00 01 3*00 00 01 2*00 07 3*00");
}

TEST(Wire, AnyWordButZeroIsTrue) {
    MemoryIStream in(hex("00 00 00 80"));
    MemoryOStream nowhere;
    protocol::ioprim prim(in, nowhere);
    detail::Reader reader(prim, TQL_SELECT);
    bool field = false;
    detail::get(reader, field);
    EXPECT_TRUE(field);
}

TEST(Wire, CompoundFields) {
    expect_bytes(std::list<id_t>{id_t(1, 2), id_t()}, "02 3*00 02 3*00 01 3*00 02 3*00 4*00");
    expect_bytes(std::set<std::uint32_t>{9, 4}, "02 3*00 04 3*00 09 3*00");
    expect_bytes(std::map<std::string, std::uint32_t>{{"*", 2}}, "01 3*00 01 7*00 '* 02 3*00");
    expect_bytes(tql::version_t{3, 4}, "03 7*00 04 7*00");
    expect_bytes(tql::origin_t{id_t(1, 2), id_t(), 5}, "02 3*00 01 3*00 02 3*00 4*00 05 3*00");
    expect_bytes(dbms::detail_t{1, "no"}, "01 3*00 02 7*00 'n 'o");
    expect_bytes(std::list<dbms::path_entry_t>{{id_t(), 8}}, "01 3*00 4*00 08 3*00");
    expect_bytes(dbms::Get_First_ID_Data{}, "");
}

TEST(Wire, DataEntries) {
    const auto entry = []<class Point>(Point point) {
        return tsdb::data_entry_t(std::make_unique<Point>(std::move(point)));
    };
    tsdb::data_interval_incident_t incident;
    incident.severity = 2;
    incident.message = "x";
    incident.time = 5;
    tsdb::data_interval_continuous_t continuous;
    continuous.start = 1;
    continuous.end = 2;
    continuous.min = 1.0F;
    continuous.ngood = 3;
    continuous.nbad = 4;
    tsdb::data_interval_enum_t enumerated;
    enumerated.mask = 6;
    enumerated.ngood = 7;
    enumerated.end = 9;
    expect_bytes(tsdb::data_entry_t(), "4*00");
    expect_bytes(entry(incident), "01 3*00 02 3*00 01 7*00 'x 05 7*00");
    expect_bytes(entry(continuous),
                 "02 3*00 01 7*00 02 7*00 00 00 80 3f 4*00 4*00 03 3*00 04 3*00");
    expect_bytes(entry(enumerated), "03 3*00 06 3*00 07 3*00 4*00 8*00 09 7*00");
}

template <class Kind>
tql::value_t value(typename Kind::value_type payload, std::uint32_t flags = 0) {
    return std::make_unique<Kind>(16, std::move(payload), flags);
}

TEST(Wire, PropertyValues) {
    // Each: type code, property 16, not null, no flags, then the payload.
    const std::string head = " 3*00 10 3*00 4*00 4*00 ";
    const auto expect = [&](const tql::value_t& field, const std::string& code,
                            const std::string& payload) {
        expect_bytes(field, code + head + payload);
    };
    expect(value<tql::property_string_t>("a"), "07", "01 7*00 'a");
    expect(value<tql::property_string_list_t>({"a", ""}), "08", "02 3*00 01 7*00 'a 8*00");
    expect(value<tql::property_version_t>({1, 2}), "0b", "01 7*00 02 7*00");
    expect(value<tql::property_action_t>(-1), "0c", "4*ff");
    expect(value<tql::property_real_t>(1.5), "0d", "6*00 f8 3f");
    expect(value<tql::property_bignum_t>(BigNum(258)), "0e", "04 7*00 02 01 2*00");
    expect(value<tql::property_gid_t>(5), "0f", "05 3*00");
    expect(value<tql::property_gid_list_t>({5, 6}), "10", "02 3*00 05 3*00 06 3*00");
    expect(value<tql::property_date_t>(-1), "11", "8*ff");
    expect(value<tql::property_index_t>(5), "12", "05 3*00");
    expect(value<tql::property_int_t>(-2), "13", "fe 3*ff");
    expect(value<tql::property_uint_t>(5), "14", "05 3*00");
    expect(value<tql::property_boolean_t>(true), "15", "01 3*00");
    expect(value<tql::property_blob_t>({1, 2}), "16", "02 7*00 01 02");
    expect(value<tql::property_lob_t>({1, 2}), "17", "02 7*00 01 02");
    expect(value<tql::property_oid_t>({5}), "18", "01 3*00 05 3*00");
    expect(std::make_unique<tql::property_enum_t>(16, 0x10003, 9, 0), "19", "03 00 01 00 09 3*00");

    auto object = std::make_unique<tql::property_object_t>(16, id_t(1, 2));
    object->origin = {id_t(), id_t(), 3};
    expect(std::move(object), "0a", "02 3*00 01 3*00 02 3*00 4*00 4*00 03 3*00");
    auto set = std::make_unique<tql::property_object_set_t>(16, std::set<id_t>{id_t(1, 2), id_t()});
    set->origins[id_t()] = {id_t(), id_t(7, 8)};
    expect(std::move(set), "09",
           "02 3*00 4*00 4*00 02 3*00 07 3*00 08 3*00 02 3*00 01 3*00 02 3*00 4*00 4*00");
    expect_bytes(tql::value_t(), "4*00");
}

TEST(Wire, NullValuesCarryTheirPayload) {
    tql::property_uint_t null = tql::property_uint_t::null(3, tql::kFlagInherited);
    null.value = 9;
    expect_bytes(tql::value_t(std::make_unique<tql::property_uint_t>(null)),
                 "14 3*00 03 3*00 01 3*00 3*00 80 09 3*00");
}

TEST(Wire, PatternsAndResults) {
    tql::pattern_t pattern(3, 1);
    pattern.next.emplace_back(4U);
    pattern.cond_next.emplace_back(5U);
    pattern.where.push_back({value<tql::property_uint_t>(5), tql::relop_t::ge});
    pattern.wanted_properties = {6};
    const std::string leaf = " 3*00 4*00 4*ff 4*00 4*00 4*00 4*00 ";
    expect_bytes(pattern, "03 3*00 01 3*00 4*ff 01 3*00 04" + leaf + "01 3*00 05" + leaf +
                              "01 3*00 14 3*00 10 3*00 4*00 4*00 05 3*00 04 3*00 01 3*00 06 3*00");

    tql::result_t result;
    result.class_ = 3;
    result.tags = {9};
    result.id = id_t(1, 2);
    result.version = {7, 8};
    result.properties[16] = value<tql::property_uint_t>(5);
    result.children.emplace_back().class_ = 4;
    result.origin.type = 6;
    expect_bytes(result,
                 "03 3*00 4*00 01 3*00 09 3*00 02 3*00 01 3*00 02 3*00 07 7*00 08 7*00 "
                 "01 3*00 10 3*00 14 3*00 10 3*00 4*00 4*00 05 3*00 "
                 "01 3*00 04 3*00 4*00 4*00 4*00 16*00 4*00 4*00 4*00 4*00 4*00 "
                 "4*00 4*00 06 3*00");
}

Bytes written(const event& sent) {
    MemoryIStream nothing({});
    MemoryOStream out;
    fdio(nothing, out).write(sent);
    return out.bytes;
}

std::unique_ptr<event> read_event(const Bytes& bytes) {
    MemoryIStream in(bytes);
    MemoryOStream nowhere;
    return fdio(in, nowhere).read();
}

TEST(Events, AreHeaderAndRecord) {
    EXPECT_EQ(written(devent<TQL_FORGET>(queue_t::dbms, 5, {.req_id_to_forget = 9})),
              hex("71 3*00 02 3*00 05 3*00 4*00 09 3*00"));
    EXPECT_EQ(written(exevent(queue_t::wapi, 5, "abc")),
              hex("cc 3*00 17 3*00 05 3*00 01 3*00 03 7*00 'a 'b 'c"));
    devent<TQL_FORGET> flagged(queue_t::dbms, 5, {.req_id_to_forget = 9});
    flagged.exception = true;
    EXPECT_EQ(written(flagged), hex("71 3*00 02 3*00 05 3*00 01 3*00"));
}

TEST(Events, WithExceptionReadAsTextWhateverTheirNumber) {
    for (const std::string_view number : {"cc", "71"}) {
        const auto received =
            read_event(hex(std::string(number) + " 3*00 17 3*00 05 3*00 01 3*00 03 7*00 'a 'b 'c"));
        EXPECT_EQ(received->number(), MESSAGE_EXCEPTION);
        EXPECT_EQ(received->uid, 5U);
        std::ostringstream out;
        received->print(out);
        EXPECT_EQ(out.str(), "Exception: abc\n");
    }
}

TEST(Events, EndInABlockOfTheirOwnAndNeverSplitANumber) {
    MemoryIStream nothing({});
    MemoryOStream out(10);
    fdio stream(nothing, out);
    stream.write(devent<RETURN_PURE_ENTROPY>(queue_t::main, 1, "abcde"));
    // Two words to an area of ten bytes, the length in one of its own, and then the text runs on.
    EXPECT_EQ(out.blocks, (std::vector<std::size_t>{8, 8, 10, 3}));
    stream.write(devent<DAEMONIZE_SYSTEM>(queue_t::main));
    EXPECT_EQ(out.blocks, (std::vector<std::size_t>{8, 8, 10, 3, 8, 8, 4}));
}

TEST(EventsDeathTest, NonsenseOnTheStreamEndsTheProcess) {
    EXPECT_DEATH((void)read_event(hex("cd 3*00 4*00 4*00 4*00")),
                 "fdio >> event: unknown type index: 205 old was 0 dest -1");
    EXPECT_DEATH((void)read_event(hex("4*00")), "unknown type index: 0");
    EXPECT_DEATH((void)read_event(hex("cc 3*00 4*00 4*00 4*00")),
                 "Found exevent with .exception == 0");
    MemoryIStream nothing({});
    MemoryOStream tiny(4);
    fdio stream(nothing, tiny);
    EXPECT_DEATH(stream.write(devent<RETURN_METRIC_UINT64>(queue_t::main)),
                 "New write area of size 4 too small for primitive write");
}

TEST(Refused, WhatNoRecordCanHold) {
    struct Case {
        event_t number;
        std::string record;
        std::string text;
    };
    std::string groups;  // a group in a group, deeper than any tree of metrics
    for (int i = 0; i < 200; ++i) groups += "8*00 01 3*00 ";
    const Case cases[] = {
        {RETURN_PURE_ENTROPY, "5*00 01 2*00", "a string of 1099511627776 bytes"},
        {RETURN_PURE_ENTROPY, "8*ff", "a string of 18446744073709551615 bytes"},
        {CLEAR_FIRE_FLAG, "4*ff", "a list of 4294967295 elements"},
        {RETURN_TQL_SELECT, "4*00 4*00 3*ff 7f", "a list of 2147483647 elements"},
        {GET_LAST_CHECKIN_TIME, "04 3*00", "an id of 4 numbers"},
        {TQL_CREATE, "4*00 4*00 4*00 01 3*00 63 3*00", "a property value of type 99"},
        {TSDB_MERGE_DATA, "4*00 4*00 01 3*00 04 3*00", "a data entry of type 4"},
        {TQL_SELECT, "4*00 4*00 4*00 4*00 4*00 4*00 01 3*00 4*00 01 3*00",
         "a condition without a value"},
        {SCHEDULE_EVENT_RELATIVE, "4*00 4*ff", "a time of -1 microseconds"},
        {RETURN_LIST_METRICS, groups, "records nested deeper than 100"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Bytes bytes = hex("4*00 4*00 05 3*00 4*00 " + c.record);
        bytes[0] = static_cast<std::uint8_t>(c.number);
        try {
            (void)read_event(bytes);
            ADD_FAILURE() << "was read";
        } catch (const EMalformedRecord& refused) {
            EXPECT_NE(refused.text().find(c.text), std::string::npos) << refused.text();
            EXPECT_NE(refused.text().find(event_name(c.number)), std::string::npos);
        }
    }
}

TEST(Refused, ABigCountProvidesForNoMoreThanArrived) {
    // Within the bound, but at 200 bytes for a result node it would be 50 GB.
    EXPECT_THROW((void)read_event(hex("53 3*00 4*00 4*00 4*00 4*00 4*00 2*00 ff 0f")),
                 io::EEndOfStream);
    EXPECT_THROW((void)read_event(hex("0c 3*00 4*00 4*00 4*00 2*ff 00 3f 4*00 'a")),
                 io::EEndOfStream);
}

TEST(Depth, IsNoDangerToTheStack) {
    constexpr std::size_t kSteps = 100'000;
    devent<TQL_SELECT> sent(queue_t::dbms, 1);
    tql::pattern_t* step = &sent.record.pattern;
    for (std::size_t i = 1; i < kSteps; ++i)
        step = i % 2 == 0 ? &step->next.emplace_back() : &step->cond_next.emplace_back();
    const auto received = read_event(written(sent));
    EXPECT_EQ(data<TQL_SELECT>(*received).pattern.depth(), kSteps);
    EXPECT_TRUE(data<TQL_SELECT>(*received).pattern == sent.record.pattern);
    std::ostringstream shown;
    received->print(shown);
    EXPECT_NE(shown.str().find("..."), std::string::npos);

    devent<RETURN_TQL_SELECT_PATCH> result(queue_t::wapi, 1);
    tql::result_t* node = &result.record.patch;
    for (std::size_t i = 1; i < kSteps; ++i) node = &node->children.emplace_back();
    EXPECT_TRUE(equal(*read_event(written(result)), result));
}

}  // namespace
}  // namespace queues_test
