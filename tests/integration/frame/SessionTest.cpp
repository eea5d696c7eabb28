// The frame over loopback sockets, with the POP3 server as its vehicle: dispatch by word, one client at a
// time, the activity log entry by entry, start and stop, and a socket error.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QTcpServer>

#include <string>

#include "LoopbackClient.h"
#include "core/Error.h"
#include "core/MErrorHandler.h"
#include "servers/pop3/CPop3Server.h"
#include "servers/smtp/CSmtpServer.h"
#include "tests/support/FakeGatewayHost.h"

namespace {

using server_tests::LoopbackClient;
using ::testing::ElementsAre;

const std::string kHello = "+OK Tarnwick/POP3 Gateway Server - Hello";
const std::string kGoodBye = "+OK Tarnwick/POP3 Gateway Server - Good-Bye";
const std::string kUnknown = "-ERR Tarnwick/POP3 Gateway Server does not understand the command: ";

class SessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        core::MErrorHandler::ResetForTesting();
        pop3.SetListenPort(port);
    }
    void TearDown() override {
        pop3.StopServer();
        smtp.StopServer();
        EXPECT_TRUE(host.unhandled.empty()) << host.unhandled.front().Description();
    }
    bool WaitForLog(const std::string& entry, long times = 1) {
        return server_tests::WaitForLog(host.log, entry, times);
    }

    tests::FakeGatewayHost host;
    servers::pop3::CPop3Server pop3{host};
    servers::smtp::CSmtpServer smtp{host};
    std::string port = server_tests::FreePort();
};

TEST_F(SessionTest, EachArrivalIsOneRequestDispatchedByItsExactWord) {
    pop3.StartServer();
    LoopbackClient client(port);
    EXPECT_EQ(client.Line(), kHello + "\r\n");
    const std::pair<std::string, std::string> exchanges[] = {
        {"US", kUnknown + "US\r\n"},
        // "TOP " is not the bare "TOP" entry.
        {"TOP 1 5\r\n", kUnknown + "TOP \r\n"},
        {"conn\r\n", kHello + "\r\n"},
        {"\xE9tat\r\n", kUnknown + "\xE9TAT\r\n"},
    };
    for (const auto& [request, answer] : exchanges) EXPECT_EQ(client.Ask(request), answer) << request;
    // Words without a handler get no answer: the farewell is the next thing on the wire.
    const std::pair<std::string, std::string> unanswered[] = {{"noop\r\n", "NOOP"}, {"RSET\r\n", "RSET"}, {"TOP", "TOP"}};
    for (const auto& [request, word] : unanswered) {
        client.Send(request);
        ASSERT_TRUE(WaitForLog("CLIENT_REQUEST: " + request));
        EXPECT_EQ(pop3.LastCommand(), word);
    }
    EXPECT_EQ(client.Ask("QUIT\r\n"), kGoodBye + "\r\n");
    EXPECT_EQ(pop3.LastCommand(), "QUIT");
}

TEST_F(SessionTest, Pop3SessionLogEntryByEntry) {
    host.log.push_back("left over from before");
    pop3.StartServer();
    auto client = std::make_unique<LoopbackClient>(port);
    client->Line();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnSendComplete Fired"));
    client->Send("noop\r\n");
    ASSERT_TRUE(WaitForLog("CLIENT_REQUEST: noop\r\n"));
    client->Ask("QUIT\r\n");
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnSendComplete Fired", 2));
    client.reset();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired"));

    EXPECT_EQ(host.clearCount, 1);
    EXPECT_THAT(host.log,
                ElementsAre("SOCKET_EVENT: OnConnectionRequest Fired", "SERVER_RESPONSE: " + kHello,
                            "SOCKET_EVENT: OnSendProgress Fired", "SOCKET_EVENT: OnSendComplete Fired",
                            "SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: noop\r\n",
                            "SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: QUIT\r\n",
                            "SERVER_RESPONSE: " + kGoodBye, "SOCKET_EVENT: OnSendProgress Fired",
                            "SOCKET_EVENT: OnSendComplete Fired", "SOCKET_EVENT: OnClose Fired"));
    EXPECT_EQ(pop3.LastCommand(), "CONN");
}

TEST_F(SessionTest, SmtpLogsTheWordAndNoSendEvents) {
    smtp.SetListenPort(port);
    smtp.StartServer();
    auto client = std::make_unique<LoopbackClient>(port);
    client->Line();
    client->Ask("ehlo x\r\n");
    client.reset();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired"));
    EXPECT_THAT(host.log, ElementsAre("SOCKET_EVENT: OnConnectionRequest Fired", "SERVER_RESPONSE: 220 tarnwick.local",
                                      "SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: EHLO",
                                      "SERVER_RESPONSE: 500 Tarnwick/SMTP Gateway Server does not understand the "
                                      "command: EHLO",
                                      "SOCKET_EVENT: OnClose Fired"));
}

TEST_F(SessionTest, OneClientAtATimeAndListeningAgainAfterClose) {
    pop3.StartServer();
    auto first = std::make_unique<LoopbackClient>(port);
    EXPECT_EQ(first->Line(), kHello + "\r\n");
    EXPECT_TRUE(LoopbackClient(port).Refused());

    first.reset();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired"));
    LoopbackClient second(port);
    EXPECT_EQ(second.Line(), kHello + "\r\n");
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
    pop3.StartServer();
    LoopbackClient client(port);
    EXPECT_EQ(client.Line(), kHello + "\r\n");
    EXPECT_EQ(client.Ask("QUIT\r\n"), kGoodBye + "\r\n");
    // What the socket control raises when the connection fails (a peer's orderly close is a close).
    pop3.OnError(10053, "Software caused connection abort");
    EXPECT_EQ(host.log.back(), "SOCKET_EVENT: OnError Fired");
    EXPECT_EQ(pop3.LastCommand(), "QUIT");
    EXPECT_TRUE(LoopbackClient(port).Refused());

    pop3.StopServer();
    pop3.StartServer();
    EXPECT_EQ(pop3.LastCommand(), "CONN");
    EXPECT_EQ(LoopbackClient(port).Line(), kHello + "\r\n");
}

TEST_F(SessionTest, StopClosesListenerAndConnection) {
    pop3.StopServer();  // never started: nothing happens
    pop3.StartServer();
    pop3.StopServer();
    EXPECT_TRUE(LoopbackClient(port).Refused());

    pop3.StartServer();
    LoopbackClient client(port);
    EXPECT_EQ(client.Line(), kHello + "\r\n");
    pop3.StopServer();
    EXPECT_TRUE(client.Dropped());
}

}  // namespace
