// The service's address scheme for one account.
#pragma once

#include <string>
#include <string_view>

namespace webmail::dav {

// Addresses, below the base "http://host:port":
//   /svcs/hotmail/tarnwick.asp            entry address (log-in)
//   /mail/USER/folders/                   folder root
//   /mail/USER/folders/FOLDER/            one folder ("INBOX", "Sent%20Items", ...)
//   /mail/USER/folders/FOLDER/ID          one message
//   /mail/USER/sendmsg                    send address
//   /mail/USER/contacts, /mail/USER/adbar the two remaining log-in addresses
struct ServiceUrls {
    std::string base;  // "http://host:port"
    std::string user;

    static constexpr const char* kEntryPath = "/svcs/hotmail/tarnwick.asp";

    // Entry address.
    std::string Entry() const { return base + kEntryPath; }
    // Prefix of every address of the account.
    std::string AccountPrefix() const;
    // Folder root address.
    std::string FolderRoot() const { return AccountPrefix() + "folders/"; }
    // Address of a folder.
    std::string Folder(std::string_view name) const;
    // Address of a message in a folder.
    std::string Message(std::string_view folderName, std::string_view id) const;
    // Send address.
    std::string SendMessage() const { return AccountPrefix() + "sendmsg"; }
    // Contacts address.
    std::string Contacts() const { return AccountPrefix() + "contacts"; }
    // Ad bar address.
    std::string AdBar() const { return AccountPrefix() + "adbar"; }
};

}  // namespace webmail::dav
