#include "webmail/dav/DigestAuth.h"

#include <nettle/md5.h>
#include <sys/random.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <stdexcept>

#include "core/Ascii.h"
#include "webmail/text/Hex.h"

namespace webmail::dav {

namespace {

std::string Hex(const unsigned char* bytes, std::size_t size) {
    std::string out;
    for (std::size_t i = 0; i < size; ++i) text::AppendHex(out, bytes[i], false);
    return out;
}

std::string Md5Hex(std::string_view text) {
    md5_ctx context;
    md5_init(&context);
    md5_update(&context, text.size(), reinterpret_cast<const std::uint8_t*>(text.data()));
    unsigned char digest[MD5_DIGEST_SIZE];
    md5_digest(&context, sizeof digest, digest);
    return Hex(digest, sizeof digest);
}

bool IsHex(std::string_view digits) {
    for (char c : digits) {
        if (text::HexValue(c) < 0) return false;
    }
    return !digits.empty();
}

std::optional<std::uint64_t> HexNumber(std::string_view text) {
    std::uint64_t value = 0;
    if (!IsHex(text) || text.size() > 16) return std::nullopt;
    std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return value;
}

std::string HexNumber(std::uint64_t value) {
    char text[16];
    char* end = std::to_chars(text, text + sizeof text, value, 16).ptr;
    return std::string(16 - static_cast<std::size_t>(end - text), '0') + std::string(text, end);
}

bool IsTokenChar(char c) {
    return core::Ascii::IsAlpha(c) || core::Ascii::IsDigit(c) ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

void SkipBlanks(std::string_view text, std::size_t& at) {
    while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) ++at;
}

// The comma-separated name=value list after the scheme; names lower-cased; nullopt on a syntax error or a
// repeated name.
std::optional<std::map<std::string, std::string>> Parameters(std::string_view text) {
    std::map<std::string, std::string> out;
    std::size_t at = 0;
    while (true) {
        SkipBlanks(text, at);
        while (at < text.size() && text[at] == ',') {
            ++at;
            SkipBlanks(text, at);
        }
        if (at == text.size()) return out;
        const std::size_t start = at;
        while (at < text.size() && IsTokenChar(text[at])) ++at;
        std::string name = core::Ascii::LowerCase(std::string(text.substr(start, at - start)));
        SkipBlanks(text, at);
        if (name.empty() || at == text.size() || text[at] != '=') return std::nullopt;
        ++at;
        SkipBlanks(text, at);
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
            while (at < text.size() && IsTokenChar(text[at])) ++at;
            value = text.substr(valueStart, at - valueStart);
            if (value.empty()) return std::nullopt;
        }
        if (!out.emplace(std::move(name), std::move(value)).second) return std::nullopt;
        SkipBlanks(text, at);
        if (at < text.size() && text[at] != ',') return std::nullopt;
    }
}

}  // namespace

DigestAuth::DigestAuth(std::string realm, std::string opaque, unsigned lifetimeSeconds, std::size_t maxTracked,
                       std::string key)
    : realm_(std::move(realm)), opaque_(std::move(opaque)), lifetime_(lifetimeSeconds), maxTracked_(maxTracked) {
    unsigned char random[35];
    if (::getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        throw std::runtime_error("no random bytes for the Digest nonces");
    }
    secret_ = key.empty() ? Hex(random, 32) : std::move(key);
    instance_ = (std::uint64_t{random[32]} << 16 | std::uint64_t{random[33]} << 8 | random[34]) << kSerialBits;
    nextSerial_ = instance_;
    firstTracked_ = instance_;
}

bool DigestAuth::Forgotten(const Nonce& nonce) const {
    if ((nonce.serial >> kSerialBits) == (instance_ >> kSerialBits)) return nonce.serial < firstTracked_;
    return static_cast<std::int64_t>(nonce.issued) <= forgotUpTo_;
}

std::string DigestAuth::NonceText(Nonce nonce) const {
    const std::string stamp = HexNumber(nonce.issued) + HexNumber(nonce.serial);
    return stamp + Md5Hex(secret_ + ":" + stamp);
}

std::optional<DigestAuth::Nonce> DigestAuth::ReadNonce(std::string_view token) const {
    if (token.size() != 64) return std::nullopt;
    const auto issued = HexNumber(token.substr(0, 16));
    const auto serial = HexNumber(token.substr(16, 16));
    if (!issued || !serial || !text::SameSecret(NonceText({*issued, *serial}), token)) return std::nullopt;
    return Nonce{*issued, *serial};
}

std::string DigestAuth::Challenge(bool stale, std::int64_t now) {
    std::uint64_t serial = 0;
    {
        std::lock_guard lock(mutex_);
        serial = nextSerial_++;
    }
    std::string text = "Digest realm=\"" + realm_ + "\", qop=\"auth\", algorithm=MD5, nonce=\"" +
                       NonceText({static_cast<std::uint64_t>(now), serial}) + "\", opaque=\"" + opaque_ + "\"";
    if (stale) text += ", stale=true";
    return text;
}

std::optional<DigestAuth::Credentials> DigestAuth::Parse(std::string_view authorization) {
    while (!authorization.empty() && (authorization.front() == ' ' || authorization.front() == '\t')) {
        authorization.remove_prefix(1);
    }
    const std::size_t blank = authorization.find_first_of(" \t");
    if (blank == std::string_view::npos || !core::Ascii::EqualsIgnoreCase(authorization.substr(0, blank), "Digest")) {
        return std::nullopt;
    }
    auto fields = Parameters(authorization.substr(blank));
    if (!fields) return std::nullopt;
    for (const char* required : {"username", "realm", "nonce", "uri", "response", "qop", "nc", "cnonce"}) {
        if (!fields->contains(required)) return std::nullopt;
    }
    auto& f = *fields;
    return Credentials{f["username"], f["realm"], f["nonce"],  f["uri"],    f["response"],
                       f["qop"],      f["nc"],    f["cnonce"], f["opaque"], f["algorithm"]};
}

std::string DigestAuth::ExpectedResponse(const Credentials& c, std::string_view method, std::string_view password) {
    const std::string ha1 = Md5Hex(c.username + ":" + c.realm + ":" + std::string(password));
    const std::string ha2 = Md5Hex(std::string(method) + ":" + c.uri);
    return Md5Hex(ha1 + ":" + c.nonce + ":" + c.nc + ":" + c.cnonce + ":" + c.qop + ":" + ha2);
}

bool DigestAuth::Advance(const std::string& nonce, std::uint32_t nc, std::int64_t now) {
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
            const auto issued = HexNumber(std::string_view(entry.first).substr(0, 16));
            return static_cast<std::int64_t>(*issued) + lifetime_ < now;
        });
        if (lastNc_.size() >= maxTracked_) {
            lastNc_.clear();
            firstTracked_ = nextSerial_;
            forgotUpTo_ = now;
            return false;
        }
    }
    lastNc_.emplace(nonce, nc);
    return true;
}

DigestAuth::Result DigestAuth::Check(std::string_view authorization, std::string_view method, std::string_view target,
                                     const PasswordLookup& password, std::int64_t now) {
    const auto credentials = Parse(authorization);
    if (!credentials || credentials->realm != realm_ || credentials->uri != target ||
        !core::Ascii::EqualsIgnoreCase(credentials->qop, "auth") || credentials->nc.size() != 8 ||
        !IsHex(credentials->nc) || (!credentials->opaque.empty() && credentials->opaque != opaque_) ||
        (!credentials->algorithm.empty() && !core::Ascii::EqualsIgnoreCase(credentials->algorithm, "MD5"))) {
        return {};
    }
    const auto nonce = ReadNonce(credentials->nonce);
    if (!nonce) return {};
    auto expected = password(credentials->username);
    if (!expected) return {};
    const bool right = text::SameSecret(ExpectedResponse(*credentials, method, *expected), credentials->response);
    std::fill(expected->begin(), expected->end(), '\0');
    if (!right) return {};
    const bool expired =
        static_cast<std::int64_t>(nonce->issued) > now || static_cast<std::int64_t>(nonce->issued) + lifetime_ < now;
    bool forgotten = false;
    {
        std::lock_guard lock(mutex_);
        forgotten = Forgotten(*nonce);
    }
    if (expired || forgotten) return {Outcome::Stale, {}};
    if (!Advance(credentials->nonce, static_cast<std::uint32_t>(*HexNumber(credentials->nc)), now)) {
        std::lock_guard lock(mutex_);
        return {Forgotten(*nonce) ? Outcome::Stale : Outcome::Refused, {}};
    }
    return {Outcome::Accepted, credentials->username};
}

}  // namespace webmail::dav
