"""Simulates many clients that arrive at about the same time at hosts with one listener each.

A host admits one client at a time: from the accept until the next listener is open, the port is
closed. A client that finds it closed is tried again: by the front, every RETRY seconds and a
limited number of times, and by its user, PAUSE seconds after it was refused.
"""
import heapq
import itertools
import random

RETRY = 1.0  # seconds; HAProxy's pause before it tries a refused server again
PAUSE = 3.0  # seconds until a user has read "connection refused" and tries again


def waits(arrivals, closed, retries, pause=PAUSE, chance=random):
    """Simulates one host. Returns for each client the seconds from its arrival to its admission.

    arrivals  seconds
    closed    samples of the seconds from an accept to the next open listener
    retries   of the front; 0 without a front
    """
    order = itertools.count()  # of events at the same time
    events = [(arrival, next(order), arrival, retries) for arrival in arrivals]
    heapq.heapify(events)
    opens, result = 0.0, []
    while events:
        now, _, arrived, left = heapq.heappop(events)
        if now >= opens:
            result.append(now - arrived)
            opens = now + chance.choice(closed)
        elif left:
            heapq.heappush(events, (now + RETRY, next(order), arrived, left - 1))
        else:
            heapq.heappush(events, (now + pause, next(order), arrived, retries))
    return result


def percentile(values, percent):
    """The nearest rank."""
    ranked = sorted(values)
    return ranked[max(0, -(-len(ranked) * percent // 100) - 1)]
