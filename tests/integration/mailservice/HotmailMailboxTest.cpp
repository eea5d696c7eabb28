// The mailbox listing and the message fetch.
#include "HotmailTestSupport.h"
#include "platform/http/HttpRequest.h"

using namespace hotmail_test;
using testing_support::DavReply;
using testing_support::ScriptedReply;

namespace {

class HotmailListingTest : public HotmailTest {
protected:
    // Scripts a listing of `messages` and one GET reply per message, then lists /inbox.
    void List(const std::vector<ListedMessage>& messages) {
        svc_.Enqueue(DavReply(ListingReply(messages)));
        for (const ListedMessage& m : messages) svc_.Enqueue(ScriptedReply{200, {}, "body of " + m.id, false});
        mail_.ParseMailboxInfo(svc_.Url("/inbox"));
    }
    ListedMessage Message(const std::string& id) {
        ListedMessage m;
        m.href = svc_.Url("/msg/" + id);
        m.id = id;
        return m;
    }
};

TEST_F(HotmailListingTest, ListingFetchesEveryMessageAndKeysRecordsByPosition) {
    auto a = Message("A");
    a.read = "1";
    a.length = "2048";
    a.attachment = "1";
    auto b = Message("B");
    b.date = "2001-12-31T23:05:09";
    List({a, b, Message("C")});

    const auto reqs = svc_.Requests();
    ASSERT_EQ(reqs.size(), 4u);
    EXPECT_EQ(reqs[0].method, "PROPFIND");
    EXPECT_EQ(reqs[0].path, "/inbox");
    EXPECT_EQ(reqs[0].body, "");
    EXPECT_FALSE(reqs[0].Header("Depth"));
    EXPECT_TRUE(reqs[0].ExtraHeaderNames().empty());
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(reqs[i].method, "GET");
        EXPECT_EQ(reqs[i].path, std::string("/msg/") + "ABC"[i - 1]);
        EXPECT_EQ(reqs[i].body, "");
        EXPECT_TRUE(reqs[i].ExtraHeaderNames().empty());
    }

    const auto mails = mail_.GetMailCollection();
    ASSERT_EQ(mails->Count(), 3);
    for (int p = 1; p <= 3; ++p) {
        const std::string id(1, "ABC"[p - 1]);
        const auto& m = *mails->Item(p);
        EXPECT_EQ(m.mIndex, std::to_string(p));
        EXPECT_EQ(mails->Item(std::to_string(p)).get(), &m);
        EXPECT_EQ(m.mMessageID, id);
        EXPECT_EQ(m.mURL, svc_.Url("/msg/" + id));
        EXPECT_EQ(m.mTo, "to-" + id);
        EXPECT_EQ(m.mFrom, "from-" + id);
        EXPECT_EQ(m.mFromAddress, id + "@example.invalid");
        EXPECT_EQ(m.mBody, "body of " + id);
    }
    EXPECT_EQ(mails->Item(1)->mRead, 1);
    EXPECT_EQ(mails->Item(2)->mRead, 0);
    EXPECT_EQ(mails->Item(1)->mLength, "2048");
    EXPECT_TRUE(mails->Item(1)->mHasAttachment);
    EXPECT_FALSE(mails->Item(2)->mHasAttachment);
    EXPECT_EQ(mails->Item(1)->mDate, "14/05/2002 10:21:13");
    EXPECT_EQ(mails->Item(2)->mDate, "31/12/2001 23:05:09");
    EXPECT_EQ(mail_.HotmailError(), "200 No error");
}

TEST_F(HotmailListingTest, FieldsComeFromTheIthElementOfTheWholeReply) {
    auto b = Message("B");
    b.subject.reset();
    b.read.reset();
    b.date.reset();
    auto c = Message("C");
    c.subject = "third";
    c.read = "1";
    auto a = Message("A");
    a.subject = "first";
    List({a, b, c});
    const auto mails = mail_.GetMailCollection();
    ASSERT_EQ(mails->Count(), 3);
    EXPECT_EQ(mails->Item(1)->mSubject, "first");
    EXPECT_EQ(mails->Item(2)->mSubject, "third");
    EXPECT_EQ(mails->Item(3)->mSubject, "");
    EXPECT_EQ(mails->Item(2)->mRead, 1);
    EXPECT_EQ(mails->Item(3)->mRead, 0);
    EXPECT_EQ(mails->Item(3)->mDate, "");
    EXPECT_EQ(mails->Item(3)->mBody, "body of C");
    EXPECT_FALSE(core::MErrorHandler::HasKeptError());
}

TEST_F(HotmailListingTest, EntryBeyondTheLastPropertyListGetsOnlyItsAddress) {
    // Two entries but one property list: entry 1 keeps its values in an element of another name. Values are
    // the i-th of each name over the whole reply (so entry 1 gets A's), but entry 2 has no property list 2
    // to search from, so it keeps only its address, index and body although a second D:id exists.
    svc_.Enqueue(
        DavReply("<?xml version='1.0'?><D:multistatus xmlns:D='DAV:' xmlns:m='urn:m' xmlns:hm='urn:schemas:tarnwick:'>"
                 "<D:response><D:href>" +
                 svc_.Url("/msg/A") +
                 "</D:href><D:propstat><D:other><D:id>A</D:id>"
                 "<m:subject>first</m:subject><D:getcontentlength>11</D:getcontentlength><hm:read>0</hm:read>"
                 "</D:other></D:propstat></D:response>"
                 "<D:response><D:href>" +
                 svc_.Url("/msg/B") +
                 "</D:href><D:propstat><D:prop><D:id>B</D:id>"
                 "<m:subject>second</m:subject><D:getcontentlength>12</D:getcontentlength><hm:read>1</hm:read>"
                 "</D:prop></D:propstat></D:response></D:multistatus>"));
    svc_.Enqueue(ScriptedReply{200, {}, "body of A", false});
    svc_.Enqueue(ScriptedReply{200, {}, "body of B", false});
    mail_.ParseMailboxInfo(svc_.Url("/inbox"));
    const auto mails = mail_.GetMailCollection();
    ASSERT_EQ(mails->Count(), 2);
    EXPECT_EQ(mails->Item(1)->mMessageID, "A");
    EXPECT_EQ(mails->Item(1)->mSubject, "first");
    EXPECT_EQ(mails->Item(1)->mLength, "11");
    EXPECT_EQ(mails->Item(2)->mIndex, "2");
    EXPECT_EQ(mails->Item(2)->mURL, svc_.Url("/msg/B"));
    EXPECT_EQ(mails->Item(2)->mMessageID, "");
    EXPECT_EQ(mails->Item(2)->mSubject, "");
    EXPECT_EQ(mails->Item(2)->mLength, "");
    EXPECT_EQ(mails->Item(2)->mRead, 0);
    EXPECT_EQ(mails->Item(2)->mBody, "body of B");
}

TEST_F(HotmailListingTest, UnreadableValuesLeaveTheirFieldsAtTheirStartValues) {
    auto a = Message("A");
    a.read = "yes";
    a.date = "14 May 2002";
    auto b = Message("B");
    b.date = "2002-13-40T10:21:13";
    List({a, b});
    const auto mails = mail_.GetMailCollection();
    ASSERT_EQ(mails->Count(), 2);
    EXPECT_EQ(mails->Item(1)->mRead, 0);
    EXPECT_EQ(mails->Item(1)->mDate, "");
    EXPECT_EQ(mails->Item(2)->mDate, "");
    EXPECT_EQ(mails->Item(1)->mSubject, "Subject");
}

TEST_F(HotmailListingTest, MessageThatCannotBeFetchedIsStillListedWithoutBody) {
    auto b = Message("B");
    b.href = "http://127.0.0.1:" + std::to_string(testing_support::ClosedLoopbackPort()) + "/gone";
    svc_.Enqueue(DavReply(ListingReply({Message("A"), b, Message("C")})));
    svc_.Enqueue(ScriptedReply{200, {}, "body of A", false});
    svc_.Enqueue(ScriptedReply{200, {}, "body of C", false});
    ASSERT_NO_THROW(mail_.ParseMailboxInfo(svc_.Url("/inbox")));
    const auto mails = mail_.GetMailCollection();
    ASSERT_EQ(mails->Count(), 3);
    EXPECT_EQ(mails->Item(2)->mBody, "");
    EXPECT_EQ(mails->Item(2)->mMessageID, "B");
    EXPECT_EQ(mails->Item(3)->mBody, "body of C");
    EXPECT_EQ(KeptError().Source(), "GetMessage Method");
}

TEST_F(HotmailListingTest, ReplyWithoutEntriesOrNotXmlGivesAnEmptyListing) {
    for (const std::string& reply :
         {std::string("<D:multistatus xmlns:D='DAV:'/>"), std::string("<html>oops"), std::string()}) {
        svc_.Enqueue(DavReply(reply));
        ASSERT_NO_THROW(mail_.ParseMailboxInfo(svc_.Url("/inbox")));
        EXPECT_EQ(mail_.GetMailCollection()->Count(), 0) << reply;
    }
    EXPECT_EQ(svc_.Requests().size(), 3u);
    EXPECT_FALSE(core::MErrorHandler::HasKeptError());
}

TEST_F(HotmailListingTest, SecondListingReplacesTheCollectionButNotWhatCallersHold) {
    List({Message("A"), Message("B")});
    const auto first = mail_.GetMailCollection();
    first->Remove("1");
    EXPECT_EQ(mail_.GetMailCollection()->Count(), 1);  // shared, not a copy
    List({Message("C")});
    EXPECT_EQ(first->Count(), 1);
    EXPECT_EQ(first->Item(1)->mMessageID, "B");
    ASSERT_EQ(mail_.GetMailCollection()->Count(), 1);
    EXPECT_EQ(mail_.GetMailCollection()->Item("1")->mMessageID, "C");
}

TEST_F(HotmailListingTest, ListingThatFailsLeavesANewEmptyCollection) {
    List({Message("A")});
    svc_.Enqueue(ScriptedReply{200, {}, ListingReply({Message("B")}), false});
    const core::Error e = RaisedBy([&] { mail_.ParseMailboxInfo(svc_.Url("/inbox")); });
    EXPECT_EQ(e.Source(), "GetMailInfo Method");
    EXPECT_EQ(e.Number(), platform::HttpError::kHeaderNotFound);
    EXPECT_EQ(e.Description(), "The requested header was not found");
    EXPECT_EQ(mail_.GetMailCollection()->Count(), 0);
    EXPECT_EQ(svc_.Requests().size(), 3u);  // no message fetched
}

TEST_F(HotmailListingTest, MessageTextComesBackByteForByteAndNothingIsStored) {
    std::string body = "Subject: caf\xC3\xA9\r\n\r\nlatin1 \xE9\xFF\x80 and a NUL ";
    body.push_back('\0');
    body += "\r\n";
    mail_.SetHotmailError("untouched");
    svc_.Enqueue(ScriptedReply{404, {}, body, false});
    EXPECT_EQ(mail_.GetMessage(svc_.Url("/m/1")), body);
    EXPECT_EQ(mail_.HotmailError(), "untouched");
    svc_.Enqueue(DavReply("page", 500, "500 changed"));
    EXPECT_EQ(mail_.GetMessage(svc_.Url("/m/2")), "page");
    EXPECT_EQ(mail_.HotmailError(), "untouched");
}

TEST_F(HotmailListingTest, TwentyMegabyteMessageIsFetchedWhole) {
    std::string big(20 * 1024 * 1024, '\0');
    for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 131 % 251);
    auto a = Message("A");
    svc_.Enqueue(DavReply(ListingReply({a})));
    svc_.Enqueue(ScriptedReply{200, {}, big, false});
    mail_.ParseMailboxInfo(svc_.Url("/inbox"));
    ASSERT_EQ(mail_.GetMailCollection()->Count(), 1);
    const std::string& got = mail_.GetMailCollection()->Item(1)->mBody;
    ASSERT_EQ(got.size(), big.size());
    EXPECT_TRUE(got == big);
}

}  // namespace
