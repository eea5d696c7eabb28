// One account's Maildir++ tree: INBOX at the root, every other folder a ".Name" folder beside it.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "webmail/store/MaildirFolder.h"

namespace webmail::store {

class Account {
public:
    // Folder names as the service shows them; the on-disk name of any folder but INBOX is "." + name.
    static constexpr const char* kInbox = "INBOX";
    static constexpr const char* kSentItems = "Sent Items";
    static constexpr const char* kDeletedItems = "Deleted Items";
    static constexpr const char* kOutbox = "Outbox";

    // The account called name, rooted at root.
    Account(std::string name, std::filesystem::path root);

    // Creates root as an INBOX with the three standard folders; existing parts are kept.
    static void Create(const std::filesystem::path& root);

    // The account's name.
    const std::string& Name() const { return name_; }
    // The account's root folder.
    const std::filesystem::path& Root() const { return root_; }

    // Every folder present: INBOX, then the standard folders, then the others in name order.
    std::vector<std::string> FolderNames() const;
    // The folder of this name, found among FolderNames() only (never a path built from the name).
    std::optional<MaildirFolder> Folder(std::string_view name) const;
    // An inbox message by one or two opens, without first looking at the folders: found only when it has one
    // of its usual names and no symbolic link lies anywhere on its path; otherwise nullopt, and Folder(kInbox)
    // with its Open goes the checked way.
    std::optional<MessageFile> OpenInboxMessage(std::string_view id) const;

private:
    std::string name_;
    std::filesystem::path root_;
};

}  // namespace webmail::store
