#include "tests/support/LineClient.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTest>

#include <stdexcept>

namespace testing_support {
namespace {

// Generous: a sanitizer build on a busy machine is slow, and a passing test never waits this long.
constexpr int kTimeoutMs = 30000;

std::string Text(const QByteArray& bytes) { return std::string(bytes.constData(), static_cast<std::size_t>(bytes.size())); }

}  // namespace

std::string FreePort() {
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0)) throw std::runtime_error("no free loopback port");
    return std::to_string(probe.serverPort());
}

bool LineClient::Connect(const std::string& port) {
    socket.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(std::stoi(port)));
    return socket.waitForConnected(kTimeoutMs);
}

void LineClient::Send(const std::string& bytes) {
    socket.write(bytes.data(), static_cast<qint64>(bytes.size()));
    socket.flush();
}

std::string LineClient::ReceiveLine() {
    (void)QTest::qWaitFor([&] { return socket.canReadLine(); }, kTimeoutMs);
    return Text(socket.readLine());
}

std::string LineClient::Receive(std::size_t count) {
    (void)QTest::qWaitFor([&] { return static_cast<std::size_t>(socket.bytesAvailable()) >= count; }, kTimeoutMs);
    return Text(socket.read(static_cast<qint64>(count)));
}

std::string LineClient::Ask(const std::string& request) {
    Send(request);
    return ReceiveLine();
}

std::string LineClient::AskMultiLine(const std::string& request) {
    std::string answer = Ask(request);
    if (answer.starts_with("-ERR")) return answer;
    for (std::string line = ReceiveLine(); !line.empty(); line = ReceiveLine()) {
        answer += line;
        if (line == ".\r\n") break;
    }
    return answer;
}

bool LineClient::Dropped() {
    return QTest::qWaitFor([&] { return socket.state() == QAbstractSocket::UnconnectedState; }, kTimeoutMs);
}

bool LineClient::Refused() { return Dropped() && socket.error() == QAbstractSocket::ConnectionRefusedError; }

}  // namespace testing_support
