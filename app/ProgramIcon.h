// The program's icon, compiled into the binary at every size the build renders.
#pragma once

#include <QIcon>
#include <QPixmap>

namespace app {

// All sizes, for the window, the notification area and the desktop.
QIcon ProgramIcon();
// The 32 x 32 picture the About box shows.
QPixmap ProgramPicture();

}  // namespace app
