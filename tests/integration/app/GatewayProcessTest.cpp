// The built gateway as a process, headless, each run with its own runtime folder: how start-up failures
// end it, the one-instance lock, and the log on standard output.
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <string>

#include "tests/support/LineClient.h"

namespace {

using testing_support::FreePort;
using testing_support::kTimeoutMs;

class GatewayProcessTest : public ::testing::Test {
protected:
    void Start(QProcess& process, const std::string& pop3Port) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_RUNTIME_DIR", runtime.path());
        process.setProcessEnvironment(environment);
        process.start(TARNWICK_GATEWAY_BINARY, {"--headless", "--pop3-port", QString::fromStdString(pop3Port),
                                                "--smtp-port", QString::fromStdString(FreePort())});
        ASSERT_TRUE(process.waitForStarted(kTimeoutMs));
    }
    // Runs the gateway to its end; returns its exit status and leaves standard error in `stderrText`.
    int Run(const std::string& pop3Port) {
        QProcess process;
        Start(process, pop3Port);
        EXPECT_TRUE(process.waitForFinished(kTimeoutMs));
        stderrText = process.readAllStandardError().toStdString();
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    QTemporaryDir runtime;
    std::string stderrText;
};

TEST_F(GatewayProcessTest, StartUpFailuresEndItAndASecondInstanceIsRefusedWhileTheFirstLogsToStandardOutput) {
    QTcpServer occupant;
    ASSERT_TRUE(occupant.listen(QHostAddress::LocalHost, 0));
    EXPECT_EQ(Run("abc"), 1);
    EXPECT_EQ(stderrText, "tarnwick-gateway: Error 13: Type mismatch (in StartListening Method)\n");
    EXPECT_EQ(Run(std::to_string(occupant.serverPort())), 1);
    EXPECT_EQ(stderrText, "tarnwick-gateway: Error 10048: Address in use: another program already listens on port " +
                              std::to_string(occupant.serverPort()) +
                              ", so the POP3 server cannot; stop that program or choose another port (in "
                              "StartListening Method)\n");

    const std::string pop3Port = FreePort();
    QProcess first;
    Start(first, pop3Port);

    // The first instance serves once its POP3 port answers.
    testing_support::LineClient client;
    ASSERT_TRUE(QTest::qWaitFor([&] { return client.Connect(pop3Port); }, kTimeoutMs));
    EXPECT_EQ(client.ReceiveLine(), "+OK Tarnwick/POP3 Gateway Server - Hello\r\n");
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

    EXPECT_NE(Run(FreePort()), 0);
    EXPECT_NE(stderrText.find("already running"), std::string::npos) << stderrText;
    first.kill();
    EXPECT_TRUE(first.waitForFinished(kTimeoutMs));
}

}  // namespace
