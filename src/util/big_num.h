// BigNum: an unsigned number of any size, as properties hold it. Copies share their words until one
// of them changes (copy on write), so passing values through results costs no copy of the digits.
// Words are wiped before they are freed. A BigNum does not cross threads: the count of sharers is a
// plain integer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

/// Two byte orders meet here and must not be mixed up: byte buffers are most significant byte
/// first; byte strings (from_bytes, to_bytes, the form in events) are least significant byte first.
class BigNum {
  public:
    /// Zero.
    BigNum();
    explicit BigNum(uint32_t value);
    /// From a big-endian buffer of any length; leading zero bytes are allowed.
    explicit BigNum(std::span<const uint8_t> big_endian);
    /// From a string of bytes whose last one is the most significant.
    explicit BigNum(std::string_view bytes);

    BigNum(const BigNum& other) noexcept;
    BigNum& operator=(const BigNum& other) noexcept;
    ~BigNum();

    friend bool operator==(const BigNum& a, const BigNum& b) noexcept;
    friend bool operator<(const BigNum& a, const BigNum& b) noexcept;
    friend bool operator>(const BigNum& a, const BigNum& b) noexcept { return b < a; }
    friend BigNum operator+(const BigNum& a, const BigNum& b);

    void shift_left(std::size_t bits);
    void shift_right(std::size_t bits);
    /// Becomes the quotient by `divisor` and returns the remainder. A divisor of 0 is a fatal
    /// assertion.
    uint32_t divide_small(uint32_t divisor);

    /// Makes room for `words` words in an array that this number alone uses; the value stays. Fewer
    /// words than length() is a fatal assertion.
    void resize(std::size_t words);

    /// Writes the number most significant byte first to the start of `buffer` and zeros behind it,
    /// and returns the count of bytes of the number (0 for zero). A buffer that is too small is a
    /// fatal assertion.
    std::size_t bn_get_data(std::span<uint8_t> buffer) const;

    [[nodiscard]] std::string to_decimal() const;
    /// Least significant byte first, filled up with zero bytes to `minimum_length`.
    [[nodiscard]] std::string to_bytes(std::size_t minimum_length) const;
    /// How a number travels in events: to_bytes with at least this many bytes.
    static constexpr std::size_t kStreamMinimumLength = 4;

    /// Words in use; the top one is never 0. Zero has none.
    [[nodiscard]] std::size_t length() const noexcept { return length_; }
    /// Bytes without leading zeros.
    [[nodiscard]] std::size_t byte_length() const noexcept;
    [[nodiscard]] bool is_zero() const noexcept { return length_ == 0; }
    /// How many numbers share the words, this one included.
    [[nodiscard]] uint32_t share_count() const noexcept { return limbs_[-1]; }

  private:
    void assign_bytes(std::size_t count, const uint8_t* least_first, std::ptrdiff_t step);
    void release() noexcept;
    void trim() noexcept;

    uint32_t* limbs_;  // least significant first; the share count stands in the word ahead of it
    std::size_t length_ = 0;
    std::size_t capacity_ = 0;
};
