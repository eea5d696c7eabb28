// Digest authentication (RFC 7616, MD5, qop "auth") as a service may offer it: a nonce serves any address
// and method for as long as it lives, each use with a larger nc; an expired nonce is answered "stale".
#pragma once

#include <map>
#include <string>

namespace testing_support {

class DigestGate {
public:
    DigestGate(std::string realm, std::string user, std::string password);

    enum class Verdict { Accepted, Refused, Stale };

    // Judges the Authorization header `authorization` (empty when the request had none) of a request.
    Verdict Check(const std::string& authorization, const std::string& method, const std::string& uri);
    // The WWW-Authenticate value of a challenge, with a fresh nonce.
    std::string Challenge(bool stale);
    // Every nonce handed out so far expires: its next use is answered "stale".
    void ExpireNonces();

private:
    std::string realm_;
    std::string user_;
    std::string password_;
    int nextNonce_ = 1;
    std::map<std::string, unsigned long> lastNc_;  // live nonces and the highest nc used with each
};

}  // namespace testing_support
