#include "tarmik/watch_text.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "tarmik/tree_view.h"

namespace cli {

namespace {

using nlohmann::ordered_json;
using change_t = Mirror::change_t;

constexpr const char* kPlain = "\x1b[0m";

char sign_of(change_t kind) {
    switch (kind) {
        case change_t::added:
            return '+';
        case change_t::changed:
            return '~';
        case change_t::moved:
            return '>';
        default:
            return '-';
    }
}

const char* color_of(change_t kind) {
    switch (kind) {
        case change_t::added:
            return "\x1b[32m";
        case change_t::changed:
            return "\x1b[33m";
        case change_t::moved:
            return "\x1b[36m";
        default:
            return "\x1b[31m";
    }
}

ordered_json values_of(const ordered_json& object) {
    const auto found = object.is_object() ? object.find("properties") : object.end();
    return found != object.end() && found->is_object() ? *found : ordered_json::object();
}

/// A value by name as people read it; "-" for none.
std::string shown(const ordered_json& values, const std::string& name) {
    const auto found = values.find(name);
    return found == values.end() ? "-" : value_text(*found);
}

/// The begin of a line, at most `columns` signs wide; sequences that color have no width.
std::string cut_line(const std::string& line, size_t columns) {
    size_t width = 0;
    for (size_t at = 0; at < line.size();) {
        if (line[at] == '\x1b') {
            at = std::min(line.find('m', at), line.size() - 1) + 1;
            continue;
        }
        if (width == columns) {
            // All but the colors, so that none stays on.
            std::string kept = line.substr(0, at);
            return line.find('\x1b') == line.npos ? kept : kept + kPlain;
        }
        ++width;
        do ++at;
        while (at < line.size() && (static_cast<unsigned char>(line[at]) & 0xC0) == 0x80);
    }
    return line;
}

}  // namespace

std::set<std::string> changed_values(const Mirror::Change& change) {
    std::set<std::string> names;
    const ordered_json before = values_of(change.before);
    const ordered_json after = values_of(change.after);
    for (const auto& [name, value] : after.items())
        if (!before.contains(name) || before.at(name) != value) names.insert(name);
    for (const auto& [name, value] : before.items())
        if (!after.contains(name)) names.insert(name);
    return names;
}

std::string change_text(const Mirror::Change& change) {
    const ordered_json& object = change.after.is_null() ? change.before : change.after;
    if (change.kind != change_t::changed)
        return fmt::format("{} {}", sign_of(change.kind), object_line(object, false));
    ordered_json bare = object;
    bare.erase("properties");
    std::string text = fmt::format("~ {}", object_line(bare, false));
    std::string_view gap = "  ";
    const ordered_json before = values_of(change.before);
    const ordered_json after = values_of(change.after);
    for (const std::string& name : changed_values(change)) {
        text += fmt::format("{}{}: {} -> {}", gap, name, shown(before, name), shown(after, name));
        gap = ", ";
    }
    return text;
}

ordered_json change_json(const Mirror::Change& change) {
    static constexpr const char* kNames[] = {"added", "changed", "moved", "removed"};
    ordered_json line;
    line["change"] = kNames[static_cast<size_t>(change.kind)];
    line["object"] = change.after.is_null() ? change.before : change.after;
    if (change.kind == change_t::changed) line["before"] = change.before;
    return line;
}

std::string operation_text(const ordered_json& notice) {
    const auto operation = notice.find("operation");
    std::string text = operation == notice.end() ? "?"
                       : operation->is_string()  ? operation->get<std::string>()
                                                 : operation->dump();
    text = fmt::format("{:<8} {} {}", text, notice.value("class", "?"), notice.value("id", ""));
    std::string_view gap = "  in ";
    const ordered_json path = notice.value("path", ordered_json::array());
    for (size_t i = 1; i < path.size(); ++i) {
        text += fmt::format("{}{} {}", gap, path[i].value("class", "?"), path[i].value("id", ""));
        gap = " < ";
    }
    return text;
}

void WatchView::note(const std::vector<Mirror::Change>& changes, uint64_t now_us) {
    std::set<std::string> gone;
    for (const Mirror::Change& change : changes)
        if (change.kind == change_t::removed) gone.insert(change.key);
    for (const Mirror::Change& change : changes) {
        if (change.kind != change_t::removed) {
            marks_[change.key] = {change.kind, changed_values(change), now_us + kMark_us};
            continue;
        }
        marks_.erase(change.key);
        gone_.erase(change.key);
        // What was below something that is gone as well goes without a word.
        if (gone.contains(change.parent_key)) continue;
        gone_[change.parent_key].push_back(
            {object_line(change.before, false), change.place, now_us + kMark_us});
    }
}

bool WatchView::forget_old(uint64_t now_us) {
    size_t taken =
        std::erase_if(marks_, [&](const auto& each) { return each.second.end_us <= now_us; });
    for (auto& [key, lines] : gone_)
        taken += std::erase_if(lines, [&](const Gone& each) { return each.end_us <= now_us; });
    std::erase_if(gone_, [](const auto& each) { return each.second.empty(); });
    return taken > 0;
}

std::optional<uint64_t> WatchView::next_end_us() const {
    std::optional<uint64_t> earliest;
    const auto consider = [&](uint64_t end_us) {
        earliest = std::min(earliest.value_or(end_us), end_us);
    };
    for (const auto& [key, mark] : marks_) consider(mark.end_us);
    for (const auto& [key, lines] : gone_)
        for (const Gone& each : lines) consider(each.end_us);
    return earliest;
}

/// Writes the lines of a picture in their order.
class WatchView::Writer {
  public:
    Writer(const WatchView& view, bool colored) : view_(view), colored_(colored) {}

    void write_children(const std::string& key,
                        const std::vector<std::unique_ptr<Mirror::Node>>& nodes,
                        const std::string& below, bool at_top) {
        const auto lost = view_.gone_.find(key);
        const std::vector<Gone> none;
        std::vector<Gone> gone = lost == view_.gone_.end() ? none : lost->second;
        std::stable_sort(gone.begin(), gone.end(),
                         [](const Gone& a, const Gone& b) { return a.place < b.place; });
        auto next_gone = gone.begin();
        const size_t count = nodes.size();
        for (size_t i = 0; i <= count; ++i) {
            const bool is_end = i == count;
            for (; next_gone != gone.end() && (is_end || next_gone->place <= i); ++next_gone)
                add(change_t::removed,
                    lead(below, at_top, is_end && next_gone + 1 == gone.end()) + next_gone->line);
            if (is_end) break;
            const bool last = i + 1 == count && next_gone == gone.end();
            write(*nodes[i], lead(below, at_top, last),
                  at_top ? below : below + (last ? "   " : "│  "));
        }
    }

    std::vector<std::string> lines;

  private:
    static std::string lead(const std::string& below, bool at_top, bool last) {
        return at_top ? below : below + (last ? "└─ " : "├─ ");
    }

    void write(const Mirror::Node& node, const std::string& lead, const std::string& below) {
        const auto mark = view_.marks_.find(node.key);
        if (mark == view_.marks_.end())
            lines.push_back("  " + lead + object_line(node.object, colored_));
        else
            add(mark->second.kind, lead + object_line(node.object, false, {}), &mark->second.values,
                &node, lead);
        write_children(node.key, node.children, below, false);
    }

    void add(change_t kind, const std::string& text, const std::set<std::string>* values = nullptr,
             const Mirror::Node* node = nullptr, const std::string& lead = {}) {
        const std::string sign = fmt::format("{} ", sign_of(kind));
        if (!colored_)
            lines.push_back(sign + text);
        else if (kind == change_t::changed && node != nullptr)
            lines.push_back(color_of(kind) + sign + kPlain + lead +
                            object_line(node->object, true, *values));
        else
            lines.push_back(color_of(kind) + sign + text + kPlain);
    }

    const WatchView& view_;
    bool colored_;
};

std::vector<std::string> WatchView::lines(const Mirror& mirror, bool colored) const {
    Writer writer(*this, colored);
    writer.write_children("", mirror.roots(), "", true);
    return std::move(writer.lines);
}

Window cut_window(const std::vector<std::string>& lines, size_t rows, size_t columns, size_t* first,
                  const std::string& remark) {
    Window window;
    const size_t room = rows > 1 ? rows - 1 : 0;
    const size_t last_first = lines.size() > room ? lines.size() - room : 0;
    *first = std::min(*first, last_first);
    const size_t end = std::min(lines.size(), *first + room);
    for (size_t i = *first; i < end; ++i) window.lines.push_back(cut_line(lines[i], columns));
    std::string status = lines.size() > room
                             ? fmt::format("lines {}-{} of {}", *first + 1, end, lines.size())
                             : fmt::format("{} lines", lines.size());
    if (!remark.empty()) status += "  " + remark;
    window.status = cut_line(status, columns);
    return window;
}

}  // namespace cli
