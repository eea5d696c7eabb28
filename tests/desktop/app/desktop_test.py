#!/usr/bin/env python3
"""The gateway's window on a real X11 desktop (x_desktop: Xvfb, openbox, and the trayer notification area
when the case starts with one).

  desktop_test.py --gateway PATH with_notification_area | without_notification_area

Exits 77 (skipped) when a tool is missing."""

import argparse
import shutil
import sys
import time

from x_desktop import QUIET_TIME, SKIPS, TOOLS, Desktop, Failure, Gateway, close_by_close_box, \
    open_file_menu_and_exit, outer_corner, settles_at, wait_for


def check(condition, message):
    if not condition:
        raise Failure(message)
    print("ok:", message)


def hidden(desktop, window):
    return desktop.wm_state(window) is None and desktop.geometry(window)[4] == "IsUnMapped"


def double_click(desktop, icon):
    desktop.x("xdotool", "mousemove", "--window", icon, "8", "8", "click", "--repeat", "2", "--delay", "80", "1")


def with_notification_area(desktop, binary):
    gateway = Gateway(desktop, binary)
    window = gateway.main_window()
    area = desktop.work_area()
    corner = (area[0] + area[2], area[1] + area[3])
    # The corner placement takes the frame into account once the window manager has drawn it.
    wait_for("the outer frame's corner at the work area's corner %s" % (corner,),
             lambda: outer_corner(desktop, window) == corner)
    x, y, width, height, _ = desktop.geometry(window)
    # The client area is 446 x 435 below the menu bar, which X11 counts into the client window.
    check(width == 446 and 435 < height < 435 + 40, "client size %dx%d (446 x 435 and the menu bar)" % (width, height))
    actions = desktop.x("xprop", "-id", window, "_NET_WM_ALLOWED_ACTIONS")
    check("_NET_WM_ACTION_MINIMIZE" in actions and "MAXIMIZE" not in actions and "RESIZE" not in actions,
          "the window manager offers minimise, and neither maximise nor resize")
    wait_for("the window out of the task list and the pager", lambda: SKIPS <= desktop.net_wm_state(window))
    icon = wait_for("the icon in the notification area", desktop.tray_icons)[0]

    desktop.x("xdotool", "windowminimize", window)
    # Iconified first by the window manager, then hidden (withdrawn) by the gateway.
    wait_for("minimise to hide the window (withdrawn, not iconified)", lambda: hidden(desktop, window))
    check(desktop.tray_icons() == [icon], "the icon stays")
    desktop.x("xdotool", "mousemove", "--window", icon, "8", "8", "click", "1")
    time.sleep(QUIET_TIME)
    check(hidden(desktop, window), "a single click on the icon changes nothing")
    double_click(desktop, icon)
    wait_for("a double-click to bring the window back, normal",
             lambda: desktop.geometry(window)[4] == "IsViewable" and desktop.wm_state(window) == "Normal")
    check(settles_at(desktop, window, (x, y)), "at the same place %s" % ((x, y),))
    wait_for("the window out of the task list again", lambda: SKIPS <= desktop.net_wm_state(window))

    desktop.x("xdotool", "windowminimize", window)
    wait_for("the window hidden", lambda: hidden(desktop, window))
    desktop.stop_tray()
    wait_for("the hidden window back, into the task list, when the notification area goes",
             lambda: desktop.wm_state(window) == "Normal" and not desktop.net_wm_state(window) & SKIPS)
    desktop.x("xdotool", "windowminimize", window)
    wait_for("minimise without it to be an ordinary minimise", lambda: desktop.wm_state(window) == "Iconic")
    desktop.x("xdotool", "windowactivate", window)
    wait_for("the window restored", lambda: desktop.wm_state(window) == "Normal")

    desktop.start_tray()
    icon = wait_for("the icon in the new notification area", desktop.tray_icons)[0]
    wait_for("the window out of the task list", lambda: SKIPS <= desktop.net_wm_state(window))
    desktop.x("xdotool", "windowminimize", window)
    wait_for("minimise to hide into the new notification area", lambda: hidden(desktop, window))
    double_click(desktop, icon)
    wait_for("the window back", lambda: desktop.geometry(window)[4] == "IsViewable")

    open_file_menu_and_exit(desktop, window)
    wait_for("File, Exit to remove the icon", lambda: not desktop.tray_icons())
    check(gateway.exit_status() == 0, "the gateway ends with status 0")


def without_notification_area(desktop, binary):
    gateway = Gateway(desktop, binary)
    window = gateway.main_window()
    check(not desktop.net_wm_state(window) & SKIPS, "in the task list, since there is no icon to come back through")

    # A second instance says so on the desktop as well and ends with status 3.
    before = set(desktop.windows_named("Tarnwick Gateway"))
    second = Gateway(desktop, binary)
    box = wait_for("the second instance's message box",
                   lambda: [w for w in desktop.windows_named("Tarnwick Gateway")
                            if w not in before and desktop.geometry(w)[4] == "IsViewable"])[0]
    desktop.x("xdotool", "windowactivate", "--sync", box, "key", "Return")
    check(second.exit_status() == 3, "the second instance shows a message box and ends with status 3")

    position = desktop.geometry(window)[:2]
    desktop.x("xdotool", "windowminimize", window)
    wait_for("minimise to be an ordinary minimise (iconified)", lambda: desktop.wm_state(window) == "Iconic")
    desktop.x("xdotool", "windowactivate", window)
    wait_for("the window restored", lambda: desktop.wm_state(window) == "Normal")
    check(settles_at(desktop, window, position), "restored from the task list at the same place %s" % (position,))
    # The close box takes the same way out as Exit.
    check(close_by_close_box(desktop, gateway, window) == 0, "closing the window ends the gateway with status 0")


# Each case with whether its desktop starts with a notification area.
CASES = {"with_notification_area": (with_notification_area, True),
         "without_notification_area": (without_notification_area, False)}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--gateway", required=True, help="the tarnwick-gateway binary")
    parser.add_argument("case", choices=sorted(CASES))
    arguments = parser.parse_args()
    missing = [tool for tool in TOOLS if not shutil.which(tool)]
    if missing:
        print("SKIPPED: the desktop test needs %s (scripts/setup installs them)" % ", ".join(missing))
        return 77
    case, with_tray = CASES[arguments.case]
    try:
        desktop = Desktop(with_tray)
        try:
            case(desktop, arguments.gateway)
        finally:
            desktop.stop()
    except Failure as failure:
        print("FAILED:", failure)
        return 1
    print("passed:", arguments.case)
    return 0


if __name__ == "__main__":
    sys.exit(main())
