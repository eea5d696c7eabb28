// One authenticated request to the service as the router sees it, independent of the HTTP server.
#pragma once

#include <optional>
#include <string>

namespace webmail::dav {

struct DavRequest {
    std::string method;                         // HTTP method, as sent
    std::string path;                           // request path, still percent-encoded
    std::string user;                           // the authenticated account
    std::string clientAddress;                  // the client's IP address, as text (empty when unknown)
    std::string baseUrl;                        // "http://host:port" the client used to reach us
    std::string body;                           // request body
    std::optional<std::string> contentType;     // Content-Type header
    std::optional<std::string> destination;     // Destination header
    std::optional<std::string> propfindHeader;  // the log-in request's "PROPFIND" header
};

}  // namespace webmail::dav
