// One Maildir (cur/ new/ tmp/): listing, lookup by id, the seen flag, moves and delivery. No symbolic link is
// followed: a folder, cur/ new/ tmp/ or a message file that is a link counts as missing.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "webmail/store/MaildirEntry.h"
#include "webmail/store/MessageFile.h"

namespace webmail::store {

class MaildirFolder {
public:
    // Longest id served; the gateway cuts the unique ids it derives from them well beyond this.
    static constexpr std::size_t kMaxIdLength = 40;

    // A folder rooted at dir (which holds cur/, new/ and tmp/).
    explicit MaildirFolder(std::filesystem::path dir);

    // Creates dir and its cur/, new/ and tmp/ if missing.
    static void Create(const std::filesystem::path& dir);
    // True when dir holds cur/, new/ and tmp/, none of them (nor dir) a link.
    static bool IsMaildir(const std::filesystem::path& dir);
    // A fresh unique file name ("seconds.MmicrosPpidQcount.host", the host cut to keep it at most
    // kMaxIdLength long), safe in XML and URL paths.
    static std::string UniqueName();
    // The id of a file whose name without ":2,FLAGS" is unique: that text itself when it is at most
    // kMaxIdLength long, otherwise its first 23 characters, "~" and 16 hex digits of a hash of the whole.
    // (A short name of that very shape is hashed too, so it cannot pose as another file's id.)
    static std::string IdOf(std::string_view unique);
    // True when a file name can serve as an id: printable ASCII only, no slash, not starting with a dot.
    static bool IsUsableName(std::string_view name);

    // The folder's root.
    const std::filesystem::path& Dir() const { return dir_; }

    // Moves every message of new/ into cur/ (keeping its id), then lists cur/ oldest first
    // (modification time, then id), each id once. Files whose names cannot serve as ids are left alone.
    std::vector<MaildirEntry> List() const;
    // The message with this id, looked up in cur/ and new/.
    std::optional<MaildirEntry> Find(std::string_view id) const;
    // The message with this id, opened for reading as MessageFile::Open opens it. The usual names are opened
    // straight away (no look before the open): for a folder Account::Folder gave out, which checked it is a
    // Maildir, a GET then costs one or two opens rather than a look at every subfolder and then at the file.
    std::optional<MessageFile> Open(std::string_view id) const;
    // The message with this id when it has one of its usual names and no symbolic link lies anywhere on its
    // path, by one or two opens and no look at the folder first; nullopt otherwise (then ask Open).
    std::optional<MessageFile> OpenUsualWithoutLinks(std::string_view id) const;
    // Sets or clears the S flag by renaming the file within cur/; false when the id is unknown.
    bool SetSeen(std::string_view id, bool seen) const;
    // Moves the message into dest's cur/ by one rename, keeping id and flags; false when the id is unknown
    // or dest already holds that id.
    bool MoveTo(std::string_view id, const MaildirFolder& dest) const;
    // Writes bytes to tmp/ then renames them into new/ (unseen) or cur/ with the given flags; returns the id.
    std::string Deliver(std::string_view bytes, bool intoNew, std::string_view flags = "") const;
    // The two halves of Deliver, for a delivery of several copies that must happen all or not at all.
    // WriteTemp writes and syncs bytes as tmp/ID and returns ID (nothing is left behind when it throws);
    // PlaceTemp renames tmp/ID into new/ or cur/ and returns the path it now has; DropTemp removes tmp/ID.
    std::string WriteTemp(std::string_view bytes) const;
    std::filesystem::path PlaceTemp(const std::string& id, bool intoNew, std::string_view flags = "") const;
    void DropTemp(const std::string& id) const noexcept;

private:
    std::optional<MessageFile> OpenUsual(std::string_view id, std::optional<MessageFile> (*open)(const char*)) const;
    std::filesystem::path dir_;
};

}  // namespace webmail::store
