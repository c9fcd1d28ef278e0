// Databases of older formats are brought up to date: mark lists, series of views, format number.
#include <optional>

#include "old_server.h"

namespace {

using dbcache_test::contains;
using dbcache_test::cut_everywhere;
using dbcache_test::kSeries;
using dbcache_test::OldServer;
using support::Dump;

TEST(FormatConversion, EachOldFormatComesOutTheSame) {
    struct Case {
        uint32_t format;
        uint64_t ring_steps;
        bool builds_marks;
    };
    for (const Case& old :
         {Case{6, 4, true}, Case{7, 3, true}, Case{10, 3, true}, Case{11, 2, false}}) {
        SCOPED_TRACE(old.format);
        OldServer server(old.format);
        server.start();
        EXPECT_EQ(server.faults(), "");
        EXPECT_EQ(contains(server.log, "Converting database format to 3.2.1"), old.builds_marks);
        // A database of format 11 that has no lists gets them all the same.
        EXPECT_EQ(contains(server.log, "Recreating index 65, this may"), !old.builds_marks);

        const Dump dump = server.dump();
        EXPECT_EQ(support::list_text(dump, 65), support::kOldWorldActive);
        EXPECT_EQ(support::list_text(dump, 66), support::kOldWorldInheriting);
        // One record more each than stand in the list: nobody looks at what a delete has left.
        EXPECT_EQ(support::count_records(dump, 65), 16U + 1);
        EXPECT_EQ(support::count_records(dump, 66), 17U);
        EXPECT_EQ(dump.at({0, 4}).at(2901), support::word_record(2901, 1, 12));
        EXPECT_EQ(support::word_at(dump.at({0, 4}).at(2900), 16), 40 + old.ring_steps);
    }
}

TEST(FormatConversion, ViewsUnderDomainsGetASeriesUnlessTheyHaveOne) {
    OldServer server(10);
    server.start();
    const Dump dump = server.dump();
    const auto series = [&](uint32_t id) -> std::optional<uint32_t> {
        const auto& records = dump.at({1, id});
        const auto found = records.find(2601);
        if (found == records.end()) return std::nullopt;
        EXPECT_EQ(support::word_at(found->second, 8), 9U) << "type";
        return support::word_at(found->second, 12);
    };
    EXPECT_EQ(series(50), kSeries);
    EXPECT_EQ(series(51), 33U);
    EXPECT_EQ(series(52), kSeries);
    EXPECT_EQ(series(13), kSeries);
    EXPECT_EQ(series(45), std::nullopt) << "stands under a node";
    EXPECT_EQ(series(64), std::nullopt) << "stands under a mount point";
    EXPECT_EQ(server.series_made, 3U);
    EXPECT_TRUE(contains(server.log, "Converting view overview"));

    server.start();
    EXPECT_EQ(server.series_made, 3U);
}

TEST(FormatConversion, WithoutATimeSeriesStoreAViewGetsItsSeriesLater) {
    OldServer server(11);
    server.create_series = [] { return std::nullopt; };
    server.start();
    EXPECT_EQ(support::word_at(server.dump().at({1, 50}).at(2601), 12), 0xFFFFFFFF);
    EXPECT_EQ(server.sequence.format, 12U);
}

TEST(FormatConversion, AFailedStepIsDoneAgainByTheNextStart) {
    OldServer server(6);
    const auto works = server.create_series;
    server.create_series = [&]() -> std::optional<uint32_t> {
        if (++server.series_made == 2) throw error::EFatal("no room for a series");
        return kSeries;
    };
    EXPECT_THROW(server.start(), error::EFatal);
    EXPECT_FALSE(server.database->journal().transaction_active());
    EXPECT_EQ(server.dump().at({0, 4}).at(2901), support::word_record(2901, 1, 11));
    server.create_series = works;
    server.start();
    EXPECT_EQ(server.series_made, 4U) << "one before the failure, the failure, two after it";
    EXPECT_EQ(server.faults(), "");
}

TEST(FormatConversion, OtherFormatsAreRefused) {
    for (const uint32_t format : {0U, 5U, 13U}) {
        OldServer server(format);
        try {
            server.start();
            ADD_FAILURE() << format;
        } catch (const error::EFatal& refused) {
            EXPECT_EQ(refused.text(), format > 12
                                          ? "Database format 13 is newer than 12, please upgrade "
                                            "Tarmik first."
                                          : "Database format older than 3.0.3, please upgrade to "
                                            "Tarmik 3.0.3 first.");
        }
        EXPECT_EQ(server.dump().at({0, 4}).at(2901), support::word_record(2901, 1, format));
    }
}

TEST(FormatConversion, WhatItHasNoBusinessWithStaysAsItIs) {
    OldServer server(6);
    server.open();
    const Dump before = server.dump();
    server.start();
    Dump after = server.dump();
    for (const auto& [id, records] : before) {
        if (id == NodeId{0, 4}) continue;
        SCOPED_TRACE(id.to_string());
        for (const auto& [property, bytes] : records)
            EXPECT_TRUE(property == 65 || property == 66 || property == 2601 ||
                        after.at(id)[property] == bytes)
                << property;
    }
    EXPECT_EQ(after.at({1, 80}), before.at({1, 80})) << "a nodetype that nobody knows";
    EXPECT_EQ(after.at({1, 72}), before.at({1, 72})) << "below a tombstone";
    EXPECT_FALSE(after.at({1, 44}).contains(65)) << "no part of any list any more";
}

TEST(FormatConversion, AnActiveCheckThatDoesNotSaySoEndsTheStart) {
    auto objects = support::old_world();
    objects.push_back({{1, 99}, {1, 30}, 11, {}});
    OldServer server(10, objects);
    EXPECT_THROW(server.start(), mdb::error_nullprop);
    EXPECT_TRUE(contains(server.log, "Object 1.99 of type 11"));
}

TEST(FormatConversion, AMissingAlertNotifyIndexStaysEmptyBelowFormat7) {
    for (const uint32_t format : {6U, 7U}) {
        SCOPED_TRACE(format);
        auto stored = support::old_world();
        stored.push_back({{1, 99}, {1, 10}, 66, {support::id_record(3901, {1, 20})}});
        OldServer server(format, stored, 5);
        server.start();
        server.start();
        EXPECT_EQ(server.indexes->iterate_first(mdb::alert_notify_index).valid(), format == 7);
    }
}

TEST(FormatConversion, ACutAtAnyMomentEndsInTheSamePlace) {
    OldServer server(6);
    logging::set_all_levels(logging::level_t::off);
    cut_everywhere(server, 100);
}

}  // namespace
