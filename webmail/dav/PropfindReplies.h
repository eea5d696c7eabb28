// The three PROPFIND replies: log-in (folder addresses), folder list, and mailbox listing.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "webmail/store/MaildirFolder.h"
#include "webmail/dav/ListedMessage.h"
#include "webmail/dav/ServiceUrls.h"

class PropfindReplies {
public:
    // One property a PROPFIND body asks for.
    struct Requested {
        std::string ns;     // namespace URI
        std::string local;  // local name
    };
    // One folder as the folder list shows it.
    struct Folder {
        std::string name;
        std::size_t total = 0;
        std::size_t unread = 0;
    };
    // One message as the mailbox listing shows it.
    struct Message {
        MaildirEntry entry;
        ListedMessage summary;
        std::size_t size = 0;  // bytes a GET of the message returns
    };

    // The properties a PROPFIND body asks for, in the order asked. An empty body or <allprop/> gives
    // nullopt with no error; a body that is not a propfind document gives nullopt and sets error.
    static std::optional<std::vector<Requested>> requested(std::string_view body, std::string& error);
    // The folder properties answered when a body names none.
    static std::vector<Requested> defaultFolderProps();

    // Log-in reply: one entry for the entry address whose property list holds, by position, the ad bar,
    // contacts, inbox, send, sent items, trash and folder root addresses, then h:maxpoll and h:sig.
    static std::string login(const ServiceUrls& urls);
    // Folder list: one entry per folder, each answering the requested properties in the order asked.
    static std::string folders(const ServiceUrls& urls, const std::vector<Folder>& folders,
                               const std::vector<Requested>& props);
    // Mailbox listing: one entry per message (never one for the folder), each carrying every listed
    // property, empty or not, so the i-th element of each name belongs to the i-th entry.
    static std::string messages(const ServiceUrls& urls, std::string_view folderName,
                                const std::vector<Message>& messages);
    // Display name of a folder ("Inbox" for INBOX).
    static std::string displayName(std::string_view folderName);
    // The hm:special value of a folder ("inbox", "sentitems", "deleteditems", "outbox", or empty).
    static std::string special(std::string_view folderName);
};
