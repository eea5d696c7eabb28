// The application controller: the log switch, the Toggle steps, and Stop, Start and About in the window
// (offscreen).
#include <QAction>
#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "app/About.h"
#include "app/IMainView.h"
#include "app/Main.h"
#include "app/MainWindow.h"
#include "core/MErrorHandler.h"
#include "core/Version.h"
#include "tests/support/LineClient.h"

namespace {

using testing_support::FreePort;

// Records what the controller asks of its window.
class RecordingView : public app::IMainView {
public:
    std::string ListenPortPOP3Text() const override { return pop3; }
    void SetListenPortPOP3Text(const std::string& text) override { pop3 = text; }
    std::string ListenPortSMTPText() const override { return smtp; }
    void SetListenPortSMTPText(const std::string& text) override { smtp = text; }
    void AppendLog(const std::string& entry) override { log += entry; }
    bool BatchesLog() const override { return false; }
    void ClearLog() override { log.clear(); }
    void ToggleInputs(bool) override { steps.push_back("inputs"); }
    void ToggleButtons(bool) override {
        steps.push_back("buttons");
        if (failButtons) core::Raise(core::ErrorNumber::kObjectNotSet);
    }
    void ToggleStatusBar(bool isStopped) override {
        steps.push_back("status");
        stopped = isStopped;
    }
    void ToggleMenus(bool) override { steps.push_back("menus"); }
    void PlaceAtWorkAreaCorner() override {}
    void AddTrayIcon() override {}
    void RemoveTrayIcon() override {}
    void HideFromTaskList() override {}
    void ShowAbout(const std::string&, const std::string&) override {}
    void ShowMessage(const std::string&) override {}
    void ShowFatalMessage(const std::string&) override {}

    std::string pop3;
    std::string smtp;
    std::string log;
    std::optional<bool> stopped;
    std::vector<std::string> steps;
    bool failButtons = false;
};

class MainTest : public ::testing::Test {
protected:
    void SetUp() override { core::MErrorHandler::ResetForTesting(); }
    static app::GatewayOptions Options(const std::string& pop3, const std::string& smtp) {
        app::GatewayOptions options;
        options.pop3Port = pop3;
        options.smtpPort = smtp;
        return options;
    }
};

TEST_F(MainTest, ToggleRunsItsFourStepsInOrderAndAFailingStepStopsTheRest) {
    RecordingView view;
    app::Main main(view, Options(FreePort(), FreePort()));
    std::optional<core::Error> ended;
    main.SetProgramEnd([&](const core::Error& e) { ended = e; });
    main.WriteLog("too early");  // the log acts only once start-up has enabled it
    main.RunEvent(&app::Main::Form_Load);
    ASSERT_FALSE(ended.has_value());
    main.WriteLog("");
    main.WriteLog("CLIENT_REQUEST: x\r\n");
    EXPECT_EQ(view.log, "\r\nCLIENT_REQUEST: x\r\n\r\n");
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

TEST_F(MainTest, WindowStopThenStartSwitchTheControlsAndRereadBothPortBoxesWithTheSameServers) {
    app::MainWindow window;
    app::Main main(window, Options(FreePort(), FreePort()));
    window.Attach(main);
    main.RunEvent(&app::Main::Form_Load);
    // Whether every control Toggle switches shows the stopped state; the running state is the opposite.
    const auto shows = [&](bool stopped) {
        const bool enabled[] = {window.txtListenPortPOP3->isEnabled(), window.txtListenPortSMTP->isEnabled(),
                                window.StartButton->isEnabled(),       window.mnuStart->isEnabled(),
                                !window.StopButton->isEnabled(),       !window.mnuStop->isEnabled()};
        return std::all_of(std::begin(enabled), std::end(enabled), [&](bool e) { return e == stopped; }) &&
               window.mnuExit->isEnabled() && window.statusPanel->text() == (stopped ? "Stopped" : "Running");
    };
    EXPECT_TRUE(shows(false));
    const auto* pop3 = main.Pop3ServerObject();
    ASSERT_NE(pop3, nullptr);

    window.mnuStop->trigger();
    EXPECT_TRUE(shows(true));
    EXPECT_EQ(main.WinsockPOP3().State(), core::ISocketControl::kClosed);
    EXPECT_EQ(main.WinsockSMTP().State(), core::ISocketControl::kClosed);

    const std::string newPop3 = FreePort();
    const std::string newSmtp = FreePort();
    window.txtListenPortPOP3->setText(QString::fromStdString(newPop3));
    window.txtListenPortSMTP->setText(QString::fromStdString(newSmtp));
    main.WriteLog("before start");
    QTest::mouseClick(window.StartButton, Qt::LeftButton);
    EXPECT_TRUE(shows(false));
    EXPECT_EQ(main.Pop3ServerObject(), pop3);
    EXPECT_EQ(std::to_string(main.WinsockPOP3().LocalPort()), newPop3);
    EXPECT_EQ(std::to_string(main.WinsockSMTP().LocalPort()), newSmtp);

    // Start emptied the log and dropped the entry still waiting for the window; received bytes keep their line
    // ends, and the caret follows the newest line.
    main.WriteLog("abc");
    main.WriteLog("CLIENT_REQUEST: noop\r\n");
    QCoreApplication::processEvents();  // the window gets the entries together, at the next turn of the loop
    EXPECT_EQ(window.txtData->toPlainText(), "abc\nCLIENT_REQUEST: noop\n\n");
    EXPECT_EQ(window.txtData->textCursor().position(), window.txtData->document()->characterCount() - 1);

    // The About box shows the name and version, and while it is open (modal, in a loop of its own) the servers
    // go on serving.
    bool aboutSeen = false;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        auto* about = dynamic_cast<app::About*>(QApplication::activeModalWidget());
        if (about == nullptr) return;
        poll.stop();
        aboutSeen = true;
        EXPECT_EQ(about->lblTitle->text(), QString("Tarnwick Gateway\nVersion: ") + core::Version::kText);
        testing_support::LineClient client(newPop3);
        EXPECT_EQ(client.ReceiveLine(), "+OK Tarnwick/POP3 Gateway Server - Hello\r\n");
        QTest::mouseClick(about->cmdOK, Qt::LeftButton);
    });
    poll.start(10);
    window.mnuAbout->trigger();  // returns when the box has closed
    EXPECT_TRUE(aboutSeen);

    QTest::mouseClick(window.StopButton, Qt::LeftButton);
    EXPECT_TRUE(shows(true));
    window.close();
    EXPECT_EQ(main.Pop3ServerObject(), nullptr);
}

}  // namespace
