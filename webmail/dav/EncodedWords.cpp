#include "webmail/dav/EncodedWords.h"

#include <vector>

#include "core/Ascii.h"
#include "webmail/text/Hex.h"
#include "webmail/text/Utf8.h"

namespace webmail::dav {

namespace {

constexpr std::string_view kPrefix = "=?UTF-8?Q?";
constexpr std::string_view kSuffix = "?=";

bool IsPrintableAscii(std::string_view word) {
    for (char c : word) {
        if (c < ' ' || c > '~') return false;
    }
    return true;
}

bool LooksEncoded(std::string_view word) {
    return word.size() >= kPrefix.size() && word.starts_with("=?") && word.ends_with(kSuffix);
}

// The characters that may stand for themselves in an encoded-word inside a phrase (RFC 2047, 5 (3)); "_"
// stands for a space.
bool IsPlainInPhrase(char c) {
    return core::Ascii::IsAlpha(c) || core::Ascii::IsDigit(c) || c == '!' || c == '*' || c == '+' || c == '-' ||
           c == '/';
}

std::string Quoted(std::string_view character) {
    std::string out;
    for (char c : character) {
        if (c == ' ') {
            out += '_';
        } else if (IsPlainInPhrase(c)) {
            out += c;
        } else {
            out += '=';
            text::AppendHex(out, static_cast<unsigned char>(c), true);
        }
    }
    return out;
}

// `run` (valid UTF-8) as one or more encoded-words separated by spaces; a character's bytes are never split
// between two words, since a decoder decodes each word on its own.
std::string EncodeRun(std::string_view run) {
    constexpr std::size_t kRoom = EncodedWords::kMaxWordLength - kPrefix.size() - kSuffix.size();
    std::vector<std::string> words(1);
    for (std::size_t i = 0; i < run.size();) {
        std::size_t length = 1;
        while (i + length < run.size() && (static_cast<unsigned char>(run[i + length]) & 0xC0) == 0x80) ++length;
        const std::string piece = Quoted(run.substr(i, length));
        if (words.back().size() + piece.size() > kRoom) words.emplace_back();
        words.back() += piece;
        i += length;
    }
    std::string out;
    for (const std::string& w : words) {
        if (!out.empty()) out += ' ';
        out.append(kPrefix).append(w).append(kSuffix);
    }
    return out;
}

// Where the word that begins at `start` ends: at the next space outside a quoted string. A quoted display
// name is one word, so that an encoded-word never lands inside quotes, where readers do not decode it.
std::size_t WordEnd(std::string_view text, std::size_t start) {
    bool inQuotes = false;
    for (std::size_t i = start; i < text.size(); ++i) {
        if (text[i] == '\\' && inQuotes) {
            ++i;
        } else if (text[i] == '"') {
            inQuotes = !inQuotes;
        } else if (text[i] == ' ' && !inQuotes) {
            return i;
        }
    }
    return text.size();
}

}  // namespace

std::string EncodedWords::Encode(std::string_view phrase) {
    const std::string clean = text::CleanText(phrase);
    const std::string_view rest(clean);

    struct Word {
        std::string_view blank;  // the spaces before the word
        std::string_view text;
    };
    std::vector<Word> words;
    for (std::size_t i = 0; i < rest.size();) {
        const std::size_t start = rest.find_first_not_of(' ', i);
        const std::size_t end = WordEnd(rest, start);
        words.push_back({rest.substr(i, start - i), rest.substr(start, end - start)});
        i = end;
    }

    std::string out;
    for (std::size_t i = 0; i < words.size();) {
        if (IsPrintableAscii(words[i].text)) {
            out.append(words[i].blank).append(words[i].text);
            ++i;
            continue;
        }
        // Neighbouring words are encoded together: a decoder drops the blanks between two encoded-words.
        // For the same reason a blank next to an existing encoded-word goes inside the new one.
        const bool afterEncoded = i > 0 && LooksEncoded(words[i - 1].text);
        std::string run(afterEncoded ? words[i].blank : std::string_view());
        out += afterEncoded ? std::string_view(" ") : words[i].blank;
        run += words[i].text;
        for (++i; i < words.size() && !IsPrintableAscii(words[i].text); ++i) {
            run.append(words[i].blank).append(words[i].text);
        }
        if (i < words.size() && LooksEncoded(words[i].text)) {
            run += words[i].blank;
            words[i].blank = " ";
        }
        out += EncodeRun(run);
    }
    return out;
}

}  // namespace webmail::dav
