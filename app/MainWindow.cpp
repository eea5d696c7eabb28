#include "app/MainWindow.h"

#include <QCloseEvent>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMenuBar>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QStatusBar>
#include <QTextCursor>
#include <QVBoxLayout>

#include "app/Main.h"

namespace app {
namespace {

constexpr const char* kTitle = "Tarnwick Gateway";

// Socket data is 8-bit text: one character per byte.
QString FromBytes(const std::string& bytes) {
    return QString::fromLatin1(bytes.data(), static_cast<qsizetype>(bytes.size()));
}

}  // namespace

MainWindow::MainWindow() {
    setWindowTitle(kTitle);

    auto* central = new QWidget(this);
    auto* layout = new QVBoxLayout(central);

    auto* frame1 = new QGroupBox("Listener Configuration", central);
    auto* grid = new QGridLayout(frame1);
    txtListenPortPOP3 = new QLineEdit(frame1);
    txtListenPortSMTP = new QLineEdit(frame1);
    grid->addWidget(new QLabel("POP3 Port:", frame1), 0, 0);
    grid->addWidget(txtListenPortPOP3, 0, 1);
    grid->addWidget(new QLabel("SMTP Port:", frame1), 1, 0);
    grid->addWidget(txtListenPortSMTP, 1, 1);
    layout->addWidget(frame1);

    auto* buttons = new QHBoxLayout;
    StopButton = new QPushButton("Stop", central);
    StartButton = new QPushButton("Start", central);
    buttons->addStretch();
    buttons->addWidget(StopButton);
    buttons->addWidget(StartButton);
    layout->addLayout(buttons);

    txtData = new QPlainTextEdit(central);
    txtData->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    // The log can hold whole messages; an undo history of them would only double the memory.
    txtData->setUndoRedoEnabled(false);
    layout->addWidget(txtData);
    setCentralWidget(central);

    StatusBar = new QLabel(this);
    statusBar()->addWidget(StatusBar, 1);

    QMenu* mnuFile = menuBar()->addMenu("File");
    mnuStart = mnuFile->addAction("Start");
    mnuStop = mnuFile->addAction("Stop");
    mnuFile->addSeparator();
    mnuExit = mnuFile->addAction("Exit");

    resize(446, 435);
}

void MainWindow::Attach(Main& main) {
    main_ = &main;
    connect(StartButton, &QPushButton::clicked, this, [this] { main_->RunEvent(&Main::StartButton_Click); });
    connect(StopButton, &QPushButton::clicked, this, [this] { main_->RunEvent(&Main::StopButton_Click); });
    connect(mnuStart, &QAction::triggered, this, [this] { main_->RunEvent(&Main::StartMenu_Click); });
    connect(mnuStop, &QAction::triggered, this, [this] { main_->RunEvent(&Main::StopMenu_Click); });
    connect(mnuExit, &QAction::triggered, this, [this] { close(); });
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
    // One text straight from the parts (socket data is 8-bit text: one character per byte), not a joined copy.
    qsizetype length = 0;
    for (std::string_view part : parts) length += static_cast<qsizetype>(part.size());
    QString shown;
    shown.reserve(length);
    for (std::string_view part : parts)
        shown.append(QLatin1StringView(part.data(), static_cast<qsizetype>(part.size())));
    // The box shows line breaks, not the CR of each CR LF.
    shown.replace("\r\n", "\n");
    // Inserting at the end leaves the box holding its old text followed by the entry, exactly as setting the
    // whole text again would, without laying the whole log out again for every entry: a retrieved message of
    // many megabytes is one entry, and every entry after it would otherwise take seconds.
    QTextCursor end(txtData->document());
    end.movePosition(QTextCursor::End);
    end.insertText(shown);
    txtData->moveCursor(QTextCursor::End);
    txtData->verticalScrollBar()->setValue(txtData->verticalScrollBar()->maximum());
}

void MainWindow::ClearLog() { txtData->clear(); }

void MainWindow::Toggle(bool stopped) {
    txtListenPortPOP3->setEnabled(stopped);
    txtListenPortSMTP->setEnabled(stopped);
    StopButton->setEnabled(!stopped);
    StartButton->setEnabled(stopped);
    StatusBar->setText(stopped ? "Stopped" : "Running");
    mnuStop->setEnabled(!stopped);
    mnuStart->setEnabled(stopped);
}

void MainWindow::ShowMessage(const std::string& text) { QMessageBox::information(this, kTitle, FromBytes(text)); }

void MainWindow::ShowFatalMessage(const std::string& text) {
    QMessageBox::critical(isVisible() ? this : nullptr, kTitle, FromBytes(text));
}

void MainWindow::closeEvent(QCloseEvent* event) {
    // Unload is never refused, and it runs once: the servers are gone after it.
    if (main_ && !unloaded_) {
        unloaded_ = true;
        main_->RunEvent(&Main::Form_Unload);
    }
    event->accept();
}

}  // namespace app
