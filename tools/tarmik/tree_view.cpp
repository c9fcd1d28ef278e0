#include "tarmik/tree_view.h"

#include <nlohmann/json.hpp>

namespace cli {

namespace {

using nlohmann::ordered_json;

constexpr const char* kBold = "\x1b[1m";
constexpr const char* kDim = "\x1b[2m";
constexpr const char* kPlain = "\x1b[0m";

/// How much of a text is shown; the whole value is in --output json.
constexpr size_t kShownBytes = 200;

std::string shortened(std::string text) {
    if (text.size() <= kShownBytes) return text;
    size_t end = kShownBytes;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return text.substr(0, end) + "...";
}

/// As JSON, but without the envelope of values that are not of the usual kind.
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

class TreeWriter {
  public:
    TreeWriter(std::string& out, bool colored) : out_(out), colored_(colored) {}

    void write(const ordered_json& node, const std::string& lead, const std::string& below) {
        out_ += lead;
        paint(kBold, node.value("class", "?"));
        const std::string id = node.value("id", "");
        if (!id.empty()) {
            out_ += ' ';
            paint(kDim, id);
        }
        std::string_view gap = "  ";
        if (const auto values = node.find("properties"); values != node.end())
            for (const auto& [name, value] : values->items()) {
                out_ += gap;
                gap = " ";
                paint(kDim, name + "=");
                out_ += value_text(value);
            }
        out_ += '\n';
        const auto children = node.find("children");
        if (children == node.end()) return;
        for (size_t i = 0; i < children->size(); ++i) {
            const bool last = i + 1 == children->size();
            write((*children)[i], below + (last ? "└─ " : "├─ "), below + (last ? "   " : "│  "));
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

}  // namespace

std::string tree_text(const ordered_json& results, bool colored) {
    std::string text;
    TreeWriter writer(text, colored);
    for (const ordered_json& node : results) writer.write(node, "", "");
    return text;
}

}  // namespace cli
