#include "error/exception.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace error {

ESystemError::ESystemError(const std::string& text, int code)
    : Exception(fmt::format("{}: {}", text, std::strerror(code))), code_(code) {}

void fail_assertion(const std::string& text) noexcept {
    std::fprintf(stderr, "Assertion failed: %s\n", text.c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace error
