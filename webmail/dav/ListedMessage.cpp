#include "webmail/dav/ListedMessage.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

#include "core/Ascii.h"

namespace {

using core::Ascii::EqualsIgnoreCase;
using core::Ascii::IsDigit;

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

struct HeaderField {
    std::string name;
    std::string value;
};

// The header fields of a message, each unfolded (continuation lines joined with their leading blank).
std::vector<HeaderField> readHeader(std::string_view raw) {
    std::vector<HeaderField> fields;
    while (!raw.empty()) {
        const std::size_t end = raw.find('\n');
        std::string_view line = raw.substr(0, end);
        raw = end == std::string_view::npos ? std::string_view() : raw.substr(end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) break;
        if ((line.front() == ' ' || line.front() == '\t') && !fields.empty()) {
            fields.back().value += line;
            continue;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        fields.push_back({std::string(trim(line.substr(0, colon))), std::string(line.substr(colon + 1))});
    }
    return fields;
}

std::string fieldValue(const std::vector<HeaderField>& fields, std::string_view name) {
    for (const auto& f : fields) {
        if (EqualsIgnoreCase(f.name, name)) return f.value;
    }
    return {};
}

void appendUtf8(std::string& out, unsigned code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

// Length of the valid UTF-8 sequence at text[i] and its code point, or 0 when the bytes are not UTF-8.
std::size_t utf8Sequence(std::string_view text, std::size_t i, unsigned& code) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    std::size_t length = 0;
    unsigned minimum = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2, code = lead & 0x1F, minimum = 0x80;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3, code = lead & 0x0F, minimum = 0x800;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4, code = lead & 0x07, minimum = 0x10000;
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    for (std::size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return 0;
        code = (code << 6) | (byte(i + k) & 0x3F);
    }
    if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF) || code == 0xFFFE || code == 0xFFFF) {
        return 0;
    }
    return length;
}

int monthNumber(std::string_view name) {
    static constexpr std::array<std::string_view, 12> kMonths = {"jan", "feb", "mar", "apr", "may", "jun",
                                                                 "jul", "aug", "sep", "oct", "nov", "dec"};
    const std::string key = core::Ascii::LowerCase(std::string(name.substr(0, 3)));
    for (std::size_t m = 0; m < kMonths.size(); ++m) {
        if (key == kMonths[m]) return static_cast<int>(m) + 1;
    }
    return 0;
}

// Offset east of UTC in seconds for a numeric or named zone; 0 for anything unknown.
long zoneOffset(std::string_view zone) {
    if (zone.size() == 5 && (zone[0] == '+' || zone[0] == '-') && std::all_of(zone.begin() + 1, zone.end(), IsDigit)) {
        const long hours = (zone[1] - '0') * 10 + (zone[2] - '0');
        const long minutes = (zone[3] - '0') * 10 + (zone[4] - '0');
        const long offset = hours * 3600 + minutes * 60;
        return zone[0] == '-' ? -offset : offset;
    }
    static constexpr std::array<std::pair<std::string_view, long>, 8> kNamed = {
        {{"EST", -5}, {"EDT", -4}, {"CST", -6}, {"CDT", -5}, {"MST", -7}, {"MDT", -6}, {"PST", -8}, {"PDT", -7}}};
    for (const auto& [name, hours] : kNamed) {
        if (EqualsIgnoreCase(zone, name)) return hours * 3600;
    }
    return 0;
}

std::vector<std::string_view> words(std::string_view text) {
    std::vector<std::string_view> out;
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == ',')) ++i;
        const std::size_t start = i;
        while (i < text.size() && text[i] != ' ' && text[i] != '\t' && text[i] != ',') ++i;
        if (i > start) out.push_back(text.substr(start, i - start));
    }
    return out;
}

bool readNumber(std::string_view text, int& value) {
    if (text.empty() || text.size() > 9) return false;
    value = 0;
    for (char c : text) {
        if (!IsDigit(c)) return false;
        value = value * 10 + (c - '0');
    }
    return true;
}

}  // namespace

ListedMessage ListedMessage::parse(std::string_view raw, std::time_t fallbackTime) {
    const std::vector<HeaderField> fields = readHeader(raw);
    ListedMessage summary;
    summary.subject = cleanText(fieldValue(fields, "Subject"));
    summary.from = cleanText(fieldValue(fields, "From"));
    summary.to = cleanText(fieldValue(fields, "To"));
    summary.fromAddress = addressOf(summary.from);
    summary.date = isoDate(fieldValue(fields, "Date")).value_or(isoTime(fallbackTime));
    const std::string contentType = core::Ascii::LowerCase(std::string(trim(fieldValue(fields, "Content-Type"))));
    // A mixed multipart message carries attachments by definition; the listing also looks for a part that
    // declares itself one (MessageFile::Facts::attachmentLine).
    summary.hasAttachment = contentType.starts_with("multipart/mixed");
    return summary;
}

std::string ListedMessage::cleanText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            out += (c < 0x20 || c == 0x7F) ? ' ' : static_cast<char>(c);
            ++i;
            continue;
        }
        unsigned code = 0;
        const std::size_t length = utf8Sequence(text, i, code);
        if (length == 0) {
            appendUtf8(out, c);  // Latin-1 byte
            ++i;
        } else {
            out.append(text.substr(i, length));
            i += length;
        }
    }
    return std::string(trim(out));
}

std::string ListedMessage::addressOf(std::string_view text) {
    const std::size_t open = text.rfind('<');
    if (open != std::string_view::npos) {
        const std::size_t close = text.find('>', open);
        if (close != std::string_view::npos) return std::string(trim(text.substr(open + 1, close - open - 1)));
    }
    const auto all = words(text);
    for (auto word : all) {
        if (word.find('@') != std::string_view::npos) return std::string(word);
    }
    return all.empty() ? std::string() : std::string(all.front());
}

std::optional<std::string> ListedMessage::isoDate(std::string_view text) {
    std::vector<std::string_view> parts = words(text);
    if (!parts.empty() && monthNumber(parts.front()) == 0 && !IsDigit(parts.front()[0])) {
        parts.erase(parts.begin());  // day of the week
    }
    if (parts.size() < 4) return std::nullopt;
    int day = 0, year = 0, hour = 0, minute = 0, second = 0;
    const int month = monthNumber(parts[1]);
    if (!readNumber(parts[0], day) || month == 0 || !readNumber(parts[2], year)) return std::nullopt;
    if (parts[2].size() == 2) year += year < 50 ? 2000 : 1900;
    std::vector<std::string_view> clock;
    for (std::string_view t = parts[3];;) {
        const std::size_t colon = t.find(':');
        clock.push_back(t.substr(0, colon));
        if (colon == std::string_view::npos) break;
        t = t.substr(colon + 1);
    }
    if (clock.size() < 2 || clock.size() > 3 || !readNumber(clock[0], hour) || !readNumber(clock[1], minute) ||
        (clock.size() == 3 && !readNumber(clock[2], second))) {
        return std::nullopt;
    }
    if (day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60 || year < 1970 || year > 9999) {
        return std::nullopt;
    }
    std::tm tm{};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    const std::time_t local = ::timegm(&tm);
    const long offset = parts.size() > 4 ? zoneOffset(parts[4]) : 0;
    return isoTime(local - offset);
}

std::string ListedMessage::isoTime(std::time_t time) {
    std::tm tm{};
    ::gmtime_r(&time, &tm);
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buffer;
}
