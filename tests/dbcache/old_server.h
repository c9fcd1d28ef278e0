// A database of an older format on a disk in memory, written record by record, and the steps of a
// server's start over it up to serving.
#pragma once

#include <gtest/gtest.h>
#include <memory>
#include <optional>

#include "dbcache/format_conversion.h"
#include "dbcache/mark_verify.h"
#include "dbcache/schema_table.h"
#include "log/log.h"
#include "mdb/verify.h"
#include "support/fake_clock.h"
#include "support/old_world.h"
#include "support/rng.h"
#include "support/sim_disk.h"

namespace dbcache_test {

using support::Dump;
using support::SimDisk;

inline constexpr uint32_t kSeries = 4711;

class OldServer {
  public:
    explicit OldServer(uint32_t format,
                       const std::vector<support::OldObject>& stored = support::old_world(),
                       std::optional<uint32_t> index_count = {}) {
        logging::set_all_levels(logging::level_t::info);
        support::OldFormat old;
        old.number = format;
        old.indexes = index_count.value_or(format == 6 ? 5 : 6);
        support::write_old_database(disk, clock, "db", "journal", old, stored);
    }
    ~OldServer() {
        close();
        logging::set_all_levels(logging::level_t::info);  // tests without it want the log
    }
    OldServer(const OldServer&) = delete;
    OldServer& operator=(const OldServer&) = delete;

    void open() {
        close();
        database = std::make_unique<mdb::Database>(
            mdb::Settings{.database_path = "db", .journal_path = "journal", .buffer_blocks = 64},
            disk, clock);
        indexes = std::make_unique<mdb::IndexTable>(*database);
        indexes->init_required_indexes();
        objects = std::make_unique<mdb::ObjectStore>(*database, *indexes);
    }
    void close() {
        objects.reset();
        indexes.reset();
        database.reset();
    }
    [[nodiscard]] dbcache::Store::Parts parts() {
        return {*database, *objects, *indexes, schemas, clock};
    }

    void start() {
        open();
        sequence = dbcache::read_sequence(parts(), [] { return std::nullopt; });
        dbcache::ensure_root(parts());
        dbcache::check_indexes(parts(), sequence.format);
        ++sequence.ring_sequence;
        dbcache::store_sequence(parts(), sequence);
        dbcache::convert_format(parts(), sequence, create_series);
        dbcache::prime_mark_lists(parts());
    }
    /// The power fails at the `n`-th call of a start; false when that took fewer.
    bool cut_start(uint64_t n, uint64_t seed) {
        close();
        disk.cut_at(n, seed);
        try {
            start();
        } catch (const SimDisk::PowerCut&) {
        }
        const bool cut = disk.cut();
        close();
        disk.restart();
        return cut;
    }

    [[nodiscard]] Dump dump() { return support::dump_objects(*database); }
    /// What is stored but for the ring sequence, which grows with each start.
    [[nodiscard]] Dump lasting() {
        Dump all = dump();
        all.at({0, 4}).erase(2900);
        return all;
    }
    [[nodiscard]] std::string faults() {
        const auto marks = dbcache::make_mark_check();
        mdb::VerifyOptions options;
        options.checks = {marks.get()};
        return mdb::verify(*database, options).text();
    }

    std::vector<std::string> log;
    logging::OutletScope outlet{
        [this](logging::level_t, std::string_view line) { log.emplace_back(line); }};
    SimDisk disk;
    support::FakeClock clock;
    dbcache::SchemaTable schemas;
    dbcache::CreateSeries create_series = [this] {
        ++series_made;
        return std::optional<uint32_t>(kSeries);
    };
    uint32_t series_made = 0;
    dbcache::Sequence sequence;
    std::unique_ptr<mdb::Database> database;
    std::unique_ptr<mdb::IndexTable> indexes;
    std::unique_ptr<mdb::ObjectStore> objects;
};

inline bool contains(const std::vector<std::string>& lines, const std::string& text) {
    for (const std::string& line : lines)
        if (line.find(text) != std::string::npos) return true;
    return false;
}

/// Cuts the start at each of its calls in turn, at times the one after that too, and compares what
/// the next whole one leaves.
inline void cut_everywhere(OldServer& server, uint64_t at_least) {
    const support::DiskImage before = server.disk.seen();
    server.start();
    const Dump whole = server.lasting();
    support::Rng rng(1);
    for (uint64_t n = 1; !testing::Test::HasFailure(); ++n) {
        SCOPED_TRACE(n);
        server.close();
        server.disk.load(before);
        const bool cut = server.cut_start(n, n);
        if (cut && rng.chance(30)) (void)server.cut_start(1 + rng.below(n + 10), n + 1000);
        server.start();
        EXPECT_TRUE(server.lasting() == whole);
        EXPECT_EQ(server.faults(), "");
        if (cut) continue;
        EXPECT_GT(n, at_least);
        break;
    }
}

}  // namespace dbcache_test
