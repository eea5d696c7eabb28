// The service's address scheme for one account, and its parsing.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
    std::string entry() const { return base + kEntryPath; }
    // Prefix of every address of the account.
    std::string account() const;
    // Folder root address.
    std::string folderRoot() const { return account() + "folders/"; }
    // Address of a folder.
    std::string folder(std::string_view name) const;
    // Address of a message in a folder.
    std::string message(std::string_view folderName, std::string_view id) const;
    // Send address.
    std::string sendMessage() const { return account() + "sendmsg"; }
    // Contacts address.
    std::string contacts() const { return account() + "contacts"; }
    // Ad bar address.
    std::string adbar() const { return account() + "adbar"; }
};

// What a request path addresses.
struct ServiceTarget {
    enum class Kind { Entry, FolderRoot, Folder, Message, SendMessage, Contacts, AdBar, Unknown };
    Kind kind = Kind::Unknown;
    std::string user;    // account named by the path (empty for the entry address)
    std::string folder;  // folder name, for Folder and Message
    std::string id;      // message id, for Message

    // Reads a raw request path; anything malformed or unknown gives Kind::Unknown.
    static ServiceTarget parse(std::string_view rawPath);
};
