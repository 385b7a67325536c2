#!/usr/bin/python3
"""Measures what one session costs its host: processor time and memory of the relay and of the real
shadow server, with a real client over TLS, on a desktop that is idle and on one that moves.

usage: session_cost.py BUILD_DIRECTORY RUN_DIRECTORY

Prints a table.
"""
import glob
import os
import subprocess
import sys
import time

from host import SIZE, Display, Host, SessionService, alike, stop, wait_for

PORT = 3389
SECONDS = 20  # of each measure
# A terminal that scrolls a screenful, ten times a second.
MOVING = ["xterm", "-geometry", "100x40+20+20", "-e", "sh", "-c",
          "while head -n 40 /etc/services && sleep 0.1; do tail -n 40 /etc/services; done"]


def processor_seconds(pid):
    """Of all threads, by proc_pid_schedstat: nanoseconds on a processor come first."""
    total = 0
    for path in glob.glob(f"/proc/{pid}/task/*/schedstat"):
        with open(path, encoding="ascii") as file:
            total += int(file.read().split()[0])
    return total / 1e9


def mebibytes(pid):
    """The proportional set size."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("Pss:")) / 1024


def sent():
    """Bytes that the daemon has sent to its client, by the kernel's count."""
    words = subprocess.run(["ss", "-Htin", "sport", "=", f":{PORT}"], capture_output=True,
                           text=True, check=True).stdout.split()
    return next(int(word.split(":")[1]) for word in words if word.startswith("bytes_sent:"))


def measure(name, daemon, shadow):
    before = [processor_seconds(daemon), processor_seconds(shadow), sent()]
    time.sleep(SECONDS)
    after = [processor_seconds(daemon), processor_seconds(shadow), sent()]
    relay, server, traffic = ((b - a) / SECONDS for a, b in zip(before, after))
    print(f"| {name} | {relay * 100:.2f} % | {server * 100:.1f} % | {traffic / 1000:.0f} KB/s "
          f"| {mebibytes(daemon):.1f} MiB | {mebibytes(shadow):.1f} MiB |", flush=True)


build, run = sys.argv[1:]
host = Host(build, run)
desktop, screen = Display(host, "desktop"), Display(host, "screen")
service = SessionService(host, desktop)
host.start_desktop(desktop)
with host.daemon(service, PORT, os.environ["SHADOW_SERVER"], "-auth") as daemon_process:
    service.allow(7)
    client = host.start("client", os.environ["RDP_CLIENT"], f"/v:127.0.0.1:{PORT}", "/u:bob",
                        "/p:secret", "/sec:tls", "/cert:ignore", f"/size:{SIZE}", "/f",
                        env=screen.environment)
    _, line = service.wait_for("proxySessionConnected")
    shadow_pid = line.split("shadow pid ")[1].split(",")[0]
    wait_for(lambda: alike(desktop, screen), "picture at the client")
    print("| desktop | relay, of a core | shadow server, of a core | to the client "
          "| daemon, memory | shadow server, memory |")
    print("|---|---:|---:|---:|---:|---:|")
    measure("idle", daemon_process.pid, shadow_pid)
    moving = host.start("moving", *MOVING, env=desktop.environment, stdin=subprocess.DEVNULL)
    measure("a terminal that scrolls", daemon_process.pid, shadow_pid)
    stop(moving)
    stop(client)
