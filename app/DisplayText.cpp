#include "app/DisplayText.h"

namespace app {
namespace {

bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// The length of the well-formed UTF-8 sequence at `at` (RFC 3629: no overlong forms, no surrogates, nothing
// above U+10FFFF), or 0 if there is none; `*code` gets its code point.
std::size_t Utf8Sequence(std::string_view bytes, std::size_t at, char32_t* code) {
    const auto lead = static_cast<unsigned char>(bytes[at]);
    std::size_t length = 0;
    char32_t value = 0;
    // The range allowed for the second byte narrows after the leads that could start an invalid form.
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
        value = lead & 0x1F;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        value = lead & 0x0F;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        value = lead & 0x07;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (bytes.size() - at < length) return 0;
    const auto second = static_cast<unsigned char>(bytes[at + 1]);
    if (second < low || second > high) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[at + i]);
        if (!IsContinuation(byte)) return 0;
        value = (value << 6) | (byte & 0x3F);
    }
    *code = value;
    return length;
}

// Decodes `bytes` onto the end of `text`; each line end is written as `lineEnd(shown)`, where `shown` is what
// DisplayText shows for it ('\n' for CR LF, else the lone CR or LF). The text never needs more than one UTF-16
// unit per byte (a four-byte sequence gives two), so it is sized once and written through a pointer: a long
// entry is many megabytes.
template <typename LineEnd>
void Decode(QString& text, std::string_view bytes, LineEnd lineEnd) {
    const qsizetype start = text.size();
    text.resize(start + static_cast<qsizetype>(bytes.size()));
    char16_t* const begin = reinterpret_cast<char16_t*>(text.data());
    char16_t* out = begin + start;
    std::size_t at = 0;
    while (at < bytes.size()) {
        const auto byte = static_cast<unsigned char>(bytes[at]);
        if (byte >= 0x20 && byte < 0x80) {
            *out++ = byte;
            ++at;
            continue;
        }
        if (byte == '\r' && at + 1 < bytes.size() && bytes[at + 1] == '\n') {
            *out++ = lineEnd(u'\n');
            at += 2;
            continue;
        }
        if (byte == '\r' || byte == '\n') {
            *out++ = lineEnd(static_cast<char16_t>(byte));
            ++at;
            continue;
        }
        char32_t code = 0;
        const std::size_t length = byte < 0x80 ? 0 : Utf8Sequence(bytes, at, &code);
        if (length == 0) {
            *out++ = static_cast<char16_t>(byte);
            ++at;
        } else if (code < 0x10000) {
            *out++ = static_cast<char16_t>(code);
            at += length;
        } else {
            *out++ = QChar::highSurrogate(code);
            *out++ = QChar::lowSurrogate(code);
            at += length;
        }
    }
    text.truncate(out - begin);
}

}  // namespace

QString DisplayText(std::string_view bytes) {
    QString text;
    Decode(text, bytes, [](char16_t shown) { return shown; });
    return text;
}

void AppendDisplayText(QString& text, std::string_view bytes, int linesPerBlock, int& sinceBlock) {
    Decode(text, bytes, [&](char16_t /*shown*/) -> char16_t {
        if (++sinceBlock < linesPerBlock) return QChar::LineSeparator;
        sinceBlock = 0;
        return u'\n';
    });
}

}  // namespace app
