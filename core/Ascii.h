// ASCII-only character rules for protocol words, arguments, numbers and log text. The C library's
// classification and case functions follow the process locale (Qt sets it from the environment, and a
// Turkish locale upper-cases "i" to a dotted capital); these never do.
#pragma once

#include <string>
#include <string_view>

namespace core::Ascii {

constexpr bool IsDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool IsUpper(char c) { return c >= 'A' && c <= 'Z'; }
constexpr bool IsLower(char c) { return c >= 'a' && c <= 'z'; }
constexpr bool IsAlpha(char c) { return IsUpper(c) || IsLower(c); }
// Space, tab, CR, LF, vertical tab and form feed.
constexpr bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
// Bytes 0-31 and 127.
constexpr bool IsControl(char c) { return (c >= 0 && c < ' ') || c == 127; }

constexpr char ToUpper(char c) { return IsLower(c) ? static_cast<char>(c - 'a' + 'A') : c; }
constexpr char ToLower(char c) { return IsUpper(c) ? static_cast<char>(c - 'A' + 'a') : c; }

// `text` with its ASCII letters upper-cased / lower-cased; every other byte passes unchanged.
inline std::string UpperCase(std::string text) {
    for (char& c : text) c = ToUpper(c);
    return text;
}
inline std::string LowerCase(std::string text) {
    for (char& c : text) c = ToLower(c);
    return text;
}

// Whether `a` and `b` are equal when ASCII letters are compared without regard to case.
constexpr bool EqualsIgnoreCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (ToLower(a[i]) != ToLower(b[i])) return false;
    }
    return true;
}

}  // namespace core::Ascii
