// Texts the service reads: posted submissions, Basic credentials, message headers, request paths.
#include <gtest/gtest.h>

#include <tuple>

#include "webmail/dav/BasicCredentials.h"
#include "webmail/dav/ListedMessage.h"
#include "webmail/dav/ServiceUrls.h"
#include "webmail/store/Submission.h"
#include "webmail/dav/UrlCodec.h"

namespace {

using namespace std::string_literals;

struct SubmissionCase {
    const char* name;
    std::string body;
    std::string sender;
    std::vector<std::string> recipients;
    std::string message;
};

TEST(SubmissionTest, ParsesWhatTheGatewayPosts) {
    const std::vector<SubmissionCase> cases = {
        {"message ending in CR LF leaves one empty line before the dot",
         "MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\r\n\r\nSubject: s\r\n\r\nbody\r\n\r\n.\r\n",
         "a@x.org",
         {"b@y.org"},
         "Subject: s\r\n\r\nbody\r\n"},
        {"message without final line break",
         "MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\r\n\r\nSubject: s\r\n\r\nbody\r\n.\r\n",
         "a@x.org",
         {"b@y.org"},
         "Subject: s\r\n\r\nbody"},
        {"dot-stuffed lines are unstuffed",
         "MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\r\n\r\n..hidden\r\nx\r\n..\r\n\r\n.\r\n",
         "a@x.org",
         {"b@y.org"},
         ".hidden\r\nx\r\n.\r\n"},
        {"text that still carries its SMTP end mark",
         "MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\r\n\r\nbody\r\n.\r\n\r\n.\r\n",
         "a@x.org",
         {"b@y.org"},
         "body\r\n"},
        {"extra words and missing brackets",
         "MAIL FROM: <a@x.org> SIZE=20 BODY=8BITMIME\r\nRCPT TO:b@y.org NOTIFY=NEVER\r\nrcpt "
         "to:<c@z.org>\r\n\r\nm\r\n\r\n.\r\n",
         "a@x.org",
         {"b@y.org", "c@z.org"},
         "m\r\n"},
        {"null sender", "MAIL FROM:<>\r\nRCPT TO:<b@y.org>\r\n\r\nm\r\n\r\n.\r\n", "", {"b@y.org"}, "m\r\n"},
        {"bare LF line ends", "MAIL FROM:<a@x.org>\nRCPT TO:<b@y.org>\n\nm\n\n.\n", "a@x.org", {"b@y.org"}, "m\n"},
        {"recipients once each: local part exact, domain in any case",
         "MAIL FROM:<a@x.org>\r\nRCPT TO:<b@Y.org>\r\nRCPT TO:<b@y.ORG>\r\nRCPT TO:<B@y.org>\r\nRCPT TO:b@y.org\r\n\r\n"
         "m\r\n\r\n.\r\n",
         "a@x.org",
         {"b@Y.org", "B@y.org"},
         "m\r\n"},
        {"tab between words",
         "MAIL FROM:<a@x.org>\tSIZE=1\r\nRCPT TO:<b@y.org>\r\n\r\nm\r\n\r\n.\r\n",
         "a@x.org",
         {"b@y.org"},
         "m\r\n"},
    };
    for (const auto& c : cases) {
        std::string error;
        const auto parsed = Submission::parse(c.body, error);
        ASSERT_TRUE(parsed) << c.name << ": " << error;
        EXPECT_EQ(parsed->sender, c.sender) << c.name;
        EXPECT_EQ(parsed->recipients, c.recipients) << c.name;
        EXPECT_EQ(parsed->message, c.message) << c.name;
    }
}

TEST(SubmissionTest, RefusesBodiesThatAreNotSubmissions) {
    for (const char* body :
         {"", "hello\r\n", "MAIL FROM:<a@x>\r\n\r\nm\r\n.\r\n", "MAIL FROM:<a@x>\r\nRCPT TO:<b@y>\r\n",
          "MAIL FROM:<a@x>\r\nRCPT TO:<b@y>\r\n\r\nno end line\r\n", "MAIL FROM:<a@x>\r\nRCPT TO:<>\r\n\r\n.\r\n",
          "MAIL FROM:<a@x>\r\nDATA\r\n\r\nm\r\n.\r\n"}) {
        std::string error;
        EXPECT_FALSE(Submission::parse(body, error)) << body;
        EXPECT_FALSE(error.empty()) << body;
    }
}

// Recipients "r0@y.org" ... in one body.
std::string withRecipients(std::size_t distinct, std::size_t repeats = 1) {
    std::string body = "MAIL FROM:<a@x.org>\r\n";
    for (std::size_t r = 0; r < repeats; ++r) {
        for (std::size_t i = 0; i < distinct; ++i) body += "RCPT TO:<r" + std::to_string(i) + "@y.org>\r\n";
    }
    return body + "\r\nm\r\n\r\n.\r\n";
}

TEST(SubmissionTest, EnvelopeRulesRefuseControlCharactersLongAddressesAndTooManyRecipients) {
    const std::string ok = "RCPT TO:<b@y.org>\r\n\r\nm\r\n\r\n.\r\n";
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"MAIL FROM:<a@x.org\rBcc: c@z.org>\r\n" + ok, "control character in the MAIL FROM line"},
        {"MAIL FROM:a@x.org\rBcc: c@z.org\r\n" + ok, "control character in the MAIL FROM line"},
        {"MAIL FROM:<a@x.org\0junk>\r\n"s + ok, "control character in the MAIL FROM line"},
        {"MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\r\r\n\r\nm\r\n\r\n.\r\n", "control character in the RCPT TO line"},
        {"MAIL FROM:<a@x.org>\r\nRCPT TO:<b\x1b@y.org>\r\n\r\nm\r\n\r\n.\r\n", "control character in the RCPT TO line"},
        {"MAIL FROM:<a\t@x.org>\r\n" + ok, "control character in the MAIL FROM address"},
        {"MAIL FROM:<a@x.org>\r\nRCPT TO:<" + std::string(250, 'b') + "@y.org>\r\n\r\nm\r\n.\r\n",
         "RCPT TO address longer than 254 characters"},
        {withRecipients(Submission::kMaxRecipients + 1), "more than 100 recipients"},
    };
    for (const auto& [body, reason] : refused) {
        std::string error;
        EXPECT_FALSE(Submission::parse(body, error)) << body.substr(0, 60);
        EXPECT_EQ(error, reason) << body.substr(0, 60);
    }
    std::string error;
    EXPECT_EQ(Submission::parse(withRecipients(Submission::kMaxRecipients), error)->recipients.size(), 100u);
    // The same address ten thousand times is one recipient, who gets one copy.
    EXPECT_EQ(Submission::parse(withRecipients(1, 10000), error)->recipients, std::vector<std::string>{"r0@y.org"});
}

TEST(MessageSummaryTest, ReadsHeaderFieldsForTheListing) {
    const std::string raw =
        "Received: by x\r\nFROM: \"Ann Smith\"\r\n <ann@x.org>\r\nto: bob@y.org\r\nSubject: Hello\r\n\tworld\r\n"
        "Date: Tue, 14 May 2002 10:21:13 +0200\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\nSubject: not me\r\n";
    const auto s = ListedMessage::parse(raw, 0);
    EXPECT_EQ(s.from, "\"Ann Smith\" <ann@x.org>");
    EXPECT_EQ(s.fromAddress, "ann@x.org");
    EXPECT_EQ(s.to, "bob@y.org");
    EXPECT_EQ(s.subject, "Hello world");
    EXPECT_EQ(s.date, "2002-05-14T08:21:13");
    EXPECT_TRUE(s.hasAttachment);
    const auto bare = ListedMessage::parse("Subject: only\n\nbody\n", 1021371673);
    EXPECT_EQ(bare.date, "2002-05-14T10:21:13");  // from the fallback time
    EXPECT_EQ(bare.from, "");
    EXPECT_FALSE(bare.hasAttachment);
}

TEST(MessageSummaryTest, DatesInTheirCommonShapes) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"Tue, 14 May 2002 10:21:13 +0200", "2002-05-14T08:21:13"},
        {"14 May 2002 10:21:13 -0130", "2002-05-14T11:51:13"},
        {"Fri, 1 Feb 02 23:30 GMT", "2002-02-01T23:30:00"},
        {"Wed, 31 Dec 2003 20:00:00 EST", "2004-01-01T01:00:00"},
    };
    for (const auto& [text, iso] : cases) EXPECT_EQ(ListedMessage::isoDate(text), iso) << text;
    for (const char* bad : {"", "yesterday", "Tue, 14 Foo 2002 10:21:13", "14 May 2002", "14 May 2002 25:00:00"}) {
        EXPECT_FALSE(ListedMessage::isoDate(bad)) << bad;
    }
}

TEST(MessageSummaryTest, CleanTextIsValidUtf8WithoutControls) {
    EXPECT_EQ(ListedMessage::cleanText(" Gr\xC3\xBC\xC3\x9F"
                                        "e "),
              "Gr\xC3\xBC\xC3\x9F"
              "e");
    EXPECT_EQ(ListedMessage::cleanText("Caf\xE9"), "Caf\xC3\xA9");  // Latin-1 byte
    EXPECT_EQ(ListedMessage::cleanText("a\x01"
                                        "b\x7F"
                                        "c"),
              "a b c");                                                                // controls
    EXPECT_EQ(ListedMessage::cleanText("\xED\xA0\x80"), "\xC3\xAD\xC2\xA0\xC2\x80");  // encoded surrogate
    EXPECT_EQ(ListedMessage::cleanText("\xC3"), "\xC3\x83");                          // cut-off sequence
}

TEST(BasicCredentialsTest, SchemeInAnyCaseStrictBase64AndNoControlCharacters) {
    const std::vector<std::tuple<const char*, const char*, const char*>> accepted = {
        {"Basic ZGVtbzpkZW1v", "demo", "demo"},
        {"basic ZGVtbzpkZW1v", "demo", "demo"},
        {" BASIC   ZGVtbzpkZW1v ", "demo", "demo"},
        {"Basic bmFtZTpwYTpzcw==", "name", "pa:ss"},  // only the first colon separates
    };
    for (const auto& [header, name, password] : accepted) {
        const auto c = BasicCredentials::parse(header);
        ASSERT_TRUE(c) << header;
        EXPECT_EQ(c->name, name) << header;
        EXPECT_EQ(c->password, password) << header;
    }
    for (const char* header : {"Basic ZGVtbzpkZW1vAGp1bms=",  // "demo:demo\0junk"
                               "Basic ZGVtbzpkZQ1tbw==",      // "demo:de\rmo"
                               "Basic ZGV/bW86ZGVtbw==",      // "de\x7Fmo:demo"
                               "Basic ZGVtb2RlbW8=",          // no colon
                               "Basic ZGVtbzpkZW1v=", "Basic ZGVt*zpkZW1v", "Basic ZGVt bzpkZW1v", "Basic",
                               "BasicZGVtbzpkZW1v", "Digest username=\"demo\"", "Bearer ZGVtbzpkZW1v", ""}) {
        EXPECT_FALSE(BasicCredentials::parse(header)) << header;
    }
}

TEST(UrlCodecTest, PathsThatCouldLeaveTheTreeAreRefused) {
    for (const char* bad : {"", "relative", "/a/../b", "/a/./b", "/a//b", "/a/%2e%2E/b", "/a/b%2Fc", "/a/b%2fc",
                            "/a/%5c", "/a/%00", "/a/%zz", "/a/%4"}) {
        EXPECT_FALSE(UrlCodec::splitPath(bad)) << bad;
    }
    EXPECT_EQ(UrlCodec::splitPath("/mail/ann/folders/Sent%20Items/"),
              (std::vector<std::string>{"mail", "ann", "folders", "Sent Items"}));
    EXPECT_EQ(UrlCodec::splitPath("/"), std::vector<std::string>{});
}

TEST(UrlCodecTest, EncodedSegmentsRoundTrip) {
    for (const char* text : {"Sent Items", "a/b", "100%", "caf\xC3\xA9", "x?y#z"}) {
        const std::string encoded = UrlCodec::encodeSegment(text);
        EXPECT_EQ(encoded.find_first_of("/ ?#"), std::string::npos) << text;
        EXPECT_EQ(UrlCodec::decode(encoded), text);
    }
    EXPECT_EQ(UrlCodec::pathOfUrl("http://127.0.0.1:8110/mail/a/?q=1"), "/mail/a/");
    EXPECT_EQ(UrlCodec::pathOfUrl("/mail/a/"), "/mail/a/");
    EXPECT_FALSE(UrlCodec::pathOfUrl("mail/a/"));
}

TEST(ServiceTargetTest, AddressesOfTheSchemeAreRecognised) {
    using K = ServiceTarget::Kind;
    const ServiceUrls urls{"http://h:1", "ann"};
    const std::vector<std::pair<std::string, K>> cases = {
        {urls.entry(), K::Entry},
        {urls.folderRoot(), K::FolderRoot},
        {urls.folder("Sent Items"), K::Folder},
        {urls.message("INBOX", "1.a"), K::Message},
        {urls.sendMessage(), K::SendMessage},
        {urls.contacts(), K::Contacts},
        {urls.adbar(), K::AdBar},
        {"http://h:1/mail/ann/", K::Unknown},
        {"http://h:1/mail/ann/folders/INBOX/1.a/x", K::Unknown},
        {"http://h:1/svcs/hotmail/other.asp", K::Unknown},
    };
    for (const auto& [url, kind] : cases) {
        const ServiceTarget t = ServiceTarget::parse(*UrlCodec::pathOfUrl(url));
        EXPECT_EQ(t.kind, kind) << url;
    }
    const ServiceTarget m = ServiceTarget::parse(*UrlCodec::pathOfUrl(urls.message("Sent Items", "1.a:b")));
    EXPECT_EQ(m.user, "ann");
    EXPECT_EQ(m.folder, "Sent Items");
    EXPECT_EQ(m.id, "1.a:b");
}

}  // namespace
