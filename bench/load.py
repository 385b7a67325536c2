#!/usr/bin/python3
"""Puts one load after another on each relay in turn, for a number of rounds.

usage: load.py ROUNDS MEASURE RESULTS FAR_NETWORK NAME PIDS PORT SOCKET [NAME PIDS PORT SOCKET]...

MEASURE is one of the measures, or "all". FAR_NETWORK is the path of the network namespace behind
the delay line. PIDS are those of the relay and of a front before it, separated by a comma. Without
one, and with an empty SOCKET, the clients connect to the shadow server itself.

A turn takes a fraction of a second: what the machine does over a longer time falls on all targets
alike. RESULTS gets lines of target, measure, metric and value, separated by tabs: the figures of
each turn, and the percentiles of the latencies of each round, in microseconds.
"""
import collections
import contextlib
import gc
import select
import socket
import statistics
import sys
import time

from traffic import (BLOCK, FRAME, KEYSTROKE, Route, age, beside, echo, memory, placed,
                     processor_time, receive, receive_message, send_paced, send_without_pause,
                     stamped, time_messages)

FRAMES_PER_SECOND = 60
CONNECTIONS, UPLOADS, BUSY_FRAMES_PER_SECOND = 100, 5, 10

Target = collections.namedtuple("Target", "name relay route")


class Results:
    def __init__(self, path):
        self.out = open(path, "w", encoding="utf-8")
        self.round = collections.defaultdict(list)

    def add(self, target, measure, metric, value):
        print(target.name, measure, metric, value, sep="\t", file=self.out)

    def add_latencies(self, target, measure, samples):
        warm = samples[len(samples) // 10:]  # the connection warms up
        self.add(target, measure, "median", statistics.median(warm))
        self.round[target, measure] += warm

    def end_round(self):
        for (target, measure), samples in self.round.items():
            for percent, value in enumerate(statistics.quantiles(samples, n=100), 1):
                self.add(target, measure, f"p{percent}", value)
        self.round.clear()
        self.out.flush()


def receive_for(sink, seconds):
    """Returns the megabytes a second."""
    buffer, received, start = bytearray(BLOCK), 0, time.monotonic()
    while time.monotonic() < start + seconds:
        received += sink.recv_into(buffer)
    return received / 1e6 / (time.monotonic() - start)


def measure_bulk(target):
    for measure, direction in ("bulk down", slice(None, None, -1)), ("bulk up", slice(None)):
        with target.route.connect() as connection:
            source, sink = connection[direction]
            with beside(send_without_pause, source):
                receive_for(sink, 0.1)  # until buffers and windows have grown
                results.add(target, measure, "MB/s", receive_for(sink, 0.25))


def measure_echo(target):
    buffer, samples = bytearray(KEYSTROKE), []
    with placed(target.relay), target.route.connect() as (client, shadow), beside(echo, shadow):
        end = time.monotonic() + 0.04
        while time.monotonic() < end:
            client.sendall(stamped(KEYSTROKE))
            samples.append(receive_message(client, buffer))
    results.add_latencies(target, "echo", samples)


def measure_one_way(target):
    with placed(target.relay), target.route.connect() as (client, shadow):
        results.add_latencies(target, "one way",
                              time_messages(shadow, client, KEYSTROKE, 1000, 0.05))


def measure_frames(target):
    with placed(target.relay), target.route.connect() as (client, shadow):
        results.add_latencies(target, "frames",
                              time_messages(shadow, client, FRAME, FRAMES_PER_SECOND, 0.4))


def measure_frames_over_delay_line(target):
    with (target.route.connect(far_network) as (client, shadow), beside(receive, shadow),
          beside(send_paced, client, KEYSTROKE, 10, 100)):
        # Until the congestion window holds a frame.
        time_messages(shadow, client, FRAME, FRAMES_PER_SECOND, 0.2)
        results.add_latencies(target, "frames 20 ms",
                              time_messages(shadow, client, FRAME, FRAMES_PER_SECOND, 0.8))


def measure_keystroke_under_load(target):
    with (placed(target.relay), target.route.connect() as (client, shadow),
          beside(send_without_pause, shadow), beside(receive, client, BLOCK // 4, 0.010)):
        time.sleep(0.05)  # the way down is full
        results.add_latencies(target, "keystroke",
                              time_messages(client, shadow, KEYSTROKE, 300, 0.1))


def measure_frames_during_upload(target):
    with (target.route.connect() as (client, shadow), beside(send_without_pause, client),
          beside(receive, shadow)):
        time.sleep(0.15)  # the way up is full
        results.add_latencies(target, "frames in upload",
                              time_messages(shadow, client, FRAME, FRAMES_PER_SECOND, 0.5))


@contextlib.contextmanager
def connect_all(route):
    with contextlib.ExitStack() as stack:
        yield [stack.enter_context(route.connect()) for _ in range(CONNECTIONS)]


def send_frames(connections):
    """On all connections in turn, each at its rate."""
    due = time.monotonic()
    while True:
        for _, shadow in connections:
            due += 1 / BUSY_FRAMES_PER_SECOND / len(connections)
            time.sleep(max(0, due - time.monotonic()))
            shadow.sendall(stamped(FRAME))


class Arrivals:
    """Frames that arrive at many clients, put together as their bytes come."""

    def __init__(self, connections):
        self.poll = select.poll()
        self.parts = {}  # of each client: its socket, a frame, and how much of that has come
        for client, _ in connections:
            self.poll.register(client, select.POLLIN)
            self.parts[client.fileno()] = [client, memoryview(bytearray(FRAME)), 0]

    def receive_for(self, seconds):
        samples, end = [], time.monotonic() + seconds
        while time.monotonic() < end:
            for descriptor, _ in self.poll.poll(1):
                part = self.parts[descriptor]
                part[2] += part[0].recv_into(part[1][part[2]:], 0, socket.MSG_DONTWAIT)
                if part[2] == FRAME:
                    samples.append(age(part[1]))
                    part[2] = 0
        return samples


def measure_busy(target):
    with (placed(target.relay), connect_all(target.route) as connections,
          beside(send_frames, connections)):
        arrivals = Arrivals(connections)
        arrivals.receive_for(0.15)
        before, start = processor_time(target.relay), time.monotonic()
        samples = arrivals.receive_for(0.5)
        if target.relay:
            results.add(target, "busy", "% of a core", 100 * (
                processor_time(target.relay) - before) / (time.monotonic() - start))
    results.add_latencies(target, "busy", samples)


def upload(client, shadow):
    """To a shadow server that reads in bursts, so that as much waits for the relay as can."""
    burst = bytearray(1_500_000)
    with beside(client.sendall, bytes(16 * len(burst))):
        for _ in range(16):
            time.sleep(0.003)
            shadow.recv_into(burst, 0, socket.MSG_WAITALL)


def measure_idle_and_memory(target):
    """The relay is as it was started, or its memory would say nothing."""
    if not target.relay:
        return
    empty = memory(target.relay)
    with connect_all(target.route) as connections:
        time.sleep(0.3)
        idle, before, seconds = memory(target.relay), processor_time(target.relay), 3
        time.sleep(seconds)
        used = processor_time(target.relay) - before
        for connection in connections[:UPLOADS]:
            upload(*connection)
        each = (idle - empty) / CONNECTIONS
        results.add(target, "idle", "% of a core", 100 * used / seconds)
        results.add(target, "memory", "idle KiB", each)
        results.add(target, "memory", "upload KiB", each + (memory(target.relay) - idle) / UPLOADS)


MEASURES = {  # with the turns of each target in a round: many where the machine's noise is coarse
    "idle": (measure_idle_and_memory, 1),
    "bulk": (measure_bulk, 2),
    "echo": (measure_echo, 12),
    "oneway": (measure_one_way, 12),
    "frames": (measure_frames, 4),
    "delay": (measure_frames_over_delay_line, 2),
    "keystroke": (measure_keystroke_under_load, 6),
    "upload": (measure_frames_during_upload, 3),
    "busy": (measure_busy, 1),
}

rounds, wanted, results_path, far_network, *targets = sys.argv[1:]
if wanted not in ["all", *MEASURES]:
    sys.exit(f"load: no measure '{wanted}' (there are: all {' '.join(MEASURES)})")
targets = [Target(name, tuple(int(pid) for pid in pids.split(",") if pid), Route(int(port), path))
           for name, pids, port, path in zip(*[iter(targets)] * 4, strict=True)]
gc.disable()
results = Results(results_path)
for number in range(int(rounds)):
    for name, (take, turns) in MEASURES.items():
        if wanted not in ("all", name) or (name == "idle" and number > 0):
            continue
        print(f"round {number + 1} of {rounds}: {name}", file=sys.stderr)
        for turn in range(turns):
            # Beginning with another one each time: the first bears what the last turn has left.
            first = (number + turn) % len(targets)
            for target in targets[first:] + targets[:first]:
                take(target)
    results.end_round()
