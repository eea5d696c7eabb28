#include "webmail/dav/DigestAuth.h"

#include <nettle/md5.h>
#include <sys/random.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <stdexcept>

#include "core/Ascii.h"

namespace {

std::string hex(const unsigned char* bytes, std::size_t size) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < size; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0x0F];
    }
    return out;
}

std::string md5Hex(std::string_view text) {
    md5_ctx context;
    md5_init(&context);
    md5_update(&context, text.size(), reinterpret_cast<const std::uint8_t*>(text.data()));
    unsigned char digest[MD5_DIGEST_SIZE];
    md5_digest(&context, sizeof digest, digest);
    return hex(digest, sizeof digest);
}

// Compares every byte whatever the first difference, so timing tells nothing about the expected value.
bool sameText(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    unsigned char diff = 0;
    for (std::size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
    return diff == 0;
}

bool isHex(std::string_view text) {
    for (char c : text) {
        if (!core::Ascii::IsDigit(c) && !(c >= 'a' && c <= 'f') && !(c >= 'A' && c <= 'F')) return false;
    }
    return !text.empty();
}

std::optional<std::uint64_t> hexNumber(std::string_view text) {
    std::uint64_t value = 0;
    if (!isHex(text) || text.size() > 16) return std::nullopt;
    std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return value;
}

std::string hexNumber(std::uint64_t value) {
    char text[16];
    char* end = std::to_chars(text, text + sizeof text, value, 16).ptr;
    return std::string(16 - static_cast<std::size_t>(end - text), '0') + std::string(text, end);
}

bool isTokenChar(char c) {
    return core::Ascii::IsAlpha(c) || core::Ascii::IsDigit(c) ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

void skipBlanks(std::string_view text, std::size_t& at) {
    while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) ++at;
}

// The comma-separated name=value list after the scheme; names lower-cased; nullopt on a syntax error or a
// repeated name.
std::optional<std::map<std::string, std::string>> parameters(std::string_view text) {
    std::map<std::string, std::string> out;
    std::size_t at = 0;
    while (true) {
        skipBlanks(text, at);
        while (at < text.size() && text[at] == ',') {
            ++at;
            skipBlanks(text, at);
        }
        if (at == text.size()) return out;
        const std::size_t start = at;
        while (at < text.size() && isTokenChar(text[at])) ++at;
        std::string name = core::Ascii::LowerCase(std::string(text.substr(start, at - start)));
        skipBlanks(text, at);
        if (name.empty() || at == text.size() || text[at] != '=') return std::nullopt;
        ++at;
        skipBlanks(text, at);
        std::string value;
        if (at < text.size() && text[at] == '"') {
            for (++at;; ++at) {
                if (at == text.size()) return std::nullopt;
                if (text[at] == '"') break;
                if (text[at] == '\\' && ++at == text.size()) return std::nullopt;
                if (core::Ascii::IsControl(text[at])) return std::nullopt;
                value += text[at];
            }
            ++at;
        } else {
            const std::size_t valueStart = at;
            while (at < text.size() && isTokenChar(text[at])) ++at;
            value = text.substr(valueStart, at - valueStart);
            if (value.empty()) return std::nullopt;
        }
        if (!out.emplace(std::move(name), std::move(value)).second) return std::nullopt;
        skipBlanks(text, at);
        if (at < text.size() && text[at] != ',') return std::nullopt;
    }
}

}  // namespace

DigestAuth::DigestAuth(std::string realm, std::string opaque, unsigned lifetimeSeconds, std::size_t maxTracked)
    : realm_(std::move(realm)), opaque_(std::move(opaque)), lifetime_(lifetimeSeconds), maxTracked_(maxTracked) {
    unsigned char key[32];
    if (::getrandom(key, sizeof key, 0) != static_cast<ssize_t>(sizeof key)) {
        throw std::runtime_error("no random bytes for the Digest nonce key");
    }
    secret_ = hex(key, sizeof key);
}

std::string DigestAuth::nonceText(Nonce nonce) const {
    const std::string stamp = hexNumber(nonce.issued) + hexNumber(nonce.serial);
    return stamp + md5Hex(secret_ + ":" + stamp);
}

std::optional<DigestAuth::Nonce> DigestAuth::readNonce(std::string_view text) const {
    if (text.size() != 64) return std::nullopt;
    const auto issued = hexNumber(text.substr(0, 16));
    const auto serial = hexNumber(text.substr(16, 16));
    if (!issued || !serial || !sameText(nonceText({*issued, *serial}), text)) return std::nullopt;
    return Nonce{*issued, *serial};
}

std::string DigestAuth::challenge(bool stale, std::int64_t now) {
    std::uint64_t serial = 0;
    {
        std::lock_guard lock(mutex_);
        serial = nextSerial_++;
    }
    std::string text = "Digest realm=\"" + realm_ + "\", qop=\"auth\", algorithm=MD5, nonce=\"" +
                       nonceText({static_cast<std::uint64_t>(now), serial}) + "\", opaque=\"" + opaque_ + "\"";
    if (stale) text += ", stale=true";
    return text;
}

std::optional<DigestAuth::Credentials> DigestAuth::parse(std::string_view authorization) {
    while (!authorization.empty() && (authorization.front() == ' ' || authorization.front() == '\t')) {
        authorization.remove_prefix(1);
    }
    const std::size_t blank = authorization.find_first_of(" \t");
    if (blank == std::string_view::npos || !core::Ascii::EqualsIgnoreCase(authorization.substr(0, blank), "Digest")) {
        return std::nullopt;
    }
    auto fields = parameters(authorization.substr(blank));
    if (!fields) return std::nullopt;
    for (const char* required : {"username", "realm", "nonce", "uri", "response", "qop", "nc", "cnonce"}) {
        if (!fields->contains(required)) return std::nullopt;
    }
    auto& f = *fields;
    return Credentials{f["username"], f["realm"], f["nonce"],  f["uri"],    f["response"],
                       f["qop"],      f["nc"],    f["cnonce"], f["opaque"], f["algorithm"]};
}

std::string DigestAuth::expectedResponse(const Credentials& c, std::string_view method, std::string_view password) {
    const std::string ha1 = md5Hex(c.username + ":" + c.realm + ":" + std::string(password));
    const std::string ha2 = md5Hex(std::string(method) + ":" + c.uri);
    return md5Hex(ha1 + ":" + c.nonce + ":" + c.nc + ":" + c.cnonce + ":" + c.qop + ":" + ha2);
}

bool DigestAuth::advance(const std::string& nonce, std::uint32_t nc, std::int64_t now) {
    std::lock_guard lock(mutex_);
    auto found = lastNc_.find(nonce);
    if (found != lastNc_.end()) {
        if (nc <= found->second) return false;
        found->second = nc;
        return true;
    }
    if (lastNc_.size() >= maxTracked_) {
        // Expired nonces go first; when every one is still live, all are forgotten and declared stale, so a
        // forgotten nonce cannot be replayed from nc 1 again.
        std::erase_if(lastNc_, [&](const auto& entry) {
            const auto issued = hexNumber(std::string_view(entry.first).substr(0, 16));
            return static_cast<std::int64_t>(*issued) + lifetime_ < now;
        });
        if (lastNc_.size() >= maxTracked_) {
            lastNc_.clear();
            firstTracked_ = nextSerial_;
            return false;
        }
    }
    lastNc_.emplace(nonce, nc);
    return true;
}

DigestAuth::Result DigestAuth::check(std::string_view authorization, std::string_view method, std::string_view target,
                                     const PasswordLookup& password, std::int64_t now) {
    const auto credentials = parse(authorization);
    if (!credentials || credentials->realm != realm_ || credentials->uri != target ||
        !core::Ascii::EqualsIgnoreCase(credentials->qop, "auth") || credentials->nc.size() != 8 ||
        !isHex(credentials->nc) || (!credentials->opaque.empty() && credentials->opaque != opaque_) ||
        (!credentials->algorithm.empty() && !core::Ascii::EqualsIgnoreCase(credentials->algorithm, "MD5"))) {
        return {};
    }
    const auto nonce = readNonce(credentials->nonce);
    if (!nonce) return {};
    auto expected = password(credentials->username);
    if (!expected) return {};
    const bool right = sameText(expectedResponse(*credentials, method, *expected), credentials->response);
    std::fill(expected->begin(), expected->end(), '\0');
    if (!right) return {};
    const bool expired =
        static_cast<std::int64_t>(nonce->issued) > now || static_cast<std::int64_t>(nonce->issued) + lifetime_ < now;
    bool forgotten = false;
    {
        std::lock_guard lock(mutex_);
        forgotten = nonce->serial < firstTracked_;
    }
    if (expired || forgotten) return {Outcome::Stale, {}};
    if (!advance(credentials->nonce, static_cast<std::uint32_t>(*hexNumber(credentials->nc)), now)) {
        std::lock_guard lock(mutex_);
        return {nonce->serial < firstTracked_ ? Outcome::Stale : Outcome::Refused, {}};
    }
    return {Outcome::Accepted, credentials->username};
}
