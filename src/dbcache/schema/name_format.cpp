#include "dbcache/schema/name_format.h"

#include <algorithm>

namespace dbcache {

namespace {

class NameFormat {
  public:
    NameFormat(std::string_view format, const std::vector<std::string>& names)
        : left_(format), names_(names) {}

    std::string run() {
        while (!left_.empty()) {
            const char sign = take();
            if (sign != '%') {
                out_ += sign;
            } else if (left_.empty()) {
                throw errors::format("Format ends with %");
            } else if (left_.front() == 'c') {
                left_.remove_prefix(1);
                join();
            } else {
                out_ += names_[index(left_)];
            }
        }
        return std::move(out_);
    }

  private:
    char take() {
        const char sign = left_.front();
        left_.remove_prefix(1);
        return sign;
    }

    void join() {
        if (left_.empty()) throw errors::format("Format ends with %c");
        const char delimiter = take();
        const size_t first = field_index(field(delimiter));
        const std::string_view separator = field(delimiter);
        const size_t last = field_index(field(delimiter));
        if (first > last) throw errors::format("Left > right");
        for (size_t i = first; i <= last; ++i) {
            if (i != first) out_ += separator;
            out_ += names_[i];
        }
    }

    std::string_view field(char delimiter) {
        const size_t end = left_.find(delimiter);
        if (end == std::string_view::npos) throw errors::format("Format ends with %c");
        const std::string_view found = left_.substr(0, end);
        left_.remove_prefix(end + 1);
        return found;
    }

    size_t field_index(std::string_view text) const {
        const size_t found = index(text);
        if (!text.empty()) throw errors::format("Extra input after l or r");
        return found;
    }

    /// The place in the list that a number with its side names; takes it off `text`.
    size_t index(std::string_view& text) const {
        // Far more names than any tree is deep, and far from an overflow.
        constexpr size_t kEnough = 1'000'000;
        size_t number = 0;
        while (!text.empty() && text.front() >= '0' && text.front() <= '9') {
            number = std::min(number * 10 + static_cast<size_t>(text.front() - '0'), kEnough);
            text.remove_prefix(1);
        }
        if (text.empty()) throw errors::format("Format ends with number");
        const char side = text.front();
        if (side != 'l' && side != 'r') throw errors::format("Expected either l or r");
        text.remove_prefix(1);
        if (number >= names_.size()) throw errors::format("Index out of bounds");
        return side == 'l' ? number : names_.size() - 1 - number;
    }

    std::string_view left_;
    const std::vector<std::string>& names_;
    std::string out_;
};

}  // namespace

std::string format_names(std::string_view format, const std::vector<std::string>& names) {
    return NameFormat(format, names).run();
}

}  // namespace dbcache
