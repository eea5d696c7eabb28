#!/usr/bin/env python3
"""The gateway's window on a real X11 desktop (x_desktop: Xvfb, openbox, and the trayer notification area
when the case starts with one). Exits 77 (skipped) when a tool is missing or the fixed ports it needs are taken."""

import argparse
import os
import poplib
import pwd
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

from x_desktop import APP_LINE, QUIET_TIME, SCREEN, SERVICE_PORT, SKIPS, TIMEOUT, TOOLS, TRAY_HEIGHT, USER_PORTS, \
    Desktop, Gateway, close_by_close_box, enter_own_network, is_listening, open_file_menu_and_exit, outer_corner, \
    stop_process, two_free_ports, wait_for

# The log box's middle, in pixels from the client window's left edge and bottom (its top has the menu bar).
LOG_BOX_MIDDLE = (220, 155)


def check(condition, message):
    if not condition:
        raise AssertionError(message)
    print("ok:", message)


def with_notification_area(desktop, arguments):
    gateway = Gateway(desktop, arguments.gateway)
    window = gateway.main_window()
    corner = (SCREEN[0], SCREEN[1] - TRAY_HEIGHT)
    # The corner placement takes the frame into account once the window manager has drawn it.
    wait_for("the outer frame's corner at the work area's corner %s, above the panel" % (corner,),
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
    wait_for("minimise to hide the window (withdrawn, not iconified)", lambda: desktop.wm_state(window) is None)
    check(desktop.tray_icons() == [icon], "the icon stays")
    desktop.x("xdotool", "mousemove", "--window", icon, "8", "8", "click", "1")
    time.sleep(QUIET_TIME)
    check(desktop.wm_state(window) is None, "a single click on the icon changes nothing")
    desktop.x("xdotool", "mousemove", "--window", icon, "8", "8", "click", "--repeat", "2", "--delay", "80", "1")
    # openbox animates the window back from the icon to its place.
    wait_for("a double-click to bring the window back, normal, at the same place %s" % ((x, y),),
             lambda: desktop.wm_state(window) == "Normal" and desktop.geometry(window)[:2] == (x, y))
    wait_for("the window out of the task list again", lambda: SKIPS <= desktop.net_wm_state(window))

    desktop.x("xdotool", "windowminimize", window)
    wait_for("the window hidden", lambda: desktop.wm_state(window) is None)
    stop_process(desktop.tray)
    wait_for("the hidden window back, into the task list, when the notification area goes",
             lambda: desktop.wm_state(window) == "Normal" and not desktop.net_wm_state(window) & SKIPS)
    desktop.start_tray()
    wait_for("the icon in the new notification area", desktop.tray_icons)
    wait_for("the window out of the task list", lambda: SKIPS <= desktop.net_wm_state(window))

    open_file_menu_and_exit(desktop, window)
    wait_for("File, Exit to remove the icon", lambda: not desktop.tray_icons())
    check(gateway.process.wait(TIMEOUT) == 0, "the gateway ends with status 0")


def click_log_box(desktop, window):
    x, y, _, height, _ = desktop.geometry(window)
    # Without --sync: that waits for the pointer to move, and it may be there already.
    desktop.x("xdotool", "mousemove", str(x + LOG_BOX_MIDDLE[0]), str(y + height - LOG_BOX_MIDDLE[1]), "click", "1")


def without_notification_area(desktop, arguments):
    """In the task list, an ordinary minimise; Stop and Start from the keyboard, the Tab order once around, log box
    included (a focus stuck in the log would type into it and start nothing); the close box ends the gateway."""
    gateway = Gateway(desktop, arguments.gateway)
    window = gateway.main_window()
    check(not desktop.net_wm_state(window) & SKIPS, "in the task list, since there is no icon to come back through")
    position = desktop.geometry(window)[:2]
    desktop.x("xdotool", "windowminimize", window)
    wait_for("minimise to be an ordinary minimise (iconified)", lambda: desktop.wm_state(window) == "Iconic")
    desktop.x("xdotool", "windowactivate", window)
    # openbox animates the window back from the task list; the keys below need it at rest.
    wait_for("the window restored from the task list, at rest at %s" % (position,),
             lambda: desktop.wm_state(window) == "Normal" and desktop.geometry(window)[:2] == position)

    running = (gateway.pop3_port, gateway.smtp_port)
    wait_for("both servers listening", lambda: all(is_listening(p) for p in running))
    desktop.x("xdotool", "windowactivate", "--sync", window)
    # Running, Stop is the one control besides the log that takes the focus.
    click_log_box(desktop, window)
    desktop.x("xdotool", "key", "--delay", "60", "Tab", "space")
    wait_for("Tab from the log to Stop, and Space on it to stop both servers",
             lambda: not any(is_listening(p) for p in running))

    # Stopped, forwards from the log: Start, the POP3 box, the SMTP box, the log, and round to Start.
    ports = two_free_ports()
    click_log_box(desktop, window)
    desktop.x("xdotool", "key", "--delay", "60", "Tab", "Tab", "ctrl+a", "type", "--delay", "60", str(ports[0]))
    desktop.x("xdotool", "key", "--delay", "60", "Tab", "ctrl+a", "type", "--delay", "60", str(ports[1]))
    desktop.x("xdotool", "key", "--delay", "60", "Tab", "Tab", "space")
    wait_for("Tab once around from the log and Space on Start to start POP3 on %d and SMTP on %d" % ports,
             lambda: all(is_listening(p) for p in ports))
    check(close_by_close_box(desktop, gateway, window) == 0, "closing the window ends the gateway with status 0")


def menu_entry_as_ordinary_user(desktop, arguments):
    """A newcomer's path: install, start the menu entry's command as it stands as an ordinary user, fetch mail on
    the ports it names."""
    # An ordinary desktop user's programs run as this user, or as `nobody` when this is root.
    user = pwd.getpwnam("nobody") if os.geteuid() == 0 else None
    prefix = tempfile.mkdtemp(prefix="tarnwick-prefix-")
    desktop.folders.append(prefix)
    os.chmod(prefix, 0o755)
    subprocess.run(["cmake", "--install", arguments.build, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
    bindir = os.path.join(prefix, "bin")
    desktop.start([os.path.join(bindir, "tarnwick-webmail"), "--store", os.path.join(prefix, "store"), "--demo"])
    wait_for("the installed tarnwick-webmail on its default port", lambda: is_listening(SERVICE_PORT))

    # The Exec line split as the desktop does, found on the PATH.
    with open(os.path.join(prefix, "share", "applications", "tarnwick-gateway.desktop")) as entry:
        command = shlex.split(re.search(r"^Exec=(.*)$", entry.read(), re.MULTILINE).group(1))
    gateway = Gateway(desktop, None, ports=USER_PORTS, command=command, user=user,
                      env={"PATH": bindir + os.pathsep + os.environ["PATH"]})
    window = gateway.main_window()
    wait_for("POP3 on %d and SMTP on %d" % USER_PORTS, lambda: all(is_listening(p) for p in USER_PORTS))
    client = poplib.POP3("127.0.0.1", USER_PORTS[0], timeout=30)
    client.user("demo")
    client.pass_("demo")
    first_line = client.retr(1)[1][0]
    client.quit()
    check(first_line == APP_LINE, "%s as %s, the first fetch: the first message begins %r" % (
        " ".join(command), user.pw_name if user else "this user", first_line))
    open_file_menu_and_exit(desktop, window)
    check(gateway.process.wait(TIMEOUT) == 0, "File, Exit ends the gateway with status 0")


CASES = {case.__name__: case for case in (with_notification_area, without_notification_area,
                                          menu_entry_as_ordinary_user)}


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--gateway", required=True, help="the tarnwick-gateway binary")
    parser.add_argument("--build", required=True, help="the build folder (menu_entry_as_ordinary_user installs it)")
    parser.add_argument("case", choices=sorted(CASES))
    arguments = parser.parse_args()
    if missing := [tool for tool in TOOLS if not shutil.which(tool)]:
        print("SKIPPED: the desktop test needs %s (scripts/setup installs them)" % ", ".join(missing))
        return 77
    case = CASES[arguments.case]
    taken = [str(port) for port in USER_PORTS + (SERVICE_PORT,) if is_listening(port)]
    if case is menu_entry_as_ordinary_user and not enter_own_network() and taken:
        print("SKIPPED: something on this machine listens on port(s) %s, and only root can give the test a "
              "network of its own" % ", ".join(taken))
        return 77
    desktop = Desktop(with_tray=case is not without_notification_area)
    try:
        case(desktop, arguments)
    finally:
        desktop.stop()
    print("passed:", arguments.case)
    return 0


if __name__ == "__main__":
    sys.exit(main())
