// Reply builders for the service client and server tests: the log-in, folder and mailbox listing replies.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/support/FakeWebDavService.h"

namespace hotmail_test {

inline constexpr const char* kEntryPath = "/svcs/hotmail/tarnwick.asp";

// A log-in reply: one entry with `base` as its address and `props` as its property list, under element names
// that mean nothing (only positions count). White space between elements, as a real service indents.
inline std::string LoginReply(const std::string& base, const std::vector<std::string>& props) {
    std::string s =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<D:multistatus xmlns:D=\"DAV:\" xmlns:q=\"urn:q\">"
        "\r\n <D:response>\r\n  <D:href>" +
        base + "</D:href>\r\n  <D:propstat>\r\n   <D:prop>\r\n";
    for (std::size_t i = 0; i < props.size(); ++i) {
        const std::string name = "q:p" + std::to_string(i);
        s.append("    <").append(name).append(">").append(props[i]).append("</").append(name).append(">\r\n");
    }
    s += "   </D:prop>\r\n   <D:status>HTTP/1.1 200 OK</D:status>\r\n  </D:propstat>\r\n </D:response>\r\n"
         "</D:multistatus>\r\n";
    return s;
}

// Queues the replies of one log-in on `svc`: the entry's `addresses` (by default the seven of /ad, /contacts,
// /inbox, /outbox, /sent, /trash and /root), then a folder listing of one folder, the inbox.
inline void ScriptLogIn(testing_support::FakeWebDavService& svc, std::vector<std::string> addresses = {}) {
    if (addresses.empty()) {
        for (const char* path : {"/ad", "/contacts", "/inbox", "/outbox", "/sent", "/trash", "/root"}) {
            addresses.push_back(svc.Url(path));
        }
    }
    svc.Enqueue({LoginReply(svc.Url("/base"), addresses)});
    svc.Enqueue({"<?xml version=\"1.0\"?><D:multistatus xmlns:D=\"DAV:\" xmlns:hm=\"urn:schemas:tarnwick:\">"
                 "<D:response><D:href>" + svc.Url("/inbox") + "</D:href><D:propstat><D:prop><D:isfolder>1</D:isfolder>"
                 "<D:displayname>Inbox</D:displayname><hm:special>x</hm:special><hm:unreadcount>0</hm:unreadcount>"
                 "</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response></D:multistatus>"});
}

// A message as the service lists it at <service>/inbox/<id>, with the text a GET of that address returns.
struct ListedMessage {
    std::string id;
    std::string body = {};
    std::optional<std::string> read = "0";
    std::string length = "100";
    std::optional<std::string> subject = "Subject";
    std::optional<std::string> date = "2002-05-14T10:21:13";
    std::optional<std::string> attachment = {};
};

// Queues a mailbox listing of `messages`, then the reply to each message's GET.
inline void ScriptListing(testing_support::FakeWebDavService& svc, const std::vector<ListedMessage>& messages) {
    std::string s =
        "<?xml version=\"1.0\"?>\n<D:multistatus xmlns:D=\"DAV:\" xmlns:hm=\"urn:schemas:tarnwick:\" "
        "xmlns:m=\"urn:schemas:mailheader:\" xmlns:h=\"http://schemas.tarnwick.invalid/hotmail/\">\n";
    for (const ListedMessage& m : messages) {
        s += " <D:response>\n  <D:href>" + svc.Url("/inbox/" + m.id) + "</D:href>\n  <D:propstat><D:prop>\n   <D:id>" +
             m.id + "</D:id>\n";
        if (m.subject) s += "   <m:subject>" + *m.subject + "</m:subject>\n";
        s += "   <m:to>to-" + m.id + "</m:to><m:from>from-" + m.id + "</m:from><h:fromaddr>" + m.id +
             "@example.invalid</h:fromaddr>\n";
        if (m.date) s += "   <m:date>" + *m.date + "</m:date>\n";
        s += "   <D:getcontentlength>" + m.length + "</D:getcontentlength>\n";
        if (m.read) s += "   <hm:read>" + *m.read + "</hm:read>\n";
        if (m.attachment) s += "   <hm:hasattachment>" + *m.attachment + "</hm:hasattachment>\n";
        s += "  </D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat>\n </D:response>\n";
    }
    svc.Enqueue({s + "</D:multistatus>\n"});
    for (const ListedMessage& m : messages) svc.Enqueue({m.body});
}

}  // namespace hotmail_test
