#include <filesystem>
#include <fmt/format.h>
#include <optional>
#include <stdexcept>

#include "common/folder.h"
#include "dbcache/fixed_ids.h"
#include "dbcache/schema/declare_all.h"
#include "objects/world.h"
#include "queues/dialogs.h"
#include "queues/series_kinds.h"
#include "series/measure.h"
#include "series/store_process.h"
#include "tql/enumerations.h"
#include "tql/names.h"
#include "tql/property_kinds.h"

namespace bench {

namespace {

constexpr double kMicro = 1e6, kMega = 1e6;
constexpr int64_t kFirstHour = 1'700'002'800;

void expect(bool held, const std::string& what) {
    if (!held) throw std::runtime_error("wrong result: " + what);
}

std::vector<uint32_t> make_series(StoreProcess& store, uint32_t count) {
    std::vector<uint32_t> made;
    for (uint32_t i = 0; i < count; ++i)
        made.push_back(queues::create_time_series(&store.queue(), tsdb::continuous_layout()));
    return made;
}

/// All of it durable in the end.
double append(StoreProcess& store, const std::vector<uint32_t>& series, uint32_t records_each) {
    const double seconds = seconds_of([&] {
        for (uint32_t minute = 0; minute < records_each; ++minute)
            for (const uint32_t one : series) {
                const bool last = minute + 1 == records_each && one == series.back();
                store.put(one, minute, last);
            }
    });
    return static_cast<double>(series.size()) * records_each / seconds;
}

double bytes_below(const std::string& folder) {
    double bytes = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        if (entry.path().filename().string().starts_with("series"))
            bytes += static_cast<double>(entry.file_size());
    return bytes;
}

Figures measure_usual(const std::string& base, const SeriesSizes& sizes) {
    const Folder folder(base);
    Figures figures;
    std::optional<StoreProcess> store(folder.path());
    std::vector<uint32_t> series;
    figures["create"] =
        sizes.created / seconds_of([&] { series = make_series(*store, sizes.created); });
    while (series.size() < sizes.series) series.push_back(make_series(*store, 1).front());
    series.resize(sizes.series);
    figures["append"] = append(*store, series, sizes.records_each);

    tsdb::Get_Data_Data latest{.data_type = tsdb::kContinuousData, .flags = tsdb::kFromNewest};
    latest.count = 1;
    figures["latest"] = seconds_of([&] {
                            for (uint32_t i = 0; i < sizes.reads; ++i) {
                                latest.handle = series[i % series.size()];
                                expect(store->get(latest) == 1, "the newest record");
                            }
                        }) /
                        sizes.reads * kMicro;
    tsdb::Get_Data_Data hour{.data_type = tsdb::kContinuousData};
    hour.start = point(0, sizes.records_each - 60).start;
    figures["hour"] = seconds_of([&] {
                          for (uint32_t i = 0; i < sizes.reads; ++i) {
                              hour.handle = series[i % series.size()];
                              expect(store->get(hour) == 60, "the records of an hour");
                          }
                      }) /
                      sizes.reads * kMicro;
    store.reset();
    figures["size"] = bytes_below(folder.path()) / kMega /
                      (static_cast<double>(sizes.series) * sizes.records_each) * 1e6;
    store.emplace(folder.path());
    figures["awaited"] =
        sizes.awaited / seconds_of([&] {
            for (uint32_t i = 0; i < sizes.awaited; ++i)
                store->put(series[i % series.size()], sizes.records_each + i / sizes.series, true);
        });
    return figures;
}

Figures measure_wide(const std::string& base, const SeriesSizes& sizes) {
    const Folder folder(base);
    StoreProcess store(folder.path());
    Figures figures;
    const std::vector<uint32_t> series = make_series(store, sizes.wide_series);
    figures["wide_append"] = append(store, series, sizes.wide_records_each);
    figures["wide_memory"] = store.resident_bytes() / kMega;
    return figures;
}

/// Checks of one node, each durable.
double create_checks(World& world, uint32_t count) {
    const NodeId node = world.create(dbcache::kRootId, cls::Node, {text(prop::name, "n")});
    tql::id_t group = tql::id_t::from_node_id(node);
    group.push_back(0);
    world.set_durable(true);
    return count / seconds_of([&] {
               for (uint32_t i = 0; i < count; ++i)
                   world.create(group, cls::Check, net_check(1 + i));
           });
}

Figures measure_checks(const std::string& base, const SeriesSizes& sizes) {
    const Folder folder(base), alone(base);
    StoreProcess store(folder.path());
    World world(folder.path(), dbcache::schema::declare_all,
                {.create_series = [&](const tsdb::time_series_layout_t& layout) {
                    return queues::create_time_series(&store.queue(), layout);
                }});
    World world_alone(alone.path(), dbcache::schema::declare_all);
    return {{"check", create_checks(world, sizes.checks)},
            {"check_alone", create_checks(world_alone, sizes.checks)}};
}

}  // namespace

Point point(uint32_t series, uint32_t minute) {
    const int64_t start = kFirstHour + int64_t{minute} * 60;
    return {start, start + 59, static_cast<float>((series * 7 + minute * 13) % 1000)};
}

Figures measure_store(const std::string& base, const SeriesSizes& sizes) {
    Figures figures = measure_usual(base, sizes);
    figures.merge(measure_wide(base, sizes));
    figures.merge(measure_checks(base, sizes));
    return figures;
}

}  // namespace bench
