#include "tarmik/mirror.h"

#include <algorithm>
#include <fmt/format.h>
#include <tuple>
#include <unordered_set>
#include <utility>

#include "tql/names.h"

namespace cli {

namespace {

using nlohmann::ordered_json;

/// Deeper than any result of the gateway.
constexpr size_t kMaxDepth = 3000;
constexpr unsigned kTemplate = 2;  // flag of an object that could be created

[[noreturn]] void refuse(std::string_view what) {
    throw MirrorError(fmt::format("The gateway sent what is no result: {}", what));
}

const ordered_json& get_list(const ordered_json& from, const char* field) {
    const auto found = from.find(field);
    if (found == from.end() || !found->is_array()) refuse(fmt::format("no list \"{}\"", field));
    return *found;
}

std::string get_text(const ordered_json& from, const char* field) {
    const auto found = from.is_object() ? from.find(field) : from.end();
    if (found == from.end() || !found->is_string()) refuse(fmt::format("no text \"{}\"", field));
    return found->get<std::string>();
}

const ordered_json* find_children(const ordered_json& object) {
    const auto found = object.find("children");
    if (found == object.end()) return nullptr;
    if (!found->is_array()) refuse("children that are no list");
    return &*found;
}

bool is_template(const ordered_json& object) {
    const auto flags = object.find("flags");
    if (flags == object.end()) return false;
    if (!flags->is_number_unsigned()) refuse("flags that are no number");
    return (flags->get<unsigned>() & kTemplate) != 0;
}

bool leads_on(const ordered_json& object) {
    const auto found = object.is_object() ? object.find("on_path") : object.end();
    return found != object.end() && found->is_boolean() && found->get<bool>();
}

/// The id that names this node alone, empty if there is none.
tql::id_t own_id(const ordered_json& object) {
    if (is_template(object)) return {};  // the id of a template is that of the object above it
    const std::string text = get_text(object, "id");
    if (text.empty()) return {};
    const auto id = tql::id_t::parse(text);
    if (!id) refuse(fmt::format("the id \"{}\"", text.substr(0, 60)));
    return *id;
}

auto order_of(const Mirror::Node& node) {
    return std::tuple(!node.id.empty(), node.class_rank, node.id);
}

ordered_json without_version(ordered_json object) {
    object.erase("version");
    return object;
}

/// Brings the values of a node on the way of a patch up to date. The patch may tell fewer of them
/// than the picture has.
void merge_values(ordered_json& into, const ordered_json& told) {
    ordered_json inherited = ordered_json::array();
    const auto& names = told.find("properties");
    const auto is_told = [&](const ordered_json& name) {
        return names != told.end() && name.is_string() && names->contains(name.get<std::string>());
    };
    for (const ordered_json& name : into.value("inherited", ordered_json::array()))
        if (!is_told(name)) inherited.push_back(name);
    for (const ordered_json& name : told.value("inherited", ordered_json::array()))
        inherited.push_back(name);
    ordered_json tags = into.value("tags", ordered_json::array());
    for (const ordered_json& tag : told.value("tags", ordered_json::array()))
        if (std::find(tags.begin(), tags.end(), tag) == tags.end()) tags.push_back(tag);
    ordered_json properties = into.value("properties", ordered_json::object());
    if (names != told.end()) properties.update(*names);

    for (const auto& [field, value] : told.items())
        if (field != "children" && field != "on_path") into[field] = value;
    into["properties"] = std::move(properties);
    for (auto [field, list] : {std::pair("inherited", &inherited), std::pair("tags", &tags)})
        if (list->empty())
            into.erase(field);
        else
            into[field] = std::move(*list);
}

}  // namespace

/// The work of one event: what it takes out, puts in and brings up to date, and what comes of that.
class Mirror::Step {
  public:
    explicit Step(Mirror& mirror) : mirror_(mirror) {}

    void take_result(const ordered_json& data) {
        if (!data.is_object()) refuse("no object");
        const ordered_json& results = get_list(data, "results");
        is_result_ = true;
        while (!mirror_.top_.children.empty()) take_out(*mirror_.top_.children.back());
        read_kept_by(data);
        in_doubt_.clear();
        for (const ordered_json& object : results) put_in(object, mirror_.top_, 1);
    }

    void take_patch(const ordered_json& data) {
        const auto patch = data.is_object() ? data.find("patch") : data.end();
        if (patch == data.end()) refuse("a patch without object");
        merge(*patch, mirror_.top_, 1);
        prune();
    }

    void take_delete(const ordered_json& data) {
        if (Node* node = find(get_text(data, "id"))) take_out(*node);
        prune();
    }

    std::vector<Change> changes() {
        std::vector<Change> all;
        for (const std::string& key : came_) {
            const Node* node = find(key);
            if (node == nullptr || !told_.insert(key).second) continue;
            const auto was = was_.find(key);
            if (was == was_.end())
                all.push_back({change_t::added, key, nullptr, node->object});
            else if (without_version(was->second.object) != without_version(node->object))
                all.push_back({change_t::changed, key, was->second.object, node->object});
            else if (was->second.parent_key != node->parent->key)
                all.push_back({change_t::moved, key, was->second.object, node->object});
        }
        for (const std::string& key : seen_) {
            if (find(key) != nullptr) continue;
            Was& was = was_.at(key);
            all.push_back({change_t::removed, key, std::move(was.object), nullptr,
                           std::move(was.parent_key), was.place});
        }
        return all;
    }

  private:
    /// A node before the event.
    struct Was {
        ordered_json object;
        std::string parent_key;
        size_t place = 0;
    };

    [[nodiscard]] Node* find(const std::string& key) const {
        const auto found = mirror_.nodes_.find(key);
        return found == mirror_.nodes_.end() ? nullptr : found->second;
    }

    void read_kept_by(const ordered_json& data) {
        mirror_.kept_by_.clear();
        const auto found = data.find("kept_by");
        if (found == data.end()) return;
        for (const auto& [class_name, keepers] : found->items())
            for (const ordered_json& keeper : keepers)
                mirror_.kept_by_[class_name].insert(keeper.get<std::string>());
    }

    void note(const Node& node, ordered_json object, size_t place) {
        if (new_.contains(node.key)) return;
        if (was_.try_emplace(node.key, Was{std::move(object), node.parent->key, place}).second)
            seen_.push_back(node.key);
    }

    /// With all below it.
    void take_out(Node& node) {
        auto& siblings = node.parent->children;
        const auto own = std::find_if(siblings.begin(), siblings.end(),
                                      [&](const auto& each) { return each.get() == &node; });
        in_doubt_.push_back(node.parent->key);
        note_all(node, static_cast<size_t>(own - siblings.begin()));
        siblings.erase(own);
    }

    void note_all(Node& node, size_t place) {
        note(node, std::move(node.object), place);
        mirror_.nodes_.erase(node.key);
        for (size_t i = 0; i < node.children.size(); ++i) note_all(*node.children[i], i);
    }

    /// Puts a node in with all below it.
    Node& put_in(const ordered_json& told, Node& parent, size_t depth) {
        Node& node = put_alone(told, parent, depth);
        if (const ordered_json* children = find_children(told))
            for (const ordered_json& child : *children) put_in(child, node, depth + 1);
        return node;
    }

    Node& put_alone(const ordered_json& told, Node& parent, size_t depth) {
        if (depth > kMaxDepth) refuse("a tree that is too deep");
        auto made = std::make_unique<Node>();
        const std::string class_name = get_text(told, "class");
        for (const auto& [field, value] : told.items())
            if (field != "children" && field != "on_path") made->object[field] = value;
        made->id = own_id(told);
        if (made->id.empty()) made->class_rank = tql::find_class(class_name).value_or(cls::kCount);
        made->parent = &parent;
        made->key = make_key(*made, class_name, parent);
        auto& siblings = parent.children;
        const auto place = std::upper_bound(
            siblings.begin(), siblings.end(), made,
            [](const auto& a, const auto& b) { return order_of(*a) < order_of(*b); });
        Node& node = **siblings.insert(place, std::move(made));
        mirror_.nodes_[node.key] = &node;
        came_.push_back(node.key);
        if (!was_.contains(node.key)) new_.insert(node.key);
        return node;
    }

    /// Makes room for the key where it is an id that stands elsewhere.
    std::string make_key(const Node& node, const std::string& class_name, const Node& parent) {
        if (node.id.empty()) {
            const std::string stem = fmt::format("{}/{}", parent.key, class_name);
            size_t ordinal = 0;
            while (find(fmt::format("{}/{}", stem, ordinal)) != nullptr) ++ordinal;
            return fmt::format("{}/{}", stem, ordinal);
        }
        const std::string id = node.id.to_string();
        Node* elsewhere = find(id);
        if (elsewhere == nullptr) return id;
        if (is_result_) {
            // Two roots, one below the other: the object stands in both trees.
            size_t occurrence = 2;
            while (find(fmt::format("{}@{}", id, occurrence)) != nullptr) ++occurrence;
            return fmt::format("{}@{}", id, occurrence);
        }
        for (const Node* above = &parent; above != nullptr; above = above->parent)
            if (above == elsewhere) refuse("an object below itself");
        take_out(*elsewhere);
        return id;
    }

    void merge(const ordered_json& told, Node& parent, size_t depth) {
        if (!leads_on(told)) {
            put_in(told, parent, depth);
            return;
        }
        Node* node = find(get_text(told, "id"));
        if (node == nullptr || node->parent != &parent) {
            node = &put_alone(told, parent, depth);
            in_doubt_.push_back(node->key);
        } else {
            note(*node, node->object, 0);
            merge_values(node->object, told);
            came_.push_back(node->key);
        }
        const ordered_json* children = find_children(told);
        if (children == nullptr) return;
        take_out_nameless(*node, *children);
        for (const ordered_json& child : *children) merge(child, *node, depth + 1);
    }

    /// Of children without id all of a class come together.
    void take_out_nameless(Node& node, const ordered_json& coming) {
        std::set<std::string> classes;
        for (const ordered_json& child : coming)
            if (own_id(child).empty()) classes.insert(get_text(child, "class"));
        for (size_t i = node.children.size(); i-- > 0;) {
            Node& child = *node.children[i];
            if (child.id.empty() && classes.contains(get_text(child.object, "class")))
                take_out(child);
        }
    }

    /// Takes out what has nothing to be there for: it has left, or what came is there only beside
    /// it.
    void prune() {
        for (size_t i = 0; i < in_doubt_.size(); ++i) {  // grows on the way
            Node* node = find(in_doubt_[i]);
            if (node == nullptr) continue;
            const auto rule = mirror_.kept_by_.find(get_text(node->object, "class"));
            if (rule == mirror_.kept_by_.end()) continue;
            const std::set<std::string>& keepers = rule->second;
            const bool is_kept =
                std::any_of(node->children.begin(), node->children.end(), [&](const auto& child) {
                    return keepers.contains(".") ||
                           keepers.contains(get_text(child->object, "class"));
                });
            if (!is_kept) take_out(*node);
        }
    }

    Mirror& mirror_;
    bool is_result_ = false;
    std::unordered_map<std::string, Was> was_;
    std::vector<std::string> seen_;        ///< keys of was_ in their order
    std::vector<std::string> came_;        ///< keys of what was put in or brought up to date
    std::unordered_set<std::string> new_;  ///< those of came_ that weren't there before the event
    std::set<std::string> told_;
    /// Keys of those that have lost a child, or have come for the sake of one.
    std::vector<std::string> in_doubt_;
};

Mirror::Mirror() = default;

void Mirror::reset() {
    nodes_.clear();
    kept_by_.clear();
    top_.children.clear();
}

std::vector<Mirror::Change> Mirror::apply(std::string_view event, const ordered_json& data) {
    try {
        Step step(*this);
        if (event == "result")
            step.take_result(data);
        else if (event == "patch")
            step.take_patch(data);
        else if (event == "delete")
            step.take_delete(data);
        else
            refuse(fmt::format("an event \"{}\"", event.substr(0, 60)));
        return step.changes();
    } catch (const ordered_json::exception& wrong) {
        reset();
        refuse(wrong.what());
    } catch (const MirrorError&) {
        reset();
        throw;
    }
}

namespace {

ordered_json to_json(const Mirror::Node& node) {
    ordered_json object = node.object;
    if (node.children.empty()) return object;
    ordered_json& children = object["children"] = ordered_json::array();
    for (const auto& child : node.children) children.push_back(to_json(*child));
    return object;
}

}  // namespace

ordered_json Mirror::results() const {
    ordered_json all = ordered_json::array();
    for (const auto& root : top_.children) all.push_back(to_json(*root));
    return all;
}

}  // namespace cli
