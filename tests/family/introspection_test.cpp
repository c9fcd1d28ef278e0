// Looking into a running family from outside: metrics as a monitoring system scrapes them, levels
// of loggers, and the log files.
#include <cstdio>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "running_family.h"

namespace family {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

/// For the python of the system, which has the packages of scripts/install-deps.
/// Reads the metrics with a parser that others wrote and prints what it understood as JSON: by
/// family its sort and help, and the values by the names and labels of the samples.
constexpr const char* kScrape = R"(
import json, sys, urllib.request
from prometheus_client.parser import text_string_to_metric_families
answer = urllib.request.urlopen(sys.argv[1] + '/metrics')
assert answer.headers['Content-Type'].startswith('text/plain; version=0.0.4')
families, samples = {}, {}
for family in text_string_to_metric_families(answer.read().decode('utf-8')):
    assert family.name not in families, family.name
    families[family.name] = [family.type, family.documentation]
    for sample in family.samples:
        labels = ','.join(k + '=' + v for k, v in sorted(sample.labels.items()))
        key = sample.name + '{' + labels + '}'
        assert key not in samples, key
        samples[key] = sample.value
print(json.dumps({'families': families, 'samples': samples}))
)";

json scrape(const std::string& url) {
    const std::string command = fmt::format("/usr/bin/python3 -c \"{}\" {}", kScrape, url);
    std::FILE* output = ::popen(command.c_str(), "r");
    std::string text;
    char piece[4096];
    for (size_t count; (count = std::fread(piece, 1, sizeof piece, output)) > 0;)
        text.append(piece, count);
    EXPECT_EQ(::pclose(output), 0) << text;
    return json::parse(text, nullptr, false);
}

TEST(Introspection, MetricsAreScrapedAndLevelsSet) {
    const RunningFamily family;
    cli::ApiClient api(family.url());
    const json node{{"class", "Node"}, {"parent", "0.1"}, {"properties", {{"name", "gw"}}}};
    ASSERT_TRUE(post(api, "/api/v1/create", node).ok());
    ASSERT_TRUE(post(api, "/api/v1/create", node).refused);
    ASSERT_TRUE(post(api, "/api/v1/select", {{"pattern", "Domain > Node[name]"}}).ok());

    const json first = scrape(family.url());
    EXPECT_EQ(first["families"]["tarmik_journal_commits"],
              (json{"counter", "Number of transactions commit'ed"}));
    EXPECT_EQ(first["families"]["tarmik_buffercache_size_KiB"],
              (json{"gauge", "Current size of buffer cache"}));
    EXPECT_EQ(first["families"]["tarmik_event_proc_time_us"],
              (json{"summary", "The time spent processing events originating from this process"}));
    const json& values = first["samples"];
    EXPECT_EQ(values["tarmik_dbcache_create_fails_total{}"], 1);
    EXPECT_EQ(values["tarmik_event_type_time_us_count{type=TQL_CREATE}"], 2);
    EXPECT_EQ(values["tarmik_event_proc_time_us_count{proc=wapi}"],
              values["tarmik_event_time_us_count{}"]);
    EXPECT_GT(values["tarmik_event_type_time_us_sum{type=TQL_CREATE}"],
              values["tarmik_event_type_time_us_max{type=TQL_CREATE}"]);
    EXPECT_LE(values["tarmik_event_type_time_us_min{type=TQL_CREATE}"],
              values["tarmik_event_type_time_us_max{type=TQL_CREATE}"]);
    EXPECT_GT(values["tarmik_dbcache_time_encode_us_count{}"], 0);

    // The same by JSON, for one path, and what there isn't.
    const ordered_json part = api.get("/api/v1/metrics/event/type/TQL_CREATE");
    ASSERT_EQ(part["metrics"].size(), 1U) << part;
    EXPECT_EQ(part["metrics"][0]["path"], "event/type/TQL_CREATE/time");
    EXPECT_EQ(part["metrics"][0]["value"]["count"], 2);
    EXPECT_EQ(api.get("/api/v1/metrics//dbms/event/type/TQL_CREATE/")["metrics"].size(), 1U);
    EXPECT_THROW((void)api.get("/api/v1/metrics/event/nothing"), cli::CommandError);

    EXPECT_EQ(family.log_text().find("[debug]"), std::string::npos);
    ASSERT_TRUE(post(api, "/api/v1/log-levels", {{"levels", {{"dbms_tql", "debug"}}}}).ok());
    EXPECT_TRUE(family.logs("dbms [dbms_tql] [debug] Set loglevel to debug"));
    ASSERT_TRUE(
        post(api, "/api/v1/log-levels", {{"levels", {{"wapi", "trace"}}}, {"process", "wapi"}})
            .ok());
    EXPECT_TRUE(family.logs("wapi [wapi] [trace] Set loglevel to trace"));
    for (const json& wrong :
         {json{{"levels", {{"dbms", "loud"}}}}, json{{"levels", json::object()}}, json::object(),
          json{{"levels", {{"*", "info"}}}, {"process", "nobody"}}, json{{"levels", {{"*", 1}}}},
          json{{"levels", {{"dbcach", "info"}}}},
          json{{"levels", {{"", "info"}}}, {"process", "tsdb"}},
          json{{"levels", {{"dbcache", "info"}}}, {"process", "wapi"}}})
        EXPECT_TRUE(post(api, "/api/v1/log-levels", wrong).refused) << wrong;
}

}  // namespace
}  // namespace family
