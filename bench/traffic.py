"""Both ends of a relayed connection, what goes over it, and what the relay uses meanwhile.

What sends or receives beside a measure is a process of its own: a thread would wait for the
interpreter's lock, and its wait would count.
"""
import collections
import contextlib
import ctypes
import os
import pathlib
import random
import signal
import socket
import struct
import time

KEYSTROKE, FRAME, BLOCK = 64, 40_000, 262_144  # bytes; bulk is sent and received in blocks
CLONE_NEWNET = 0x40000000  # from linux/sched.h
LOAD_PROCESSOR, RELAY_PROCESSOR = 0, 1

Connection = collections.namedtuple("Connection", "client shadow")


def socket_in(network):
    """A TCP socket of the network namespace with this path: a socket stays where it was made."""
    set_namespace = ctypes.CDLL(None).setns
    with open("/proc/self/ns/net", "rb") as home, open(network, "rb") as far:
        if set_namespace(far.fileno(), CLONE_NEWNET) != 0:
            raise OSError(f"cannot enter the network namespace {network}")
        made = socket.socket()
        set_namespace(home.fileno(), CLONE_NEWNET)
    return made


class Route:
    """The shadow server's listening socket and the way to it: through the relay that listens on the
    port or, without a path for the relay to find it at, straight to the port."""

    def __init__(self, port, path):
        self.port = port
        if path:
            self.listening = socket.socket(socket.AF_UNIX)
            self.listening.bind(path)
        else:
            self.listening = socket.socket()
            self.listening.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)  # inherited
            self.listening.bind(("0.0.0.0", port))
        self.listening.listen(128)
        self.listening.settimeout(10)

    @contextlib.contextmanager
    def connect(self, far_network=None):
        """The client is in the network namespace behind the delay line, if its path is given."""
        client = socket_in(far_network) if far_network else socket.socket()
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)  # as RDP clients do
        client.connect(("198.18.0.1" if far_network else "127.0.0.1", self.port))
        shadow, _ = self.listening.accept()
        try:
            yield Connection(client, shadow)
        finally:
            # Closing resets the connection: what is still underway is not waited for.
            client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            client.close()
            shadow.close()


@contextlib.contextmanager
def beside(work, *arguments):
    """Has the work done by a child process until the context is left."""
    child = os.fork()
    if child == 0:
        with contextlib.suppress(ConnectionError):
            work(*arguments)
        signal.pause()  # the exit of a process would hold up the last message
    try:
        yield
    finally:
        os.kill(child, signal.SIGKILL)
        os.waitpid(child, 0)


def stamped(size):
    """A message that carries the time of its sending in its first eight bytes."""
    return struct.pack("q", time.monotonic_ns()) + bytes(size - 8)


def age(message):
    """Microseconds since its sending."""
    return (time.monotonic_ns() - struct.unpack_from("q", message)[0]) / 1000


def receive_message(sink, buffer):
    """Returns the time from its sending to its last byte."""
    if sink.recv_into(buffer, 0, socket.MSG_WAITALL) != len(buffer):
        raise ConnectionError("the relay has ended the connection")
    return age(buffer)


def send_paced(source, size, per_second, count):
    """With a jitter of a quarter, so as not to fall into step with a timer."""
    uniform = random.Random(1).uniform
    due = time.monotonic()
    for _ in range(count):
        due += uniform(0.75, 1.25) / per_second
        time.sleep(max(0, due - time.monotonic()))
        source.sendall(stamped(size))


def time_messages(source, sink, size, per_second, seconds):
    count, buffer = int(per_second * seconds), bytearray(size)
    with beside(send_paced, source, size, per_second, count):
        return [receive_message(sink, buffer) for _ in range(count)]


def send_without_pause(source):
    block = bytes(BLOCK)
    while True:
        source.sendall(block)


def receive(sink, size=BLOCK, pause=0):
    buffer = bytearray(size)
    while sink.recv_into(buffer) > 0:
        if pause:
            time.sleep(pause)


def echo(end):
    while message := end.recv(KEYSTROKE, socket.MSG_WAITALL):
        end.sendall(message)


def threads_of(processes):
    return [thread for process in processes
            for thread in pathlib.Path(f"/proc/{process}/task").iterdir()]


def processor_time(processes):
    """Seconds, of all threads."""
    return sum(int((thread / "schedstat").read_text().split()[0])
               for thread in threads_of(processes)) / 1e9


def memory(processes):
    """KiB, with shared pages counted in proportion."""
    return sum(int(pathlib.Path(f"/proc/{process}/smaps_rollup").read_text(encoding="ascii")
                   .partition("\nPss:")[2].split()[0]) for process in processes)


def place(thread, processors, policy, priority):
    with contextlib.suppress(ProcessLookupError):
        os.sched_setaffinity(thread, processors)
        os.sched_setscheduler(thread, policy, os.sched_param(priority))


def keep_awake(processor):
    place(0, {processor}, os.SCHED_IDLE, 0)  # gives way to everything
    while True:
        pass


@contextlib.contextmanager
def placed(relay):
    """Gives the relay one processor and the load another, both at a real-time priority.

    Else the scheduler would decide the comparison: a message takes less than half the time where it
    happens to have put relay and load on one processor. Neither processor halts meanwhile: a
    virtual one comes back when its host has time for it.
    """
    everywhere = os.sched_getaffinity(0)
    relay_threads = [int(thread.name) for thread in threads_of(relay)]
    with beside(keep_awake, LOAD_PROCESSOR), beside(keep_awake, RELAY_PROCESSOR):
        place(0, {LOAD_PROCESSOR}, os.SCHED_FIFO, 1)
        for thread in relay_threads:
            place(thread, {RELAY_PROCESSOR}, os.SCHED_FIFO, 1)
        try:
            yield
        finally:
            for thread in [0, *relay_threads]:
                place(thread, everywhere, os.SCHED_OTHER, 0)
