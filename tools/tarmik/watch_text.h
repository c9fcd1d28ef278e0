// What `tarmik watch` shows of a picture and its changes: the tree as lines with marks for what has
// just changed, and changes as lines of their own. Nothing here knows a terminal or a connection.
//
//   + a node that is new          ~ one with other values     > one that stands elsewhere now
//   - one that is gone, which keeps its line for a moment
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "tarmik/mirror.h"

namespace cli {

/// A change as a line for people, without a line end: its sign, the object, and for a changed one
/// each value as `label: "a" -> "b"`.
[[nodiscard]] std::string change_text(const Mirror::Change& change);

/// A change for programs: `change` ("added", "changed", "moved", "removed"), `object`, and `before`
/// where there was something else.
[[nodiscard]] nlohmann::ordered_json change_json(const Mirror::Change& change);

/// A notice of an operation as a line for people, without a line end: what was done, the object,
/// and the objects above it.
[[nodiscard]] std::string operation_text(const nlohmann::ordered_json& notice);

/// The names of the values that differ.
[[nodiscard]] std::set<std::string> changed_values(const Mirror::Change& change);

class WatchView {
  public:
    /// How long a change is marked.
    static constexpr uint64_t kMark_us = 3'000'000;

    /// Marks what an event changed. `now_us` is on any clock that goes on.
    void note(const std::vector<Mirror::Change>& changes, uint64_t now_us);
    /// Takes the marks away whose time is over; true if there were some.
    bool forget_old(uint64_t now_us);
    /// When the next mark is to be taken away.
    [[nodiscard]] std::optional<uint64_t> next_end_us() const;

    /// The whole picture, a line for each node, with the sign of its mark in front. Costs the
    /// picture.
    [[nodiscard]] std::vector<std::string> lines(const Mirror& mirror, bool colored) const;

  private:
    struct Mark {
        Mirror::change_t kind = Mirror::change_t::added;
        std::set<std::string> values{};
        uint64_t end_us = 0;
    };
    struct Gone {
        std::string line;
        size_t place = 0;
        uint64_t end_us = 0;
    };
    class Writer;

    std::unordered_map<std::string, Mark> marks_;  ///< by key
    /// Lines of nodes that are gone, by the key of the parent, which still stands.
    std::unordered_map<std::string, std::vector<Gone>> gone_;
};

/// The lines that a window shows, and what stands below them.
struct Window {
    std::vector<std::string> lines;
    std::string status;
};

/// Cuts `lines` to a window of `rows` lines, the last of which is for the status, and of `columns`
/// signs each, beginning at line `*first`, which is moved so that the window is full if it can be.
/// `remark` stands at the end of the status.
[[nodiscard]] Window cut_window(const std::vector<std::string>& lines, size_t rows, size_t columns,
                                size_t* first, const std::string& remark);

}  // namespace cli
