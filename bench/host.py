"""What the benchmarks start of a host: bus, session service, daemon, and X displays."""
import contextlib
import json
import mmap
import os
import subprocess
import sys
import time

SIZE = "1024x768"
LIMIT = 20  # seconds for anything to happen
SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def fail(text):
    sys.exit(f"{os.path.basename(sys.argv[0])}: {text}")


def wait_for(condition, what, interval=0.002):
    end = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > end:
            fail(f"no {what} within {LIMIT} s")
        time.sleep(interval)


def milliseconds():
    return time.time_ns() / 1e6


def stop(process):
    process.terminate()
    process.wait(LIMIT)


def alike(one, other):
    """Compression loses a little: a hundredth of the pixels may be off by more than a tenth."""
    off = sum(abs(a - b) > 25 for a, b in zip(one.sample(), other.sample()))
    return off * 100 <= len(one.sample())


class Host:
    """BUILD has the programs. RUN, a new directory, becomes their home and gets their output."""

    def __init__(self, build, run):
        self.build, self.run = os.path.abspath(build), run
        os.environ["HOME"] = run
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={run}/bus"
        self.start("bus", "dbus-daemon", f"--config-file={SOURCE}/demo/bus.conf", "--nofork",
                   "--nopidfile", "--nosyslog", f"--address=unix:path={run}/bus")
        wait_for(lambda: os.path.exists(f"{run}/bus"), "bus")

    def start(self, name, *command, **options):
        with open(f"{self.run}/{name}.log", "a", encoding="utf-8") as log:
            return subprocess.Popen(command, stdout=options.pop("stdout", log), stderr=log,
                                    **options)

    @contextlib.contextmanager
    def daemon(self, service, port, program, *arguments):
        with open(f"{self.run}/vorl_proxy.json", "w", encoding="utf-8") as file:
            json.dump({"listen:addr": "127.0.0.1", "listen:port": port, "listen:timeout": LIMIT,
                       "x11rdp:path": program,
                       "x11rdp:args": [*arguments, "/ipc-socket:%{socket}"]}, file)
        process = self.start("daemon", f"{self.build}/vorl_proxy", "--config",
                             f"{self.run}/vorl_proxy.json")
        service.wait_for("vorlTest")
        time.sleep(0.5)  # the daemon takes signals once its start is over; nothing tells when
        yield process
        service.send("stopped")
        process.wait(LIMIT)

    def start_desktop(self, display):
        for number, program in enumerate((
                ["jwm", "-f", f"{SOURCE}/demo/desktop.jwmrc"],
                ["xterm", "-geometry", "100x40+20+20", "-e", "cat", "/etc/services", "-"],
                ["xlogo", "-geometry", "300x300+680+40"])):
            self.start(f"desktop{number}", *program, env=display.environment,
                       stdin=subprocess.DEVNULL)
        looks = [display.sample()]

        def drawn():
            looks.append(display.sample())
            return looks[-1] == looks[-2] != looks[0]

        wait_for(drawn, "desktop", 1)


class SessionService:
    """The demo's, which takes commands and prints a line with the time for each bus message."""

    def __init__(self, host, display):
        with open(f"{host.run}/session.json", "w", encoding="utf-8") as file:
            json.dump({"display": display.number, "uid": os.getuid(), "home": host.run,
                       "sec:tls": True, "sec:auth": False}, file)
        self.process = host.start("service", f"{host.build}/vorl_demo_session",
                                  f"{host.run}/session.json", stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, text=True)
        self.wait_for("owning")

    def send(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()

    def wait_for(self, event):
        """Returns the time of the next such event, in milliseconds, and its line."""
        for line in self.process.stdout:
            if event in line:
                return int(line.split()[0]) / 1000, line
        return fail("the session service has ended")

    def allow(self, session):
        self.send(f"allow {session} 1")
        self.wait_for(f"proxyListenStarted(session {session}, listening)")


class Display:
    """An X server whose frame buffer is a file. Without authentication: no other process reaches
    it in this network namespace."""

    def __init__(self, host, name):
        directory = f"{host.run}/{name}"
        os.mkdir(directory)
        # Abstract sockets only and no lock file: nothing appears in /tmp.
        process = host.start(name, "Xvfb", "-displayfd", "1", "-nolock", "-nolisten", "tcp",
                             "-nolisten", "unix", "-noreset", "-ac", "-screen", "0", f"{SIZE}x24",
                             "-fbdir", directory, stdout=subprocess.PIPE, text=True)
        self.number = int(process.stdout.readline())
        self.environment = dict(os.environ, DISPLAY=f":{self.number}", HOME=host.run)
        with open(f"{directory}/Xvfb_screen0", "rb") as file:
            self.frame_buffer = mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ)

    def sample(self):
        """The green of one pixel in 509, from the end: the header in front stays out."""
        return self.frame_buffer[len(self.frame_buffer) - 3:4096:-4 * 509]
