// The three PROPFIND replies: log-in (folder addresses), folder list, and mailbox listing.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "webmail/dav/ListedMessage.h"
#include "webmail/dav/RequestParser.h"
#include "webmail/dav/ServiceUrls.h"

namespace webmail::dav {

class PropfindReplies {
public:
    using Property = RequestParser::Property;
    // One folder as the folder list shows it.
    struct Folder {
        std::string name;
        std::size_t total = 0;
        std::size_t unread = 0;
    };

    // The folder properties answered when a body names none.
    static std::vector<Property> DefaultFolderProperties();

    // Log-in reply: one entry for the entry address whose property list holds, by position, the ad bar,
    // contacts, inbox, send, sent items, trash and folder root addresses, then h:maxpoll and h:sig.
    static std::string Login(const ServiceUrls& urls);
    // Folder list: one entry per folder, each answering the requested properties in the order asked
    // (D:displayname "Inbox" for INBOX, hm:special "inbox", "sentitems", "deleteditems", "outbox" or empty).
    static std::string Folders(const ServiceUrls& urls, const std::vector<Folder>& folders,
                               const std::vector<Property>& properties);
    // Mailbox listing: one entry per message (never one for the folder), each carrying every listed
    // property, empty or not, so the i-th element of each name belongs to the i-th entry.
    static std::string Messages(const ServiceUrls& urls, std::string_view folderName,
                                const std::vector<ListedMessage>& messages);
};

}  // namespace webmail::dav
