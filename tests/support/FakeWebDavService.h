// A scripted WebDAV service on 127.0.0.1 for tests: records every request as it arrived and answers each from a
// queue of scripted replies, after Digest credentials when it demands them (checked as tarnwick-webmail checks
// them: a nonce serves any address until it expires, each use with a larger nc). And the scripts of the service
// client's log-in, folder and mailbox listing replies.
#pragma once

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "webmail/dav/DigestAuth.h"

namespace testing_support {

struct RecordedRequest {
    std::string method;
    std::string path;
    std::map<std::string, std::string> headers;  // names as the client wrote them
    std::string body;
};

struct ScriptedReply {
    std::string body = {};
    int status = 200;
    std::string davError = "200 No error";  // the "X-Dav-Error" header the service sends; empty: none
    bool breakOff = false;                  // promise more body than is sent, then drop the connection
};

class FakeWebDavService {
public:
    // Given a user, every request must carry that user's Digest credentials.
    explicit FakeWebDavService(std::string user = {}, std::string password = {})
        : user_(std::move(user)), password_(std::move(password)) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        daemon_ = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO, 0, nullptr, nullptr, &Dispatch,
                                   this, MHD_OPTION_SOCK_ADDR, &addr, MHD_OPTION_NOTIFY_COMPLETED, &Completed, nullptr,
                                   MHD_OPTION_END);
        if (!daemon_) throw std::runtime_error("fake service did not start");
        port_ = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
    }
    ~FakeWebDavService() { MHD_stop_daemon(daemon_); }
    FakeWebDavService(const FakeWebDavService&) = delete;
    FakeWebDavService& operator=(const FakeWebDavService&) = delete;

    std::string Url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

    // Queues the reply to the next request that passes authentication.
    void Enqueue(ScriptedReply reply) {
        std::lock_guard lock(mutex_);
        script_.push_back(std::move(reply));
    }
    // Drops the replies not yet given and the requests recorded so far.
    void ClearScript() {
        std::lock_guard lock(mutex_);
        script_.clear();
        requests_.clear();
    }
    // Every authenticated request so far, in arrival order.
    std::vector<RecordedRequest> Requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    // Digest: every nonce handed out so far expires; its next use is challenged with "stale=true".
    void ExpireNonces() {
        std::lock_guard lock(mutex_);
        clock_ += kNonceLifetime + 1;
    }
    // How many requests were answered with an authentication challenge.
    int Challenges() const {
        std::lock_guard lock(mutex_);
        return challenges_;
    }

private:
    static constexpr unsigned kNonceLifetime = 300;

    static MHD_Result Dispatch(void* cls, MHD_Connection* connection, const char* url, const char* method,
                               const char*, const char* uploadData, size_t* uploadSize, void** state) {
        auto* self = static_cast<FakeWebDavService*>(cls);
        if (*state == nullptr) {
            auto* request = new RecordedRequest{method, url, {}, {}};
            MHD_get_connection_values(connection, MHD_HEADER_KIND, &CollectHeader, request);
            *state = request;
            return MHD_YES;
        }
        auto* request = static_cast<RecordedRequest*>(*state);
        if (*uploadSize != 0) {
            request->body.append(uploadData, *uploadSize);
            *uploadSize = 0;
            return MHD_YES;
        }
        return self->Answer(connection, *request);
    }

    static MHD_Result CollectHeader(void* cls, MHD_ValueKind, const char* key, const char* value) {
        static_cast<RecordedRequest*>(cls)->headers.emplace(key, value ? value : "");
        return MHD_YES;
    }

    static void Completed(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
        delete static_cast<RecordedRequest*>(*state);
        *state = nullptr;
    }

    // A body that ends with an error after its last byte, so that the connection drops short of the promised length.
    static ssize_t BreakOffReader(void* cls, uint64_t pos, char* buf, size_t max) {
        const auto* body = static_cast<std::string*>(cls);
        if (pos >= body->size()) return MHD_CONTENT_READER_END_WITH_ERROR;
        return static_cast<ssize_t>(body->copy(buf, std::min<size_t>(max, body->size() - pos), pos));
    }

    static MHD_Result Queue(MHD_Connection* connection, int status, MHD_Response* response) {
        const MHD_Result queued = MHD_queue_response(connection, static_cast<unsigned>(status), response);
        MHD_destroy_response(response);
        return queued;
    }

    MHD_Result Answer(MHD_Connection* connection, const RecordedRequest& request) {
        std::unique_lock lock(mutex_);
        if (!user_.empty()) {
            const auto lookup = [this](const std::string& user) {
                return user == user_ ? std::optional<std::string>(password_) : std::nullopt;
            };
            const auto authorization = request.headers.find("Authorization");
            const auto outcome =
                digest_.Check(authorization == request.headers.end() ? "" : authorization->second, request.method,
                              request.path, lookup, clock_).outcome;
            if (outcome != webmail::dav::DigestAuth::Outcome::Accepted) {
                ++challenges_;
                MHD_Response* r = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
                const bool stale = outcome == webmail::dav::DigestAuth::Outcome::Stale;
                MHD_add_response_header(r, "WWW-Authenticate", digest_.Challenge(stale, clock_).c_str());
                return Queue(connection, 401, r);
            }
        }

        requests_.push_back(request);
        ScriptedReply reply{"unscripted request", 500, ""};
        if (!script_.empty()) {
            reply = std::move(script_.front());
            script_.pop_front();
        }
        lock.unlock();
        MHD_Response* response =
            reply.breakOff
                ? MHD_create_response_from_callback(reply.body.size() + 1000, 4096, &BreakOffReader,
                                                    new std::string(reply.body),
                                                    [](void* body) { delete static_cast<std::string*>(body); })
                : MHD_create_response_from_buffer(reply.body.size(), reply.body.data(), MHD_RESPMEM_MUST_COPY);
        if (!reply.davError.empty()) MHD_add_response_header(response, "X-Dav-Error", reply.davError.c_str());
        return Queue(connection, reply.status, response);
    }

    std::string user_;
    std::string password_;
    webmail::dav::DigestAuth digest_{"tarnwick-test", "opaque", kNonceLifetime, 64};
    std::int64_t clock_ = 1'000'000'000;  // the Digest check's time: ExpireNonces moves it on
    MHD_Daemon* daemon_ = nullptr;
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::deque<ScriptedReply> script_;
    std::vector<RecordedRequest> requests_;
    int challenges_ = 0;
};

inline constexpr const char* kEntryPath = "/svcs/hotmail/tarnwick.asp";

// Queues the replies of one log-in on `svc`: the entry's `addresses` (by default the seven of /ad, /contacts,
// /inbox, /outbox, /sent, /trash and /root) as its property list, under element names that mean nothing (only
// positions count), then a folder listing of one folder, the inbox. White space between the log-in reply's
// elements, as a real service indents.
inline void ScriptLogIn(FakeWebDavService& svc, std::vector<std::string> addresses = {}) {
    if (addresses.empty()) {
        for (const char* path : {"/ad", "/contacts", "/inbox", "/outbox", "/sent", "/trash", "/root"}) {
            addresses.push_back(svc.Url(path));
        }
    }
    std::string login =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<D:multistatus xmlns:D=\"DAV:\" xmlns:q=\"urn:q\">"
        "\r\n <D:response>\r\n  <D:href>" +
        svc.Url("/base") + "</D:href>\r\n  <D:propstat>\r\n   <D:prop>\r\n";
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        const std::string name = "q:p" + std::to_string(i);
        login.append("    <").append(name).append(">").append(addresses[i]).append("</").append(name).append(">\r\n");
    }
    svc.Enqueue({login + "   </D:prop>\r\n   <D:status>HTTP/1.1 200 OK</D:status>\r\n  </D:propstat>\r\n"
                         " </D:response>\r\n</D:multistatus>\r\n"});
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
inline void ScriptListing(FakeWebDavService& svc, const std::vector<ListedMessage>& messages) {
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

}  // namespace testing_support
