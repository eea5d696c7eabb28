#include "webmail/dav/BasicCredentials.h"

#include <algorithm>

#include "core/Ascii.h"
#include "webmail/text/Lines.h"

namespace webmail::dav {

namespace {

int Base64Value(char c) {
    if (core::Ascii::IsUpper(c)) return c - 'A';
    if (core::Ascii::IsLower(c)) return c - 'a' + 26;
    if (core::Ascii::IsDigit(c)) return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

// Standard base64 with its padding; nullopt for anything else.
std::optional<std::string> DecodeBase64(std::string_view token) {
    if (token.empty() || token.size() % 4 != 0) return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && token.size() > padding && token[token.size() - 1 - padding] == '=') ++padding;
    std::string out;
    unsigned bits = 0;
    int count = 0;
    for (std::size_t i = 0; i < token.size() - padding; ++i) {
        const int value = Base64Value(token[i]);
        if (value < 0) return std::nullopt;
        bits = (bits << 6) | static_cast<unsigned>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out += static_cast<char>((bits >> count) & 0xFF);
        }
    }
    return out;
}

}  // namespace

std::string_view BasicCredentials::Scheme(std::string_view authorization) {
    authorization = text::TrimBlanks(authorization);
    return authorization.substr(0, authorization.find_first_of(" \t"));
}

std::optional<BasicCredentials> BasicCredentials::Parse(std::string_view authorization) {
    const std::string_view name = Scheme(authorization);
    if (!core::Ascii::EqualsIgnoreCase(name, "Basic")) return std::nullopt;
    const std::string_view token = text::TrimBlanks(text::TrimBlanks(authorization).substr(name.size()));
    auto text = DecodeBase64(token);
    if (!text || std::any_of(text->begin(), text->end(), core::Ascii::IsControl)) return std::nullopt;
    const std::size_t colon = text->find(':');
    if (colon == std::string::npos) return std::nullopt;
    return BasicCredentials{text->substr(0, colon), text->substr(colon + 1)};
}

}  // namespace webmail::dav
