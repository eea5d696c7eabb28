// Whole sessions against both servers over loopback sockets: greetings, dispatch, one client at a time,
// and the activity log entry by entry.
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/MErrorHandler.h"
#include "servers/pop3/CPop3Server.h"
#include "servers/smtp/CSmtpServer.h"
#include "tests/support/FakeGatewayHost.h"

namespace {

using ::testing::ElementsAre;

constexpr int kTimeoutMs = 5000;
const std::string kPop3Hello = "+OK Tarnwick/POP3 Gateway Server - Hello";
const std::string kPop3GoodBye = "+OK Tarnwick/POP3 Gateway Server - Good-Bye";
const std::string kPop3Unknown = "-ERR Tarnwick/POP3 Gateway Server does not understand the command: ";
const std::string kSmtpUnknown = "500 Tarnwick/SMTP Gateway Server does not understand the command: ";

// A port that was free a moment ago, so a test can listen on the same port across sessions.
std::string FreePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return std::to_string(probe.serverPort());
}

// A mail reader's side of the connection.
class Client {
public:
    bool Connect(const std::string& port) {
        socket_.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(std::stoi(port)));
        return socket_.waitForConnected(kTimeoutMs);
    }
    void Send(const std::string& bytes) {
        socket_.write(bytes.data(), static_cast<qint64>(bytes.size()));
        socket_.flush();
    }
    // Waits for `count` bytes more than already taken and returns exactly those.
    std::string Receive(std::size_t count) {
        // On time-out the shorter text comes back and the caller's comparison fails.
        (void)QTest::qWaitFor([&] { return static_cast<std::size_t>(socket_.bytesAvailable()) >= count; }, kTimeoutMs);
        const QByteArray bytes = socket_.read(static_cast<qint64>(count));
        return std::string(bytes.constData(), static_cast<std::size_t>(bytes.size()));
    }
    // Waits for one line ending in CR LF.
    std::string ReceiveLine() {
        (void)QTest::qWaitFor([&] { return socket_.canReadLine(); }, kTimeoutMs);
        const QByteArray line = socket_.readLine();
        return std::string(line.constData(), static_cast<std::size_t>(line.size()));
    }
    // Tries to connect and waits for the refusal; true when nothing listened on `port`.
    bool RefusedAt(const std::string& port) {
        socket_.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(std::stoi(port)));
        return Refused();
    }
    bool Refused() {
        return QTest::qWaitFor([&] { return socket_.state() == QAbstractSocket::UnconnectedState; }, kTimeoutMs) &&
               socket_.error() == QAbstractSocket::ConnectionRefusedError;
    }
    void Close() { socket_.disconnectFromHost(); }

    QTcpSocket socket_;
};

class SessionTest : public ::testing::Test {
protected:
    void SetUp() override { core::MErrorHandler::ResetForTesting(); }
    void TearDown() override {
        pop3.StopServer();
        smtp.StopServer();
        EXPECT_TRUE(host.unhandled.empty()) << host.unhandled.front().Description();
    }

    void StartPop3() {
        pop3.SetListenPort(port);
        pop3.StartServer();
    }
    void StartSmtp() {
        smtp.SetListenPort(port);
        smtp.StartServer();
    }
    // Waits until `entry` is in the log `times` times.
    bool WaitForLog(const std::string& entry, long times = 1) {
        return QTest::qWaitFor([&] { return std::count(host.log.begin(), host.log.end(), entry) >= times; },
                               kTimeoutMs);
    }

    tests::FakeGatewayHost host;
    servers::pop3::CPop3Server pop3{host};
    servers::smtp::CSmtpServer smtp{host};
    std::string port = FreePort();
};

TEST_F(SessionTest, Pop3RequestsAndTheirAnswers) {
    StartPop3();
    Client client;
    ASSERT_TRUE(client.Connect(port));
    EXPECT_EQ(client.ReceiveLine(), kPop3Hello + "\r\n");

    struct Exchange {
        std::string request;
        std::string answer;
    };
    const Exchange exchanges[] = {
        {"US", kPop3Unknown + "US\r\n"},
        {"TOP 1 5\r\n", kPop3Unknown + "TOP \r\n"},
        {"conn\r\n", kPop3Hello + "\r\n"},
        {"capa\r\n", kPop3Unknown + "CAPA\r\n"},
        {"quit\r\n", kPop3GoodBye + "\r\n"},
        // A byte beyond ASCII comes back unchanged in the quoted word.
        {"\xE9t\r\n", kPop3Unknown + "\xE9T\r\n\r\n"},
    };
    for (const Exchange& e : exchanges) {
        client.Send(e.request);
        EXPECT_EQ(client.Receive(e.answer.size()), e.answer) << "request: " << e.request;
    }
}

TEST_F(SessionTest, Pop3WordsWithoutHandlerGetNoAnswer) {
    StartPop3();
    Client client;
    ASSERT_TRUE(client.Connect(port));
    client.ReceiveLine();
    for (const std::string request : {"noop\r\n", "RSET\r\n", "TOP"}) {
        client.Send(request);
        ASSERT_TRUE(WaitForLog("CLIENT_REQUEST: " + request));
    }
    // The farewell must be the very next thing on the wire.
    client.Send("QUIT\r\n");
    EXPECT_EQ(client.ReceiveLine(), kPop3GoodBye + "\r\n");
    EXPECT_EQ(pop3.LastCommand(), "QUIT");
}

TEST_F(SessionTest, SmtpRequestsAndTheirAnswers) {
    StartSmtp();
    Client client;
    ASSERT_TRUE(client.Connect(port));
    EXPECT_EQ(client.ReceiveLine(), "220 tarnwick.local\r\n");
    const std::pair<std::string, std::string> exchanges[] = {
        {"ehlo x\r\n", kSmtpUnknown + "EHLO\r\n"}, {"rset\r\n", kSmtpUnknown + "RSET\r\n"},
        {" x\r\n", kSmtpUnknown + "\r\n"},         {"CONN\r\n", "220 tarnwick.local\r\n"},
        {"quit\r\n", "221 tarnwick.local\r\n"},
    };
    for (const auto& [request, answer] : exchanges) {
        client.Send(request);
        EXPECT_EQ(client.Receive(answer.size()), answer) << "request: " << request;
    }
}

TEST_F(SessionTest, OneClientAtATimeAndListeningAgainAfterClose) {
    StartPop3();
    Client first;
    ASSERT_TRUE(first.Connect(port));
    EXPECT_EQ(first.ReceiveLine(), kPop3Hello + "\r\n");
    first.Send("QUIT\r\n");
    first.ReceiveLine();
    EXPECT_EQ(pop3.LastCommand(), "QUIT");

    Client second;
    EXPECT_TRUE(second.RefusedAt(port));

    first.Close();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired"));
    EXPECT_EQ(pop3.LastCommand(), "CONN");
    EXPECT_EQ(host.WinsockPOP3().State(), core::ISocketControl::kListening);

    Client third;
    ASSERT_TRUE(third.Connect(port));
    EXPECT_EQ(third.ReceiveLine(), kPop3Hello + "\r\n");
}

TEST_F(SessionTest, Pop3SessionLogEntryByEntry) {
    host.log.push_back("left over from before");
    StartPop3();
    Client client;
    ASSERT_TRUE(client.Connect(port));
    client.ReceiveLine();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnSendComplete Fired"));
    client.Send("noop\r\n");
    ASSERT_TRUE(WaitForLog("CLIENT_REQUEST: noop\r\n"));
    client.Send("QUIT\r\n");
    client.ReceiveLine();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnSendComplete Fired", 2));
    client.Close();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired"));

    EXPECT_EQ(host.clearCount, 1);
    EXPECT_THAT(host.log, ElementsAre("SOCKET_EVENT: OnConnectionRequest Fired", "SERVER_RESPONSE: " + kPop3Hello,
                                      "SOCKET_EVENT: OnSendProgress Fired", "SOCKET_EVENT: OnSendComplete Fired",
                                      "SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: noop\r\n",
                                      "SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: QUIT\r\n",
                                      "SERVER_RESPONSE: " + kPop3GoodBye, "SOCKET_EVENT: OnSendProgress Fired",
                                      "SOCKET_EVENT: OnSendComplete Fired", "SOCKET_EVENT: OnClose Fired"));

    // The next connection starts a fresh log.
    Client next;
    ASSERT_TRUE(next.Connect(port));
    next.Send("\xE9\r\n");
    ASSERT_TRUE(WaitForLog("SERVER_RESPONSE: " + kPop3Unknown + "\xE9\r\n"));
    EXPECT_EQ(host.clearCount, 2);
    EXPECT_EQ(host.log.front(), "SOCKET_EVENT: OnConnectionRequest Fired");
    EXPECT_EQ(std::count(host.log.begin(), host.log.end(), "CLIENT_REQUEST: \xE9\r\n"), 1);
}

TEST_F(SessionTest, SmtpSessionLogsWordsAndNoSendEvents) {
    StartSmtp();
    Client client;
    ASSERT_TRUE(client.Connect(port));
    client.ReceiveLine();
    client.Send("ehlo x\r\n");
    client.ReceiveLine();
    client.Close();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired"));
    EXPECT_THAT(host.log, ElementsAre("SOCKET_EVENT: OnConnectionRequest Fired", "SERVER_RESPONSE: 220 tarnwick.local",
                                      "SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: EHLO",
                                      "SERVER_RESPONSE: " + kSmtpUnknown + "EHLO", "SOCKET_EVENT: OnClose Fired"));
    EXPECT_EQ(smtp.LastCommand(), "CONN");
}

TEST_F(SessionTest, StartFailuresCarryNumberAndFirstLabel) {
    pop3.SetListenPort("abc");
    try {
        pop3.StartServer();
        ADD_FAILURE() << "a non-numeric port must fail";
    } catch (const core::Error& e) {
        EXPECT_EQ(e.Number(), 13);
        EXPECT_EQ(e.Source(), "StartListening Method");
        EXPECT_EQ(e.Description(), "Type mismatch");
    }

    core::MErrorHandler::ResetForTesting();
    QTcpServer occupant;
    ASSERT_TRUE(occupant.listen(QHostAddress::LocalHost, 0));
    smtp.SetListenPort(std::to_string(occupant.serverPort()));
    try {
        smtp.StartServer();
        ADD_FAILURE() << "a port in use must fail";
    } catch (const core::Error& e) {
        EXPECT_EQ(e.Number(), 10048);
        EXPECT_EQ(e.Description(), "Address in use");
    }
}

TEST_F(SessionTest, SocketErrorLeavesTheServerDeafUntilStoppedAndStarted) {
    StartPop3();
    Client client;
    ASSERT_TRUE(client.Connect(port));
    EXPECT_EQ(client.ReceiveLine(), kPop3Hello + "\r\n");
    client.Send("QUIT\r\n");
    EXPECT_EQ(client.ReceiveLine(), kPop3GoodBye + "\r\n");
    // What the socket control raises when the connection fails (a peer's orderly close or reset is a close).
    pop3.OnError(10053, "Software caused connection abort");
    EXPECT_EQ(host.log.back(), "SOCKET_EVENT: OnError Fired");
    EXPECT_EQ(pop3.LastCommand(), "QUIT");  // no session end: nothing restarts the listener

    Client refused;
    EXPECT_TRUE(refused.RefusedAt(port));

    pop3.StopServer();
    pop3.StartServer();
    EXPECT_EQ(pop3.LastCommand(), "CONN");
    Client again;
    ASSERT_TRUE(again.Connect(port));
    EXPECT_EQ(again.ReceiveLine(), kPop3Hello + "\r\n");
}

TEST_F(SessionTest, StopClosesTheListenerAndStartListensAgain) {
    pop3.StopServer();  // never started: nothing happens
    StartPop3();
    pop3.StopServer();
    Client refused;
    EXPECT_TRUE(refused.RefusedAt(port));

    pop3.StartServer();
    Client client;
    ASSERT_TRUE(client.Connect(port));
    EXPECT_EQ(client.ReceiveLine(), kPop3Hello + "\r\n");
    // Stopping with a client connected drops the connection.
    pop3.StopServer();
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return client.socket_.state() == QAbstractSocket::UnconnectedState; }, kTimeoutMs));
}

}  // namespace
