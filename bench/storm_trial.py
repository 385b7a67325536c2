#!/usr/bin/python3
"""Lets sixty clients come to one host within seconds, through a front and without one, with the
real daemon and the real shadow server, and sets the waits beside those of the simulation.

usage: storm_trial.py BUILD_DIRECTORY RUN_DIRECTORY ROUNDS RESULTS

A client is admitted when the shadow server's first byte has reached it. Prints a table, and writes
the data of the plot as RESULTS/storm.dat. Fails if trial and simulation are more than a quarter
apart.
"""
import itertools
import os
import random
import socket
import statistics
import sys
import threading
import time

import storm
from host import Display, Host, SessionService, fail, milliseconds, stop, wait_for

CLIENTS = 60
SECONDS = 3.0  # within which they arrive: more than the host can admit
SIMULATIONS = 200  # for each trial
DAEMON_PORT, FRONT_PORT = 3389, 3390
RETRIES = 3  # as in packaging/front/haproxy.cfg
FRONT = f"""defaults
    mode tcp
    timeout connect 5s
    timeout client 1h
    timeout server 1h
    retries {RETRIES}
frontend rdp
    bind 127.0.0.1:{FRONT_PORT}
    default_backend host
backend host
    server host 127.0.0.1:{DAEMON_PORT}
"""
# What an RDP client sends first (MS-RDPBCGR, 2.2.1.1): a TPKT and an X.224 header, the user's name,
# and a request for TLS.
COOKIE = b"Cookie: mstshash=alice\r\n"
REQUEST = (bytes([3, 0, 0, 19 + len(COOKIE), 14 + len(COOKIE), 0xe0, 0, 0, 0, 0, 0]) + COOKIE +
           bytes([1, 0, 8, 0, 1, 0, 0, 0]))

build, run, rounds, results = sys.argv[1:]


class Admissions(threading.Thread):
    """Plays the session service: allows the next client as soon as the last one has its relay."""

    def __init__(self):
        super().__init__(daemon=True)
        self.closed = []  # seconds from an accept to the next open listener
        self.sessions = []
        self.start()

    def run(self):
        for session in range(1, CLIENTS + 1):
            service.allow(session)
            now = milliseconds()
            if self.sessions:
                self.closed.append((now - accepted) / 1000)
            accepted, _ = service.wait_for("proxyClientConnected")
            _, line = service.wait_for("proxySessionConnected")
            self.sessions.append((session, line.split("shadow pid ")[1].split(",")[0]))

    def end(self):
        self.join()
        for session, pid in self.sessions:
            service.send(f"disconnect {session} {pid} 127.0.0.1")
        wait_for(lambda: not any(name.startswith("proxy_") for name in os.listdir(f"{run}/.vorl")),
                 "end of the relays")


def admitted(port):
    """The client's connection, or None if it was refused."""
    client = socket.socket()
    try:
        client.connect(("127.0.0.1", port))
        client.sendall(REQUEST)
        if client.recv(1):
            return client
    except OSError:
        pass
    client.close()
    return None


def come(delay, port, taken, clients):
    time.sleep(delay)
    began = milliseconds()
    while not (client := admitted(port)):
        time.sleep(storm.PAUSE)
    taken.append((milliseconds() - began) / 1000)
    clients.append(client)


def arrival_times():
    return [random.uniform(0, SECONDS) for _ in range(CLIENTS)]


def trial(port):
    """Returns the waits of all clients, and how long the port was closed each time."""
    admissions = Admissions()
    taken, clients = [], []
    wait_for(lambda: listening(DAEMON_PORT), "listener")
    threads = [threading.Thread(target=come, args=(delay, port, taken, clients))
               for delay in arrival_times()]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    admissions.end()
    for client in clients:
        client.close()
    return taken, admissions.closed


def listening(port):
    with open("/proc/net/tcp", encoding="ascii") as table:
        return f":{port:04X} 00000000:0000 0A" in table.read()


def compare(name, port, retries):
    """Returns how long the port was closed, each time; prints the waits."""
    real, simulated, closed = [], [], []
    for _ in range(int(rounds)):
        waits, port_closed = trial(port)
        closed += port_closed
        real.append(storm.percentile(waits, 99))
        simulated += [storm.percentile(simulated_waits(port_closed, retries), 99)
                      for _ in range(SIMULATIONS)]
    real, simulated = statistics.median(real), statistics.median(simulated)
    print(f"| {name} | {statistics.median(closed) * 1000:.0f} ms | {real:.1f} s "
          f"| {simulated:.1f} s |", flush=True)
    if not 0.75 <= simulated / real <= 1.25:
        fail("the simulation is more than a quarter off")
    return closed


def simulated_waits(closed, retries):
    """To the first byte, as in the trial."""
    setup = statistics.median(closed)
    return [wait + setup for wait in storm.waits(arrival_times(), closed, retries)]


def write_plot_data(closed):
    """For each number of users of a host who arrive within a minute, and within five: the 99th
    percentile of the wait without a front and with one."""
    chance = random.Random(1)
    with open(f"{results}/storm.dat", "w", encoding="utf-8") as out:
        for users in (1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000):
            columns = []
            for seconds, retries in itertools.product((60, 300), (0, RETRIES)):
                waits = []
                while len(waits) < 5000:
                    arrivals = [chance.uniform(0, seconds) for _ in range(users)]
                    waits += storm.waits(arrivals, closed, retries, chance=chance)
                columns.append(storm.percentile(waits, 99) + statistics.median(closed))
            print(users, *(f"{value:.3f}" for value in columns), file=out)


host = Host(build, run)
desktop = Display(host, "desktop")
service = SessionService(host, desktop)
host.start_desktop(desktop)
with open(f"{run}/haproxy.cfg", "w", encoding="utf-8") as file:
    file.write(FRONT)
front = host.start("haproxy", "haproxy", "-db", "-f", f"{run}/haproxy.cfg")
with host.daemon(service, DAEMON_PORT, os.environ["SHADOW_SERVER"], "-auth"):
    trial(DAEMON_PORT)  # the first shadow server of this home makes a certificate
    print("| sixty clients within three seconds | port closed, p50 | wait, p99 | simulated |")
    print("|---|---:|---:|---:|")
    pauses = compare("no front, each tries again after 3 s", DAEMON_PORT, 0)
    pauses += compare("HAProxy, which tries again each second", FRONT_PORT, RETRIES)
    write_plot_data(pauses)
stop(front)
