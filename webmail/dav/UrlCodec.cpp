#include "webmail/dav/UrlCodec.h"

#include "webmail/text/Hex.h"

namespace webmail::dav::UrlCodec {
namespace {

bool IsUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
           c == '_' || c == '~';
}

}  // namespace

std::string EncodeSegment(std::string_view segment) {
    std::string out;
    out.reserve(segment.size());
    for (unsigned char c : segment) {
        if (IsUnreserved(c)) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            text::AppendHex(out, c, true);
        }
    }
    return out;
}

std::optional<std::string> Decode(std::string_view encoded) {
    std::string out;
    out.reserve(encoded.size());
    for (std::size_t i = 0; i < encoded.size(); ++i) {
        if (encoded[i] != '%') {
            out += encoded[i];
            continue;
        }
        if (i + 2 >= encoded.size()) return std::nullopt;
        const int hi = text::HexValue(encoded[i + 1]);
        const int lo = text::HexValue(encoded[i + 2]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out += static_cast<char>(hi * 16 + lo);
        i += 2;
    }
    return out;
}

std::optional<std::vector<std::string>> SplitPath(std::string_view rawPath) {
    if (rawPath.empty() || rawPath.front() != '/') return std::nullopt;
    std::string_view rest = rawPath.substr(1);
    if (!rest.empty() && rest.back() == '/') rest.remove_suffix(1);
    std::vector<std::string> segments;
    if (rest.empty()) return segments;
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = rest.find('/', start);
        const std::string_view raw = rest.substr(start, slash == std::string_view::npos ? slash : slash - start);
        auto segment = Decode(raw);
        if (!segment || segment->empty() || *segment == "." || *segment == "..") return std::nullopt;
        if (segment->find_first_of(std::string_view("/\\\0", 3)) != std::string::npos) return std::nullopt;
        segments.push_back(std::move(*segment));
        if (slash == std::string_view::npos) break;
        start = slash + 1;
    }
    return segments;
}

std::optional<std::string> PathOfUrl(std::string_view url) {
    if (!url.empty() && url.front() == '/') return std::string(url);
    const std::size_t scheme = url.find("://");
    if (scheme == std::string_view::npos) return std::nullopt;
    const std::size_t slash = url.find('/', scheme + 3);
    if (slash == std::string_view::npos) return std::string("/");
    std::string_view path = url.substr(slash);
    const std::size_t query = path.find_first_of("?#");
    if (query != std::string_view::npos) path = path.substr(0, query);
    return std::string(path);
}

}  // namespace webmail::dav::UrlCodec
