// One message file of a Maildir folder.
#pragma once

#include <filesystem>
#include <string>

namespace webmail::store {

struct MaildirEntry {
    std::string id;              // served id: MaildirFolder::IdOf(the file name without its ":2,FLAGS" part)
    std::filesystem::path path;  // where the file is now
    std::string flags;           // the letters after ":2,", sorted
    bool Seen() const { return flags.find('S') != std::string::npos; }
};

}  // namespace webmail::store
