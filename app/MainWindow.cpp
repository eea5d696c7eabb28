#include "app/MainWindow.h"

#include <QCloseEvent>
#include <QGroupBox>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QStatusBar>
#include <QTextCursor>
#include <QWindow>

#include "app/About.h"
#include "app/DisplayText.h"
#include "app/MScreen.h"
#include "app/Main.h"
#include "app/ProgramIcon.h"
#include "app/TaskList.h"
#include "app/TrayIcon.h"

namespace app {
namespace {

constexpr const char* kTitle = "Tarnwick Gateway";
// The log box keeps this many lines in one paragraph: a paragraph costs the document more to add than a line,
// but is laid out whole whenever any of it is shown.
constexpr int kLogLinesPerBlock = 8;
// The most bytes of an append decoded at once (a slice ends at the next line feed after this many).
constexpr std::size_t kLogSliceBytes = std::size_t{1} << 20;

using MScreen::FromTwips;

}  // namespace

MainWindow::MainWindow()
    : QMainWindow(nullptr, Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowSystemMenuHint |
                               Qt::WindowMinimizeButtonHint | Qt::WindowCloseButtonHint) {
    setWindowTitle(kTitle);
    setWindowIcon(ProgramIcon());

    // The controls are made in tab order, which is also the order keyboard focus follows. The client area
    // lies below the menu bar, as designed.
    client = new QWidget(this);
    client->setFixedSize(FromTwips(0, 0, 6690, 6525).size());

    StatusBar = new QStatusBar(client);
    StatusBar->setGeometry(FromTwips(0, 6225, 6690, 300));
    StatusBar->setSizeGripEnabled(false);
    statusPanel = new QLabel(StatusBar);
    StatusBar->addWidget(statusPanel, 1);

    StopButton = new QPushButton("Stop", client);
    StopButton->setGeometry(FromTwips(3720, 1800, 1095, 375));
    StartButton = new QPushButton("Start", client);
    StartButton->setGeometry(FromTwips(4920, 1800, 1095, 375));

    Frame1 = new QGroupBox("Listener Configuration", client);
    Frame1->setGeometry(FromTwips(120, 120, 3615, 1575));
    txtListenPortPOP3 = new QLineEdit(Frame1);
    txtListenPortPOP3->setGeometry(FromTwips(1080, 480, 2175, 375));
    txtListenPortSMTP = new QLineEdit(Frame1);
    txtListenPortSMTP->setGeometry(FromTwips(1080, 960, 2175, 375));
    lblListenPortPOP3 = new QLabel("POP3 Port:", Frame1);
    lblListenPortPOP3->setGeometry(FromTwips(120, 600, 1335, 375));
    lblListenPortPOP3->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    lblListenPortSMTP = new QLabel("SMTP Port:", Frame1);
    lblListenPortSMTP->setGeometry(FromTwips(120, 960, 1335, 255));
    lblListenPortSMTP->setAlignment(Qt::AlignLeft | Qt::AlignTop);

    txtData = new QPlainTextEdit(client);
    txtData->setGeometry(FromTwips(120, 2280, 6375, 3855));
    txtData->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    txtData->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    // The log can hold whole messages; an undo history of them would only double the memory.
    txtData->setUndoRedoEnabled(false);
    // Tab and Shift+Tab move on from the log as from every other control; the log takes no tab characters.
    txtData->setTabChangesFocus(true);
    setCentralWidget(client);

    // Captions without access keys, items without shortcuts.
    mnuFile = menuBar()->addMenu("File");
    mnuStart = mnuFile->addAction("Start");
    mnuStop = mnuFile->addAction("Stop");
    mnuDivider = mnuFile->addSeparator();
    mnuExit = mnuFile->addAction("Exit");
    mnuHelp = menuBar()->addMenu("Help");
    mnuAbout = mnuHelp->addAction("About Tarnwick");

    // A fixed single border: the size the client area and the menu bar need, and no other.
    layout()->setSizeConstraint(QLayout::SetFixedSize);
    adjustSize();

    trayIcon_ = std::make_unique<TrayIcon>(
        ProgramIcon(), kTitle,
        [this] {
            if (main_) main_->RunEvent("Form_MouseMove Event", [this] { Restore(); });
        },
        [this](bool shown) {
            if (main_)
                main_->RunEvent("NotificationArea_Change Event", [this, shown] { NotificationAreaChanged(shown); });
        });
}

MainWindow::~MainWindow() = default;

void MainWindow::Attach(Main& main) {
    main_ = &main;
    connect(StartButton, &QPushButton::clicked, this, [this] { main_->RunEvent(&Main::StartButton_Click); });
    connect(StopButton, &QPushButton::clicked, this, [this] { main_->RunEvent(&Main::StopButton_Click); });
    connect(mnuStart, &QAction::triggered, this, [this] { main_->RunEvent(&Main::StartMenu_Click); });
    connect(mnuStop, &QAction::triggered, this, [this] { main_->RunEvent(&Main::StopMenu_Click); });
    connect(mnuExit, &QAction::triggered, this, [this] { close(); });
    connect(mnuAbout, &QAction::triggered, this, [this] { main_->RunEvent(&Main::AboutMenu_Click); });
}

std::string MainWindow::ListenPortPOP3Text() const { return txtListenPortPOP3->text().toStdString(); }
void MainWindow::SetListenPortPOP3Text(const std::string& text) {
    txtListenPortPOP3->setText(QString::fromStdString(text));
}
std::string MainWindow::ListenPortSMTPText() const { return txtListenPortSMTP->text().toStdString(); }
void MainWindow::SetListenPortSMTPText(const std::string& text) {
    txtListenPortSMTP->setText(QString::fromStdString(text));
}

void MainWindow::AppendLog(const std::string& entry) {
    const std::string_view part = entry;
    AppendLogParts({&part, 1});
}

void MainWindow::AppendLogParts(std::span<const std::string_view> parts) {
    // Inserting at the end leaves the box holding its old text followed by the entry, exactly as setting the
    // whole text again would, without laying the whole log out again for every entry: a retrieved message of
    // many megabytes is one entry, and every entry after it would otherwise take seconds.
    QTextCursor end(txtData->document());
    end.movePosition(QTextCursor::End);
    // Each part is decoded on its own (entries and their parts break at whole characters), a slice at a time into
    // one buffer that goes into the box whenever it is full: a long entry is never held a second time, whole, as
    // decoded text. A slice ends after a line feed, so that no character and no CR LF is cut in two.
    QString shown;
    int sinceBlock = 0;
    for (std::string_view part : parts) {
        while (!part.empty()) {
            if (static_cast<std::size_t>(shown.size()) >= kLogSliceBytes) {
                end.insertText(shown);
                shown.resize(0);
            }
            std::size_t cut = part.size();
            if (cut > kLogSliceBytes) {
                const std::size_t lineFeed = part.find('\n', kLogSliceBytes - 1);
                if (lineFeed != std::string_view::npos) cut = lineFeed + 1;
            }
            AppendDisplayText(shown, part.substr(0, cut), kLogLinesPerBlock, sinceBlock);
            part.remove_prefix(cut);
        }
    }
    // The append ends its last paragraph, so that the next one starts a paragraph of its own.
    if (!shown.isEmpty() && shown.back() == QChar::LineSeparator) shown.back() = u'\n';
    end.insertText(shown);
    txtData->moveCursor(QTextCursor::End);
    txtData->verticalScrollBar()->setValue(txtData->verticalScrollBar()->maximum());
}

void MainWindow::ClearLog() { txtData->clear(); }

void MainWindow::ToggleInputs(bool stopped) {
    txtListenPortPOP3->setEnabled(stopped);
    txtListenPortSMTP->setEnabled(stopped);
}

void MainWindow::ToggleButtons(bool stopped) {
    StopButton->setEnabled(!stopped);
    StartButton->setEnabled(stopped);
}

void MainWindow::ToggleStatusBar(bool stopped) { statusPanel->setText(stopped ? "Stopped" : "Running"); }

void MainWindow::ToggleMenus(bool stopped) {
    mnuStop->setEnabled(!stopped);
    mnuStart->setEnabled(stopped);
}

void MainWindow::PlaceAtWorkAreaCorner() {
    const QPoint corner = MScreen::GetWorkAreaCorner();
    const QSize outer = frameGeometry().size();
    const int top = corner.y() / MScreen::kTwipsPerPixel - outer.height();
    const int left = corner.x() / MScreen::kTwipsPerPixel - outer.width();
    move(frameGeometry().left(), top);
    move(left, top);
    placedFrameSize_ = outer;
}

void MainWindow::AddTrayIcon() { trayIcon_->Add(); }

void MainWindow::RemoveTrayIcon() { trayIcon_->Remove(); }

void MainWindow::HideFromTaskList() {
    // Only while the icon is there: without it the task list is the only way back to a minimised window.
    TaskList::SetListed(*this, !trayIcon_->IsShown());
}

void MainWindow::ShowAbout(const std::string& applicationName, const std::string& applicationVersion) {
    About about(this, applicationName, applicationVersion);
    about.exec();
}

void MainWindow::ShowMessage(const std::string& text) { QMessageBox::information(this, kTitle, DisplayText(text)); }

void MainWindow::ShowFatalMessage(const std::string& text) {
    QMessageBox::critical(isVisible() ? this : nullptr, kTitle, DisplayText(text));
}

void MainWindow::Restore() {
    inNotificationArea_ = false;
    setWindowState(windowState() & ~Qt::WindowMinimized);
    // A hidden window's task-list state goes with its map request, which show() sends at once.
    if (isHidden()) HideFromTaskList();
    show();
    HideFromTaskList();
}

void MainWindow::NotificationAreaChanged(bool shown) {
    // A window hidden into a notification area that has gone would have no way back.
    if (!shown && inNotificationArea_) {
        Restore();
    } else if (!isHidden()) {
        HideFromTaskList();
    }
}

void MainWindow::closeEvent(QCloseEvent* event) {
    // Unload is never refused, and it runs once: the servers are gone after it.
    if (main_ && !unloaded_) {
        unloaded_ = true;
        main_->RunEvent(&Main::Form_Unload);
    }
    event->accept();
}

void MainWindow::changeEvent(QEvent* event) {
    QMainWindow::changeEvent(event);
    if (event->type() == QEvent::WindowStateChange && isMinimized() && main_) {
        main_->RunEvent("Form_Resize Event", [this] { Minimised(); });
    }
}

void MainWindow::Minimised() {
    // Hidden only where the icon can bring it back (after the state change has been handled); otherwise an
    // ordinary minimise, and if the notification area has gone, the task list takes the window back.
    if (trayIcon_->IsShown()) {
        inNotificationArea_ = true;
        QMetaObject::invokeMethod(this, &MainWindow::HideIfInNotificationArea, Qt::QueuedConnection);
    }
    HideFromTaskList();
}

void MainWindow::HideIfInNotificationArea() {
    if (inNotificationArea_) hide();
}

void MainWindow::showEvent(QShowEvent* event) {
    if (!exposeWatched_ && windowHandle()) {
        windowHandle()->installEventFilter(this);
        exposeWatched_ = true;
    }
    awaitingExpose_ = true;
    QMainWindow::showEvent(event);
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event) {
    if (watched == windowHandle() && event->type() == QEvent::Expose && awaitingExpose_ &&
        windowHandle()->isExposed()) {
        awaitingExpose_ = false;
        if (!framePlacementChecked_) {
            framePlacementChecked_ = true;
            if (!placedFrameSize_.isEmpty() && frameGeometry().size() != placedFrameSize_) PlaceAtWorkAreaCorner();
        }
        // A state written while the window was withdrawn can race its map request; now that the window manager
        // manages the window, it is asked once more.
        HideFromTaskList();
    }
    return QMainWindow::eventFilter(watched, event);
}

}  // namespace app
