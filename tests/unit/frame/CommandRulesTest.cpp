// Command-word and argument rules of both servers, and the end-of-data test, case by case.
#include <gtest/gtest.h>

#include <string>

#include "servers/pop3/CPop3Server.h"
#include "servers/smtp/CSmtpServer.h"
#include "tests/support/FakeGatewayHost.h"

namespace {

struct RuleCase {
    std::string text;
    std::string expected;
};

class CommandRulesTest : public ::testing::Test {
protected:
    tests::FakeGatewayHost host;
    servers::pop3::CPop3Server pop3{host};
    servers::smtp::CSmtpServer smtp{host};
};

TEST_F(CommandRulesTest, Pop3CommandWordIsFirstFourCharactersUpperCasedUntrimmed) {
    const RuleCase cases[] = {
        {"USER alice\r\n", "USER"},
        {"stat\r\n", "STAT"},
        {"noop\r\n", "NOOP"},
        {"TOP 1 5\r\n", "TOP "},
        {"TOP", "TOP"},
        {"US", "US"},
        {"", ""},
        {"\xE9t\r\n", "\xE9T\r\n"},
        {" list\r\n", " LIS"},
    };
    for (const RuleCase& c : cases) {
        EXPECT_EQ(pop3.GetCommand(c.text), c.expected) << "request: " << c.text;
        EXPECT_EQ(pop3.LastCommand(), c.expected) << "request: " << c.text;
    }
}

TEST_F(CommandRulesTest, Pop3ArgumentIsEverythingAfterFirstSpaceWithEveryCrLfRemoved) {
    const RuleCase cases[] = {
        {"USER alice\r\n", "alice"},
        {"USER john smith\r\n", "john smith"},
        {"LIST\r\n", ""},
        {"LIST \r\n", ""},
        {"LIST  2\r\n", " 2"},
        {"USER alice\r\nPASS secret\r\n", "alicePASS secret"},
        {"USER a\rb\n", "a\rb\n"},
        {"USER\r\n", ""},
    };
    for (const RuleCase& c : cases) EXPECT_EQ(pop3.GetArgument(c.text), c.expected) << "request: " << c.text;
}

TEST_F(CommandRulesTest, SmtpCommandWordIsTextBeforeFirstSpaceUpperCasedWithoutCrLf) {
    const RuleCase cases[] = {
        {"QUIT\r\n", "QUIT"},
        {"quit\r\n", "QUIT"},
        {"ehlo x\r\n", "EHLO"},
        {"HeLo client.example\r\n", "HELO"},
        {"MAIL FROM:<a@b>\r\n", "MAIL"},
        {" MAIL FROM:<a@b>\r\n", ""},
        {"DATA\r\nMAIL\r\n", "DATAMAIL"},
    };
    for (const RuleCase& c : cases) {
        EXPECT_EQ(smtp.GetCommand(c.text), c.expected) << "request: " << c.text;
        EXPECT_EQ(smtp.LastCommand(), c.expected) << "request: " << c.text;
    }
}

TEST_F(CommandRulesTest, SmtpArgumentIsAfterFirstColonTrimmed) {
    const RuleCase cases[] = {
        {"MAIL FROM: <alice@example.org>\r\n", "<alice@example.org>"},
        {"RCPT TO:<bob@example.org> NOTIFY\r\n", "<bob@example.org> NOTIFY"},
        {"MAIL\r\n", ""},
        {"MAIL FROM:   \r\n", ""},
        {"RCPT TO:<a:b@c>\r\n", "<a:b@c>"},
        {"MAIL FROM:<a@b>\r\nRCPT TO:<c@d>\r\n", "<a@b>RCPT TO:<c@d>"},
    };
    for (const RuleCase& c : cases) EXPECT_EQ(smtp.GetArgument(c.text), c.expected) << "request: " << c.text;
}

TEST_F(CommandRulesTest, TextsLongerThanSixteenBitCountsYieldEmptyResults) {
    const std::string longText = "MAIL FROM:" + std::string(40000, 'x');
    EXPECT_EQ(smtp.GetArgument(longText), "");
    EXPECT_EQ(smtp.GetCommand(std::string(40000, 'Q')), "");
    EXPECT_EQ(pop3.GetArgument("USER " + std::string(40000, 'x')), "");
    // The POP3 word takes four characters whatever the length.
    EXPECT_EQ(pop3.GetCommand("list" + std::string(40000, 'x')), "LIST");
}

TEST_F(CommandRulesTest, EndOfDataIsTheFirstDotLineEvenAcrossArrivals) {
    constexpr std::size_t kNone = std::string::npos;
    struct Case {
        std::string collected;
        std::string arrival;
        std::size_t end;
    };
    const Case cases[] = {
        {"", "Subject: x\r\n\r\nbody\r\n.\r\n", 23},
        {"", "body\r\n.\r\nQUIT\r\n", 9},
        {"", "a\r\n.\r\nb\r\n.\r\n", 6},
        // The data starts at the beginning of a line: "." alone right after DATA is an empty message.
        {"", ".\r\n", 3},
        {"", "..\r\n", kNone},
        {"body\r\n", ".\r\n", 3},
        {"body\r\n", ".\r\nQUIT\r\n", 3},
        {"body\r\n.", "\r\n", 2},
        {"body\r", "\n.\r\n", 4},
        {"body", "\r\n.\r\n", 5},
        {"body", ".\r\n", kNone},
        {"body\r\n", "..\r\n", kNone},
        {"body\r\n", ".x\r\n.\r\n", 7},
        {"a", "\n.\n", kNone},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(servers::smtp::CSmtpServer::FindEndOfData(c.collected, c.arrival), c.end)
            << "collected " << testing::PrintToString(c.collected) << ", arrival " << testing::PrintToString(c.arrival);
    }
}

TEST_F(CommandRulesTest, CreationDefaults) {
    EXPECT_EQ(pop3.ListenPort(), "110");
    EXPECT_EQ(smtp.ListenPort(), "25");
    for (const servers::frame::ServerFrame* server :
         {static_cast<servers::frame::ServerFrame*>(&pop3), static_cast<servers::frame::ServerFrame*>(&smtp)}) {
        EXPECT_EQ(server->LastCommand(), "CONN");
        EXPECT_EQ(server->UserName(), "");
        EXPECT_EQ(server->Password(), "");
        EXPECT_EQ(server->LastResponse(), "");
    }
    EXPECT_EQ(servers::frame::ServerFrame::FormatResponse("+OK"), "+OK\r\n");
}

}  // namespace
