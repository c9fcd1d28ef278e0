// marl::MarlConversion: reads the markup that comments may hold. It calls one operation for each
// thing that it meets; all of them do nothing here, so parse() by itself is the check, and a text
// that passes is stored as it came. There is no escape for '<' or '&', and tags are lower case.
//
//   b, i, u      strictly nested pairs
//   hr           stands alone
//   link         stands alone, with one attribute: url="..." or url='...'
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace marl {

class MarlConversion {
  public:
    virtual ~MarlConversion() = default;

    /// Reads `text` to its end. Throws error::EParseError at the first fault, with a text for the
    /// client; the operations called until then stay called. Positions that operations get are
    /// bytes of `text`.
    void parse(std::string_view text);

  protected:
    virtual void open_b() {}
    virtual void open_i() {}
    virtual void open_u() {}
    virtual void close_b() {}
    virtual void close_i() {}
    virtual void close_u() {}
    virtual void rule() {}
    /// `url` lives for the call only.
    virtual void link(std::string_view /*url*/) {}
    virtual void line_feed() {}
    /// The bytes from `start` up to, not including, `end`.
    virtual void text_run(std::size_t /*start*/, std::size_t /*end*/) {}

  private:
    friend class MarlParser;
};

}  // namespace marl
