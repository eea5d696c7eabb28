// What the mailbox listing shows of one message, read from its header.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

struct ListedMessage {
    std::string subject;         // Subject header, unfolded, as clean UTF-8
    std::string from;            // From header as displayed
    std::string to;              // To header as displayed
    std::string fromAddress;     // the bare address of the From header
    std::string date;            // "YYYY-MM-DDTHH:MM:SS" in UTC
    bool hasAttachment = false;  // from the header alone: a multipart/mixed message

    // Reads the header of raw (a message, or only its header); fallbackTime gives the date when the Date
    // header is missing or unreadable.
    static ListedMessage parse(std::string_view raw, std::time_t fallbackTime);
    // Text fit for XML: valid UTF-8 (bytes that are not UTF-8 are read as Latin-1), controls turned to
    // spaces, surrounding white space trimmed.
    static std::string cleanText(std::string_view text);
    // The address inside "<...>" if present, otherwise the first word holding an "@", otherwise the
    // first word.
    static std::string addressOf(std::string_view text);
    // An RFC 5322 date ("Tue, 14 May 2002 10:21:13 +0200") as "2002-05-14T08:21:13" (UTC).
    static std::optional<std::string> isoDate(std::string_view text);
    // A time as "YYYY-MM-DDTHH:MM:SS" in UTC.
    static std::string isoTime(std::time_t time);
};
