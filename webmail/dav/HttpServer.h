// The HTTP side of the service over libmicrohttpd: authentication, request bodies and their size limit,
// the X-Dav-Error header on every reply, and one log line per request.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "webmail/dav/DigestAuth.h"
#include "webmail/dav/Router.h"
#include "webmail/store/MaildirStore.h"

struct MHD_Daemon;
struct MHD_Connection;

namespace webmail::dav {

class HttpServer {
public:
    enum class AuthMode { Basic, Digest, Any };

    struct Options {
        std::string address = "127.0.0.1";  // IPv4 or IPv6 address to listen on ("::1", without brackets)
        std::uint16_t port = 8110;          // 0 picks a free port
        std::string domain = "tarnwick.local";
        AuthMode auth = AuthMode::Any;
        std::size_t maxBodySize =
            std::size_t{64} * 1024 * 1024;  // a 25 MB attachment, base64-encoded, and room to spare
        // PEM texts of the certificate chain and its key; both empty: plain HTTP.
        std::string tlsCertificate, tlsKey;
        // The reverse proxy whose X-Forwarded-For and X-Forwarded-Proto headers are believed; empty: none.
        std::string trustedProxy;
        // The Digest nonce key shared by every instance over the same store; empty: a random one.
        std::string nonceKey;
        // A connection on which nothing arrives or leaves for this long is closed, mid-request or between
        // requests.
        unsigned idleTimeoutSeconds = 60;
        // Connections served at once: in all (more wait until one ends) and from one client address (more are
        // closed at once).
        unsigned maxConnections = 256;
        unsigned maxConnectionsPerAddress = 64;
    };

    // Whether address (as given to Options) is a loopback address: 127.0.0.0/8 or ::1.
    static bool IsLoopback(const std::string& address);
    // The address in its usual text form (IPv4-mapped IPv6 as plain IPv4), or empty when it is not one.
    static std::string NormalAddress(const std::string& address);

    // Realm named in the authentication challenges.
    static constexpr const char* kRealm = "tarnwick-webmail";

    // A server for store; nothing listens until Start().
    HttpServer(store::MaildirStore& store, Options options);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Starts listening on worker threads; throws std::runtime_error when the address cannot be bound.
    void Start();
    // Stops listening and waits for the workers.
    void Stop();
    // The port actually bound (the chosen one when the options asked for 0).
    std::uint16_t Port() const { return boundPort_; }

private:
    friend struct ServerCallbacks;

    int Handle(MHD_Connection* connection, const char* url, const char* method, const char* uploadData,
               std::size_t* uploadSize, void** state);
    // The authenticated account, or empty when the credentials are missing or wrong.
    std::string Authenticate(MHD_Connection* connection, const char* method, const char* url, bool& staleNonce);
    int QueueChallenge(MHD_Connection* connection, bool staleNonce, const std::string& method, const std::string& url);
    int Queue(MHD_Connection* connection, DavReply reply, const std::string& method, const std::string& url,
              const std::string& user);
    std::string BaseUrl(MHD_Connection* connection, bool fromProxy) const;
    // The address the request came from: the proxy's X-Forwarded-For when the peer is the trusted proxy.
    std::string ClientAddress(MHD_Connection* connection, bool& fromProxy) const;
    void LogLine(const std::string& method, const std::string& url, unsigned status, std::uint64_t bytes,
                 const std::string& user);

    store::MaildirStore& store_;
    Options options_;
    Router router_;
    MHD_Daemon* daemon_ = nullptr;
    std::uint16_t boundPort_ = 0;
    DigestAuth digest_;
};

}  // namespace webmail::dav
