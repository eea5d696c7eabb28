// The relay's decisions below what the end-to-end tests with a real mail server can provoke: the envelope
// and text of odd queued files, the verdict of mixed SMTP conversations for each recipient, and the delivery
// report's status codes. (The report itself, the queue's state across a restart and its waits are shown end to end.)
#include <gtest/gtest.h>

#include "webmail/relay/BounceReport.h"
#include "webmail/relay/QueuedMessage.h"
#include "webmail/relay/SmtpExchange.h"

namespace {

using webmail::relay::BounceReport;
using webmail::relay::QueuedMessage;
using webmail::relay::SmtpExchange;
using Verdict = SmtpExchange::Verdict;

TEST(QueuedMessageTest, TakesTheEnvelopeFromTheHeaderOnly) {
    // Envelope lines leave the text; a body line of the same form stays.
    std::string error;
    const auto message = QueuedMessage::Parse(
        "Received: x\r\nX-Tarnwick-Envelope-From: <a@x.org>\r\nX-Tarnwick-Envelope-To: <b@y.org>\r\n"
        "x-tarnwick-envelope-to: <c@z.org>\r\nSubject: s\r\n\r\nX-Tarnwick-Envelope-To: <d@z.org>\r\n",
        error);
    ASSERT_TRUE(message) << error;
    EXPECT_EQ(message->sender, "a@x.org");
    EXPECT_EQ(message->recipients, (std::vector<std::string>{"b@y.org", "c@z.org"}));
    EXPECT_EQ(message->text, "Received: x\r\nSubject: s\r\n\r\nX-Tarnwick-Envelope-To: <d@z.org>\r\n");
    EXPECT_FALSE(QueuedMessage::Parse("Subject: s\r\n\r\nX-Tarnwick-Envelope-To: <b@y.org>\r\n", error));
    EXPECT_FALSE(error.empty());
}

TEST(SmtpExchangeTest, JudgesEachRecipient) {
    const std::vector<std::string> both = {"b@y.org", "c@y.org"};
    const std::string greeting = "220 mx ESMTP\r\n";
    const struct {
        const char* name;
        std::vector<std::pair<bool, std::string>> conversation;  // (sent by the client, bytes)
        bool transferOk;
        std::vector<Verdict> verdicts;
        std::vector<std::string> replies;
    } cases[] = {
        {"a kept connection (no greeting), one refused for good, one for now",
         {{true, "MAIL FROM:<a@x.org>\r\n"}, {false, "250 ok\r\n"}, {true, "RCPT TO:<b@y.org>\r\n"},
          {false, "550 5.1.1 no\r\n"}, {true, "RCPT TO:<c@y.org>\r\n"}, {false, "452 4.2.2 full\r\n"}},
         false,
         {Verdict::Permanent, Verdict::Temporary},
         {"550 5.1.1 no", "452 4.2.2 full"}},
        {"one refused, the text refused after it",
         {{false, greeting}, {true, "MAIL FROM:<a@x.org>\r\n"}, {false, "250 ok\r\n"}, {true, "RCPT TO:<b@y.org>\r\n"},
          {false, "250 ok\r\n"}, {true, "RCPT TO:<c@y.org>\r\n"}, {false, "550 no\r\n"}, {true, "DATA\r\n"},
          {false, "354 go\r\n"}, {false, "554 5.7.1 spam\r\n"}},
         false,
         {Verdict::Permanent, Verdict::Permanent},
         {"554 5.7.1 spam", "550 no"}},
        {"the connection lost after DATA: nobody knows, try again",
         {{false, greeting}, {true, "MAIL FROM:<a@x.org>\r\n"}, {false, "250 ok\r\n"}, {true, "RCPT TO:<b@y.org>\r\n"},
          {false, "250 ok\r\n"}, {true, "RCPT TO:<c@y.org>\r\n"}, {false, "250 ok\r\n"}, {true, "DATA\r\n"},
          {false, "354 go\r\n"}},
         false,
         {Verdict::Temporary, Verdict::Temporary},
         {"connection lost", "connection lost"}},
        {"a sender refused for good with a control byte in the reply",
         {{false, "220 mx\r\n"}, {true, "MAIL FROM:<a@x.org>\r\n"}, {false, "554 no\x1b[1mway\r\n"}},
         false,
         {Verdict::Permanent, Verdict::Permanent},
         {"554 no?[1mway", "554 no?[1mway"}},
    };
    for (const auto& c : cases) {
        SmtpExchange exchange;
        for (const auto& [sent, bytes] : c.conversation) {
            if (sent) {
                exchange.Sent(bytes);
            } else {
                exchange.Received(bytes);
            }
        }
        const auto results = exchange.Judge(both, c.transferOk, "connection lost");
        ASSERT_EQ(results.size(), 2U) << c.name;
        for (std::size_t i = 0; i < 2; ++i) {
            EXPECT_EQ(results[i].recipient, both[i]) << c.name;
            EXPECT_EQ(results[i].verdict, c.verdicts[i]) << c.name << " " << both[i];
            EXPECT_EQ(results[i].reply, c.replies[i]) << c.name << " " << both[i];
        }
    }
}

TEST(BounceReportTest, StatusCodes) {
    const struct {
        const char* reply;
        bool timeLimit;
        const char* status;
    } cases[] = {
        {"550 5.1.1 <b@y.org>: unknown", false, "5.1.1"},
        {"554 transaction failed", false, "5.0.0"},
        {"550 5.1.1x no code", false, "5.0.0"},
        {"451 4.3.0 try later", true, "4.3.0"},
        {"Failed to connect to mx port 25", true, "4.4.7"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(BounceReport::Status({"b@y.org", c.reply, c.timeLimit}), c.status) << c.reply;
    }
}

}  // namespace
