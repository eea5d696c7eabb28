// The POP3 command handlers over loopback sockets, against a scripted WebDAV service: exact response bytes,
// the log-in and inbox load once per connection and only when the mailbox is needed, deletion on the service
// at once, failures answered "-ERR ", and the credential store.
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "FakeWebDavService.h"
#include "HotmailTestSupport.h"
#include "core/MErrorHandler.h"
#include "core/MessageBox.h"
#include "mailservice/CHotmail.h"
#include "servers/pop3/CPop3Server.h"
#include "tests/support/FakeGatewayHost.h"

namespace {

using testing_support::DavReply;
using testing_support::FakeWebDavService;
using testing_support::ScriptedReply;

constexpr int kTimeoutMs = 30000;
const std::string kHello = "+OK Tarnwick/POP3 Gateway Server - Hello\r\n";
const std::string kGoodBye = "+OK Tarnwick/POP3 Gateway Server - Good-Bye\r\n";
const std::string kAppLine = "X-Application: Tarnwick Gateway - 0.2.0\r\n";

// One message as the service lists it, with the text a GET of its address returns.
struct Listed {
    std::string id;
    std::string from;
    std::string body;
    bool read = false;
};

const Listed kPlain{"MSG-1", "Ann Example <ann@example.org>",
                    "From: Ann Example <ann@example.org>\r\nSubject: Plain\r\n\r\nHello.\r\n"};
const Listed kRead{"MSG-2", "old@example.org", "Subject: Read\r\n\r\nAlready read.\r\n", true};
const Listed kDots{"MSG-3", "dot@example.org",
                   "Subject: Dots\r\n\r\n.\r\n.one\r\n..two\r\nmid . dot\r\n\xE9\xFF\x80 8-bit"};

std::string XmlEscaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else
            out += c;
    }
    return out;
}

std::string Size(const Listed& m) { return std::to_string(m.body.size()); }

// The reader's side of the connection: one request at a time, exact answers back.
class Reader {
public:
    explicit Reader(const std::string& port) {
        socket_.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(std::stoi(port)));
        socket_.waitForConnected(kTimeoutMs);
    }
    // Sends `request` and returns its answer: one line, or up to the "." line of a multi-line answer.
    std::string Ask(const std::string& request, bool multiLine = false) {
        Send(request);
        return Answer(multiLine);
    }
    void Send(const std::string& request) { socket_.write(request.data(), static_cast<qint64>(request.size())); }
    std::string Answer(bool multiLine = false) {
        const auto complete = [&] {
            if (!buffer_.endsWith("\r\n")) return false;
            if (!multiLine || buffer_.startsWith("-ERR")) return true;
            return buffer_.endsWith("\r\n.\r\n") && buffer_.indexOf("\r\n") < buffer_.size() - 3;
        };
        (void)QTest::qWaitFor(
            [&] {
                buffer_ += socket_.readAll();
                return complete();
            },
            kTimeoutMs);
        std::string out(buffer_.constData(), static_cast<std::size_t>(buffer_.size()));
        buffer_.clear();
        return out;
    }

private:
    QTcpSocket socket_;
    QByteArray buffer_;
};

class Pop3HandlersTest : public ::testing::Test {
protected:
    void SetUp() override {
        core::MErrorHandler::ResetForTesting();
        core::MessageBox::SetHandler([](const std::string&) {});
        mailservice::CHotmail::SetServiceEntryURL(svc.Url(hotmail_test::kEntryPath));
        pop3.SetListenPort(port);
        pop3.StartServer();
    }
    void TearDown() override {
        pop3.StopServer();
        EXPECT_TRUE(host.unhandled.empty()) << host.unhandled.front().Description();
    }

    // Queues the replies of one log-in and inbox load: log-in, folder listing, inbox listing, one GET each.
    void ScriptLoad(const std::vector<Listed>& messages) {
        const std::vector<std::string> addresses = {svc.Url("/ad"),  svc.Url("/contacts"), svc.Url("/inbox"),
                                                    svc.Url("/out"), svc.Url("/sent"),     svc.Url("/trash"),
                                                    svc.Url("/root")};
        svc.Enqueue(DavReply(hotmail_test::LoginReply(svc.Url("/base"), addresses)));
        svc.Enqueue(DavReply(hotmail_test::FolderReply({{svc.Url("/inbox"), "Inbox"}})));
        std::string listing =
            "<?xml version=\"1.0\"?><D:multistatus xmlns:D=\"DAV:\" "
            "xmlns:hm=\"urn:schemas:tarnwick:\" xmlns:m=\"urn:schemas:mailheader:\" "
            "xmlns:h=\"http://schemas.tarnwick.invalid/hotmail/\">";
        for (const Listed& m : messages) {
            listing += "<D:response><D:href>" + svc.Url("/inbox/" + m.id) +
                       "</D:href><D:propstat><D:prop>"
                       "<D:id>" +
                       m.id +
                       "</D:id><m:subject>s</m:subject><m:to>t</m:to>"
                       "<m:from>" +
                       XmlEscaped(m.from) +
                       "</m:from><h:fromaddr>a</h:fromaddr>"
                       "<m:date>2002-05-14T10:21:13</m:date>"
                       "<D:getcontentlength>" +
                       Size(m) +
                       "</D:getcontentlength>"
                       "<hm:read>" +
                       (m.read ? "1" : "0") +
                       "</hm:read>"
                       "</D:prop><D:status>HTTP/1.1 200 OK</D:status></D:propstat></D:response>";
        }
        svc.Enqueue(DavReply(listing + "</D:multistatus>"));
        for (const Listed& m : messages) svc.Enqueue(ScriptedReply{200, {}, m.body, false});
    }
    static std::size_t LoadRequests(std::size_t messages) { return 3 + messages; }

    // A reader past the greeting.
    std::unique_ptr<Reader> Connect() {
        auto reader = std::make_unique<Reader>(port);
        EXPECT_EQ(reader->Answer(), kHello);
        return reader;
    }
    std::unique_ptr<Reader> LogIn(const std::string& user = "ann", const std::string& password = "ann pw") {
        auto reader = Connect();
        EXPECT_EQ(reader->Ask("USER " + user + "\r\n"), "+OK send password\r\n");
        EXPECT_EQ(reader->Ask("PASS " + password + "\r\n"), "+OK send stat\r\n");
        return reader;
    }
    // Closes the reader and waits until the server listens again.
    void Hangup(std::unique_ptr<Reader>& reader) {
        const auto closes = std::count(host.log.begin(), host.log.end(), "SOCKET_EVENT: OnClose Fired");
        reader.reset();
        ASSERT_TRUE(QTest::qWaitFor(
            [&] { return std::count(host.log.begin(), host.log.end(), "SOCKET_EVENT: OnClose Fired") > closes; },
            kTimeoutMs));
    }

    FakeWebDavService svc{FakeWebDavService::Auth::Basic, "ann", "ann pw"};
    tests::FakeGatewayHost host;
    servers::pop3::CPop3Server pop3{host};
    std::string port = [] {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        return std::to_string(probe.serverPort());
    }();
};

TEST_F(Pop3HandlersTest, MailboxViewAnswersByteForByteFromOneLoad) {
    ScriptLoad({kPlain, kRead, kDots});
    auto reader = LogIn();
    EXPECT_TRUE(svc.Requests().empty()) << "USER and PASS must not reach the service";

    const std::string total = std::to_string(kPlain.body.size() + kDots.body.size());
    const std::string uid1 = "MSG-1:Ann:Example:<ann:example.org>";
    const std::string uid2 = "MSG-3:dot:example.org";
    struct Exchange {
        std::string request;
        std::string answer;
        bool multiLine = false;
    };
    const Exchange exchanges[] = {
        {"STAT\r\n", "+OK 2 " + total + "\r\n"},
        {"STAT 9\r\n", "+OK 2 " + total + "\r\n"},
        {"LIST\r\n",
         "+OK 2 messages (" + total + " octets)\r\n1 " + Size(kPlain) + "\r\n2 " + Size(kDots) + "\r\n.\r\n", true},
        {"LIST 02\r\n", "+OK 02 " + Size(kDots) + "\r\n"},
        {"LIST  1\r\n", "+OK  1 " + Size(kPlain) + "\r\n"},
        {"LIST 0\r\n", "-ERR No such message\r\n"},
        {"LIST 3\r\n", "-ERR No such message\r\n"},
        {"LIST 32768\r\n", "-ERR No such message\r\n"},
        {"LIST x\r\n", "-ERR Invalid message number\r\n"},
        {"UIDL\r\n", "+OK \r\n1 " + uid1 + "\r\n2 " + uid2 + "\r\n.\r\n", true},
        {"uidl 2\r\n", "+OK 2 " + uid2 + "\r\n"},
        {"UIDL -1\r\n", "-ERR No such message\r\n"},
        {"RETR\r\n", "-ERR Message number required\r\n"},
        // The text already ends in CR LF, so an empty line comes before the terminating line.
        {"RETR 1\r\n", "+OK " + Size(kPlain) + " octets\r\n" + kAppLine + kPlain.body + "\r\n.\r\n", true},
        {"RETR 2\r\n",
         "+OK " + Size(kDots) + " octets\r\n" + kAppLine +
             "Subject: Dots\r\n\r\n..\r\n..one\r\n...two\r\nmid . dot\r\n\xE9\xFF\x80 8-bit\r\n.\r\n",
         true},
        {"QUIT\r\n", kGoodBye},
    };
    for (const Exchange& e : exchanges) {
        EXPECT_EQ(reader->Ask(e.request, e.multiLine), e.answer) << "request: " << e.request;
    }
    EXPECT_EQ(svc.Requests().size(), LoadRequests(3)) << "one load per connection, RETR from memory";
    // The whole RETR response is one log entry.
    EXPECT_NE(std::find(host.log.begin(), host.log.end(),
                        "SERVER_RESPONSE: +OK " + Size(kPlain) + " octets\r\n" + kAppLine + kPlain.body + "\r\n."),
              host.log.end());
}

TEST_F(Pop3HandlersTest, EmptyMailbox) {
    ScriptLoad({});
    auto reader = LogIn();
    EXPECT_EQ(reader->Ask("STAT\r\n"), "+OK 0 0\r\n");
    EXPECT_EQ(reader->Ask("LIST\r\n", true), "+OK 0 messages (0 octets)\r\n.\r\n");
    EXPECT_EQ(reader->Ask("UIDL\r\n", true), "+OK \r\n.\r\n");
    EXPECT_EQ(reader->Ask("RETR 1\r\n"), "-ERR No such message\r\n");
    EXPECT_EQ(reader->Ask("DELE 1\r\n"), "-ERR No such message\r\n");
    EXPECT_EQ(svc.Requests().size(), LoadRequests(0));
}

TEST_F(Pop3HandlersTest, DeleteMovesOnTheServiceAtOnceAndKeepsTheLocalList) {
    ScriptLoad({kPlain, kDots});
    auto reader = LogIn();
    const std::string stat = reader->Ask("STAT\r\n");
    const std::string retr = reader->Ask("RETR 2\r\n", true);

    for (int i = 0; i < 2; ++i) {
        svc.Enqueue(DavReply("moved", 207, "207 moved"));
        EXPECT_EQ(reader->Ask("DELE 2\r\n"), "+OK msg deleted\r\n");
        const auto requests = svc.Requests();
        ASSERT_EQ(requests.size(), LoadRequests(2) + i + 1);
        EXPECT_EQ(requests.back().method, "BMOVE");
        EXPECT_EQ(requests.back().path, "/inbox");
        EXPECT_NE(requests.back().body.find(kDots.id), std::string::npos) << requests.back().body;
        EXPECT_EQ(requests.back().body.find(kPlain.id), std::string::npos) << requests.back().body;
    }
    EXPECT_EQ(reader->Ask("STAT\r\n"), stat);
    EXPECT_EQ(reader->Ask("RETR 2\r\n", true), retr);
    // RSET answers nothing and restores nothing: the farewell is the next thing on the wire.
    reader->Send("RSET\r\n");
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return std::find(host.log.begin(), host.log.end(), "CLIENT_REQUEST: RSET\r\n") != host.log.end(); },
        kTimeoutMs));
    EXPECT_EQ(reader->Ask("QUIT\r\n"), kGoodBye);
    EXPECT_EQ(svc.Requests().size(), LoadRequests(2) + 2);
}

TEST_F(Pop3HandlersTest, FailedDeletionAnswersErr) {
    ScriptLoad({kPlain});
    auto reader = LogIn();
    reader->Ask("STAT\r\n");
    svc.Enqueue(ScriptedReply{200, {{"X-Dav-Error", "200 No error"}}, "moved", /*breakOff=*/true});
    EXPECT_EQ(reader->Ask("DELE 1\r\n"), "-ERR The connection with the server was terminated abnormally\r\n");
    EXPECT_EQ(reader->Ask("DELE 2\r\n"), "-ERR No such message\r\n");
    EXPECT_EQ(svc.Requests().size(), LoadRequests(1) + 1) << "a bad number calls nothing on the service";
}

TEST_F(Pop3HandlersTest, EveryConnectionLoadsAfresh) {
    ScriptLoad({kPlain, kDots});
    auto reader = LogIn();
    EXPECT_EQ(reader->Ask("STAT\r\n"), "+OK 2 " + std::to_string(kPlain.body.size() + kDots.body.size()) + "\r\n");
    Hangup(reader);

    ScriptLoad({kDots});
    reader = LogIn();
    EXPECT_EQ(reader->Ask("LIST\r\n", true),
              "+OK 1 messages (" + Size(kDots) + " octets)\r\n1 " + Size(kDots) + "\r\n.\r\n");
    EXPECT_EQ(svc.Requests().size(), LoadRequests(2) + LoadRequests(1));
}

TEST_F(Pop3HandlersTest, UserAndPassKeepTheirArgumentsWholeAndFillTheCredentialStore) {
    auto reader = Connect();
    EXPECT_EQ(reader->Ask("USER John Q  Public\r\n"), "+OK send password\r\n");
    EXPECT_EQ(pop3.UserName(), "John Q  Public");
    EXPECT_EQ(host.userName, "John Q  Public");
    EXPECT_EQ(reader->Ask("PASS  two words \r\n"), "+OK send stat\r\n");
    EXPECT_EQ(pop3.Password(), " two words ");
    EXPECT_EQ(host.password, " two words ");
    EXPECT_EQ(reader->Ask("USER\r\n"), "+OK send password\r\n");
    EXPECT_EQ(host.userName, "");
    EXPECT_TRUE(svc.Requests().empty());
    EXPECT_EQ(svc.Challenges(), 0);
}

TEST_F(Pop3HandlersTest, PassWithoutUserTriesTheLogInWithAnEmptyName) {
    auto reader = Connect();
    EXPECT_EQ(reader->Ask("PASS ann pw\r\n"), "+OK send stat\r\n");
    EXPECT_EQ(host.password, "ann pw");
    EXPECT_EQ(host.userName, "");
    const std::string answer = reader->Ask("STAT\r\n");
    EXPECT_EQ(answer.rfind("-ERR ", 0), 0u) << answer;
    EXPECT_GT(answer.size(), std::string("-ERR \r\n").size()) << "the error's description follows";
    EXPECT_GT(svc.Challenges(), 0);
    EXPECT_TRUE(svc.Requests().empty());
}

TEST_F(Pop3HandlersTest, WrongPasswordFailsEveryMailboxCommandAndTriesAgainEachTime) {
    auto reader = LogIn("ann", "wrong");
    for (const char* request : {"STAT\r\n", "LIST\r\n", "UIDL 1\r\n", "RETR 1\r\n", "DELE 1\r\n", "STAT\r\n"}) {
        const int before = svc.Challenges();
        const std::string answer = reader->Ask(request);
        EXPECT_EQ(answer.rfind("-ERR ", 0), 0u) << request << answer;
        EXPECT_GT(svc.Challenges(), before) << "no new log-in for " << request;
    }
    EXPECT_TRUE(svc.Requests().empty());
    // The same connection with the right password now gets through.
    ScriptLoad({kPlain});
    EXPECT_EQ(reader->Ask("PASS ann pw\r\n"), "+OK send stat\r\n");
    EXPECT_EQ(reader->Ask("STAT\r\n"), "+OK 1 " + Size(kPlain) + "\r\n");
}

}  // namespace
