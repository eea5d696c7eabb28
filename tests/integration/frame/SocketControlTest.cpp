// A text queued in pieces goes out as the client takes it: read only a little ahead of the client, every byte
// in order, completion reported once; a piece that cannot be read breaks the connection off instead of
// ending the text early.
#include <QTest>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/Error.h"
#include "core/ISocketEvents.h"
#include "platform/net/SocketControl.h"
#include "tests/support/LineClient.h"

namespace {

constexpr int kTimeoutMs = 30000;
constexpr std::size_t kPieceBytes = std::size_t{512} << 10;
constexpr int kPieces = 128;  // 64 MB

// Piece i is kPieceBytes of one letter; fails instead of giving piece `failAt`.
class CountingPieces : public core::ITextPieces {
public:
    CountingPieces(int& read, int failAt = -1) : read_(read), failAt_(failAt) {}
    bool Next(std::string& piece) override {
        piece.clear();
        if (read_ == kPieces) return false;
        if (read_ == failAt_) core::Raise(core::ErrorNumber::kDeviceIo, "test");
        piece.assign(kPieceBytes, static_cast<char>('a' + read_ % 26));
        ++read_;
        return true;
    }

private:
    int& read_;
    int failAt_;
};

class Events : public core::ISocketEvents {
public:
    explicit Events(platform::net::SocketControl& control) : control_(control) {}
    void OnConnectionRequest(std::int32_t requestId) override { control_.Accept(requestId); }
    void OnDataArrival(std::int32_t /*bytesTotal*/) override {}
    void OnSendProgress(std::int32_t /*bytesSent*/, std::int32_t /*bytesRemaining*/) override {}
    void OnSendComplete() override { ++completes; }
    void OnError(std::int32_t number, const std::string& /*description*/) override { errors.push_back(number); }
    void OnClose() override {}
    void OnConnect() override {}

    int completes = 0;
    std::vector<std::int32_t> errors;

private:
    platform::net::SocketControl& control_;
};

class SocketControlTest : public ::testing::Test {
protected:
    void SetUp() override {
        control.SetEventSink(&events);
        control.SetLocalPort(0);
        control.Listen();
        ASSERT_TRUE(client.Connect(std::to_string(control.LocalPort())));
        ASSERT_TRUE(QTest::qWaitFor([&] { return control.State() == core::ISocketControl::kConnected; }, kTimeoutMs));
    }
    void TearDown() override { control.SetEventSink(nullptr); }

    platform::net::SocketControl control{[](const core::Error& e) { ADD_FAILURE() << e.Description(); }};
    Events events{control};
    testing_support::LineClient client;
};

TEST_F(SocketControlTest, PiecesAreReadAsTheClientTakesThem) {
    // The client takes nothing for now: its socket reads no more than this from the system.
    client.socket.setReadBufferSize(64 << 10);
    int read = 0;
    control.SendPieces(std::make_unique<CountingPieces>(read));
    control.SendData("END");
    QTest::qWait(300);
    // The connection's own buffer and the system's hold some megabytes; the rest waits for the client.
    EXPECT_LE(read, 40) << "pieces read while the client read nothing";
    client.socket.setReadBufferSize(0);

    const std::string got = client.Receive(kPieces * kPieceBytes + 3);
    ASSERT_EQ(got.size(), kPieces * kPieceBytes + 3);
    for (int i = 0; i < kPieces; ++i) {
        const std::string_view piece(got.data() + i * kPieceBytes, kPieceBytes);
        ASSERT_EQ(piece.find_first_not_of(static_cast<char>('a' + i % 26)), std::string_view::npos) << "piece " << i;
    }
    EXPECT_EQ(got.substr(got.size() - 3), "END");
    EXPECT_EQ(read, kPieces);
    EXPECT_TRUE(QTest::qWaitFor([&] { return events.completes > 0; }, kTimeoutMs));
    QTest::qWait(50);
    EXPECT_EQ(events.completes, 1);
}

TEST_F(SocketControlTest, APieceThatCannotBeReadBreaksTheConnectionOff) {
    int read = 0;
    control.SendPieces(std::make_unique<CountingPieces>(read, 3));
    control.SendData("END");
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return client.socket.state() == QAbstractSocket::UnconnectedState; }, kTimeoutMs));
    const QByteArray got = client.socket.readAll();
    // What went out before the failure, at most, and never the end of the text.
    EXPECT_LE(static_cast<std::size_t>(got.size()), 3 * kPieceBytes);
    EXPECT_FALSE(got.endsWith("END"));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !events.errors.empty(); }, kTimeoutMs));
    EXPECT_EQ(events.errors, std::vector<std::int32_t>{core::ErrorNumber::kDeviceIo});
    EXPECT_EQ(events.completes, 0);
}

}  // namespace
