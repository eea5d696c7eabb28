// The router's reply to one request, independent of the HTTP server.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "webmail/store/MessageFile.h"

namespace webmail::dav {

struct DavReply {
    unsigned status = 200;
    std::string davError = "200 No error";  // the X-Dav-Error header, sent with every reply
    std::string contentType = "text/xml; charset=\"utf-8\"";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;  // further headers
    // A message served from its file in place of body: sent as it is when it has CR LF line ends only,
    // otherwise converted while it is sent; only a small one (up to 64 KB) is ever held whole.
    std::shared_ptr<store::MessageFile> file;

    // A reply for a refused request: status, X-Dav-Error "<status> <reason>" and the reason as plain text.
    static DavReply Failure(unsigned status, const std::string& reason) {
        DavReply reply;
        reply.status = status;
        reply.davError = std::to_string(status) + " " + reason;
        reply.contentType = "text/plain; charset=\"utf-8\"";
        reply.body = reply.davError + "\n";
        return reply;
    }
};

}  // namespace webmail::dav
