// A node class in a running family: a site of JSON gives a class and a node that follows it, and
// people see what came from where.
#include <fstream>
#include <gtest/gtest.h>

#include "processes.h"
#include "running_family.h"

namespace family {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr const char* kSite = R"({"parent": "0.1", "objects": [
  {"class": "AlertGroup", "as": "web team", "properties": {"name": "web team"}},
  {"class": "NodeClass", "as": "class", "properties": {"name": "Web server"}, "children": [
    {"class": "NodeClassNodeConfig", "children": [
      {"class": "NodeClassCheckGroupConfig", "properties": {"tag": "netchecks", "forAll": true}, "children": [
        {"class": "NodeClassCheckConfig", "as": "ping", "properties":
          {"tag": "ping", "remoteType": "ICMP", "checkAttempts": 3, "frequency": 60}},
        {"class": "NodeClassCheckConfig", "as": "http", "properties":
          {"tag": "http", "remoteType": "HTTP", "httpUrl": "/health", "frequency": 120,
           "warnIfAbove": 250, "alertIfAbove": 900, "alertGroup": {"object": "web team"},
           "dependsOn": [{"object": "ping"}]}}]},
      {"class": "NodeClassCheckGroupConfig", "properties": {"tag": "agentchecks", "forAll": true}}]}]},
  {"class": "Node", "as": "host", "properties": {"name": "web-1", "nodeClasses": [{"object": "class"}]},
   "children": [
    {"class": "Check", "as": "own ping", "properties":
      {"remoteName": "web-1", "remoteType": "ICMP", "inherits": {"object": "ping"}}},
    {"class": "Check", "as": "own http", "properties":
      {"remoteName": "web-1", "remoteType": "HTTP", "frequency": 30, "inherits": {"object": "http"}}}]}]})";

class NodeClass : public testing::Test {
  protected:
    NodeClass() {
        std::ofstream(site_) << kSite;
        EXPECT_EQ(load(), 0);
    }
    /// Ends with how the family ended.
    void TearDown() override { EXPECT_EQ(family.stop().code, 0) << family.log_text(); }

    int load() {
        return platform::wait_for_end(
                   platform::spawn({.program = RunningFamily::program("tarmik"),
                                    .arguments = {"--url=" + family.url(), "load", site_}}))
            .code;
    }
    ordered_json ask(const std::string& path, const json& body) {
        const Outcome outcome = post(api, path, body);
        EXPECT_TRUE(outcome.ok()) << path << " " << outcome.text;
        return outcome.ok() ? *outcome.answer : ordered_json();
    }
    /// All objects that match below the root, whatever stands above them.
    ordered_json find(const std::string& pattern) {
        ordered_json found = ask("/api/v1/select", {{"pattern", pattern}})["results"];
        while (!found.empty() && found[0].contains("children")) found = found[0]["children"];
        return found;
    }
    ordered_json check(const std::string& type) {
        return find(
                   "Domain > Node > CheckGroup > Check[remoteType,frequency,httpUrl,warnIfAbove,"
                   "alertGroup,dependsOn,goodScore,anyOverridden,hasInherits]{remoteType=\"" +
                   type + "\"}")
            .at(0);
    }
    std::string config(const std::string& tag) {
        return find(".*^ > NodeClassCheckConfig{tag=\"" + tag + "\"}").at(0)["id"];
    }

    RunningFamily family;
    cli::ApiClient api{family.url()};

  private:
    const std::string site_ = family.dir().file("site.json");
};

TEST_F(NodeClass, ALoadedNodeFollowsItsClassAndCatchesUp) {
    ordered_json http = check("HTTP");
    const auto value = [&](const char* name) { return http["properties"][name]; };
    EXPECT_EQ(value("frequency"), 30);
    EXPECT_EQ(value("httpUrl"), "/health");
    EXPECT_EQ(value("warnIfAbove"), 250);
    EXPECT_EQ(value("goodScore"), -5);
    EXPECT_EQ(value("dependsOn"), json::array({check("ICMP")["id"]}));
    EXPECT_EQ(value("alertGroup"), find("Domain > AlertGroup").at(0)["id"]);
    EXPECT_EQ(value("anyOverridden"), true);
    EXPECT_EQ(http["inherited"],
              json({"dependsOn", "alertGroup", "goodScore", "warnIfAbove", "httpUrl"}));
    EXPECT_EQ(find(".*^ > Check{hasInherits=true}").size(), 2U);

    // The class changes: whoever follows is found and written, and the override is taken back.
    ask("/api/v1/update", {{"id", config("http")}, {"properties", {{"httpUrl", "/ready"}}}});
    http = check("HTTP");
    EXPECT_EQ(value("httpUrl"), "/health");
    ask("/api/v1/update",
        {{"id", http["id"]}, {"properties", {{"frequency", {{"inherit", true}}}}}});
    http = check("HTTP");
    EXPECT_EQ(value("httpUrl"), "/ready");
    EXPECT_EQ(value("frequency"), 120);
    EXPECT_EQ(value("anyOverridden"), true) << "its name";
}

TEST_F(NodeClass, PeopleAskWhatAReferenceWouldMeanAndLoadTheSiteAgain) {
    const std::string ping = config("ping");
    const std::string group =
        find("Domain > Node > CheckGroup{siblingName=\"netchecks\"}").at(0)["id"];
    const ordered_json translated =
        ask("/api/v1/translate",
            {{"parent", group}, {"inherits", config("http")}, {"references", {ping, "0.1"}}});
    EXPECT_EQ(translated["references"].dump(), "[{\"id\":\"" + ping + "\",\"candidates\":[" +
                                                   check("ICMP")["id"].dump() +
                                                   "]},{\"id\":\"0.1\",\"candidates\":[\"0.1\"]}]");
    const json unknown{{"id", "7.7"}, {"inherits", ping}, {"references", {"0.1"}}};
    const Outcome refused = post(api, "/api/v1/translate", unknown);
    EXPECT_TRUE(refused.refused);
    EXPECT_NE(refused.text.find("7.7 not found"), std::string::npos) << refused.text;

    // A second time everything is there, the configurations without a whole key too.
    EXPECT_EQ(load(), 0);
    EXPECT_EQ(find("Domain > NodeClass > NodeClassNodeConfig > NodeClassCheckGroupConfig").size(),
              2U);
    EXPECT_EQ(find(".*^ > NodeClassCheckConfig").size(), 2U);
}

}  // namespace
}  // namespace family
