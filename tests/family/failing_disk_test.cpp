// A server whose disk refuses. The limit of the size of files, set on the running process, makes
// every write to journal or database fail with EFBIG, as EIO or ENOSPC would without a disk that
// does so on request.
#include <algorithm>
#include <filesystem>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string>
#include <sys/resource.h>
#include <vector>

#include "running_family.h"

namespace family {
namespace {

void limit_files_of(pid_t process, rlim_t bytes) {
    rlimit limit{};
    ASSERT_EQ(::prlimit(process, RLIMIT_FSIZE, nullptr, &limit), 0);
    limit.rlim_cur = bytes;
    ASSERT_EQ(::prlimit(process, RLIMIT_FSIZE, &limit, nullptr), 0);
}

Outcome create_domain(cli::Api& api, const std::string& name, const std::string& comment = "") {
    return post(api, "/api/v1/create",
                {{"parent", "0.1"},
                 {"class", "Domain"},
                 {"properties", {{"name", name}, {"comment", comment}}}});
}

std::vector<std::string> domain_names(cli::Api& api) {
    std::vector<std::string> names;
    const Outcome outcome =
        post(api, "/api/v1/select", {{"roots", {"0.1"}}, {"pattern", "Domain > Domain[name]"}});
    EXPECT_TRUE(outcome.ok()) << outcome.text;
    if (outcome.ok())
        for (const auto& root : (*outcome.answer)["results"])
            for (const auto& domain : root["children"])
                names.push_back(domain["properties"]["name"].get<std::string>());
    std::sort(names.begin(), names.end());
    return names;
}

TEST(FailingDisk, EndsTheServerWithAReportAndTheNextStartHasAllThatWasAcknowledged) {
    RunningFamily family;
    cli::ApiClient api(family.url());
    ASSERT_TRUE(create_domain(api, "first").ok());
    const pid_t server = family.child_pid("dbms");
    // Its start has begun the second half of the journal's 4 MiB. What it logs stays allowed.
    limit_files_of(server, 1U << 20);

    // Its transaction can't be written to the journal: nobody may hear that it was done.
    EXPECT_FALSE(create_domain(api, "second").ok());
    EXPECT_TRUE(family.logs("Error when writing journal: File too large")) << family.log_text();

    // The main process starts it again, with limits of its own.
    ASSERT_TRUE(family.wait_healthy()) << family.log_text();
    EXPECT_NE(family.child_pid("dbms"), server);
    EXPECT_NE(family.errors_text().find("Caught: Error when writing journal"), std::string::npos)
        << family.errors_text();
    EXPECT_EQ(domain_names(api), (std::vector<std::string>{"first"}));
    EXPECT_TRUE(create_domain(api, "second").ok());
    EXPECT_EQ(domain_names(api), (std::vector<std::string>{"first", "second"}));
    EXPECT_EQ(family.stop().code, 0);
}

TEST(FullDisk, FailsTheRequestAndTheServerGoesOn) {
    RunningFamily family(256U << 10);
    cli::ApiClient api(family.url());
    const pid_t server = family.child_pid("dbms");
    // The journal has its whole length from the start and is shorter than the database's map.
    ASSERT_LT(std::filesystem::file_size(family.journal_path()),
              std::filesystem::file_size(family.database_path()));
    limit_files_of(server, std::filesystem::file_size(family.database_path()));

    std::vector<std::string> names;
    Outcome outcome;
    for (int number = 100;; ++number) {
        const std::string name = fmt::format("domain {}", number);
        outcome = create_domain(api, name, std::string(300, 'x'));
        if (!outcome.ok()) break;
        names.push_back(name);
        // A file of about 4 MiB grows by less than this many objects at once.
        ASSERT_LT(number, 5000);
    }
    EXPECT_TRUE(outcome.refused) << outcome.text;
    EXPECT_NE(outcome.text.find("Cannot grow the MDB"), std::string::npos) << outcome.text;
    EXPECT_EQ(domain_names(api), names);
    EXPECT_EQ(family.child_pid("dbms"), server);

    limit_files_of(server, RLIM_INFINITY);
    EXPECT_TRUE(create_domain(api, "more", std::string(300, 'x')).ok());
    names.push_back("more");
    EXPECT_EQ(domain_names(api), names);
    EXPECT_EQ(family.child_pid("dbms"), server);
    EXPECT_EQ(family.stop().code, 0);
}

}  // namespace
}  // namespace family
