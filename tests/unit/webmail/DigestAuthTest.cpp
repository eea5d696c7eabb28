// The Digest check: the answers to right, wrong, replayed, forged and expired credentials.
#include <gtest/gtest.h>

#include "webmail/dav/DigestAuth.h"

namespace {

using webmail::dav::DigestAuth;

constexpr std::int64_t kNow = 1'800'000'000;
constexpr unsigned kLifetime = 300;

// An Authorization value answering challenge (its nonce) the way a client does.
std::string Answer(const std::string& challenge, const std::string& scheme, const std::string& password,
                   const std::string& uri, const std::string& nc = "00000001") {
    const std::size_t start = challenge.find("nonce=\"") + 7;
    DigestAuth::Credentials c{
        "demo", "realm", challenge.substr(start, challenge.find('"', start) - start), uri, "", "auth", nc, "0a4f113b",
        "",     ""};
    return scheme + " username=\"demo\", realm=\"realm\", nonce=\"" + c.nonce + "\", uri=\"" + uri +
           "\", qop=auth, nc=" + nc + ", cnonce=\"0a4f113b\", opaque=\"op\", response=\"" +
           DigestAuth::ExpectedResponse(c, "PROPFIND", password) + "\"";
}

TEST(DigestAuthTest, AnswersToRightWrongForgedAndExpiredCredentials) {
    DigestAuth auth("realm", "op", kLifetime, 4);
    const auto lookup = [](const std::string& user) {
        return user == "demo" ? std::optional<std::string>("secret") : std::nullopt;
    };
    const std::string challenge = auth.Challenge(false, kNow);
    EXPECT_TRUE(challenge.starts_with(R"(Digest realm="realm", qop="auth", algorithm=MD5, nonce=")")) << challenge;
    EXPECT_TRUE(challenge.ends_with(R"(", opaque="op")")) << challenge;
    EXPECT_TRUE(auth.Challenge(true, kNow).ends_with(", stale=true"));

    std::string forged = Answer(challenge, "Digest", "secret", "/a");
    forged[forged.find("nonce=\"") + 10] ^= 1;  // a digit of the issue time
    using O = DigestAuth::Outcome;
    const struct {
        const char* what;
        std::string authorization;
        std::int64_t now;
        O outcome;
        const char* target = "/a";  // the address the request went to
    } cases[] = {
        {"right", Answer(challenge, "Digest", "secret", "/a"), kNow + 1, O::Accepted},
        {"lower-case scheme, same nonce, next nc", Answer(challenge, "digest", "secret", "/a", "00000002"), kNow,
         O::Accepted},
        {"nc replayed", Answer(challenge, "Digest", "secret", "/a", "00000002"), kNow, O::Refused},
        {"wrong password", Answer(challenge, "Digest", "wrong", "/a", "00000003"), kNow, O::Refused},
        {"uri of another request", Answer(challenge, "Digest", "secret", "/b", "00000003"), kNow, O::Refused},
        {"same nonce on another address", Answer(challenge, "Digest", "secret", "/c", "00000003"), kNow, O::Accepted,
         "/c"},
        {"forged nonce", forged, kNow, O::Refused},
        {"expired nonce", Answer(challenge, "Digest", "secret", "/a", "00000004"), kNow + kLifetime + 1, O::Stale},
        {"expired nonce, wrong password", Answer(challenge, "Digest", "wrong", "/a", "00000004"), kNow + kLifetime + 1,
         O::Refused},
    };
    for (const auto& c : cases) {
        const auto result = auth.Check(c.authorization, "PROPFIND", c.target, lookup, c.now);
        EXPECT_EQ(result.outcome, c.outcome) << c.what;
        EXPECT_EQ(result.user, c.outcome == O::Accepted ? "demo" : "") << c.what;
    }
    // Once more nonces are in use than are tracked, the older ones are answered stale, never replayable.
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(
            auth.Check(Answer(auth.Challenge(false, kNow), "Digest", "secret", "/a"), "PROPFIND", "/a", lookup, kNow)
                .outcome,
            i < 3 ? O::Accepted : O::Stale);
    }
    EXPECT_EQ(
        auth.Check(Answer(challenge, "Digest", "secret", "/a", "00000009"), "PROPFIND", "/a", lookup, kNow).outcome,
        O::Stale);
    EXPECT_EQ(auth.Check(Answer(auth.Challenge(false, kNow), "Digest", "secret", "/a"), "PROPFIND", "/a", lookup, kNow)
                  .outcome,
              O::Accepted);
}

TEST(DigestAuthTest, InstancesSharingAKeyAcceptEachOthersNoncesAndNoOthers) {
    const auto lookup = [](const std::string& user) {
        return user == "demo" ? std::optional<std::string>("secret") : std::nullopt;
    };
    using O = DigestAuth::Outcome;
    const std::string key = "0123456789abcdef-shared";
    DigestAuth first("realm", "op", kLifetime, 2, key), second("realm", "op", kLifetime, 2, key);
    DigestAuth stranger("realm", "op", kLifetime, 2);
    const std::string fromFirst = first.Challenge(false, kNow), fromSecond = second.Challenge(false, kNow);
    // Two instances never hand out the same nonce, even in the same second.
    EXPECT_NE(fromFirst, fromSecond);
    EXPECT_EQ(second.Check(Answer(fromFirst, "Digest", "secret", "/a"), "PROPFIND", "/a", lookup, kNow).outcome,
              O::Accepted);
    EXPECT_EQ(first.Check(Answer(fromFirst, "Digest", "secret", "/a", "00000002"), "PROPFIND", "/a", lookup, kNow)
                  .outcome,
              O::Accepted);
    // Each instance keeps its own nc record: a replay to the same instance is refused.
    EXPECT_EQ(second.Check(Answer(fromFirst, "Digest", "secret", "/a"), "PROPFIND", "/a", lookup, kNow).outcome,
              O::Refused);
    EXPECT_EQ(stranger.Check(Answer(fromFirst, "Digest", "secret", "/a"), "PROPFIND", "/a", lookup, kNow).outcome,
              O::Refused);
    // When the second's table overflows, the first's nonces it tracked are forgotten: stale, never replayable.
    second.Check(Answer(second.Challenge(false, kNow), "Digest", "secret", "/a"), "PROPFIND", "/a", lookup, kNow);
    EXPECT_EQ(second.Check(Answer(second.Challenge(false, kNow), "Digest", "secret", "/a"), "PROPFIND", "/a", lookup,
                           kNow)
                  .outcome,
              O::Stale);
    EXPECT_EQ(second.Check(Answer(fromFirst, "Digest", "secret", "/a", "00000003"), "PROPFIND", "/a", lookup, kNow)
                  .outcome,
              O::Stale);
    EXPECT_EQ(second.Check(Answer(second.Challenge(false, kNow), "Digest", "secret", "/a"), "PROPFIND", "/a", lookup,
                           kNow)
                  .outcome,
              O::Accepted);
}

}  // namespace
