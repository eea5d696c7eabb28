#include "webmail/dav/HttpServer.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <thread>

#include "core/Ascii.h"
#include "webmail/dav/BasicCredentials.h"
#include "webmail/text/Hex.h"

namespace webmail::dav {

namespace {

// Seconds a Digest nonce stays valid, and how many nonces have their last nc remembered at once.
constexpr unsigned kNonceTimeoutSeconds = 300;
constexpr unsigned kNonceSlots = 1024;
// The opaque value of the Digest challenge, echoed by clients.
constexpr const char* kOpaque = "tarnwick";
// Worker threads: one per processor, as an event-driven server wants (more only take turns on the same
// processors: in interleaved runs on 2 cores, 2 threads took 0-12 % less CPU time per GET than 4), but never
// fewer than 2, so that one slow request (a listing of a large folder) holds up only part of the connections.
unsigned WorkerThreads() {
    const unsigned processors = std::thread::hardware_concurrency();
    return std::clamp(processors == 0 ? 4U : processors, 2U, 16U);
}
// Messages up to this size are read whole and sent from memory; larger ones from their descriptor.
constexpr std::uint64_t kBufferedFileLimit = std::uint64_t{64} * 1024;
// Bytes of a converted message handed to libmicrohttpd at a time.
constexpr std::size_t kServeBlock = std::size_t{64} * 1024;

// Body collected for one request, kept across the calls libmicrohttpd makes while the body arrives.
struct Pending {
    std::string body;
    bool tooLarge = false;
};

std::optional<std::string> Header(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
}

// Log text for something a client sent: printable ASCII only.
std::string Printable(const std::string& text) {
    std::string out;
    for (char c : text.substr(0, 200)) out += (c > 0x20 && c < 0x7F) ? c : '?';
    return out.empty() ? "-" : out;
}

// Leaves request paths as sent: the router decodes each segment itself, so an encoded slash stays one.
size_t KeepEscapes(void*, MHD_Connection*, char* uri) { return std::strlen(uri); }

// A message file on its way out in pieces; for one with bare LF line ends, where the next read continues.
struct ConvertingReader {
    std::shared_ptr<const store::MessageFile> file;
    std::uint64_t offset = 0;
    bool lastCr = false;
};

// Serves a file whose line ends are all CR LF straight from its descriptor (libmicrohttpd may use sendfile).
// The descriptor is handed over: libmicrohttpd closes it when the reply is done with it.
MHD_Response* FileResponse(store::MessageFile& file) {
    const std::uint64_t size = file.Size();
    const int fd = file.Release();
    MHD_Response* response = MHD_create_response_from_fd64(size, fd);
    if (response == nullptr) ::close(fd);
    return response;
}

// A small file read whole into memory: libmicrohttpd then sends the header and the body with one call, where a
// reply from the descriptor takes two sends (two TCP pushes) however small the file. A file that changed size
// since it was opened gets no reply (the connection is closed) rather than a short one.
MHD_Response* BufferedResponse(const store::MessageFile& file) {
    const auto size = static_cast<std::size_t>(file.Size());
    // Left uninitialised: the read fills every byte of it.
    std::unique_ptr<char[]> text(new char[std::max<std::size_t>(size, 1)]);
    if (file.ReadRaw(0, text.get(), size) != static_cast<long>(size)) return nullptr;
    MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
        size, text.get(), [](void* body) { delete[] static_cast<char*>(body); }, text.get());
    if (response != nullptr) (void)text.release();
    return response;
}

// Over TLS libmicrohttpd cannot send from the descriptor and reads a file response 4 KB at a time, each piece
// its own TLS record and send. Read here instead, in pieces as large as the connection's buffer takes.
MHD_Response* ReadingResponse(std::shared_ptr<const store::MessageFile> file) {
    auto* reader = new ConvertingReader{std::move(file)};
    MHD_Response* response = MHD_create_response_from_callback(
        reader->file->Size(), kServeBlock,
        [](void* cls, std::uint64_t position, char* out, std::size_t max) -> ssize_t {
            const auto* r = static_cast<ConvertingReader*>(cls);
            const long n = r->file->ReadRaw(position, out, max);
            return n > 0 ? n : MHD_CONTENT_READER_END_WITH_ERROR;
        },
        reader, [](void* cls) { delete static_cast<ConvertingReader*>(cls); });
    if (response == nullptr) delete reader;
    return response;
}

// Serves a file with bare LF line ends, converted piece by piece; servedSize is exact, so the reply carries
// a Content-Length as any other.
MHD_Response* ConvertingResponse(std::shared_ptr<const store::MessageFile> file, std::uint64_t servedSize) {
    auto* reader = new ConvertingReader{std::move(file)};
    MHD_Response* response = MHD_create_response_from_callback(
        servedSize, kServeBlock,
        [](void* cls, std::uint64_t, char* out, std::size_t max) -> ssize_t {
            auto* r = static_cast<ConvertingReader*>(cls);
            const long n = r->file->ReadServed(r->offset, r->lastCr, out, max);
            // A file that shrank or cannot be read ends the reply short; the client sees a broken transfer.
            return n > 0 ? n : MHD_CONTENT_READER_END_WITH_ERROR;
        },
        reader, [](void* cls) { delete static_cast<ConvertingReader*>(cls); });
    if (response == nullptr) delete reader;
    return response;
}

// The address of a socket peer as text (an IPv4-mapped IPv6 address as plain IPv4), or empty.
std::string AddressText(const sockaddr* address) {
    char text[INET6_ADDRSTRLEN] = {};
    if (address == nullptr) return {};
    if (address->sa_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
        return ::inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text) != nullptr ? text : "";
    }
    if (address->sa_family != AF_INET6) return {};
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
    if (IN6_IS_ADDR_V4MAPPED(&v6->sin6_addr)) {
        return ::inet_ntop(AF_INET, &v6->sin6_addr.s6_addr[12], text, sizeof text) != nullptr ? text : "";
    }
    return ::inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text) != nullptr ? text : "";
}

// The last entry of an X-Forwarded-For list: the one the proxy itself added (earlier ones come from the client
// and prove nothing).
std::string LastForwardedFor(const std::string& header) {
    const std::size_t comma = header.rfind(',');
    std::string last = comma == std::string::npos ? header : header.substr(comma + 1);
    const std::size_t first = last.find_first_not_of(" \t");
    const std::size_t end = last.find_last_not_of(" \t");
    return first == std::string::npos ? std::string() : last.substr(first, end - first + 1);
}

// GnuTLS priorities: the usual cipher suites, TLS 1.2 and 1.3 only.
constexpr const char* kTlsPriorities = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

}  // namespace

struct ServerCallbacks {
    static MHD_Result OnRequest(void* cls, MHD_Connection* connection, const char* url, const char* method, const char*,
                                const char* uploadData, size_t* uploadSize, void** state) {
        auto* server = static_cast<HttpServer*>(cls);
        try {
            return server->Handle(connection, url, method, uploadData, uploadSize, state) ? MHD_YES : MHD_NO;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "request failed: %s\n", e.what());
            return MHD_NO;
        }
    }

    static void OnCompleted(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode) {
        delete static_cast<Pending*>(*state);
        *state = nullptr;
    }
};

HttpServer::HttpServer(store::MaildirStore& store, Options options)
    : store_(store),
      options_(std::move(options)),
      router_(store, options_.domain),
      digest_(kRealm, kOpaque, kNonceTimeoutSeconds, kNonceSlots, options_.nonceKey) {
    if (!options_.trustedProxy.empty()) options_.trustedProxy = NormalAddress(options_.trustedProxy);
}

HttpServer::~HttpServer() { Stop(); }

bool HttpServer::IsLoopback(const std::string& address) {
    const std::string normal = NormalAddress(address);
    return normal == "::1" || normal.starts_with("127.");
}

std::string HttpServer::NormalAddress(const std::string& address) {
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    if (::inet_pton(AF_INET, address.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        return AddressText(reinterpret_cast<const sockaddr*>(&v4));
    }
    if (::inet_pton(AF_INET6, address.c_str(), &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        return AddressText(reinterpret_cast<const sockaddr*>(&v6));
    }
    return {};
}

void HttpServer::Start() {
    sockaddr_storage storage{};
    auto* v4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    unsigned flags = MHD_USE_AUTO_INTERNAL_THREAD | MHD_USE_ERROR_LOG | MHD_USE_TURBO;
    if (::inet_pton(AF_INET, options_.address.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(options_.port);
    } else if (::inet_pton(AF_INET6, options_.address.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(options_.port);
        // "::" takes IPv4 clients too; any other IPv6 address only its own family.
        flags |= IN6_IS_ADDR_UNSPECIFIED(&v6->sin6_addr) ? MHD_USE_DUAL_STACK : MHD_USE_IPv6;
    } else {
        throw std::runtime_error("not an IPv4 or IPv6 address: " + options_.address);
    }
    const bool tls = !options_.tlsCertificate.empty();
    if (tls) {
        if (MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
            throw std::runtime_error("this libmicrohttpd was built without TLS");
        }
        flags |= MHD_USE_TLS;
    }
    const unsigned workers = WorkerThreads();
    // The TLS options come last so that plain HTTP ends the list before them.
    daemon_ = MHD_start_daemon(
        flags, 0, nullptr, nullptr, &ServerCallbacks::OnRequest, this, MHD_OPTION_SOCK_ADDR,
        reinterpret_cast<sockaddr*>(&storage), MHD_OPTION_THREAD_POOL_SIZE, workers,
        MHD_OPTION_CONNECTION_TIMEOUT, options_.idleTimeoutSeconds, MHD_OPTION_CONNECTION_LIMIT,
        std::max(options_.maxConnections, workers), MHD_OPTION_PER_IP_CONNECTION_LIMIT,
        options_.maxConnectionsPerAddress, MHD_OPTION_NOTIFY_COMPLETED, &ServerCallbacks::OnCompleted, this,
        MHD_OPTION_UNESCAPE_CALLBACK, &KeepEscapes, nullptr, tls ? MHD_OPTION_HTTPS_MEM_CERT : MHD_OPTION_END,
        options_.tlsCertificate.c_str(), MHD_OPTION_HTTPS_MEM_KEY, options_.tlsKey.c_str(),
        MHD_OPTION_HTTPS_PRIORITIES, kTlsPriorities, MHD_OPTION_END);
    if (daemon_ == nullptr) {
        throw std::runtime_error("cannot listen on " + options_.address + ":" + std::to_string(options_.port) +
                                 (tls ? " (or the certificate and key do not fit together)" : ""));
    }
    const MHD_DaemonInfo* info = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT);
    boundPort_ = info != nullptr ? info->port : options_.port;
}

void HttpServer::Stop() {
    if (daemon_ != nullptr) {
        MHD_stop_daemon(daemon_);
        daemon_ = nullptr;
    }
}

int HttpServer::Handle(MHD_Connection* connection, const char* url, const char* method, const char* uploadData,
                       std::size_t* uploadSize, void** state) {
    if (*state == nullptr) {
        auto* pending = new Pending;
        *state = pending;
        const auto length = Header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
        std::uint64_t declared = 0;
        if (length && std::from_chars(length->data(), length->data() + length->size(), declared).ec == std::errc() &&
            declared > options_.maxBodySize) {
            // Refused before the body is read; libmicrohttpd closes the connection after this reply.
            pending->tooLarge = true;
            return Queue(connection, DavReply::Failure(413, "Request body too large"), method, url, "-");
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
    if (pending->tooLarge) return Queue(connection, DavReply::Failure(413, "Request body too large"), method, url, "-");

    bool staleNonce = false;
    const std::string user = Authenticate(connection, method, url, staleNonce);
    if (user.empty()) return QueueChallenge(connection, staleNonce, method, url);

    DavRequest request;
    request.method = method;
    request.path = url;
    request.user = user;
    bool fromProxy = false;
    request.clientAddress = ClientAddress(connection, fromProxy);
    request.baseUrl = BaseUrl(connection, fromProxy);
    request.body = std::move(pending->body);
    request.contentType = Header(connection, MHD_HTTP_HEADER_CONTENT_TYPE);
    request.destination = Header(connection, "Destination");
    request.propfindHeader = Header(connection, "PROPFIND");
    return Queue(connection, router_.Handle(request), method, url, user);
}

std::string HttpServer::Authenticate(MHD_Connection* connection, const char* method, const char* url,
                                     bool& staleNonce) {
    const std::string authorization = Header(connection, MHD_HTTP_HEADER_AUTHORIZATION).value_or("");
    // Scheme names are case-insensitive (RFC 7235).
    const std::string_view scheme = BasicCredentials::Scheme(authorization);
    const bool basic = core::Ascii::EqualsIgnoreCase(scheme, "Basic");
    const bool digest = core::Ascii::EqualsIgnoreCase(scheme, "Digest");
    if (basic && options_.auth != AuthMode::Digest) {
        auto credentials = BasicCredentials::Parse(authorization);
        if (!credentials) return {};
        const auto expected = store_.Password(credentials->name);
        const bool accepted = expected && text::SameSecret(*expected, credentials->password);
        std::fill(credentials->password.begin(), credentials->password.end(), '\0');
        return accepted ? credentials->name : std::string();
    }
    if (digest && options_.auth != AuthMode::Basic) {
        const auto result = digest_.Check(
            authorization, method, url, [this](const std::string& name) { return store_.Password(name); },
            std::time(nullptr));
        if (result.outcome == DigestAuth::Outcome::Accepted) return result.user;
        staleNonce = result.outcome == DigestAuth::Outcome::Stale;
    }
    return {};
}

int HttpServer::QueueChallenge(MHD_Connection* connection, bool staleNonce, const std::string& method,
                               const std::string& url) {
    const DavReply reply = DavReply::Failure(401, "Authentication required");
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
                                digest_.Challenge(staleNonce, std::time(nullptr)).c_str());
        queued = MHD_queue_response(connection, MHD_HTTP_UNAUTHORIZED, response);
    }
    MHD_destroy_response(response);
    LogLine(method, url, 401, reply.body.size(), "-");
    return queued;
}

int HttpServer::Queue(MHD_Connection* connection, DavReply reply, const std::string& method, const std::string& url,
                      const std::string& user) {
    std::uint64_t bytes = reply.body.size();
    MHD_Response* response = nullptr;
    if (reply.file) {
        const store::MessageFile::Facts facts = reply.file->ReadFacts();
        bytes = facts.servedSize;
        if (facts.bareLf) {
            response = ConvertingResponse(reply.file, bytes);
        } else if (reply.file->Size() <= kBufferedFileLimit) {
            response = BufferedResponse(*reply.file);
        } else if (options_.tlsCertificate.empty()) {
            response = FileResponse(*reply.file);
        } else {
            response = ReadingResponse(reply.file);
        }
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
    LogLine(method, url, reply.status, bytes, user);
    return queued;
}

std::string HttpServer::ClientAddress(MHD_Connection* connection, bool& fromProxy) const {
    const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    std::string peer = info != nullptr ? AddressText(info->client_addr) : std::string();
    fromProxy = !options_.trustedProxy.empty() && !peer.empty() && peer == options_.trustedProxy;
    if (!fromProxy) return peer;
    const std::string forwarded =
        NormalAddress(LastForwardedFor(Header(connection, "X-Forwarded-For").value_or("")));
    return forwarded.empty() ? peer : forwarded;
}

std::string HttpServer::BaseUrl(MHD_Connection* connection, bool fromProxy) const {
    // Behind the trusted proxy the scheme is the one its client used; otherwise our own.
    const bool https = fromProxy ? Header(connection, "X-Forwarded-Proto").value_or("") == "https"
                                 : !options_.tlsCertificate.empty();
    const std::string scheme = https ? "https://" : "http://";
    const std::string host = Header(connection, MHD_HTTP_HEADER_HOST).value_or("");
    const bool usable = !host.empty() && host.size() < 256 &&
                        host.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-:[]") ==
                            std::string::npos;
    if (usable) return scheme + host;
    const bool v6 = options_.address.find(':') != std::string::npos;
    return scheme + (v6 ? "[" + options_.address + "]" : options_.address) + ":" + std::to_string(boundPort_);
}

void HttpServer::LogLine(const std::string& method, const std::string& url, unsigned status, std::uint64_t bytes,
                         const std::string& user) {
    // One write of the whole line and no lock: the kernel keeps the lines of concurrent writes to one file or
    // pipe whole, where a lock would make every worker wait for the others' writes.
    const std::string line = Printable(method) + " " + Printable(url) + " " + std::to_string(status) + " " +
                             std::to_string(bytes) + " " + Printable(user) + "\n";
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t n = ::write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // a log that cannot be written must not stop the service
        done += static_cast<std::size_t>(n);
    }
}

}  // namespace webmail::dav
