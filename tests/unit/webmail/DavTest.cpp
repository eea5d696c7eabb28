// The web service's own layer. What it reads from a request before it touches the store: paths, Basic
// credentials and the Digest check's answers to right, wrong, replayed, forged and expired credentials (which
// address names what is shown end to end). What the mailbox listing shows: header fields, dates, the From text.
#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/TempDir.h"
#include "webmail/dav/BasicCredentials.h"
#include "webmail/dav/DigestAuth.h"
#include "webmail/dav/EncodedWords.h"
#include "webmail/dav/ListedMessage.h"
#include "webmail/dav/UrlCodec.h"
#include "webmail/text/MailDate.h"

namespace {

using namespace webmail::dav;
using webmail::store::MaildirEntry;
using webmail::store::MessageFile;

TEST(RequestParserTest, PathsThatCouldLeaveTheTreeAreRefused) {
    for (const char* bad : {"", "relative", "/a/../b", "/a/./b", "/a//b", "/a/%2e%2E/b", "/a/b%2Fc", "/a/b%2fc",
                            "/a/%5c", "/a/%00", "/a/%zz", "/a/%4"}) {
        EXPECT_FALSE(UrlCodec::SplitPath(bad)) << bad;
    }
    EXPECT_EQ(UrlCodec::SplitPath("/mail/ann/folders/Sent%20Items/"),
              (std::vector<std::string>{"mail", "ann", "folders", "Sent Items"}));
}

TEST(RequestParserTest, BasicCredentialsSchemeInAnyCaseStrictBase64AndNoControlCharacters) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {" BASIC   ZGVtbzpkZW1v ", "demo|demo"},
        {"basic bmFtZTpwYTpzcw==", "name|pa:ss"},  // only the first colon separates
        {"Basic ZGVtbzpkZQ1tbw==", "refused"},     // "demo:de\rmo"
        {"Basic ZGVtb2RlbW8=", "refused"},         // no colon
        {"Basic ZGVt*zpkZW1v", "refused"},
        {"BasicZGVtbzpkZW1v", "refused"},
    };
    for (const auto& [header, expected] : cases) {
        const auto c = BasicCredentials::Parse(header);
        EXPECT_EQ(c ? c->name + "|" + c->password : "refused", expected) << header;
    }
}

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
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(Check(auth, Answer(auth.Challenge(false, kNow))), i < 3 ? O::Accepted : O::Stale);
    }
    EXPECT_EQ(Check(auth, Answer(challenge, "secret", "/a", "00000009")), O::Stale);

    // The worked example of RFC 2617: the answers above are built with the same formula, so only a known answer
    // shows that the formula is the one clients use.
    const DigestAuth::Credentials example{
        "Mufasa", "testrealm@host.com", "dcd98b7102dd2f0e8b11d0f600bfb0c093", "/dir/index.html", "", "auth", "00000001",
        "0a4f113b", "", ""};
    EXPECT_EQ(DigestAuth::ExpectedResponse(example, "GET", "Circle Of Life"), "6629fae49393a05397450978507c4ef1");
}

ListedMessage Listed(const TempDir& dir, const std::string& raw, const std::string& flags = "") {
    const auto path = dir.path() / "m";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << raw;
    std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::from_sys(
                                               std::chrono::sys_seconds(std::chrono::seconds(1021371673))));
    return ListedMessage::Read(MaildirEntry{"1.a.host", path, flags}, *MessageFile::Open(path));
}

TEST(ListedMessageTest, ReadsUnfoldedHeaderFieldsInAnyCaseAndOnlyFromTheHeader) {
    TempDir dir;
    const auto m = Listed(dir,
                          "Received: by x\r\nFROM: \"Ann Smith\"\r\n <ann@x.org>\r\nto: bob@y.org\r\n"
                          "Subject: Hello\r\n\tworld\r\nDate: Tue, 14 May 2002 10:21:13 +0200\r\n"
                          "Content-Type: multipart/mixed; boundary=b\r\n\r\nSubject: not me\r\n",
                          "S");
    EXPECT_EQ(m.from, "\"Ann Smith\" <ann@x.org>");
    EXPECT_EQ(m.fromAddress, "ann@x.org");
    EXPECT_EQ(m.to, "bob@y.org");
    EXPECT_EQ(m.subject, "Hello world");
    EXPECT_EQ(m.date, "2002-05-14T08:21:13");
    EXPECT_TRUE(m.hasAttachment);
    EXPECT_TRUE(m.read);
}

TEST(ListedMessageTest, DatesInTheirCommonShapes) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"14 May 2002 10:21:13 -0130", "2002-05-14T11:51:13"},
        {"Fri, 1 Feb 02 23:30 GMT", "2002-02-01T23:30:00"},
        {"Wed, 31 Dec 2003 20:00:00 EST", "2004-01-01T01:00:00"},
    };
    for (const auto& [text, iso] : cases) EXPECT_EQ(webmail::text::IsoDate(text), iso) << text;
    for (const char* bad : {"", "yesterday", "Tue, 14 Foo 2002 10:21:13", "14 May 2002", "14 May 2002 25:00:00"}) {
        EXPECT_FALSE(webmail::text::IsoDate(bad)) << bad;
    }
}

// 8-bit words become RFC 2047 encoded-words; ASCII words, the address and existing encoded-words among them, stay
// as they are. (That every result is printable ASCII is a rule the headers fuzz target checks.)
TEST(EncodedWordsTest, EightBitWordsBecomeEncodedWords) {
    const struct {
        const char* name;
        std::string from;
        std::string expected;
    } cases[] = {
        {"neighbouring 8-bit words and a quoted name are encoded together, quotes and specials too; the address stays",
         "\"Zo\xC3\xAB, QA\" M\xC3\xBCller <z@x.org>", "=?UTF-8?Q?=22Zo=C3=AB=2C_QA=22_M=C3=BCller?= <z@x.org>"},
        {"the blank after an existing encoded-word is kept inside the new one",
         "=?UTF-8?Q?J=C3=BCrgen?= M\xC3\xBCller <m@x.org>",
         "=?UTF-8?Q?J=C3=BCrgen?= =?UTF-8?Q?_M=C3=BCller?= <m@x.org>"},
    };
    for (const auto& c : cases) EXPECT_EQ(EncodedWords::Encode(c.from), c.expected) << c.name;
}

}  // namespace
