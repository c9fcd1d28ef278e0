#include "util/big_num.h"

#include <algorithm>
#include <bit>
#include <strings.h>

#include "error/exception.h"

namespace {

constexpr std::size_t kWordBits = 32;
constexpr std::size_t kWordBytes = 4;

/// Zeroed words with a share count of 1 in the word ahead of them.
uint32_t* allocate(std::size_t words) {
    auto* block = new uint32_t[words + 1]();
    block[0] = 1;
    return block + 1;
}

uint8_t byte_of(const uint32_t* limbs, std::size_t index) {
    return static_cast<uint8_t>(limbs[index / kWordBytes] >> (index % kWordBytes * 8));
}

}  // namespace

BigNum::BigNum() : limbs_(allocate(1)), capacity_(1) {}

BigNum::BigNum(uint32_t value) : BigNum() {
    limbs_[0] = value;
    length_ = value == 0 ? 0 : 1;
}

BigNum::BigNum(std::span<const uint8_t> big_endian) : BigNum() {
    if (!big_endian.empty()) assign_bytes(big_endian.size(), &big_endian.back(), -1);
}

BigNum::BigNum(std::string_view bytes) : BigNum() {
    assign_bytes(bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()), 1);
}

BigNum::BigNum(const BigNum& other) noexcept
    : limbs_(other.limbs_), length_(other.length_), capacity_(other.capacity_) {
    ++limbs_[-1];
}

BigNum& BigNum::operator=(const BigNum& other) noexcept {
    ++other.limbs_[-1];  // first, so that assigning a number to itself frees nothing
    release();
    limbs_ = other.limbs_;
    length_ = other.length_;
    capacity_ = other.capacity_;
    return *this;
}

BigNum::~BigNum() {
    release();
}

void BigNum::release() noexcept {
    if (--limbs_[-1] != 0) return;
    ::explicit_bzero(limbs_, capacity_ * kWordBytes);
    delete[](limbs_ - 1);
}

void BigNum::trim() noexcept {
    while (length_ > 0 && limbs_[length_ - 1] == 0) --length_;
}

void BigNum::assign_bytes(std::size_t count, const uint8_t* least_first, std::ptrdiff_t step) {
    resize((count + kWordBytes - 1) / kWordBytes);
    for (std::size_t i = 0; i < count; ++i) {
        const uint32_t byte = least_first[static_cast<std::ptrdiff_t>(i) * step];
        limbs_[i / kWordBytes] |= byte << (i % kWordBytes * 8);
    }
    length_ = (count + kWordBytes - 1) / kWordBytes;
    trim();
}

void BigNum::resize(std::size_t words) {
    error::check(words >= length_, "Bad reallocation in BigNum");
    if (share_count() == 1 && words <= capacity_) return;
    uint32_t* fresh = allocate(words);
    std::copy_n(limbs_, length_, fresh);
    release();
    limbs_ = fresh;
    capacity_ = words;
}

bool operator==(const BigNum& a, const BigNum& b) noexcept {
    return a.length_ == b.length_ && std::equal(a.limbs_, a.limbs_ + a.length_, b.limbs_);
}

bool operator<(const BigNum& a, const BigNum& b) noexcept {
    if (a.length_ != b.length_) return a.length_ < b.length_;
    for (std::size_t i = a.length_; i-- > 0;)
        if (a.limbs_[i] != b.limbs_[i]) return a.limbs_[i] < b.limbs_[i];
    return false;
}

BigNum operator+(const BigNum& a, const BigNum& b) {
    const BigNum& longer = a.length_ >= b.length_ ? a : b;
    const BigNum& shorter = &longer == &a ? b : a;
    BigNum sum;
    sum.resize(longer.length_ + 1);
    uint64_t carry = 0;
    for (std::size_t i = 0; i < longer.length_; ++i) {
        carry += longer.limbs_[i];
        if (i < shorter.length_) carry += shorter.limbs_[i];
        sum.limbs_[i] = static_cast<uint32_t>(carry);
        carry >>= kWordBits;
    }
    sum.limbs_[longer.length_] = static_cast<uint32_t>(carry);
    sum.length_ = longer.length_ + 1;
    sum.trim();
    return sum;
}

void BigNum::shift_left(std::size_t bits) {
    if (length_ == 0 || bits == 0) return;
    const std::size_t words = bits / kWordBits;
    const std::size_t rest = bits % kWordBits;
    const std::size_t new_length = length_ + words + 1;
    resize(new_length);
    // From the top down, so that no word is overwritten before it has moved.
    for (std::size_t i = new_length; i-- > 0;) {
        const uint64_t high = i >= words && i - words < length_ ? limbs_[i - words] : 0;
        const uint64_t low = i >= words + 1 && i - words - 1 < length_ ? limbs_[i - words - 1] : 0;
        limbs_[i] = static_cast<uint32_t>(((high << kWordBits | low) << rest) >> kWordBits);
    }
    length_ = new_length;
    trim();
}

void BigNum::shift_right(std::size_t bits) {
    if (length_ == 0 || bits == 0) return;
    resize(length_);
    const std::size_t words = bits / kWordBits;
    const std::size_t rest = bits % kWordBits;
    for (std::size_t i = 0; i < length_; ++i) {
        const std::size_t from = i + words;
        const uint64_t low = from < length_ ? limbs_[from] : 0;
        const uint64_t high = from + 1 < length_ ? limbs_[from + 1] : 0;
        limbs_[i] = static_cast<uint32_t>((high << kWordBits | low) >> rest);
    }
    trim();
}

uint32_t BigNum::divide_small(uint32_t divisor) {
    error::check(divisor != 0, "Division by zero in BigNum");
    resize(length_);
    uint64_t remainder = 0;
    for (std::size_t i = length_; i-- > 0;) {
        remainder = remainder << kWordBits | limbs_[i];
        limbs_[i] = static_cast<uint32_t>(remainder / divisor);
        remainder %= divisor;
    }
    trim();
    return static_cast<uint32_t>(remainder);
}

std::size_t BigNum::byte_length() const noexcept {
    if (length_ == 0) return 0;
    const auto top_bits = static_cast<std::size_t>(std::bit_width(limbs_[length_ - 1]));
    return (length_ - 1) * kWordBytes + (top_bits + 7) / 8;
}

std::size_t BigNum::bn_get_data(std::span<uint8_t> buffer) const {
    const std::size_t count = byte_length();
    error::check(count <= buffer.size(), "Buffer given to bn_get_data is too small (wanted {})",
                 count);
    std::fill(buffer.begin(), buffer.end(), uint8_t{0});
    for (std::size_t i = 0; i < count; ++i) buffer[i] = byte_of(limbs_, count - 1 - i);
    return count;
}

std::string BigNum::to_decimal() const {
    constexpr uint32_t kChunk = 1'000'000'000;
    if (length_ == 0) return "0";
    BigNum rest(*this);
    std::string digits;  // last digit first
    while (!rest.is_zero()) {
        uint32_t chunk = rest.divide_small(kChunk);
        for (int i = 0; i < 9 && (chunk != 0 || !rest.is_zero()); ++i) {
            digits.push_back(static_cast<char>('0' + chunk % 10));
            chunk /= 10;
        }
    }
    std::reverse(digits.begin(), digits.end());
    return digits;
}

std::string BigNum::to_bytes(std::size_t minimum_length) const {
    const std::size_t count = byte_length();
    std::string bytes(std::max(count, minimum_length), '\0');
    for (std::size_t i = 0; i < count; ++i) bytes[i] = static_cast<char>(byte_of(limbs_, i));
    return bytes;
}
