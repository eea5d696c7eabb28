#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "core/Error.h"
#include "servers/pop3/MPop3Responses.h"

namespace {

namespace R = servers::pop3::MPop3Responses;
using mailservice::CHotmailMessage;

R::MessagePtr Message(const std::string& index, const std::string& length, const std::string& id = "",
                      const std::string& from = "", std::int16_t read = 0, const std::string& body = "") {
    auto m = std::make_shared<CHotmailMessage>();
    m->mIndex = index;
    m->mLength = length;
    m->mMessageID = id;
    m->mFrom = from;
    m->mRead = read;
    m->mBody = body;
    return m;
}

// Short printable form of a case's text, so that test names stay readable.
std::string Shown(const std::string& text) {
    std::string out;
    for (unsigned char c : text.substr(0, 24)) {
        if (c >= 0x21 && c < 0x7F)
            out += static_cast<char>(c);
        else
            out += '_';
    }
    return "[" + out + (text.size() > 24 ? "...]" : "]");
}

R::MessageList TwoMessages() {
    R::MessageList list;
    list.Add(Message("1", "1200", "msg-a", "Ann Example <ann@example.org>"), "1");
    list.Add(Message("2", "830", "msg-b", "bob@example.org"), "2");
    return list;
}

TEST(Pop3MailboxTexts, EmptyMailboxAnswersStatListAndUidl) {
    const R::MessageList empty;
    EXPECT_EQ(R::BuildSTATResponse(0, 0), "+OK 0 0");
    EXPECT_EQ(R::BuildLISTResponse(empty, 0, 0), "+OK 0 messages (0 octets)\r\n.");
    EXPECT_EQ(R::BuildUIDLResponse(empty), "+OK \r\n.");
}

TEST(Pop3MailboxTexts, WholeListsNumberTheRecordsFromOne) {
    const R::MessageList list = TwoMessages();
    EXPECT_EQ(R::BuildSTATResponse(2, 2030), "+OK 2 2030");
    EXPECT_EQ(R::BuildSTATResponse(32767, 2147483647), "+OK 32767 2147483647");
    EXPECT_EQ(R::BuildLISTResponse(list, 2, 2030), "+OK 2 messages (2030 octets)\r\n1 1200\r\n2 830\r\n.");
    EXPECT_EQ(R::BuildUIDLResponse(list),
              "+OK \r\n1 msg-a:Ann:Example:<ann:example.org>\r\n2 msg-b:bob:example.org\r\n.");
}

// One-message answers echo the argument byte for byte, whatever form of the number selected the record.
struct ItemCase {
    const char* argument;
    const char* list;
    const char* uidl;
};

void PrintTo(const ItemCase& c, std::ostream* os) { *os << Shown(c.argument); }

class Pop3ItemAnswer : public ::testing::TestWithParam<ItemCase> {};

TEST_P(Pop3ItemAnswer, EchoesTheArgumentAsSent) {
    const R::MessageList list = TwoMessages();
    const ItemCase& c = GetParam();
    const R::MessagePtr& m = R::SelectMessage(list, c.argument);
    EXPECT_EQ(R::BuildLISTItemResponse(c.argument, *m), c.list);
    EXPECT_EQ(R::BuildUIDLItemResponse(c.argument, *m), c.uidl);
}

INSTANTIATE_TEST_SUITE_P(
    Arguments, Pop3ItemAnswer,
    ::testing::Values(ItemCase{"1", "+OK 1 1200", "+OK 1 msg-a:Ann:Example:<ann:example.org>"},
                      ItemCase{"02", "+OK 02 830", "+OK 02 msg-b:bob:example.org"},
                      ItemCase{" 1", "+OK  1 1200", "+OK  1 msg-a:Ann:Example:<ann:example.org>"},
                      ItemCase{"2 ", "+OK 2  830", "+OK 2  msg-b:bob:example.org"},
                      ItemCase{"1.5", "+OK 1.5 830", "+OK 1.5 msg-b:bob:example.org"},  // halves to even
                      ItemCase{"2.5", "+OK 2.5 830", "+OK 2.5 msg-b:bob:example.org"},  // halves to even
                      ItemCase{"1.4", "+OK 1.4 1200", "+OK 1.4 msg-a:Ann:Example:<ann:example.org>"}));

struct RefusedCase {
    const char* argument;
    std::int32_t number;
    const char* description;
};

void PrintTo(const RefusedCase& c, std::ostream* os) { *os << Shown(c.argument); }

class Pop3MessageNumberRefused : public ::testing::TestWithParam<RefusedCase> {};

TEST_P(Pop3MessageNumberRefused, WithAClearDescription) {
    const R::MessageList list = TwoMessages();
    const RefusedCase& c = GetParam();
    try {
        R::SelectMessage(list, c.argument);
        FAIL() << "accepted [" << c.argument << "]";
    } catch (const core::Error& e) {
        EXPECT_EQ(e.Number(), c.number) << "[" << c.argument << "]";
        EXPECT_EQ(e.Description(), c.description) << "[" << c.argument << "]";
    }
}

INSTANTIATE_TEST_SUITE_P(Arguments, Pop3MessageNumberRefused,
                         ::testing::Values(RefusedCase{"", R::kNoMessageNumberError, R::kNoMessageNumberText},
                                           RefusedCase{"0", R::kNoSuchMessageError, R::kNoSuchMessageText},
                                           RefusedCase{"0.5", R::kNoSuchMessageError,
                                                       R::kNoSuchMessageText},  // rounds to 0
                                           RefusedCase{"-1", R::kNoSuchMessageError, R::kNoSuchMessageText},
                                           RefusedCase{"3", R::kNoSuchMessageError, R::kNoSuchMessageText},
                                           RefusedCase{"32767", R::kNoSuchMessageError, R::kNoSuchMessageText},
                                           RefusedCase{"32768", R::kNoSuchMessageError, R::kNoSuchMessageText},
                                           RefusedCase{"99999999999", R::kNoSuchMessageError, R::kNoSuchMessageText},
                                           RefusedCase{"abc", R::kNotANumberError, R::kNotANumberText},
                                           RefusedCase{"1 2", R::kNotANumberError, R::kNotANumberText},
                                           RefusedCase{"#1", R::kNotANumberError, R::kNotANumberText}));

TEST(Pop3MessageNumber, LargestSixteenBitNumberIsUsable) {
    EXPECT_EQ(R::ParseMessageNumber("32767", 32767), 32767);
    EXPECT_EQ(R::ParseMessageNumber("  7  ", 10), 7);
}

struct UniqueIdCase {
    std::string id;
    std::string from;
    std::string expected;
};

void PrintTo(const UniqueIdCase& c, std::ostream* os) { *os << Shown(c.id) << Shown(c.from); }

class Pop3UniqueId : public ::testing::TestWithParam<UniqueIdCase> {};

TEST_P(Pop3UniqueId, FollowsTheRule) {
    EXPECT_EQ(R::GetUIDLUniqueID(GetParam().id, GetParam().from), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Senders, Pop3UniqueId,
    ::testing::Values(UniqueIdCase{"MSG1", "\"Ann B. Example\" <ann@example.org>",
                                   "MSG1:\"Ann:B.:Example\":<ann:example.org>"},
                      UniqueIdCase{"MSG2", "", "MSG2:"},
                      // Only "@" and space change: tabs, the id's own characters and bytes above 0x7F stay.
                      UniqueIdCase{"a b@c", "x\ty\xE9@z", "a b@c:x\ty\xE9:z"},
                      // Cut to 69 characters exactly.
                      UniqueIdCase{std::string(60, 'i'), "someone@example.org", std::string(60, 'i') + ":someone:"},
                      UniqueIdCase{std::string(69, 'i'), "x", std::string(69, 'i')},
                      UniqueIdCase{std::string(67, 'i'), "x", std::string(67, 'i') + ":x"}));

TEST(Pop3UniqueId, LengthLimitIsSixtyNine) {
    EXPECT_EQ(R::kUniqueIdMaxLength, 69u);
    EXPECT_EQ(R::GetUIDLUniqueID(std::string(100, 'x'), std::string(100, 'y')).size(), 69u);
}

// RETR answers byte for byte: size line, X-Application line, stuffed body, CR LF and "." (the frame adds the
// final CR LF).
struct RetrCase {
    const char* name;
    std::string body;
    std::string expectedBody;  // what follows the two header lines, up to and including "."
};

void PrintTo(const RetrCase& c, std::ostream* os) { *os << c.name; }

class Pop3RetrResponse : public ::testing::TestWithParam<RetrCase> {};

TEST_P(Pop3RetrResponse, IsExact) {
    CHotmailMessage m;
    m.mLength = "1200";
    m.mBody = GetParam().body;
    EXPECT_EQ(R::BuildRETRResponse(m, "Tarnwick Gateway", "0.2.0"),
              "+OK 1200 octets\r\nX-Application: Tarnwick Gateway - 0.2.0\r\n" + GetParam().expectedBody);
}

INSTANTIATE_TEST_SUITE_P(
    Bodies, Pop3RetrResponse,
    ::testing::Values(RetrCase{"EndsInCrLf", "Subject: a\r\n\r\nhello\r\n", "Subject: a\r\n\r\nhello\r\n\r\n."},
                      RetrCase{"NoFinalCrLf", "Subject: a\r\n\r\nhello", "Subject: a\r\n\r\nhello\r\n."},
                      RetrCase{"Empty", "", "\r\n."}, RetrCase{"OneDot", "A\r\n.\r\n.x\r\n", "A\r\n..\r\n..x\r\n\r\n."},
                      RetrCase{"TwoDots", "A\r\n..x\r\n", "A\r\n...x\r\n\r\n."},
                      RetrCase{"DotFirstByte", ".start\r\nB", "..start\r\nB\r\n."},
                      RetrCase{"DotInsideLine", "a.b\r\n x.\r\n", "a.b\r\n x.\r\n\r\n."},
                      // Only CR LF starts a line: a dot after a bare LF or a bare CR stays as it is.
                      RetrCase{"BareLineEnds", "a\n.b\r.c\r\n", "a\n.b\r.c\r\n\r\n."},
                      RetrCase{"EightBit", std::string("Subject: \xC3\xA9t\xE9\r\n\r\n\xFF\x80\x7F\r\n"),
                               std::string("Subject: \xC3\xA9t\xE9\r\n\r\n\xFF\x80\x7F\r\n\r\n.")},
                      RetrCase{"NulByte", std::string("a\0b\r\n", 5), std::string("a\0b\r\n\r\n.", 8)}));

TEST(Pop3RetrResponse, TwentyMegabyteBodyComesWholeAndStuffed) {
    constexpr std::size_t kLines = 20 * 1024 * 1024 / 64;
    std::string body;
    body.reserve(kLines * 64);
    const std::string plain = std::string(62, 'x') + "\r\n";
    const std::string dotted = "." + std::string(61, 'y') + "\r\n";
    for (std::size_t i = 0; i < kLines; ++i) body += (i % 1000 == 999) ? dotted : plain;
    CHotmailMessage m;
    m.mLength = std::to_string(body.size());
    m.mBody = body;

    const std::string out = R::BuildRETRResponse(m, "Tarnwick Gateway", "0.2.0");
    const std::string head = "+OK " + m.mLength + " octets\r\nX-Application: Tarnwick Gateway - 0.2.0\r\n";
    const std::size_t stuffed = kLines / 1000;
    ASSERT_EQ(out.size(), head.size() + body.size() + stuffed + 3);
    EXPECT_EQ(out.compare(0, head.size(), head), 0);
    EXPECT_EQ(out.substr(out.size() - 5), "\r\n\r\n.");
    const std::string firstStuffed = ".." + std::string(61, 'y') + "\r\n";
    EXPECT_EQ(out.compare(head.size() + 999 * 64, firstStuffed.size(), firstStuffed), 0);
}

TEST(Pop3MailboxLoad, ReadMessagesLeaveTheSharedListInOrder) {
    auto list = core::MakeCollection<R::MessagePtr>();
    list->Add(Message("1", "10", "a", "", 1), "1");
    list->Add(Message("2", "20", "b", "", 0), "2");
    list->Add(Message("3", "30", "c", "", -1), "3");
    list->Add(Message("4", "40", "d", "", 0), "4");
    list->Add(Message("5", "50", "e", "", 1), "5");
    const auto sameList = list;  // the service client's own collection
    R::RemoveReadMessages(*list);
    ASSERT_EQ(sameList->Count(), 2);
    EXPECT_EQ(sameList->Item(1)->mMessageID, "b");
    EXPECT_EQ(sameList->Item(2)->mMessageID, "d");
    EXPECT_EQ(R::CountMessages(*list), 2);
    EXPECT_EQ(R::SumMessageSizes(*list), 60);
}

struct SizeCase {
    std::vector<const char*> lengths;
    std::int32_t expected;
};

void PrintTo(const SizeCase& c, std::ostream* os) {
    for (const char* length : c.lengths) *os << Shown(length);
}

class Pop3MailboxSize : public ::testing::TestWithParam<SizeCase> {};

TEST_P(Pop3MailboxSize, SumsAsDecimalsAndRounds) {
    R::MessageList list;
    int i = 0;
    for (const char* length : GetParam().lengths) list.Add(Message(std::to_string(++i), length));
    EXPECT_EQ(R::SumMessageSizes(list), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Lengths, Pop3MailboxSize,
                         ::testing::Values(SizeCase{{}, 0}, SizeCase{{"1200", "830"}, 2030}, SizeCase{{" 7 ", "3"}, 10},
                                           SizeCase{{"0.5"}, 0}, SizeCase{{"1.5", "1"}, 2},
                                           SizeCase{{"1.25", "1.25"}, 2},
                                           SizeCase{{"2000000000", "147483647"}, 2147483647}));

TEST(Pop3MailboxSize, RefusesWhatDoesNotFit) {
    R::MessageList notNumeric;
    notNumeric.Add(Message("1", "12k"));
    try {
        R::SumMessageSizes(notNumeric);
        FAIL() << "accepted 12k";
    } catch (const core::Error& e) {
        EXPECT_EQ(e.Number(), core::ErrorNumber::kTypeMismatch);
    }
    R::MessageList tooLarge;
    tooLarge.Add(Message("1", "2000000000"));
    tooLarge.Add(Message("2", "147483648"));
    try {
        R::SumMessageSizes(tooLarge);
        FAIL() << "accepted a total beyond 32 bits";
    } catch (const core::Error& e) {
        EXPECT_EQ(e.Number(), core::ErrorNumber::kOverflow);
    }
}

}  // namespace
