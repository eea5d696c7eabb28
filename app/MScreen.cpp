#include "app/MScreen.h"

#include <QGuiApplication>
#include <QScreen>

namespace app::MScreen {

WorkArea GetWorkArea() {
    const QScreen* screen = QGuiApplication::primaryScreen();
    if (!screen) return {};
    const QRect area = screen->availableGeometry();
    // QRect's right() and bottom() are the last pixel inside; the corner is the first one outside.
    return {area.left(), area.top(), area.left() + area.width(), area.top() + area.height()};
}

QPoint GetWorkAreaCorner() {
    const WorkArea area = GetWorkArea();
    return {area.right * kTwipsPerPixel, area.bottom * kTwipsPerPixel};
}

}  // namespace app::MScreen
