// Which activations of the notification-area icon bring the window back.
#include <gtest/gtest.h>

#include "app/TrayIcon.h"

namespace {

TEST(TrayIconTest, DoubleClickRestoresAndAClickOnlyWhereThereAreNoDoubleClicks) {
    struct Case {
        QSystemTrayIcon::ActivationReason reason;
        bool areaReportsDoubleClicks;
        bool restores;
    };
    const Case cases[] = {
        {QSystemTrayIcon::DoubleClick, true, true},   {QSystemTrayIcon::Trigger, true, false},
        {QSystemTrayIcon::Trigger, false, true},      {QSystemTrayIcon::Context, true, false},
        {QSystemTrayIcon::Context, false, false},     {QSystemTrayIcon::MiddleClick, true, false},
        {QSystemTrayIcon::MiddleClick, false, false}, {QSystemTrayIcon::Unknown, false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(app::TrayIcon::Restores(c.reason, c.areaReportsDoubleClicks), c.restores)
            << "reason " << c.reason << ", double-clicks reported: " << c.areaReportsDoubleClicks;
    }
}

}  // namespace
