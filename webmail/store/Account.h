// One account's Maildir++ tree: INBOX at the root, every other folder a ".Name" folder beside it.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "webmail/store/MaildirFolder.h"

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
    static void create(const std::filesystem::path& root);

    // The account's name.
    const std::string& name() const { return name_; }
    // The account's root folder.
    const std::filesystem::path& root() const { return root_; }

    // Every folder present: INBOX, then the standard folders, then the others in name order.
    std::vector<std::string> folderNames() const;
    // The folder of this name, found among folderNames() only (never a path built from the name).
    std::optional<MaildirFolder> folder(std::string_view name) const;

private:
    std::string name_;
    std::filesystem::path root_;
};
