// SMTP sessions against a scripted WebDAV service, with the credentials the POP3 server received.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "servers/smtp/CSmtpServer.h"
#include "tests/support/FileSizeLimit.h"
#include "tests/support/ServerTestSupport.h"

namespace {

using ::testing::ElementsAre;
using testing_support::LineClient;
using testing_support::ScriptLogIn;

const std::string kUnavailable =
    "500 Tarnwick/SMTP Gateway Server Username and Password are unavailable. Please perform a 'Receive' before "
    "sending any messages to initialize the application.\r\n";
const std::string kUnknown = "500 Tarnwick/SMTP Gateway Server does not understand the command: ";
const std::string kQueued = "250 message queued\r\n";
const std::string kEnvelope = "MAIL FROM:<sam@tarnwick.local>\r\nRCPT TO:<rita@tarnwick.local>\r\n\r\n";

// Chunk replies held long enough that none goes out while a client sends; the credential store holds what a POP3
// USER and PASS leave in it.
class SmtpHandlersTest : public server_tests::ServerTest<servers::smtp::CSmtpServer> {
protected:
    void SetUp() override {
        ServerTest::SetUp();
        server.SetReplyHoldTime(std::chrono::seconds(30));
        host.userName = "sam";
        host.password = "sam pw";
    }
    std::vector<std::string> Posted() const {
        std::vector<std::string> bodies;
        for (const auto& r : svc.Requests()) {
            if (r.method == "POST") bodies.push_back(r.body);
        }
        return bodies;
    }
    std::unique_ptr<LineClient> Connect() {
        auto client = std::make_unique<LineClient>(port);
        EXPECT_EQ(client->ReceiveLine(), "220 tarnwick.local\r\n");
        return client;
    }
    // Sends one chunk as an arrival of its own: the server has read it before the call returns.
    void Stream(LineClient& client, const std::string& chunk) {
        const int reads = host.smtp.reads;
        client.Send(chunk);
        EXPECT_TRUE(QTest::qWaitFor([&] { return host.smtp.reads > reads; }, testing_support::kTimeoutMs));
    }
    // Envelope and DATA, each answered as it must be.
    static void Begin(LineClient& client) {
        EXPECT_EQ(client.Ask("MAIL FROM: <sam@tarnwick.local>\r\n"), "250 ok\r\n");
        EXPECT_EQ(client.Ask("RCPT TO: <rita@tarnwick.local>\r\n"), "250 ok\r\n");
        EXPECT_EQ(client.Ask("DATA\r\n"), "354 ok\r\n");
    }
};

// One connection: only the reduced dialogue, HELO only with a user name; a log-in that fails is answered "500 "
// at the end of the data and the next message logs in again, once for the rest of the connection; the envelope
// as written, and each message relayed ending exactly as the client's data did, wherever the arrivals split the
// end mark.
TEST_F(SmtpHandlersTest, ReducedDialogueAFailedLogInTriedAgainAndTheEndMarkWhereverTheArrivalsSplitIt) {
    server.SetReplyHoldTime(std::chrono::milliseconds(50));  // this client waits for each chunk's reply
    host.userName.clear();
    host.password.clear();
    auto client = Connect();
    const std::string exchanges[][2] = {
        {"HELO me\r\n", kUnavailable},          {"EHLO client.example\r\n", kUnknown + "EHLO\r\n"},
        {"RSET\r\n", kUnknown + "RSET\r\n"},    {"VRFY sam\r\n", kUnknown + "VRFY\r\n"},
        {"CONN\r\n", "220 tarnwick.local\r\n"}, {"Quit\r\n", "221 tarnwick.local\r\n"},
    };
    for (const auto& [request, answer] : exchanges) EXPECT_EQ(client->Ask(request), answer) << request;

    // A USER on the POP3 port fills the credential store, even without PASS.
    host.userName = "sam";
    host.log.clear();
    EXPECT_EQ(client->Ask("helo me\r\n"), "250 hello\r\n");
    EXPECT_THAT(host.log,
                ElementsAre("SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: HELO", "SERVER_RESPONSE: 250 hello"));

    host.password = "sam pw";
    svc.Enqueue({.body = "<broken", .breakOff = true});
    Begin(*client);
    EXPECT_EQ(client->Ask("text\r\n.\r\n"), "500 The connection with the server was terminated abnormally\r\n");

    ScriptLogIn(svc);
    for (int i = 0; i < 3; ++i) svc.Enqueue({});
    // The sender as written (here none) and the last recipient only.
    EXPECT_EQ(client->Ask("MAIL\r\n"), "250 ok\r\n");
    EXPECT_EQ(client->Ask("rcpt to:<first@x>\r\n"), "250 ok\r\n");
    EXPECT_EQ(client->Ask("RCPT TO:  <rita@tarnwick.local> NOTIFY=NEVER  \r\n"), "250 ok\r\n");
    EXPECT_EQ(client->Ask("DATA\r\n"), "354 ok\r\n");
    EXPECT_EQ(client->Ask("one\r\n.\r\n"), kQueued);
    // The QUIT of a client that read an early "250 ok" as its end-of-data reply, in one arrival with the mark.
    Begin(*client);
    client->Send("first\r\n.\r\nQUIT\r\n");
    EXPECT_EQ(client->ReceiveLine(), kQueued);
    EXPECT_EQ(client->ReceiveLine(), "221 tarnwick.local\r\n");
    // A text that ends with its line break, then the whole mark as an arrival of its own: one empty line.
    Begin(*client);
    EXPECT_EQ(client->Ask("Subject: later\r\n\r\nnow\r\n"), "250 ok\r\n");
    EXPECT_EQ(client->Ask("\r\n.\r\n"), kQueued);

    EXPECT_THAT(Posted(), ElementsAre("MAIL FROM:\r\nRCPT TO:<rita@tarnwick.local> NOTIFY=NEVER\r\n\r\none\r\n.\r\n",
                                      kEnvelope + "first\r\n.\r\n",
                                      kEnvelope + "Subject: later\r\n\r\nnow\r\n\r\n.\r\n"));
    EXPECT_EQ(svc.Requests().size(), 1u + 5u) << "the failed log-in, then one log-in for the three messages";
}

// A client that streams its message reads, after its end mark, the chunk replies and then the reply to the
// message, or only the failure: nothing goes out while it sends. The text goes to a file as it comes; when the
// file system refuses it (here through the file size limit, which needs no privileges), the answer is "Disk full",
// the held chunk replies are dropped and nothing is relayed. After each failure the next message goes through.
TEST_F(SmtpHandlersTest, AStreamingClientReadsTheHeldRepliesAfterTheRelayOrOnlyTheFailure) {
    ScriptLogIn(svc);
    svc.Enqueue({});
    svc.Enqueue({.davError = "", .breakOff = true});
    auto client = Connect();
    testing_support::FileSizeLimit limit(64 << 10);
    ASSERT_TRUE(limit.Active());
    Begin(*client);
    for (int i = 0; i < 3; ++i) Stream(*client, std::string(40000, 'z') + "\r\n");
    const std::string refused = client->Ask("last\r\n.\r\n");
    ASSERT_TRUE(limit.Lift());
    EXPECT_EQ(refused, "500 Disk full\r\n");

    const std::string answers[] = {"250 ok\r\n250 ok\r\n" + kQueued,
                                   "500 The connection with the server was terminated abnormally\r\n"};
    for (const std::string& answer : answers) {
        Begin(*client);
        Stream(*client, "Subject: s\r\n\r\n");
        Stream(*client, "line\r\n");
        EXPECT_EQ(client->socket.bytesAvailable(), 0) << "a chunk's reply went out while the client was sending";
        client->Send("last\r\n.\r\n");
        EXPECT_EQ(client->Receive(answer.size()), answer);
        EXPECT_EQ(client->Ask("QUIT\r\n"), "221 tarnwick.local\r\n") << "no reply was left over";
    }
    EXPECT_THAT(Posted(), ElementsAre(kEnvelope + "Subject: s\r\n\r\nline\r\nlast\r\n.\r\n",
                                      kEnvelope + "Subject: s\r\n\r\nline\r\nlast\r\n.\r\n"));
}

// Closed in an orderly way or reset, the connection takes its held replies with it: else the next client's first
// reply would carry them.
TEST_F(SmtpHandlersTest, AClientThatClosesOrResetsWhileRepliesAreHeldLeavesNothingForTheNextOne) {
    for (const bool reset : {false, true}) {
        auto client = Connect();
        Begin(*client);
        Stream(*client, "half a message\r\n");
        if (reset) {
            const linger abortive{1, 0};
            ASSERT_EQ(setsockopt(static_cast<int>(client->socket.socketDescriptor()), SOL_SOCKET, SO_LINGER, &abortive,
                                 sizeof abortive),
                      0);
        }
        client->socket.abort();
        ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired")) << "reset " << reset;
        EXPECT_EQ(host.log.back(), "SOCKET_EVENT: OnClose Fired") << "reset " << reset;

        auto next = Connect();
        EXPECT_EQ(next->Ask("HELO me\r\n"), "250 hello\r\n") << "reset " << reset;
        next.reset();
        ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired"));
    }
    EXPECT_TRUE(svc.Requests().empty());
}

}  // namespace
