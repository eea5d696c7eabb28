#include "tests/support/FakeWebDavService.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace testing_support {
namespace {

constexpr const char* kRealm = "tarnwick-test";

struct Pending {
    RecordedRequest request;
};

MHD_Result CollectHeader(void* cls, MHD_ValueKind, const char* key, const char* value) {
    static_cast<RecordedRequest*>(cls)->headers.emplace_back(key, value ? value : "");
    return MHD_YES;
}

MHD_Result Dispatch(void* cls, MHD_Connection* connection, const char* url, const char* method, const char*,
                    const char* uploadData, size_t* uploadSize, void** state) {
    return static_cast<FakeWebDavService*>(cls)->Handle(connection, url, method, uploadData, uploadSize, state)
               ? MHD_YES
               : MHD_NO;
}

void Completed(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
    delete static_cast<Pending*>(*state);
    *state = nullptr;
}

struct BreakOff {
    std::string body;
};

ssize_t BreakOffReader(void* cls, uint64_t pos, char* buf, size_t max) {
    const auto* b = static_cast<BreakOff*>(cls);
    if (pos >= b->body.size()) return MHD_CONTENT_READER_END_WITH_ERROR;
    const size_t n = std::min<size_t>(max, b->body.size() - pos);
    b->body.copy(buf, n, pos);
    return static_cast<ssize_t>(n);
}

void FreeBreakOff(void* cls) { delete static_cast<BreakOff*>(cls); }

}  // namespace

std::optional<std::string> RecordedRequest::Header(const std::string& name) const {
    for (const auto& [n, v] : headers) {
        if (strcasecmp(n.c_str(), name.c_str()) == 0) return v;
    }
    return std::nullopt;
}

std::vector<std::string> RecordedRequest::ExtraHeaderNames() const {
    std::vector<std::string> names;
    for (const auto& [n, v] : headers) {
        bool common = false;
        for (const char* c : {"Host", "User-Agent", "Authorization", "Content-Length"}) {
            if (strcasecmp(n.c_str(), c) == 0) common = true;
        }
        if (!common) names.push_back(n);
    }
    return names;
}

ScriptedReply DavReply(std::string body, int status, std::string davError) {
    return ScriptedReply{status, {{"X-Dav-Error", std::move(davError)}}, std::move(body), false};
}

FakeWebDavService::FakeWebDavService(Auth auth, std::string user, std::string password)
    : auth_(auth), user_(user), password_(password), digest_(kRealm, std::move(user), std::move(password)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = 0;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    daemon_ =
        MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO, 0, nullptr, nullptr, &Dispatch, this,
                         MHD_OPTION_SOCK_ADDR, &addr, MHD_OPTION_NOTIFY_COMPLETED, &Completed, nullptr, MHD_OPTION_END);
    if (!daemon_) throw std::runtime_error("fake service did not start");
    port_ = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
}

FakeWebDavService::~FakeWebDavService() { MHD_stop_daemon(daemon_); }

std::string FakeWebDavService::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void FakeWebDavService::Enqueue(ScriptedReply reply) {
    std::lock_guard lock(mutex_);
    script_.push_back(std::move(reply));
}

void FakeWebDavService::ClearScript() {
    std::lock_guard lock(mutex_);
    script_.clear();
    requests_.clear();
}

std::vector<RecordedRequest> FakeWebDavService::Requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void FakeWebDavService::ExpireNonces() {
    std::lock_guard lock(mutex_);
    digest_.ExpireNonces();
}

int FakeWebDavService::Challenges() const {
    std::lock_guard lock(mutex_);
    return challenges_;
}

int FakeWebDavService::Handle(MHD_Connection* connection, const char* url, const char* method, const char* uploadData,
                              std::size_t* uploadSize, void** state) {
    if (*state == nullptr) {
        auto* pending = new Pending{};
        pending->request.method = method;
        pending->request.path = url;
        MHD_get_connection_values(connection, MHD_HEADER_KIND, &CollectHeader, &pending->request);
        *state = pending;
        return 1;
    }
    auto* pending = static_cast<Pending*>(*state);
    if (*uploadSize != 0) {
        pending->request.body.append(uploadData, *uploadSize);
        *uploadSize = 0;
        return 1;
    }

    if (auth_ == Auth::Basic) {
        char* pass = nullptr;
        char* user = MHD_basic_auth_get_username_password(connection, &pass);
        const bool ok = user && pass && user_ == user && password_ == pass;
        MHD_free(user);
        MHD_free(pass);
        if (!ok) {
            std::lock_guard lock(mutex_);
            ++challenges_;
            MHD_Response* r = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
            const MHD_Result q = MHD_queue_basic_auth_fail_response(connection, kRealm, r);
            MHD_destroy_response(r);
            return q == MHD_YES;
        }
    } else if (auth_ == Auth::Digest) {
        std::lock_guard lock(mutex_);
        const auto verdict = digest_.Check(pending->request.Header("Authorization").value_or(""),
                                           pending->request.method, pending->request.path);
        if (verdict != DigestGate::Verdict::Accepted) {
            ++challenges_;
            MHD_Response* r = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
            MHD_add_response_header(r, "WWW-Authenticate",
                                    digest_.Challenge(verdict == DigestGate::Verdict::Stale).c_str());
            const MHD_Result q = MHD_queue_response(connection, 401, r);
            MHD_destroy_response(r);
            return q == MHD_YES;
        }
    }

    ScriptedReply reply;
    {
        std::lock_guard lock(mutex_);
        requests_.push_back(pending->request);
        if (script_.empty()) {
            reply = ScriptedReply{500, {}, "unscripted request", false};
        } else {
            reply = std::move(script_.front());
            script_.pop_front();
        }
    }
    MHD_Response* response = nullptr;
    if (reply.breakOff) {
        auto* b = new BreakOff{reply.body};
        response = MHD_create_response_from_callback(reply.body.size() + 1000, 4096, &BreakOffReader, b, &FreeBreakOff);
    } else {
        response = MHD_create_response_from_buffer(reply.body.size(), reply.body.data(), MHD_RESPMEM_MUST_COPY);
    }
    for (const auto& [n, v] : reply.headers) MHD_add_response_header(response, n.c_str(), v.c_str());
    const MHD_Result q = MHD_queue_response(connection, static_cast<unsigned>(reply.status), response);
    MHD_destroy_response(response);
    return q == MHD_YES;
}

}  // namespace testing_support
