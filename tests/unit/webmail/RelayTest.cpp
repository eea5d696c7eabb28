// The relay's decisions below what the end-to-end tests with a real mail server can provoke: the envelope
// and text of odd queued files, and the verdict of mixed SMTP conversations for each recipient. (The delivery
// report, the queue's state across a restart and its waits are shown end to end.)
#include <gtest/gtest.h>

#include <sstream>

#include "webmail/relay/QueuedMessage.h"
#include "webmail/relay/SmtpExchange.h"

namespace {

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
    // A greeting, the sender accepted and both recipients asked for.
    const std::string asked =
        "< 220 mx ESMTP\n> MAIL FROM:<a@x.org>\n< 250 ok\n> RCPT TO:<b@y.org>\n< 250 ok\n> RCPT TO:<c@y.org>\n";
    const struct {
        const char* name;
        std::string conversation;  // "> " a line the client sent, "< " a line it received
        std::vector<std::pair<Verdict, std::string>> results;
    } cases[] = {
        {"a kept connection (no greeting), one refused for good, one for now",
         "> MAIL FROM:<a@x.org>\n< 250 ok\n> RCPT TO:<b@y.org>\n< 550 5.1.1 no\n"
         "> RCPT TO:<c@y.org>\n< 452 4.2.2 full\n",
         {{Verdict::Permanent, "550 5.1.1 no"}, {Verdict::Temporary, "452 4.2.2 full"}}},
        {"one refused, the text refused after it", asked + "< 550 no\n> DATA\n< 354 go\n< 554 5.7.1 spam\n",
         {{Verdict::Permanent, "554 5.7.1 spam"}, {Verdict::Permanent, "550 no"}}},
        {"the connection lost after DATA: nobody knows, try again", asked + "< 250 ok\n> DATA\n< 354 go\n",
         {{Verdict::Temporary, "connection lost"}, {Verdict::Temporary, "connection lost"}}},
        {"a sender refused for good with a control byte in the reply",
         "< 220 mx\n> MAIL FROM:<a@x.org>\n< 554 no\x1b[1mway\n",
         {{Verdict::Permanent, "554 no?[1mway"}, {Verdict::Permanent, "554 no?[1mway"}}},
    };
    for (const auto& c : cases) {
        SmtpExchange exchange;
        std::istringstream lines(c.conversation);
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("> ")) {
                exchange.Sent(line.substr(2) + "\r\n");
            } else {
                exchange.Received(line.substr(2) + "\r\n");
            }
        }
        const auto results = exchange.Judge(both, false, "connection lost");
        ASSERT_EQ(results.size(), 2U) << c.name;
        for (std::size_t i = 0; i < 2; ++i) {
            EXPECT_EQ(results[i].recipient, both[i]) << c.name;
            EXPECT_EQ(results[i].verdict, c.results[i].first) << c.name << " " << both[i];
            EXPECT_EQ(results[i].reply, c.results[i].second) << c.name << " " << both[i];
        }
    }
}

}  // namespace
