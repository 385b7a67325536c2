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
import os
import random
import socket
import sys
import time

from host import SIZE, Display, Host, SessionService, alike, milliseconds, stop, wait_for

SESSION = 7
SHADOW = os.environ["SHADOW_SERVER"]  # set by scripts/bench, as the next one
CLIENT = os.environ["RDP_CLIENT"]

build, run, rounds, results = sys.argv[1:]
socket_file = f"{run}/.vorl/proxy_{SESSION}_0"


def record(measure, metric, value, target="vorl_proxy"):
    with open(results, "a", encoding="utf-8") as out:
        out.write(f"{target}\t{measure}\t{metric}\t{value}\n")


def allow():
    # The last job's socket must be gone: the daemon names it after the session's free ordinal.
    wait_for(lambda: not os.path.exists(socket_file), "end of the last job")
    service.allow(SESSION)


def measure_setup(port):
    allow()
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
    allow()
    with socket.create_connection(("127.0.0.1", port)):
        _, line = service.wait_for("proxySessionConnected")
        pid = line.split("shadow pid ")[1].split(",")[0]
        time.sleep(0.2)
        service.send(f"disconnect {SESSION} {pid} 127.0.0.1")
        ordered, _ = service.wait_for("signalSessionDisconnected")
        wait_for(lambda: not os.path.exists(socket_file), "end of the job", 0.0001)
        record("end of job", "ms", milliseconds() - ordered)


def time_first_picture(port):
    began = milliseconds()
    client = host.start("client", CLIENT, f"/v:127.0.0.1:{port}", "/u:bob", "/p:secret", "/sec:tls",
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
    server = host.start("shadow", SHADOW, "-auth", "-sec-rdp", "-sec-nla", "+sec-tls",
                        f"/port:{port}", env=desktop.environment)
    wait_for(lambda: listening(port), "listener of the shadow server")
    took = time_first_picture(port)
    stop(server)
    return took


def first_picture_relayed(port):
    allow()
    took = time_first_picture(port)
    described, _ = service.wait_for("vorlSessionInfoJson")
    connected, _ = service.wait_for("proxySessionConnected")
    record("first picture", "shadow start ms", connected - described)
    return took


host = Host(build, run)
desktop, screen = Display(host, "desktop"), Display(host, "screen")
service = SessionService(host, desktop)
stub = f"{host.build}/tests/shadow_stub"
with host.daemon(service, 3389, stub):
    for _ in range(2 * int(rounds)):
        measure_setup(3389)
with host.daemon(service, 3390, stub, "stub:flood"):
    for _ in range(int(rounds)):
        measure_end(3390)
host.start_desktop(desktop)
with host.daemon(service, 3391, SHADOW, "-auth"):
    first_picture_bare(3392)  # the first shadow server of this home makes a certificate
    for _ in range(int(rounds)):
        record("first picture", "ms", first_picture_relayed(3391))
        record("first picture", "ms", first_picture_bare(3392), "none")
