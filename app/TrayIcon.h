// The notification-area icon: shown from start-up to unload where the desktop has a notification area, with
// the window caption as its tip and no menu. It asks for the window back on a double-click, or on the one
// activation of a notification area that reports no double-clicks.
#pragma once

#include <QSystemTrayIcon>

#include <functional>

namespace app {

class TrayIcon {
public:
    // `restore` runs for every activation that should bring the window back.
    TrayIcon(const QIcon& icon, const QString& tip, std::function<void()> restore);

    // Shows the icon in the desktop's notification area, now or as soon as there is one.
    void Add();
    // Takes the icon away.
    void Remove();
    // Whether the icon is in a notification area now, so that a hidden window can be brought back.
    bool IsShown() const;

    // Whether an activation brings the window back: a double-click always; a plain activation (a click) only
    // where the notification area reports no double-clicks, since there it is all the user can do.
    static bool Restores(QSystemTrayIcon::ActivationReason reason, bool areaReportsDoubleClicks);

private:
    QSystemTrayIcon icon_;
};

}  // namespace app
