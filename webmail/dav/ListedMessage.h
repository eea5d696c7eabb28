// One message as the mailbox listing shows it, read from its file.
#pragma once

#include <cstdint>
#include <string>

#include "webmail/store/MaildirEntry.h"
#include "webmail/store/MessageFile.h"

namespace webmail::dav {

struct ListedMessage {
    std::string id;
    bool read = false;
    std::string subject;         // Subject header, unfolded, as clean UTF-8 (text::CleanText)
    std::string from;            // From header as clean UTF-8
    std::string to;              // To header as clean UTF-8
    std::string fromAddress;     // the bare address of the From header
    std::string date;            // "YYYY-MM-DDTHH:MM:SS" in UTC: the Date header, else the file's time
    std::uint64_t size = 0;      // bytes a GET of the message serves
    bool hasAttachment = false;  // a multipart/mixed message, or one with a line declaring an attachment

    // What the listing shows of the message of `entry`, open as `file`.
    static ListedMessage Read(const store::MaildirEntry& entry, const store::MessageFile& file);
};

}  // namespace webmail::dav
