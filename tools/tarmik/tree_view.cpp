#include "tarmik/tree_view.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace cli {

namespace {

using nlohmann::ordered_json;

constexpr const char* kBold = "\x1b[1m";
constexpr const char* kDim = "\x1b[2m";
constexpr const char* kPlain = "\x1b[0m";

/// How much of a text is shown; the whole value is in --output json.
constexpr size_t kShownBytes = 200;

/// Flag of an object that could be created.
constexpr unsigned kTemplate = 2;

std::string shortened(std::string text) {
    if (text.size() <= kShownBytes) return text;
    size_t end = kShownBytes;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return text.substr(0, end) + "...";
}

class LineWriter {
  public:
    LineWriter(std::string& out, bool colored) : out_(out), colored_(colored) {}

    void write(const ordered_json& node, const std::set<std::string>& marked) {
        const bool is_template = (node.value("flags", 0U) & kTemplate) != 0;
        paint(kBold, node.value("class", "?") + (is_template ? "#" : ""));
        const std::string id = node.value("id", "");
        if (!id.empty()) {
            out_ += ' ';
            paint(kDim, id);
        }
        const auto values = node.find("properties");
        if (values == node.end()) return;
        const ordered_json inherited = node.value("inherited", ordered_json::array());
        std::string_view gap = "  ";
        for (const auto& [name, value] : values->items()) {
            out_ += gap;
            gap = " ";
            const bool is_marked = marked.contains(name);
            paint(is_marked ? kBold : kDim, name + "=");
            if (is_marked)
                paint(kBold, value_text(value));
            else
                out_ += value_text(value);
            if (std::find(inherited.begin(), inherited.end(), name) != inherited.end())
                paint(kDim, " (inherited)");
        }
    }

  private:
    void paint(const char* color, const std::string& text) {
        if (colored_) out_ += color;
        out_ += text;
        if (colored_) out_ += kPlain;
    }

    std::string& out_;
    bool colored_;
};

void write_tree(std::string& out, bool colored, const ordered_json& node, const std::string& lead,
                const std::string& below) {
    out += lead;
    LineWriter(out, colored).write(node, {});
    out += '\n';
    const auto children = node.find("children");
    if (children == node.end()) return;
    for (size_t i = 0; i < children->size(); ++i) {
        const bool last = i + 1 == children->size();
        write_tree(out, colored, (*children)[i], below + (last ? "└─ " : "├─ "),
                   below + (last ? "   " : "│  "));
    }
}

}  // namespace

std::string value_text(const ordered_json& value) {
    if (value.is_object() && value.contains("value")) return value_text(value["value"]);
    if (value.is_string())
        return ordered_json(shortened(value.get<std::string>()))
            .dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    if (!value.is_array())
        return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    std::string text = "[";
    for (const ordered_json& element : value) {
        if (text.size() > 1) text += ", ";
        text += value_text(element);
    }
    return text + "]";
}

std::string shown_text(const std::string& text) {
    const std::string quoted = value_text(text);
    return quoted.substr(1, quoted.size() - 2);
}

std::string object_line(const ordered_json& object, bool colored,
                        const std::set<std::string>& marked) {
    std::string line;
    LineWriter(line, colored).write(object, marked);
    return line;
}

std::string tree_text(const ordered_json& results, bool colored) {
    std::string text;
    for (const ordered_json& node : results) write_tree(text, colored, node, "", "");
    return text;
}

}  // namespace cli
