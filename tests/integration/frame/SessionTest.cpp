// The frame over loopback sockets, with the POP3 server as its vehicle: one client at a time, start and stop,
// socket errors, and a text queued in pieces that cannot all be read. (Dispatch by word is checked with the
// POP3 dialogue, the log's entries with the SMTP dialogue and the gateway process's standard output.)
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "ServerTestSupport.h"
#include "core/Error.h"
#include "servers/pop3/CPop3Server.h"

namespace {

using testing_support::LineClient;

const std::string kHello = "+OK Tarnwick/POP3 Gateway Server - Hello";

using SessionTest = server_tests::ServerTest<servers::pop3::CPop3Server>;

TEST_F(SessionTest, OneClientAtATimeAndNothingListeningAfterStopOrASocketError) {
    auto first = std::make_unique<LineClient>(port);
    EXPECT_EQ(first->ReceiveLine(), kHello + "\r\n");
    EXPECT_TRUE(LineClient(port).Refused());
    first.reset();
    ASSERT_TRUE(WaitForLog("SOCKET_EVENT: OnClose Fired"));

    LineClient client(port);
    EXPECT_EQ(client.ReceiveLine(), kHello + "\r\n");
    // What the socket control raises when the connection fails (a peer's orderly close is a close).
    server.OnError(10053, "Software caused connection abort");
    EXPECT_EQ(host.log.back(), "SOCKET_EVENT: OnError Fired");
    EXPECT_TRUE(LineClient(port).Refused());

    server.StartServer();
    EXPECT_EQ(LineClient(port).ReceiveLine(), kHello + "\r\n");
    server.StopServer();
    server.StopServer();  // stopped already: nothing happens
    EXPECT_TRUE(LineClient(port).Refused());
}

// Piece 3 cannot be read: the connection is broken off instead of the text ending early.
TEST_F(SessionTest, APieceThatCannotBeReadBreaksTheConnectionOff) {
    struct FailingPieces : core::ITextPieces {
        bool Next(std::string& piece) override {
            if (++read == 3) core::Raise(core::ErrorNumber::kDeviceIo, "test");
            piece.assign(std::size_t{512} << 10, 'p');
            return true;
        }
        int read = 0;
    };
    LineClient client(port);
    EXPECT_EQ(client.ReceiveLine(), kHello + "\r\n");
    host.WinsockPOP3().SendPieces(std::make_unique<FailingPieces>());
    host.WinsockPOP3().SendData("END");
    ASSERT_TRUE(client.Dropped());
    const QByteArray got = client.socket.readAll();
    EXPECT_LE(got.size(), 2 * (512 << 10)) << "more than the two pieces read before the failure";
    EXPECT_FALSE(got.endsWith("END"));
    EXPECT_TRUE(WaitForLog("SOCKET_EVENT: OnError Fired"));
}

}  // namespace
