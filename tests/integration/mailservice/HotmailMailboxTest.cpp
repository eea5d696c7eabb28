// The mailbox listing and the message fetch.
#include "tests/support/HotmailTestSupport.h"

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
    List({a, b});

    const auto reqs = svc_.Requests();
    ASSERT_EQ(reqs.size(), 3u);
    EXPECT_EQ(reqs[0].method, "PROPFIND");
    EXPECT_EQ(reqs[0].path, "/inbox");
    EXPECT_EQ(reqs[0].body, "");
    EXPECT_TRUE(reqs[0].ExtraHeaderNames().empty());
    EXPECT_EQ(reqs[2].method, "GET");
    EXPECT_EQ(reqs[2].path, "/msg/B");
    EXPECT_TRUE(reqs[2].ExtraHeaderNames().empty());

    const auto mails = mail_.GetMailCollection();
    ASSERT_EQ(mails->Count(), 2);
    const auto& m = *mails->Item(2);
    EXPECT_EQ(mails->Item(std::string("2")).get(), &m);
    EXPECT_EQ(m.mIndex, "2");
    EXPECT_EQ(m.mMessageID, "B");
    EXPECT_EQ(m.mURL, svc_.Url("/msg/B"));
    EXPECT_EQ(m.mSubject + "|" + m.mTo + "|" + m.mFrom + "|" + m.mFromAddress,
              "Subject|to-B|from-B|B@example.invalid");
    EXPECT_EQ(m.mBody.ReadAll(), "body of B");
    EXPECT_EQ(m.mDate, "31/12/2001 23:05:09");
    EXPECT_EQ(m.mRead, 0);
    EXPECT_FALSE(m.mHasAttachment);
    EXPECT_EQ(mails->Item(1)->mRead, 1);
    EXPECT_EQ(mails->Item(1)->mLength, "2048");
    EXPECT_TRUE(mails->Item(1)->mHasAttachment);
    EXPECT_EQ(mails->Item(1)->mDate, "14/05/2002 10:21:13");
}

// Each field is the i-th element of its name over the whole reply, so a message without a subject takes the
// next one's; a date that is missing or unreadable leaves the field empty instead.
TEST_F(HotmailListingTest, FieldsComeFromTheIthElementOfTheWholeReply) {
    auto a = Message("A");
    a.subject = "first";
    auto b = Message("B");
    b.subject.reset();
    b.read.reset();
    b.date.reset();
    auto c = Message("C");
    c.subject = "third";
    c.read = "yes";
    c.date = "2002-13-40T10:21:13";
    List({a, b, c});
    const auto mails = mail_.GetMailCollection();
    ASSERT_EQ(mails->Count(), 3);
    EXPECT_EQ(mails->Item(2)->mSubject, "third");
    EXPECT_EQ(mails->Item(3)->mSubject, "");
    EXPECT_EQ(mails->Item(2)->mDate, "");
    EXPECT_EQ(mails->Item(3)->mDate, "");
    EXPECT_EQ(mails->Item(2)->mRead, 0);
    EXPECT_EQ(mails->Item(3)->mBody.ReadAll(), "body of C");
    EXPECT_FALSE(core::MErrorHandler::HasKeptError());
}

TEST_F(HotmailListingTest, EntryBeyondTheLastPropertyListGetsOnlyItsAddress) {
    // Entry 1 keeps its values in an element of another name, so there is one property list for two entries:
    // entry 2 has no property list 2 to search from and keeps only address, index and body.
    svc_.Enqueue(DavReply("<?xml version='1.0'?><D:multistatus xmlns:D='DAV:' xmlns:m='urn:m'>"
                          "<D:response><D:href>" + svc_.Url("/msg/A") + "</D:href><D:propstat><D:other><D:id>A</D:id>"
                          "<m:subject>first</m:subject></D:other></D:propstat></D:response>"
                          "<D:response><D:href>" + svc_.Url("/msg/B") + "</D:href><D:propstat><D:prop><D:id>B</D:id>"
                          "<m:subject>second</m:subject></D:prop></D:propstat></D:response></D:multistatus>"));
    svc_.Enqueue(ScriptedReply{200, {}, "body of A", false});
    svc_.Enqueue(ScriptedReply{200, {}, "body of B", false});
    mail_.ParseMailboxInfo(svc_.Url("/inbox"));
    const auto mails = mail_.GetMailCollection();
    ASSERT_EQ(mails->Count(), 2);
    EXPECT_EQ(mails->Item(1)->mMessageID, "A");
    EXPECT_EQ(mails->Item(1)->mSubject, "first");
    EXPECT_EQ(mails->Item(2)->mURL, svc_.Url("/msg/B"));
    EXPECT_EQ(mails->Item(2)->mMessageID, "");
    EXPECT_EQ(mails->Item(2)->mSubject, "");
    EXPECT_EQ(mails->Item(2)->mBody.ReadAll(), "body of B");
}

TEST_F(HotmailListingTest, MessageTextComesBackByteForByteWhateverTheStatusAndNothingIsStored) {
    std::string body = "Subject: caf\xC3\xA9\r\n\r\nlatin1 \xE9\xFF\x80 and a NUL ";
    body.push_back('\0');
    mail_.SetHotmailError("untouched");
    svc_.Enqueue(DavReply(body, 404, "404 changed"));
    EXPECT_EQ(mail_.GetMessage(svc_.Url("/m/1")), body);
    EXPECT_EQ(mail_.HotmailError(), "untouched");
}

}  // namespace
