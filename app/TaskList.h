// Whether a window shows in the desktop's task list and pager. On X11 these are the window's
// _NET_WM_STATE_SKIP_TASKBAR and _NET_WM_STATE_SKIP_PAGER states; other platforms have no such switch here.
#pragma once

class QWidget;

namespace app::TaskList {

// Lists `window` in the task list and pager (true) or leaves it out of both (false). Works before the window
// is mapped (the state goes with the map) and while the window manager manages it (it is asked).
void SetListed(QWidget& window, bool listed);

}  // namespace app::TaskList
