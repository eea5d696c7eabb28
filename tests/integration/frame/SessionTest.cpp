// The frame over loopback sockets, with the POP3 server as its vehicle: dispatch by word, one client at a
// time, the activity log entry by entry, start and stop, and a socket error. (The SMTP server's own log
// entries are checked with its dialogue.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ServerTestSupport.h"
#include "core/Error.h"
#include "servers/pop3/CPop3Server.h"

namespace {

using ::testing::ElementsAre;
using testing_support::LineClient;

const std::string kHello = "+OK Tarnwick/POP3 Gateway Server - Hello";
const std::string kGoodBye = "+OK Tarnwick/POP3 Gateway Server - Good-Bye";
const std::string kUnknown = "-ERR Tarnwick/POP3 Gateway Server does not understand the command: ";

using SessionTest = server_tests::ServerTest<servers::pop3::CPop3Server>;

TEST_F(SessionTest, EachArrivalIsOneRequestDispatchedByItsExactWord) {
    LineClient client(port);
    EXPECT_EQ(client.ReceiveLine(), kHello + "\r\n");
    const std::pair<std::string, std::string> exchanges[] = {
        {"US", kUnknown + "US\r\n"},
        // "TOP " is not the bare "TOP" entry.
        {"TOP 1 5\r\n", kUnknown + "TOP \r\n"},
        {"conn\r\n", kHello + "\r\n"},
        {"\xE9tat\r\n", kUnknown + "\xE9TAT\r\n"},
    };
    for (const auto& [request, answer] : exchanges) EXPECT_EQ(client.Ask(request), answer) << request;
    // Words without a handler get no answer: the farewell is the next thing on the wire.
    const std::pair<std::string, std::string> unanswered[] = {
        {"noop\r\n", "NOOP"}, {"RSET\r\n", "RSET"}, {"TOP", "TOP"}};
    for (const auto& [request, word] : unanswered) {
        client.Send(request);
        ASSERT_TRUE(WaitForLog("CLIENT_REQUEST: " + request));
        EXPECT_EQ(server.LastCommand(), word);
    }
    EXPECT_EQ(client.Ask("QUIT\r\n"), kGoodBye + "\r\n");
    EXPECT_EQ(server.LastCommand(), "QUIT");
}

TEST_F(SessionTest, Pop3SessionLogEntryByEntry) {
    host.log.push_back("left over from before");
    auto client = std::make_unique<LineClient>(port);
    client->ReceiveLine();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnSendComplete Fired"));
    client->Send("noop\r\n");
    ASSERT_TRUE(WaitForLog("CLIENT_REQUEST: noop\r\n"));
    client->Ask("QUIT\r\n");
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnSendComplete Fired", 2));
    client.reset();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired"));

    EXPECT_EQ(host.clearCount, 1);
    EXPECT_THAT(host.log, ElementsAre("SOCKET_EVENT: OnConnectionRequest Fired", "SERVER_RESPONSE: " + kHello,
                                      "SOCKET_EVENT: OnSendProgress Fired", "SOCKET_EVENT: OnSendComplete Fired",
                                      "SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: noop\r\n",
                                      "SOCKET_EVENT: OnDataArrival Fired", "CLIENT_REQUEST: QUIT\r\n",
                                      "SERVER_RESPONSE: " + kGoodBye, "SOCKET_EVENT: OnSendProgress Fired",
                                      "SOCKET_EVENT: OnSendComplete Fired", "SOCKET_EVENT: OnClose Fired"));
    EXPECT_EQ(server.LastCommand(), "CONN");
}

TEST_F(SessionTest, OneClientAtATimeAndListeningAgainAfterClose) {
    auto first = std::make_unique<LineClient>(port);
    EXPECT_EQ(first->ReceiveLine(), kHello + "\r\n");
    EXPECT_TRUE(LineClient(port).Refused());

    first.reset();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired"));
    LineClient second(port);
    EXPECT_EQ(second.ReceiveLine(), kHello + "\r\n");
}

TEST_F(SessionTest, StopAndASocketErrorLeaveNothingListeningUntilTheNextStart) {
    server.StopServer();
    server.StopServer();  // stopped already: nothing happens
    EXPECT_TRUE(LineClient(port).Refused());

    server.StartServer();
    LineClient client(port);
    EXPECT_EQ(client.ReceiveLine(), kHello + "\r\n");
    EXPECT_EQ(client.Ask("QUIT\r\n"), kGoodBye + "\r\n");
    // What the socket control raises when the connection fails (a peer's orderly close is a close).
    server.OnError(10053, "Software caused connection abort");
    EXPECT_EQ(host.log.back(), "SOCKET_EVENT: OnError Fired");
    EXPECT_EQ(server.LastCommand(), "QUIT");
    EXPECT_TRUE(LineClient(port).Refused());

    // Stopping with a client connected drops the connection.
    server.StopServer();
    EXPECT_TRUE(client.Dropped());
    server.StartServer();
    EXPECT_EQ(server.LastCommand(), "CONN");
    EXPECT_EQ(LineClient(port).ReceiveLine(), kHello + "\r\n");
}

}  // namespace
