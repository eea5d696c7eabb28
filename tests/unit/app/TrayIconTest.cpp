// Which activations of the notification-area icon bring the window back.
#include <gtest/gtest.h>

#include "app/TrayIcon.h"

namespace {

TEST(TrayIconTest, DoubleClickRestoresAndAClickOnlyWhereThereAreNoDoubleClicks) {
    using R = QSystemTrayIcon::ActivationReason;
    const struct {
        R reason;
        bool areaReportsDoubleClicks;
        bool restores;
    } cases[] = {{R::DoubleClick, true, true},  {R::Trigger, true, false},      {R::Trigger, false, true},
                 {R::Context, false, false},    {R::MiddleClick, false, false}, {R::Unknown, false, false}};
    for (const auto& c : cases) {
        EXPECT_EQ(app::TrayIcon::Restores(c.reason, c.areaReportsDoubleClicks), c.restores)
            << "reason " << c.reason << ", double-clicks reported: " << c.areaReportsDoubleClicks;
    }
}

}  // namespace
