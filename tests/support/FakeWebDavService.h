// A scripted WebDAV service on 127.0.0.1 for tests: records every request exactly as it arrived and answers
// each from a queue of scripted replies. Optionally demands Basic or Digest credentials first
// (Digest with nonces that serve any address, each use counted by nc).
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/DigestGate.h"
#include "tests/support/LoopbackPort.h"

struct MHD_Daemon;
struct MHD_Connection;

namespace testing_support {

using HeaderList = std::vector<std::pair<std::string, std::string>>;

struct RecordedRequest {
    std::string method;
    std::string path;
    HeaderList headers;  // in the order they arrived
    std::string body;

    // Value of the first header named `name` (any case), if there is one.
    std::optional<std::string> Header(const std::string& name) const;
    // The header names in order, without the ones every request carries (Host, User-Agent, Authorization,
    // Content-Length), to check that nothing else was added.
    std::vector<std::string> ExtraHeaderNames() const;
};

struct ScriptedReply {
    int status = 200;
    HeaderList headers;
    std::string body;
    bool breakOff = false;  // promise more body than is sent, then drop the connection
};

// A 200 reply carrying an "X-Dav-Error" header, as the service sends with every reply.
ScriptedReply DavReply(std::string body, int status = 200, std::string davError = "200 No error");

class FakeWebDavService {
public:
    enum class Auth { None, Basic, Digest };

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
    // Digest: every nonce handed out so far goes stale; its next use is challenged with "stale=true".
    void ExpireNonces();
    // How many requests were answered with an authentication challenge.
    int Challenges() const;

    // Internal: called from the daemon's thread.
    int Handle(MHD_Connection* connection, const char* url, const char* method, const char* uploadData,
               std::size_t* uploadSize, void** state);

private:
    Auth auth_;
    std::string user_;
    std::string password_;
    DigestGate digest_;
    MHD_Daemon* daemon_ = nullptr;
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_;
    std::deque<ScriptedReply> script_;
    std::vector<RecordedRequest> requests_;
    int challenges_ = 0;
};

}  // namespace testing_support
