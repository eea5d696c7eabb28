// Hexadecimal digits of bytes, and a comparison of secrets that takes the same time wherever they differ.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace webmail::text {

// The value of a hex digit in either case, or -1.
constexpr int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Appends the two hex digits of `byte`, upper-case ("%2F", "=C3") or lower-case (digests, ids).
inline void AppendHex(std::string& out, unsigned char byte, bool upperCase) {
    const char* digits = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
    out += digits[byte >> 4];
    out += digits[byte & 0x0F];
}

// Whether `a` and `b` are equal, comparing every byte whatever the first difference, so that the time taken
// tells nothing about a password or an expected digest.
inline bool SameSecret(std::string_view a, std::string_view b) {
    unsigned char diff = a.size() == b.size() ? 0 : 1;
    const std::size_t n = a.size() > b.size() ? a.size() : b.size();
    for (std::size_t i = 0; i < n; ++i) {
        const char x = i < a.size() ? a[i] : '\0';
        const char y = i < b.size() ? b[i] : '\0';
        diff |= static_cast<unsigned char>(x ^ y);
    }
    return diff == 0;
}

}  // namespace webmail::text
