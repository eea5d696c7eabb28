// Flagging, deleting, moving and sending, and how every reading operation judges a reply.
#include <functional>

#include "HotmailTestSupport.h"
#include "platform/http/HttpRequest.h"

using namespace hotmail_test;
using testing_support::DavReply;
using testing_support::ScriptedReply;

namespace {

const std::string kMarkRead =
    "<?xml version='1.0'?><D:propertyupdate xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:set><D:prop>"
    "<hm:read>1</hm:read></D:prop></D:set></D:propertyupdate>";
const std::string kMarkUnread =
    "<?xml version='1.0'?><D:propertyupdate xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:set><D:prop>"
    "<hm:read>0</hm:read></D:prop></D:set></D:propertyupdate>";

mailservice::IdCollectionPtr Ids(const std::vector<std::string>& ids) {
    auto c = core::MakeCollection<std::string>();
    for (const auto& id : ids) c->Add(id);
    return c;
}

TEST_F(HotmailTest, DeleteMailMovesTheNamedMessagesToTrash) {
    struct Case {
        std::vector<std::string> ids;
        std::string body;
    };
    const Case cases[] = {
        {{}, "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target></D:target></D:move>"},
        {{"MSG0001"},
         "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>MSG0001</D:href></D:target></D:move>"},
        {{"b&2", "a1"},
         "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>b&amp;2</D:href><D:href>a1</D:href>"
         "</D:target></D:move>"},
    };
    mail_.SetTrashURL(svc_.Url("/trash"));
    std::size_t n = 0;
    for (const Case& c : cases) {
        svc_.Enqueue(DavReply("moved", 207, "207 moved " + std::to_string(n)));
        const std::string headers = mail_.DeleteMail(Ids(c.ids), svc_.Url("/inbox"));
        const auto req = svc_.Requests().at(n);
        EXPECT_EQ(req.method, "BMOVE");
        EXPECT_EQ(req.path, "/inbox");
        EXPECT_EQ(req.body, c.body);
        EXPECT_EQ(req.ExtraHeaderNames(), (std::vector<std::string>{"Destination", "Content-Type"}));
        EXPECT_EQ(req.Header("Destination"), svc_.Url("/trash"));
        EXPECT_EQ(req.Header("Content-Type"), "text/xml");
        EXPECT_NE(headers.find("X-Dav-Error: 207 moved " + std::to_string(n) + "\r\n"), std::string::npos);
        EXPECT_EQ(mail_.HotmailError(), "207 moved " + std::to_string(n));
        ++n;
    }
}

TEST_F(HotmailTest, DeleteMailWithEmptyTrashAddressStillNamesADestination) {
    svc_.Enqueue(DavReply(""));
    mail_.DeleteMail(Ids({"X"}), svc_.Url("/inbox"));
    const auto req = svc_.Requests().at(0);
    EXPECT_EQ(req.ExtraHeaderNames(), (std::vector<std::string>{"Destination", "Content-Type"}));
    EXPECT_EQ(req.Header("Destination"), "");
}

TEST_F(HotmailTest, MoveMailMovesOneMessageBetweenTheGivenFolders) {
    mail_.SetTrashURL(svc_.Url("/trash"));
    svc_.Enqueue(DavReply("ok"));
    mail_.MoveMail("M9", svc_.Url("/src"), svc_.Url("/dest"));
    const auto req = svc_.Requests().at(0);
    EXPECT_EQ(req.method, "BMOVE");
    EXPECT_EQ(req.path, "/src");
    EXPECT_EQ(req.Header("Destination"), svc_.Url("/dest"));
    EXPECT_EQ(req.body,
              "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>M9</D:href></D:target></D:move>");
}

TEST_F(HotmailTest, FlaggingSendsTheFlagThenListsTheFolderAgain) {
    struct Case {
        std::function<void(const std::string&, const std::string&)> flag;
        std::string body;
    };
    const Case cases[] = {
        {[&](const std::string& u, const std::string& f) { mail_.FlagMailRead(u, f); }, kMarkRead},
        {[&](const std::string& u, const std::string& f) { mail_.FlagMailUnread(u, f); }, kMarkUnread},
    };
    for (const Case& c : cases) {
        const auto before = mail_.GetMailCollection();
        const std::size_t start = svc_.Requests().size();
        // The service refuses: that shows only in HotmailError, the operation goes on.
        svc_.Enqueue(DavReply("refused", 403, "403 refused"));
        ListedMessage m;
        m.href = svc_.Url("/msg/1");
        m.id = "1";
        svc_.Enqueue(DavReply(ListingReply({m}), 207, "207 listed"));
        svc_.Enqueue(ScriptedReply{200, {}, "text", false});
        c.flag(svc_.Url("/msg/1"), svc_.Url("/folder"));
        const auto reqs = svc_.Requests();
        ASSERT_EQ(reqs.size(), start + 3);
        EXPECT_EQ(reqs[start].method, "PROPPATCH");
        EXPECT_EQ(reqs[start].path, "/msg/1");
        EXPECT_EQ(reqs[start].body, c.body);
        EXPECT_TRUE(reqs[start].ExtraHeaderNames().empty());
        EXPECT_EQ(reqs[start + 1].path, "/folder");
        EXPECT_NE(mail_.GetMailCollection(), before);
        ASSERT_EQ(mail_.GetMailCollection()->Count(), 1);
        EXPECT_EQ(mail_.GetMailCollection()->Item(1)->mBody, "text");
        EXPECT_EQ(mail_.HotmailError(), "207 listed");
    }
}

TEST_F(HotmailTest, SendMailPostsTheBodyUnchangedWithOneExtraHeader) {
    std::string body =
        "MAIL FROM:<a@example.invalid>\r\nRCPT TO:<b@example.invalid>\r\n\r\n"
        "Subject: Gr\xC3\xBC\xC3\x9F"
        "e\r\n\r\nlatin1 \xE9\xFF, a lone \n and \r.\r\n..dot\r\n.\r\n";
    body.push_back('\0');
    mail_.SetOutboxURL(svc_.Url("/outbox"));
    svc_.Enqueue(DavReply("queued", 500, "500 relay later"));
    const std::string headers = mail_.SendMail(body);
    const auto req = svc_.Requests().at(0);
    EXPECT_EQ(req.method, "POST");
    EXPECT_EQ(req.path, "/outbox");
    EXPECT_TRUE(req.body == body);
    EXPECT_EQ(req.ExtraHeaderNames(), std::vector<std::string>{"Content-Type"});
    EXPECT_EQ(req.Header("Content-Type"), "message/rfc821");
    EXPECT_EQ(req.Header("Content-Length"), std::to_string(body.size()));
    EXPECT_NE(headers.find("X-Dav-Error: 500 relay later\r\n"), std::string::npos) << headers;
    EXPECT_EQ(mail_.HotmailError(), "500 relay later");
}

TEST_F(HotmailTest, SendMailBeforeLogInFails) {
    const core::Error e = RaisedBy([&] { mail_.SendMail("x"); });
    EXPECT_EQ(e.Source(), "SendMail Method");
    EXPECT_EQ(e.Number(), platform::HttpError::kInvalidUrl);
    EXPECT_TRUE(svc_.Requests().empty());
}

// Every operation that reads "X-Dav-Error": stored like any reply whatever the status, and a failure when absent.
struct ReadingOperation {
    const char* label;
    int requests;  // flagging lists the folder again
    std::function<void(mailservice::CHotmail&, const std::string& url)> run;
};

const ReadingOperation kReadingOperations[] = {
    {"GetMailInfo Method", 1, [](auto& m, const auto& url) { m.ParseMailboxInfo(url); }},
    {"FlagMailRead Method", 2, [](auto& m, const auto& url) { m.FlagMailRead(url, url); }},
    {"FlagMailUnread Method", 2, [](auto& m, const auto& url) { m.FlagMailUnread(url, url); }},
    {"DeleteMail Method", 1, [](auto& m, const auto& url) { m.DeleteMail(Ids({"1"}), url); }},
    {"MoveMail Method", 1, [](auto& m, const auto& url) { m.MoveMail("1", url, url); }},
    {"SendMail Method", 1,
     [](auto& m, const auto& url) {
         m.SetOutboxURL(url);
         m.SendMail("x");
     }},
};

TEST_F(HotmailTest, ErrorStatusWithDavErrorIsStoredLikeSuccess) {
    for (const ReadingOperation& op : kReadingOperations) {
        for (int status : {401, 404, 500}) {
            const std::string value = std::to_string(status) + " for " + op.label;
            for (int r = 0; r < op.requests; ++r) svc_.Enqueue(DavReply("<nothing/>", status, value));
            EXPECT_NO_THROW(op.run(mail_, svc_.Url("/x"))) << value;
            EXPECT_EQ(mail_.HotmailError(), value);
        }
    }
    EXPECT_FALSE(core::MErrorHandler::HasKeptError());
}

TEST_F(HotmailTest, ReplyWithoutDavErrorFailsTheOperationAndKeepsTheOldError) {
    for (const ReadingOperation& op : kReadingOperations) {
        core::MErrorHandler::ResetForTesting();
        mail_.SetHotmailError("old");
        const std::size_t start = svc_.Requests().size();
        svc_.Enqueue(ScriptedReply{200, {}, "<nothing/>", false});
        const core::Error e = RaisedBy([&] { op.run(mail_, svc_.Url("/x")); });
        EXPECT_EQ(e.Source(), op.label);
        EXPECT_EQ(e.Number(), platform::HttpError::kHeaderNotFound) << op.label;
        EXPECT_EQ(mail_.HotmailError(), "old") << op.label;
        // A failed flag request ends the operation before any relisting.
        EXPECT_EQ(svc_.Requests().size(), start + 1) << op.label;
    }
}

}  // namespace
