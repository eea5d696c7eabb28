#include "app/TrayIcon.h"

#include <utility>

namespace app {

TrayIcon::TrayIcon(const QIcon& icon, const QString& tip, std::function<void()> restore) : icon_(icon) {
    icon_.setToolTip(tip);
    QObject::connect(&icon_, &QSystemTrayIcon::activated, &icon_,
                     [this, restore = std::move(restore)](QSystemTrayIcon::ActivationReason reason) {
                         // An icon embedded in an X11 notification area (XEmbed) has a place on the screen and
                         // reports double-clicks; a StatusNotifierItem host has neither and sends one
                         // activation.
                         if (Restores(reason, !icon_.geometry().isEmpty())) restore();
                     });
}

// Without a notification area there is nothing to show; one that appears later (a panel that starts after
// the gateway) takes the icon then.
void TrayIcon::Add() { icon_.show(); }

void TrayIcon::Remove() { icon_.hide(); }

bool TrayIcon::IsShown() const { return icon_.isVisible() && QSystemTrayIcon::isSystemTrayAvailable(); }

bool TrayIcon::Restores(QSystemTrayIcon::ActivationReason reason, bool areaReportsDoubleClicks) {
    switch (reason) {
        case QSystemTrayIcon::DoubleClick:
            return true;
        case QSystemTrayIcon::Trigger:
            return !areaReportsDoubleClicks;
        default:
            return false;
    }
}

}  // namespace app
