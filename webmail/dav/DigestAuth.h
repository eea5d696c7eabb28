// HTTP Digest authentication (RFC 7616, MD5, qop=auth) with nonces that need no storage: each carries its
// issue time and serial number and a keyed MD5 over both, so any nonce made with the same key (by this process
// or by another instance given the same key) is recognised on any address and with any method until it
// expires. The last nc seen per nonce is kept, per process, to refuse replays.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace webmail::dav {

class DigestAuth {
public:
    // The fields of an "Authorization: Digest ..." value that the check uses.
    struct Credentials {
        std::string username, realm, nonce, uri, response, qop, nc, cnonce, opaque, algorithm;
    };
    enum class Outcome { Accepted, Refused, Stale };
    struct Result {
        Outcome outcome = Outcome::Refused;
        std::string user;  // set when accepted
    };
    // The password of an account, or nullopt when there is no such account.
    using PasswordLookup = std::function<std::optional<std::string>(const std::string& user)>;

    // Nonces for realm valid for lifetimeSeconds, signed with key (a fresh random one when key is empty); at
    // most maxTracked nonces have their nc remembered.
    DigestAuth(std::string realm, std::string opaque, unsigned lifetimeSeconds, std::size_t maxTracked,
               std::string key = {});

    // The WWW-Authenticate value with a new nonce issued at now (seconds since the epoch).
    std::string Challenge(bool stale, std::int64_t now);
    // Checks an Authorization value for a request with method and target (as received). Stale: the
    // response is right but its nonce has expired, so the client should retry with a new one.
    Result Check(std::string_view authorization, std::string_view method, std::string_view target,
                 const PasswordLookup& password, std::int64_t now);

    // The fields of a Digest Authorization value (scheme in any case); nullopt when it is not one or a field
    // a qop=auth response needs is missing.
    static std::optional<Credentials> Parse(std::string_view authorization);
    // MD5(HA1:nonce:nc:cnonce:qop:HA2) in lower-case hex for credentials sent with method and password.
    static std::string ExpectedResponse(const Credentials& credentials, std::string_view method,
                                        std::string_view password);

private:
    struct Nonce {
        std::uint64_t issued = 0, serial = 0;
    };
    static constexpr unsigned kSerialBits = 40;
    std::string NonceText(Nonce nonce) const;
    // Whether the nonce's nc was dropped when the table was last emptied (call with mutex_ held).
    bool Forgotten(const Nonce& nonce) const;
    std::optional<Nonce> ReadNonce(std::string_view token) const;
    // Records nc for nonce; false when it does not increase on the last one seen.
    bool Advance(const std::string& nonce, std::uint32_t nc, std::int64_t now);

    const std::string realm_, opaque_;
    const unsigned lifetime_;
    const std::size_t maxTracked_;
    std::string secret_;
    std::mutex mutex_;
    // Serials are this process's random instance number in the top 24 bits and a count below, so that two
    // instances sharing a key never issue the same nonce.
    std::uint64_t instance_ = 0;
    std::uint64_t nextSerial_ = 0;
    // When the table was last full and emptied: own nonces with a lower serial, and other instances' nonces
    // issued up to that second, were forgotten then and are stale.
    std::uint64_t firstTracked_ = 0;
    std::int64_t forgotUpTo_ = -1;
    std::unordered_map<std::string, std::uint32_t> lastNc_;
};

}  // namespace webmail::dav
