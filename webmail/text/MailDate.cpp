#include "webmail/text/MailDate.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>
#include <vector>

#include "core/Ascii.h"
#include "webmail/text/Lines.h"

namespace webmail::text {
namespace {

using core::Ascii::EqualsIgnoreCase;
using core::Ascii::IsDigit;

constexpr std::array<const char*, 7> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<const char*, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// 1 to 12 for a month name (its first three letters, any case), else 0.
int MonthNumber(std::string_view name) {
    for (std::size_t m = 0; m < kMonths.size(); ++m) {
        if (EqualsIgnoreCase(name.substr(0, 3), kMonths[m])) return static_cast<int>(m) + 1;
    }
    return 0;
}

// Offset east of UTC in seconds for a numeric or named zone; 0 for anything unknown.
long ZoneOffset(std::string_view zone) {
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

bool ReadNumber(std::string_view text, int& value) {
    if (text.empty() || text.size() > 9) return false;
    value = 0;
    for (char c : text) {
        if (!IsDigit(c)) return false;
        value = value * 10 + (c - '0');
    }
    return true;
}

std::string TwoDigits(int n) { return {static_cast<char>('0' + n / 10), static_cast<char>('0' + n % 10)}; }

}  // namespace

std::optional<std::string> IsoDate(std::string_view text) {
    std::vector<std::string_view> parts = SplitWords(text, " \t,");
    if (!parts.empty() && MonthNumber(parts.front()) == 0 && !IsDigit(parts.front()[0])) {
        parts.erase(parts.begin());  // day of the week
    }
    if (parts.size() < 4) return std::nullopt;
    int day = 0, year = 0, hour = 0, minute = 0, second = 0;
    const int month = MonthNumber(parts[1]);
    if (!ReadNumber(parts[0], day) || month == 0 || !ReadNumber(parts[2], year)) return std::nullopt;
    if (parts[2].size() == 2) year += year < 50 ? 2000 : 1900;
    std::vector<std::string_view> clock;
    for (std::string_view t = parts[3];;) {
        const std::size_t colon = t.find(':');
        clock.push_back(t.substr(0, colon));
        if (colon == std::string_view::npos) break;
        t = t.substr(colon + 1);
    }
    if (clock.size() < 2 || clock.size() > 3 || !ReadNumber(clock[0], hour) || !ReadNumber(clock[1], minute) ||
        (clock.size() == 3 && !ReadNumber(clock[2], second))) {
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
    const long offset = parts.size() > 4 ? ZoneOffset(parts[4]) : 0;
    return IsoTime(local - offset);
}

std::string IsoTime(std::time_t time) {
    std::tm tm{};
    ::gmtime_r(&time, &tm);
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return buffer;
}

std::string Rfc5322Date(std::time_t time) {
    std::tm tm{};
    ::gmtime_r(&time, &tm);
    return std::string(kDays[static_cast<std::size_t>(tm.tm_wday)]) + ", " + std::to_string(tm.tm_mday) + " " +
           kMonths[static_cast<std::size_t>(tm.tm_mon)] + " " + std::to_string(tm.tm_year + 1900) + " " +
           TwoDigits(tm.tm_hour) + ":" + TwoDigits(tm.tm_min) + ":" + TwoDigits(tm.tm_sec) + " +0000";
}

}  // namespace webmail::text
