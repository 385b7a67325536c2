#!/usr/bin/python3
"""Sums up the figures of a run of the benchmark.

usage: report.py RESULTS [--record DOCUMENT]

Reads RESULTS/figures.tsv and RESULTS/machine.txt, writes the tables as RESULTS/table.md and the
data of the plots as RESULTS/*.dat, and prints the tables. --record puts them into the document as
well, between its two marker lines. A figure is the median of its turns, a percentile the median of
those of the run's three parts. Ratios are taken within each turn or part, and the median of them.
"""
import collections
import pathlib
import re
import statistics
import sys

OURS = "vorl_proxy"
NONE = "none"
PEERS = ["systemd-socket-proxyd", "haproxy", "nginx", "socat"]
TARGETS = [OURS, *PEERS, NONE]
UNCOMPARED = {"idle", "memory"}  # the peers' figures are next to nothing
COPYING = PEERS[1:]  # the first one splices: what it relays does not enter the process

# What the percentiles are called in the table. The first tuple: their aims, as ratios to the best
# peer, or as an upper bound in the row's unit.
Row = collections.namedtuple("Row", "measure metric label unit scale aim bound", defaults=(None, None))


def latency(measure, label, unit="µs", p50=("best", 1.0), p99=("best", 1.2)):
    scale = {"µs": 1, "ms": 1000}[unit]
    return [Row(measure, "median", f"{label}, p50", unit, scale, *(p50 or (None, None))),
            Row(measure, "p99", f"{label}, p99", unit, scale, *(p99 or (None, None)))]


ROWS = [
    Row("bulk down", "MB/s", "bulk, shadow to client", "MB/s", 1, "rate", 0.9),
    Row("bulk up", "MB/s", "bulk, client to shadow", "MB/s", 1, "rate", 0.75),
    *latency("echo", "64-byte echo"),
    *latency("one way", "64 bytes, shadow to client"),
    *latency("frames", "frames, 60/s of 40 KB"),
    *latency("frames 20 ms", "the same over 20 ms, client types", "ms"),
    *latency("keystroke", "keystroke, downstream full"),
    *latency("keystroke slow line", "keystroke, full line of 2 Mbit/s and 20 ms", "ms"),
    *latency("frames in upload", "frames while the client uploads", "ms", ("most", 1.0), None),
    *latency("frames in slow upload", "the same, shadow reads slowly", "ms", ("most", 1.0), None),
    Row("idle", "wake-ups/s", "idle, wake-ups for each connection", "1/s", 1),
    Row("idle", "% of a core", "100 idle connections, of one core", "%", 1, "most", 2.0),
    Row("busy", "% of a core", "100 busy connections, of one core", "%", 1, "copying", 1.5),
    Row("busy", "fairness", "100 busy connections, Jain's index", "", 1, "least", 0.95),
    *latency("busy", "frame on one of 100 busy connections", p50=None, p99=None),
    Row("memory", "idle KiB", "memory for each, idle", "KiB", 1, "most", 64),
    Row("memory", "upload KiB", "memory for each, after an upload", "KiB", 1, "most", 2048),
    Row("end of job", "stalled ms", "end of a job, client stalled", "ms", 1, "most", 50),
    Row("end of job", "reading ms", "end of a job, client reading", "ms", 1),
]
AIMS = {"rate": "≥ {} of best", "best": "≤ {} of best", "copying": "≤ {} of best that copies",
        "most": "< {} {}", "least": "> {}"}


def number(value):
    if value is None:
        return "–"
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}" if abs(value) < 100 else f"{value:.0f}"


def two_decimals(value):
    return "–" if value is None else f"{value:.2f}"


def ratio(ours, theirs):
    """What differs from turn to turn falls on all alike: it is no part of a comparison."""
    return statistics.median(one / other for one, other in zip(ours, theirs, strict=True))


def ratio_to_best(row, figures, peers):
    """To the peer that ours looks worst beside."""
    compared = [peer for peer in peers if peer in figures and row.measure not in UNCOMPARED]
    if not compared:
        return None
    ratios = [ratio(figures[OURS], figures[peer]) for peer in compared]
    return min(ratios) if row.aim in ("rate", "least") else max(ratios)


def read_figures(path):
    """Medians, by (measure, metric) and target, and the lists that they come from."""
    figures = collections.defaultdict(lambda: collections.defaultdict(list))
    for line in path.read_text(encoding="utf-8").splitlines():
        target, measure, metric, value = line.split("\t")
        figures[measure, metric][target].append(float(value))
    medians = {key: {target: statistics.median(values) for target, values in targets.items()}
               for key, targets in figures.items()}
    return figures, medians


def as_stated(value, bound):
    """The value with as many decimals as the aim has: more would be the noise of the machine."""
    return round(value, len(str(bound).partition(".")[2]))


def judge(row, value, to_best):
    """The aim in words, and whether it was reached in this run."""
    if row.aim is None:
        return "", ""
    reached = {"rate": lambda: as_stated(to_best, row.bound) >= row.bound,
               "best": lambda: as_stated(to_best, row.bound) <= row.bound,
               "copying": lambda: as_stated(to_best, row.bound) <= row.bound,
               "most": lambda: value < row.bound,
               "least": lambda: value > row.bound}[row.aim]()
    return AIMS[row.aim].format(row.bound, row.unit).strip(), "yes" if reached else "**no**"


def relay_table(figures, medians):
    yield ("| measure | unit | vorl_proxy | systemd- socket-proxyd | haproxy | nginx | socat "
           "| no relay | to best peer | to no relay | aim | reached |")
    yield "|---|---" + "|---:" * 8 + "|---|---|"
    for row in ROWS:
        key = row.measure, row.metric
        if OURS not in medians.get(key, {}):
            continue
        values = {target: value / row.scale for target, value in medians[key].items()}
        to_best = ratio_to_best(row, figures[key], COPYING if row.aim == "copying" else PEERS)
        cells = [row.label, row.unit, *(number(values.get(target)) for target in TARGETS),
                 two_decimals(to_best), two_decimals(ratio_to_best(row, figures[key], [NONE])),
                 *judge(row, values[OURS], to_best)]
        yield "| " + " | ".join(cells) + " |"


def way_in_table(figures):
    yield "| the way in of one connection | p50, ms | slowest, ms |"
    yield "|---|---:|---:|"
    for (measure, _), targets in figures.items():
        if measure.startswith("way in: "):
            values = [value / 1000 for value in targets[OURS]]
            name = measure.removeprefix("way in: ")
            yield f"| {name} | {number(statistics.median(values))} | {number(max(values))} |"


def write_plot_data(results, medians):
    """Percentiles of each latency, and throughputs: a line for each percentile or target."""
    measures = {measure for measure, metric in medians if metric == "p50"}
    for measure in measures:
        with open(results / f"{measure.replace(' ', '_')}.dat", "w", encoding="utf-8") as out:
            for percent in range(1, 100):
                values = medians[measure, f"p{percent}"]
                cells = (str(values.get(target, "?")) for target in TARGETS)
                out.write(f"{percent} {' '.join(cells)}\n")
    with open(results / "throughput.dat", "w", encoding="utf-8") as out:
        for target in TARGETS:
            down, up = (medians.get((measure, "MB/s"), {}).get(target, "?")
                        for measure in ("bulk down", "bulk up"))
            out.write(f'"{"no relay" if target == NONE else target}" {down} {up}\n')


def record(document, text):
    begin, end = "<!-- last run -->", "<!-- end of last run -->"
    old = document.read_text(encoding="utf-8")
    new, count = re.subn(f"{begin}.*{end}", lambda _: f"{begin}\n{text}{end}", old, flags=re.DOTALL)
    if count != 1:
        sys.exit(f"report: {document} lacks the lines '{begin}' and '{end}'")
    document.write_text(new, encoding="utf-8")


def main(arguments):
    results = pathlib.Path(arguments[0])
    figures, medians = read_figures(results / "figures.tsv")
    disturbed = medians["turns", "disturbed %"]["host"]
    parts = [[*(results / "machine.txt").read_text(encoding="utf-8").splitlines(),
              f"- disturbed by the machine's host, and left out of p99: {disturbed:.0f} % of the turns"],
             relay_table(figures, medians)]
    if any(measure.startswith("way in") for measure, _ in figures):
        parts.append(way_in_table(figures))
    text = "\n".join("\n".join(part) + "\n" for part in parts)
    (results / "table.md").write_text(text, encoding="utf-8")
    write_plot_data(results, medians)
    if arguments[1:2] == ["--record"]:
        record(pathlib.Path(arguments[2]), text)
    print(text)


main(sys.argv[1:])
