// A scripted WebDAV service on 127.0.0.1 for tests: records every request as it arrived and answers each from a
// queue of scripted replies, after Digest credentials when it demands them (checked as tarnwick-webmail checks
// them: a nonce serves any address until it expires, each use with a larger nc).
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "webmail/dav/DigestAuth.h"

struct MHD_Daemon;
struct MHD_Connection;

namespace testing_support {

struct RecordedRequest {
    std::string method;
    std::string path;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // Value of the first header named `name` (any case), if there is one.
    std::optional<std::string> Header(const std::string& name) const;
};

struct ScriptedReply {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    bool breakOff = false;  // promise more body than is sent, then drop the connection
};

// A reply carrying an "X-Dav-Error" header, as the service sends with every reply.
ScriptedReply DavReply(std::string body, int status = 200, std::string davError = "200 No error");

class FakeWebDavService {
public:
    enum class Auth { None, Digest };

    explicit FakeWebDavService(Auth auth = Auth::None, std::string user = {}, std::string password = {});
    ~FakeWebDavService();
    FakeWebDavService(const FakeWebDavService&) = delete;
    FakeWebDavService& operator=(const FakeWebDavService&) = delete;

    // "http://127.0.0.1:<port>" followed by `path`.
    std::string Url(const std::string& path) const;
    // Queues the reply to the next request that passes authentication.
    void Enqueue(ScriptedReply reply);
    // Drops the replies not yet given and the requests recorded so far.
    void ClearScript();
    // Every authenticated request so far, in arrival order.
    std::vector<RecordedRequest> Requests() const;
    // Digest: every nonce handed out so far expires; its next use is challenged with "stale=true".
    void ExpireNonces();
    // How many requests were answered with an authentication challenge.
    int Challenges() const;

    // Internal: called from the daemon's thread.
    bool Handle(MHD_Connection* connection, const char* url, const char* method, const char* uploadData,
                std::size_t* uploadSize, void** state);

private:
    Auth auth_;
    std::string user_;
    std::string password_;
    webmail::dav::DigestAuth digest_;
    std::int64_t clock_ = 1'000'000'000;  // the Digest check's time: ExpireNonces moves it on
    MHD_Daemon* daemon_ = nullptr;
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::deque<ScriptedReply> script_;
    std::vector<RecordedRequest> requests_;
    int challenges_ = 0;
};

}  // namespace testing_support
