// The service session: creation, log-in and folder discovery, folder listing.
#include "HotmailTestSupport.h"
#include "platform/http/HttpRequest.h"
#include "platform/xml/XmlDocument.h"

using namespace hotmail_test;
using testing_support::DavReply;
using testing_support::FakeWebDavService;
using testing_support::ScriptedReply;

namespace {

const std::string kFolderUrlsRequest =
    "<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:h='http://schemas.tarnwick.invalid/hotmail/' "
    "xmlns:hm='urn:schemas:tarnwick:'><D:prop><h:adbar/><hm:contacts/><hm:inbox/><hm:outbox/><hm:sendmsg/>"
    "<hm:sentitems/><hm:deleteditems/><hm:drafts/><hm:msgfolderroot/><h:maxpoll/><h:sig/></D:prop></D:propfind>";
const std::string kFolderInfoRequest =
    "<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:prop><D:isfolder/>"
    "<D:displayname/><hm:special/><D:hassubs/><D:nosubs/><hm:unreadcount/><D:visiblecount/><hm:special/></D:prop>"
    "</D:propfind>";
const std::string kUserAgent = "Outlook Express/5.0 (MSIE 5.0; Windows 2000; Tarnwick-POP3 Gateway;)";

std::vector<std::string> AddressFields(const mailservice::CHotmail& m) {
    return {m.AdPaneURL(),    m.ContactsURL(), m.InboxURL(),     m.OutboxURL(),
            m.SentItemsURL(), m.TrashURL(),    m.RootFolderURL()};
}

TEST(HotmailCreationTest, NewSessionIsEmptyAndServiceAddressIsBuiltIn) {
    mailservice::CHotmail::SetServiceEntryURL("http://127.0.0.1:8110/svcs/hotmail/tarnwick.asp");
    mailservice::CHotmail m;
    for (const std::string& v : AddressFields(m)) EXPECT_EQ(v, "");
    EXPECT_EQ(m.UserName() + m.Password() + m.BaseRefURL() + m.AllFolderInfo() + m.HotmailError(), "");
    EXPECT_EQ(m.GetFolderCollection()->Count(), 0);
    EXPECT_EQ(m.GetMailCollection()->Count(), 0);
    m.SetHotmailError("503 busy");
    EXPECT_EQ(m.GetErrorCode(), "503 busy");
    m.SetAllFolderInfo(" kept as given ");
    EXPECT_EQ(m.AllFolderInfo(), " kept as given ");
}

TEST_F(HotmailTest, LogInRequestCarriesTheFolderRequestInAHeaderAndNoBody) {
    LogIn({{"/f/1", "Inbox"}});
    const auto reqs = svc_.Requests();
    ASSERT_EQ(reqs.size(), 2u);
    const auto& login = reqs[0];
    EXPECT_EQ(login.method, "PROPFIND");
    EXPECT_EQ(login.path, kEntryPath);
    EXPECT_EQ(login.Header("User-Agent"), kUserAgent);
    EXPECT_EQ(login.Header("PROPFIND"), kFolderUrlsRequest);
    EXPECT_EQ(login.body, "");
    EXPECT_FALSE(login.Header("Content-Length"));
    EXPECT_EQ(login.ExtraHeaderNames(), std::vector<std::string>{"PROPFIND"});

    // Then the folder listing of the root folder address read from the reply.
    const auto& folders = reqs[1];
    EXPECT_EQ(folders.method, "PROPFIND");
    EXPECT_EQ(folders.path, "/root");
    EXPECT_EQ(folders.body, kFolderInfoRequest);
    EXPECT_TRUE(folders.ExtraHeaderNames().empty());
    EXPECT_EQ(folders.Header("User-Agent"), kUserAgent);
}

TEST_F(HotmailTest, LogInFillsTheSevenAddressesByPosition) {
    LogIn();
    EXPECT_EQ(AddressFields(mail_), Addresses());
    EXPECT_EQ(mail_.BaseRefURL(), svc_.Url("/base"));
    EXPECT_EQ(mail_.HotmailError(), "200 No error");
    EXPECT_FALSE(core::MErrorHandler::HasKeptError());
    EXPECT_TRUE(boxes_.empty());
}

// The first load of a mailbox of n messages costs n + 3 requests and one challenge, for either scheme: after the
// first exchange every request carries credentials the service accepts (Digest: the same nonce, counting nc).
TEST(HotmailAuthTest, LoadOfNMessagesMakesNPlusThreeRequestsAndOneChallenge) {
    constexpr int kMessages = 6;
    for (auto auth : {FakeWebDavService::Auth::Basic, FakeWebDavService::Auth::Digest}) {
        SCOPED_TRACE(auth == FakeWebDavService::Auth::Basic ? "Basic" : "Digest");
        core::MErrorHandler::ResetForTesting();
        FakeWebDavService svc(auth, "joe@example.invalid", "p\xC3\xA4ss");
        mailservice::CHotmail::SetServiceEntryURL(svc.Url(kEntryPath));
        mailservice::CHotmail m;
        m.SetUserName("joe@example.invalid");
        m.SetPassword("p\xC3\xA4ss");
        std::vector<ListedMessage> listed;
        for (int i = 1; i <= kMessages; ++i) {
            listed.emplace_back();
            listed.back().href = svc.Url("/m/" + std::to_string(i));
            listed.back().id = "id" + std::to_string(i);
        }
        svc.Enqueue(DavReply(LoginReply("/b", {"a", "c", svc.Url("/inbox"), "o", "s", "t", svc.Url("/root")})));
        svc.Enqueue(DavReply(FolderReply({})));
        svc.Enqueue(DavReply(ListingReply(listed)));
        for (int i = 1; i <= kMessages; ++i) svc.Enqueue(DavReply("text " + std::to_string(i)));
        ASSERT_TRUE(m.Connect());
        // Changing the credentials later changes nothing: the request layer keeps what Connect gave it.
        m.SetPassword("other");
        ASSERT_NO_THROW(m.ParseMailboxInfo(m.InboxURL()));
        ASSERT_EQ(m.GetMailCollection()->Count(), kMessages);
        EXPECT_EQ(m.GetMailCollection()->Item(kMessages)->mBody, "text " + std::to_string(kMessages));
        EXPECT_EQ(svc.Requests().size(), static_cast<std::size_t>(kMessages + 3));
        EXPECT_EQ(svc.Challenges(), 1);

        // A nonce the service no longer honours costs one challenge, answered at once.
        svc.ExpireNonces();
        svc.Enqueue(DavReply("again"));
        EXPECT_EQ(m.GetMessage(svc.Url("/m/1")), "again");
        EXPECT_EQ(svc.Challenges(), auth == FakeWebDavService::Auth::Digest ? 2 : 1);
        for (const auto& r : svc.Requests()) EXPECT_TRUE(r.Header("Authorization")) << r.path;
        EXPECT_FALSE(core::MErrorHandler::HasKeptError());
    }
}

TEST_F(HotmailTest, LogInReplyWithoutDavErrorLeavesAddressesEmptyAndStillSucceeds) {
    mail_.SetHotmailError("old");
    svc_.Enqueue(ScriptedReply{200, {}, LoginReply("/b", Addresses()), false});
    EXPECT_TRUE(mail_.Connect());
    for (const std::string& v : AddressFields(mail_)) EXPECT_EQ(v, "");
    EXPECT_EQ(mail_.BaseRefURL(), "");
    EXPECT_EQ(mail_.HotmailError(), "old");
    EXPECT_EQ(svc_.Requests().size(), 1u);
    EXPECT_EQ(mail_.GetFolderCollection()->Count(), 0);
}

TEST_F(HotmailTest, LogInReplyThatIsNotXmlShowsOneMessageBoxAndMarksTheError) {
    const std::string page = "<html><body>Service unavailable<br></body></html>";
    svc_.Enqueue(DavReply(page, 503));
    EXPECT_TRUE(mail_.Connect());
    platform::XmlDocument parser;
    ASSERT_FALSE(parser.loadXML(page));
    EXPECT_EQ(boxes_, std::vector<std::string>{parser.parseErrorReason()});
    EXPECT_EQ(mail_.HotmailError(), "Invalid response from server");
    // The folder listing still ran, on the empty root address, and its failure was reported and skipped.
    EXPECT_EQ(svc_.Requests().size(), 1u);
    ASSERT_TRUE(core::MErrorHandler::HasKeptError());
    EXPECT_EQ(KeptError().Source(), "GetAllFolderInfo Method");
    EXPECT_EQ(KeptError().Number(), platform::HttpError::kInvalidUrl);
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

TEST_F(HotmailTest, LogInToAServiceThatIsNotThereFailsThroughConnect) {
    mailservice::CHotmail::SetServiceEntryURL(
        "http://127.0.0.1:" + std::to_string(testing_support::ClosedLoopbackPort()) + kEntryPath);
    mail_.SetInboxURL("kept");
    const core::Error e = RaisedBy([&] { mail_.Connect(); });
    EXPECT_EQ(e.Number(), platform::HttpError::kCannotConnect);
    EXPECT_EQ(e.Source(), "Connect Method");
    EXPECT_EQ(e.Description(), "A connection with the server could not be established");
    EXPECT_EQ(mail_.InboxURL(), "kept");
}

TEST_F(HotmailTest, FolderListingAppendsOnEveryRun) {
    const std::vector<FolderEntry> folders = {{"/f/in", "Inbox"}, {"/f/tr", "Trash"}, {"/f/x", "Caf\xC3\xA9"}};
    LogIn(folders);
    LogIn(folders);
    const auto list = mail_.GetFolderCollection();
    ASSERT_EQ(list->Count(), 6);
    for (int run = 0; run < 2; ++run) {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(list->Item(run * 3 + i + 1)->fUrl, folders[i].url);
            EXPECT_EQ(list->Item(run * 3 + i + 1)->fName, folders[i].name);
        }
    }
    EXPECT_NE(list->Item(1), list->Item(4));
}

TEST_F(HotmailTest, FolderEntryWithoutDisplayNameEndsTheListingKeepingEarlierFolders) {
    LogIn({{"/f/1", "One"}, {"/f/2", "Two", true}, {"/f/3", "Three"}});
    const auto list = mail_.GetFolderCollection();
    ASSERT_EQ(list->Count(), 1);
    EXPECT_EQ(list->Item(1)->fName, "One");
    EXPECT_EQ(KeptError().Source(), "ParseFolderInfo Method");
}

TEST_F(HotmailTest, FolderListingThatIsNotXmlAppendsNothingAndDoesNotFail) {
    svc_.Enqueue(DavReply(LoginReply("/b", Addresses())));
    svc_.Enqueue(DavReply("not xml at all"));
    EXPECT_TRUE(mail_.Connect());
    EXPECT_EQ(mail_.GetFolderCollection()->Count(), 0);
    EXPECT_FALSE(core::MErrorHandler::HasKeptError());
}

}  // namespace
