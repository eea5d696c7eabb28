// Harness for the server tests: a mail reader's side of one loopback connection, and the waits on the log.
#pragma once

#include <QTcpSocket>
#include <QTest>

#include <algorithm>
#include <string>
#include <vector>

#include "FakeWebDavService.h"

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

}  // namespace server_tests
