#include "app/TrayIcon.h"

#include <QCoreApplication>

#include <xcb/xcb.h>

#include <utility>

namespace app {

TrayIcon::TrayIcon(const QIcon& icon, const QString& tip, std::function<void()> restore,
                   std::function<void(bool shown)> areaChanged)
    : icon_(icon), areaChanged_(std::move(areaChanged)) {
    icon_.setToolTip(tip);
    QObject::connect(&icon_, &QSystemTrayIcon::activated, &icon_,
                     [this, restore = std::move(restore)](QSystemTrayIcon::ActivationReason reason) {
                         // An icon embedded in an X11 notification area (XEmbed) has a place on the screen and
                         // reports double-clicks; a StatusNotifierItem host has neither and sends one
                         // activation.
                         if (Restores(reason, !icon_.geometry().isEmpty())) restore();
                     });
}

TrayIcon::~TrayIcon() {
    if (added_) QCoreApplication::instance()->removeNativeEventFilter(this);
}

void TrayIcon::Add() {
    icon_.show();
    shown_ = IsShown();
    if (!added_) QCoreApplication::instance()->installNativeEventFilter(this);
    added_ = true;
}

void TrayIcon::Remove() {
    if (added_) QCoreApplication::instance()->removeNativeEventFilter(this);
    added_ = false;
    icon_.hide();
}

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

bool TrayIcon::nativeEventFilter(const QByteArray& eventType, void* message, qintptr* /*result*/) {
    if (eventType != "xcb_generic_event_t") return false;
    // A notification area announces itself with a MANAGER client message on the root window and leaves by
    // destroying its window. Qt's own tracking sees the event after this filter, so look once it has.
    const auto type = static_cast<xcb_generic_event_t*>(message)->response_type & 0x7F;
    if ((type == XCB_CLIENT_MESSAGE || type == XCB_DESTROY_NOTIFY) && !checkPending_) {
        checkPending_ = true;
        QMetaObject::invokeMethod(
            &icon_, [this] { CheckArea(); }, Qt::QueuedConnection);
    }
    return false;
}

void TrayIcon::CheckArea() {
    checkPending_ = false;
    if (!added_) return;
    const bool available = QSystemTrayIcon::isSystemTrayAvailable();
    if (available == shown_) return;
    // A new notification area takes the icon only when it is shown again.
    if (available) {
        icon_.hide();
        icon_.show();
    }
    shown_ = available;
    areaChanged_(available);
}

}  // namespace app
