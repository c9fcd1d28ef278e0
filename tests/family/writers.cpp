#include "writers.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace family {

namespace {

std::string label_of(const std::string& name) {
    return "label of " + name;
}

}  // namespace

void Writer::work() {
    cli::ApiClient api(url_);
    for (int number = 0; !stop_; ++number) {
        const std::string name = fmt::format("{}-{}", prefix_, number);
        const Outcome outcome = post(api, "/api/v1/create",
                                     {{"parent", parent_},
                                      {"class", "Node"},
                                      {"properties", {{"name", name}, {"label", label_of(name)}}}});
        const std::lock_guard lock(mutex_);
        if (outcome.ok())
            acknowledged_[name] = (*outcome.answer)["id"].get<std::string>();
        else if (outcome.refused)
            refusals_.push_back(outcome.text);
        else
            ++unavailable_;
    }
}

std::map<std::string, std::string> acknowledged_to(const Writers& writers) {
    std::map<std::string, std::string> acknowledged;
    for (const auto& writer : writers) acknowledged.merge(writer->acknowledged());
    return acknowledged;
}

std::map<std::string, std::string> nodes_below(cli::Api& api, const std::string& parent) {
    std::map<std::string, std::string> found;
    const Outcome outcome = post(api, "/api/v1/select",
                                 {{"roots", {parent}}, {"pattern", "Domain > Node[name, label]"}});
    EXPECT_TRUE(outcome.ok()) << outcome.text;
    if (!outcome.ok()) return found;
    for (const auto& root : (*outcome.answer)["results"])
        for (const auto& node : root["children"]) {
            const std::string name = node["properties"]["name"].get<std::string>();
            EXPECT_EQ(node["properties"]["label"].get<std::string>(), label_of(name));
            EXPECT_TRUE(found.emplace(name, node["id"].get<std::string>()).second) << name;
        }
    return found;
}

std::string create_domain(cli::Api& api) {
    const Outcome outcome = post(api, "/api/v1/create",
                                 {{"parent", "0.1"},
                                  {"class", "Domain"},
                                  {"properties", {{"name", "site"}, {"label", "Site"}}}});
    EXPECT_TRUE(outcome.ok()) << outcome.text;
    return outcome.ok() ? (*outcome.answer)["id"].get<std::string>() : "";
}

void expect_there(const std::map<std::string, std::string>& wanted, cli::Api& api,
                  const std::string& parent) {
    const std::map<std::string, std::string> found = nodes_below(api, parent);
    for (const auto& [name, id] : wanted) {
        const auto node = found.find(name);
        if (node == found.end())
            ADD_FAILURE() << name << " was acknowledged and is gone";
        else
            EXPECT_EQ(node->second, id) << name;
    }
}

}  // namespace family
