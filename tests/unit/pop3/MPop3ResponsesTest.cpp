// The unique-id rule and the RETR response in pieces. (The other answers, and the reading of message numbers,
// are checked byte for byte in the POP3 dialogue.)
#include <gtest/gtest.h>

#include <string>

#include "servers/pop3/MPop3Responses.h"

namespace {

namespace R = servers::pop3::MPop3Responses;
using mailservice::CHotmailMessage;

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

}  // namespace
