// Percent-encoding of path segments and splitting of request paths into decoded segments.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace webmail::dav::UrlCodec {

// Encodes every byte outside the URL's unreserved set as %HH, so the result is safe as one path segment.
std::string EncodeSegment(std::string_view segment);

// Decodes %HH sequences; nullopt when a "%" is not followed by two hex digits.
std::optional<std::string> Decode(std::string_view encoded);

// Splits a raw (still encoded) absolute path into decoded segments. Refuses (nullopt) anything that
// could step outside the addressed tree: empty inner segments, ".", "..", and segments that decode to
// a slash, a backslash or a NUL byte. One trailing slash is allowed.
std::optional<std::vector<std::string>> SplitPath(std::string_view rawPath);

// The path part of an absolute URL ("http://host:port/a/b" gives "/a/b"), or the text itself when it
// already starts with "/"; nullopt for anything else.
std::optional<std::string> PathOfUrl(std::string_view url);

}  // namespace webmail::dav::UrlCodec
