// Everything the service reads from a request besides its credentials: the address of its path and of its
// Destination header, the media type of its Content-Type, and its XML bodies (PROPFIND, PROPPATCH, BMOVE).
// XML elements are matched by local name; PROPFIND also checks the "DAV:" namespace of what it names.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "webmail/dav/ServiceTarget.h"

namespace webmail::dav {

class RequestParser {
public:
    // One property a PROPFIND body asks for.
    struct Property {
        std::string ns;     // namespace URI
        std::string local;  // local name
    };

    // Reads a raw request path; anything malformed or unknown gives Kind::Unknown.
    static ServiceTarget Target(std::string_view rawPath);
    // The target a Destination header names (an absolute address or a path, blanks around it ignored);
    // nullopt when the header is missing or blank.
    static std::optional<ServiceTarget> Destination(const std::optional<std::string>& header);
    // The media type of a Content-Type value, lower case, without parameters; empty when there is none.
    static std::string MediaType(const std::optional<std::string>& contentType);

    // The properties a PROPFIND body asks for, in the order asked. An empty body or <allprop/> gives
    // nullopt with no error; a body that is not a DAV:propfind document gives nullopt and sets error.
    static std::optional<std::vector<Property>> RequestedProperties(std::string_view body, std::string& error);
    // The read flag a PROPPATCH body sets: hm:read set to "1" or "0", or removed (false); the last one
    // counts. nullopt and error when the body is not a propertyupdate or names no valid hm:read.
    static std::optional<bool> ReadFlag(std::string_view body, std::string& error);
    // The message ids a BMOVE body's D:href elements name, in order; an href that is a full message address
    // names its last segment, and one that cannot be decoded gives an empty id. nullopt and error when the
    // body is not a move document.
    static std::optional<std::vector<std::string>> MovedIds(std::string_view body, std::string& error);
};

}  // namespace webmail::dav
