// The service session: log-in and folder discovery, folder listing.
#include "tests/support/HotmailTestSupport.h"

using namespace hotmail_test;
using testing_support::DavReply;
using testing_support::FakeWebDavService;

namespace {

const std::string kUserAgent = "Outlook Express/5.0 (MSIE 5.0; Windows 2000; Tarnwick-POP3 Gateway;)";

std::vector<std::string> AddressFields(const mailservice::CHotmail& m) {
    return {m.AdPaneURL(),    m.ContactsURL(), m.InboxURL(),     m.OutboxURL(),
            m.SentItemsURL(), m.TrashURL(),    m.RootFolderURL()};
}

TEST_F(HotmailTest, LogInSendsTheFolderRequestInAHeaderAndReadsTheSevenAddressesByPosition) {
    LogIn({{"/f/1", "Inbox"}});
    const auto reqs = svc_.Requests();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[0].method, "PROPFIND");
    EXPECT_EQ(reqs[0].path, kEntryPath);
    EXPECT_EQ(reqs[0].Header("User-Agent"), kUserAgent);
    EXPECT_EQ(reqs[0].Header("PROPFIND"),
              "<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:h='http://schemas.tarnwick.invalid/hotmail/' "
              "xmlns:hm='urn:schemas:tarnwick:'><D:prop><h:adbar/><hm:contacts/><hm:inbox/><hm:outbox/><hm:sendmsg/>"
              "<hm:sentitems/><hm:deleteditems/><hm:drafts/><hm:msgfolderroot/><h:maxpoll/><h:sig/></D:prop>"
              "</D:propfind>");
    EXPECT_EQ(reqs[0].body, "");
    EXPECT_FALSE(reqs[0].Header("Content-Length"));
    EXPECT_EQ(reqs[0].ExtraHeaderNames(), std::vector<std::string>{"PROPFIND"});
    // Then the folder listing of the root folder address read from the reply, still with the user agent.
    EXPECT_EQ(reqs[1].path, "/root");
    EXPECT_EQ(reqs[1].body,
              "<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:prop><D:isfolder/>"
              "<D:displayname/><hm:special/><D:hassubs/><D:nosubs/><hm:unreadcount/><D:visiblecount/><hm:special/>"
              "</D:prop></D:propfind>");
    EXPECT_TRUE(reqs[1].ExtraHeaderNames().empty());
    EXPECT_EQ(reqs[1].Header("User-Agent"), kUserAgent);

    EXPECT_EQ(AddressFields(mail_), Addresses());
    EXPECT_EQ(mail_.BaseRefURL(), svc_.Url("/base"));
    EXPECT_EQ(mail_.HotmailError(), "200 No error");
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

}  // namespace
