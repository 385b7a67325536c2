#!/usr/bin/python3
"""A link with a round trip of 20 ms to a network namespace of this process's own.

usage: delay_line.py READY_FILE    (makes the file once the link is up; runs until it is killed)

Two TUN devices, one in the caller's namespace and one in ours, and a loop that hands each packet
over 10 ms after it came: what netem does where the kernel has it. TCP runs end to end across it.
This side is 198.18.0.1 (RFC 2544: addresses for benchmarks). Needs CAP_NET_ADMIN and
CAP_SYS_ADMIN.
"""
import collections
import ctypes
import fcntl
import os
import select
import struct
import subprocess
import sys
import time

NEAR, FAR = "198.18.0.1", "198.18.0.2"
ONE_WAY = 0.010  # seconds
CLONE_NEWNET = 0x40000000  # these are from linux/sched.h and linux/if_tun.h
TUNSETIFF, IFF_TUN, IFF_NO_PI = 0x400454CA, 0x0001, 0x1000


def open_tun(address, peer):
    tun = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK)
    fcntl.ioctl(tun, TUNSETIFF, struct.pack("16sH22x", b"delay", IFF_TUN | IFF_NO_PI))
    subprocess.run(["ip", "address", "add", address, "peer", peer, "dev", "delay"], check=True)
    subprocess.run(["ip", "link", "set", "delay", "up"], check=True)
    return tun


def packets(tun):
    try:
        while True:
            yield os.read(tun, 2048)
    except BlockingIOError:
        pass


near = open_tun(NEAR, FAR)
if ctypes.CDLL(None, use_errno=True).unshare(CLONE_NEWNET) != 0:
    sys.exit(f"delay_line: no network namespace: {os.strerror(ctypes.get_errno())}")
far = open_tun(FAR, NEAR)
open(sys.argv[1], "x", encoding="ascii").close()

ways = [(near, far, collections.deque()), (far, near, collections.deque())]
while True:
    due = [underway[0][0] for _, _, underway in ways if underway]
    select.select([near, far], [], [], max(0, min(due) - time.monotonic()) if due else None)
    for source, sink, underway in ways:
        for packet in packets(source):
            underway.append((time.monotonic() + ONE_WAY, packet))
        while underway and underway[0][0] <= time.monotonic():
            os.write(sink, underway.popleft()[1])
