"""A real X11 desktop for the gateway's window: Xvfb on a display of its own, openbox and, when asked, the trayer
notification area; the gateway driven with xdotool and read with xwininfo and xprop. The desktop test and
scripts/screenshots use it. Every process it starts is stopped by its process id."""

import os
import random
import re
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "support"))
import tarnwick_testing  # noqa: E402
from tarnwick_testing import APP_LINE, is_listening, read_file, stop_process, two_free_ports  # noqa: E402,F401

TOOLS = ["Xvfb", "openbox", "trayer", "xdotool", "xwininfo", "xprop"]
SCREEN = (1024, 768)
TRAY_HEIGHT = 24
TIMEOUT = 20.0
# A check that something does NOT happen can only wait a while: longer than any double-click interval.
QUIET_TIME = 1.5
# The window states that keep a window out of the task list and the pager.
SKIPS = {"_NET_WM_STATE_SKIP_TASKBAR", "_NET_WM_STATE_SKIP_PAGER"}
# The ports a user's mail reader is pointed at: the desktop entry's, scripts/run's and the user service's.
USER_PORTS = (1110, 1025)
# Where tarnwick-webmail listens by default, which the gateway's built-in service address names.
SERVICE_PORT = 8110


def enter_own_network():
    """Re-executes the calling program under unshare(1) in a network namespace of its own (as root only), so that
    its fixed ports cannot clash with anything else on the machine. Returns whether it now runs in one."""
    if os.environ.pop("TARNWICK_OWN_NETWORK", None) == "1":
        # A new namespace's loopback interface starts down.
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        return True
    if os.geteuid() != 0 or not shutil.which("unshare") or not shutil.which("ip") or \
            subprocess.run(["unshare", "--net", "true"], capture_output=True).returncode != 0:
        return False
    sys.stdout.flush()
    os.execvpe("unshare", ["unshare", "--net", "--", sys.executable, *sys.argv],
               dict(os.environ, TARNWICK_OWN_NETWORK="1"))


def wait_for(what, predicate, timeout=TIMEOUT):
    return tarnwick_testing.wait_for(predicate, timeout, what, poll=0.05)


class Desktop:
    """An X display of its own with a window manager and, if asked, a notification area."""

    def __init__(self, with_tray):
        self.processes = []
        self.folder = tempfile.mkdtemp(prefix="tarnwick-desktop-")
        self.folders = [self.folder]
        self.env = dict(os.environ, QT_QPA_PLATFORM="xcb", XDG_RUNTIME_DIR=self.folder, HOME=self.folder)
        self.env.pop("DBUS_SESSION_BUS_ADDRESS", None)
        self.tray = None
        try:
            self.start_display()
            if with_tray:
                # Before the window manager: openbox adopts a panel already mapped when it starts, but can lose
                # the map request of one mapped while it starts (the panel then never shows, nor its strut).
                self.start_tray()
            self.start(["openbox", "--sm-disable"], None)
            wait_for("the window manager", lambda: "_NET_SUPPORTING_WM_CHECK(WINDOW)" in self.x("xprop", "-root"))
            # The work area ends above the panel once the window manager has read the panel's strut.
            strut = "= 0, 0, %d, %d," % (SCREEN[0], SCREEN[1] - TRAY_HEIGHT)
            wait_for("the panel's strut", lambda: not with_tray or strut in self.x("xprop", "-root", "_NET_WORKAREA"))
        except BaseException:
            self.stop()
            raise

    def start_display(self):
        # A display number of our own, found by trying: a server takes a number only through its lock file
        # /tmp/.X<n>-lock, seen from every network namespace (-displayfd takes no lock, and from a namespace of
        # its own takes over another's socket). -noreset: else it resets whenever its last client goes.
        for attempt in range(20):
            number = random.randint(100, 999)
            self.env["DISPLAY"] = ":%d" % number
            xvfb = self.start(["Xvfb", self.env["DISPLAY"], "-screen", "0", "%dx%dx24" % SCREEN, "-nolisten", "tcp",
                               "-noreset"], None)
            ours = lambda: read_file("/tmp/.X%d-lock" % number).strip() == str(xvfb.pid).encode()
            # A server that finds the number taken ends at once.
            wait_for("the X server on " + self.env["DISPLAY"],
                     lambda: xvfb.poll() is not None or ours() and self.x("xprop", "-root"))
            if xvfb.poll() is None:
                return
        raise AssertionError("Xvfb did not start")

    def start_tray(self):
        self.tray = self.start(["trayer", "--edge", "bottom", "--align", "right", "--SetDockType", "true",
                                "--SetPartialStrut", "true", "--widthtype", "request", "--height", str(TRAY_HEIGHT)])
        wait_for("the panel mapped", lambda: self.x("xdotool", "search", "--onlyvisible", "--class", "trayer"))

    def start(self, command, log=subprocess.DEVNULL, user=None, env=None):
        """Starts a program on this display, its output to `log` (None: the test's own); as `user` (a pwd entry)
        with a home and runtime folder of its own when given, else as this user."""
        env = dict(self.env, **(env or {}))
        ids = {}
        if user is not None:
            folder = tempfile.mkdtemp(prefix="tarnwick-user-")
            self.folders.append(folder)
            os.chown(folder, user.pw_uid, user.pw_gid)
            env.update(HOME=folder, XDG_RUNTIME_DIR=folder, USER=user.pw_name, LOGNAME=user.pw_name)
            ids = dict(user=user.pw_uid, group=user.pw_gid, extra_groups=[])
        process = subprocess.Popen(command, env=env, stdout=log, stderr=log, **ids)
        self.processes.append(process)
        return process

    def stop(self):
        for process in reversed(self.processes):
            stop_process(process)
        for folder in self.folders:
            shutil.rmtree(folder, ignore_errors=True)

    def x(self, *command):
        return subprocess.run(command, env=self.env, capture_output=True, text=True).stdout

    def windows_named(self, name):
        return self.x("xdotool", "search", "--onlyvisible", "--name", "^%s$" % re.escape(name)).split()

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
        """The gateway's windows embedded in trayer's panel."""
        panels = self.x("xdotool", "search", "--class", "trayer").split()
        trees = "".join(self.x("xwininfo", "-tree", "-id", panel) for panel in panels)
        return re.findall(r'(0x[0-9a-f]+) .*\("tarnwick-gateway" "tarnwick-gateway"\)', trees)


class Gateway:
    def __init__(self, desktop, binary, extra=(), ports=None, command=None, user=None, env=None):
        """The gateway on ports of its own (or `ports`); `command` runs instead as it stands."""
        self.desktop = desktop
        self.pop3_port, self.smtp_port = ports or two_free_ports()
        self.process = desktop.start(command or [binary, "--pop3-port", str(self.pop3_port),
                                                 "--smtp-port", str(self.smtp_port), *extra], user=user, env=env)

    def main_window(self):
        return wait_for("the main window", lambda: self.desktop.windows_named("Tarnwick Gateway"))[0]


def outer_corner(desktop, window):
    x, y, width, height, _ = desktop.geometry(window)
    left, right, top, bottom = desktop.frame_extents(window)
    return (x + width + right, y + height + bottom)


def close_by_close_box(desktop, gateway, window):
    """Clicks the close button at the right end of the title bar; returns the gateway's exit status."""
    x, y, width, _, _ = desktop.geometry(window)
    _, right, top, _ = desktop.frame_extents(window)
    desktop.x("xdotool", "mousemove", "--sync", str(x + width + right - 12), str(y - top // 2 - 1), "click", "1")
    return gateway.process.wait(TIMEOUT)


def open_file_menu_and_exit(desktop, window):
    x, y, _, _, _ = desktop.geometry(window)
    desktop.x("xdotool", "mousemove", "--sync", str(x + 15), str(y + 9), "click", "1")
    wait_for("the File menu", lambda: any("_NET_WM_WINDOW_TYPE_DROPDOWN_MENU" in desktop.x("xprop", "-id", w)
                                          for w in desktop.x("xdotool", "search", "--onlyvisible", "--class",
                                                             "tarnwick-gateway").split()))
    # Up from the top of the menu wraps to its last item, Exit (Start is disabled while running).
    desktop.x("xdotool", "key", "Up", "Return")
