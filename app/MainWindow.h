// The gateway's window: port boxes, Start and Stop, the File menu, the status text and the log box.
#pragma once

#include <QMainWindow>

#include <string>

#include "app/IMainView.h"

class QAction;
class QCloseEvent;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;

namespace app {

class Main;

class MainWindow : public QMainWindow, public IMainView {
public:
    MainWindow();

    // Sends the window's commands to `main`; call once, before the window is shown.
    void Attach(Main& main);

    std::string ListenPortPOP3Text() const override;
    void SetListenPortPOP3Text(const std::string& text) override;
    std::string ListenPortSMTPText() const override;
    void SetListenPortSMTPText(const std::string& text) override;
    void AppendLog(const std::string& entry) override;
    void AppendLogParts(std::span<const std::string_view> parts) override;
    bool BatchesLog() const override { return true; }
    void ClearLog() override;
    void Toggle(bool stopped) override;
    void ShowMessage(const std::string& text) override;
    void ShowFatalMessage(const std::string& text) override;

    // The controls, under their designed names, for the commands and for tests.
    QLineEdit* txtListenPortPOP3;
    QLineEdit* txtListenPortSMTP;
    QPushButton* StartButton;
    QPushButton* StopButton;
    QPlainTextEdit* txtData;
    QLabel* StatusBar;
    QAction* mnuStart;
    QAction* mnuStop;
    QAction* mnuExit;

protected:
    // Closing the window and Exit take the same unload path.
    void closeEvent(QCloseEvent* event) override;

private:
    Main* main_ = nullptr;
    bool unloaded_ = false;
};

}  // namespace app
