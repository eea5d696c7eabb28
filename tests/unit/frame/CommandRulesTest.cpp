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
    bool pop3;  // else SMTP
    std::string text;
    std::string word;
    std::string argument;
};

// POP3: the word is the first four characters upper-cased, the argument follows the first space. SMTP: the word is
// the text before the first space, the argument follows the first colon, trimmed.
TEST(CommandRules, WordAndArgumentOfEachServer) {
    const RuleCase cases[] = {
        {true, "", "", ""},
        {true, " list\r\n", " LIS", "list"},
        {true, "LIST \r\n", "LIST", ""},
        {true, "LIST  2\r\n", "LIST", " 2"},
        // One arrival, one request: the name runs into the next line.
        {true, "USER alice\r\nPASS secret\r\n", "USER", "alicePASS secret"},
        // Only CR LF pairs go.
        {true, "USER a\rb\n", "USER", "a\rb\n"},
        // Beyond 16-bit counts the argument is empty; the word takes four characters whatever the length.
        {true, "list " + std::string(40000, 'x'), "LIST", ""},
        {false, "RCPT TO:<a:b@c>\r\n", "RCPT", "<a:b@c>"},
        {false, " MAIL FROM:<a@b>\r\n", "", "<a@b>"},
        {false, "DATA\r\nMAIL\r\n", "DATAMAIL", ""},
        {false, "MAIL FROM:<a@b>\r\nRCPT TO:<c@d>\r\n", "MAIL", "<a@b>RCPT TO:<c@d>"},
        // Beyond 16-bit counts both are empty.
        {false, std::string(40000, 'Q'), "", ""},
        {false, "MAIL FROM:" + std::string(40000, 'x'), "MAIL", ""},
    };
    for (const RuleCase& c : cases) {
        const std::string word = c.pop3 ? CPop3Server::GetCommand(c.text) : CSmtpServer::GetCommand(c.text);
        const std::string argument = c.pop3 ? CPop3Server::GetArgument(c.text) : CSmtpServer::GetArgument(c.text);
        EXPECT_EQ(word, c.word) << testing::PrintToString(c.text);
        EXPECT_EQ(argument, c.argument) << testing::PrintToString(c.text);
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
