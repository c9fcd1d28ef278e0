// A picture of a result that follows the server: it applies the events of GET /api/v1/subscribe,
// and tells what each of them changed.
//
// How a client keeps up, in short. A "result" replaces everything. A "patch" tells of one object: a
// node that is "on_path" only leads to it, so its values are brought up to date and its other
// children stay; every other node stands as it is told, with all below it, in the place of what was
// there. An object stands in one place: one that comes leaves the place where it stood before. A
// "delete" takes an object and all below it out. After that, and after a move, an object whose
// class is in the "kept_by" of the last result goes as well when it has no child of the classes
// named there; and so on up. Children stand in the order of their ids, number by number; those
// without an id of their own stand before them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "error/exception.h"
#include "tql/id.h"

namespace cli {

/// An event says what none of the gateway's does. The picture is empty then: only a new result
/// helps.
class MirrorError : public error::Exception {
  public:
    using Exception::Exception;
};

class Mirror {
  public:
    /// An object of the picture.
    struct Node {
        /// Names the node in the picture and from one event to the next: its id, or for one without
        /// an id of its own where it stands.
        std::string key;
        /// As the gateway told it, without its children.
        nlohmann::ordered_json object;
        Node* parent = nullptr;
        std::vector<std::unique_ptr<Node>> children;
        tql::id_t id;             ///< empty for a node without an id of its own
        uint32_t class_rank = 0;  ///< orders those
    };

    enum class change_t { added, changed, moved, removed };

    /// What an event did to a node; the objects are as in the node.
    struct Change {
        change_t kind = change_t::added;
        std::string key;
        nlohmann::ordered_json before;  ///< null if it was added
        nlohmann::ordered_json after;   ///< null if it was removed
        /// Where a removed one stood: its parent's key, and its place among the children there.
        std::string parent_key{};
        size_t place = 0;
    };

    Mirror();

    /// Applies an event by its name: "result", "patch" or "delete". Gives the changes, those that
    /// stand now first, in the order of the picture, then the removed ones. A node whose version
    /// alone is new has not changed. Costs what the event tells of; a result the whole picture.
    /// Throws MirrorError for other names and for garbage.
    std::vector<Change> apply(std::string_view event, const nlohmann::ordered_json& data);

    /// The nodes at the top. They live until the next event.
    [[nodiscard]] const std::vector<std::unique_ptr<Node>>& roots() const { return top_.children; }
    [[nodiscard]] size_t size() const { return nodes_.size(); }
    /// The picture in the form of an answer to a select.
    [[nodiscard]] nlohmann::ordered_json results() const;

  private:
    class Step;

    void reset();

    Node top_;  ///< has the roots as its children
    std::unordered_map<std::string, Node*> nodes_;
    std::map<std::string, std::set<std::string>> kept_by_;
};

}  // namespace cli
