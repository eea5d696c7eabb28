#!/usr/bin/env python3
"""The gateway's window on a real X11 desktop: Xvfb, the openbox window manager and, for the first case,
the trayer notification area; driven with xdotool, read with xwininfo and xprop.

  desktop_test.py --gateway PATH with_notification_area | without_notification_area |
                                 notification_area_comes_and_goes

Exits 77 (skipped) when a tool is missing. Every process it starts is stopped by its process id."""

import argparse
import os
import random
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time

SKIPPED = 77
TOOLS = ["Xvfb", "openbox", "trayer", "xdotool", "xwininfo", "xprop"]
SCREEN = (1024, 768)
TRAY_HEIGHT = 24
TIMEOUT = 20.0
# A check that something does NOT happen can only wait a while: longer than any double-click interval.
QUIET_TIME = 1.5
# The window states that keep a window out of the task list and the pager.
SKIPS = {"_NET_WM_STATE_SKIP_TASKBAR", "_NET_WM_STATE_SKIP_PAGER"}


class Failure(Exception):
    pass


def wait_for(what, predicate, timeout=TIMEOUT):
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise Failure("timed out waiting for " + what)
        time.sleep(0.05)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return str(s.getsockname()[1])


class Desktop:
    """An X display of its own with a window manager and, if asked, a notification area."""

    def __init__(self, with_tray):
        self.processes = []
        self.folder = tempfile.mkdtemp(prefix="tarnwick-desktop-")
        self.log = open(os.path.join(self.folder, "desktop.log"), "w+")
        self.env = dict(os.environ, QT_QPA_PLATFORM="xcb", XDG_RUNTIME_DIR=self.folder, HOME=self.folder)
        self.env.pop("DBUS_SESSION_BUS_ADDRESS", None)
        self.tray = None
        try:
            self.start_display()
            openbox = self.start(["openbox", "--sm-disable"], self.log)
            try:
                wait_for("the window manager",
                         lambda: "_NET_SUPPORTING_WM_CHECK(WINDOW)" in self.x("xprop", "-root"))
            except Failure as failure:
                raise Failure("%s on %s (openbox %s): %s" % (failure, self.env["DISPLAY"], openbox.poll(),
                                                            self.log_text()))
            if with_tray:
                self.start_tray()
        except BaseException:
            self.stop()
            raise

    def start_display(self):
        # A display number of our own, found by trying: the server takes a number only through its lock file
        # /tmp/.X<n>-lock, created atomically, so two servers never share one (-displayfd does not lock).
        for attempt in range(20):
            number = str(random.randint(100, 999))
            xvfb = subprocess.Popen(["Xvfb", ":" + number, "-screen", "0", "%dx%dx24" % SCREEN, "-nolisten", "tcp",
                                     "-noreset"],
                                    stdout=self.log, stderr=self.log)
            self.processes.append(xvfb)
            self.env["DISPLAY"] = ":" + number
            try:
                wait_for("the X server", lambda: xvfb.poll() is not None or self.owns_display(xvfb, number) and
                         subprocess.run(["xprop", "-root", "_NET_WORKAREA"], env=self.env,
                                        capture_output=True).returncode == 0, 10)
            except Failure:
                pass
            if xvfb.poll() is None and self.owns_display(xvfb, number):
                return
            if xvfb.poll() is None:
                xvfb.kill()
            xvfb.wait()
        raise Failure("Xvfb did not start: " + self.log_text())

    @staticmethod
    def owns_display(xvfb, number):
        try:
            with open("/tmp/.X%s-lock" % number) as lock:
                return lock.read().strip() == str(xvfb.pid)
        except OSError:
            return False

    def log_text(self):
        self.log.flush()
        with open(self.log.name) as log:
            return log.read()

    def start_tray(self):
        self.tray = self.start(["trayer", "--edge", "bottom", "--align", "right", "--SetDockType", "true",
                                "--SetPartialStrut", "true", "--widthtype", "request", "--height", str(TRAY_HEIGHT)])
        wait_for("the panel's strut", lambda: self.work_area()[3] == SCREEN[1] - TRAY_HEIGHT)

    def stop_tray(self):
        self.tray.terminate()
        self.tray.wait(5)
        self.tray = None

    def start(self, command, log=subprocess.DEVNULL):
        process = subprocess.Popen(command, env=self.env, stdout=log, stderr=log)
        self.processes.append(process)
        return process

    def stop(self):
        for process in reversed(self.processes):
            if process.poll() is None:
                process.terminate()
                try:
                    process.wait(5)
                except subprocess.TimeoutExpired:
                    process.kill()
                    process.wait()
        self.log.close()
        shutil.rmtree(self.folder, ignore_errors=True)

    def x(self, *command):
        return subprocess.run(command, env=self.env, capture_output=True, text=True).stdout

    def work_area(self):
        values = re.findall(r"\d+", self.x("xprop", "-root", "_NET_WORKAREA").partition("=")[2])
        return tuple(int(v) for v in values[:4]) if len(values) >= 4 else (0, 0, 0, 0)

    def windows_named(self, name):
        return self.x("xdotool", "search", "--name", "^%s$" % re.escape(name)).split()

    def geometry(self, window):
        """(x, y, width, height, map state) of a window's client area."""
        info = self.x("xwininfo", "-id", window)
        number = lambda label: int(re.search(label + r":\s+(-?\d+)", info).group(1))
        state = re.search(r"Map State:\s+(\w+)", info).group(1)
        return (number("Absolute upper-left X"), number("Absolute upper-left Y"), number("Width"),
                number("Height"), state)

    def frame_extents(self, window):
        values = re.findall(r"\d+", self.x("xprop", "-id", window, "_NET_FRAME_EXTENTS").partition("=")[2])
        return tuple(int(v) for v in values) if len(values) == 4 else (0, 0, 0, 0)

    def wm_state(self, window):
        """Normal, Iconic, or None once the window is withdrawn."""
        match = re.search(r"window state:\s+(\w+)", self.x("xprop", "-id", window, "WM_STATE"))
        return match.group(1) if match else None

    def net_wm_state(self, window):
        return set(re.findall(r"_NET_WM_STATE_\w+", self.x("xprop", "-id", window, "_NET_WM_STATE")))

    def tray_icons(self):
        """The gateway's windows embedded in the trayer panel."""
        icons, inside_trayer_depth = [], None
        for line in self.x("xwininfo", "-root", "-tree").splitlines():
            match = re.match(r"(\s*)(0x[0-9a-f]+) (.*)", line)
            if not match:
                continue
            depth = len(match.group(1))
            if inside_trayer_depth is not None and depth <= inside_trayer_depth:
                inside_trayer_depth = None
            # The panel may sit in trayer's own top-level window or in a dock frame of the window manager.
            if re.search(r'"(trayer|Trayer)"\)', match.group(3)):
                inside_trayer_depth = depth
            elif inside_trayer_depth is not None and '"tarnwick-gateway")' in match.group(3):
                icons.append(match.group(2))
        return icons


class Gateway:
    def __init__(self, desktop, binary, pop3_port=None, extra=()):
        self.desktop = desktop
        self.pop3_port = pop3_port or free_port()
        self.process = desktop.start([binary, "--pop3-port", self.pop3_port, "--smtp-port", free_port(), *extra])

    def main_window(self):
        """The main window, once it is mapped."""
        def mapped():
            for window in self.desktop.windows_named("Tarnwick Gateway"):
                if self.desktop.geometry(window)[4] == "IsViewable":
                    return window
            return None
        return wait_for("the main window", mapped)

    def exit_status(self):
        try:
            return self.process.wait(TIMEOUT)
        except subprocess.TimeoutExpired:
            raise Failure("the gateway did not end")


def ok(message):
    print("ok:", message)


def check(condition, message):
    if not condition:
        raise Failure(message)
    ok(message)


def outer_corner(desktop, window):
    x, y, width, height, _ = desktop.geometry(window)
    left, right, top, bottom = desktop.frame_extents(window)
    return (x + width + right, y + height + bottom)


def check_placement(desktop, window):
    area = desktop.work_area()
    corner = (area[0] + area[2], area[1] + area[3])
    # The corner placement takes the frame into account once the window manager has drawn it.
    wait_for("the outer frame's corner at %s" % (corner,), lambda: outer_corner(desktop, window) == corner)
    x, y, width, height, _ = desktop.geometry(window)
    ok("outer bottom-right corner on the work area's corner %s" % (corner,))
    # The client area is 446 x 435 below the menu bar, which X11 counts into the client window.
    check(width == 446 and 435 < height < 435 + 40, "client size %dx%d (446 x 435 and the menu bar)" % (width, height))
    actions = desktop.x("xprop", "-id", window, "_NET_WM_ALLOWED_ACTIONS")
    check("_NET_WM_ACTION_MINIMIZE" in actions and "MAXIMIZE" not in actions and "RESIZE" not in actions,
          "the window manager offers minimise, and neither maximise nor resize")
    return (x, y)


def settles_at(desktop, window, position):
    """Whether the window comes to rest at `position` (openbox animates a window back from the icon)."""
    try:
        return wait_for("the window at %s" % (position,), lambda: desktop.geometry(window)[:2] == position, 5)
    except Failure:
        print("the window is at", desktop.geometry(window)[:2])
        return False


def click_close_box(desktop, window):
    """Clicks the close button at the right end of the window manager's title bar."""
    x, y, width, _, _ = desktop.geometry(window)
    left, right, top, bottom = desktop.frame_extents(window)
    desktop.x("xdotool", "mousemove", "--sync", str(x + width + right - 12), str(y - top // 2 - 1), "click", "1")


def close_by_close_box(desktop, gateway, window):
    """Closes the window with its close box; returns the gateway's exit status."""
    # Now and then openbox lets a click on a window just restored from its icon go by (the window is mapped and
    # at its place, but the button takes no press yet); the click is then given again.
    for attempt in range(3):
        click_close_box(desktop, window)
        try:
            return gateway.process.wait(5)
        except subprocess.TimeoutExpired:
            print("the close box took no click (window %s, frame %s); clicking again" % (
                desktop.geometry(window), desktop.frame_extents(window)))
    return gateway.exit_status()


def open_file_menu_and_exit(desktop, window):
    x, y, _, _, _ = desktop.geometry(window)
    desktop.x("xdotool", "mousemove", "--sync", str(x + 15), str(y + 9), "click", "1")
    wait_for("the File menu", lambda: any(desktop.geometry(w)[4] == "IsViewable"
                                          for w in desktop.x("xdotool", "search", "--class", "tarnwick-gateway").split()
                                          if w not in desktop.windows_named("Tarnwick Gateway") and
                                          desktop.geometry(w)[2] > 40))
    # Up from the top of the menu wraps to its last item, Exit (Start is disabled while running).
    desktop.x("xdotool", "key", "Up", "Return")


def with_notification_area(desktop, binary):
    gateway = Gateway(desktop, binary)
    window = gateway.main_window()
    position = check_placement(desktop, window)
    wait_for("the window out of the task list", lambda: SKIPS <= desktop.net_wm_state(window))
    ok("out of the task list and the pager")
    icon = wait_for("the icon in the notification area", desktop.tray_icons)[0]
    ok("icon %s in the notification area" % icon)

    desktop.x("xdotool", "windowminimize", window)
    # Iconified first by the window manager, then hidden (withdrawn) by the gateway.
    wait_for("the window withdrawn", lambda: desktop.wm_state(window) is None)
    check(desktop.geometry(window)[4] == "IsUnMapped", "minimise hides the window (withdrawn, not iconified)")
    check(desktop.tray_icons() == [icon], "the icon stays")

    desktop.x("xdotool", "mousemove", "--window", icon, "8", "8", "click", "1")
    time.sleep(QUIET_TIME)
    check(desktop.geometry(window)[4] == "IsUnMapped", "a single click on the icon changes nothing")

    desktop.x("xdotool", "mousemove", "--window", icon, "8", "8", "click", "--repeat", "2", "--delay", "80", "1")
    wait_for("the window back", lambda: desktop.geometry(window)[4] == "IsViewable")
    check(desktop.wm_state(window) == "Normal", "a double-click brings the window back, normal")
    check(settles_at(desktop, window, position), "at the same place %s" % (position,))
    wait_for("the window out of the task list again", lambda: SKIPS <= desktop.net_wm_state(window))
    ok("still out of the task list")

    open_file_menu_and_exit(desktop, window)
    wait_for("the icon to go", lambda: not desktop.tray_icons())
    ok("File, Exit removes the icon")
    status = gateway.exit_status()
    check(status == 0, "the gateway ends with status %d" % status)


def without_notification_area(desktop, binary):
    gateway = Gateway(desktop, binary)
    window = gateway.main_window()
    position = check_placement(desktop, window)
    check(not desktop.net_wm_state(window) & SKIPS,
          "in the task list, since there is no icon to come back through")

    # A second instance says so on the desktop as well and ends with status 3.
    before = set(desktop.windows_named("Tarnwick Gateway"))
    second = Gateway(desktop, binary)
    box = wait_for("the second instance's message box",
                   lambda: [w for w in desktop.windows_named("Tarnwick Gateway")
                            if w not in before and desktop.geometry(w)[4] == "IsViewable"])[0]
    desktop.x("xdotool", "windowactivate", "--sync", box, "key", "Return")
    status = second.exit_status()
    check(status == 3, "the second instance shows a message box and ends with status %d" % status)

    desktop.x("xdotool", "windowminimize", window)
    wait_for("the window iconified", lambda: desktop.wm_state(window) == "Iconic")
    ok("minimise is an ordinary minimise: iconified, not withdrawn")

    desktop.x("xdotool", "windowactivate", window)
    wait_for("the window restored", lambda: desktop.wm_state(window) == "Normal" and
             desktop.geometry(window)[4] == "IsViewable")
    check(settles_at(desktop, window, position), "restored from the task list at the same place %s" % (position,))

    # The close box takes the same way out as Exit.
    status = close_by_close_box(desktop, gateway, window)
    check(status == 0, "closing the window ends the gateway with status %d" % status)


def notification_area_comes_and_goes(desktop, binary):
    gateway = Gateway(desktop, binary)
    window = gateway.main_window()
    wait_for("the icon", desktop.tray_icons)
    desktop.x("xdotool", "windowminimize", window)
    wait_for("the window hidden", lambda: desktop.wm_state(window) is None)

    desktop.stop_tray()
    wait_for("the window back when the notification area goes",
             lambda: desktop.geometry(window)[4] == "IsViewable" and desktop.wm_state(window) == "Normal")
    wait_for("the window in the task list", lambda: not desktop.net_wm_state(window) & SKIPS)
    ok("the notification area goes: the hidden window comes back, into the task list")

    desktop.x("xdotool", "windowminimize", window)
    wait_for("the window iconified", lambda: desktop.wm_state(window) == "Iconic")
    ok("without it, minimise is an ordinary minimise")
    desktop.x("xdotool", "windowactivate", window)
    wait_for("the window restored", lambda: desktop.wm_state(window) == "Normal")

    desktop.start_tray()
    wait_for("the icon in the new notification area", desktop.tray_icons)
    wait_for("the window out of the task list", lambda: SKIPS <= desktop.net_wm_state(window))
    ok("a new notification area takes the icon, and the window leaves the task list")
    desktop.x("xdotool", "windowminimize", window)
    wait_for("the window hidden again", lambda: desktop.wm_state(window) is None)
    ok("minimise hides into the new notification area")

    icon = desktop.tray_icons()[0]
    desktop.x("xdotool", "mousemove", "--window", icon, "8", "8", "click", "--repeat", "2", "--delay", "80", "1")
    wait_for("the window back", lambda: desktop.geometry(window)[4] == "IsViewable")
    status = close_by_close_box(desktop, gateway, window)
    check(status == 0, "the gateway ends with status %d" % status)


# Each case with whether its desktop starts with a notification area.
CASES = {
    "with_notification_area": (with_notification_area, True),
    "without_notification_area": (without_notification_area, False),
    "notification_area_comes_and_goes": (notification_area_comes_and_goes, True),
}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--gateway", required=True, help="the tarnwick-gateway binary")
    parser.add_argument("case", choices=sorted(CASES))
    arguments = parser.parse_args()
    missing = [tool for tool in TOOLS if not shutil.which(tool)]
    if missing:
        print("SKIPPED: the desktop test needs %s (scripts/setup installs them)" % ", ".join(missing))
        return SKIPPED
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
