// The gateway's window: a fixed layout of port boxes, Stop and Start, the log box and a one-panel status
// bar, with the File and Help menus; it hides into the notification area when minimised.
#pragma once

#include <QMainWindow>

#include <memory>
#include <string>

#include "app/IMainView.h"

class QAction;
class QCloseEvent;
class QGroupBox;
class QLabel;
class QLineEdit;
class QMenu;
class QPlainTextEdit;
class QPushButton;
class QStatusBar;

namespace app {

class Main;
class TrayIcon;

class MainWindow : public QMainWindow, public IMainView {
public:
    MainWindow();
    ~MainWindow() override;

    // Sends the window's commands and events to `main`; call once, before the window is shown.
    void Attach(Main& main);

    std::string ListenPortPOP3Text() const override;
    void SetListenPortPOP3Text(const std::string& text) override;
    std::string ListenPortSMTPText() const override;
    void SetListenPortSMTPText(const std::string& text) override;
    void AppendLog(const std::string& entry) override;
    void AppendLogParts(std::span<const std::string_view> parts) override;
    bool BatchesLog() const override { return true; }
    void ClearLog() override;
    void ToggleInputs(bool stopped) override;
    void ToggleButtons(bool stopped) override;
    void ToggleStatusBar(bool stopped) override;
    void ToggleMenus(bool stopped) override;
    void PlaceAtWorkAreaCorner() override;
    void AddTrayIcon() override;
    void RemoveTrayIcon() override;
    void HideFromTaskList() override;
    void ShowAbout(const std::string& applicationName, const std::string& applicationVersion) override;
    void ShowMessage(const std::string& text) override;
    void ShowFatalMessage(const std::string& text) override;

    // Brings the window back from the notification area: normal state, where it was, out of the task list.
    void Restore();

    // The controls, under their designed names, for the commands and for tests.
    QWidget* client;
    QStatusBar* StatusBar;
    QLabel* statusPanel;
    QPushButton* StopButton;
    QPushButton* StartButton;
    QGroupBox* Frame1;
    QLineEdit* txtListenPortPOP3;
    QLineEdit* txtListenPortSMTP;
    QLabel* lblListenPortPOP3;
    QLabel* lblListenPortSMTP;
    QPlainTextEdit* txtData;
    QMenu* mnuFile;
    QAction* mnuStart;
    QAction* mnuStop;
    QAction* mnuDivider;
    QAction* mnuExit;
    QMenu* mnuHelp;
    QAction* mnuAbout;

protected:
    // Closing the window and Exit take the same unload path.
    void closeEvent(QCloseEvent* event) override;
    // Minimising hides the window into the notification area, where there is one.
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;
    // Each exposure after a show: the first one shows the window manager's frame, which the corner placement
    // then accounts for; each one settles the task-list state with the window manager.
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void Minimised();
    void HideIfInNotificationArea();
    // The notification area came (`shown`) or went while the gateway runs.
    void NotificationAreaChanged(bool shown);

    Main* main_ = nullptr;
    std::unique_ptr<TrayIcon> trayIcon_;
    bool unloaded_ = false;
    // Hidden by a minimise, reachable only through the icon.
    bool inNotificationArea_ = false;
    // The outer size the last placement used, or empty before the first placement.
    QSize placedFrameSize_;
    bool framePlacementChecked_ = false;
    bool exposeWatched_ = false;
    // Shown, and not yet exposed since.
    bool awaitingExpose_ = false;
};

}  // namespace app
