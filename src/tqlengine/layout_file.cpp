#include "tqlengine/layout_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <new>
#include <utility>

#include "error/exception.h"
#include "log/log.h"
#include "tqlengine/detail/layout_lexer.h"
#include "util/text.h"

namespace tqlengine {

namespace {

using detail::LayoutLexer;
using enum detail::layout_token_t;
using token_t = detail::layout_token_t;

const logging::Logger logger{"tqlquery"};

/// One function for each rule of the grammar, looking one token ahead. Rules nest to a fixed depth,
/// so no file can use up the stack.
class LayoutParser {
  public:
    explicit LayoutParser(const LayoutSource& source) : lexer_(source) { lexer_.advance(); }

    Layouts file() {
        Layouts classes;
        while (accept(kw_class)) classes.push_back(class_layout());
        if (lexer_.token() != end) fail();
        return classes;
    }

  private:
    [[noreturn]] void fail() {
        throw error::EParseError(fmt::format("In: {} syntax error", lexer_.line()));
    }

    /// Goes on behind `token` when it stands here.
    bool accept(token_t token) {
        if (lexer_.token() != token) return false;
        lexer_.advance();
        return true;
    }
    void expect(token_t token) {
        if (!accept(token)) fail();
    }
    std::string expect_text(token_t token) {
        if (lexer_.token() != token) fail();
        std::string text = std::move(lexer_.text());
        lexer_.advance();
        return text;
    }

    uint32_t expect_experience() {
        if (lexer_.token() != number) fail();
        const std::string& text = lexer_.text();
        uint32_t value = 0;
        if (std::from_chars(text.data(), text.data() + text.size(), value).ec != std::errc())
            throw error::EParseError(
                fmt::format("In: {} required_experience {} is out of range", lexer_.line(), text));
        lexer_.advance();
        return value;
    }

    ClassLayout class_layout() {
        ClassLayout layout;
        layout.name = expect_text(identifier);
        layout.label = expect_text(string);
        expect(brace_open);
        if (accept(kw_on_delete)) layout.on_delete = expect_text(string);
        if (accept(kw_on_create)) {
            layout.on_create = expect_text(string);
            expect(semicolon);
        }
        while (accept(kw_template)) layout.templates.push_back(template_layout());
        while (accept(kw_group)) layout.groups.push_back(group_layout());
        expect(brace_close);
        return layout;
    }

    TemplateLayout template_layout() {
        TemplateLayout layout;
        layout.sibling_name = expect_text(string);
        expect(brace_open);
        expect(kw_on_create);
        layout.on_create = expect_text(string);
        expect(semicolon);
        expect(brace_close);
        return layout;
    }

    GroupLayout group_layout() {
        GroupLayout layout;
        layout.label = expect_text(string);
        if (accept(kw_required_experience)) layout.required_experience = expect_experience();
        expect(brace_open);
        while (!accept(brace_close)) layout.properties.push_back(property_layout());
        return layout;
    }

    PropertyLayout property_layout() {
        PropertyLayout layout;
        if (accept(kw_object)) {
            expect(brace_open);
            layout.class_name = expect_text(string);
            expect(comma);
            layout.name = expect_text(string);
            expect(brace_close);
        } else {
            layout.name = expect_text(string);
        }
        layout.label = expect_text(string);
        while (!accept(semicolon)) attribute(layout);
        return layout;
    }

    SpecialValue special_value() {
        SpecialValue special;
        expect(brace_open);
        special.value = expect_text(string);
        special.text = expect_text(string);
        expect(brace_close);
        return special;
    }

    void attribute(PropertyLayout& layout) {
        for (const auto& [keyword, member] : kTextAttributes)
            if (accept(keyword)) {
                layout.*member = expect_text(string);
                return;
            }
        for (const auto& [keyword, member] : kFlagAttributes)
            if (accept(keyword)) {
                layout.*member = true;
                return;
            }
        expect(kw_special);
        layout.special_values.push_back(special_value());
    }

    static constexpr std::pair<token_t, std::string PropertyLayout::*> kTextAttributes[] = {
        {kw_unit, &PropertyLayout::unit},
        {kw_null, &PropertyLayout::null_text},
        {kw_values, &PropertyLayout::values},
        {kw_handler, &PropertyLayout::handler},
        {kw_description, &PropertyLayout::description},
        {kw_blobmime, &PropertyLayout::blob_mime},
    };
    static constexpr std::pair<token_t, bool PropertyLayout::*> kFlagAttributes[] = {
        {kw_password, &PropertyLayout::is_password},
        {kw_multiline, &PropertyLayout::is_multiline},
        {kw_hidden_create, &PropertyLayout::hidden_create},
    };

    LayoutLexer lexer_;
};

/// There is no going on without the layouts, and nothing left to tell it with but this.
[[noreturn]] void end_process(const char* text) noexcept {
    std::fprintf(stderr, "%s\n", text);
    std::_Exit(2);
}

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

}  // namespace

Layouts parse_layouts(const LayoutSource& source) {
    return LayoutParser(source).file();
}

Layouts parse_layouts(std::string_view text) {
    return parse_layouts([&](char* buffer, size_t capacity) {
        const size_t taken = text.copy(buffer, capacity);
        text.remove_prefix(taken);
        return taken;
    });
}

Layouts read_layout_file(const std::string& path) {
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "re"));
    if (!file) throw error::EFatal("Error opening " + path);
    const auto source = [&](char* buffer, size_t capacity) {
        const size_t taken = std::fread(buffer, 1, capacity, file.get());
        if (taken == 0 && std::ferror(file.get()) != 0) {
            logger.error("Layout file {}: {}", path, std::strerror(errno));
            end_process("input in flex scanner failed");
        }
        return taken;
    };
    try {
        Layouts layouts = parse_layouts(source);
        logger.debug("Found {} class layout definitions", layouts.size());
        return layouts;
    } catch (const error::EParseError& fault) {
        logger.error("Layout file {}: {}", path, fault.text());
        throw;
    } catch (const std::bad_alloc&) {
        end_process("out of dynamic memory in yy_get_next_buffer()");
    }
}

}  // namespace tqlengine
