// One message of a folder listing, as the service described it. A plain record: every field is public,
// stored and returned unchanged.
#pragma once

#include <cstdint>
#include <string>

#include "core/SpoolText.h"

namespace mailservice {

struct CHotmailMessage {
    std::string mIndex;      // position in its listing as decimal text ("1", "2", ...); its collection key
    std::string mMessageID;  // the service's id of the message
    std::string mSubject;
    std::string mTo;
    std::string mFrom;         // sender as the service shows it
    std::string mFromAddress;  // sender's address
    std::string mDate;         // regional short date, a space, regional long time
    std::string mLength;       // size in bytes, decimal text as the service gives it
    std::string mURL;          // address the message's text is fetched from
    std::int16_t mRead = 0;    // 0 unread, 1 read, as the service reports it
    bool mHasAttachment = false;
    // The message's full text as the service returns it for mURL, kept on disk: a listing fetches every
    // message, and an inbox of gigabytes must not need gigabytes of memory.
    core::SpoolText mBody;
};

}  // namespace mailservice
