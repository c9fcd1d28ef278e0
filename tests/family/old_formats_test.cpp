// The real server on databases that older servers have left.
#include <filesystem>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <set>
#include <vector>

#include "hosted_server.h"
#include "platform/clock.h"
#include "platform/file.h"
#include "processes.h"
#include "queues/records/tsdb_requests.h"
#include "running_family.h"
#include "support/old_world.h"

namespace family {
namespace {

using namespace queues;

/// The old world without what stands directly below the root and is no domain: the server looks at
/// all children of the root, and there are no other classes yet.
std::vector<support::OldObject> domains_of_old_world() {
    std::vector<support::OldObject> kept;
    std::set<NodeId> left_out;
    for (const support::OldObject& object : support::old_world()) {
        const bool at_top = object.parent == NodeId{0, 1} && object.nodetype != 1;
        if (at_top || left_out.contains(object.parent))
            left_out.insert(object.id);
        else
            kept.push_back(object);
    }
    return kept;
}
constexpr const char* kActive =
    "0.1>1.40 1.10>1.40 1.20>1.40 1.30>1.32 1.31>1.32 1.32* 1.34* 1.36>1.37 1.37* 1.38>1.40 "
    "1.39>1.40 1.40*";

void write_world(const Files& files, uint32_t format) {
    platform::SystemFiles system;
    const platform::SystemClock clock;
    support::OldFormat old;
    old.number = format;
    old.indexes = format == 6 ? 5 : 6;
    old.journal_bytes = 1U << 20;
    support::write_old_database(system, clock, files.database, files.journal, old,
                                domains_of_old_world());
}

support::Dump dump(const Files& files) {
    platform::SystemFiles system;
    const platform::SystemClock clock;
    mdb::Database database({.database_path = files.database, .journal_path = files.journal}, system,
                           clock);
    return support::dump_objects(database);
}

/// The series of the view 1.50.
uint32_t view_series(const support::Dump& dump) {
    return support::word_at(dump.at({1, 50}).at(2601), 12);
}

TEST(OldFormats, AViewGetsItsSeriesFromTheTimeSeriesStore) {
    const support::TempDir dir;
    const Files files(dir);
    write_world(files, 6);
    HostedServer server(files);
    server.family().start(queue_t::tsdb, [](Actor& me) {
        for (uint32_t series = 500;; ++series) {
            const auto request = me.next();
            if (!request || request->number() != CREATE_TIMESERIES) return;
            const auto& layout = data<CREATE_TIMESERIES>(*request);
            me.report(fmt::format("{}: {} of {}", layout.type, layout.levels.front().records,
                                  layout.levels.front().span_s));
            me.queue.send(devent<RETURN_CREATE_TIMESERIES>(request->peer, request->uid, series));
        }
    });
    ASSERT_TRUE(server.start()) << server.errors();
    for (int view = 0; view < 3; ++view)
        EXPECT_EQ(server.family().next_report(queue_t::tsdb), "4: 102400 of 1");
    EXPECT_EQ(server.stop().code, 0) << server.errors();

    const support::Dump after = dump(files);
    EXPECT_EQ(after.at({0, 4}).at(2901), support::word_record(2901, 1, 12));
    EXPECT_EQ(support::list_text(after, 65), kActive);
    EXPECT_GE(view_series(after), 500U);
    EXPECT_LT(view_series(after), 503U);
}

TEST(OldFormats, TooOldAnOneIsRefused) {
    const support::TempDir dir;
    const Files files(dir);
    write_world(files, 5);
    HostedServer server(files);
    EXPECT_FALSE(server.start());
    EXPECT_EQ(server.wait_for_end().code, 1);
    EXPECT_EQ(server.errors(),
              "Caught: Database format older than 3.0.3, please upgrade to Tarmik 3.0.3 first.\n");
}

TEST(OldFormats, AFamilyServesAConvertedDatabase) {
    RunningFamily family;
    EXPECT_EQ(family.stop().code, 0);
    const Files files(family.dir());
    for (const std::string& path : {files.database, files.journal}) std::filesystem::remove(path);
    write_world(files, 6);
    family.start();
    EXPECT_TRUE(family.logs("Converting database format to 3.2.1"));
    EXPECT_TRUE(family.logs("Converting view overview"));
    EXPECT_TRUE(family.logs("Caches primed"));

    cli::ApiClient api(family.url());
    const Outcome found =
        post(api, "/api/v1/select", {{"roots", {"0.1"}}, {"pattern", "Domain > Domain[name]"}});
    ASSERT_TRUE(found.ok()) << found.text;
    const std::string text = found.answer->dump();
    for (const char* name : {"site", "quiet"})
        EXPECT_NE(text.find(name), std::string::npos) << name << " in " << text;
    EXPECT_TRUE(post(api, "/api/v1/create",
                     {{"parent", "1.11"}, {"class", "Domain"}, {"properties", {{"name", "new"}}}})
                    .ok());
    EXPECT_EQ(family.stop().code, 0);

    EXPECT_EQ(support::list_text(dump(files), 65), kActive);
    EXPECT_NE(view_series(dump(files)), 0xFFFFFFFF) << "a series of the store that runs beside it";
    const std::string said = family.dir().file("said");
    const platform::ExitStatus verified = platform::wait_for_end(
        spawn_into_files({.program = RunningFamily::program("tarmik"),
                          .arguments = {"verify", files.database, files.journal}},
                         said, said));
    EXPECT_EQ(verified.code, 0) << read_file(said);
}

}  // namespace
}  // namespace family
