#include "tarmik/shell.h"

#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <histedit.h>
#include <iostream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "tarmik/command_line.h"
#include "tarmik/words.h"

namespace cli {

namespace {

constexpr int kHistorySize = 1000;

/// Runs a line. False when it was the last one.
bool run_line(std::string_view line, Api& api, const Output& output, int& exit_code) {
    std::vector<std::string> words;
    try {
        words = split_words(line);
    } catch (const CommandError& wrong) {
        output.remark(wrong.text() + "\n");
        exit_code = wrong.exit_code();
        return true;
    }
    if (words.empty() || words[0].starts_with('#')) return true;
    if (words[0] == "exit" || words[0] == "quit") return false;
    if (const int code = run_shell_command(std::move(words), api, output); code != kDone)
        exit_code = code;
    return true;
}

struct EndEditLine {
    void operator()(EditLine* editor) const { el_end(editor); }
};
struct EndHistory {
    void operator()(History* history) const { history_end(history); }
};

/// The editor of lines. Prompt and echo go to the error stream, which is no data.
class LineEditor {
  public:
    LineEditor()
        : history_(history_init()),
          editor_(el_init("tarmik", stdin, stderr, stderr)),
          history_file_(history_path()) {
        HistEvent event;
        ::history(history_.get(), &event, H_SETSIZE, kHistorySize);
        ::history(history_.get(), &event, H_SETUNIQUE, 1);
        if (!history_file_.empty())
            ::history(history_.get(), &event, H_LOAD, history_file_.c_str());
        el_set(editor_.get(), EL_CLIENTDATA, this);
        el_set(editor_.get(), EL_PROMPT, &prompt);
        el_set(editor_.get(), EL_EDITOR, "emacs");
        el_set(editor_.get(), EL_SIGNAL, 1);
        el_set(editor_.get(), EL_HIST, ::history, history_.get());
        el_set(editor_.get(), EL_ADDFN, "tarmik-complete", "Complete a name", &on_tab);
        el_set(editor_.get(), EL_BIND, "^I", "tarmik-complete", nullptr);
    }

    ~LineEditor() {
        if (history_file_.empty()) return;
        std::error_code ignored;  // a history that can't be kept is no failure
        std::filesystem::create_directories(std::filesystem::path(history_file_).parent_path(),
                                            ignored);
        const mode_t before = ::umask(077);
        HistEvent event;
        ::history(history_.get(), &event, H_SAVE, history_file_.c_str());
        ::umask(before);
    }
    LineEditor(const LineEditor&) = delete;
    LineEditor& operator=(const LineEditor&) = delete;

    /// The next line; none at the end of input.
    std::optional<std::string> read() {
        int length = 0;
        const char* line = el_gets(editor_.get(), &length);
        if (line == nullptr || length <= 0) return std::nullopt;
        std::string text(line, static_cast<size_t>(length));
        if (text.find_first_not_of(" \t\r\n") != text.npos) {
            HistEvent event;
            ::history(history_.get(), &event, H_ENTER, line);
        }
        return text;
    }

  private:
    static char* prompt(EditLine* editor) {
        void* self = nullptr;
        el_get(editor, EL_CLIENTDATA, &self);
        return static_cast<LineEditor*>(self)->prompt_.data();
    }

    static unsigned char on_tab(EditLine* editor, int) {
        const LineInfo* line = el_line(editor);
        const std::string_view before(line->buffer,
                                      static_cast<size_t>(line->cursor - line->buffer));
        const Completion found = complete(before, shell_commands());
        if (found.candidates.empty()) return CC_REFRESH_BEEP;
        const size_t typed = before.size() - found.word_begin;
        std::string more = common_prefix(found.candidates).substr(typed);
        const bool only_one = found.candidates.size() == 1;
        if (only_one && found.word_begin == 0) more += ' ';
        if (!more.empty()) {
            el_insertstr(editor, more.c_str());
            return CC_REFRESH;
        }
        if (only_one) return CC_REFRESH;
        std::string list = "\n";
        for (const std::string& candidate : found.candidates) list += candidate + "  ";
        list += '\n';
        (void)std::fputs(list.c_str(), stderr);
        return CC_REDISPLAY;
    }

    std::string prompt_ = "tarmik> ";
    std::unique_ptr<History, EndHistory> history_;
    std::unique_ptr<EditLine, EndEditLine> editor_;
    std::string history_file_;
};

}  // namespace

std::string history_path() {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && *state == '/') return fmt::format("{}/tarmik/history", state);
    const char* home = std::getenv("HOME");
    if (home == nullptr || *home == '\0') return {};
    return fmt::format("{}/.local/state/tarmik/history", home);
}

int run_shell(Api& api, const Output& output) {
    int exit_code = kDone;
    if (::isatty(STDIN_FILENO) != 1) {
        for (std::string line; std::getline(std::cin, line);)
            if (!run_line(line, api, output, exit_code)) break;
        return exit_code;
    }
    LineEditor editor;
    while (const auto line = editor.read())
        if (!run_line(*line, api, output, exit_code)) break;
    return kDone;
}

}  // namespace cli
