#include "webmail/text/MailAddress.h"

#include "core/Ascii.h"
#include "webmail/text/Lines.h"

namespace webmail::text {

std::string HeaderAddress(std::string_view text) {
    const std::size_t open = text.rfind('<');
    if (open != std::string_view::npos) {
        const std::size_t close = text.find('>', open);
        if (close != std::string_view::npos) return std::string(TrimBlanks(text.substr(open + 1, close - open - 1)));
    }
    const auto words = SplitWords(text, " \t,");
    for (const std::string_view word : words) {
        if (word.find('@') != std::string_view::npos) return std::string(word);
    }
    return words.empty() ? std::string() : std::string(words.front());
}

std::string EnvelopeAddress(std::string_view text) {
    const std::size_t open = text.find('<');
    if (open != std::string_view::npos) {
        const std::size_t close = text.find('>', open);
        if (close != std::string_view::npos) return std::string(text.substr(open + 1, close - open - 1));
    }
    while (!text.empty() && core::Ascii::IsSpace(text.front())) text.remove_prefix(1);
    std::size_t end = 0;
    while (end < text.size() && !core::Ascii::IsSpace(text[end])) ++end;
    return std::string(text.substr(0, end));
}

std::string AddressKey(std::string_view address) {
    const std::size_t at = address.rfind('@');
    if (at == std::string_view::npos) return std::string(address);
    return std::string(address.substr(0, at + 1)) + core::Ascii::LowerCase(std::string(address.substr(at + 1)));
}

}  // namespace webmail::text
