#!/usr/bin/python3
"""Sums up the figures of a run of the benchmark.

usage: report.py RESULTS [--record DOCUMENT]

Reads RESULTS/figures.tsv and RESULTS/machine.txt, writes the table as RESULTS/table.md and the
data of the plots as RESULTS/*.dat, and prints the table. --record puts it into the document as
well, between its two marker lines. A figure is the median of its turns, a percentile the median of
those of the rounds. Ratios are taken within each turn or round, and the median of them.
"""
import collections
import operator
import pathlib
import re
import statistics
import sys

OURS, NONE = "vorl_proxy", "none"
PEERS = ["systemd-socket-proxyd", "haproxy", "nginx"]
TARGETS = [OURS, "front", *PEERS, NONE]
UNCOMPARED = {"idle", "memory"}  # the peers' figures are next to nothing
COMPARE = {"≤": operator.le, "≥": operator.ge}

# An aim is a bound on our own figure, or on the ratio of it to the best peer's.
Aim = collections.namedtuple("Aim", "sign bound of_best", defaults=(False,))
Row = collections.namedtuple("Row", "measure metric label unit scale aim", defaults=(1, None))


def latency(measure, label, unit="µs", scale=1, p50=Aim("≤", 1.0, True), p99=Aim("≤", 1.2, True)):
    return [Row(measure, "median", f"{label}, p50", unit, scale, p50),
            Row(measure, "p99", f"{label}, p99", unit, scale, p99)]


ROWS = [
    Row("bulk down", "MB/s", "bulk, shadow to client", "MB/s", 1, Aim("≥", 0.9, True)),
    Row("bulk up", "MB/s", "bulk, client to shadow", "MB/s", 1, Aim("≥", 0.75, True)),
    *latency("echo", "64-byte echo"),
    *latency("one way", "64 bytes, shadow to client"),
    *latency("frames", "frames, 60/s of 40 KB"),
    *latency("frames 20 ms", "the same over 20 ms, client types", "ms", 1000),
    *latency("keystroke", "keystroke, downstream full"),
    *latency("frames in upload", "frames while the client uploads", "ms", 1000, Aim("≤", 1.0), None),
    *latency("busy", "frame on one of 100 busy connections", p50=None, p99=None),
    Row("busy", "% of a core", "100 busy connections, of one core", "%", 1, Aim("≤", 1.5, True)),
    Row("idle", "% of a core", "100 idle connections, of one core", "%", 1, Aim("≤", 2.0)),
    Row("memory", "idle KiB", "memory for each, idle", "KiB", 1, Aim("≤", 64)),
    Row("memory", "upload KiB", "memory for each, after an upload", "KiB", 1, Aim("≤", 2048)),
    Row("end of job", "ms", "end of a job, client stalled", "ms", 1, Aim("≤", 50)),
    Row("setup", "accepted", "setup: until the client is accepted", "ms"),
    Row("setup", "described", "setup: until the session is known", "ms"),
    Row("setup", "answered", "setup: until the shadow server answers", "ms"),
    Row("setup", "all", "setup, all of it", "ms"),
    Row("first picture", "ms", "first picture, from the client's start", "s", 1000),
    Row("first picture", "shadow start ms", "first picture: start of the shadow server", "s", 1000),
]


def number(value):
    if value is None:
        return "–"
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}" if abs(value) < 100 else f"{value:.0f}"


def ratio(ours, theirs):
    """As it is shown and judged. What differs from turn to turn falls on all alike: it is no part
    of a comparison."""
    if not theirs or 0 in theirs:
        return None
    return round(statistics.median(a / b for a, b in zip(ours, theirs, strict=True)), 2)


def ratio_to_best(row, figures):
    """To the peer that ours looks worst beside."""
    ratios = [ratio(figures[OURS], figures[peer]) for peer in PEERS]
    if None in ratios or row.measure in UNCOMPARED:
        return None
    return (min if row.unit == "MB/s" else max)(ratios)


def judged(row, ours, to_best):
    """The aim in words, and whether it was reached in this run."""
    if row.aim is None:
        return "", ""
    sign, bound, of_best = row.aim
    reached = COMPARE[sign](to_best if of_best else ours, bound)
    return (f"{sign} {bound} " + ("of best" if of_best else row.unit),
            "yes" if reached else "**no**")


def table(figures):
    yield "| measure | unit | vorl_proxy | behind a front | systemd- socket-proxyd " \
          "| haproxy | nginx | no relay | to best peer | to no relay | aim | reached |"
    yield "|---|---" + "|---:" * 8 + "|---|---|"
    for row in ROWS:
        values = figures[row.measure, row.metric]
        if OURS not in values:
            continue
        medians = {target: statistics.median(values[target]) / row.scale for target in values}
        to_best, to_none = ratio_to_best(row, values), ratio(values[OURS], values[NONE])
        cells = [row.label, row.unit, *(number(medians.get(target)) for target in TARGETS),
                 *("–" if value is None else f"{value:.2f}" for value in (to_best, to_none)),
                 *judged(row, medians[OURS], to_best)]
        yield "| " + " | ".join(cells) + " |"


def read_figures(path):
    """The figures of each turn or round, by (measure, metric) and target."""
    figures = collections.defaultdict(lambda: collections.defaultdict(list))
    for line in path.read_text(encoding="utf-8").splitlines():
        target, measure, metric, value = line.split("\t")
        figures[measure, metric][target].append(float(value))
    return figures


def write_plot_data(results, figures):
    """For each latency a line for each percentile, with a column for each target."""
    for measure in [measure for measure, metric in figures if metric == "p50"]:
        with open(results / f"{measure.replace(' ', '_')}.dat", "w", encoding="utf-8") as out:
            for percent in range(1, 100):
                values = figures[measure, f"p{percent}"]
                print(percent, *(statistics.median(values[target]) for target in TARGETS), file=out)


def record(document, text):
    begin, end = "<!-- last run -->", "<!-- end of last run -->"
    old = document.read_text(encoding="utf-8")
    new, count = re.subn(f"{begin}.*{end}", lambda _: f"{begin}\n{text}{end}", old, flags=re.DOTALL)
    if count != 1:
        sys.exit(f"report: {document} lacks the lines '{begin}' and '{end}'")
    document.write_text(new, encoding="utf-8")


def main(results, *options):
    results = pathlib.Path(results)
    figures = read_figures(results / "figures.tsv")
    text = "\n".join([(results / "machine.txt").read_text(encoding="utf-8"), *table(figures), ""])
    (results / "table.md").write_text(text, encoding="utf-8")
    write_plot_data(results, figures)
    if options[:1] == ("--record",):
        record(pathlib.Path(options[1]), text)
    print(text)


main(*sys.argv[1:])
