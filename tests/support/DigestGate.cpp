#include "tests/support/DigestGate.h"

#include <QCryptographicHash>

#include <charconv>

namespace testing_support {
namespace {

std::string Md5Hex(const std::string& text) {
    return QCryptographicHash::hash(QByteArray::fromStdString(text), QCryptographicHash::Md5).toHex().toStdString();
}

// The parameters of a "Digest k=v, k="v", ..." header (quoted values without escapes, as libcurl writes them).
std::map<std::string, std::string> Params(const std::string& header) {
    std::map<std::string, std::string> out;
    std::size_t i = header.find(' ');
    while (i != std::string::npos && i < header.size()) {
        while (i < header.size() && (header[i] == ' ' || header[i] == ',')) ++i;
        const std::size_t eq = header.find('=', i);
        if (eq == std::string::npos) break;
        const std::string key = header.substr(i, eq - i);
        std::size_t end;
        std::string value;
        if (eq + 1 < header.size() && header[eq + 1] == '"') {
            end = header.find('"', eq + 2);
            if (end == std::string::npos) break;
            value = header.substr(eq + 2, end - eq - 2);
            ++end;
        } else {
            end = header.find(',', eq + 1);
            if (end == std::string::npos) end = header.size();
            value = header.substr(eq + 1, end - eq - 1);
        }
        out[key] = value;
        i = end;
    }
    return out;
}

}  // namespace

DigestGate::DigestGate(std::string realm, std::string user, std::string password)
    : realm_(std::move(realm)), user_(std::move(user)), password_(std::move(password)) {}

DigestGate::Verdict DigestGate::Check(const std::string& authorization, const std::string& method,
                                      const std::string& uri) {
    if (authorization.rfind("Digest ", 0) != 0) return Verdict::Refused;
    auto p = Params(authorization);
    if (p["username"] != user_ || p["realm"] != realm_ || p["uri"] != uri || p["qop"] != "auth") {
        return Verdict::Refused;
    }
    const std::string ha1 = Md5Hex(user_ + ":" + realm_ + ":" + password_);
    const std::string ha2 = Md5Hex(method + ":" + uri);
    const std::string expected = Md5Hex(ha1 + ":" + p["nonce"] + ":" + p["nc"] + ":" + p["cnonce"] + ":auth:" + ha2);
    if (p["response"] != expected) return Verdict::Refused;
    auto live = lastNc_.find(p["nonce"]);
    // A correct answer to a nonce that no longer lives (or never did) asks for a fresh one.
    if (live == lastNc_.end()) return Verdict::Stale;
    // An nc that is not hex reads as 0 and so is never fresh.
    unsigned long nc = 0;
    const std::string& ncText = p["nc"];
    std::from_chars(ncText.data(), ncText.data() + ncText.size(), nc, 16);
    // A replayed or reordered nc is refused, as RFC 7616 lets a server do.
    if (nc <= live->second) return Verdict::Refused;
    live->second = nc;
    return Verdict::Accepted;
}

std::string DigestGate::Challenge(bool stale) {
    const std::string nonce = "nonce" + std::to_string(nextNonce_++);
    lastNc_[nonce] = 0;
    return "Digest realm=\"" + realm_ + "\", qop=\"auth\", nonce=\"" + nonce + "\", opaque=\"opaque\", algorithm=MD5" +
           (stale ? ", stale=true" : "");
}

void DigestGate::ExpireNonces() { lastNc_.clear(); }

}  // namespace testing_support
