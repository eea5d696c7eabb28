#include "webmail/relay/SmtpRelay.h"

#include <curl/curl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "core/Ascii.h"

namespace webmail::relay {

namespace {

// libcurl's option to go on when some recipients are refused (spelt CURLOPT_MAIL_RCPT_ALLLOWFAILS before
// 8.2 and CURLOPT_MAIL_RCPT_ALLOWFAILS since; the number is the same).
constexpr auto kRcptAllowFails = static_cast<CURLoption>(CURLOPTTYPE_LONG + 290);

struct Upload {
    std::string_view rest;
};

size_t ReadText(char* buffer, size_t size, size_t count, void* user) {
    auto* upload = static_cast<Upload*>(user);
    const size_t n = std::min(size * count, upload->rest.size());
    std::memcpy(buffer, upload->rest.data(), n);
    upload->rest.remove_prefix(n);
    return n;
}

int Debug(CURL* /*handle*/, curl_infotype type, char* data, size_t size, void* user) {
    auto* exchange = static_cast<SmtpExchange*>(user);
    if (type == CURLINFO_HEADER_OUT) exchange->Sent(std::string_view(data, size));
    if (type == CURLINFO_HEADER_IN) exchange->Received(std::string_view(data, size));
    return 0;
}

// The scheme's length ("smtp://" or "smtps://"), or 0.
std::size_t SchemeLength(const std::string& url) {
    for (std::string_view scheme : {"smtp://", "smtps://"}) {
        if (url.size() > scheme.size() && core::Ascii::EqualsIgnoreCase(url.substr(0, scheme.size()), scheme)) {
            return scheme.size();
        }
    }
    return 0;
}

// "scheme://host:port" without any path.
std::string Authority(const std::string& url) {
    const std::size_t start = SchemeLength(url);
    const std::size_t slash = url.find('/', start);
    return slash == std::string::npos ? url : url.substr(0, slash);
}

}  // namespace

SmtpRelay::SmtpRelay(Options options) : options_(std::move(options)), curl_(curl_easy_init()) {
    if (curl_ == nullptr) throw std::runtime_error("libcurl could not start");
}

SmtpRelay::~SmtpRelay() { curl_easy_cleanup(static_cast<CURL*>(curl_)); }

bool SmtpRelay::IsRelayUrl(const std::string& url, std::string& error) {
    const std::size_t start = SchemeLength(url);
    if (start == 0) {
        error = "expected smtp://HOST:PORT or smtps://HOST:PORT";
        return false;
    }
    const std::string authority = Authority(url).substr(start);
    if (authority.empty() || authority.front() == ':' || authority.find('@') != std::string::npos) {
        error = "expected a host after the scheme, and no credentials (use --relay-auth FILE)";
        return false;
    }
    for (char c : url) {
        if (core::Ascii::IsControl(c) || c == ' ') {
            error = "blank or control character in the URL";
            return false;
        }
    }
    return true;
}

void SmtpRelay::ReadCredentials(const std::filesystem::path& file, std::string& user, std::string& password) {
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) throw std::runtime_error("--relay-auth: cannot read " + file.string());
    if ((info.st_mode & S_IRWXO) != 0) {
        throw std::runtime_error("--relay-auth: " + file.string() + " is readable by others (chmod o-rwx it)");
    }
    std::ifstream in(file, std::ios::binary);
    std::string line;
    if (!in || !std::getline(in, line)) throw std::runtime_error("--relay-auth: cannot read " + file.string());
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0) {
        throw std::runtime_error("--relay-auth: the first line of " + file.string() + " must be USER:PASSWORD");
    }
    user = line.substr(0, colon);
    password = line.substr(colon + 1);
}

std::string SmtpRelay::Host() const {
    std::string host = Authority(options_.url).substr(SchemeLength(options_.url));
    if (!host.empty() && host.front() == '[') return host.substr(1, host.find(']') - 1);
    return host.substr(0, host.rfind(':'));
}

SmtpRelay::Attempt SmtpRelay::Send(const std::string& sender, const std::vector<std::string>& recipients,
                                   std::string_view text) {
    CURL* curl = static_cast<CURL*>(curl_);
    curl_easy_reset(curl);  // keeps the connection
    SmtpExchange exchange;
    Upload upload{text};
    curl_slist* rcpt = nullptr;
    for (const std::string& r : recipients) {
        curl_slist* next = curl_slist_append(rcpt, ("<" + r + ">").c_str());
        if (next == nullptr) {
            curl_slist_free_all(rcpt);
            throw std::bad_alloc();
        }
        rcpt = next;
    }
    // The URL's path is the name libcurl gives in EHLO.
    const std::string url = Authority(options_.url) + "/" + options_.heloName;
    const std::string from = "<" + sender + ">";
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "smtp,smtps");
    curl_easy_setopt(curl, CURLOPT_PROXY, "");  // a mail server is reached directly, whatever the environment
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);  // a smarthost silent for 5 minutes is gone
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 300L);
    curl_easy_setopt(curl, CURLOPT_MAIL_FROM, from.c_str());
    curl_easy_setopt(curl, CURLOPT_MAIL_RCPT, rcpt);
    curl_easy_setopt(curl, kRcptAllowFails, 1L);
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, ReadText);
    curl_easy_setopt(curl, CURLOPT_READDATA, &upload);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(text.size()));
    // A password never crosses the network in the clear; without one, TLS is used when offered.
    const bool credentials = !options_.user.empty();
    curl_easy_setopt(curl, CURLOPT_USE_SSL, credentials ? CURLUSESSL_ALL : CURLUSESSL_TRY);
    if (credentials) {
        curl_easy_setopt(curl, CURLOPT_USERNAME, options_.user.c_str());
        curl_easy_setopt(curl, CURLOPT_PASSWORD, options_.password.c_str());
    }
    if (!options_.caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, options_.caFile.c_str());
    curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, Debug);
    curl_easy_setopt(curl, CURLOPT_DEBUGDATA, &exchange);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
    char errorText[CURL_ERROR_SIZE] = {};
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);

    const CURLcode code = curl_easy_perform(curl);
    std::string error;
    if (code != CURLE_OK) error = errorText[0] != '\0' ? errorText : curl_easy_strerror(code);
    // Nothing may point at this call's locals once it returns (closing the kept connection later says QUIT).
    curl_easy_reset(curl);
    curl_slist_free_all(rcpt);
    return {exchange.Judge(recipients, code == CURLE_OK, error), exchange.Transcript(), !exchange.Steps().empty()};
}

}  // namespace webmail::relay
