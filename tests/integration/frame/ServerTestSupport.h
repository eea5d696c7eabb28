// Harness for the server tests: a mail reader's side of one loopback connection, the waits on the log, and a
// fixture with one server on a free loopback port, a recording host and a scripted WebDAV service.
#pragma once

#include <QTcpSocket>
#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "FakeWebDavService.h"
#include "HotmailTestSupport.h"
#include "core/MErrorHandler.h"
#include "core/MessageBox.h"
#include "mailservice/CHotmail.h"
#include "tests/support/FakeGatewayHost.h"

namespace server_tests {

inline constexpr int kTimeoutMs = 30000;

// A loopback port nothing listens on, for a server under test.
inline std::string FreePort() { return std::to_string(testing_support::ClosedLoopbackPort()); }

// Waits until `entry` is in `log` at least `times` times.
inline bool WaitForLog(const std::vector<std::string>& log, const std::string& entry, long times = 1) {
    return QTest::qWaitFor([&] { return std::count(log.begin(), log.end(), entry) >= times; }, kTimeoutMs);
}

class LoopbackClient {
public:
    explicit LoopbackClient(const std::string& port) {
        socket_.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(std::stoi(port)));
        (void)socket_.waitForConnected(kTimeoutMs);
    }
    void Send(const std::string& bytes) {
        socket_.write(bytes.data(), static_cast<qint64>(bytes.size()));
        socket_.flush();
    }
    // The next line with its CR LF; shorter on time-out, so the caller's comparison fails.
    std::string Line() {
        (void)QTest::qWaitFor([&] { return socket_.canReadLine(); }, kTimeoutMs);
        const QByteArray line = socket_.readLine();
        return std::string(line.constData(), static_cast<std::size_t>(line.size()));
    }
    std::string Ask(const std::string& request) {
        Send(request);
        return Line();
    }
    // A multi-line answer up to its "." line, or the one line of an "-ERR" answer.
    std::string AskMultiLine(const std::string& request) {
        std::string answer = Ask(request);
        if (answer.starts_with("-ERR")) return answer;
        for (std::string line = Line(); !line.empty(); line = Line()) {
            answer += line;
            if (line == ".\r\n") break;
        }
        return answer;
    }
    // Whether the connection was refused (nothing listened) or has been dropped by the server.
    bool Refused() {
        return QTest::qWaitFor([&] { return socket_.state() == QAbstractSocket::UnconnectedState; }, kTimeoutMs) &&
               socket_.error() == QAbstractSocket::ConnectionRefusedError;
    }
    bool Dropped() {
        return QTest::qWaitFor([&] { return socket_.state() == QAbstractSocket::UnconnectedState; }, kTimeoutMs);
    }

private:
    QTcpSocket socket_;
};

// One started `Server` and the service its connections reach, which knows the account "sam" / "sam pw".
template <typename Server>
class ServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        core::MErrorHandler::ResetForTesting();
        core::MessageBox::SetHandler([](const std::string&) {});
        mailservice::CHotmail::SetServiceEntryURL(svc.Url(hotmail_test::kEntryPath));
        server.SetListenPort(port);
        server.StartServer();
    }
    void TearDown() override {
        server.StopServer();
        EXPECT_TRUE(host.unhandled.empty()) << host.unhandled.front().Description();
    }

    // Queues the replies of one log-in: the entry address, then the folder listing.
    void ScriptLogIn() {
        svc.Enqueue(testing_support::DavReply(hotmail_test::LoginReply(
            svc.Url("/base"), {svc.Url("/ad"), svc.Url("/contacts"), svc.Url("/inbox"), svc.Url("/out"),
                               svc.Url("/sent"), svc.Url("/trash"), svc.Url("/root")})));
        svc.Enqueue(testing_support::DavReply(hotmail_test::FolderReply({{svc.Url("/inbox"), "Inbox"}})));
    }
    bool WaitForLog(const std::string& entry, long times = 1) {
        return server_tests::WaitForLog(host.log, entry, times);
    }

    testing_support::FakeWebDavService svc{testing_support::FakeWebDavService::Auth::Basic, "sam", "sam pw"};
    tests::FakeGatewayHost host;
    Server server{host};
    std::string port = FreePort();
};

}  // namespace server_tests
