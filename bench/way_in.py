#!/usr/bin/python3
"""Measures the way in of one client through the real daemon, stage by stage.

usage: way_in.py BUILD_DIRECTORY RUN_DIRECTORY CONNECTIONS RESULTS

A private bus, the demo's session service and the daemon are started in the run directory, which
also becomes the daemon's home. Each connection comes at a random moment of the daemon's wait for
it. Appends to RESULTS, for each connection and stage, the line "vorl_proxy", "way in: " with the
stage, "us" and the microseconds that it took, separated by tabs.
"""
import json
import os
import random
import socket
import subprocess
import sys
import time

PORT = 3389
SESSION = 7
LIMIT = 10  # seconds for anything to happen

build, run, connections, results = sys.argv[1:]
source = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def microseconds():
    return time.time_ns() // 1000


def wait_for(condition, what):
    end = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > end:
            sys.exit(f"way_in: {what} did not come within {LIMIT} s; see {run}")
        time.sleep(0.002)


class SessionService:
    """The demo's, with its commands and the lines that it prints."""

    def __init__(self):
        description = os.path.join(run, "session.json")
        with open(description, "w", encoding="ascii") as file:
            json.dump({"display": 10, "uid": os.getuid()}, file)
        self.process = subprocess.Popen(
            [os.path.join(build, "vorl_demo_session"), description],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.time_of("owning")

    def command(self, text):
        self.process.stdin.write(text + "\n")
        self.process.stdin.flush()

    def time_of(self, event):
        """Reads on to the line with this event and returns its time."""
        for line in self.process.stdout:
            if event in line:
                return int(line.split()[0])
        sys.exit("way_in: the session service has ended")


def start_bus():
    address = f"unix:path={run}/bus"
    log = open(os.path.join(run, "bus.log"), "w", encoding="utf-8")
    subprocess.Popen(
        ["dbus-daemon", f"--config-file={source}/demo/bus.conf", f"--address={address}",
         "--nofork", "--nopidfile", "--nosyslog"], stderr=log)
    wait_for(lambda: os.path.exists(os.path.join(run, "bus")), "the bus")
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = address


def start_daemon():
    config = os.path.join(run, "vorl_proxy.json")
    with open(config, "w", encoding="ascii") as file:
        json.dump({"listen:addr": "127.0.0.1", "listen:port": PORT, "listen:timeout": LIMIT,
                   "x11rdp:path": os.path.join(build, "bench", "vorl_bench_stub_shadow")}, file)
    return subprocess.Popen([os.path.join(build, "vorl_proxy"), "--config", config],
                            env=dict(os.environ, HOME=run))


def connect(service):
    """Takes the way in once and returns its stages, in microseconds."""
    service.command(f"allow {SESSION} 1")
    service.time_of("proxyListenStarted")
    time.sleep(random.uniform(0.0, 0.3))
    began = microseconds()
    with socket.create_connection(("127.0.0.1", PORT)) as client:
        first_bytes = client.recv(100)
        ended = microseconds()
    accepted = service.time_of("proxyClientConnected")
    described = service.time_of("vorlSessionInfoJson")
    service.time_of("proxySessionConnected")
    started, listening, reached = map(int, first_bytes.split())
    # The sweep removes the socket; only then is the session's first ordinal free again.
    wait_for(lambda: not os.path.exists(f"{run}/.vorl/proxy_{SESSION}_0"), "the end of the job")
    return {"client seen": accepted - began,
            "session described": described - accepted,
            "shadow server started": started - described,
            "its socket stands": listening - started,
            "connected to": reached - listening,
            "first byte at the client": ended - reached,
            "whole way in": ended - began}


start_bus()
session_service = SessionService()
daemon = start_daemon()
session_service.time_of("vorlTest")
time.sleep(0.5)  # the daemon takes signals once its start is over; nothing tells when
with open(results, "a", encoding="ascii") as out:
    for _ in range(int(connections)):
        for stage, took in connect(session_service).items():
            out.write(f"vorl_proxy\tway in: {stage}\tus\t{took}\n")
session_service.command("stopped")
daemon.wait(LIMIT)
