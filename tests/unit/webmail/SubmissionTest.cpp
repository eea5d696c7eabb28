// The posted submission and its envelope rules: control characters, long addresses, recipients once each
// and capped.
#include <gtest/gtest.h>

#include "webmail/store/Submission.h"

namespace {

using webmail::store::Submission;

TEST(SubmissionTest, ParsesWhatTheGatewayPosts) {
    const struct {
        const char* name;
        std::string body;
        std::string sender;
        std::vector<std::string> recipients;
        std::string message;
    } cases[] = {
        {"the line break before the dot line is the message's own, an empty line before it stays",
         "MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\r\n\r\nSubject: s\r\n\r\nbody\r\n\r\n.\r\n",
         "a@x.org",
         {"b@y.org"},
         "Subject: s\r\n\r\nbody\r\n\r\n"},
        {"dot-stuffed lines are unstuffed",
         "MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\r\n\r\n..hidden\r\n...\r\nx.\r\n.\r\n",
         "a@x.org",
         {"b@y.org"},
         ".hidden\r\n..\r\nx.\r\n"},
        {"a dot line right after the envelope is an empty message",
         "MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\r\n\r\n.\r\n",
         "a@x.org",
         {"b@y.org"},
         ""},
        {"extra words, missing brackets, a tab, the verb in any case",
         "MAIL FROM: <a@x.org>\tSIZE=20\r\nRCPT TO:b@y.org NOTIFY=NEVER\r\nrcpt to:<c@z.org>\r\n\r\nm\r\n.\r\n",
         "a@x.org",
         {"b@y.org", "c@z.org"},
         "m\r\n"},
        {"null sender, bare LF line ends", "MAIL FROM:<>\nRCPT TO:<b@y.org>\n\nm\n.\n", "", {"b@y.org"}, "m\n"},
        {"recipients once each: local part exact, domain in any case",
         "MAIL FROM:<a@x.org>\r\nRCPT TO:<b@Y.org>\r\nRCPT TO:<b@y.ORG>\r\nRCPT TO:<B@y.org>\r\n\r\nm\r\n.\r\n",
         "a@x.org",
         {"b@Y.org", "B@y.org"},
         "m\r\n"},
    };
    for (const auto& c : cases) {
        std::string error;
        const auto parsed = Submission::Parse(c.body, error);
        ASSERT_TRUE(parsed) << c.name << ": " << error;
        EXPECT_EQ(parsed->sender, c.sender) << c.name;
        EXPECT_EQ(parsed->recipients, c.recipients) << c.name;
        EXPECT_EQ(parsed->message, c.message) << c.name;
    }
}

// Recipients "r0@y.org" ... in one body.
std::string WithRecipients(std::size_t distinct, std::size_t repeats = 1) {
    std::string body = "MAIL FROM:<a@x.org>\r\n";
    for (std::size_t r = 0; r < repeats; ++r) {
        for (std::size_t i = 0; i < distinct; ++i) body += "RCPT TO:<r" + std::to_string(i) + "@y.org>\r\n";
    }
    return body + "\r\nm\r\n\r\n.\r\n";
}

TEST(SubmissionTest, RefusesMalformedBodiesControlCharactersLongAddressesAndTooManyRecipients) {
    const std::string ok = "RCPT TO:<b@y.org>\r\n\r\nm\r\n\r\n.\r\n";
    const std::vector<std::pair<std::string, std::string>> refused = {
        {"", "first line must be MAIL FROM:"},
        {"MAIL FROM:<a@x>\r\n\r\nm\r\n.\r\n", "no RCPT TO: line"},
        {"MAIL FROM:<a@x>\r\nRCPT TO:<b@y>\r\n", "no empty line after the envelope"},
        {"MAIL FROM:<a@x>\r\nRCPT TO:<b@y>\r\n\r\nno end line\r\n", "message does not end with a \".\" line"},
        {"MAIL FROM:<a@x>\r\nRCPT TO:<>\r\n\r\n.\r\n", "empty recipient"},
        {"MAIL FROM:<a@x>\r\nDATA\r\n\r\nm\r\n.\r\n", "envelope line is not RCPT TO:"},
        {"MAIL FROM:<a@x.org\rBcc: c@z.org>\r\n" + ok, "control character in the MAIL FROM line"},
        {"MAIL FROM:<a@x.org>\r\nRCPT TO:<b@y.org>\rBcc: c@z.org\r\n\r\nm\r\n.\r\n",
         "control character in the RCPT TO line"},
        {"MAIL FROM:<a\t@x.org>\r\n" + ok, "control character in the MAIL FROM address"},
        {"MAIL FROM:<a@x.org>\r\nRCPT TO:<" + std::string(250, 'b') + "@y.org>\r\n\r\nm\r\n.\r\n",
         "RCPT TO address longer than 254 characters"},
        {WithRecipients(101), "more than 100 recipients"},
    };
    for (const auto& [body, reason] : refused) {
        std::string error;
        EXPECT_FALSE(Submission::Parse(body, error)) << body.substr(0, 60);
        EXPECT_EQ(error, reason) << body.substr(0, 60);
    }
    std::string error;
    EXPECT_EQ(Submission::Parse(WithRecipients(100), error)->recipients.size(), 100u);
    // The same address ten thousand times is one recipient, who gets one copy.
    EXPECT_EQ(Submission::Parse(WithRecipients(1, 10000), error)->recipients, std::vector<std::string>{"r0@y.org"});
}

}  // namespace
