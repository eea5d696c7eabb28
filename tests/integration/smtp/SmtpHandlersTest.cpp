// The SMTP command handlers over loopback sockets, against a scripted WebDAV service: replies and log lines
// of the dialogue, the relayed text byte for byte, the log-in once per connection with the credentials the
// POP3 server received, and failures answered "500 " with the data phase ended all the same.
#include <QTcpSocket>
#include <QTest>

#include <gmock/gmock.h>
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
#include "servers/smtp/CSmtpServer.h"
#include "tests/support/FakeGatewayHost.h"

namespace {

using ::testing::ElementsAre;
using testing_support::DavReply;
using testing_support::FakeWebDavService;
using testing_support::ScriptedReply;

constexpr int kTimeoutMs = 30000;
const std::string kUnavailable = "500 " + std::string(servers::smtp::CSmtpServer::kCredentialsUnavailable) + "\r\n";
const std::string kUnknown = "500 Tarnwick/SMTP Gateway Server does not understand the command: ";
const std::string kQueued = "250 message queued\r\n";

std::string FreePort() { return std::to_string(testing_support::ClosedLoopbackPort()); }

// The mail reader's side: bytes out, reply lines back.
class Client {
public:
    explicit Client(const std::string& port) {
        socket_.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(std::stoi(port)));
        socket_.waitForConnected(kTimeoutMs);
    }
    void Send(const std::string& bytes) {
        socket_.write(bytes.data(), static_cast<qint64>(bytes.size()));
        socket_.flush();
    }
    // One reply line with its CR LF; shorter on time-out, so the caller's comparison fails.
    std::string Line() {
        (void)QTest::qWaitFor([&] { return socket_.canReadLine(); }, kTimeoutMs);
        const QByteArray line = socket_.readLine();
        return std::string(line.constData(), static_cast<std::size_t>(line.size()));
    }
    std::string Ask(const std::string& request) {
        Send(request);
        return Line();
    }

private:
    QTcpSocket socket_;
};

class SmtpHandlersTest : public ::testing::Test {
protected:
    void SetUp() override {
        core::MErrorHandler::ResetForTesting();
        core::MessageBox::SetHandler([](const std::string&) {});
        mailservice::CHotmail::SetServiceEntryURL(svc.Url(hotmail_test::kEntryPath));
        smtp.SetListenPort(port);
        smtp.StartServer();
    }
    void TearDown() override {
        smtp.StopServer();
        pop3.StopServer();
        EXPECT_TRUE(host.unhandled.empty()) << host.unhandled.front().Description();
    }

    // What a POP3 USER and PASS leave in the credential store.
    void Received(const std::string& user = "sam", const std::string& password = "sam pw") {
        host.userName = user;
        host.password = password;
    }
    // Queues the replies of one log-in: the entry address, then the folder listing.
    void ScriptLogIn() {
        svc.Enqueue(DavReply(hotmail_test::LoginReply(
            svc.Url("/base"), {svc.Url("/ad"), svc.Url("/contacts"), svc.Url("/inbox"), svc.Url("/out"),
                               svc.Url("/sent"), svc.Url("/trash"), svc.Url("/root")})));
        svc.Enqueue(DavReply(hotmail_test::FolderReply({{svc.Url("/inbox"), "Inbox"}})));
    }
    void ScriptPost() { svc.Enqueue(DavReply("", 200, "200 No error")); }
    static constexpr std::size_t kLogInRequests = 2;

    std::vector<testing_support::RecordedRequest> Posts() const {
        std::vector<testing_support::RecordedRequest> posts;
        for (const auto& r : svc.Requests()) {
            if (r.method == "POST") posts.push_back(r);
        }
        return posts;
    }
    std::unique_ptr<Client> Connect() {
        auto client = std::make_unique<Client>(port);
        EXPECT_EQ(client->Line(), "220 tarnwick.local\r\n");
        return client;
    }
    // Envelope and DATA, each answered as it must be.
    void Begin(Client& client, const std::string& from = "<sam@tarnwick.local>",
               const std::string& to = "<rita@tarnwick.local>") {
        EXPECT_EQ(client.Ask("MAIL FROM: " + from + "\r\n"), "250 ok\r\n");
        EXPECT_EQ(client.Ask("RCPT TO: " + to + "\r\n"), "250 ok\r\n");
        EXPECT_EQ(client.Ask("DATA\r\n"), "354 ok\r\n");
    }
    long Logged(const std::string& entry) const { return std::count(host.log.begin(), host.log.end(), entry); }
    void Hangup(std::unique_ptr<Client>& client) {
        const long closes = Logged("SOCKET_EVENT: OnClose Fired");
        client.reset();
        ASSERT_TRUE(QTest::qWaitFor([&] { return Logged("SOCKET_EVENT: OnClose Fired") > closes; }, kTimeoutMs));
    }

    FakeWebDavService svc{FakeWebDavService::Auth::Basic, "sam", "sam pw"};
    tests::FakeGatewayHost host;
    servers::smtp::CSmtpServer smtp{host};
    servers::pop3::CPop3Server pop3{host};
    std::string port = FreePort();
};

TEST_F(SmtpHandlersTest, HeloNeedsAPop3UserFirst) {
    auto client = Connect();
    EXPECT_EQ(client->Ask("HELO me\r\n"), kUnavailable);
    // A refused HELO does not end the dialogue.
    EXPECT_EQ(client->Ask("MAIL FROM:<a@b>\r\n"), "250 ok\r\n");

    // USER alone, no PASS, on the POP3 port of the same gateway.
    pop3.SetListenPort(FreePort());
    pop3.StartServer();
    Client reader(pop3.ListenPort());
    reader.Line();
    EXPECT_EQ(reader.Ask("USER sam\r\n"), "+OK send password\r\n");
    host.log.clear();

    EXPECT_EQ(client->Ask("helo me\r\n"), "250 hello\r\n");
    EXPECT_THAT(host.log,
                ElementsAre("SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: HELO", "SERVER_RESPONSE: 250 hello"));
    EXPECT_TRUE(svc.Requests().empty());
}

TEST_F(SmtpHandlersTest, WordsOutsideTheReducedDialogueAreRefusedWithTheirWord) {
    auto client = Connect();
    const std::pair<std::string, std::string> exchanges[] = {
        {"EHLO client.example\r\n", kUnknown + "EHLO\r\n"},
        {"ehlo\r\n", kUnknown + "EHLO\r\n"},
        {"RSET\r\n", kUnknown + "RSET\r\n"},
        {"noop\r\n", kUnknown + "NOOP\r\n"},
        {"VRFY sam\r\n", kUnknown + "VRFY\r\n"},
        {"Quit\r\n", "221 tarnwick.local\r\n"},
    };
    for (const auto& [request, answer] : exchanges) EXPECT_EQ(client->Ask(request), answer) << request;
    EXPECT_EQ(host.log.back(), "SERVER_RESPONSE: 221 tarnwick.local");
}

TEST_F(SmtpHandlersTest, ThreeChunksRelayedByteForByte) {
    Received();
    ScriptLogIn();
    ScriptPost();
    auto client = Connect();
    EXPECT_EQ(client->Ask("HELO me\r\n"), "250 hello\r\n");
    host.log.clear();
    Begin(*client);
    // Dot lines as the client stuffed them, 8-bit bytes, and the last line sent with the end mark.
    const std::string chunks[] = {"Subject: caf\xE9 \xC3\xA9t\xC3\xA9\r\n\r\n", "..leading dot\r\n...\r\n..\r\n",
                                  "\x80\xFF last line\r\n.\r\n"};
    EXPECT_EQ(client->Ask(chunks[0]), "250 ok\r\n");
    EXPECT_EQ(client->Ask(chunks[1]), "250 ok\r\n");
    EXPECT_EQ(client->Ask(chunks[2]), kQueued);

    const auto posts = Posts();
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0].path, "/out");
    EXPECT_EQ(posts[0].Header("Content-Type"), "message/rfc821");
    EXPECT_EQ(posts[0].body,
              "MAIL FROM:<sam@tarnwick.local>\r\nRCPT TO:<rita@tarnwick.local>\r\n\r\n"
              "Subject: caf\xE9 \xC3\xA9t\xC3\xA9\r\n\r\n..leading dot\r\n...\r\n..\r\n\x80\xFF last line\r\n"
              "\r\n.\r\n");
    // The replies to chunks stay out of the log; the relay's reply is in it.
    EXPECT_THAT(host.log,
                ElementsAre("SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: MAIL", "SERVER_RESPONSE: 250 ok",
                            "SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: RCPT", "SERVER_RESPONSE: 250 ok",
                            "SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: DATA", "SERVER_RESPONSE: 354 ok",
                            "SERVER_RESPONSE: 250 message queued"));
    EXPECT_EQ(host.WinsockSMTP().State(), core::ISocketControl::kConnected);
}

TEST_F(SmtpHandlersTest, EnvelopeArgumentsAsWrittenAndTwoMessagesWithOneLogIn) {
    Received();
    ScriptLogIn();
    ScriptPost();
    ScriptPost();
    auto client = Connect();
    // No colon: an empty sender. Two RCPT lines: the second wins. MAIL and RCPT in one arrival: one MAIL.
    EXPECT_EQ(client->Ask("MAIL\r\n"), "250 ok\r\n");
    EXPECT_EQ(client->Ask("rcpt to:<first@x>\r\n"), "250 ok\r\n");
    EXPECT_EQ(client->Ask("RCPT TO:  <rita@tarnwick.local> NOTIFY=NEVER  \r\n"), "250 ok\r\n");
    EXPECT_EQ(client->Ask("DATA\r\n"), "354 ok\r\n");
    EXPECT_EQ(client->Ask("one\r\n.\r\n"), kQueued);
    EXPECT_EQ(client->Ask("MAIL FROM:<a@x>\r\nRCPT TO:<b@y>\r\n"), "250 ok\r\n");
    EXPECT_EQ(client->Ask("DATA\r\n"), "354 ok\r\n");
    EXPECT_EQ(client->Ask("two\r\n.\r\n"), kQueued);
    EXPECT_EQ(client->Ask("QUIT\r\n"), "221 tarnwick.local\r\n");

    EXPECT_EQ(svc.Requests().size(), kLogInRequests + 2) << "one log-in for the connection";
    const auto posts = Posts();
    ASSERT_EQ(posts.size(), 2u);
    EXPECT_EQ(posts[0].body, "MAIL FROM:\r\nRCPT TO:<rita@tarnwick.local> NOTIFY=NEVER\r\n\r\none\r\n\r\n.\r\n");
    EXPECT_EQ(posts[1].body,
              "MAIL FROM:<a@x>RCPT TO:<b@y>\r\nRCPT TO:<rita@tarnwick.local> NOTIFY=NEVER\r\n\r\ntwo\r\n\r\n.\r\n");
}

TEST_F(SmtpHandlersTest, EndMarkEndsTheDataWhereverTheArrivalsSplitIt) {
    Received();
    ScriptLogIn();
    for (int i = 0; i < 3; ++i) ScriptPost();
    auto client = Connect();
    // The QUIT of a client that read an early "250 ok" as its end-of-data reply, in one arrival with the mark.
    Begin(*client);
    client->Send("first\r\n.\r\nQUIT\r\n");
    EXPECT_EQ(client->Line(), kQueued);
    EXPECT_EQ(client->Line(), "221 tarnwick.local\r\n");
    // The "." line sent on its own after a text that ends with its line break.
    Begin(*client);
    EXPECT_EQ(client->Ask("second\r\n"), "250 ok\r\n");
    EXPECT_EQ(client->Ask(".\r\n"), kQueued);
    // "." right after DATA: an empty message.
    Begin(*client);
    EXPECT_EQ(client->Ask(".\r\n"), kQueued);

    const auto posts = Posts();
    ASSERT_EQ(posts.size(), 3u);
    const std::string envelope = "MAIL FROM:<sam@tarnwick.local>\r\nRCPT TO:<rita@tarnwick.local>\r\n\r\n";
    EXPECT_EQ(posts[0].body, envelope + "first\r\n\r\n.\r\n");
    EXPECT_EQ(posts[1].body, envelope + "second\r\n\r\n.\r\n");
    EXPECT_EQ(posts[2].body, envelope + "\r\n.\r\n");
    EXPECT_EQ(Logged("CLIENT_REQUEST: QUIT"), 1);
}

TEST_F(SmtpHandlersTest, NothingPostedWithoutCredentialsThenTheSameConnectionRelays) {
    auto client = Connect();
    Begin(*client);
    EXPECT_EQ(client->Ask("text\r\n.\r\n"), kUnavailable);
    EXPECT_TRUE(svc.Requests().empty());
    EXPECT_EQ(svc.Challenges(), 0);

    Received();
    ScriptLogIn();
    ScriptPost();
    EXPECT_EQ(client->Ask("DATA\r\n"), "354 ok\r\n");
    EXPECT_EQ(client->Ask("again\r\n.\r\n"), kQueued);
    ASSERT_EQ(Posts().size(), 1u);
    EXPECT_EQ(Posts()[0].body,
              "MAIL FROM:<sam@tarnwick.local>\r\nRCPT TO:<rita@tarnwick.local>\r\n\r\nagain\r\n\r\n.\r\n");
}

TEST_F(SmtpHandlersTest, LogInFailureIsAnsweredAndTriedAgainAtTheNextEndOfData) {
    Received();
    svc.Enqueue(ScriptedReply{200, {{"X-Dav-Error", "200 No error"}}, "<broken", /*breakOff=*/true});
    auto client = Connect();
    Begin(*client);
    const std::string failed = "500 The connection with the server was terminated abnormally\r\n";
    EXPECT_EQ(client->Ask("text\r\n.\r\n"), failed);
    EXPECT_EQ(host.log.back(), "SERVER_RESPONSE: " + failed.substr(0, failed.size() - 2));
    EXPECT_TRUE(Posts().empty());
    // Back in command mode.
    EXPECT_EQ(client->Ask("QUIT\r\n"), "221 tarnwick.local\r\n");

    ScriptLogIn();
    ScriptPost();
    EXPECT_EQ(client->Ask("DATA\r\n"), "354 ok\r\n");
    EXPECT_EQ(client->Ask("text\r\n.\r\n"), kQueued);
    EXPECT_EQ(Posts().size(), 1u);
}

TEST_F(SmtpHandlersTest, PostFailureIsAnsweredAndEndsTheDataPhase) {
    Received();
    ScriptLogIn();
    // A reply without the service's error header.
    svc.Enqueue(ScriptedReply{200, {}, "", false});
    auto client = Connect();
    Begin(*client);
    EXPECT_EQ(client->Ask("text\r\n.\r\n"), "500 The requested header was not found\r\n");
    EXPECT_EQ(Logged("SERVER_RESPONSE: 500 The requested header was not found"), 1);
    EXPECT_EQ(client->Ask("QUIT\r\n"), "221 tarnwick.local\r\n");
    EXPECT_EQ(Posts().size(), 1u);
}

TEST_F(SmtpHandlersTest, AClientThatLeavesInTheDataPhaseLeavesTheNextOneInCommandMode) {
    Received();
    auto client = Connect();
    Begin(*client);
    EXPECT_EQ(client->Ask("half a message\r\n"), "250 ok\r\n");
    Hangup(client);

    client = Connect();
    EXPECT_EQ(client->Ask("HELO me\r\n"), "250 hello\r\n");
    EXPECT_EQ(smtp.LastCommand(), "HELO");
    EXPECT_TRUE(svc.Requests().empty()) << "a connection without a completed message never logs in";
}

}  // namespace
