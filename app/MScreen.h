// The desktop work area: the primary screen less the panels, where the window is placed at start-up.
#pragma once

#include <QPoint>
#include <QRect>

namespace app::MScreen {

// Twips per device-independent pixel in both directions (1440 per inch at 96 pixels per inch).
inline constexpr int kTwipsPerPixel = 15;

// A rectangle designed in twips (left, top, width, height), in pixels.
inline QRect FromTwips(int left, int top, int width, int height) {
    return {left / kTwipsPerPixel, top / kTwipsPerPixel, width / kTwipsPerPixel, height / kTwipsPerPixel};
}

// The work area in pixels: left and top inclusive, right and bottom exclusive (the first pixel past it).
struct WorkArea {
    int left = 0;
    int top = 0;
    int right = 0;
    int bottom = 0;
};

// The primary screen's available geometry; an empty area when there is no screen.
WorkArea GetWorkArea();
// The work area's bottom-right corner in twips (x, y).
QPoint GetWorkAreaCorner();

}  // namespace app::MScreen
