// The service client against a scripted service: the log-in's addresses read by position, the folder and
// mailbox listings with their quirks, flagging, deleting and sending, and how every reading operation judges a
// reply. (The request bodies are the service's fixed texts: the end-to-end tests prove the service takes them.)
#include <functional>

#include "tests/support/HotmailTestSupport.h"

using namespace hotmail_test;
using testing_support::DavReply;
using testing_support::FakeWebDavService;
using testing_support::ScriptedReply;

namespace {

mailservice::IdCollectionPtr Ids(const std::vector<std::string>& ids) {
    auto c = core::MakeCollection<std::string>();
    for (const auto& id : ids) c->Add(id);
    return c;
}

TEST_F(HotmailTest, LogInReadsTheSevenAddressesByPositionThenListsTheRootFolder) {
    LogIn({{"/f/1", "Inbox"}});
    EXPECT_EQ((std::vector<std::string>{mail_.AdPaneURL(), mail_.ContactsURL(), mail_.InboxURL(), mail_.OutboxURL(),
                                        mail_.SentItemsURL(), mail_.TrashURL(), mail_.RootFolderURL()}),
              Addresses());
    EXPECT_EQ(mail_.BaseRefURL(), svc_.Url("/base"));
    ASSERT_EQ(svc_.Requests().size(), 2u);
    EXPECT_EQ(svc_.Requests()[1].path, "/root");
    EXPECT_FALSE(core::MErrorHandler::HasKeptError());
}

TEST_F(HotmailTest, ShortPropertyListFillsWhatIsThereAndTheFolderListingStillRuns) {
    mail_.SetTrashURL("old trash");
    mail_.SetRootFolderURL(svc_.Url("/oldroot"));
    svc_.Enqueue(DavReply(LoginReply("/b", {"ad", "contacts", "inbox", "outbox", "sent"})));
    svc_.Enqueue(DavReply(FolderReply({{"/f/1", "One"}})));
    EXPECT_TRUE(mail_.Connect());
    EXPECT_EQ(mail_.SentItemsURL(), "sent");
    EXPECT_EQ(mail_.TrashURL(), "old trash");
    EXPECT_EQ(KeptError().Source(), "RetrievFolderURLs Method");
    EXPECT_EQ(KeptError().Number(), core::ErrorNumber::kObjectNotSet);
    ASSERT_EQ(svc_.Requests().size(), 2u);
    EXPECT_EQ(svc_.Requests()[1].path, "/oldroot");
    EXPECT_EQ(mail_.GetFolderCollection()->Count(), 1);
}

TEST_F(HotmailTest, FolderListingAppendsOnEveryRunAndAnEntryWithoutDisplayNameEndsIt) {
    LogIn({{"/f/in", "Inbox"}, {"/f/x", "Caf\xC3\xA9"}});
    LogIn({{"/f/1", "One"}, {"/f/2", "Two", true}, {"/f/3", "Three"}});
    const auto list = mail_.GetFolderCollection();
    ASSERT_EQ(list->Count(), 3);
    EXPECT_EQ(list->Item(2)->fUrl, "/f/x");
    EXPECT_EQ(list->Item(2)->fName, "Caf\xC3\xA9");
    EXPECT_EQ(list->Item(3)->fName, "One");
    EXPECT_EQ(KeptError().Source(), "ParseFolderInfo Method");

    // A folder reply that is not XML lists nothing and is no failure.
    core::MErrorHandler::ResetForTesting();
    svc_.Enqueue(DavReply(LoginReply("/b", Addresses())));
    svc_.Enqueue(DavReply("not xml at all"));
    EXPECT_TRUE(mail_.Connect());
    EXPECT_EQ(list->Count(), 3);
    EXPECT_FALSE(core::MErrorHandler::HasKeptError());
}

// The first load of a mailbox of n messages costs n + 3 requests and one challenge: after the first exchange
// every request carries the credentials Connect gave the request layer.
TEST(HotmailAuthTest, LoadOfNMessagesMakesNPlusThreeRequestsAndOneChallenge) {
    constexpr int kMessages = 6;
    core::MErrorHandler::ResetForTesting();
    FakeWebDavService svc(FakeWebDavService::Auth::Basic, "joe@example.invalid", "p\xC3\xA4ss");
    mailservice::CHotmail::SetServiceEntryURL(svc.Url(kEntryPath));
    mailservice::CHotmail m;
    m.SetUserName("joe@example.invalid");
    m.SetPassword("p\xC3\xA4ss");
    std::vector<ListedMessage> listed(kMessages);
    for (int i = 0; i < kMessages; ++i) listed[i].href = svc.Url("/m/" + std::to_string(i + 1));
    svc.Enqueue(DavReply(LoginReply("/b", {"a", "c", svc.Url("/inbox"), "o", "s", "t", svc.Url("/root")})));
    svc.Enqueue(DavReply(FolderReply({})));
    svc.Enqueue(DavReply(ListingReply(listed)));
    for (int i = 1; i <= kMessages; ++i) svc.Enqueue(DavReply("text " + std::to_string(i)));
    ASSERT_TRUE(m.Connect());
    m.SetPassword("other");  // changes nothing: the request layer keeps what Connect gave it
    ASSERT_NO_THROW(m.ParseMailboxInfo(m.InboxURL()));
    ASSERT_EQ(m.GetMailCollection()->Count(), kMessages);
    EXPECT_EQ(m.GetMailCollection()->Item(kMessages)->mBody.ReadAll(), "text " + std::to_string(kMessages));
    EXPECT_EQ(svc.Requests().size(), static_cast<std::size_t>(kMessages + 3));
    EXPECT_EQ(svc.Challenges(), 1);
}

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

// Each field is the i-th element of its name over the whole reply, so a message without a subject takes the
// next one's; a date that is missing or unreadable leaves the field empty instead. Records are keyed by position.
TEST_F(HotmailListingTest, FieldsComeFromTheIthElementOfTheWholeReply) {
    auto a = Message("A");
    a.read = "1";
    a.length = "2048";
    a.attachment = "1";
    auto b = Message("B");
    b.subject.reset();
    b.read.reset();
    b.date = "2001-12-31T23:05:09Z";
    auto c = Message("C");
    c.subject = "third";
    c.read = "yes";
    c.date = "2002-13-40T10:21:13";
    auto d = Message("D");
    d.date.reset();
    List({a, b, c, d});
    const auto mails = mail_.GetMailCollection();
    ASSERT_EQ(mails->Count(), 4);
    const struct {
        std::string subject, date, length;
        std::int16_t read;
        bool attachment;
    } expected[] = {
        {"Subject", "14/05/2002 10:21:13", "2048", 1, true},
        {"third", "31/12/2001 23:05:09", "100", 0, false},
        {"Subject", "", "100", 0, false},
        {"", "", "100", 0, false},
    };
    for (std::int32_t i = 1; i <= 4; ++i) {
        const auto& m = *mails->Item(i);
        const auto& e = expected[i - 1];
        const std::string id(1, static_cast<char>('A' + i - 1));
        EXPECT_EQ(mails->Item(std::to_string(i)).get(), &m);
        EXPECT_EQ(m.mMessageID, id);
        EXPECT_EQ(m.mURL, svc_.Url("/msg/" + id));
        EXPECT_EQ(m.mTo + "|" + m.mFrom + "|" + m.mFromAddress, "to-" + id + "|from-" + id + "|" + id + "@example.invalid");
        EXPECT_EQ(m.mBody.ReadAll(), "body of " + id);
        EXPECT_EQ(m.mSubject, e.subject) << id;
        EXPECT_EQ(m.mDate, e.date) << id;
        EXPECT_EQ(m.mLength, e.length) << id;
        EXPECT_EQ(m.mRead, e.read) << id;
        EXPECT_EQ(m.mHasAttachment, e.attachment) << id;
    }
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
    EXPECT_EQ(mails->Item(1)->mSubject, "first");
    EXPECT_EQ(mails->Item(2)->mURL, svc_.Url("/msg/B"));
    EXPECT_EQ(mails->Item(2)->mMessageID, "");
    EXPECT_EQ(mails->Item(2)->mBody.ReadAll(), "body of B");
}

// The refusal shows only in HotmailError; the operation goes on to list the folder again.
TEST_F(HotmailTest, FlaggingSendsTheFlagThenListsTheFolderAgain) {
    for (const bool read : {true, false}) {
        svc_.ClearScript();
        svc_.Enqueue(DavReply("refused", 403, "403 refused"));
        ListedMessage m;
        m.href = svc_.Url("/msg/1");
        svc_.Enqueue(DavReply(ListingReply({m}), 207, "207 listed"));
        svc_.Enqueue(ScriptedReply{200, {}, "text", false});
        if (read) {
            mail_.FlagMailRead(svc_.Url("/msg/1"), svc_.Url("/folder"));
        } else {
            mail_.FlagMailUnread(svc_.Url("/msg/1"), svc_.Url("/folder"));
        }
        const auto reqs = svc_.Requests();
        ASSERT_EQ(reqs.size(), 3u);
        EXPECT_EQ(reqs[0].method + " " + reqs[0].path, "PROPPATCH /msg/1");
        EXPECT_NE(reqs[0].body.find(std::string("<hm:read>") + (read ? "1" : "0") + "</hm:read>"), std::string::npos);
        EXPECT_EQ(reqs[1].path, "/folder");
        ASSERT_EQ(mail_.GetMailCollection()->Count(), 1);
        EXPECT_EQ(mail_.HotmailError(), "207 listed");
    }
}

TEST_F(HotmailTest, DeleteSendsTheIdsToTheTrash) {
    mail_.SetTrashURL(svc_.Url("/trash"));
    svc_.Enqueue(DavReply("moved", 207, "207 moved"));
    const std::string headers = mail_.DeleteMail(Ids({"b&2", "a1"}), svc_.Url("/inbox"));
    ASSERT_EQ(svc_.Requests().size(), 1u);
    const auto move = svc_.Requests()[0];
    EXPECT_EQ(move.method + " " + move.path, "BMOVE /inbox");
    EXPECT_NE(move.body.find("<D:target><D:href>b&amp;2</D:href><D:href>a1</D:href></D:target>"), std::string::npos);
    EXPECT_EQ(move.Header("Destination"), svc_.Url("/trash"));
    EXPECT_NE(headers.find("X-Dav-Error: 207 moved\r\n"), std::string::npos) << headers;
}

// The message read in pieces from disk goes out byte for byte, also when a stale Digest nonce makes libcurl send
// it a second time from a new reader; a piece that cannot be read fails the post with its error.
TEST(HotmailSendFromDisk, PostsTheSameBytesAsFromMemoryAndFailsWithTheReadersError) {
    core::MErrorHandler::ResetForTesting();
    FakeWebDavService svc(FakeWebDavService::Auth::Digest, "sam", "sam pw");
    mailservice::CHotmail::SetServiceEntryURL(svc.Url(kEntryPath));
    mailservice::CHotmail mail;
    mail.SetUserName("sam");
    mail.SetPassword("sam pw");
    svc.Enqueue(
        DavReply(LoginReply("/b", {"ad", "contacts", "inbox", svc.Url("/outbox"), "sent", "trash", svc.Url("/root")})));
    svc.Enqueue(DavReply(FolderReply({{"/f/inbox", "Inbox"}})));
    ASSERT_TRUE(mail.Connect());
    std::string body = "MAIL FROM:<a@example.invalid>\r\nRCPT TO:<b@example.invalid>\r\n\r\n\r\n.";
    body.push_back('\0');
    body.append(std::size_t{3} * core::SpoolText::kPieceBytes + 17, 'x');
    body += "\r\n.\r\n";
    const core::SpoolText stored = core::SpoolText::Store(body);
    int readers = 0;
    const core::TextPiecesSource source = [&] {
        ++readers;
        return stored.Pieces();
    };
    for (int i = 0; i < 2; ++i) {
        svc.ExpireNonces();
        svc.Enqueue(DavReply("queued"));
        EXPECT_NE(mail.SendMail(source, stored.Size()).find("X-Dav-Error: 200 No error\r\n"), std::string::npos);
        const auto post = svc.Requests().back();
        EXPECT_EQ(post.method + " " + post.path, "POST /outbox");
        EXPECT_TRUE(post.body == body) << "the posted text differs";
        EXPECT_EQ(post.Header("Content-Type"), "message/rfc821");
    }
    EXPECT_GE(readers, 3) << "the stale nonce's challenge sends the body again from a new reader";

    struct Failing : core::ITextPieces {
        bool Next(std::string& piece) override {
            piece.assign(1000, 'y');
            if (++calls > 2) core::Raise(core::ErrorNumber::kDeviceIo, "test");
            return true;
        }
        int calls = 0;
    };
    const core::Error e =
        testing_support::RaisedError([&] { mail.SendMail([] { return std::make_unique<Failing>(); }, 100000); });
    EXPECT_EQ(e.Number(), core::ErrorNumber::kDeviceIo);
    EXPECT_EQ(e.Source(), "SendMail Method");
}

// Every operation that reads "X-Dav-Error" fails without it and keeps the old error.
TEST_F(HotmailTest, ReplyWithoutDavErrorFailsTheOperationAndKeepsTheOldError) {
    const std::pair<const char*, std::function<void(mailservice::CHotmail&, const std::string&)>> operations[] = {
        {"GetMailInfo Method", [](auto& m, const auto& url) { m.ParseMailboxInfo(url); }},
        {"FlagMailRead Method", [](auto& m, const auto& url) { m.FlagMailRead(url, url); }},
        {"FlagMailUnread Method", [](auto& m, const auto& url) { m.FlagMailUnread(url, url); }},
        {"DeleteMail Method", [](auto& m, const auto& url) { m.DeleteMail(Ids({"1"}), url); }},
        {"MoveMail Method", [](auto& m, const auto& url) { m.MoveMail("1", url, url); }},
        {"SendMail Method", [](auto& m, const auto& url) {
             m.SetOutboxURL(url);
             m.SendMail("x");
         }},
    };
    for (const auto& [label, run] : operations) {
        core::MErrorHandler::ResetForTesting();
        mail_.SetHotmailError("old");
        const std::size_t start = svc_.Requests().size();
        svc_.Enqueue(ScriptedReply{200, {}, "<nothing/>", false});
        const core::Error e = testing_support::RaisedError([&] { run(mail_, svc_.Url("/x")); });
        EXPECT_EQ(e.Source(), label);
        EXPECT_EQ(e.Number(), core::ErrorNumber::kHttpHeaderNotFound) << label;
        EXPECT_EQ(mail_.HotmailError(), "old") << label;
        // A failed flag request ends the operation before any relisting, and a failed listing fetches nothing.
        EXPECT_EQ(svc_.Requests().size(), start + 1) << label;
    }
}

}  // namespace
