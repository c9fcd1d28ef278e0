// The faults that a verifier has found, one line each, up to a bound.
#pragma once

#include <cstddef>
#include <fmt/format.h>
#include <string>
#include <utility>

namespace mdb::detail {

class FaultList {
  public:
    static constexpr size_t kMost = 100;

    /// Adds one line. Lines past the bound are counted only.
    template <class... Args>
    void add(fmt::format_string<Args...> format, Args&&... args) {
        if (count_ < kMost) text_ += fmt::format(format, std::forward<Args>(args)...) + "\n";
        if (count_ == kMost) text_ += "more faults than these\n";
        ++count_;
    }
    [[nodiscard]] bool full() const { return count_ > kMost; }
    [[nodiscard]] size_t count() const { return count_; }
    [[nodiscard]] std::string take() { return std::move(text_); }

  private:
    std::string text_;
    size_t count_ = 0;
};

}  // namespace mdb::detail
