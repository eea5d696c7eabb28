// The modal About box over the window, offscreen: it blocks the window, not the servers.
#include <QApplication>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "app/About.h"
#include "app/Main.h"
#include "app/MainWindow.h"
#include "core/MErrorHandler.h"
#include "core/Version.h"
#include "tests/support/LineClient.h"

namespace {

// Runs `inspect` on the modal box once the next one is open (the box blocks in its own event loop).
void WhenModalOpens(const std::function<void(QWidget*)>& inspect) {
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

TEST(MainWindowTest, AboutIsModalShowsNameAndVersionAndTheServersGoOnServing) {
    core::MErrorHandler::ResetForTesting();
    app::MainWindow window;
    app::GatewayOptions options;
    options.pop3Port = testing_support::FreePort();
    options.smtpPort = testing_support::FreePort();
    app::Main main(window, options);
    window.Attach(main);
    bool ended = false;
    main.SetProgramEnd([&](const core::Error&) { ended = true; });
    main.RunEvent(&app::Main::Form_Load);
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    // A click as the window system delivers it, which a modal box keeps from the window.
    const auto clickStop = [&] {
        QTest::mouseClick(window.windowHandle(), Qt::LeftButton, {},
                          window.StopButton->mapTo(&window, window.StopButton->rect().center()));
    };
    WhenModalOpens([&](QWidget* modal) {
        auto* about = dynamic_cast<app::About*>(modal);
        ASSERT_NE(about, nullptr);
        EXPECT_EQ(about->lblTitle->text(), QString("Tarnwick Gateway\nVersion: ") + core::Version::kText);
        EXPECT_EQ(QGuiApplication::modalWindow(), about->windowHandle());
        clickStop();
        EXPECT_EQ(window.statusPanel->text(), "Running");
        testing_support::LineClient client;
        EXPECT_TRUE(client.Connect(options.pop3Port));
        EXPECT_EQ(client.ReceiveLine(), "+OK Tarnwick/POP3 Gateway Server - Hello\r\n");
        QTest::mouseClick(about->cmdOK, Qt::LeftButton);
    });
    window.mnuAbout->trigger();  // returns when the box has closed
    EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
    clickStop();
    EXPECT_EQ(window.statusPanel->text(), "Stopped");
    EXPECT_FALSE(ended);
    window.close();
}

}  // namespace
