// The Digest check: the answers to right, wrong, replayed, forged and expired credentials. (Instances that share
// a key behind one proxy are shown end to end.)
#include <gtest/gtest.h>

#include "webmail/dav/DigestAuth.h"

namespace {

using webmail::dav::DigestAuth;
using O = DigestAuth::Outcome;

constexpr std::int64_t kNow = 1'800'000'000;
constexpr unsigned kLifetime = 300;

// An Authorization value answering challenge (its nonce) the way a client does.
std::string Answer(const std::string& challenge, const std::string& password = "secret", const std::string& uri = "/a",
                   const std::string& nc = "00000001", const std::string& scheme = "Digest") {
    const std::size_t start = challenge.find("nonce=\"") + 7;
    DigestAuth::Credentials c{
        "demo", "realm", challenge.substr(start, challenge.find('"', start) - start), uri, "", "auth", nc, "0a4f113b",
        "",     ""};
    return scheme + " username=\"demo\", realm=\"realm\", nonce=\"" + c.nonce + "\", uri=\"" + uri +
           "\", qop=auth, nc=" + nc + ", cnonce=\"0a4f113b\", opaque=\"op\", response=\"" +
           DigestAuth::ExpectedResponse(c, "PROPFIND", password) + "\"";
}

O Check(DigestAuth& auth, const std::string& authorization, std::int64_t now = kNow, const char* target = "/a") {
    const auto lookup = [](const std::string& user) {
        return user == "demo" ? std::optional<std::string>("secret") : std::nullopt;
    };
    const auto result = auth.Check(authorization, "PROPFIND", target, lookup, now);
    EXPECT_EQ(result.user, result.outcome == O::Accepted ? "demo" : "");
    return result.outcome;
}

TEST(DigestAuthTest, AnswersToRightWrongForgedAndExpiredCredentials) {
    DigestAuth auth("realm", "op", kLifetime, 4);
    const std::string challenge = auth.Challenge(false, kNow);
    EXPECT_TRUE(challenge.starts_with(R"(Digest realm="realm", qop="auth", algorithm=MD5, nonce=")")) << challenge;
    EXPECT_TRUE(auth.Challenge(true, kNow).ends_with(", stale=true"));

    std::string forged = Answer(challenge);
    forged[forged.find("nonce=\"") + 10] ^= 1;  // a digit of the issue time
    const struct {
        const char* what;
        std::string authorization;
        std::int64_t now;
        O outcome;
        const char* target = "/a";  // the address the request went to
    } cases[] = {
        {"right", Answer(challenge), kNow + 1, O::Accepted},
        {"lower-case scheme, same nonce, next nc", Answer(challenge, "secret", "/a", "00000002", "digest"), kNow,
         O::Accepted},
        {"nc replayed", Answer(challenge, "secret", "/a", "00000002"), kNow, O::Refused},
        {"wrong password", Answer(challenge, "wrong", "/a", "00000003"), kNow, O::Refused},
        {"uri of another request", Answer(challenge, "secret", "/b", "00000003"), kNow, O::Refused},
        {"same nonce on another address", Answer(challenge, "secret", "/c", "00000003"), kNow, O::Accepted, "/c"},
        {"forged nonce", forged, kNow, O::Refused},
        {"expired nonce", Answer(challenge, "secret", "/a", "00000004"), kNow + kLifetime + 1, O::Stale},
        {"expired nonce, wrong password", Answer(challenge, "wrong", "/a", "00000004"), kNow + kLifetime + 1,
         O::Refused},
    };
    for (const auto& c : cases) EXPECT_EQ(Check(auth, c.authorization, c.now, c.target), c.outcome) << c.what;
    // Once more nonces are in use than are tracked, the older ones are answered stale, never replayable.
    for (int i = 0; i < 4; ++i) EXPECT_EQ(Check(auth, Answer(auth.Challenge(false, kNow))), i < 3 ? O::Accepted : O::Stale);
    EXPECT_EQ(Check(auth, Answer(challenge, "secret", "/a", "00000009")), O::Stale);
}

}  // namespace
