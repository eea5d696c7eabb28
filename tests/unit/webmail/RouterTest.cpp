// The router's replies read the way the gateway reads them: by position and by "//prefix:name" patterns.
#include <gtest/gtest.h>

#include <pugixml.hpp>

#include "tests/unit/webmail/TempDir.h"
#include "webmail/dav/Router.h"
#include "webmail/dav/UrlCodec.h"
#include "webmail/store/DemoMail.h"

namespace {

using namespace webmail::dav;
using webmail::store::DemoMail;

const char* const kBase = "http://127.0.0.1:8110";
const char* const kLoginHeader =
    "<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:h='http://schemas.tarnwick.invalid/hotmail/' "
    "xmlns:hm='urn:schemas:tarnwick:'><D:prop><h:adbar/><hm:contacts/><hm:inbox/><hm:outbox/><hm:sendmsg/>"
    "<hm:sentitems/><hm:deleteditems/><hm:drafts/><hm:msgfolderroot/><h:maxpoll/><h:sig/></D:prop></D:propfind>";
const char* const kFolderInfo =
    "<?xml version='1.0'?><D:propfind xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:prop><D:isfolder/>"
    "<D:displayname/><hm:special/><D:hassubs/><D:nosubs/><hm:unreadcount/><D:visiblecount/><hm:special/>"
    "</D:prop></D:propfind>";
const char* const kMarkRead =
    "<?xml version='1.0'?><D:propertyupdate xmlns:D='DAV:' xmlns:hm='urn:schemas:tarnwick:'><D:set><D:prop>"
    "<hm:read>1</hm:read></D:prop></D:set></D:propertyupdate>";

class RouterTest : public ::testing::Test {
protected:
    void SetUp() override {
        DemoMail::Ensure(store, "tarnwick.local");
        store.AddUser("eve", "pw");
    }

    DavReply Send(const std::string& method, const std::string& url, const std::string& body = "",
                  std::optional<std::string> destination = std::nullopt,
                  std::optional<std::string> contentType = std::nullopt) {
        DavRequest r;
        r.method = method;
        r.path = *UrlCodec::PathOfUrl(url);
        r.user = "demo";
        r.baseUrl = kBase;
        r.body = body;
        r.destination = std::move(destination);
        r.contentType = std::move(contentType);
        if (method == "PROPFIND" && url.ends_with(ServiceUrls::kEntryPath)) r.propfindHeader = kLoginHeader;
        return router.Handle(r);
    }

    static pugi::xml_document Parse(const DavReply& reply) {
        pugi::xml_document doc;
        EXPECT_TRUE(doc.load_string(reply.body.c_str())) << reply.body;
        return doc;
    }

    // The texts of every element called `name`, in document order.
    static std::vector<std::string> Texts(const pugi::xml_document& doc, const char* name) {
        std::vector<std::string> texts;
        for (const auto& n : doc.select_nodes(name)) texts.emplace_back(n.node().text().get());
        return texts;
    }

    // The log-in reply's property texts, by position, as the gateway reads them.
    std::vector<std::string> LoginAddresses() {
        const auto doc = Parse(Send("PROPFIND", std::string(kBase) + ServiceUrls::kEntryPath));
        std::vector<std::string> texts;
        for (auto p : doc.document_element().first_child().child("D:propstat").first_child().children()) {
            texts.emplace_back(p.text().get());
        }
        return texts;
    }

    TempDir dir;
    webmail::store::MaildirStore store{dir.path()};
    Router router{store, "tarnwick.local"};
    const ServiceUrls me{kBase, "demo"};
};

TEST_F(RouterTest, LoginAddressesByPositionLeadToWorkingResources) {
    const auto a = LoginAddresses();
    ASSERT_EQ(a.size(), 9u);
    EXPECT_EQ(a[2], me.Folder("INBOX"));
    EXPECT_EQ(a[3], me.SendMessage());
    EXPECT_EQ(a[4], me.Folder("Sent Items"));
    EXPECT_EQ(a[5], me.Folder("Deleted Items"));
    EXPECT_EQ(a[6], me.FolderRoot());
    for (std::size_t i : {0u, 1u, 2u, 4u, 5u}) {
        EXPECT_EQ(Send(i == 0 ? "GET" : "PROPFIND", a[i]).status, i == 0 ? 200u : 207u) << a[i];
    }
    const auto folders = Parse(Send("PROPFIND", a[6], kFolderInfo));
    EXPECT_EQ(Texts(folders, "//D:displayname"),
              (std::vector<std::string>{"Inbox", "Sent Items", "Deleted Items", "Outbox"}));
    EXPECT_EQ(Texts(folders, "//hm:special"),
              (std::vector<std::string>{"inbox", "inbox", "sentitems", "sentitems", "deleteditems", "deleteditems",
                                        "outbox", "outbox"}));
    EXPECT_EQ(Texts(folders, "//hm:unreadcount")[0], "5");
}

TEST_F(RouterTest, ListingCarriesEveryElementOncePerEntry) {
    const DavReply reply = Send("PROPFIND", me.Folder("INBOX"));
    EXPECT_EQ(reply.davError, "200 No error");
    const auto doc = Parse(reply);
    const std::size_t entries = doc.select_nodes("//D:response").size();
    ASSERT_EQ(entries, DemoMail::Samples("tarnwick.local").size());
    for (const char* name : {"//D:id", "//m:subject", "//m:to", "//m:from", "//h:fromaddr", "//m:date",
                             "//D:getcontentlength", "//hm:read", "//hm:hasattachment"}) {
        EXPECT_EQ(doc.select_nodes(name).size(), entries) << name;
    }
    EXPECT_EQ(Texts(doc, "//hm:read"), (std::vector<std::string>{"0", "0", "0", "0", "0", "1"}));
    EXPECT_EQ(Texts(doc, "//m:subject")[2], "Caf\xC3\xA9 cr\xC3\xA8me (Latin-1)");
    EXPECT_EQ(Texts(doc, "//m:from")[1], "=?UTF-8?Q?J=C3=BCrgen?= <juergen@example.org>");
    EXPECT_EQ(Texts(doc, "//hm:hasattachment"), (std::vector<std::string>{"0", "0", "0", "1", "0", "0"}));
    const std::string id = Texts(doc, "//D:id")[1];
    EXPECT_EQ(doc.select_nodes("//D:response")[1].node().child("D:href").text().get(), me.Message("INBOX", id));
    EXPECT_EQ(Send("GET", me.Message("INBOX", id)).file->ReadFacts().servedSize,
              std::stoull(Texts(doc, "//D:getcontentlength")[1]));
}

TEST_F(RouterTest, MarkReadThenDeleteThroughBmoveAsTheGatewayDoes) {
    const std::string inbox = me.Folder("INBOX"), trash = me.Folder("Deleted Items");
    const std::string id = Texts(Parse(Send("PROPFIND", inbox)), "//D:id")[1];
    EXPECT_EQ(Send("PROPPATCH", me.Message("INBOX", id), kMarkRead).status, 207u);
    EXPECT_EQ(Texts(Parse(Send("PROPFIND", inbox)), "//hm:read")[1], "1");

    const std::string move = "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>" + id +
                             "</D:href><D:href>no.such.id</D:href></D:target></D:move>";
    const DavReply moved = Send("BMOVE", inbox, move, trash, "text/xml");
    EXPECT_EQ(moved.status, 207u);
    EXPECT_EQ(moved.davError, "404 1 of 2 messages not found");
    EXPECT_EQ(Texts(Parse(Send("PROPFIND", trash)), "//D:id"), std::vector<std::string>{id});
    EXPECT_EQ(Texts(Parse(Send("PROPFIND", inbox)), "//D:id").size(), 5u);
    EXPECT_EQ(Send("GET", me.Message("Deleted Items", id)).status, 200u);  // the id stays valid
    EXPECT_EQ(Send("BMOVE", inbox, "<D:move xmlns:D='DAV:'><D:target/></D:move>", trash, "text/xml").davError,
              "200 No error");
}

TEST_F(RouterTest, BadRequestsGetAStatusAndAReason) {
    const ServiceUrls eve{kBase, "eve"};
    const std::string inbox = me.Folder("INBOX");
    const std::string move = "<D:move xmlns:D='DAV:'><D:target><D:href>x</D:href></D:target></D:move>";
    const struct {
        std::string method, url, body;
        std::optional<std::string> destination, contentType;
        const char* davError;
    } cases[] = {
        {"PROPFIND", std::string(kBase) + "/nowhere", "", {}, {}, "404 No such address"},
        {"GET", inbox + "..%2F..%2Fpasswd", "", {}, {}, "404 No such address"},
        {"PROPFIND", eve.Folder("INBOX"), "", {}, {}, "403 Not your mailbox"},
        {"PROPFIND", me.Folder("Nope"), "", {}, {}, "404 No such folder"},
        {"GET", me.Message("INBOX", "no.such"), "", {}, {}, "404 No such message"},
        {"DELETE", inbox, "", {}, {}, "405 Method not allowed"},
        {"PROPFIND", inbox, "<D:propfind", {}, {}, "400 Malformed XML: "},
        {"PROPFIND", me.FolderRoot(), "<x/>", {}, {}, "400 Body is not a DAV:propfind document"},
        {"PROPPATCH", me.Message("INBOX", "x"), "<<", {}, {}, "400 Malformed XML"},
        {"PROPPATCH",
         me.Message("INBOX", "x"),
         "<D:propertyupdate xmlns:D='DAV:'><D:set><D:prop/></D:set></D:propertyupdate>",
         {},
         {},
         "400 No hm:read property to update"},
        {"PROPPATCH", me.Message("INBOX", "x"), kMarkRead, {}, {}, "404 No such message"},
        {"BMOVE", inbox, move, std::nullopt, "text/xml", "400 Missing Destination"},
        {"BMOVE", inbox, move, " ", "text/xml", "400 Missing Destination"},
        {"BMOVE", inbox, move, me.Folder("Nope"), "text/xml", "409 No such destination folder"},
        {"BMOVE", inbox, move, eve.Folder("INBOX"), "text/xml", "403 Destination is not your mailbox"},
        {"BMOVE", inbox, "<D:move>", me.Folder("Outbox"), "text/xml", "400 Malformed XML"},
        {"BMOVE", inbox, move, me.Folder("Outbox"), "application/json", "415 Content-Type must be text/xml"},
        {"POST", me.SendMessage(), "MAIL FROM:<a>\r\n", {}, "text/plain", "415 Content-Type must be message/rfc821"},
        {"POST", me.SendMessage(), "hello", {}, "message/rfc821", "400 Message refused: first line must be MAIL FROM:"},
    };
    for (const auto& c : cases) {
        const DavReply reply = Send(c.method, c.url, c.body, c.destination, c.contentType);
        EXPECT_TRUE(reply.davError.starts_with(c.davError)) << c.method << " " << c.url << ": " << reply.davError;
        EXPECT_EQ(std::to_string(reply.status), reply.davError.substr(0, 3)) << reply.davError;
    }
    // Nothing above moved or changed a message.
    EXPECT_EQ(Texts(Parse(Send("PROPFIND", inbox)), "//hm:read"),
              (std::vector<std::string>{"0", "0", "0", "0", "0", "1"}));
}

}  // namespace
