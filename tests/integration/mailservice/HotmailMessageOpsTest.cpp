// Flagging, deleting, moving and sending, and how every reading operation judges a reply.
#include <functional>

#include "tests/support/HotmailTestSupport.h"

using namespace hotmail_test;
using testing_support::DavReply;
using testing_support::ScriptedReply;

namespace {

mailservice::IdCollectionPtr Ids(const std::vector<std::string>& ids) {
    auto c = core::MakeCollection<std::string>();
    for (const auto& id : ids) c->Add(id);
    return c;
}

TEST_F(HotmailTest, DeleteAndMoveSendOneMoveDocumentToTheirDestination) {
    mail_.SetTrashURL(svc_.Url("/trash"));
    svc_.Enqueue(DavReply("moved", 207, "207 moved"));
    const std::string headers = mail_.DeleteMail(Ids({"b&2", "a1"}), svc_.Url("/inbox"));
    svc_.Enqueue(DavReply("ok"));
    mail_.MoveMail("M9", svc_.Url("/src"), svc_.Url("/dest"));
    mail_.SetTrashURL("");
    svc_.Enqueue(DavReply(""));
    mail_.DeleteMail(Ids({}), svc_.Url("/inbox"));

    const auto reqs = svc_.Requests();
    ASSERT_EQ(reqs.size(), 3u);
    EXPECT_EQ(reqs[0].method, "BMOVE");
    EXPECT_EQ(reqs[0].path, "/inbox");
    EXPECT_EQ(reqs[0].body,
              "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>b&amp;2</D:href><D:href>a1</D:href>"
              "</D:target></D:move>");
    EXPECT_EQ(reqs[0].ExtraHeaderNames(), (std::vector<std::string>{"Destination", "Content-Type"}));
    EXPECT_EQ(reqs[0].Header("Destination"), svc_.Url("/trash"));
    EXPECT_EQ(reqs[0].Header("Content-Type"), "text/xml");
    EXPECT_NE(headers.find("X-Dav-Error: 207 moved\r\n"), std::string::npos) << headers;
    EXPECT_EQ(reqs[1].path, "/src");
    EXPECT_EQ(reqs[1].Header("Destination"), svc_.Url("/dest"));
    EXPECT_EQ(reqs[1].body,
              "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>M9</D:href></D:target></D:move>");
    // An empty trash address still names a destination, an empty one; no id leaves the target empty.
    EXPECT_EQ(reqs[2].ExtraHeaderNames(), (std::vector<std::string>{"Destination", "Content-Type"}));
    EXPECT_EQ(reqs[2].Header("Destination"), "");
    EXPECT_EQ(reqs[2].body, "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target></D:target></D:move>");
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
        EXPECT_EQ(reqs[0].method, "PROPPATCH");
        EXPECT_EQ(reqs[0].path, "/msg/1");
        EXPECT_EQ(reqs[0].body, std::string("<?xml version='1.0'?><D:propertyupdate xmlns:D='DAV:' "
                                            "xmlns:hm='urn:schemas:tarnwick:'><D:set><D:prop><hm:read>") +
                                    (read ? "1" : "0") + "</hm:read></D:prop></D:set></D:propertyupdate>");
        EXPECT_TRUE(reqs[0].ExtraHeaderNames().empty());
        EXPECT_EQ(reqs[1].path, "/folder");
        ASSERT_EQ(mail_.GetMailCollection()->Count(), 1);
        EXPECT_EQ(mail_.GetMailCollection()->Item(1)->mBody.ReadAll(), "text");
        EXPECT_EQ(mail_.HotmailError(), "207 listed");
    }
}

// The message read in pieces from disk goes out byte for byte as the one in memory, also when a Digest
// challenge makes libcurl send it a second time; a piece that cannot be read fails the post with its error.
TEST(HotmailSendFromDisk, PostsTheSameBytesAsFromMemoryAndFailsWithTheReadersError) {
    core::MErrorHandler::ResetForTesting();
    testing_support::FakeWebDavService svc(testing_support::FakeWebDavService::Auth::Digest, "sam", "sam pw");
    mailservice::CHotmail::SetServiceEntryURL(svc.Url(kEntryPath));
    mailservice::CHotmail mail;
    mail.SetUserName("sam");
    mail.SetPassword("sam pw");
    svc.Enqueue(DavReply(LoginReply(svc.Url("/base"), {svc.Url("/ad"), svc.Url("/contacts"), svc.Url("/inbox"),
                                                        svc.Url("/outbox"), svc.Url("/sent"), svc.Url("/trash"),
                                                        svc.Url("/root")})));
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
    svc.Enqueue(DavReply("queued"));
    EXPECT_NE(mail.SendMail(source, stored.Size()).find("X-Dav-Error: 200 No error\r\n"), std::string::npos);
    svc.ExpireNonces();
    svc.Enqueue(DavReply("queued"));
    mail.SendMail(source, stored.Size());
    std::vector<testing_support::RecordedRequest> requests = svc.Requests();
    std::erase_if(requests, [](const auto& req) { return req.method != "POST"; });
    ASSERT_EQ(requests.size(), 2U);
    for (const auto& req : requests) {
        EXPECT_EQ(req.path, "/outbox");
        EXPECT_EQ(req.body.size(), body.size());
        EXPECT_TRUE(req.body == body) << "the posted text differs";
        EXPECT_EQ(req.ExtraHeaderNames(), std::vector<std::string>{"Content-Type"});
        EXPECT_EQ(req.Header("Content-Type"), "message/rfc821");
    }
    EXPECT_GT(svc.Challenges(), 1);
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

TEST_F(HotmailTest, ReplyWithoutDavErrorFailsTheOperationAndKeepsTheOldError) {
    for (const ReadingOperation& op : kReadingOperations) {
        core::MErrorHandler::ResetForTesting();
        mail_.SetHotmailError("old");
        const std::size_t start = svc_.Requests().size();
        svc_.Enqueue(ScriptedReply{200, {}, "<nothing/>", false});
        const core::Error e = testing_support::RaisedError([&] { op.run(mail_, svc_.Url("/x")); });
        EXPECT_EQ(e.Source(), op.label);
        EXPECT_EQ(e.Number(), core::ErrorNumber::kHttpHeaderNotFound) << op.label;
        EXPECT_EQ(e.Description(), "The requested header was not found") << op.label;
        EXPECT_EQ(mail_.HotmailError(), "old") << op.label;
        // A failed flag request ends the operation before any relisting, and a failed listing fetches nothing.
        EXPECT_EQ(svc_.Requests().size(), start + 1) << op.label;
    }
}

}  // namespace
