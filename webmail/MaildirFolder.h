// One Maildir (cur/ new/ tmp/): listing, lookup by id, the seen flag, moves and delivery.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// One message file of a folder.
struct MaildirEntry {
    std::string id;              // unique name without the ":2,FLAGS" info part; stable in its folder
    std::filesystem::path path;  // where the file is now
    std::string flags;           // the letters after ":2,", sorted
    bool seen() const { return flags.find('S') != std::string::npos; }
};

class MaildirFolder {
public:
    // A folder rooted at dir (which holds cur/, new/ and tmp/).
    explicit MaildirFolder(std::filesystem::path dir);

    // Creates dir and its cur/, new/ and tmp/ if missing.
    static void create(const std::filesystem::path& dir);
    // True when dir holds cur/, new/ and tmp/.
    static bool isMaildir(const std::filesystem::path& dir);
    // A fresh unique file name ("seconds.MmicrosPpidQcount.host"), safe in XML and URL paths.
    static std::string uniqueName();
    // True when a file name can serve as an id: printable ASCII only, no slash, not starting with a dot.
    static bool isUsableName(std::string_view name);

    // The folder's root.
    const std::filesystem::path& dir() const { return dir_; }

    // Moves every message of new/ into cur/ (keeping its id), then lists cur/ oldest first
    // (modification time, then id). Files whose names cannot serve as ids are left alone.
    std::vector<MaildirEntry> list() const;
    // The message with this id, looked up in cur/ and new/.
    std::optional<MaildirEntry> find(std::string_view id) const;
    // Sets or clears the S flag by renaming the file within cur/; false when the id is unknown.
    bool setSeen(std::string_view id, bool seen) const;
    // Moves the message into dest's cur/ by one rename, keeping id and flags; false when the id is unknown
    // or dest already holds that id.
    bool moveTo(std::string_view id, const MaildirFolder& dest) const;
    // Writes bytes to tmp/ then renames them into new/ (unseen) or cur/ with the given flags; returns the id.
    std::string deliver(std::string_view bytes, bool intoNew, std::string_view flags = "") const;

private:
    std::filesystem::path dir_;
};
