// The application controller in the window (offscreen): the log, Stop and Start. Then the built gateway as a
// process, headless, with a runtime folder of its own: how start-up failures end it, and the one-instance lock.
// (Its log on standard output is read by the end-to-end tests.)
#include <QAction>
#include <QCoreApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProcess>
#include <QPushButton>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "app/Main.h"
#include "app/MainWindow.h"
#include "core/Error.h"
#include "core/MErrorHandler.h"
#include "tests/support/LineClient.h"

namespace {

using testing_support::FreePort;
using testing_support::kTimeoutMs;

TEST(MainTest, WindowStopAndStartSwitchTheControlsWithTheSameServers) {
    core::MErrorHandler::ResetForTesting();
    app::MainWindow window;
    app::GatewayOptions options;
    options.pop3Port = FreePort();
    options.smtpPort = FreePort();
    app::Main main(window, options);
    window.Attach(main);
    std::optional<core::Error> ended;
    main.SetProgramEnd([&](const core::Error& e) { ended = e; });
    main.RunEvent(&app::Main::Form_Load);
    ASSERT_FALSE(ended.has_value());
    QCoreApplication::processEvents();
    EXPECT_EQ(window.txtData->toPlainText(), "");
    // Whether every control Toggle switches shows the stopped state (or else the running one).
    const auto shows = [&](bool stopped) {
        return window.txtListenPortPOP3->isEnabled() == stopped && window.txtListenPortSMTP->isEnabled() == stopped &&
               window.StartButton->isEnabled() == stopped && window.mnuStart->isEnabled() == stopped &&
               window.StopButton->isEnabled() != stopped && window.mnuStop->isEnabled() != stopped &&
               window.mnuExit->isEnabled() && window.statusPanel->text() == (stopped ? "Stopped" : "Running");
    };
    EXPECT_TRUE(shows(false));
    const auto* pop3 = main.Pop3ServerObject();
    ASSERT_NE(pop3, nullptr);

    // (That Stop closes both ports and Start opens the ones in the boxes shows in the desktop test.)
    window.mnuStop->trigger();
    EXPECT_TRUE(shows(true));
    main.WriteLog("before start");
    QTest::mouseClick(window.StartButton, Qt::LeftButton);
    EXPECT_TRUE(shows(false));
    EXPECT_EQ(main.Pop3ServerObject(), pop3);

    // Start emptied the log and dropped the entry still waiting for the window; received bytes keep their line
    // ends, and the caret follows the newest line.
    main.WriteLog("abc");
    main.WriteLog("");
    main.WriteLog("CLIENT_REQUEST: noop\r\n");
    QCoreApplication::processEvents();  // the window gets the entries together, at the next turn of the loop
    EXPECT_EQ(window.txtData->toPlainText(), "abc\n\nCLIENT_REQUEST: noop\n\n");
    EXPECT_EQ(window.txtData->textCursor().position(), window.txtData->document()->characterCount() - 1);

    window.close();
    EXPECT_EQ(main.Pop3ServerObject(), nullptr);
}

class GatewayProcessTest : public ::testing::Test {
protected:
    void SetUp() override { qputenv("XDG_RUNTIME_DIR", runtime.path().toUtf8()); }
    void Start(QProcess& process, const std::string& pop3Port) {
        process.start(TARNWICK_GATEWAY_BINARY, {"--headless", "--pop3-port", QString::fromStdString(pop3Port),
                                                "--smtp-port", QString::fromStdString(FreePort())});
        ASSERT_TRUE(process.waitForStarted(kTimeoutMs));
    }
    // Runs the gateway to its end, which must come with `exitCode`; returns its standard error.
    std::string RunToExit(const std::string& pop3Port, int exitCode) {
        QProcess process;
        Start(process, pop3Port);
        EXPECT_TRUE(process.waitForFinished(kTimeoutMs));
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(process.exitCode(), exitCode) << "POP3 port " << pop3Port;
        return process.readAllStandardError().toStdString();
    }

    QTemporaryDir runtime;
};

TEST_F(GatewayProcessTest, StartUpFailuresEndItAndASecondInstanceIsRefused) {
    QTcpServer occupant;
    ASSERT_TRUE(occupant.listen(QHostAddress::LocalHost, 0));
    EXPECT_EQ(RunToExit("abc", 1), "tarnwick-gateway: Error 13: Type mismatch (in StartListening Method)\n");
    EXPECT_EQ(RunToExit(std::to_string(occupant.serverPort()), 1),
              "tarnwick-gateway: Error 10048: Address in use: another program already listens on port " +
                  std::to_string(occupant.serverPort()) +
                  ", so the POP3 server cannot; stop that program or choose another port (in StartListening Method)\n");

    const std::string pop3Port = FreePort();
    QProcess first;
    Start(first, pop3Port);

    // The first instance serves (and holds the lock) once its POP3 port answers.
    testing_support::LineClient client;
    ASSERT_TRUE(QTest::qWaitFor([&] { return client.Connect(pop3Port); }, kTimeoutMs));
    EXPECT_EQ(client.ReceiveLine(), "+OK Tarnwick/POP3 Gateway Server - Hello\r\n");

    const std::string refused = RunToExit(FreePort(), 3);
    EXPECT_NE(refused.find("already running"), std::string::npos) << refused;
    first.kill();
    EXPECT_TRUE(first.waitForFinished(kTimeoutMs));
}

}  // namespace
