// The router's replies read the way the gateway reads them: by position and by "//prefix:name" patterns.
#include <gtest/gtest.h>

#include <pugixml.hpp>

#include "tests/unit/webmail/TempDir.h"
#include "webmail/dav/Router.h"
#include "webmail/store/DemoMail.h"
#include "webmail/dav/UrlCodec.h"

namespace {

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

class DavServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        DemoMail::ensure(store, "tarnwick.local");
        store.addUser("eve", "pw");
    }

    DavReply send(const std::string& method, const std::string& url, const std::string& body = "",
                  std::optional<std::string> destination = std::nullopt,
                  std::optional<std::string> contentType = std::nullopt) {
        DavRequest r;
        r.method = method;
        r.path = *UrlCodec::pathOfUrl(url);
        r.user = "demo";
        r.baseUrl = kBase;
        r.body = body;
        r.destination = std::move(destination);
        r.contentType = std::move(contentType);
        if (method == "PROPFIND" && url.ends_with(ServiceUrls::kEntryPath)) r.propfindHeader = kLoginHeader;
        return service.handle(r);
    }

    static pugi::xml_document parse(const DavReply& reply) {
        pugi::xml_document doc;
        EXPECT_TRUE(doc.load_string(reply.body.c_str())) << reply.body;
        return doc;
    }

    // The bytes a reply sends: its body, or the message file it serves, as converted on the way out.
    static std::string bodyOf(const DavReply& reply) {
        if (!reply.file) return reply.body;
        std::string out(reply.file->facts().servedSize + 1, '\0');
        std::uint64_t offset = 0;
        bool lastCr = false;
        std::size_t size = 0;
        while (const long n = reply.file->readServed(offset, lastCr, out.data() + size, out.size() - size)) {
            if (n < 0) break;
            size += static_cast<std::size_t>(n);
        }
        out.resize(size);
        return out;
    }

    // The log-in reply's property texts, by position, as the gateway reads them.
    std::vector<std::string> loginAddresses() {
        const auto doc = parse(send("PROPFIND", std::string(kBase) + ServiceUrls::kEntryPath));
        const auto prop = doc.document_element().first_child().child("D:propstat").first_child();
        std::vector<std::string> texts;
        for (auto p : prop.children()) texts.emplace_back(p.text().get());
        return texts;
    }

    TempDir dir;
    MaildirStore store{dir.path()};
    Router service{store, "tarnwick.local"};
};

TEST_F(DavServiceTest, LoginAddressesByPositionLeadToWorkingResources) {
    const auto a = loginAddresses();
    ASSERT_GE(a.size(), 7u);
    const ServiceUrls urls{kBase, "demo"};
    EXPECT_EQ(a[2], urls.folder("INBOX"));
    EXPECT_EQ(a[3], urls.sendMessage());
    EXPECT_EQ(a[4], urls.folder("Sent Items"));
    EXPECT_EQ(a[5], urls.folder("Deleted Items"));
    EXPECT_EQ(a[6], urls.folderRoot());
    // Inbox, sent items and trash are listable folders; the root lists folders by display name.
    for (std::size_t i : {2u, 4u, 5u}) EXPECT_EQ(send("PROPFIND", a[i]).status, 207u) << a[i];
    const auto folders = parse(send("PROPFIND", a[6], kFolderInfo));
    std::vector<std::string> names;
    for (const auto& n : folders.select_nodes("//D:response")) {
        auto entry = n.node();
        names.emplace_back(entry.child("D:propstat").first_child().first_child().next_sibling().text().get());
        EXPECT_EQ(send("PROPFIND", entry.first_child().text().get()).status, 207u);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"Inbox", "Sent Items", "Deleted Items", "Outbox"}));
}

TEST_F(DavServiceTest, ListingCarriesEveryElementOncePerEntryAndSizesMatchGet) {
    const DavReply reply = send("PROPFIND", ServiceUrls{kBase, "demo"}.folder("INBOX"));
    EXPECT_EQ(reply.davError, "200 No error");
    const auto doc = parse(reply);
    const auto responses = doc.select_nodes("//D:response");
    ASSERT_EQ(responses.size(), DemoMail::samples("tarnwick.local").size());
    for (const char* name : {"//D:id", "//m:subject", "//m:to", "//m:from", "//h:fromaddr", "//m:date",
                             "//D:getcontentlength", "//hm:read", "//hm:hasattachment"}) {
        EXPECT_EQ(doc.select_nodes(name).size(), responses.size()) << name;
    }
    std::size_t unread = 0;
    for (std::size_t i = 0; i < responses.size(); ++i) {
        const std::string url = responses[i].node().first_child().text().get();
        const std::string id = doc.select_nodes("//D:id")[i].node().text().get();
        EXPECT_TRUE(url.ends_with("/" + id)) << url;
        const std::string message = bodyOf(send("GET", url));
        EXPECT_EQ(std::to_string(message.size()), doc.select_nodes("//D:getcontentlength")[i].node().text().get());
        for (std::size_t lf = message.find('\n'); lf != std::string::npos; lf = message.find('\n', lf + 1)) {
            ASSERT_TRUE(lf > 0 && message[lf - 1] == '\r') << url << " has a bare LF at " << lf;
        }
        unread += std::string(doc.select_nodes("//hm:read")[i].node().text().get()) == "0";
    }
    EXPECT_GE(unread, 4u);
    EXPECT_EQ(std::string(doc.select_nodes("//m:subject")[2].node().text().get()),
              "Caf\xC3\xA9 cr\xC3\xA8me (Latin-1)");
    EXPECT_EQ(std::string(doc.select_nodes("//hm:hasattachment")[3].node().text().get()), "1");
}

TEST_F(DavServiceTest, MarkReadThenDeleteThroughBmoveAsTheGatewayDoes) {
    const auto a = loginAddresses();
    const auto listing = parse(send("PROPFIND", a[2]));
    const std::string url = listing.select_nodes("//D:response")[0].node().first_child().text().get();
    const std::string id = listing.select_nodes("//D:id")[0].node().text().get();

    EXPECT_EQ(send("PROPPATCH", url, kMarkRead).status, 207u);
    EXPECT_EQ(std::string(parse(send("PROPFIND", a[2])).select_nodes("//hm:read")[0].node().text().get()), "1");

    const std::string move = "<?xml version='1.0'?><D:move xmlns:D='DAV:'><D:target><D:href>" + id +
                             "</D:href><D:href>no.such.id</D:href></D:target></D:move>";
    const DavReply moved = send("BMOVE", a[2], move, a[5], "text/xml");
    EXPECT_EQ(moved.status, 207u);
    EXPECT_EQ(moved.davError, "404 1 of 2 messages not found");
    EXPECT_EQ(parse(send("PROPFIND", a[5])).select_node("//D:id").node().text().get(), id);
    const auto remaining = parse(send("PROPFIND", a[2]));
    for (const auto& n : remaining.select_nodes("//D:id")) EXPECT_NE(n.node().text().get(), id);
    // The id stays valid in its new folder.
    EXPECT_EQ(send("GET", ServiceUrls{kBase, "demo"}.message("Deleted Items", id)).status, 200u);

    const DavReply none = send("BMOVE", a[2], "<D:move xmlns:D='DAV:'><D:target/></D:move>", a[5], "text/xml");
    EXPECT_EQ(none.davError, "200 No error");
}

struct Refusal {
    const char* what;
    std::string method;
    std::string url;
    std::string body;
    std::optional<std::string> destination;
    std::optional<std::string> contentType;
    unsigned status;
};

TEST_F(DavServiceTest, BadRequestsGetAStatusAndAReason) {
    const ServiceUrls me{kBase, "demo"}, eve{kBase, "eve"};
    const std::string inbox = me.folder("INBOX");
    const std::string move = "<D:move xmlns:D='DAV:'><D:target><D:href>x</D:href></D:target></D:move>";
    const std::vector<Refusal> cases = {
        {"unknown address", "PROPFIND", std::string(kBase) + "/nowhere", "", {}, {}, 404},
        {"traversal", "GET", inbox + "..%2F..%2Fpasswd", "", {}, {}, 404},
        {"other user's folder", "PROPFIND", eve.folder("INBOX"), "", {}, {}, 403},
        {"unknown folder", "PROPFIND", me.folder("Nope"), "", {}, {}, 404},
        {"unknown message", "GET", me.message("INBOX", "no.such"), "", {}, {}, 404},
        {"unknown method", "DELETE", inbox, "", {}, {}, 405},
        {"malformed listing body", "PROPFIND", inbox, "<D:propfind", {}, {}, 400},
        {"malformed folder body", "PROPFIND", me.folderRoot(), "<x/>", {}, {}, 400},
        {"malformed flag body", "PROPPATCH", me.message("INBOX", "x"), "<<", {}, {}, 400},
        {"flag without hm:read",
         "PROPPATCH",
         me.message("INBOX", "x"),
         "<D:propertyupdate xmlns:D='DAV:'><D:set><D:prop/></D:set></D:propertyupdate>",
         {},
         {},
         400},
        {"flag of unknown message", "PROPPATCH", me.message("INBOX", "x"), kMarkRead, {}, {}, 404},
        {"move without destination", "BMOVE", inbox, move, std::nullopt, "text/xml", 400},
        {"move to empty destination", "BMOVE", inbox, move, "", "text/xml", 400},
        {"move to unknown folder", "BMOVE", inbox, move, me.folder("Nope"), "text/xml", 409},
        {"move into other user's folder", "BMOVE", inbox, move, eve.folder("INBOX"), "text/xml", 403},
        {"move with malformed body", "BMOVE", inbox, "<D:move>", me.folder("Outbox"), "text/xml", 400},
        {"move with wrong type", "BMOVE", inbox, move, me.folder("Outbox"), "application/json", 415},
        {"send with wrong type", "POST", me.sendMessage(), "MAIL FROM:<a>\r\n", {}, "text/plain", 415},
        {"send malformed", "POST", me.sendMessage(), "hello", {}, "message/rfc821", 400},
    };
    for (const auto& c : cases) {
        const DavReply reply = send(c.method, c.url, c.body, c.destination, c.contentType);
        EXPECT_EQ(reply.status, c.status) << c.what;
        EXPECT_TRUE(reply.davError.starts_with(std::to_string(c.status) + " ")) << c.what << ": " << reply.davError;
    }
    // Nothing above moved or changed a message.
    EXPECT_EQ(parse(send("PROPFIND", inbox)).select_nodes("//D:response").size(),
              DemoMail::samples("tarnwick.local").size());
}

}  // namespace
