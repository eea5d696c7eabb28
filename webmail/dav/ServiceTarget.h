// What a request path addresses (RequestParser::Target reads it).
#pragma once

#include <string>

namespace webmail::dav {

struct ServiceTarget {
    enum class Kind { Entry, FolderRoot, Folder, Message, SendMessage, Contacts, AdBar, Unknown };
    Kind kind = Kind::Unknown;
    std::string user;    // account named by the path (empty for the entry address)
    std::string folder;  // folder name, for Folder and Message
    std::string id;      // message id, for Message
};

}  // namespace webmail::dav
