// One synchronous HTTP request object over a single libcurl handle: open a request, set headers, send, read
// the reply. Later requests reuse the handle, its connection, its user agent and its credentials. Failures
// raise core::Error with the numbers of the request layer (malformed address, unresolved host, ...).
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/ITextPieces.h"

namespace platform {

// How long a request may wait and how much of a reply it keeps; one setting for the whole process.
struct HttpLimits {
    // Connecting gives up after this many seconds.
    long connectSeconds = 60;
    // Sending or receiving gives up when no byte went out or came in for this many seconds: an idle limit,
    // never a limit on a whole transfer that keeps moving.
    long idleSeconds = 30;
    // A reply body beyond this many bytes ends the request; nothing of it is kept.
    std::uint64_t maxReplyBytes = std::uint64_t{1} << 30;
};

class HttpRequest {
public:
    // Takes the reply body piece by piece as it arrives, in place of ResponseText; an error it raises ends
    // the transfer and is raised again by Send.
    using BodySink = std::function<void(std::string_view piece)>;

    // The limits of every request object made from now on (and of later requests of existing ones).
    static void SetLimits(const HttpLimits& limits);
    static HttpLimits Limits();

    // A request object with no request open yet.
    HttpRequest();
    // Releases the handle and its connection; never throws.
    ~HttpRequest();
    HttpRequest(const HttpRequest&) = delete;
    HttpRequest& operator=(const HttpRequest&) = delete;

    // Starts a new request with `method` (any token: "PROPFIND", "BMOVE"...) to `url`, used exactly as given.
    // Only synchronous requests exist; `async` must be false. Headers and reply of the previous request go.
    void Open(const std::string& method, const std::string& url, bool async = false);
    // The user agent sent with this and every later request of the object.
    void SetUserAgent(const std::string& userAgent);
    // Credentials for this and every later request; Basic or Digest, whichever the server asks for.
    // `forServer` false would mean a proxy, which this gateway never uses.
    void SetCredentials(const std::string& user, const std::string& password, bool forServer = true);
    // Adds a request header, sent in the order added; an empty value still sends the header.
    void SetRequestHeader(const std::string& name, const std::string& value);
    // Hands the reply body of the next Send to `sink` instead of keeping it (ResponseText stays empty).
    // Open drops the sink.
    void SetResponseSink(BodySink sink) { sink_ = std::move(sink); }
    // Sends the request without a body and waits for the whole reply.
    void Send();
    // Sends the request with `body` (bytes unchanged) and waits for the whole reply.
    void Send(const std::string& body);
    // Sends the request with the `size` bytes that a reader from `body` gives (a text kept on disk), read a
    // piece at a time as they go out, and waits for the whole reply. `body` is asked for a new reader when
    // the body must go again from its start (an authentication challenge); a reader's error ends the
    // transfer and is raised again here.
    void Send(const core::TextPiecesSource& body, std::uint64_t size);
    // The reply body, bytes unchanged; empty before a reply has arrived.
    const std::string& ResponseText() const { return responseText_; }
    // Hands the reply body over without copying it; ResponseText is empty afterwards.
    std::string TakeResponseText() { return std::exchange(responseText_, {}); }
    // The reply's header lines as one text, each "Name: value" followed by CR LF, then an empty line.
    std::string GetAllResponseHeaders() const;
    // The value of reply header `name` (any case); raises kHttpHeaderNotFound when the reply has no such header.
    std::string GetResponseHeader(const std::string& name) const;
    // Drops the current request and its reply; reads then find nothing. Never throws.
    void Abort() noexcept;

    // A PEM file of CA certificates that every request object made afterwards trusts for https instead of the
    // system's store; empty: the system's store. Certificate and host name are always verified.
    static void SetServiceCaFile(const std::string& path);

private:
    // A body in memory (`body`), read from `upload_` (`uploadSize` bytes), or none.
    void Perform(const std::string* body, std::optional<std::uint64_t> uploadSize = std::nullopt);
    // After an exchange that carried a challenge: from now on ask for the scheme the server named, alone.
    void NarrowAuth();
    static std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t OnUpload(char* buffer, std::size_t size, std::size_t count, void* self);
    static int OnUploadSeek(void* self, std::int64_t offset, int origin);

    void* curl_ = nullptr;  // CURL*, kept opaque so that callers need no libcurl header
    std::string method_;
    std::string url_;
    std::vector<std::pair<std::string, std::string>> headers_;
    std::string body_;
    std::string responseText_;
    BodySink sink_;
    // The body being read for the current Send, with its current piece and the bytes of it handed over.
    core::TextPiecesSource upload_;
    core::TextPiecesPtr uploadReader_;
    std::string uploadPiece_;
    std::size_t uploadOffset_ = 0;
    // What the sink or the body's reader raised, kept across libcurl to be raised again after the transfer.
    std::exception_ptr callbackError_;
    // The reply body outgrew the limit: the transfer was stopped on purpose.
    bool overLimit_ = false;
    // Bytes of the reply body handed to the sink so far.
    std::uint64_t sunkBytes_ = 0;
    bool haveReply_ = false;
    // Credentials are set and any scheme is still allowed: the server has not yet named its own.
    bool schemeOpen_ = false;
};

}  // namespace platform
