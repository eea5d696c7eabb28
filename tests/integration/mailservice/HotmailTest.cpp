// The service client and its request layer against a scripted service. (The log-in's addresses, requests per
// load, deletion and the listing as readers see it are checked in the POP3 dialogue; the request bodies are the
// service's fixed texts, which the end-to-end tests prove the service takes.)
#include <gtest/gtest.h>

#include <QLocale>

#include "core/Error.h"
#include "core/MErrorHandler.h"
#include "core/MessageBox.h"
#include "mailservice/CHotmail.h"
#include "platform/http/HttpRequest.h"
#include "tests/support/FakeWebDavService.h"
#include "tests/support/LineClient.h"
#include "tests/support/RaisedError.h"

namespace {

using testing_support::FakeWebDavService;
using testing_support::ListedMessage;
using testing_support::RaisedError;
using testing_support::ScriptListing;
using testing_support::ScriptLogIn;

// No message boxes; a day/month/year 24-hour locale for the listing's dates.
class HotmailTest : public ::testing::Test {
protected:
    void SetUp() override {
        core::MErrorHandler::ResetForTesting();
        core::MessageBox::SetHandler([](const std::string&) {});
        QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedKingdom));
        mailservice::CHotmail::SetServiceEntryURL(svc_.Url(testing_support::kEntryPath));
        mail_.SetUserName("joe");
        mail_.SetPassword("s3cret");
    }
    FakeWebDavService svc_;
    mailservice::CHotmail mail_;
};

// A short property list fills what is there, and the folder listing still runs at the root address from before.
TEST_F(HotmailTest, ShortPropertyListFillsWhatIsThereAndTheFolderListingStillRuns) {
    mail_.SetTrashURL("old trash");
    mail_.SetRootFolderURL(svc_.Url("/oldroot"));
    ScriptLogIn(svc_, {"ad", "contacts", "inbox", "outbox", "sent"});
    EXPECT_TRUE(mail_.Connect());
    EXPECT_EQ(mail_.SentItemsURL(), "sent");
    EXPECT_EQ(mail_.TrashURL(), "old trash");
    // The reporter raises the error it keeps, whatever it is handed.
    const core::Error kept = RaisedError([] { core::MErrorHandler::HandleError(0, "probe", "probe"); });
    EXPECT_EQ(kept.Source(), "RetrievFolderURLs Method");
    EXPECT_EQ(kept.Number(), core::ErrorNumber::kObjectNotSet);
    ASSERT_EQ(svc_.Requests().size(), 2u);
    EXPECT_EQ(svc_.Requests()[1].path, "/oldroot");
    EXPECT_EQ(mail_.GetFolderCollection()->Count(), 1);
}

// Each field is the i-th element of its name over the whole reply, so a message without a subject takes the
// next one's; a date that is missing or unreadable leaves the field empty instead, one with the UTC marker "Z"
// is read as written. Dates show in the regional short form (day/month/year here). Records are keyed by position.
TEST_F(HotmailTest, ListingFieldsComeFromTheIthElementOfTheWholeReply) {
    const std::vector<ListedMessage> listing = {
        {.id = "A", .read = "1", .length = "2048", .attachment = "1"},
        {.id = "B", .read = std::nullopt, .subject = std::nullopt, .date = "2001-12-31T23:05:09Z"},
        {.id = "C", .read = "yes", .subject = "third", .date = "2002-13-40T10:21:13"},
        {.id = "D", .date = std::nullopt},
    };
    ScriptListing(svc_, listing);
    mail_.ParseMailboxInfo(svc_.Url("/inbox"));
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
        const std::string& id = listing[i - 1].id;
        EXPECT_EQ(mails->Item(std::to_string(i)).get(), &m);
        EXPECT_EQ(m.mMessageID, id);
        EXPECT_EQ(m.mTo, "to-" + id);
        EXPECT_EQ(m.mFromAddress, id + "@example.invalid");
        EXPECT_EQ(m.mSubject, e.subject) << id;
        EXPECT_EQ(m.mDate, e.date) << id;
        EXPECT_EQ(m.mLength, e.length) << id;
        EXPECT_EQ(m.mRead, e.read) << id;
        EXPECT_EQ(m.mHasAttachment, e.attachment) << id;
    }
    EXPECT_FALSE(core::MErrorHandler::HasKeptError());
}

// The message read in pieces from disk goes out byte for byte, also when a stale Digest nonce makes libcurl send
// it a second time from a new reader.
TEST_F(HotmailTest, SendFromDiskPostsTheSameBytesAlsoWhenAStaleNonceSendsThemAgain) {
    FakeWebDavService svc("joe", "s3cret");
    mailservice::CHotmail::SetServiceEntryURL(svc.Url(testing_support::kEntryPath));
    ScriptLogIn(svc);
    ASSERT_TRUE(mail_.Connect());
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
    svc.ExpireNonces();
    svc.Enqueue({"queued"});
    EXPECT_NE(mail_.SendMail(source, stored.Size()).find("X-Dav-Error: 200 No error\r\n"), std::string::npos);
    const auto post = svc.Requests().back();
    EXPECT_EQ(post.method + " " + post.path, "POST /outbox");
    EXPECT_TRUE(post.body == body) << "the posted text differs";
    EXPECT_EQ(post.headers.at("Content-Type"), "message/rfc821");
    EXPECT_GE(readers, 2) << "the stale nonce's challenge sends the body again from a new reader";
}

// A post fails on a reply without "X-Dav-Error" (a sent message is not taken for stored) and keeps the old
// error. (A move that fails so shows end to end, in the failure table.)
TEST_F(HotmailTest, ReplyWithoutDavErrorFailsThePostAndKeepsTheOldError) {
    mail_.SetHotmailError("old");
    svc_.Enqueue({.body = "<nothing/>", .davError = ""});
    mail_.SetOutboxURL(svc_.Url("/outbox"));
    const core::Error post = RaisedError([&] { mail_.SendMail("x"); });
    EXPECT_EQ(post.Source(), "SendMail Method");
    EXPECT_EQ(post.Number(), core::ErrorNumber::kHttpHeaderNotFound);
    EXPECT_EQ(mail_.HotmailError(), "old");
}

// A service that is down and a reply cut short fail with the request layer's own numbers and leave no text.
// (Silence and oversized replies are shown end to end, against a scripted service.)
TEST(HttpRequestTest, FailuresCarryTheRequestLayersNumbers) {
    FakeWebDavService svc;
    svc.Enqueue({.body = "partial", .davError = "", .breakOff = true});
    platform::HttpRequest http;
    http.Open("GET", "http://127.0.0.1:" + testing_support::FreePort() + "/");
    EXPECT_EQ(testing_support::RaisedErrorNumber([&] { http.Send(); }), core::ErrorNumber::kHttpCannotConnect);
    EXPECT_EQ(http.ResponseText(), "");
    http.Open("GET", svc.Url("/cut"));
    EXPECT_EQ(testing_support::RaisedErrorNumber([&] { http.Send(); }), core::ErrorNumber::kHttpConnectionAborted);
    EXPECT_EQ(http.ResponseText(), "");
}

}  // namespace
