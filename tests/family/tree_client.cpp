#include "tree_client.h"

#include <algorithm>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "processes.h"
#include "tarmik/api_client.h"

namespace family {

namespace {

constexpr unsigned kPercentOfChanges = 12;
constexpr size_t kLargeDelete = 10 * TreeSizes::objects_per_node();
constexpr size_t kLargestDelete = 60 * TreeSizes::objects_per_node();

}  // namespace

TreeClient::TreeClient(std::string url, std::string top, const TreeSizes& sizes, uint64_t seed)
    : url_(std::move(url)), top_(std::move(top)), sizes_(sizes), rng_(seed) {
    domains_.push_back(top_);
}

void TreeClient::work(const std::atomic<bool>& stop) {
    api_ = std::make_unique<cli::ApiClient>(url_);
    while (!stop && !doubt_ && !::testing::Test::HasFailure()) step();
}

void TreeClient::build() {
    api_ = std::make_unique<cli::ApiClient>(url_);
    while (!is_built() && !::testing::Test::HasFailure()) {
        step();
        ASSERT_FALSE(doubt_) << "a request has no answer";
    }
}

bool TreeClient::is_built() const {
    return wanted_domains() == 0 && nodes_.size() >= sizes_.nodes && to_fill_.empty();
}

// ---- what must be there ------------------------------------------------------------------------

void TreeClient::check() {
    Tree found;
    read_tree(found);
    if (doubt_) ++doubted_;
    if (doubt_ && found != tree_) {
        doubt_();
        ++doubted_and_done_;
    }
    doubt_ = {};
    expect_equal(found);
}

void TreeClient::read_tree(Tree& found) const {
    cli::ApiClient api(url_);
    Outcome outcome;
    // A gateway that was left alive may still have to find the server.
    EXPECT_TRUE(wait_for(
        [&] {
            outcome = post(api, "/api/v1/select",
                           {{"roots", {top_}},
                            {"pattern",
                             "Domain*$[name, label] > Node$[name, label] > NodeInfoGroup$[tag] > "
                             "NodeInfoLine[order, text]"}});
            return outcome.ok() || outcome.refused;
        },
        60));
    ASSERT_TRUE(outcome.ok()) << outcome.text;
    for (const auto& root : (*outcome.answer)["results"]) {
        ASSERT_EQ(root["id"], top_);
        read_children(root, found);
    }
}

TreeClient::Values TreeClient::values_of(const nlohmann::ordered_json& properties) {
    Values values;
    for (const auto& [name, value] : properties.items())
        values[name] = value.is_string() ? value.get<std::string>() : value.dump();
    return values;
}

std::string TreeClient::text(const Known& known) {
    std::string text = "under " + known.parent;
    for (const auto& [name, value] : known.values) text += fmt::format(" {}={}", name, value);
    return text;
}

void TreeClient::read_children(const nlohmann::ordered_json& object, Tree& found) {
    if (!object.contains("children")) return;
    for (const auto& child : object["children"]) {
        EXPECT_TRUE(found
                        .try_emplace(child["id"], Known{object["id"], child["class"],
                                                        values_of(child["properties"])})
                        .second)
            << child["id"] << " is there twice";
        read_children(child, found);
    }
}

void TreeClient::expect_equal(const Tree& found) const {
    for (const auto& [id, known] : tree_) {
        const auto other = found.find(id);
        if (other == found.end())
            ADD_FAILURE() << known.class_name << " " << id << " was acknowledged and is gone";
        else if (!(other->second == known))
            ADD_FAILURE() << id << " " << text(other->second) << ", wanted " << text(known);
        if (::testing::Test::HasFailure()) return;
    }
    for (const auto& [id, other] : found)
        if (!tree_.contains(id))
            ADD_FAILURE() << id << " " << text(other) << " is deleted or was never made";
}

// ---- what it does ------------------------------------------------------------------------------

size_t TreeClient::wanted_domains() const {
    const size_t own = domains_.size() - 1;
    return sizes_.domains - std::min(own, sizes_.domains);
}

void TreeClient::step() {
    if (large_delete_asked_) return remove_large();
    if (rng_.chance(kPercentOfChanges) || is_built()) return change();
    if (!to_fill_.empty()) return fill();
    // Domains and nodes grow at the same pace.
    if (wanted_domains() > 0 &&
        (domains_.size() - 1) * sizes_.nodes <= nodes_.size() * sizes_.domains)
        return make_domain();
    make_node();
}

void TreeClient::make_domain() {
    const std::string name = fmt::format("domain {}", ++domain_names_);
    create(rng_.chance(50) ? top_ : any(domains_), "Domain", {{"name", name}, {"label", "new"}},
           [this](const std::string& id) { domains_.push_back(id); });
}

void TreeClient::make_node() {
    const std::string name = fmt::format("node {}", ++node_names_);
    create(any(domains_), "Node", {{"name", name}, {"label", "new"}},
           [this](const std::string& id) {
               nodes_.push_back(id);
               to_fill_ = id;
               group_.clear();
               lines_of_group_ = 0;
           });
}

void TreeClient::fill() {
    if (!tree_.contains(to_fill_)) return to_fill_.clear();
    if (group_.empty())
        return create(to_fill_, "NodeInfoGroup", {{"tag", "inventory"}},
                      [this](const std::string& id) { group_ = id; });
    create(group_, "NodeInfoLine", {{"order", lines_of_group_}, {"text", "line"}},
           [this](const std::string& id) {
               lines_.push_back(id);
               if (++lines_of_group_ == TreeSizes::kLinesPerNode) to_fill_.clear();
           });
}

void TreeClient::change() {
    // A domain takes hundreds with it: few of them, so that the tree grows all the same.
    const uint64_t what = rng_.below(400);
    if (what == 0) return remove_large();
    if (what < 10 && !nodes_.empty()) return remove(any(nodes_));
    if (what < 30) return move(domains_);
    if (what < 200) return move(nodes_);
    if (what < 300) return relabel(nodes_, "label");
    relabel(lines_, "text");
}

void TreeClient::relabel(const Ids& which, const char* property) {
    if (which.empty()) return;
    const std::string id = any(which);
    // Of many lengths, so that records grow, shrink and move to other blocks.
    const std::string value =
        fmt::format("value {}{}", rng_.below(1000), std::string(rng_.below(120), 'x'));
    update(id, {{property, value}}, [=, this] { tree_[id].values[property] = value; });
}

void TreeClient::move(const Ids& which) {
    if (which.empty()) return;
    const std::string id = any(which);
    const std::string to = any(domains_);
    if (id == top_ || is_below(to, id) || tree_[id].parent == to) return;
    update(id, {{"parentId", to}}, [=, this] { tree_[id].parent = to; });
}

void TreeClient::remove_large() {
    std::map<std::string, size_t> below;
    for (const auto& [id, known] : tree_)
        for (std::string above = known.parent; above != top_; above = tree_[above].parent)
            ++below[above];
    Ids candidates;
    for (const std::string& id : domains_)
        if (below[id] >= kLargeDelete && below[id] <= kLargestDelete) candidates.push_back(id);
    if (!candidates.empty()) {
        remove(any(candidates));
        if (!doubt_) ++large_deletes_;
    }
    large_delete_asked_ = false;
}

void TreeClient::remove(const std::string& id) {
    Ids gone;
    for (const auto& [other, known] : tree_)
        if (is_below(other, id)) gone.push_back(other);
    settle(post(*api_, "/api/v1/delete", {{"id", id}}), [=, this] { forget(gone); });
}

void TreeClient::forget(const Ids& gone) {
    for (const std::string& id : gone) tree_.erase(id);
    for (Ids* ids : {&domains_, &nodes_, &lines_})
        std::erase_if(*ids,
                      [&](const std::string& id) { return id != top_ && !tree_.contains(id); });
}

// ---- requests ----------------------------------------------------------------------------------

void TreeClient::create(const std::string& parent, const std::string& class_name,
                        const nlohmann::ordered_json& properties,
                        const std::function<void(const std::string&)>& made) {
    const Outcome outcome =
        post(*api_, "/api/v1/create",
             {{"parent", parent}, {"class", class_name}, {"properties", properties}});
    const Known made_of{parent, class_name, values_of(properties)};
    const auto note = [=, this](const std::string& id) {
        tree_[id] = made_of;
        made(id);
    };
    if (is_acknowledged(outcome)) return note((*outcome.answer)["id"]);
    doubt_ = [=, this] {
        if (const std::string id = find_new(made_of); !id.empty()) note(id);
    };
}

std::string TreeClient::find_new(const Known& wanted) const {
    cli::ApiClient api(url_);
    std::string names;
    for (const auto& [name, value] : wanted.values) names += (names.empty() ? "" : ", ") + name;
    const Outcome outcome =
        post(api, "/api/v1/select",
             {{"roots", {wanted.parent}},
              {"pattern", fmt::format(". > {}[{}]", wanted.class_name, names)}});
    if (!outcome.ok()) return {};
    for (const auto& root : (*outcome.answer)["results"])
        for (const auto& child : root["children"])
            if (values_of(child["properties"]) == wanted.values && !tree_.contains(child["id"]))
                return child["id"];
    return {};
}

void TreeClient::update(const std::string& id, const nlohmann::ordered_json& properties,
                        const Change& note) {
    settle(post(*api_, "/api/v1/update", {{"id", id}, {"properties", properties}}), note);
}

void TreeClient::settle(const Outcome& outcome, const Change& note) {
    if (is_acknowledged(outcome))
        note();
    else
        doubt_ = note;
}

bool TreeClient::is_acknowledged(const Outcome& outcome) {
    if (outcome.refused) ADD_FAILURE() << outcome.text;
    if (outcome.ok()) ++acknowledged_;
    return outcome.ok();
}

bool TreeClient::is_below(std::string id, const std::string& above) const {
    while (id != above) {
        const auto known = tree_.find(id);
        if (known == tree_.end()) return false;
        id = known->second.parent;
    }
    return true;
}

}  // namespace family
