#include "webmail/dav/HttpServer.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <stdexcept>

#include "core/Ascii.h"
#include "webmail/dav/BasicCredentials.h"

namespace {

// Seconds a Digest nonce stays valid, and how many nonces have their last nc remembered at once.
constexpr unsigned kNonceTimeoutSeconds = 300;
constexpr unsigned kNonceSlots = 1024;
// The opaque value of the Digest challenge, echoed by clients.
constexpr const char* kOpaque = "tarnwick";
// Seconds an idle connection is kept.
constexpr unsigned kConnectionTimeoutSeconds = 60;
constexpr unsigned kWorkerThreads = 4;
// Bytes of a converted message handed to libmicrohttpd at a time.
constexpr std::size_t kServeBlock = 64 * 1024;

// Body collected for one request, kept across the calls libmicrohttpd makes while the body arrives.
struct Pending {
    std::string body;
    bool tooLarge = false;
};

std::optional<std::string> header(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

bool sameSecret(const std::string& a, const std::string& b) {
    // Compares every byte whatever the first difference, so timing tells nothing about the password.
    unsigned char diff = a.size() == b.size() ? 0 : 1;
    const std::size_t n = std::max(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const char x = i < a.size() ? a[i] : '\0';
        const char y = i < b.size() ? b[i] : '\0';
        diff |= static_cast<unsigned char>(x ^ y);
    }
    return diff == 0;
}

// Log text for something a client sent: printable ASCII only.
std::string printable(const std::string& text) {
    std::string out;
    for (char c : text.substr(0, 200)) out += (c > 0x20 && c < 0x7F) ? c : '?';
    return out.empty() ? "-" : out;
}

// Leaves request paths as sent: the router decodes each segment itself, so an encoded slash stays one.
size_t keepEscapes(void*, MHD_Connection*, char* uri) { return std::strlen(uri); }

// A message file with bare LF line ends on its way out: where the next read continues.
struct ConvertingReader {
    std::shared_ptr<const MessageFile> file;
    std::uint64_t offset = 0;
    bool lastCr = false;
};

// Serves a file whose line ends are all CR LF straight from its descriptor (libmicrohttpd may use sendfile).
MHD_Response* fileResponse(const MessageFile& file) {
    const int fd = ::dup(file.fd());
    if (fd < 0) return nullptr;
    MHD_Response* response = MHD_create_response_from_fd64(file.size(), fd);
    if (response == nullptr) ::close(fd);
    return response;
}

// Serves a file with bare LF line ends, converted piece by piece; servedSize is exact, so the reply carries
// a Content-Length as any other.
MHD_Response* convertingResponse(std::shared_ptr<const MessageFile> file, std::uint64_t servedSize) {
    auto* reader = new ConvertingReader{std::move(file)};
    MHD_Response* response = MHD_create_response_from_callback(
        servedSize, kServeBlock,
        [](void* cls, std::uint64_t, char* out, std::size_t max) -> ssize_t {
            auto* r = static_cast<ConvertingReader*>(cls);
            const long n = r->file->readServed(r->offset, r->lastCr, out, max);
            // A file that shrank or cannot be read ends the reply short; the client sees a broken transfer.
            return n > 0 ? n : MHD_CONTENT_READER_END_WITH_ERROR;
        },
        reader, [](void* cls) { delete static_cast<ConvertingReader*>(cls); });
    if (response == nullptr) delete reader;
    return response;
}

// The client's IPv4 address as text, or empty.
std::string clientAddress(MHD_Connection* connection) {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info == nullptr || info->client_addr == nullptr || info->client_addr->sa_family != AF_INET) return {};
    char text[INET_ADDRSTRLEN] = {};
    const auto* address = reinterpret_cast<const sockaddr_in*>(info->client_addr);
    return ::inet_ntop(AF_INET, &address->sin_addr, text, sizeof text) != nullptr ? text : "";
}

}  // namespace

struct ServerCallbacks {
    static MHD_Result onRequest(void* cls, MHD_Connection* connection, const char* url, const char* method, const char*,
                                const char* uploadData, size_t* uploadSize, void** state) {
        auto* server = static_cast<HttpServer*>(cls);
        try {
            return server->handle(connection, url, method, uploadData, uploadSize, state) ? MHD_YES : MHD_NO;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "request failed: %s\n", e.what());
            return MHD_NO;
        }
    }

    static void onCompleted(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
        delete static_cast<Pending*>(*state);
        *state = nullptr;
    }
};

HttpServer::HttpServer(MaildirStore& store, Options options)
    : store_(store),
      options_(std::move(options)),
      service_(store, options_.domain),
      digest_(kRealm, kOpaque, kNonceTimeoutSeconds, kNonceSlots) {}

HttpServer::~HttpServer() { stop(); }

void HttpServer::start() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(options_.port);
    if (::inet_pton(AF_INET, options_.address.c_str(), &address.sin_addr) != 1) {
        throw std::runtime_error("not an IPv4 address: " + options_.address);
    }
    daemon_ = MHD_start_daemon(
        MHD_USE_AUTO_INTERNAL_THREAD | MHD_USE_ERROR_LOG, 0, nullptr, nullptr, &ServerCallbacks::onRequest, this,
        MHD_OPTION_SOCK_ADDR, reinterpret_cast<sockaddr*>(&address), MHD_OPTION_THREAD_POOL_SIZE, kWorkerThreads,
        MHD_OPTION_CONNECTION_TIMEOUT, kConnectionTimeoutSeconds, MHD_OPTION_NOTIFY_COMPLETED,
        &ServerCallbacks::onCompleted, this, MHD_OPTION_UNESCAPE_CALLBACK, &keepEscapes, nullptr, MHD_OPTION_END);
    if (daemon_ == nullptr) {
        throw std::runtime_error("cannot listen on " + options_.address + ":" + std::to_string(options_.port));
    }
    const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
    boundPort_ = info != nullptr ? info->port : options_.port;
}

void HttpServer::stop() {
    if (daemon_ != nullptr) {
        MHD_stop_daemon(daemon_);
        daemon_ = nullptr;
    }
}

int HttpServer::handle(MHD_Connection* connection, const char* url, const char* method, const char* uploadData,
                          std::size_t* uploadSize, void** state) {
    if (*state == nullptr) {
        auto* pending = new Pending;
        *state = pending;
        const auto length = header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
        std::uint64_t declared = 0;
        if (length && std::from_chars(length->data(), length->data() + length->size(), declared).ec == std::errc() &&
            declared > options_.maxBodySize) {
            // Refused before the body is read; libmicrohttpd closes the connection after this reply.
            pending->tooLarge = true;
            return queue(connection, DavReply::failure(413, "Request body too large"), method, url, "-");
        }
        return MHD_YES;
    }
    auto* pending = static_cast<Pending*>(*state);
    if (*uploadSize != 0) {
        if (!pending->tooLarge && pending->body.size() + *uploadSize <= options_.maxBodySize) {
            pending->body.append(uploadData, *uploadSize);
        } else {
            pending->tooLarge = true;
            pending->body.clear();
        }
        *uploadSize = 0;
        return MHD_YES;
    }
    if (pending->tooLarge) return queue(connection, DavReply::failure(413, "Request body too large"), method, url, "-");

    bool staleNonce = false;
    const std::string user = authenticate(connection, method, url, staleNonce);
    if (user.empty()) return queueChallenge(connection, staleNonce, method, url);

    DavRequest request;
    request.method = method;
    request.path = url;
    request.user = user;
    request.baseUrl = baseUrl(connection);
    request.clientAddress = clientAddress(connection);
    request.body = std::move(pending->body);
    request.contentType = header(connection, MHD_HTTP_HEADER_CONTENT_TYPE);
    request.destination = header(connection, "Destination");
    request.propfindHeader = header(connection, "PROPFIND");
    return queue(connection, service_.handle(request), method, url, user);
}

std::string HttpServer::authenticate(MHD_Connection* connection, const char* method, const char* url,
                                        bool& staleNonce) {
    const std::string authorization = header(connection, MHD_HTTP_HEADER_AUTHORIZATION).value_or("");
    // Scheme names are case-insensitive (RFC 7235).
    const std::string_view scheme = BasicCredentials::scheme(authorization);
    const bool basic = core::Ascii::EqualsIgnoreCase(scheme, "Basic");
    const bool digest = core::Ascii::EqualsIgnoreCase(scheme, "Digest");
    if (basic && options_.auth != AuthMode::Digest) {
        auto credentials = BasicCredentials::parse(authorization);
        if (!credentials) return {};
        const auto expected = store_.password(credentials->name);
        const bool accepted = expected && sameSecret(*expected, credentials->password);
        std::fill(credentials->password.begin(), credentials->password.end(), '\0');
        return accepted ? credentials->name : std::string();
    }
    if (digest && options_.auth != AuthMode::Basic) {
        const auto result = digest_.check(
            authorization, method, url, [this](const std::string& name) { return store_.password(name); },
            std::time(nullptr));
        if (result.outcome == DigestAuth::Outcome::Accepted) return result.user;
        staleNonce = result.outcome == DigestAuth::Outcome::Stale;
    }
    return {};
}

int HttpServer::queueChallenge(MHD_Connection* connection, bool staleNonce, const std::string& method,
                                  const std::string& url) {
    const DavReply reply = DavReply::failure(401, "Authentication required");
    MHD_Response* response =
        MHD_create_response_from_buffer(reply.body.size(), const_cast<char*>(reply.body.data()), MHD_RESPMEM_MUST_COPY);
    if (response == nullptr) return MHD_NO;
    MHD_add_response_header(response, "X-Dav-Error", reply.davError.c_str());
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, reply.contentType.c_str());
    MHD_Result queued = MHD_NO;
    if (options_.auth == AuthMode::Basic) {
        queued = MHD_queue_basic_auth_fail_response(connection, kRealm, response);
    } else {
        if (options_.auth == AuthMode::Any) {
            MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE,
                                    (std::string("Basic realm=\"") + kRealm + "\"").c_str());
        }
        MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE,
                                digest_.challenge(staleNonce, std::time(nullptr)).c_str());
        queued = MHD_queue_response(connection, MHD_HTTP_UNAUTHORIZED, response);
    }
    MHD_destroy_response(response);
    logLine(method, url, 401, reply.body.size(), "-");
    return queued;
}

int HttpServer::queue(MHD_Connection* connection, DavReply reply, const std::string& method, const std::string& url,
                         const std::string& user) {
    std::uint64_t bytes = reply.body.size();
    MHD_Response* response = nullptr;
    if (reply.file) {
        const MessageFile::Facts facts = reply.file->facts();
        bytes = facts.servedSize;
        response = facts.bareLf ? convertingResponse(reply.file, bytes) : fileResponse(*reply.file);
    } else {
        // libmicrohttpd takes the text over and frees it when the reply has gone out: no copy.
        auto* body = new std::string(std::move(reply.body));
        response = MHD_create_response_from_buffer_with_free_callback_cls(
            body->size(), body->data(), [](void* text) { delete static_cast<std::string*>(text); }, body);
        if (response == nullptr) delete body;
    }
    if (response == nullptr) return MHD_NO;
    MHD_add_response_header(response, "X-Dav-Error", reply.davError.c_str());
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, reply.contentType.c_str());
    for (const auto& [name, value] : reply.headers) MHD_add_response_header(response, name.c_str(), value.c_str());
    const MHD_Result queued = MHD_queue_response(connection, reply.status, response);
    MHD_destroy_response(response);
    logLine(method, url, reply.status, bytes, user);
    return queued;
}

std::string HttpServer::baseUrl(MHD_Connection* connection) const {
    const std::string host = header(connection, MHD_HTTP_HEADER_HOST).value_or("");
    const bool usable = !host.empty() && host.size() < 256 &&
                        host.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-:[]") ==
                            std::string::npos;
    if (usable) return "http://" + host;
    return "http://" + options_.address + ":" + std::to_string(boundPort_);
}

void HttpServer::logLine(const std::string& method, const std::string& url, unsigned status, std::uint64_t bytes,
                            const std::string& user) {
    std::lock_guard lock(logMutex_);
    std::fprintf(stderr, "%s %s %u %s %s\n", printable(method).c_str(), printable(url).c_str(), status,
                 std::to_string(bytes).c_str(), printable(user).c_str());
    std::fflush(stderr);
}
