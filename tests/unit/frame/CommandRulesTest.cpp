// The command-word and argument rules of both servers, and where the SMTP message data ends: the edge cases
// the servers' dialogues do not reach. (Plain requests, words in other cases and bytes beyond ASCII are shown
// in the dialogues.)
#include <gtest/gtest.h>

#include <string>

#include "servers/pop3/CPop3Server.h"
#include "servers/smtp/CSmtpServer.h"

namespace {

using servers::pop3::CPop3Server;
using servers::smtp::CSmtpServer;

struct RuleCase {
    std::string text;
    std::string word;
    std::string argument;
};

TEST(CommandRules, Pop3WordIsFirstFourCharactersUpperCasedAndArgumentFollowsFirstSpace) {
    const RuleCase cases[] = {
        {"", "", ""},
        {" list\r\n", " LIS", "list"},
        {"LIST \r\n", "LIST", ""},
        {"LIST  2\r\n", "LIST", " 2"},
        // One arrival, one request: the name runs into the next line.
        {"USER alice\r\nPASS secret\r\n", "USER", "alicePASS secret"},
        // Only CR LF pairs go.
        {"USER a\rb\n", "USER", "a\rb\n"},
        // Beyond 16-bit counts the argument is empty; the word takes four characters whatever the length.
        {"list " + std::string(40000, 'x'), "LIST", ""},
    };
    for (const RuleCase& c : cases) {
        EXPECT_EQ(CPop3Server::GetCommand(c.text), c.word) << testing::PrintToString(c.text);
        EXPECT_EQ(CPop3Server::GetArgument(c.text), c.argument) << testing::PrintToString(c.text);
    }
}

TEST(CommandRules, SmtpWordIsTextBeforeFirstSpaceAndArgumentFollowsFirstColonTrimmed) {
    const RuleCase cases[] = {
        {"RCPT TO:<a:b@c>\r\n", "RCPT", "<a:b@c>"},
        {" MAIL FROM:<a@b>\r\n", "", "<a@b>"},
        {"DATA\r\nMAIL\r\n", "DATAMAIL", ""},
        {"MAIL FROM:<a@b>\r\nRCPT TO:<c@d>\r\n", "MAIL", "<a@b>RCPT TO:<c@d>"},
        // Beyond 16-bit counts both are empty.
        {std::string(40000, 'Q'), "", ""},
        {"MAIL FROM:" + std::string(40000, 'x'), "MAIL", ""},
    };
    for (const RuleCase& c : cases) {
        EXPECT_EQ(CSmtpServer::GetCommand(c.text), c.word) << testing::PrintToString(c.text);
        EXPECT_EQ(CSmtpServer::GetArgument(c.text), c.argument) << testing::PrintToString(c.text);
    }
}

TEST(CommandRules, EndOfDataIsTheFirstDotLineEvenAcrossArrivals) {
    constexpr std::size_t kNone = std::string::npos;
    struct Case {
        std::string collected;
        std::string arrival;
        std::size_t end;
    };
    const Case cases[] = {
        {"", "a\r\n.\r\nb\r\n.\r\n", 6},
        // The data starts at the beginning of a line: "." alone right after DATA is an empty message.
        {"", ".\r\n", 3},
        {"", "..\r\n", kNone},
        {"body\r\n.", "\r\n", 2},
        {"body\r", "\n.\r\n", 4},
        {"body", ".\r\n", kNone},
        {"body\r\n", ".x\r\n.\r\n", 7},
        {"a", "\n.\n", kNone},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(CSmtpServer::FindEndOfData(c.collected, c.arrival), c.end)
            << testing::PrintToString(c.collected) << " + " << testing::PrintToString(c.arrival);
    }
}

}  // namespace
