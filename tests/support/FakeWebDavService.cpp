#include "tests/support/FakeWebDavService.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <strings.h>

#include <algorithm>
#include <stdexcept>

namespace testing_support {
namespace {

constexpr const char* kRealm = "tarnwick-test";
constexpr unsigned kNonceLifetime = 300;

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
    delete static_cast<RecordedRequest*>(*state);
    *state = nullptr;
}

// A body that ends with an error after its last byte, so that the connection drops short of the promised length.
ssize_t BreakOffReader(void* cls, uint64_t pos, char* buf, size_t max) {
    const auto* body = static_cast<std::string*>(cls);
    if (pos >= body->size()) return MHD_CONTENT_READER_END_WITH_ERROR;
    return static_cast<ssize_t>(body->copy(buf, std::min<size_t>(max, body->size() - pos), pos));
}

void FreeBreakOff(void* cls) { delete static_cast<std::string*>(cls); }

bool Queue(MHD_Connection* connection, int status, MHD_Response* response) {
    const MHD_Result queued = MHD_queue_response(connection, static_cast<unsigned>(status), response);
    MHD_destroy_response(response);
    return queued == MHD_YES;
}

}  // namespace

std::optional<std::string> RecordedRequest::Header(const std::string& name) const {
    for (const auto& [n, v] : headers) {
        if (strcasecmp(n.c_str(), name.c_str()) == 0) return v;
    }
    return std::nullopt;
}

ScriptedReply DavReply(std::string body, int status, std::string davError) {
    return ScriptedReply{status, {{"X-Dav-Error", std::move(davError)}}, std::move(body), false};
}

FakeWebDavService::FakeWebDavService(Auth auth, std::string user, std::string password)
    : auth_(auth), user_(std::move(user)), password_(std::move(password)),
      digest_(kRealm, "opaque", kNonceLifetime, 64) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
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
    clock_ += kNonceLifetime + 1;
}

int FakeWebDavService::Challenges() const {
    std::lock_guard lock(mutex_);
    return challenges_;
}

bool FakeWebDavService::Handle(MHD_Connection* connection, const char* url, const char* method,
                               const char* uploadData, std::size_t* uploadSize, void** state) {
    if (*state == nullptr) {
        auto* request = new RecordedRequest{method, url, {}, {}};
        MHD_get_connection_values(connection, MHD_HEADER_KIND, &CollectHeader, request);
        *state = request;
        return true;
    }
    auto* request = static_cast<RecordedRequest*>(*state);
    if (*uploadSize != 0) {
        request->body.append(uploadData, *uploadSize);
        *uploadSize = 0;
        return true;
    }

    std::unique_lock lock(mutex_);
    if (auth_ == Auth::Digest) {
        const auto lookup = [this](const std::string& user) {
            return user == user_ ? std::optional<std::string>(password_) : std::nullopt;
        };
        const auto outcome = digest_.Check(request->Header("Authorization").value_or(""), request->method,
                                           request->path, lookup, clock_).outcome;
        if (outcome != webmail::dav::DigestAuth::Outcome::Accepted) {
            ++challenges_;
            MHD_Response* r = MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT);
            const std::string challenge =
                digest_.Challenge(outcome == webmail::dav::DigestAuth::Outcome::Stale, clock_);
            MHD_add_response_header(r, "WWW-Authenticate", challenge.c_str());
            return Queue(connection, 401, r);
        }
    }

    requests_.push_back(*request);
    ScriptedReply reply{500, {}, "unscripted request", false};
    if (!script_.empty()) {
        reply = std::move(script_.front());
        script_.pop_front();
    }
    lock.unlock();
    MHD_Response* response =
        reply.breakOff ? MHD_create_response_from_callback(reply.body.size() + 1000, 4096, &BreakOffReader,
                                                           new std::string(reply.body), &FreeBreakOff)
                       : MHD_create_response_from_buffer(reply.body.size(), reply.body.data(), MHD_RESPMEM_MUST_COPY);
    for (const auto& [n, v] : reply.headers) MHD_add_response_header(response, n.c_str(), v.c_str());
    return Queue(connection, reply.status, response);
}

}  // namespace testing_support
