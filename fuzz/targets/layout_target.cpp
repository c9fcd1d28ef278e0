// Layout files of any bytes.
//
//   byte 0     how many bytes at most are read at once, less one
//   the rest   the file

#include <algorithm>
#include <fmt/format.h>
#include <string>

#include "targets/input.h"
#include "targets/target.h"
#include "tqlengine/layout_file.h"
#include "util/text.h"

namespace fuzz {

namespace {

using namespace tqlengine;

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

std::string attribute(const char* keyword, const std::string& text) {
    return text.empty() ? "" : fmt::format(" {} {}", keyword, quoted(text));
}

std::string written(const PropertyLayout& property) {
    const std::string name = quoted(property.name);
    std::string text = property.class_name.empty()
                           ? name
                           : fmt::format("object {{ {}, {} }}", quoted(property.class_name), name);
    text += ' ' + quoted(property.label) + attribute("unit", property.unit) +
            attribute("null", property.null_text) + attribute("values", property.values) +
            attribute("handler", property.handler) +
            attribute("description", property.description) +
            attribute("blobmime", property.blob_mime);
    if (property.is_password) text += " password";
    if (property.is_multiline) text += " multiline";
    if (property.hidden_create) text += " hidden_create";
    for (const SpecialValue& special : property.special_values)
        text += fmt::format(" special {{ {} {} }}", quoted(special.value), quoted(special.text));
    return text + ";\n";
}

std::string written(const ClassLayout& layout) {
    std::string text = fmt::format("class {} {} {{\n", layout.name, quoted(layout.label));
    text += attribute("on_delete", layout.on_delete);
    if (!layout.on_create.empty()) text += attribute("on_create", layout.on_create) + ";\n";
    for (const TemplateLayout& made : layout.templates)
        text += fmt::format("template {} {{ on_create {}; }}\n", quoted(made.sibling_name),
                            quoted(made.on_create));
    for (const GroupLayout& group : layout.groups) {
        text += fmt::format("group {} required_experience {} {{\n", quoted(group.label),
                            group.required_experience);
        for (const PropertyLayout& property : group.properties) text += written(property);
        text += "}\n";
    }
    return text + "}\n";
}

void check_refusal(const std::string& text, std::string_view file) {
    const auto lines = static_cast<uint64_t>(std::count(file.begin(), file.end(), '\n')) + 1;
    if (!text.starts_with("In: ")) throw Violation("A refusal without a line: " + text);
    const auto line = util::parse_number<uint64_t>(text.substr(4, text.find(' ', 4) - 4));
    if (line < 1 || line > lines)
        throw Violation(fmt::format("{} lines, and a refusal \"{}\"", lines, text));
}

class LayoutTarget final : public Target {
  public:
    void run(std::span<const uint8_t> bytes) override {
        Input input(bytes);
        const size_t most = size_t{input.byte()} + 1;
        const std::string_view file(reinterpret_cast<const char*>(input.rest().data()),
                                    input.rest().size());
        Layouts layouts;
        try {
            std::string_view left = file;
            layouts = parse_layouts([&](char* buffer, size_t capacity) {
                const size_t taken = left.copy(buffer, std::min(capacity, most));
                left.remove_prefix(taken);
                return taken;
            });
        } catch (const error::EParseError& fault) {
            check_refusal(fault.text(), file);
            return;
        }
        std::string again;
        for (const ClassLayout& layout : layouts) again += written(layout);
        try {
            if (parse_layouts(again) != layouts)
                throw Violation("Layouts changed by being written and read");
        } catch (const error::EParseError& fault) {
            throw Violation("A layout that was just written is refused: " + fault.text());
        }
    }
};

}  // namespace

std::unique_ptr<Target> make_layout_target() {
    return std::make_unique<LayoutTarget>();
}

}  // namespace fuzz
