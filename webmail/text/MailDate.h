// Dates as message headers write them and as the mailbox listing shows them, by fixed English names and UTC,
// whatever the locale.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace webmail::text {

// An RFC 5322 date ("Tue, 14 May 2002 10:21:13 +0200", two-digit years and a few named zones too) as
// "2002-05-14T08:21:13" in UTC; nullopt when it cannot be read.
std::optional<std::string> IsoDate(std::string_view text);
// A time as "YYYY-MM-DDTHH:MM:SS" in UTC.
std::string IsoTime(std::time_t time);
// A time as an RFC 5322 date in UTC: "Mon, 23 Nov 2026 09:13:38 +0000".
std::string Rfc5322Date(std::time_t time);

}  // namespace webmail::text
