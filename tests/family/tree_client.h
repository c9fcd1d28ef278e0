// A client that builds a part of the tree of its own, changes it, moves it about and deletes some
// of it, and knows what it must look like after the server was killed at any moment.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "running_family.h"
#include "support/rng.h"

namespace family {

/// How large a client's part of the tree becomes.
struct TreeSizes {
    static constexpr size_t kLinesPerNode = 19;

    size_t domains;
    size_t nodes;
    /// A node, its group and the lines of it.
    [[nodiscard]] static constexpr size_t objects_per_node() { return 2 + kLinesPerNode; }
    [[nodiscard]] size_t small_objects() const { return nodes * (objects_per_node() - 1); }
    [[nodiscard]] size_t objects() const { return domains + nodes * objects_per_node(); }
};

class TreeClient {
  public:
    /// `top` is a domain of its own to build under.
    TreeClient(std::string url, std::string top, const TreeSizes& sizes, uint64_t seed);

    /// Builds and changes until `stop` is set or a request has no answer. That one is in doubt
    /// until check(). A tree that has its size is only changed. Fails the test for a request that
    /// is refused.
    void work(const std::atomic<bool>& stop);
    /// The same until the tree has its size; each request must have an answer.
    void build();
    /// Fails the test unless exactly what was acknowledged is there; the request in doubt may have
    /// been done, as a whole, or not at all.
    void check();

    // For other threads at any time.
    [[nodiscard]] const std::string& top() const { return top_; }
    [[nodiscard]] size_t acknowledged() const { return acknowledged_; }
    /// Has the next step delete a domain with ten nodes or more, if there is one.
    void ask_for_large_delete() { large_delete_asked_ = true; }
    /// False once that was done, or there was none.
    [[nodiscard]] bool large_delete_asked() const { return large_delete_asked_; }
    [[nodiscard]] size_t large_deletes() const { return large_deletes_; }

    // Only while nobody works.
    [[nodiscard]] size_t objects() const { return tree_.size(); }
    [[nodiscard]] size_t domains() const { return domains_.size(); }
    [[nodiscard]] size_t nodes() const { return nodes_.size(); }
    [[nodiscard]] size_t lines() const { return lines_.size(); }
    /// Requests so far whose answer was lost, and those of them that had been done.
    [[nodiscard]] size_t doubted() const { return doubted_; }
    [[nodiscard]] size_t doubted_and_done() const { return doubted_and_done_; }

  private:
    using Change = std::function<void()>;
    using Ids = std::vector<std::string>;
    using Values = std::map<std::string, std::string>;

    struct Known {
        std::string parent;
        std::string class_name;
        /// All values that it was given.
        Values values;
        friend bool operator==(const Known&, const Known&) = default;
    };
    using Tree = std::map<std::string, Known>;

    static Values values_of(const nlohmann::ordered_json& properties);
    static std::string text(const Known& known);
    static void read_children(const nlohmann::ordered_json& object, Tree& found);
    void read_tree(Tree& found) const;
    void expect_equal(const Tree& found) const;

    [[nodiscard]] size_t wanted_domains() const;
    [[nodiscard]] bool is_built() const;
    void step();
    void make_domain();
    void make_node();
    void fill();
    void change();
    void relabel(const Ids& which, const char* property);
    void move(const Ids& which);
    void remove_large();
    /// With all below it.
    void remove(const std::string& id);
    void forget(const Ids& gone);

    void create(const std::string& parent, const std::string& class_name,
                const nlohmann::ordered_json& properties,
                const std::function<void(const std::string&)>& made);
    /// The id that an object in doubt was given; empty when it wasn't made.
    [[nodiscard]] std::string find_new(const Known& wanted) const;
    void update(const std::string& id, const nlohmann::ordered_json& properties,
                const Change& note);
    void settle(const Outcome& outcome, const Change& note);
    /// False for a request without an answer.
    [[nodiscard]] bool is_acknowledged(const Outcome& outcome);
    [[nodiscard]] bool is_below(std::string id, const std::string& above) const;
    [[nodiscard]] const std::string& any(const Ids& ids) { return ids[rng_.below(ids.size())]; }

    const std::string url_;
    const std::string top_;
    const TreeSizes sizes_;
    support::Rng rng_;
    std::unique_ptr<cli::Api> api_;
    Tree tree_;
    Ids domains_;
    Ids nodes_;
    Ids lines_;
    size_t domain_names_ = 0;
    size_t node_names_ = 0;
    /// The node that gets its small objects, its group, and how many lines that was given.
    std::string to_fill_;
    std::string group_;
    size_t lines_of_group_ = 0;
    /// Does to tree_ what the last request has done, if it has.
    Change doubt_;
    size_t doubted_ = 0;
    size_t doubted_and_done_ = 0;
    std::atomic<size_t> acknowledged_ = 0;
    std::atomic<bool> large_delete_asked_ = false;
    std::atomic<size_t> large_deletes_ = 0;
};

}  // namespace family
