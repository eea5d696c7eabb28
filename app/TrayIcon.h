// The notification-area icon: shown from start-up to unload where the desktop has a notification area, with
// the window caption as its tip and no menu. It asks for the window back on a double-click, or on the one
// activation of a notification area that reports no double-clicks, and it tells when the notification area
// comes or goes (an X11 panel can be restarted while the gateway runs).
#pragma once

#include <QAbstractNativeEventFilter>
#include <QSystemTrayIcon>

#include <functional>

namespace app {

class TrayIcon : public QAbstractNativeEventFilter {
public:
    // `restore` runs for every activation that should bring the window back; `areaChanged` runs with the new
    // answer of IsShown() whenever a notification area appears or goes away.
    TrayIcon(const QIcon& icon, const QString& tip, std::function<void()> restore,
             std::function<void(bool shown)> areaChanged);
    ~TrayIcon() override;
    TrayIcon(const TrayIcon&) = delete;
    TrayIcon& operator=(const TrayIcon&) = delete;

    // Shows the icon in the desktop's notification area, now or as soon as there is one.
    void Add();
    // Takes the icon away.
    void Remove();
    // Whether the icon is in a notification area now, so that a hidden window can be brought back.
    bool IsShown() const;

    // Whether an activation brings the window back: a double-click always; a plain activation (a click) only
    // where the notification area reports no double-clicks, since there it is all the user can do.
    static bool Restores(QSystemTrayIcon::ActivationReason reason, bool areaReportsDoubleClicks);

    // Watches the X11 events that can mean a notification area came or went.
    bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;

private:
    void CheckArea();

    QSystemTrayIcon icon_;
    std::function<void(bool)> areaChanged_;
    bool added_ = false;
    bool shown_ = false;
    bool checkPending_ = false;
};

}  // namespace app
