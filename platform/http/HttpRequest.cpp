#include "platform/http/HttpRequest.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

#include "core/Error.h"
#include "core/Trap.h"

namespace platform {
namespace {

CURL* Handle(void* p) { return static_cast<CURL*>(p); }

// Set once at start-up, before any request is made; read on the same thread.
HttpLimits& ProcessLimits() {
    static HttpLimits limits;
    return limits;
}

// libcurl must be initialised once per process before any handle is made.
void GlobalInit() {
    static const bool done = [] {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        return true;
    }();
    (void)done;
}

// What every request object of the process shares: the TLS sessions of its servers (a new connection to a
// server seen before resumes its session instead of a full handshake) and the name lookups. libcurl asks
// for a lock around each use; one mutex per kind of data.
CURLSH* SharedState() {
    static std::mutex locks[CURL_LOCK_DATA_LAST];
    static CURLSH* const share = [] {
        CURLSH* s = curl_share_init();
        if (s == nullptr) return s;
        curl_share_setopt(s, CURLSHOPT_LOCKFUNC, +[](CURL*, curl_lock_data data, curl_lock_access, void*) {
            locks[data].lock();
        });
        curl_share_setopt(s, CURLSHOPT_UNLOCKFUNC, +[](CURL*, curl_lock_data data, void*) { locks[data].unlock(); });
        curl_share_setopt(s, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
        curl_share_setopt(s, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        return s;
    }();
    return share;
}

// The CA file given by SetServiceCaFile; empty: the system's store.
std::string& ServiceCaFile() {
    static std::string path;
    return path;
}

[[noreturn]] void FailFor(CURLcode code) {
    switch (code) {
        case CURLE_URL_MALFORMAT:
            core::Raise(core::ErrorNumber::kHttpInvalidUrl);
        case CURLE_UNSUPPORTED_PROTOCOL:
            core::Raise(core::ErrorNumber::kHttpUnrecognizedScheme);
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            core::Raise(core::ErrorNumber::kHttpNameNotResolved);
        case CURLE_COULDNT_CONNECT:
            core::Raise(core::ErrorNumber::kHttpCannotConnect);
        case CURLE_OUT_OF_MEMORY:
            core::Raise(core::ErrorNumber::kOutOfMemory);
        case CURLE_OPERATION_TIMEDOUT:
            // Connecting took too long, or nothing moved in either direction for the idle limit.
            core::Raise(core::ErrorNumber::kHttpTimedOut);
        // Every failure of the secure connection is one error: libcurl does not say reliably which check of
        // the certificate failed (its issuer, its dates or its host name), and a precise wrong reason would
        // mislead more than a general right one.
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_ENGINE_INITFAILED:
            core::Raise(core::ErrorNumber::kHttpSecureFailure);
        default:
            // Everything else (nothing received, a reply cut short, a send or receive error) is a broken transfer.
            core::Raise(core::ErrorNumber::kHttpConnectionAborted);
    }
}

void Check(CURLcode code) {
    if (code != CURLE_OK) FailFor(code);
}

struct SlistDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Slist = std::unique_ptr<curl_slist, SlistDeleter>;

void Append(Slist& list, const std::string& line) {
    curl_slist* grown = curl_slist_append(list.get(), line.c_str());
    if (!grown) core::Raise(core::ErrorNumber::kOutOfMemory);
    (void)list.release();
    list.reset(grown);
}

bool HasHeader(const std::vector<std::pair<std::string, std::string>>& headers, const char* name) {
    for (const auto& [n, v] : headers) {
        if (curl_strequal(n.c_str(), name)) return true;
    }
    return false;
}

}  // namespace

void HttpRequest::SetLimits(const HttpLimits& limits) { ProcessLimits() = limits; }

HttpLimits HttpRequest::Limits() { return ProcessLimits(); }

HttpRequest::HttpRequest() {
    GlobalInit();
    curl_ = curl_easy_init();
    if (!curl_) core::Raise(core::ErrorNumber::kOutOfMemory);
    CURL* h = Handle(curl_);
    // Options that hold for every request of the object.
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    // Without this an "ftp:" or "file:" address would be fetched instead of failing as an unknown scheme.
    curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &HttpRequest::OnBody);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, this);
    // https: the certificate must chain to a trusted CA and name the host; never relaxed.
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!ServiceCaFile().empty()) curl_easy_setopt(h, CURLOPT_CAINFO, ServiceCaFile().c_str());
    // Without the shared state every request object starts with a full TLS handshake.
    if (CURLSH* share = SharedState()) curl_easy_setopt(h, CURLOPT_SHARE, share);
}

void HttpRequest::SetServiceCaFile(const std::string& path) { ServiceCaFile() = path; }

HttpRequest::~HttpRequest() {
    if (curl_) curl_easy_cleanup(Handle(curl_));
}

void HttpRequest::Open(const std::string& method, const std::string& url, bool async) {
    if (async) core::Raise(core::ErrorNumber::kInvalidProcedureCall);
    method_ = method;
    url_ = url;
    headers_.clear();
    body_.clear();
    responseText_.clear();
    sink_ = nullptr;
    haveReply_ = false;
}

void HttpRequest::SetUserAgent(const std::string& userAgent) {
    Check(curl_easy_setopt(Handle(curl_), CURLOPT_USERAGENT, userAgent.c_str()));
}

void HttpRequest::SetCredentials(const std::string& user, const std::string& password, bool forServer) {
    if (!forServer) core::Raise(core::ErrorNumber::kInvalidProcedureCall);
    CURL* h = Handle(curl_);
    Check(curl_easy_setopt(h, CURLOPT_USERNAME, user.c_str()));
    Check(curl_easy_setopt(h, CURLOPT_PASSWORD, password.c_str()));
    // Until the server has named its scheme, let libcurl answer whichever one the challenge names (Basic,
    // Digest, ...). With several schemes allowed libcurl sends a request without credentials first, so once a
    // challenge has named the scheme, later requests ask for that scheme alone (NarrowAuth).
    Check(curl_easy_setopt(h, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_ANY)));
    schemeOpen_ = true;
}

void HttpRequest::NarrowAuth() {
    if (!schemeOpen_) return;
    CURL* h = Handle(curl_);
    long offered = 0;
    if (curl_easy_getinfo(h, CURLINFO_HTTPAUTH_AVAIL, &offered) != CURLE_OK || offered == 0) return;
    // The scheme libcurl picked from the challenge: Digest when the server offers it, else Basic. Asked for
    // alone, Basic goes out with the very next request, and Digest answers with the server's last nonce and a
    // counting nc (a stale nonce costs one challenge, which libcurl answers by itself).
    long picked = 0;
    if (offered & CURLAUTH_DIGEST) {
        picked = CURLAUTH_DIGEST;
    } else if (offered & CURLAUTH_BASIC) {
        picked = CURLAUTH_BASIC;
    } else {
        return;
    }
    if (curl_easy_setopt(h, CURLOPT_HTTPAUTH, picked) == CURLE_OK) schemeOpen_ = false;
}

void HttpRequest::SetRequestHeader(const std::string& name, const std::string& value) {
    headers_.emplace_back(name, value);
}

void HttpRequest::Send() { Perform(nullptr); }

void HttpRequest::Send(const std::string& body) {
    body_ = body;
    Perform(&body_);
}

void HttpRequest::Send(const core::TextPiecesSource& body, std::uint64_t size) {
    upload_ = body;
    try {
        Perform(nullptr, size);
    } catch (...) {
        upload_ = nullptr;
        uploadReader_.reset();
        throw;
    }
    upload_ = nullptr;
    uploadReader_.reset();
}

void HttpRequest::Perform(const std::string* body, std::optional<std::uint64_t> uploadSize) {
    CURL* h = Handle(curl_);
    responseText_.clear();
    callbackError_ = nullptr;
    overLimit_ = false;
    sunkBytes_ = 0;
    haveReply_ = false;

    // Per-request options are reset one by one rather than with curl_easy_reset, which would also drop the
    // user agent and the credentials that the session sets once and relies on for every later request.
    // HTTPGET first: it clears any body and upload mode the previous request left on the handle.
    Check(curl_easy_setopt(h, CURLOPT_HTTPGET, 1L));
    Check(curl_easy_setopt(h, CURLOPT_URL, url_.c_str()));
    // libcurl waits for ever once connected. Fewer than one byte a second for the idle limit, sending or
    // receiving, ends the transfer; a slow reply that keeps arriving is never cut. Name resolution has no limit.
    const HttpLimits& limits = ProcessLimits();
    Check(curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, limits.connectSeconds));
    Check(curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L));
    Check(curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, limits.idleSeconds));
    if (body) {
        // POSTFIELDS with an explicit size: bytes go out unchanged, NULs and all, with a Content-Length.
        Check(curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size())));
        Check(curl_easy_setopt(h, CURLOPT_POSTFIELDS, body->data()));
    } else if (uploadSize) {
        // The same request with the body read as it goes: a POST of a known size, so a Content-Length again.
        uploadReader_ = upload_();
        uploadPiece_.clear();
        uploadOffset_ = 0;
        Check(curl_easy_setopt(h, CURLOPT_POST, 1L));
        Check(curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(*uploadSize)));
        Check(curl_easy_setopt(h, CURLOPT_READFUNCTION, &HttpRequest::OnUpload));
        Check(curl_easy_setopt(h, CURLOPT_READDATA, this));
        Check(curl_easy_setopt(h, CURLOPT_SEEKFUNCTION, &HttpRequest::OnUploadSeek));
        Check(curl_easy_setopt(h, CURLOPT_SEEKDATA, this));
    }
    const bool hasBody = body || uploadSize;
    // A custom method with no body stays body-less: libcurl sends neither body nor Content-Length for it.
    // libcurl's own method (GET without a body, POST with one) needs no override; any other is sent as named.
    const bool ownMethod = (method_ == "GET" && !hasBody) || (method_ == "POST" && hasBody);
    Check(curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, ownMethod ? nullptr : method_.c_str()));

    Slist list;
    for (const auto& [name, value] : headers_) {
        // libcurl drops "Name:" with nothing after it; "Name;" is its way of sending a header with an empty value.
        std::string line = name;
        line += value.empty() ? ";" : ": ";
        line += value;
        Append(list, line);
    }
    // Headers libcurl would add on its own; "Name:" with no value tells it to leave them out.
    Append(list, "Accept:");
    Append(list, "Expect:");
    if (hasBody && !HasHeader(headers_, "Content-Type")) {
        // A body given through POSTFIELDS would otherwise be labelled as a form.
        Append(list, "Content-Type:");
    }
    Check(curl_easy_setopt(h, CURLOPT_HTTPHEADER, list.get()));

    const CURLcode result = curl_easy_perform(h);
    // The list must outlive the transfer only; detach it so that the handle never points at freed memory.
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, nullptr);
    if (result != CURLE_OK) {
        // Release the memory, not just the length: an oversized reply must not stay held.
        std::string().swap(responseText_);
        if (overLimit_) core::Raise(core::ErrorNumber::kHttpReplyTooLarge);
        // The sink's own error (a full disk, say) says more than libcurl's "write error".
        if (callbackError_) std::rethrow_exception(std::exchange(callbackError_, nullptr));
        FailFor(result);
    }
    haveReply_ = true;
    NarrowAuth();
}

std::size_t HttpRequest::OnBody(char* data, std::size_t size, std::size_t count, void* self) {
    // Never let an exception cross libcurl: a failed append aborts the transfer instead.
    auto* request = static_cast<HttpRequest*>(self);
    try {
        const std::uint64_t maxBytes = ProcessLimits().maxReplyBytes;
        if (request->sink_) {
            // The same limit for a body that is handed on: a reply that never ends must not fill the disk.
            if (size * count > maxBytes - std::min<std::uint64_t>(maxBytes, request->sunkBytes_)) {
                request->overLimit_ = true;
                return 0;
            }
            request->sunkBytes_ += size * count;
            request->sink_(std::string_view(data, size * count));
            return size * count;
        }
        std::string& text = request->responseText_;
        if (size * count > maxBytes - std::min<std::uint64_t>(maxBytes, text.size())) {
            request->overLimit_ = true;
            return 0;  // libcurl ends the transfer
        }
        if (text.empty()) {
            // Room for the whole announced body at once: a message of many megabytes would otherwise grow
            // through a series of ever larger copies of itself. A body announced beyond the limit is refused
            // before any of it is kept.
            curl_off_t announced = -1;
            if (curl_easy_getinfo(Handle(request->curl_), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced) != CURLE_OK) {
                announced = -1;
            }
            if (announced > 0 && static_cast<std::uint64_t>(announced) > maxBytes) {
                request->overLimit_ = true;
                return 0;
            }
            if (announced > 0 && static_cast<std::uint64_t>(announced) <= text.max_size()) {
                // An announcement too large to reserve is no reason to fail: the body still grows as it comes.
                core::SkipOnError([&] { text.reserve(static_cast<std::size_t>(announced)); });
            }
        }
        text.append(data, size * count);
        return size * count;
    } catch (...) {
        request->callbackError_ = std::current_exception();
        return 0;
    }
}

std::size_t HttpRequest::OnUpload(char* buffer, std::size_t size, std::size_t count, void* self) {
    auto* request = static_cast<HttpRequest*>(self);
    // Never let an exception cross libcurl: a reader that fails aborts the transfer instead.
    try {
        while (request->uploadOffset_ == request->uploadPiece_.size()) {
            if (!request->uploadReader_->Next(request->uploadPiece_)) return 0;
            request->uploadOffset_ = 0;
        }
        const std::size_t n = std::min(size * count, request->uploadPiece_.size() - request->uploadOffset_);
        std::copy_n(request->uploadPiece_.data() + request->uploadOffset_, n, buffer);
        request->uploadOffset_ += n;
        return n;
    } catch (...) {
        request->callbackError_ = std::current_exception();
        return CURL_READFUNC_ABORT;
    }
}

static_assert(std::is_same_v<curl_off_t, std::int64_t>, "the seek callback's offset type");

int HttpRequest::OnUploadSeek(void* self, std::int64_t offset, int origin) {
    auto* request = static_cast<HttpRequest*>(self);
    // libcurl only ever goes back to the start (to send the body again after a challenge): a new reader.
    if (origin != SEEK_SET || offset != 0) return CURL_SEEKFUNC_CANTSEEK;
    try {
        request->uploadReader_ = request->upload_();
        request->uploadPiece_.clear();
        request->uploadOffset_ = 0;
        return CURL_SEEKFUNC_OK;
    } catch (...) {
        request->callbackError_ = std::current_exception();
        return CURL_SEEKFUNC_FAIL;
    }
}

std::string HttpRequest::GetAllResponseHeaders() const {
    std::string block;
    if (!haveReply_) return block;
    // Request -1: the final reply only, not a 401 challenge that libcurl answered on the way.
    curl_header* prev = nullptr;
    while (curl_header* hdr = curl_easy_nextheader(Handle(curl_), CURLH_HEADER, -1, prev)) {
        block.append(hdr->name).append(": ").append(hdr->value).append("\r\n");
        prev = hdr;
    }
    block.append("\r\n");
    return block;
}

std::string HttpRequest::GetResponseHeader(const std::string& name) const {
    curl_header* hdr = nullptr;
    if (!haveReply_ || curl_easy_header(Handle(curl_), name.c_str(), 0, CURLH_HEADER, -1, &hdr) != CURLHE_OK) {
        core::Raise(core::ErrorNumber::kHttpHeaderNotFound);
    }
    return hdr->value;
}

void HttpRequest::Abort() noexcept {
    headers_.clear();
    body_.clear();
    responseText_.clear();
    sink_ = nullptr;
    haveReply_ = false;
}

}  // namespace platform
