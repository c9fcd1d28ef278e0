// verify, dump and stat over the files of a small database.
#include "tarmik/offline_commands.h"

#include <cstdio>
#include <fmt/format.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "captured.h"
#include "dbcache/object_handler.h"
#include "log/log.h"
#include "mdb/database.h"
#include "mdb/errors.h"
#include "mdb/format.h"
#include "mdb/index.h"
#include "mdb/large_object.h"
#include "mdb/object_store.h"
#include "mdb/property_types.h"
#include "support/fake_clock.h"
#include "support/temp_dir.h"
#include "tarmik/command_line.h"
#include "tql/names.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

class OfflineCommands : public testing::Test {
  protected:
    OfflineCommands() {
        logging::set_all_levels(logging::level_t::off);
        mdb::format_database(files_, {.database_path = arguments_.database_path,
                                      .journal_path = arguments_.journal_path,
                                      .block_size = 1024,
                                      .journal_size_bytes = 64 * 1024,
                                      .capacity_bytes = 1 << 20});
    }

    /// Opens the database, with indexes, for as long as `work` runs; ends like a killed process.
    void with_database(const std::function<void(mdb::Database&, mdb::ObjectStore&)>& work) {
        mdb::Database database(
            {.database_path = arguments_.database_path, .journal_path = arguments_.journal_path},
            files_, clock_);
        mdb::IndexTable indexes(database);
        indexes.init_required_indexes();
        mdb::ObjectStore store(database, indexes);
        work(database, store);
    }
    static void create(mdb::Database& database, mdb::ObjectStore& store,
                       const std::vector<const mdb::Property*>& properties) {
        database.serializer().serial_reset();
        for (const mdb::Property* property : properties)
            database.serializer().serial_add(*property);
        static_cast<void>(store.store_object({}));
    }
    void create_objects(mdb::Database& database, mdb::ObjectStore& store) {
        const mdb::PropertyNodeId root_id(prop::id, {0, 1});
        const mdb::PropertyNodeId no_parent(prop::parentId, {});
        const dbcache::PropertyNodeType domain(prop::nodeType,
                                               dbcache::node_type_t{nodetype::Domain});
        const mdb::PropertyNodeId id(prop::id, {1, 7});
        mdb::PropertyNodeId parent(prop::parentId, {0, 1});
        const dbcache::PropertyNodeType check(prop::nodeType,
                                              dbcache::node_type_t{nodetype::AgentCheck});
        mdb::PropertyString name(prop::name, "caf\xE9");
        name.inherited = 1;
        const mdb::PropertyVersion version(prop::version, {12, 345});
        const mdb::PropertyBool boolean(prop::isPassword, true);
        const mdb::PropertyNodeIdList set(prop::dependsOn, {{0, 9}, {0, 8}});
        const mdb::PropertyBool active(prop::active, true);
        const mdb::PropertyMarkIndex mark(prop::activeMark, {{0, 1}, {}, {1, 7}, true});
        const mdb::PropertyMarkIndex link(prop::activeMark, {{}, {1, 7}, {1, 7}, false});
        const mdb::PropertyBlob blob(prop::icon, {'a', 'b', 'c'});
        const mdb::PropertyDouble unknown_real(60'000, 0.5);
        const mdb::PropertyUint64 unknown_long(60'001, 1ULL << 40);
        mdb::Transaction transaction(database.journal());
        const std::vector<std::byte> bytes(1500, std::byte{0});
        const mdb::PropertyUint32 image(prop::largeImage, mdb::write_lob(database, bytes));
        create(database, store,
               {&id, &parent, &check, &name, &version, &boolean, &set, &active, &mark, &blob,
                &unknown_real, &unknown_long, &image});
        create(database, store, {&root_id, &no_parent, &domain, &link});
        transaction.commit();
    }
    /// Changes one byte of the file of the database.
    void damage(uint64_t offset, char byte) const {
        std::fstream file(arguments_.database_path,
                          std::ios::binary | std::ios::in | std::ios::out);
        file.seekp(static_cast<std::streamoff>(offset));
        file.put(byte);
    }

    support::TempDir dir_;
    cli::OfflineArguments arguments_{dir_.file("db"), dir_.file("journal")};
    platform::SystemFiles files_;
    support::FakeClock clock_;
};

TEST_F(OfflineCommands, DumpPrintsObjectsById) {
    with_database([&](auto& database, auto& store) { create_objects(database, store); });
    const Captured captured;
    EXPECT_EQ(cli::dump_command(arguments_, captured.output), cli::kDone);
    const std::string data = captured.data();
    const size_t end = data.find('\n');
    const json first = json::parse(data.substr(0, end));
    const json second = json::parse(data.substr(end + 1));
    EXPECT_EQ(first["id"], "0.1");
    EXPECT_EQ(first["class"], "Domain");
    EXPECT_EQ(second["id"], "1.7");
    EXPECT_EQ(second["class"], "Check");
    EXPECT_EQ(second["inherited"], json::parse(R"(["name"])"));
    EXPECT_EQ(second["properties"]["largeImage"], std::string(2000, 'A'));
    json properties = second["properties"];
    properties.erase("largeImage");
    EXPECT_EQ(properties, json::parse(R"({"parentId": "0.1", "nodeType": 11,
        "name": "caf\ufffd", "version": "12.345", "isPassword": true, "dependsOn": ["0.8", "0.9"],
        "active": true,
        "activeMark": {"type": "mark", "marked": true, "prev": "0.1", "next": "0.0", "last": "1.7"},
        "icon": "YWJj", "60000": {"type": "real", "value": 0.5}, "60001": 1099511627776})"));
    EXPECT_EQ(captured.remarks(), "");
}

TEST_F(OfflineCommands, DumpPassesOverDamageAndSaysSo) {
    mdb::block_handle_t place;
    with_database([&](auto& database, auto& store) {
        create_objects(database, store);
        database.journal().checkpoint_and_flip();
        mdb::IndexTable indexes(database);
        indexes.init_required_indexes();
        place = indexes.unique_search(mdb::node_id_index, {1, 7});
    });
    // The length of the record behind id, parent and node type.
    damage(uint64_t{place.block} * 1024 + place.offset + 4 + 24 + 24 + 16 + 7, '\x07');
    const Captured captured;
    EXPECT_EQ(cli::dump_command(arguments_, captured.output), cli::kFailed);
    EXPECT_THAT(captured.data(), HasSubstr(R"("nodeType":11}})"));
    EXPECT_THAT(captured.data(), HasSubstr(R"({"id":"0.1")"));
    EXPECT_THAT(
        captured.remarks(),
        HasSubstr(fmt::format("block {} offset {}: object 1.7:", place.block, place.offset)));
}

TEST_F(OfflineCommands, VerifyAndStatTellWhatThereIs) {
    with_database([&](auto& database, auto& store) { create_objects(database, store); });
    {
        const Captured captured;
        EXPECT_EQ(cli::verify_command(arguments_, captured.output), cli::kDone);
        EXPECT_THAT(captured.data(), HasSubstr("2 objects with 17 records, 2 indexes with 4 "
                                               "entries, 1 large object, "));
        EXPECT_THAT(captured.data(), HasSubstr("no faults found\n"));
        EXPECT_EQ(captured.remarks(), "");
    }
    {
        const Captured captured;
        EXPECT_EQ(cli::stat_command(arguments_, captured.output), cli::kDone);
        EXPECT_THAT(captured.data(),
                    HasSubstr("index 0        id: 2 entries, height 2, 1 nodes, 1 leaves, 3 % "
                              "full\n"));
        EXPECT_THAT(captured.data(), HasSubstr("large objects  1 with 1500 bytes\n"));
    }
    Captured captured;
    captured.output.json = true;
    EXPECT_EQ(cli::stat_command(arguments_, captured.output), cli::kDone);
    const json figures = json::parse(captured.data());
    EXPECT_EQ(figures["blocks"]["lob"], 2);
    EXPECT_EQ(figures["blocks"]["root index"], 2);
    EXPECT_EQ(figures["objects"]["count"], 2);
    EXPECT_EQ(figures["journal"]["bytes"], 64 * 1024);
    EXPECT_GT(figures["journal"]["transactions_to_replay"], 0);
}

TEST_F(OfflineCommands, VerifyNamesFaultsAndFails) {
    with_database([&](auto& database, auto& store) {
        create_objects(database, store);
        database.journal().checkpoint_and_flip();
    });
    // The mark of the first root.
    damage(3 * 1024 + 1, '\x05');
    {
        const Captured captured;
        EXPECT_EQ(cli::verify_command(arguments_, captured.output), cli::kFailed);
        EXPECT_THAT(captured.data(), HasSubstr("block 1 offset 0: N1 block has mark 5, not 4\n"));
        EXPECT_THAT(captured.data(), HasSubstr("\n1 fault found\n"));
    }
    Captured captured;
    captured.output.json = true;
    EXPECT_EQ(cli::verify_command(arguments_, captured.output), cli::kFailed);
    const json found = json::parse(captured.data());
    EXPECT_EQ(found["fault_count"], 1);
    EXPECT_EQ(found["faults"][0]["rule"], "N1");
    EXPECT_EQ(found["faults"][0]["block"], 1);
}

TEST_F(OfflineCommands, EndWithTheExitCodesOfTheTable) {
    const auto run = [&](const std::vector<std::string>& words) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = cli::run_command_line(words);
        (void)std::fflush(stdout);
        testing::internal::GetCapturedStdout();
        return fmt::format("{} {}", code, testing::internal::GetCapturedStderr());
    };
    for (const char* const command : {"verify", "dump", "stat"}) {
        EXPECT_EQ(run({command, arguments_.database_path, arguments_.journal_path}), "0 ");
        EXPECT_THAT(run({command, dir_.file("none"), arguments_.journal_path}),
                    testing::AllOf(HasSubstr("1 tarmik: Cannot open"),
                                   HasSubstr("No such file or directory")));
        EXPECT_THAT(
            run({command, arguments_.database_path, dir_.path().string()}),
            testing::AllOf(HasSubstr("1 tarmik: Cannot open"), HasSubstr("Is a directory")));
        EXPECT_THAT(run({command, arguments_.database_path}), HasSubstr("2 "));
        with_database([&](auto&, auto&) {
            EXPECT_THAT(run({command, arguments_.database_path, arguments_.journal_path}),
                        testing::AllOf(HasSubstr("1 tarmik: "), HasSubstr("is in use by ")));
        });
    }
    ASSERT_EQ(::truncate(arguments_.database_path.c_str(), 100), 0);
    EXPECT_EQ(run({"verify", arguments_.database_path, arguments_.journal_path}), "1 ");
    EXPECT_THAT(run({"stat", arguments_.database_path, arguments_.journal_path}),
                HasSubstr("block 0 offset 100: H1"));
    EXPECT_THAT(run({"dump", arguments_.database_path, arguments_.journal_path}),
                HasSubstr("does not look like a Tarmik Meta Database"));
}

}  // namespace
