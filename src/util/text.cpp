#include "util/text.h"

#include <cstdlib>
#include <limits>
#include <locale>
#include <sstream>

namespace util {

namespace {

/// What follows the backslash for a byte with a letter form; 0 for others.
char escape_letter(char byte) {
    switch (byte) {
        case '\a':
            return 'a';
        case '\b':
            return 'b';
        case '\t':
            return 't';
        case '\n':
            return 'n';
        case '\v':
            return 'v';
        case '\f':
            return 'f';
        case '\r':
            return 'r';
        case '"':
        case '\'':
        case '\\':
            return byte;
        default:
            return 0;
    }
}

template <class T>
T extract_number(std::string_view text, std::string_view type) {
    if (text.empty())
        throw error::EParseEmptyStringError(fmt::format("Cannot parse empty string to {}", type));
    std::istringstream stream{std::string(text)};
    stream.imbue(std::locale::classic());
    T number{};
    if (!(stream >> number))
        throw error::EParseError(fmt::format("Cannot parse {}: \"{}\"", type, text));
    if (stream.peek() != std::istringstream::traits_type::eof())
        throw error::EParseError(fmt::format("Trailing data after {}: \"{}\"", type, text));
    return number;
}

}  // namespace

std::string quote(std::string_view text) {
    std::string quoted = "\"";
    for (const char byte : text) {
        if (const char letter = escape_letter(byte); letter != 0) {
            quoted += '\\';
            quoted += letter;
        } else if (static_cast<unsigned char>(byte) < 32) {
            quoted += fmt::format("\\{:03o}", static_cast<unsigned>(byte));
        } else {
            quoted += byte;
        }
    }
    quoted += '"';
    return quoted;
}

template <>
int32_t parse_number<int32_t>(std::string_view text) {
    return extract_number<int32_t>(text, "int");
}
template <>
uint32_t parse_number<uint32_t>(std::string_view text) {
    return extract_number<uint32_t>(text, "unsigned int");
}
template <>
uint64_t parse_number<uint64_t>(std::string_view text) {
    return extract_number<uint64_t>(text, "unsigned __int64");
}

double parse_double(std::string_view text) {
    const std::string terminated(text);
    char* end = nullptr;
    const double number = std::strtod(terminated.c_str(), &end);
    if (end == terminated.c_str() + terminated.size()) return number;
    throw error::EParseError(fmt::format("Error parsing: \"{}\"", text));
}

uint32_t parse_ip(std::string_view text) {
    const std::vector<std::string> pieces = split(text, '.', false);
    if (pieces.size() != 4)
        throw error::EParseError(fmt::format("Malformed IP address: \"{}\"", text));
    uint32_t address = 0;
    for (const std::string& piece : pieces)
        address = address << 8 | (parse_number<uint32_t>(piece) & 0xFF);
    return address;
}

std::vector<std::string> split(std::string_view text, char separator, bool keep_empty) {
    std::vector<std::string> pieces;
    std::size_t start = 0;
    while (true) {
        const std::size_t end = std::min(text.find(separator, start), text.size());
        if (keep_empty || end > start) pieces.emplace_back(text.substr(start, end - start));
        if (end == text.size()) return pieces;
        start = end + 1;
    }
}

std::string decimal_text(uint64_t value) {
    return fmt::format("{}", value);
}
std::string hex_text(uint64_t value, std::size_t width) {
    return fmt::format("{:0{}X}", value, std::max<std::size_t>(width, 16));
}
std::string signed_text(int32_t value) {
    return fmt::format("{}", value);
}
std::string two_digit_text(int32_t value) {
    return fmt::format("{:02}", value);
}

}  // namespace util
