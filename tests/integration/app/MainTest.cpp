// The application controller and its window: start-up, Stop and Start, the log switch, the error path.
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTcpServer>
#include <QTest>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "app/Main.h"
#include "app/MainWindow.h"
#include "core/MErrorHandler.h"
#include "tests/integration/app/RecordingView.h"

namespace {

using testing_support::RecordingView;

std::string FreePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return std::to_string(probe.serverPort());
}

class MainTest : public ::testing::Test {
protected:
    void SetUp() override { core::MErrorHandler::ResetForTesting(); }
    app::GatewayOptions Options(const std::string& pop3, const std::string& smtp) {
        app::GatewayOptions options;
        options.pop3Port = pop3;
        options.smtpPort = smtp;
        return options;
    }
};

TEST_F(MainTest, LogActsOnlyOnceStartUpHasEnabledIt) {
    RecordingView view;
    app::Main main(view, Options(FreePort(), FreePort()));
    main.WriteLog("too early");
    main.ClearLog();
    EXPECT_EQ(view.log, "");

    main.Form_Load();
    EXPECT_TRUE(main.bLog);
    EXPECT_EQ(main.ApplicationName(), "Tarnwick Gateway");
    EXPECT_EQ(main.ApplicationVersion(), "0.2.0");
    main.WriteLog("abc");
    main.WriteLog("");
    main.WriteLog("CLIENT_REQUEST: x\r\n");
    EXPECT_EQ(view.log, "abc\r\n\r\nCLIENT_REQUEST: x\r\n\r\n");
    main.Form_Unload();
}

TEST_F(MainTest, NonNumericPop3PortStopsStartUpBeforeTheSmtpServer) {
    RecordingView view;
    app::Main main(view, Options("abc", FreePort()));
    std::optional<core::Error> ended;
    main.SetProgramEnd([&](const core::Error& e) { ended = e; });
    main.RunEvent(&app::Main::Form_Load);

    ASSERT_TRUE(ended.has_value());
    EXPECT_EQ(ended->Number(), 13);
    EXPECT_EQ(ended->Source(), "StartListening Method");
    EXPECT_EQ(app::Main::ProgramEndMessage(*ended), "Error 13: Type mismatch (in StartListening Method)");
    EXPECT_EQ(main.SmtpServerObject(), nullptr);
    EXPECT_EQ(main.WinsockSMTP().State(), core::ISocketControl::kClosed);
    EXPECT_FALSE(view.stopped.has_value()) << "the running state must not be shown";
}

TEST_F(MainTest, ToggleRunsItsFourStepsInOrderAndAFailingStepStopsTheRest) {
    RecordingView view;
    app::Main main(view, Options(FreePort(), FreePort()));
    std::optional<core::Error> ended;
    main.SetProgramEnd([&](const core::Error& e) { ended = e; });
    main.RunEvent(&app::Main::Form_Load);
    ASSERT_FALSE(ended.has_value());
    EXPECT_EQ(view.steps, (std::vector<std::string>{"inputs", "buttons", "status", "menus"}));

    view.steps.clear();
    view.failButtons = true;
    main.RunEvent(&app::Main::StopMenu_Click);
    ASSERT_TRUE(ended.has_value());
    EXPECT_EQ(ended->Number(), 91);
    EXPECT_EQ(ended->Source(), "ToggleButtons Method");
    EXPECT_EQ(view.steps, (std::vector<std::string>{"inputs", "buttons"}));
    EXPECT_EQ(view.stopped, false) << "the status panel still shows the running state";
}

TEST_F(MainTest, WindowStopThenStartRereadsBothPortBoxesWithTheSameServers) {
    app::MainWindow window;
    app::Main main(window, Options(FreePort(), FreePort()));
    window.Attach(main);
    main.RunEvent(&app::Main::Form_Load);

    EXPECT_EQ(window.statusPanel->text(), "Running");
    EXPECT_FALSE(window.StartButton->isEnabled());
    EXPECT_TRUE(window.StopButton->isEnabled());
    EXPECT_FALSE(window.txtListenPortPOP3->isEnabled());
    const auto* pop3 = main.Pop3ServerObject();
    const auto* smtp = main.SmtpServerObject();
    ASSERT_NE(pop3, nullptr);
    ASSERT_NE(smtp, nullptr);
    EXPECT_EQ(std::to_string(main.WinsockPOP3().LocalPort()), window.txtListenPortPOP3->text().toStdString());

    QTest::mouseClick(window.StopButton, Qt::LeftButton);
    EXPECT_EQ(window.statusPanel->text(), "Stopped");
    EXPECT_TRUE(window.txtListenPortSMTP->isEnabled());
    EXPECT_EQ(main.WinsockPOP3().State(), core::ISocketControl::kClosed);
    EXPECT_EQ(main.WinsockSMTP().State(), core::ISocketControl::kClosed);

    const std::string newPop3 = FreePort();
    const std::string newSmtp = FreePort();
    window.txtListenPortPOP3->setText(QString::fromStdString(newPop3));
    window.txtListenPortSMTP->setText(QString::fromStdString(newSmtp));
    main.WriteLog("before start");
    QTest::mouseClick(window.StartButton, Qt::LeftButton);

    EXPECT_EQ(window.statusPanel->text(), "Running");
    EXPECT_EQ(window.txtData->toPlainText(), "") << "Start empties the log";
    EXPECT_EQ(main.Pop3ServerObject(), pop3);
    EXPECT_EQ(main.SmtpServerObject(), smtp);
    EXPECT_EQ(std::to_string(main.WinsockPOP3().LocalPort()), newPop3);
    EXPECT_EQ(std::to_string(main.WinsockSMTP().LocalPort()), newSmtp);

    // Each entry ends its own line; an empty entry is an empty line; received bytes keep their line ends.
    main.WriteLog("abc");
    main.WriteLog("");
    main.WriteLog("CLIENT_REQUEST: noop\r\n");
    QCoreApplication::processEvents();  // the window gets the entries together, at the next turn of the loop
    EXPECT_EQ(window.txtData->toPlainText(), "abc\n\nCLIENT_REQUEST: noop\n\n");
    EXPECT_EQ(window.txtData->textCursor().position(), window.txtData->document()->characterCount() - 1);

    window.close();
    EXPECT_EQ(main.Pop3ServerObject(), nullptr);
    EXPECT_EQ(main.WinsockSMTP().State(), core::ISocketControl::kClosed);
    EXPECT_EQ(window.statusPanel->text(), "Stopped");
}

}  // namespace
