#include "main/config.h"

#include <fstream>
#include <gtest/gtest.h>

#include "error/exception.h"
#include "support/temp_dir.h"

namespace mainprocess {
namespace {

std::string write_file(const support::TempDir& dir, const std::string& text) {
    const std::string path = dir.file("tarmik.toml");
    std::ofstream(path) << text;
    return path;
}

const SiblingConfig* find_sibling(const Config& config, const std::string& name) {
    for (const SiblingConfig& sibling : config.siblings)
        if (sibling.name == name) return &sibling;
    return nullptr;
}

TEST(Config, FileChangesWhatItNamesAndNothingElse) {
    const support::TempDir dir;
    const Config config = read_config(write_file(dir, R"(
[server]
dbms_odb_file_path = "/data/world.odb"
dbms_buffer_blocks = 64
passive = true
snmp_timeout_initial = 1.5
modem_options = ["a", "b"]
[family]
restart_first_delay_ms = 5
[siblings.wapi]
enabled = false
[siblings.extra]
program = "/opt/extra"
depend_on = ["wapi"]
slice_size_bytes = 65536
)"),
                                      "/bin");
    const Config untouched = default_config("/bin");
    EXPECT_EQ(config.server.dbms_odb_file_path, "/data/world.odb");
    EXPECT_EQ(config.server.dbms_odbj_file_path, untouched.server.dbms_odbj_file_path);
    EXPECT_EQ(config.server.dbms_buffer_blocks, 64U);
    EXPECT_TRUE(config.server.passive);
    EXPECT_EQ(config.server.snmp_timeout_initial, Time(1, 500'000));
    EXPECT_EQ(config.server.modem_options.size(), 2U);
    EXPECT_EQ(config.restart.first_delay_ms, 5);
    EXPECT_EQ(config.restart.longest_delay_ms, untouched.restart.longest_delay_ms);
    EXPECT_FALSE(find_sibling(config, "wapi")->enabled);
    ASSERT_NE(find_sibling(config, "extra"), nullptr);
    EXPECT_EQ(find_sibling(config, "extra")->slice_size_bytes, 65536U);
    EXPECT_TRUE(find_sibling(config, "extra")->depend_on.contains(queues::queue_t::wapi));
    EXPECT_EQ(find_sibling(config, "dbms")->program, "/bin/dbms");
    EXPECT_FALSE(
        find_sibling(read_config(write_file(dir, "[server]\nwapi_enabled = false\n"), "/bin"),
                     "wapi")
            ->enabled);
}

TEST(Config, FileThatIsNotThereIsRefusedByName) {
    for (const std::string path : {"/nowhere/tarmik.toml", "/usr"}) {
        try {
            (void)read_config(path, "/bin");
            ADD_FAILURE() << "accepted " << path;
        } catch (const error::EFatal& failure) {
            EXPECT_EQ(failure.text(), "Cannot read configuration " + path);
        }
    }
}

TEST(Config, WhatIsNoSettingIsRefusedWithItsPlace) {
    struct Case {
        const char* text;
        const char* expected;
    };
    const Case cases[] = {
        {"[server]\ncolour = 1\n", ":2: server.colour is no setting"},
        {"[server]\nmtu = \"big\"\n", ":2: server.mtu must be a whole number"},
        {"[server]\nmtu = -1\n", ":2: server.mtu must be a whole number"},
        {"[server]\nmtu = 4294967296\n", ":2: server.mtu must be a whole number"},
        {"[server]\nwapi_port = 65536\n",
         ":2: server.wapi_port must be a whole number from 1 to 65535"},
        {"[server]\nsmem_size = 1000\n", "server.smem_size must be at least 41947136"},
        {"[server]\npassive = 1\n", ":2: server.passive must be true or false"},
        {"[server]\nhost_name = 1\n", ":2: server.host_name must be a text"},
        {"[server]\nsnmp_timeout_max = -1\n",
         ":2: server.snmp_timeout_max must be a number of seconds"},
        {"[siblings.nobody]\n", "\"nobody\" is no sibling"},
        {"[siblings.wapi]\nslice_size_bytes = 4100\n", "must be a multiple of 8"},
        {"[siblings.wapi]\ndepend_on = [\"nobody\"]\n", "\"nobody\" is no sibling"},
        {"[siblings.dbms]\ndepend_on = [\"wapi\"]\n",
         "siblings.dbms.depend_on leads into a circle"},
        {"[siblings.wapi]\ndepend_on = [\"wapi\"]\n",
         "siblings.wapi.depend_on leads into a circle"},
        {"[family]\nrestart_first_delay_ms = 0\n", ":2: family.restart_first_delay_ms must be"},
        {"[family]\nstop_timeout_s = -1\n", ":2: family.stop_timeout_s must be"},
        {"server = 3\n", ":1: server must be a table"},
        {"[servers]\n", "servers is no setting"},
        {"[server\n", ":1:"},
    };
    const support::TempDir dir;
    for (const Case& one : cases) {
        SCOPED_TRACE(one.text);
        try {
            (void)read_config(write_file(dir, one.text), "/bin");
            ADD_FAILURE() << "accepted";
        } catch (const error::EFatal& failure) {
            EXPECT_NE(failure.text().find(one.expected), std::string::npos) << failure.text();
            EXPECT_NE(failure.text().find(dir.file("tarmik.toml")), std::string::npos)
                << failure.text();
        }
    }
}

}  // namespace
}  // namespace mainprocess
