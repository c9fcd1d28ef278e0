#include "tql/query_text.h"

#include <array>
#include <fmt/format.h>
#include <variant>
#include <vector>

#include "tql/detail/condition_text.h"
#include "tql/detail/query_lexer.h"
#include "tql/names.h"

namespace tql {

namespace {

constexpr size_t kLogMost = 5;        // longer lists are shortened in the logs
constexpr size_t kLogSuccessors = 3;  // then these come first, and the last one after "..."

struct FlagChar {
    uint32_t flag;
    char sign;
};
// In the order in which they print. The logs know the first four.
constexpr std::array kFlagChars{
    FlagChar{kPatternRecursive, '*'}, FlagChar{kPatternAllProperties, '!'},
    FlagChar{kPatternKeep, '$'},      FlagChar{kPatternTemplates, '#'},
    FlagChar{kPatternSplice, '^'},
};
constexpr uint32_t kNamedFlags = 31;

template <class Range, class Text>
std::string join(const Range& range, std::string_view separator, Text text_of) {
    std::string text;
    bool first = true;
    for (const auto& element : range) {
        if (!first) text += separator;
        first = false;
        text += text_of(element);
    }
    return text;
}

// One step without its successors, in the full text.
std::string step_text(const pattern_t& step) {
    const std::string_view name = find_class_name(step.class_);
    std::string text = name.empty() ? fmt::format("{}", step.class_) : std::string(name);
    for (const FlagChar& row : kFlagChars)
        if (step.flags & row.flag) text += row.sign;
    if (step.flags & ~kNamedFlags) text += fmt::format("+{:#x}", step.flags & ~kNamedFlags);
    if (step.tag != kNoTag) text += fmt::format("@{}", step.tag);
    if (!step.wanted_properties.empty())
        text += "[" + join(step.wanted_properties, ", ", detail::property_text) + "]";
    if (!step.where.empty())
        text += "{" +
                join(step.where, " & ",
                     [&](const condition_t& condition) {
                         return detail::condition_text(condition, step.class_);
                     }) +
                "}";
    return text;
}

std::string condition_log_text(const condition_t& condition) {
    if (!condition.value) return "?";
    return property_name(condition.value->property) + std::string(relop_text(condition.op)) +
           (condition.value->is_null ? "null" : condition.value->print());
}

std::string step_log_text(const pattern_t& step) {
    std::string text = class_name(step.class_);
    for (const FlagChar& row : kFlagChars)
        if (row.flag != kPatternSplice && (step.flags & row.flag)) text += row.sign;
    if (step.wanted_properties.size() > kLogMost)
        text += "[...]";
    else if (!step.wanted_properties.empty())
        text += "[" + join(step.wanted_properties, ", ", property_name) + "]";
    if (!step.where.empty()) text += "{" + join(step.where, " & ", condition_log_text) + "}";
    return text;
}

// What is still to be printed, the next thing last: a step with all below it, or a piece of text.
using PrintStack = std::vector<std::variant<const pattern_t*, std::string_view>>;

void push_list(PrintStack& stack, const std::vector<pattern_t>& list, bool shorten) {
    const bool shortened = shorten && list.size() > kLogMost;
    for (size_t i = list.size(); i-- > 0;) {
        if (shortened && i + 1 != list.size() && i >= kLogSuccessors) continue;
        stack.emplace_back(&list[i]);
        if (i == 0) continue;
        stack.emplace_back(shortened && i + 1 == list.size() ? " ... | " : " | ");
    }
}

void push_successors(PrintStack& stack, const pattern_t& step, bool log) {
    if (step.next.empty() && step.cond_next.empty()) return;
    if (step.next.size() == 1 && step.cond_next.empty()) {
        stack.emplace_back(&step.next[0]);
        stack.emplace_back(" > ");
        return;
    }
    stack.emplace_back(" )");
    push_list(stack, step.cond_next, log);
    // For people the colon stands only where something follows it.
    if (log || !step.cond_next.empty()) stack.emplace_back(" : ");
    push_list(stack, step.next, log);
    stack.emplace_back(" > ( ");
}

std::string print(const pattern_t& pattern, bool log, size_t limit_bytes) {
    std::string text;
    PrintStack stack{&pattern};
    while (!stack.empty() && text.size() <= limit_bytes) {
        const auto item = stack.back();
        stack.pop_back();
        if (const auto* piece = std::get_if<std::string_view>(&item)) {
            text += *piece;
            continue;
        }
        const pattern_t& step = *std::get<const pattern_t*>(item);
        text += log ? step_log_text(step) : step_text(step);
        push_successors(stack, step, log);
    }
    if (text.size() > limit_bytes) {
        text.resize(limit_bytes);
        text += "...";
    }
    return text;
}

// Reads with a stack of its own, so that nesting costs no stack of the thread.
class PatternParser {
  public:
    explicit PatternParser(std::string_view text) : lexer_(text) {}

    pattern_t parse() {
        open_step();
        while (true) {
            if (lexer_.take(">")) {
                open_successors();
                continue;
            }
            pattern_t done = close_step();
            while (true) {
                if (open_.empty()) {
                    if (!lexer_.at_end()) lexer_.fail("\">\" or the end");
                    return done;
                }
                if (attach(std::move(done))) break;
                done = close_step();
            }
        }
    }

  private:
    enum class place_t { chain, next, cond_next };
    struct OpenStep {
        pattern_t step;
        place_t place = place_t::chain;  // where its successors stand
    };

    void open_step() {
        if (open_.size() == kMaxPatternDepth)
            lexer_.fail_at(lexer_.place(),
                           fmt::format("the pattern is too deep: expected at most {} steps "
                                       "below each other",
                                       kMaxPatternDepth));
        open_.push_back({read_step(), place_t::chain});
    }

    void open_successors() {
        OpenStep& parent = open_.back();
        if (lexer_.take("(")) parent.place = lexer_.take(":") ? place_t::cond_next : place_t::next;
        open_step();
    }

    pattern_t close_step() {
        pattern_t done = std::move(open_.back().step);
        open_.pop_back();
        return done;
    }

    // Gives a finished step to its parent. True when a sibling was opened behind it, false when the
    // parent is finished as well.
    bool attach(pattern_t done) {
        OpenStep& parent = open_.back();
        auto& list = parent.place == place_t::cond_next ? parent.step.cond_next : parent.step.next;
        list.push_back(std::move(done));
        if (parent.place == place_t::chain) return false;
        if (lexer_.take(")")) return false;
        if (parent.place == place_t::next && lexer_.take(":")) {
            if (lexer_.take(")")) return false;
            parent.place = place_t::cond_next;
        } else if (!lexer_.take("|")) {
            lexer_.fail(parent.place == place_t::next ? "\">\", \"|\", \":\" or \")\""
                                                      : "\">\", \"|\" or \")\"");
        }
        open_step();
        return true;
    }

    pattern_t read_step() {
        pattern_t step(read_class());
        read_flags(step);
        if (lexer_.take("@")) step.tag = detail::read_number(lexer_, "a tag");
        if (lexer_.take("[") && !lexer_.take("]")) {
            do step.wanted_properties.insert(detail::read_property(lexer_));
            while (lexer_.take(","));
            if (!lexer_.take("]")) lexer_.fail("\",\" or \"]\"");
        }
        if (lexer_.take("{") && !lexer_.take("}")) {
            do step.where.push_back(detail::read_condition(lexer_, step.class_));
            while (lexer_.take("&"));
            if (!lexer_.take("}")) lexer_.fail("\"&\" or \"}\"");
        }
        return step;
    }

    uint32_t read_class() {
        constexpr std::string_view kWhat = "the name or number of a class";
        if (lexer_.take(".")) return cls::Any;
        const std::string_view name = lexer_.peek_name();
        if (name.empty()) return detail::read_number(lexer_, kWhat);
        const auto number = find_class(name);
        if (!number) lexer_.fail(kWhat);
        lexer_.advance(name.size());
        return *number;
    }

    void read_flags(pattern_t& step) {
        for (bool more = true; more;) {
            more = false;
            for (const FlagChar& row : kFlagChars) {
                if (!lexer_.take(std::string_view(&row.sign, 1))) continue;
                step.flags |= row.flag;
                more = true;
            }
            if (!lexer_.take("+")) continue;
            step.flags |= detail::read_number(lexer_, "flag bits");
            more = true;
        }
    }

    detail::QueryLexer lexer_;
    std::vector<OpenStep> open_;
};

}  // namespace

query_text_error::query_text_error(size_t line, size_t column, const std::string& message)
    : Exception(fmt::format("line {}, column {}: {}", line, column, message)),
      line_(line),
      column_(column),
      message_(message) {}

std::string pattern_text(const pattern_t& pattern) {
    return print(pattern, false, std::string::npos - 1);
}

std::string pattern_log_text(const pattern_t& pattern, size_t limit_bytes) {
    return print(pattern, true, limit_bytes);
}

pattern_t parse_pattern(std::string_view text) {
    return PatternParser(text).parse();
}

}  // namespace tql
