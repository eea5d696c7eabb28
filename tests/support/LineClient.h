// A mail reader's side of a connection to one of the gateway's servers, driven from the test's event loop:
// bytes out, lines or counted bytes back. A wait that runs out returns what arrived, so the caller's
// comparison fails rather than the test hanging. And free loopback ports for the servers a test starts.
#pragma once

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <cstddef>
#include <stdexcept>
#include <string>

namespace testing_support {

// Generous: a sanitizer build on a busy machine is slow, and a passing test never waits this long.
inline constexpr int kTimeoutMs = 30000;

// A port on 127.0.0.1 that nothing listens on (bound, then released), as decimal text.
inline std::string FreePort() {
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0)) throw std::runtime_error("no free loopback port");
    return std::to_string(probe.serverPort());
}

class LineClient {
public:
    LineClient() = default;
    // Connects at once; see Refused for a connection nothing accepted.
    explicit LineClient(const std::string& port) { (void)Connect(port); }

    // Connects to 127.0.0.1:`port` and waits for the connection; false when it was refused.
    bool Connect(const std::string& port) {
        socket.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(std::stoi(port)));
        return socket.waitForConnected(kTimeoutMs);
    }
    void Send(const std::string& bytes) {
        socket.write(bytes.data(), static_cast<qint64>(bytes.size()));
        socket.flush();
    }
    // One line with its CR LF.
    std::string ReceiveLine() {
        (void)QTest::qWaitFor([&] { return socket.canReadLine(); }, kTimeoutMs);
        return socket.readLine().toStdString();
    }
    // Exactly `count` more bytes.
    std::string Receive(std::size_t count) {
        (void)QTest::qWaitFor([&] { return static_cast<std::size_t>(socket.bytesAvailable()) >= count; }, kTimeoutMs);
        return socket.read(static_cast<qint64>(count)).toStdString();
    }
    // Sends `request` and returns the reply line.
    std::string Ask(const std::string& request) {
        Send(request);
        return ReceiveLine();
    }
    // Sends `request` and returns a multi-line answer up to its "." line, or the one line of an "-ERR" answer.
    std::string AskMultiLine(const std::string& request) {
        std::string answer = Ask(request);
        if (answer.starts_with("-ERR")) return answer;
        for (std::string line = ReceiveLine(); !line.empty(); line = ReceiveLine()) {
            answer += line;
            if (line == ".\r\n") break;
        }
        return answer;
    }
    // Whether the connection has been dropped by the server, or was refused (nothing listened).
    bool Dropped() {
        return QTest::qWaitFor([&] { return socket.state() == QAbstractSocket::UnconnectedState; }, kTimeoutMs);
    }
    bool Refused() { return Dropped() && socket.error() == QAbstractSocket::ConnectionRefusedError; }

    QTcpSocket socket;
};

}  // namespace testing_support
