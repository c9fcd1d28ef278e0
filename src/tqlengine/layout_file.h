// The layout file: how a user interface is to show the objects of each class, as people wrote it.
//
// Here stand what the file says, in its order, and the reading of it. Handing it out to clients is
// the business of the meta classes (tqlengine/meta_tree.h); whether classes and properties of these
// names exist is nobody's at run time. The form of the file is told in docs/layout-file.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace tqlengine {

/// A value that is shown as something else.
struct SpecialValue {
    std::string value{};
    std::string text{};

    bool operator==(const SpecialValue&) const = default;
};

struct PropertyLayout {
    /// The class that has the property; empty for the class of the layout.
    std::string class_name{};
    std::string name{};
    std::string label{};
    std::string unit{};
    std::string null_text{};
    std::string values{};
    std::string handler{};
    std::string description{};
    std::string blob_mime{};
    bool is_password = false;
    bool is_multiline = false;
    bool hidden_create = false;
    std::vector<SpecialValue> special_values{};

    bool operator==(const PropertyLayout&) const = default;
};

struct GroupLayout {
    std::string label{};
    uint32_t required_experience = 0;
    std::vector<PropertyLayout> properties{};

    bool operator==(const GroupLayout&) const = default;
};

struct TemplateLayout {
    std::string sibling_name{};
    std::string on_create{};

    bool operator==(const TemplateLayout&) const = default;
};

struct ClassLayout {
    std::string name{};
    std::string label{};
    std::string on_delete{};
    std::string on_create{};
    std::vector<TemplateLayout> templates{};
    std::vector<GroupLayout> groups{};

    bool operator==(const ClassLayout&) const = default;
};

using Layouts = std::vector<ClassLayout>;

/// Gives up to `capacity` bytes of a file into `buffer`, in order; 0 at its end.
using LayoutSource = std::function<size_t(char* buffer, size_t capacity)>;

/// Reads a whole file. Throws error::EParseError with "In: ", the number of the line (from 1), a
/// blank and "syntax error" at the first thing that is out of place, or the name of a number that
/// is out of range, and lets through what `source` throws. What it holds beside its result doesn't
/// grow with the file.
[[nodiscard]] Layouts parse_layouts(const LayoutSource& source);
[[nodiscard]] Layouts parse_layouts(std::string_view text);

/// Reads the file at `path` and logs at level debug how many classes it has. Throws error::EFatal
/// "Error opening " with the path, and what parse_layouts() throws. A file that opens but can't be
/// read, and memory that doesn't suffice, end the process with code 2 and a word on the error
/// stream.
[[nodiscard]] Layouts read_layout_file(const std::string& path);

}  // namespace tqlengine
