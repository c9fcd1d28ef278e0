// What verify and stat tell of mark lists, counters and deletes, over a small tree put down as
// records.
#include <fmt/format.h>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "captured.h"
#include "dbcache/accounting_rebuild.h"
#include "dbcache/bootstrap.h"
#include "dbcache/mark_rebuild.h"
#include "dbcache/schema_table.h"
#include "dbcache/stored_tree.h"
#include "log/log.h"
#include "mdb/database.h"
#include "mdb/format.h"
#include "mdb/index.h"
#include "mdb/object_store.h"
#include "support/fake_clock.h"
#include "support/temp_dir.h"
#include "tarmik/offline_commands.h"
#include "tql/names.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

const NodeId kRoot{0, 1}, kNode{1, 1}, kGroup{1, 2}, kActive{1, 3}, kInactive{1, 4}, kNet{1, 5};
constexpr uint32_t kTombstone = 0;
constexpr uint32_t kFormatWithoutLists = 6;

class TreeReport : public testing::Test {
  protected:
    using Parts = dbcache::Store::Parts;

    TreeReport() {
        logging::set_all_levels(logging::level_t::off);
        mdb::format_database(files_, {.database_path = arguments_.database_path,
                                      .journal_path = arguments_.journal_path,
                                      .block_size = 1024,
                                      .journal_size_bytes = 64 * 1024,
                                      .capacity_bytes = 1 << 20});
    }

    /// Opens the database for as long as `work` runs; ends like a killed process.
    void with_parts(const std::function<void(const Parts&)>& work) {
        mdb::Database database(
            {.database_path = arguments_.database_path, .journal_path = arguments_.journal_path},
            files_, clock_);
        mdb::IndexTable indexes(database);
        indexes.init_required_indexes();
        mdb::ObjectStore objects(database, indexes);
        work({database, objects, indexes, schemas_, clock_});
    }
    static void add(const Parts& parts, const NodeId& id, const NodeId& parent, uint32_t nodetype,
                    std::optional<bool> active = {}) {
        mdb::Serializer& serializer = parts.database.serializer();
        serializer.serial_reset();
        serializer.serial_add(mdb::PropertyNodeId(prop::id, id));
        serializer.serial_add(mdb::PropertyNodeId(prop::parentId, parent));
        serializer.serial_add(
            dbcache::PropertyNodeType(prop::nodeType, static_cast<dbcache::node_type_t>(nodetype)));
        serializer.serial_add(mdb::PropertyString(prop::name, "x"));
        if (active) serializer.serial_add(mdb::PropertyBool(prop::active, *active));
        static_cast<void>(parts.objects.store_object({}));
    }
    static void add_tree(const Parts& parts) {
        add(parts, kRoot, {}, nodetype::Domain);
        add(parts, kNode, kRoot, nodetype::Node);
        add(parts, kGroup, kNode, nodetype::AgentCheckGroup);
        add(parts, kActive, kGroup, nodetype::AgentCheck, true);
        add(parts, kInactive, kGroup, nodetype::AgentCheck, false);
        add(parts, kNet, kNode, nodetype::NetCheck, false);
    }
    static void add_lists_and_counters(const Parts& parts) {
        dbcache::StoredTree tree(parts);
        dbcache::recreate_missing_mark_lists(tree);
        // A rebuild is for domains; nodes and groups have theirs from the writes below them.
        const mdb::PropertyCount net(prop::countNetChecks, 1);
        const mdb::PropertyCount agent(prop::countAgentChecks, 1);
        tree.rewrite(tree.get(kNode), {&net, &agent});
        tree.rewrite(tree.get(kGroup), {&agent});
        dbcache::ensure_accounting(parts);
    }
    /// Replaces one property of a stored object.
    void rewrite(const NodeId& id, const mdb::Property& property) {
        with_parts([&](const Parts& parts) {
            dbcache::StoredTree tree(parts);
            tree.rewrite(tree.get(id), {&property});
        });
    }

    std::string run(cli::exit_code_t (*command)(const cli::OfflineArguments&, const cli::Output&),
                    cli::exit_code_t expected) {
        const Captured captured;
        const cli::exit_code_t code = command(arguments_, captured.output);
        const std::string data = captured.data();
        EXPECT_EQ(code, expected) << data;
        return data;
    }
    json figures() {
        Captured captured;
        captured.output.json = true;
        EXPECT_EQ(cli::stat_command(arguments_, captured.output), cli::kDone);
        return json::parse(captured.data())["tree"];
    }

    support::TempDir dir_;
    cli::OfflineArguments arguments_{dir_.file("db"), dir_.file("journal")};
    platform::SystemFiles files_;
    support::FakeClock clock_;
    dbcache::SchemaTable schemas_;
};

TEST_F(TreeReport, ADatabaseWithoutListsAndCountersIsWhole) {
    EXPECT_THAT(run(cli::verify_command, cli::kDone),
                HasSubstr("There is no root object; the next start makes it.\n"));
    with_parts([](const Parts& parts) {
        dbcache::store_sequence(parts, {.ring_sequence = 1, .format = kFormatWithoutLists});
        add_tree(parts);
    });
    const std::string text = run(cli::verify_command, cli::kDone);
    EXPECT_THAT(text, HasSubstr("There is no list of active objects; the next start builds it.\n"));
    EXPECT_THAT(text, Not(HasSubstr("inheriting objects"))) << "nobody inherits";
    EXPECT_THAT(text, HasSubstr("The root lacks counters; the next start works them out.\n"));
    EXPECT_THAT(run(cli::stat_command, cli::kDone), HasSubstr("counters       none\n"));
    EXPECT_EQ(figures()["remarks"].size(), 2U);
}

TEST_F(TreeReport, ListsAndCountersAreTold) {
    with_parts([](const Parts& parts) {
        add_tree(parts);
        add_lists_and_counters(parts);
    });
    const std::string text = run(cli::verify_command, cli::kDone);
    EXPECT_THAT(text, HasSubstr("active 2 marked and 3 linked, inheriting 0 marked and 0 linked, "
                                "0 tombstones kept, 0 waiting with 0 objects below\n"));
    EXPECT_THAT(text, Not(HasSubstr("counters")));
    EXPECT_THAT(run(cli::stat_command, cli::kDone), HasSubstr("\n  countNodes             1\n"));
    const json tree = figures();
    EXPECT_EQ(tree["active_list"], json::parse(R"({"exists": true, "marked": 2, "linked": 3})"));
    EXPECT_EQ(tree["inherits_list"]["exists"], false);
    EXPECT_EQ(tree["root_counters"]["countAgentChecks"], 1);
    EXPECT_EQ(tree["root_counters"]["countNetChecks"], 1);
}

TEST_F(TreeReport, WhatDeletesHaveLeftIsNoFault) {
    with_parts([](const Parts& parts) {
        add_tree(parts);
        add(parts, {2, 1}, {0, 3}, kTombstone);
        add(parts, {2, 2}, {0, 5}, kTombstone);
        add(parts, {2, 3}, {2, 2}, nodetype::Node);
        add(parts, {2, 4}, {2, 3}, nodetype::NetCheck, true);
        add_lists_and_counters(parts);
    });
    const std::string text = run(cli::verify_command, cli::kDone);
    EXPECT_THAT(text, HasSubstr("1 tombstone kept, 1 waiting with 2 objects below\n"));
    EXPECT_THAT(text, HasSubstr("The next start goes on removing the 2 objects below deleted "
                                "ones.\n"));
    EXPECT_THAT(run(cli::stat_command, cli::kDone),
                HasSubstr("  tombstones   1 kept, 1 waiting with 2 objects below them\n"));
}

TEST_F(TreeReport, FaultsAreNamed) {
    with_parts([](const Parts& parts) {
        add_tree(parts);
        add_lists_and_counters(parts);
    });
    rewrite(kActive, mdb::PropertyBool(prop::active, false));
    std::string text = run(cli::verify_command, cli::kFailed);
    EXPECT_THAT(text, HasSubstr("K1 Object 1.3 has activeMark with a wrong mark\n"));
    EXPECT_THAT(text, HasSubstr("A1 Accounting error in domain x (0.1): countAgentChecks is 1, "
                                "not 0"));
    rewrite(kActive, mdb::PropertyBool(prop::active, true));
    EXPECT_THAT(run(cli::verify_command, cli::kDone), HasSubstr("no faults found\n"));

    mdb::MarkLinks lost;
    lost.last = kNet;
    lost.marked = true;
    rewrite(kNet, mdb::PropertyMarkIndex(prop::activeMark, lost));
    EXPECT_THAT(run(cli::verify_command, cli::kFailed), HasSubstr(": K1 Object 1."));
}

}  // namespace
