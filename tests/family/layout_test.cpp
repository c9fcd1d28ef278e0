// The real server and its layout file: without a sound one it doesn't start, and says why.
#include <fmt/format.h>
#include <fstream>
#include <gtest/gtest.h>

#include "hosted_server.h"
#include "mdb/format.h"
#include "platform/file.h"
#include "processes.h"

namespace family {
namespace {

TEST(Layout, AFileThatIsWrongEndsTheStartBeforeTheDatabaseIsTouched) {
    const support::TempDir dir;
    const Files files(dir);
    platform::SystemFiles system;
    mdb::format_database(system, {.database_path = files.database,
                                  .journal_path = files.journal,
                                  .block_size = 1024,
                                  .journal_size_bytes = 1U << 20,
                                  .capacity_bytes = 64U << 20});
    const std::string database = read_file(files.database);
    const std::string path = dir.file("layout.conf");
    const auto expect_end = [&](int code, const std::string& errors) {
        HostedServer server(files);
        server.config().layout_conf_path = path;
        ASSERT_FALSE(server.start());
        EXPECT_EQ(server.wait_for_end().code, code);
        EXPECT_EQ(server.errors(), errors);
        EXPECT_TRUE(read_file(files.database) == database) << "the database was changed";
    };
    {
        SCOPED_TRACE("no file");
        expect_end(1, fmt::format("Caught: Error opening {}\n", path));
    }
    {
        SCOPED_TRACE("a wrong file");
        std::ofstream(path) << "# Nodes\nclass Node \"Node\" {\n  group \"G\" { \"name\" }\n}\n";
        expect_end(1, "Caught: In: 3 syntax error\n");
    }
    std::ofstream(path, std::ios::trunc).close();
    HostedServer server(files);
    server.config().layout_conf_path = path;
    EXPECT_TRUE(server.start()) << "an empty file is a sound one: " << server.errors();
    EXPECT_EQ(server.stop().code, 0) << server.errors();
}

TEST(Layout, ClientsOfAFamilyWithoutConfigurationSeeTheDeliveredOne) {
    const RunningFamily family;
    cli::ApiClient api(family.url());
    const Outcome found =
        post(api, "/api/v1/select",
             {{"pattern",
               "MetaInfo > ClassLayout[label]{name = \"Node\"} > GroupLayout > "
               "PropertyLayout[name]{name = \"checkinFrequency\" & unit = \"s\"}"}});
    ASSERT_TRUE(found.ok()) << found.text;
    EXPECT_NE(found.answer->dump().find("checkinFrequency"), std::string::npos) << *found.answer;
}

}  // namespace
}  // namespace family
