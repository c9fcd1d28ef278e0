// The exception families of the whole system, and the one fatal assertion.
//
// Every failure is an exception derived from error::Exception. What becomes of one is decided in a
// single place, the server's dispatcher: an errors::stdanomaly fails one request and the process
// goes on; any other error::Exception ends the process with exit code 1. A broken invariant is no
// exception but a fatal assertion: it names the invariant on the error stream and ends the process
// abnormally. Assertions judge our own state, never input.
#pragma once

#include <exception>
#include <fmt/format.h>
#include <string>
#include <utility>

namespace error {

/// Base of all exceptions of the system; carries one text for people.
class Exception : public std::exception {
  public:
    explicit Exception(std::string text) : text_(std::move(text)) {}

    /// The text; lives as long as the exception.
    [[nodiscard]] const std::string& text() const noexcept { return text_; }
    [[nodiscard]] const char* what() const noexcept override { return text_.c_str(); }

  private:
    std::string text_;
};

/// A failure that ends the process, for instance a missing setting or a parent that is gone.
class EFatal : public Exception {
  public:
    using Exception::Exception;
};

/// A failed call of the operating system: the text is followed by ": " and the system's
/// description.
class ESystemError : public Exception {
  public:
    /// `code` is an errno value.
    ESystemError(const std::string& text, int code);

    [[nodiscard]] int code() const noexcept { return code_; }

  private:
    int code_;
};

/// An index or size outside of what a fixed container holds.
class ERange : public Exception {
  public:
    using Exception::Exception;
};

/// An operation on stored structures that cannot be undone halfway was found not to have worked.
class syserror : public Exception {
  public:
    using Exception::Exception;
};

/// Writes "Assertion failed: " and the text to the error stream and ends the process abnormally.
[[noreturn]] void fail_assertion(const std::string& text) noexcept;

/// Ends the process through fail_assertion() unless `holds`. The arguments are formatted only on
/// failure.
template <class... Args>
void check(bool holds, fmt::format_string<Args...> format, Args&&... args) {
    if (!holds) [[unlikely]]
        fail_assertion(fmt::format(format, std::forward<Args>(args)...));
}

}  // namespace error

namespace errors {

/// Failure of a single request: logged and, when the asker waits, answered; the process goes on.
class stdanomaly : public error::Exception {
  public:
    using Exception::Exception;
};

/// The store was found inconsistent while a request ran; ends that request.
class db_anomaly : public stdanomaly {
  public:
    using stdanomaly::stdanomaly;
};

/// A failure that a peer process reported in place of its reply.
class remote_error : public error::Exception {
  public:
    using Exception::Exception;
};

}  // namespace errors
