#!/usr/bin/python3
"""Measures what a client waits for at both ends of a job, through the real daemon.

usage: setup_latency.py BUILD_DIRECTORY RUN_DIRECTORY ROUNDS RESULTS

Starts a private bus, the demo's session service and the daemon in RUN_DIRECTORY, which becomes
their home. First the shadow server is a stub, for the daemon's own share: the setup of a
connection, stage by stage, and the end of a job. Then it is the real one, with a real client and
two X displays: the time from the client's start to the first picture, and the same with a freshly
started shadow server that the client connects to directly.

Appends lines of target, measure, metric and value to RESULTS, separated by tabs.
"""
import contextlib
import json
import mmap
import os
import random
import socket
import subprocess
import sys
import time

SESSION = 7
SIZE = "1024x768"
LIMIT = 20  # seconds for anything to happen
SHADOW = os.environ["SHADOW_SERVER"]  # set by scripts/bench, as the next one
CLIENT = os.environ["RDP_CLIENT"]

build, run, rounds, results = sys.argv[1:]
build = os.path.abspath(build)
source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
socket_file = f"{run}/.vorl/proxy_{SESSION}_0"


def wait_for(condition, what, interval=0.002):
    end = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"setup_latency: no {what} within {LIMIT} s")
        time.sleep(interval)


def start(name, *command, **options):
    with open(f"{run}/{name}.log", "a", encoding="utf-8") as log:
        return subprocess.Popen(command, stdout=options.pop("stdout", log), stderr=log, **options)


def stop(process):
    process.terminate()
    process.wait(LIMIT)


def milliseconds():
    return time.time_ns() / 1e6


def record(measure, metric, value, target="vorl_proxy"):
    with open(results, "a", encoding="utf-8") as out:
        out.write(f"{target}\t{measure}\t{metric}\t{value}\n")


class SessionService:
    """The demo's, which takes commands and prints a line with the time for each bus message."""

    def __init__(self, display):
        with open(f"{run}/session.json", "w", encoding="utf-8") as file:
            json.dump({"display": display, "uid": os.getuid(), "home": run,
                       "sec:tls": True, "sec:auth": False}, file)
        self.process = start("service", f"{build}/vorl_demo_session", f"{run}/session.json",
                             stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.wait_for("owning")

    def send(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()

    def wait_for(self, event):
        """Returns the time of the next such event, in milliseconds, and its line."""
        for line in self.process.stdout:
            if event in line:
                return int(line.split()[0]) / 1000, line
        sys.exit(f"setup_latency: the session service has ended")

    def allow(self):
        # The last job's socket must be gone: the daemon names it after the session's free ordinal.
        wait_for(lambda: not os.path.exists(socket_file), "end of the last job")
        self.send(f"allow {SESSION} 1")
        self.wait_for(f"proxyListenStarted(session {SESSION}, listening)")


@contextlib.contextmanager
def daemon(port, program, *arguments):
    with open(f"{run}/vorl_proxy.json", "w", encoding="utf-8") as file:
        json.dump({"listen:addr": "127.0.0.1", "listen:port": port, "listen:timeout": LIMIT,
                   "x11rdp:path": program,
                   "x11rdp:args": [*arguments, "/ipc-socket:%{socket}"]}, file)
    process = start("daemon", f"{build}/vorl_proxy", "--config", f"{run}/vorl_proxy.json")
    service.wait_for("vorlTest")
    time.sleep(0.5)  # the daemon takes signals once its start is over; nothing tells when
    yield
    service.send("stopped")
    process.wait(LIMIT)


def measure_setup(port):
    service.allow()
    time.sleep(random.uniform(0.0, 0.3))  # any moment of the daemon's wait for a client
    began = milliseconds()
    with socket.create_connection(("127.0.0.1", port)) as client:
        client.send(b"?")
        client.recv(1)  # the stub sends back what it gets
        answered = milliseconds()
        accepted, _ = service.wait_for("proxyClientConnected")
        described, _ = service.wait_for("vorlSessionInfoJson")
        service.wait_for("proxySessionConnected")
    record("setup", "accepted", accepted - began)
    record("setup", "described", described - accepted)
    record("setup", "answered", answered - described)
    record("setup", "all", answered - began)


def measure_end(port):
    """From the order to the removal of the job's socket, while the shadow server sends at full
    speed and the client reads nothing: every buffer is full."""
    service.allow()
    with socket.create_connection(("127.0.0.1", port)):
        _, line = service.wait_for("proxySessionConnected")
        pid = line.split("shadow pid ")[1].split(",")[0]
        time.sleep(0.2)
        service.send(f"disconnect {SESSION} {pid} 127.0.0.1")
        ordered, _ = service.wait_for("signalSessionDisconnected")
        wait_for(lambda: not os.path.exists(socket_file), "end of the job", 0.0001)
        record("end of job", "ms", milliseconds() - ordered)


class Display:
    """An X server whose frame buffer is a file. Without authentication: no other process reaches
    it in this network namespace."""

    def __init__(self, name):
        directory = f"{run}/{name}"
        os.mkdir(directory)
        # Abstract sockets only and no lock file: nothing appears in /tmp.
        process = start(name, "Xvfb", "-displayfd", "1", "-nolock", "-nolisten", "tcp", "-nolisten",
                        "unix", "-noreset", "-ac", "-screen", "0", f"{SIZE}x24", "-fbdir",
                        directory, stdout=subprocess.PIPE, text=True)
        self.number = int(process.stdout.readline())
        self.environment = dict(os.environ, DISPLAY=f":{self.number}", HOME=run)
        with open(f"{directory}/Xvfb_screen0", "rb") as file:
            self.frame_buffer = mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ)

    def sample(self):
        """The green of one pixel in 509, from the end: the header in front stays out."""
        return self.frame_buffer[len(self.frame_buffer) - 3:4096:-4 * 509]


def alike(one, other):
    """Compression loses a little: a hundredth of the pixels may be off by more than a tenth."""
    off = sum(abs(a - b) > 25 for a, b in zip(one.sample(), other.sample()))
    return off * 100 <= len(one.sample())


def start_desktop():
    for number, program in enumerate((
            ["jwm", "-f", f"{source}/demo/desktop.jwmrc"],
            ["xterm", "-geometry", "100x40+20+20", "-e", "cat", "/etc/services", "-"],
            ["xlogo", "-geometry", "300x300+680+40"])):
        start(f"desktop{number}", *program, env=desktop.environment, stdin=subprocess.DEVNULL)
    looks = [desktop.sample()]

    def drawn():
        looks.append(desktop.sample())
        return looks[-1] == looks[-2] != looks[0]

    wait_for(drawn, "desktop", 1)


def time_first_picture(port):
    began = milliseconds()
    client = start("client", CLIENT, f"/v:127.0.0.1:{port}", "/u:bob", "/p:secret", "/sec:tls",
                   "/cert:ignore", f"/size:{SIZE}", "/f", env=screen.environment)
    wait_for(lambda: alike(desktop, screen), "picture at the client", 0.005)
    took = milliseconds() - began
    stop(client)
    wait_for(lambda: max(screen.sample()) == 0, "blank screen")
    return took


def listening(port):
    with open("/proc/net/tcp", encoding="ascii") as table:
        return f":{port:04X} 00000000:0000 0A" in table.read()


def first_picture_bare(port):
    server = start("shadow", SHADOW, "-auth", "-sec-rdp", "-sec-nla", "+sec-tls", f"/port:{port}",
                   env=desktop.environment)
    wait_for(lambda: listening(port), "listener of the shadow server")
    took = time_first_picture(port)
    stop(server)
    return took


def first_picture_relayed(port):
    service.allow()
    took = time_first_picture(port)
    described, _ = service.wait_for("vorlSessionInfoJson")
    connected, _ = service.wait_for("proxySessionConnected")
    record("first picture", "shadow start ms", connected - described)
    return took


os.environ["HOME"] = run
os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={run}/bus"
start("bus", "dbus-daemon", f"--config-file={source}/demo/bus.conf", "--nofork", "--nopidfile",
      "--nosyslog", f"--address=unix:path={run}/bus")
wait_for(lambda: os.path.exists(f"{run}/bus"), "bus")
desktop, screen = Display("desktop"), Display("screen")
service = SessionService(desktop.number)
stub = f"{build}/tests/shadow_stub"
with daemon(3389, stub):
    for _ in range(2 * int(rounds)):
        measure_setup(3389)
with daemon(3390, stub, "stub:flood"):
    for _ in range(int(rounds)):
        measure_end(3390)
start_desktop()
with daemon(3391, SHADOW, "-auth"):
    first_picture_bare(3392)  # the first shadow server of this home makes a certificate
    for _ in range(int(rounds)):
        record("first picture", "ms", first_picture_relayed(3391))
        record("first picture", "ms", first_picture_bare(3392), "none")
