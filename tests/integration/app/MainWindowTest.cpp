// The window as designed, offscreen: every control's rectangle, text and tab position, the menus, the
// design state, the running and stopped states, unload by Exit and by the close box, and the About box.
#include <QAction>
#include <QApplication>
#include <QFrame>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QMenuBar>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScreen>
#include <QStatusBar>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/About.h"
#include "app/Main.h"
#include "app/MainWindow.h"
#include "core/MErrorHandler.h"

namespace {

std::string FreePort() {
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return std::to_string(probe.serverPort());
}

// A rectangle of the design in twips, in pixels.
QRect Twips(int left, int top, int width, int height) { return {left / 15, top / 15, width / 15, height / 15}; }

QString ControlText(const QWidget* w) {
    if (auto* b = qobject_cast<const QPushButton*>(w)) return b->text();
    if (auto* g = qobject_cast<const QGroupBox*>(w)) return g->title();
    if (auto* l = qobject_cast<const QLabel*>(w)) return l->text();
    if (auto* e = qobject_cast<const QLineEdit*>(w)) return e->text();
    if (auto* t = qobject_cast<const QPlainTextEdit*>(w)) return t->toPlainText();
    return {};
}

// Runs `inspect` on the modal box once the next one is open (the box blocks in its own event loop).
void WhenModalOpens(std::function<void(QWidget*)> inspect) {
    auto* poll = new QTimer;
    QObject::connect(poll, &QTimer::timeout, [poll, inspect] {
        if (QWidget* modal = QApplication::activeModalWidget()) {
            poll->stop();
            poll->deleteLater();
            inspect(modal);
        }
    });
    poll->start(10);
}

class MainWindowTest : public ::testing::Test {
protected:
    void SetUp() override { core::MErrorHandler::ResetForTesting(); }
    void Load() {
        app::GatewayOptions options;
        options.pop3Port = FreePort();
        options.smtpPort = FreePort();
        main = std::make_unique<app::Main>(window, options);
        window.Attach(*main);
        main->SetProgramEnd([this](const core::Error& e) { ended.push_back(e.Source()); });
        main->RunEvent(&app::Main::Form_Load);
    }
    void TearDown() override {
        if (main) window.close();
    }

    // Every control that Toggle switches, with its state in the stopped state; the running state is the
    // opposite for each, and the rest stay enabled in both.
    void ExpectState(bool stopped) {
        const struct {
            const char* name;
            bool enabled;
        } expected[] = {
            {"txtListenPortPOP3", window.txtListenPortPOP3->isEnabled()},
            {"txtListenPortSMTP", window.txtListenPortSMTP->isEnabled()},
            {"StartButton", window.StartButton->isEnabled()},
            {"mnuStart", window.mnuStart->isEnabled()},
            {"StopButton", !window.StopButton->isEnabled()},
            {"mnuStop", !window.mnuStop->isEnabled()},
        };
        for (const auto& e : expected) EXPECT_EQ(e.enabled, stopped) << e.name;
        for (const QAction* always :
             {window.mnuExit, window.mnuAbout, window.mnuFile->menuAction(), window.mnuHelp->menuAction()}) {
            EXPECT_TRUE(always->isEnabled()) << always->text().toStdString();
        }
        EXPECT_TRUE(window.txtData->isEnabled());
        EXPECT_EQ(window.statusPanel->text(), stopped ? "Stopped" : "Running");
    }

    app::MainWindow window;
    std::unique_ptr<app::Main> main;
    std::vector<std::string> ended;
};

TEST_F(MainWindowTest, EveryControlSitsAtItsRectangleWithItsTextInTabOrder) {
    EXPECT_EQ(window.windowTitle(), "Tarnwick Gateway");
    EXPECT_EQ(window.client->size(), QSize(446, 435));
    EXPECT_EQ(window.minimumSize(), window.maximumSize()) << "fixed single border";
    EXPECT_TRUE(window.windowFlags() & Qt::WindowMinimizeButtonHint);
    EXPECT_FALSE(window.windowFlags() & Qt::WindowMaximizeButtonHint);
    EXPECT_FALSE(window.StatusBar->isSizeGripEnabled());
    EXPECT_FALSE(window.windowIcon().isNull());

    const struct {
        QWidget* control;
        QWidget* parent;
        QRect rectangle;
        const char* text;
    } table[] = {
        {window.StatusBar, window.client, Twips(0, 6225, 6690, 300), ""},
        {window.StopButton, window.client, Twips(3720, 1800, 1095, 375), "Stop"},
        {window.StartButton, window.client, Twips(4920, 1800, 1095, 375), "Start"},
        {window.Frame1, window.client, Twips(120, 120, 3615, 1575), "Listener Configuration"},
        {window.txtListenPortPOP3, window.Frame1, Twips(1080, 480, 2175, 375), ""},
        {window.txtListenPortSMTP, window.Frame1, Twips(1080, 960, 2175, 375), ""},
        {window.lblListenPortPOP3, window.Frame1, Twips(120, 600, 1335, 375), "POP3 Port:"},
        {window.lblListenPortSMTP, window.Frame1, Twips(120, 960, 1335, 255), "SMTP Port:"},
        {window.txtData, window.client, Twips(120, 2280, 6375, 3855), ""},
    };
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    int tab = 0;
    for (const auto& row : table) {
        SCOPED_TRACE("tab " + std::to_string(tab++));
        EXPECT_EQ(row.control->parentWidget(), row.parent);
        EXPECT_EQ(row.control->geometry(), row.rectangle);
        EXPECT_EQ(ControlText(row.control), row.text);
    }
    EXPECT_EQ(window.txtData->verticalScrollBarPolicy(), Qt::ScrollBarAlwaysOn);
    EXPECT_FALSE(window.txtData->isReadOnly());
    EXPECT_EQ(window.statusPanel->parentWidget(), window.StatusBar);

    // Keyboard focus walks the controls that take it in the table's order, and comes back round.
    std::vector<QWidget*> focusOrder;
    QWidget* w = window.StopButton;
    do {
        if (w->focusPolicy() & Qt::TabFocus) focusOrder.push_back(w);
        w = w->nextInFocusChain();
    } while (w != window.StopButton);
    const std::vector<QWidget*> expectedFocus = {window.StopButton, window.StartButton, window.txtListenPortPOP3,
                                                 window.txtListenPortSMTP, window.txtData};
    EXPECT_EQ(focusOrder, expectedFocus);

    // The menus: captions without access keys, items without shortcuts.
    const QList<QAction*> menus = window.menuBar()->actions();
    ASSERT_EQ(menus.size(), 2);
    EXPECT_EQ(menus[0]->text(), "File");
    EXPECT_EQ(menus[1]->text(), "Help");
    const std::vector<std::pair<QAction*, QString>> items = {{window.mnuStart, "Start"},
                                                             {window.mnuStop, "Stop"},
                                                             {window.mnuDivider, ""},
                                                             {window.mnuExit, "Exit"},
                                                             {window.mnuAbout, "About Tarnwick"}};
    EXPECT_EQ(window.mnuFile->actions(),
              (QList<QAction*>{window.mnuStart, window.mnuStop, window.mnuDivider, window.mnuExit}));
    EXPECT_TRUE(window.mnuDivider->isSeparator());
    EXPECT_EQ(window.mnuHelp->actions(), QList<QAction*>{window.mnuAbout});
    for (const auto& [item, text] : items) {
        EXPECT_EQ(item->text(), text);
        EXPECT_TRUE(item->shortcut().isEmpty()) << text.toStdString();
    }
}

TEST_F(MainWindowTest, DesignStateUntilStartUpThenRunningStoppedRunning) {
    for (QWidget* control : {static_cast<QWidget*>(window.txtListenPortPOP3),
                             static_cast<QWidget*>(window.txtListenPortSMTP), static_cast<QWidget*>(window.StartButton),
                             static_cast<QWidget*>(window.StopButton), static_cast<QWidget*>(window.txtData)}) {
        EXPECT_TRUE(control->isEnabled()) << control->objectName().toStdString();
    }
    EXPECT_TRUE(window.mnuStart->isEnabled());
    EXPECT_TRUE(window.mnuStop->isEnabled());
    EXPECT_EQ(window.statusPanel->text(), "");
    EXPECT_EQ(window.txtListenPortPOP3->text(), "");

    Load();
    ExpectState(false);
    // Start-up put the outer frame's bottom-right corner on the work area's.
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_EQ(window.frameGeometry().bottomRight(), area.bottomRight());
    const QString pop3 = window.txtListenPortPOP3->text();
    EXPECT_FALSE(pop3.isEmpty());

    window.mnuStop->trigger();
    ExpectState(true);
    EXPECT_EQ(window.txtListenPortPOP3->text(), pop3) << "the port boxes keep their texts";

    window.mnuStart->trigger();
    ExpectState(false);
    QTest::mouseClick(window.StopButton, Qt::LeftButton);
    ExpectState(true);
    QTest::mouseClick(window.StartButton, Qt::LeftButton);
    ExpectState(false);
    EXPECT_TRUE(ended.empty());
}

// Exit and the close box: both stop and release the servers, show the stopped state and end the program.
TEST_F(MainWindowTest, ExitAndTheCloseBoxTakeTheSameUnloadPath) {
    for (const bool byExit : {true, false}) {
        SCOPED_TRACE(byExit ? "Exit" : "close box");
        core::MErrorHandler::ResetForTesting();
        app::MainWindow w;
        app::GatewayOptions options;
        options.pop3Port = FreePort();
        options.smtpPort = FreePort();
        app::Main m(w, options);
        w.Attach(m);
        m.RunEvent(&app::Main::Form_Load);
        w.show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&w));
        ASSERT_NE(m.Pop3ServerObject(), nullptr);

        if (byExit) {
            w.mnuExit->trigger();
        } else {
            w.close();
        }
        EXPECT_FALSE(w.isVisible());
        EXPECT_EQ(m.Pop3ServerObject(), nullptr);
        EXPECT_EQ(m.SmtpServerObject(), nullptr);
        EXPECT_EQ(m.WinsockPOP3().State(), core::ISocketControl::kClosed);
        EXPECT_EQ(m.WinsockSMTP().State(), core::ISocketControl::kClosed);
        EXPECT_EQ(w.statusPanel->text(), "Stopped");
        EXPECT_TRUE(w.StartButton->isEnabled());
    }
}

TEST_F(MainWindowTest, AboutIsModalAndShowsTheSameTwoLinesAtEveryOpening) {
    Load();
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));

    std::vector<QString> titles;
    for (const bool byOk : {true, false}) {
        WhenModalOpens([&, byOk](QWidget* modal) {
            auto* about = dynamic_cast<app::About*>(modal);
            ASSERT_NE(about, nullptr);
            EXPECT_EQ(about->windowTitle(), "About Tarnwick");
            EXPECT_TRUE(about->isModal());
            EXPECT_EQ(about->windowModality(), Qt::ApplicationModal);
            EXPECT_EQ(about->size(), QSize(384, 228));
            EXPECT_EQ(about->minimumSize(), about->maximumSize());
            EXPECT_EQ(about->Image1->geometry(), Twips(120, 120, 480, 480));
            EXPECT_EQ(about->lblTitle->geometry(), Twips(1050, 180, 4485, 405));
            EXPECT_EQ(about->lblDisclaimer->geometry(), Twips(150, 2280, 4050, 975));
            EXPECT_EQ(about->cmdOK->geometry(), Twips(4305, 2325, 1260, 345));
            EXPECT_EQ(about->cmdOK->text(), "OK");
            EXPECT_FALSE(about->lblDisclaimer->text().isEmpty());
            EXPECT_FALSE(about->Image1->pixmap().isNull());
            EXPECT_EQ(about->Image1->pixmap().size(), QSize(32, 32));
            if (byOk) {
                // The main window takes no input while the box is open (a click as the window system
                // delivers it), but the servers go on serving.
                EXPECT_EQ(QGuiApplication::modalWindow(), about->windowHandle());
                QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {},
                                  window.StopButton->mapTo(&window, window.StopButton->rect().center()));
                EXPECT_EQ(window.statusPanel->text(), "Running");
                QTcpSocket client;
                client.connectToHost(QHostAddress::LocalHost, window.txtListenPortPOP3->text().toUShort());
                EXPECT_TRUE(QTest::qWaitFor([&] { return client.canReadLine(); }, 10000));
                EXPECT_EQ(client.readLine(), "+OK Tarnwick/POP3 Gateway Server - Hello\r\n");
                EXPECT_TRUE(window.txtData->toPlainText().startsWith("SOCKET_EVENT: OnConnectionRequest Fired\n"));
            }
            titles.push_back(about->lblTitle->text());
            if (byOk) {
                QTest::mouseClick(about->cmdOK, Qt::LeftButton);
            } else {
                about->close();
            }
        });
        window.mnuAbout->trigger();  // returns when the box has closed
        EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
    }
    ASSERT_EQ(titles.size(), 2u);
    EXPECT_EQ(titles[0], "Tarnwick Gateway\nVersion: 0.2.0");
    EXPECT_EQ(titles[1], titles[0]);

    // With the box gone, the same click reaches the Stop button.
    QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {},
                      window.StopButton->mapTo(&window, window.StopButton->rect().center()));
    EXPECT_EQ(window.statusPanel->text(), "Stopped");
    EXPECT_TRUE(ended.empty());
}

}  // namespace
