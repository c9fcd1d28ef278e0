// Series held against a slow model of what their levels must hold, and what survives a kill.
#include "tsdb/series_store.h"

#include <cmath>
#include <csignal>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <map>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/rng.h"
#include "support/temp_dir.h"
#include "tsdb/failures.h"
#include "tsdb/sqlite_storage.h"

namespace tsdb {
namespace {

data_entry_t measured(int64_t start, int64_t end, float min, float avg, float max, uint32_t good,
                      uint32_t bad = 0) {
    auto made = std::make_unique<data_interval_continuous_t>();
    made->start = start;
    made->end = end;
    made->min = min;
    made->avg = avg;
    made->max = max;
    made->ngood = good;
    made->nbad = bad;
    return data_entry_t(std::move(made));
}

data_entry_t states(int64_t start, int64_t end, uint32_t mask, uint32_t good, uint32_t bad) {
    auto made = std::make_unique<data_interval_enum_t>();
    made->start = start;
    made->end = end;
    made->mask = mask;
    made->ngood = good;
    made->nbad = bad;
    return data_entry_t(std::move(made));
}

data_entry_t event(int64_t time, const std::string& message, uint32_t severity = 1) {
    auto made = std::make_unique<data_interval_incident_t>();
    made->time = time;
    made->message = message;
    made->severity = severity;
    return data_entry_t(std::move(made));
}

SeriesStore::Data data(std::initializer_list<data_entry_t> entries) {
    return SeriesStore::Data(entries);
}

/// The last words of each entry: its times and values, or the message.
std::string shown(const SeriesStore::Data& entries) {
    std::string out;
    for (const data_entry_t& entry : entries) {
        if (!out.empty()) out += "; ";
        if (const auto* one = dynamic_cast<const data_interval_incident_t*>(entry.get()))
            out += fmt::format("{} {}", one->time, one->message);
        else if (const auto* some = dynamic_cast<const data_interval_continuous_t*>(entry.get()))
            out += fmt::format("{}-{} {}/{}/{} {}+{}", some->start, some->end, some->min, some->avg,
                               some->max, some->ngood, some->nbad);
        else if (const auto* mask = dynamic_cast<const data_interval_enum_t*>(entry.get()))
            out += fmt::format("{}-{} {:#x} {}+{}", mask->start, mask->end, mask->mask, mask->ngood,
                               mask->nbad);
    }
    return out;
}

class SeriesStoreTest : public testing::Test {
  protected:
    SeriesStoreTest() { reopen(); }

    void reopen() {
        store.reset();
        storage.reset();
        storage = std::make_unique<SqliteStorage>(dir.file("tsdb"), 1000);
        store.emplace(*storage);
    }
    std::string all(uint32_t index, uint32_t resolution_s = 0) {
        return shown(store->get({.handle = index, .flags = get_flags(false, resolution_s)}));
    }

    support::TempDir dir;
    std::unique_ptr<SqliteStorage> storage;
    std::optional<SeriesStore> store;
};

struct ModelLevel {
    level_t shape;
    std::map<int64_t, std::vector<Reading>> slots;
};

/// Everything that was ever put into a slot, worked out anew for each question.
class Model {
  public:
    explicit Model(const time_series_layout_t& layout) {
        for (const level_t& level : layout.levels) levels.push_back({level, {}});
    }
    void put(const Reading& reading) {
        for (ModelLevel& level : levels) {
            level.slots[reading.start / level.shape.span_s].push_back(reading);
            if (level.slots.size() > level.shape.records) level.slots.erase(level.slots.begin());
        }
    }
    static Reading sum(const std::vector<Reading>& parts) {
        Reading out = parts.front();
        double weighted = 0, weight = 0;
        bool any_good = false;
        for (const Reading& part : parts) any_good = any_good || part.ngood > 0;
        bool first = true;
        out.mask = out.ngood = out.nbad = 0;
        for (const Reading& part : parts) {
            out.start = std::min(out.start, part.start);
            out.end = std::max(out.end, part.end);
            out.ngood += part.ngood;
            out.nbad += part.nbad;
            out.mask |= part.mask;
            if (any_good && part.ngood == 0) continue;
            out.min = first ? part.min : std::min(out.min, part.min);
            out.max = first ? part.max : std::max(out.max, part.max);
            first = false;
            weighted += part.avg * part.ngood;
            weight += part.ngood;
        }
        out.avg = any_good ? weighted / weight : std::nan("");
        return out;
    }
    std::vector<ModelLevel> levels;
};

void expect_same(const Model& model, uint32_t level, const SeriesStore::Data& found,
                 uint32_t type) {
    const auto& slots = model.levels[level].slots;
    ASSERT_EQ(found.size(), slots.size()) << "level " << level;
    auto at = found.begin();
    for (const auto& [slot, parts] : slots) {
        const Reading expected = Model::sum(parts);
        const Reading got = to_reading(**at++, type);
        EXPECT_EQ(got.start, expected.start);
        EXPECT_EQ(got.end, expected.end);
        EXPECT_EQ(got.ngood, expected.ngood);
        EXPECT_EQ(got.nbad, expected.nbad);
        EXPECT_EQ(got.mask, expected.mask);
        EXPECT_EQ(got.min, expected.min);
        EXPECT_EQ(got.max, expected.max);
        if (!std::isnan(expected.avg)) {
            EXPECT_NEAR(got.avg, expected.avg, 1e-4 * (1 + std::abs(expected.avg)));
        }
    }
}

class SeriesModelTest : public SeriesStoreTest, public testing::WithParamInterface<uint32_t> {};

// Out of order, with gaps, over each other, now and then long; with commits, lost transactions and
// new processes in between.
TEST_P(SeriesModelTest, LevelsHoldWhatWasPut) {
    const uint32_t type = GetParam();
    const time_series_layout_t layout{type, {{20, 60}, {12, 300}, {8, 3600}}};
    for (uint64_t seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(fmt::format("seed {}", seed));
        support::Rng random(seed);
        const auto below = [&](uint64_t bound) {
            return static_cast<uint32_t>(random.below(bound));
        };
        const uint32_t index = store->create(layout);
        store->commit();
        Model model(layout), committed(layout);
        for (int round = 0; round < 600; ++round) {
            SeriesStore::Data batch;
            std::vector<Reading> readings;
            for (uint32_t left = 1 + below(3); left > 0; --left) {
                const int64_t start = 1'000'000 + round * 40 - (below(4) == 0 ? below(20'000) : 0);
                const int64_t end = start + (below(20) == 0 ? below(9000) : below(60));
                const auto value = static_cast<float>(below(2000)) / 8;
                if (type == enumerated)
                    batch.push_back(states(start, end, 1U << below(32), below(3), below(3)));
                else
                    batch.push_back(measured(start, end, value - 1, value,
                                             value + static_cast<float>(below(5)), below(4),
                                             below(2)));
                readings.push_back(to_reading(*batch.back(), type));
            }
            store->put(index, batch);
            for (const Reading& one : readings) model.put(one);
            switch (below(40)) {
                case 0:
                    store->commit();
                    committed = model;
                    break;
                case 1:
                    reopen();
                    model = committed;
                    break;
                case 2:
                    store->abort();
                    model = committed;
                    break;
                case 3:
                    // One of the batch can't be: none of it is stored.
                    batch.push_back(event(5, "no"));
                    EXPECT_THROW(store->put(index, batch), EBadRequest);
                    break;
                default:
                    break;
            }
        }
        for (uint32_t level = 0; level < layout.levels.size(); ++level) {
            const uint32_t spans[] = {60, 300, 3600};
            expect_same(model, level,
                        store->get({.handle = index, .flags = get_flags(true, spans[level])}),
                        type);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Types, SeriesModelTest, testing::Values(1U, 2U, 3U));

TEST_F(SeriesStoreTest, GetPicksLevelRangeAndPart) {
    const uint32_t index = store->create({continuous, {{4, 60}, {5, 300}, {10, 3600}}});
    for (int minute = 0; minute < 30; ++minute)
        store->put(index, data({measured(minute * 60, minute * 60 + 59, 1, 2, 3, 1)}));
    struct Case {
        const char* what;
        Get_Data_Data wanted;
        size_t records;
        int64_t first_start;
    };
    const Case cases[] = {
        {"the finest level that reaches back", {.start = 1620}, 3, 1620},
        {"its oldest record is just old enough", {.start = 1560}, 4, 1560},
        {"further back than the finest", {.start = 1500}, 1, 1500},
        {"further back than the middle", {.start = 1}, 1, 0},
        {"raw is the finest all the same", {.raw = true, .start = 1}, 4, 1560},
        {"a coarser one is wanted", {.flags = get_flags(false, 3599), .start = 600}, 4, 600},
        {"the coarsest is wanted", {.flags = get_flags(false, kMaxResolution_s)}, 1, 0},
        {"a record reaches into the range", {.start = 1650, .end = 1660}, 1, 1620},
        {"the end counts", {.start = 1621, .end = 1680}, 2, 1620},
        {"offset and count", {.raw = true, .count = 2, .offset = 1}, 2, 1620},
        {"from the newest", {.flags = get_flags(true, 0), .count = 2, .offset = 1}, 2, 1620},
        {"the latest", {.flags = get_flags(true, 0), .count = 1}, 1, 1740},
        {"behind all", {.start = 1800}, 0, 0},
        {"offset behind all", {.raw = true, .offset = 9}, 0, 0},
    };
    for (const Case& one : cases) {
        Get_Data_Data wanted = one.wanted;
        wanted.handle = index;
        const SeriesStore::Data found = store->get(wanted);
        EXPECT_EQ(found.size(), one.records) << one.what << ": " << shown(found);
        if (!found.empty()) {
            EXPECT_EQ(to_reading(*found.front(), continuous).start, one.first_start) << one.what;
        }
    }
}

TEST_F(SeriesStoreTest, IncidentsStandInTheOrderOfTime) {
    const uint32_t index = store->create({incident, {{4, 1}}});
    store->put(index, data({event(50, "c"), event(10, "a"), event(50, "d"), event(20, "b")}));
    EXPECT_EQ(all(index), "10 a; 20 b; 50 c; 50 d");
    store->put(index, data({event(30, "e")}));
    EXPECT_EQ(all(index), "20 b; 30 e; 50 c; 50 d");
    store->put(index, data({event(15, "too old")}));
    EXPECT_EQ(all(index), "20 b; 30 e; 50 c; 50 d");
    store->merge(index, data({event(50, "d"), event(50, "c", 2), event(60, "f")}));
    store->merge(index, data({event(50, "d"), event(50, "c", 2), event(60, "f")}));
    EXPECT_EQ(all(index), "50 c; 50 d; 50 c; 60 f");
    EXPECT_EQ(shown(store->get({.handle = index, .flags = kFromNewest, .count = 1})), "60 f");
    store->truncate(index, 60);
    EXPECT_EQ(all(index), "60 f");
    EXPECT_THROW(store->put(index, data({measured(1, 2, 1, 1, 1, 1)})), EBadRequest);
}

TEST_F(SeriesStoreTest, MergesAndExtractsTwiceAreAsGoodAsOnce) {
    const time_series_layout_t layout{continuous, {{100, 60}, {100, 600}}};
    const uint32_t one = store->create(layout), two = store->create(layout);
    store->put(one, data({measured(0, 59, 1, 2, 3, 1), measured(60, 119, 5, 6, 7, 1)}));
    store->put(two, data({measured(60, 119, 5, 6, 7, 1), measured(120, 179, 8, 8, 8, 1)}));
    EXPECT_NE(store->checksum(one), store->checksum(two));
    const std::string from_one = store->extract(one), from_two = store->extract(two);
    for (int time = 0; time < 2; ++time) {
        store->merge_extracts(one, {from_two, from_one});
        store->merge_extracts(two, {from_one, from_two});
        EXPECT_EQ(all(one), "0-59 1/2/3 1+0; 60-119 5/6/7 1+0; 120-179 8/8/8 1+0");
        EXPECT_EQ(all(two), all(one));
    }
    // Only what has no record in its minute yet is new.
    const auto late = data({measured(130, 131, 1, 1, 1, 9), measured(180, 239, 4, 4, 4, 1)});
    store->merge(one, late);
    store->merge(one, late);
    EXPECT_EQ(all(one, 60),
              "0-59 1/2/3 1+0; 60-119 5/6/7 1+0; 120-179 8/8/8 1+0; 180-239 4/4/4 1+0");

    const std::string whole = store->extract(one);
    for (const size_t length : {size_t{0}, size_t{11}, size_t{30}, whole.size() - 1})
        EXPECT_THROW(store->merge_extracts(one, {whole.substr(0, length)}), EBadRequest) << length;
    support::Rng random(1);
    for (int round = 0; round < 300; ++round) {
        std::string damaged = whole;
        damaged[random.below(28 + 60)] ^= static_cast<char>(1 + random.below(255));
        try {
            store->merge_extracts(one, {damaged});
        } catch (const EBadRequest&) {
        }
        EXPECT_NO_THROW(static_cast<void>(store->get({.handle = one, .raw = true})));
    }
}

TEST_F(SeriesStoreTest, RefusesWhatCantBe) {
    const uint32_t index = store->create({continuous, {{4, 60}}});
    const auto nan = std::nanf("");
    for (auto& entry :
         {measured(-1, 5, 1, 1, 1, 1), measured(9, 5, 1, 1, 1, 1), measured(1, 2, 1, nan, 1, 1),
          measured(1, int64_t{1} << 50, 1, 1, 1, 1), states(1, 2, 1, 1, 1), data_entry_t()})
        EXPECT_THROW(store->put(index, data({entry})), EBadRequest);
    EXPECT_THROW(store->put(index + 1, {}), EBadRequest);
    EXPECT_EQ(all(index), "");
    for (const time_series_layout_t& layout :
         {time_series_layout_t{0, {{1, 1}}}, time_series_layout_t{5, {{1, 1}}},
          time_series_layout_t{1, {}}, time_series_layout_t{1, {{0, 60}}},
          time_series_layout_t{1, {{1, 0}}}, time_series_layout_t{1, {{1, 60}, {1, 60}}},
          time_series_layout_t{4, {{1, 1}, {1, 2}}}, time_series_layout_t{1, {{0xFFFFFFFF, 1}}}})
        EXPECT_THROW(static_cast<void>(store->create(layout)), EBadRequest);
    EXPECT_THROW(static_cast<void>(store->ensure(kNoSeries, 9)), EBadRequest);
}

TEST_F(SeriesStoreTest, ARemovedSeriesIsGoneAtOnceAndItsIndexIsNeverReused) {
    const uint32_t index = store->create(continuous_layout());
    EXPECT_EQ(index, 1001U);
    for (int i = 0; i < 700; ++i) store->put(index, data({measured(i * 60, i * 60, 1, 1, 1, 1)}));
    store->remove(index);
    store->remove(index);
    EXPECT_THROW(static_cast<void>(store->describe(index)), EBadRequest);
    EXPECT_EQ(store->ensure(index, kContinuousData), 1002U);
    EXPECT_EQ(store->ensure(1002, kContinuousData), 1002U);
    EXPECT_EQ(store->ensure(1002, kEnumeratedData), 1003U) << "of another type";
    store->commit();
    reopen();
    int parts = 0;
    while (store->purge_some()) ++parts;
    EXPECT_GT(parts, 1);
    EXPECT_EQ(store->oldest_time(), 0);
    store->put(1002, data({measured(77, 78, 1, 1, 1, 1)}));
    EXPECT_EQ(store->oldest_time(), 0) << "the slot of three hours";
    EXPECT_EQ(store->create(continuous_layout()), 1004U);
}

/// Appends a record a second, many to a commit, and says after each commit how far it is.
[[noreturn]] void append_for_ever(const std::string& path, uint32_t index, int say) {
    SqliteStorage storage(path, 1);
    SeriesStore store(storage);
    for (int32_t second = 1;; ++second) {
        store.put(index, data({measured(second, second, 1, 1, 1, 1)}));
        if (second % 7 != 0) continue;
        store.commit();
        if (write(say, &second, sizeof second) != sizeof second) _exit(1);
    }
}

TEST_F(SeriesStoreTest, AKillLosesNothingThatWasCommittedAndDamagesNothing) {
    const uint32_t index = store->create({continuous, {{100'000, 1}, {1000, 60}}});
    store->commit();
    support::Rng random(3);
    for (int round = 0; round < 8; ++round) {
        store.reset();
        storage.reset();
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        if (child == 0) append_for_ever(dir.file("tsdb"), index, ends[1]);
        close(ends[1]);
        int32_t committed = 0;
        for (uint64_t left = 3 + random.below(60); left > 0; --left)
            ASSERT_EQ(read(ends[0], &committed, sizeof committed), int{sizeof committed});
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        while (read(ends[0], &committed, sizeof committed) == int{sizeof committed}) {
        }
        close(ends[0]);
        reopen();
        // Each second has one sample more for each child that came so far.
        uint64_t fine = 0, coarse = 0;
        const auto seconds = store->get({.handle = index});
        for (const data_entry_t& entry : seconds) fine += to_reading(*entry, continuous).ngood;
        for (const data_entry_t& entry :
             store->get({.handle = index, .flags = get_flags(false, 60)}))
            coarse += to_reading(*entry, continuous).ngood;
        EXPECT_EQ(fine, coarse) << "a record is in all levels or in none";
        EXPECT_GE(seconds.size(), static_cast<size_t>(committed));
    }
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(dir.file("tsdb").c_str(), &database), SQLITE_OK);
    std::string verdict;
    sqlite3_exec(
        database, "PRAGMA integrity_check",
        [](void* out, int, char** texts, char**) {
            *static_cast<std::string*>(out) += texts[0];
            return 0;
        },
        &verdict, nullptr);
    sqlite3_close(database);
    EXPECT_EQ(verdict, "ok");
}

}  // namespace
}  // namespace tsdb
