#include "webmail/text/Lines.h"

#include <algorithm>

namespace webmail::text {
namespace {

std::string_view Trim(std::string_view text, std::string_view blanks) {
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace

std::string_view TakeLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
}

std::string_view TrimBlanks(std::string_view text) { return Trim(text, " \t"); }

std::string_view TrimWhite(std::string_view text) { return Trim(text, " \t\r\n"); }

std::vector<std::string_view> SplitWords(std::string_view text, std::string_view separators) {
    std::vector<std::string_view> words;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t start = text.find_first_not_of(separators, at);
        if (start == std::string_view::npos) break;
        at = std::min(text.find_first_of(separators, start), text.size());
        words.push_back(text.substr(start, at - start));
    }
    return words;
}

}  // namespace webmail::text
