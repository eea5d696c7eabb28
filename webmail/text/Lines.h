// Lines, blanks and words of protocol and header text, by ASCII rules.
#pragma once

#include <string_view>
#include <vector>

namespace webmail::text {

// Takes one line off the front of `text`; the line excludes its LF and a CR before it.
std::string_view TakeLine(std::string_view& text);
// `text` without the spaces and tabs around it.
std::string_view TrimBlanks(std::string_view text);
// `text` without the spaces, tabs, CRs and LFs around it.
std::string_view TrimWhite(std::string_view text);
// The non-empty runs of `text` between any of the `separators`.
std::vector<std::string_view> SplitWords(std::string_view text, std::string_view separators);

}  // namespace webmail::text
