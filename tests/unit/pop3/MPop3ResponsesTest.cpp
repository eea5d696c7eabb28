// The POP3 response texts byte for byte, the unique-id rule and the reading of message numbers.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

#include "core/Error.h"
#include "servers/pop3/CPop3Mailbox.h"
#include "servers/pop3/MPop3Responses.h"

namespace {

namespace R = servers::pop3::MPop3Responses;
using mailservice::CHotmailMessage;
using servers::pop3::CPop3Mailbox;

R::MessagePtr Message(const std::string& length, const std::string& id, const std::string& from) {
    auto m = std::make_shared<CHotmailMessage>();
    m->mLength = length;
    m->mMessageID = id;
    m->mFrom = from;
    return m;
}

TEST(Pop3Responses, MailboxViewTexts) {
    R::MessageList list;
    EXPECT_EQ(R::BuildSTATResponse(0, 0), "+OK 0 0");
    EXPECT_EQ(R::BuildLISTResponse(list, 0, 0), "+OK 0 messages (0 octets)\r\n.");
    EXPECT_EQ(R::BuildUIDLResponse(list), "+OK \r\n.");

    list.Add(Message("1200", "msg-a", "Ann Example <ann@example.org>"));
    list.Add(Message("830", "msg-b", "bob@example.org"));
    EXPECT_EQ(R::BuildSTATResponse(32767, 2147483647), "+OK 32767 2147483647");
    EXPECT_EQ(R::BuildLISTResponse(list, 2, 2030), "+OK 2 messages (2030 octets)\r\n1 1200\r\n2 830\r\n.");
    // One-message answers echo the argument byte for byte.
    EXPECT_EQ(R::BuildLISTItemResponse(" 02", *list.Item(2)), "+OK  02 830");
    EXPECT_EQ(R::BuildUIDLItemResponse("1.4", *list.Item(1)), "+OK 1.4 msg-a:Ann:Example:<ann:example.org>");
}

TEST(Pop3Responses, UniqueIdJoinsIdAndSenderWithColonsAndCutsAt69) {
    const std::string cases[][3] = {
        {"MSG1", "\"Ann B. Example\" <ann@example.org>", "MSG1:\"Ann:B.:Example\":<ann:example.org>"},
        {"MSG2", "", "MSG2:"},
        // Only the sender's "@" and spaces change: tabs, the id's own characters and 8-bit bytes stay.
        {"a b@c", "x\ty\xE9@z", "a b@c:x\ty\xE9:z"},
        {std::string(60, 'i'), "someone@example.org", std::string(60, 'i') + ":someone:"},
        {std::string(67, 'i'), "x", std::string(67, 'i') + ":x"},
        {std::string(69, 'i'), "x", std::string(69, 'i')},
    };
    for (const auto& [id, from, expected] : cases) EXPECT_EQ(R::GetUIDLUniqueID(id, from), expected) << from;
}

// The body is read from its spool file in pieces and stuffed as it comes: every piece size gives the same
// bytes, a CR LF or a dot line cut between two pieces included.
TEST(Pop3Responses, RetrCarriesTheBodyDotStuffedAfterTheSizeAndApplicationLinesWhateverThePieceSize) {
    const std::string cases[][2] = {
        // A body that ends in CR LF gets one more before the "." line.
        {"Subject: a\r\n\r\nhello\r\n", "Subject: a\r\n\r\nhello\r\n\r\n."},
        {"Subject: a\r\n\r\nhello", "Subject: a\r\n\r\nhello\r\n."},
        {"", "\r\n."},
        {".start\r\nA\r\n.\r\n..x\r\na.b\r\n", "..start\r\nA\r\n..\r\n...x\r\na.b\r\n\r\n."},
        {"\r\n.\r\n.\r\r\n.", "\r\n..\r\n..\r\r\n..\r\n."},
        // Only CR LF starts a line: a dot after a bare LF or CR stays as it is.
        {"a\n.b\r.c\r\n", "a\n.b\r.c\r\n\r\n."},
        {std::string("\xFF\x80\0b\r\n", 6), std::string("\xFF\x80\0b\r\n\r\n.", 9)},
    };
    for (const auto& [body, expected] : cases) {
        CHotmailMessage m;
        m.mLength = "1200";
        m.mBody = core::SpoolText::Store(body);
        const std::string whole = "+OK 1200 octets\r\nX-Application: Tarnwick Gateway - 0.2.0\r\n" + expected;
        EXPECT_EQ(R::BuildRETRResponse(m, "Tarnwick Gateway", "0.2.0"), whole) << testing::PrintToString(body);
        for (std::size_t pieceBytes = 1; pieceBytes <= 4; ++pieceBytes) {
            EXPECT_EQ(core::ReadAllPieces(*R::RETRResponsePieces(m, "Tarnwick Gateway", "0.2.0", pieceBytes)), whole)
                << testing::PrintToString(body) << " in pieces of " << pieceBytes;
        }
    }
}

TEST(Pop3Mailbox, MessageNumbersAreSixteenBitAndNameALoadedRecord) {
    const std::pair<std::string, std::int16_t> accepted[] = {{"1", 1},   {"02", 2},  {"  7  ", 7},
                                                             {"1.5", 2}, {"2.5", 2}, {"32767", 32767}};
    for (const auto& [argument, n] : accepted) EXPECT_EQ(CPop3Mailbox::ParseMessageNumber(argument, 32767), n);

    struct Refused {
        std::string argument;
        std::int32_t number;
        std::string description;
    };
    const Refused refused[] = {
        {"", 5, "Message number required"},    {"0", 9, "No such message"},           {"0.5", 9, "No such message"},
        {"-1", 9, "No such message"},          {"3", 9, "No such message"},           {"32768", 9, "No such message"},
        {"abc", 13, "Invalid message number"}, {"1 2", 13, "Invalid message number"},
    };
    for (const Refused& r : refused) {
        try {
            CPop3Mailbox::ParseMessageNumber(r.argument, 2);
            ADD_FAILURE() << "accepted [" << r.argument << "]";
        } catch (const core::Error& e) {
            EXPECT_EQ(e.Number(), r.number) << "[" << r.argument << "]";
            EXPECT_EQ(e.Description(), r.description) << "[" << r.argument << "]";
        }
    }
}

}  // namespace
