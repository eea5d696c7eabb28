// The built gateway as a process, headless, each run with its own runtime folder: how start-up failures
// end it, the one-instance lock, and the log on standard output.
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr int kTimeoutMs = 10000;

std::string FreePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return std::to_string(probe.serverPort());
}

class GatewayProcessTest : public ::testing::Test {
protected:
    void Start(QProcess& process, const QStringList& arguments) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_RUNTIME_DIR", runtime.path());
        process.setProcessEnvironment(environment);
        process.start(TARNWICK_GATEWAY_BINARY, QStringList{"--headless"} + arguments);
        ASSERT_TRUE(process.waitForStarted(kTimeoutMs));
    }
    // Runs the gateway to its end; returns its exit status and leaves standard error in `stderrText`.
    int Run(const QStringList& arguments) {
        QProcess process;
        Start(process, arguments);
        EXPECT_TRUE(process.waitForFinished(kTimeoutMs));
        stderrText = process.readAllStandardError().toStdString();
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    QTemporaryDir runtime;
    std::string stderrText;
};

TEST_F(GatewayProcessTest, NonNumericPop3PortEndsTheProgramWithError13) {
    EXPECT_EQ(Run({"--pop3-port", "abc", "--smtp-port", QString::fromStdString(FreePort())}), 1);
    EXPECT_NE(stderrText.find("Error 13: Type mismatch"), std::string::npos) << stderrText;
}

TEST_F(GatewayProcessTest, PortInUseEndsTheProgramWithError10048) {
    QTcpServer occupant;
    ASSERT_TRUE(occupant.listen(QHostAddress::LocalHost, 0));
    EXPECT_EQ(
        Run({"--pop3-port", QString::number(occupant.serverPort()), "--smtp-port", QString::fromStdString(FreePort())}),
        1);
    EXPECT_NE(stderrText.find("Error 10048: Address in use"), std::string::npos) << stderrText;
}

TEST_F(GatewayProcessTest, SecondInstanceIsRefusedAndTheFirstLogsToStandardOutput) {
    const std::string pop3Port = FreePort();
    QProcess first;
    Start(first, {"--pop3-port", QString::fromStdString(pop3Port), "--smtp-port", QString::fromStdString(FreePort())});

    // The first instance serves once its POP3 port answers.
    QTcpSocket client;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] {
            if (client.state() == QAbstractSocket::UnconnectedState) {
                client.connectToHost(QHostAddress::LocalHost, static_cast<quint16>(std::stoi(pop3Port)));
            }
            return client.canReadLine();
        },
        kTimeoutMs));
    EXPECT_EQ(client.readLine().toStdString(), "+OK Tarnwick/POP3 Gateway Server - Hello\r\n");
    const std::string expectedLog =
        "SOCKET_EVENT: OnConnectionRequest Fired\r\n"
        "SERVER_RESPONSE: +OK Tarnwick/POP3 Gateway Server - Hello\r\n"
        "SOCKET_EVENT: OnSendProgress Fired\r\n"
        "SOCKET_EVENT: OnSendComplete Fired\r\n";
    std::string out;
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            out += first.readAllStandardOutput().toStdString();
            return out.size() >= expectedLog.size();
        },
        kTimeoutMs));
    EXPECT_EQ(out, expectedLog);

    const int status =
        Run({"--pop3-port", QString::fromStdString(FreePort()), "--smtp-port", QString::fromStdString(FreePort())});
    EXPECT_NE(status, 0);
    EXPECT_NE(stderrText.find("already running"), std::string::npos) << stderrText;

    first.kill();
    EXPECT_TRUE(first.waitForFinished(kTimeoutMs));
}

}  // namespace
