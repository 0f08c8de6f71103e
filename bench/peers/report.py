#!/usr/bin/env python3
"""report.py RESULTS DOCUMENT PLOT: what scripts/bench --compare measured, as a document and a plot.

RESULTS is a directory of Google Benchmark's JSON files; those whose name begins with "memory" hold no times. A comparison's
name is "job|who/size". Of all repetitions of all files the median counts.
"""
import collections
import json
import pathlib
import platform
import statistics
import sys

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402

US = "Kalvoren"
NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


class Goal:
    """What is wanted of a job: a text, and whether the times by name meet it."""

    def __init__(self, text, is_met):
        self.text = text
        self.is_met = is_met


def ours(times):
    return max(time for who, time in times.items() if who.startswith(US))


def limit(times):
    return next(time for who, time in times.items() if who.startswith("limit"))


def others(times):
    return [time for who, time in times.items() if not who.startswith((US, "limit", "the exchange sort"))]


def within_limit(factor):
    return Goal(f"within {factor} of the limit", lambda size, times: ours(times) <= factor * limit(times))


def faster_than(peer, factor):
    return Goal(f"at least {factor} times faster than {peer}",
                lambda size, times: factor * ours(times) <= times[peer])


FASTEST = Goal("faster than all", lambda size, times: ours(times) <= min(others(times)))
NO_WORSE = Goal("no worse than the best", lambda size, times: ours(times) <= 1.05 * min(others(times)))


def directory_goal(size, times):
    entries = int(size)
    best = min(others(times))
    if entries <= 1000:
        return ours(times) <= 1.3 * best
    exchanged = times.get("the exchange sort alone")
    return ours(times) <= 3 * best and (exchanged is None or 30 * ours(times) <= exchanged)


GOALS = {
    "make a text": within_limit(1.2),
    "copy a text": within_limit(1.2),
    "compare equal texts": within_limit(1.2),
    "search a text for its last word": faster_than("std::string", 5),
    "append 16 bytes n times": within_limit(1.0),
    "divide a line of n fields": FASTEST,
    "fill a list and destroy it": NO_WORSE,
    "walk a list": NO_WORSE,
    "fill a list and pop all": NO_WORSE,
    "lock and unlock": within_limit(1.1),
    "log a line without a stamp": FASTEST,
    "log a line with a stamp": within_limit(1.3),
    "seconds to calendar fields": faster_than("gmtime_r", 4),
    "calendar fields to seconds": faster_than("timegm", 4),
    "a time's text": FASTEST,
    "join a directory and a name": FASTEST,
    "the name at a path's end": FASTEST,
    "make a path and go up": FASTEST,
    "a path's extension": FASTEST,
    "a path's system form": FASTEST,
    "open a directory of n entries": Goal(
        "up to 1,000 entries within 1.3 of the best, above within 3 and 30 times faster than the exchange sort",
        directory_goal),
    "read a property list of n bytes": Goal(
        "3 times faster than libplist, faster than expat",
        lambda size, times: 3 * ours(times) <= times["libplist"] and ours(times) <= times["expat: no tree"]),
    "allocate and free 64 bytes beside n live blocks": within_limit(2.5),
    "hand a buffer on, one thread": faster_than("GAsyncQueue", 1),
    "hand 10,000 buffers on, two threads": Goal(
        "no worse than std::mutex, std::deque",
        lambda size, times: ours(times) <= 1.05 * times["std::mutex, std::deque"]),
    "dispatch by name": Goal("within 1.2 of the vector under a mutex",
                             lambda size, times: ours(times) <= 1.2 * times["std::mutex, std::vector"]),
    "a 520-byte record there and back": within_limit(1.05),
    "64 bytes over TCP and back": within_limit(1.05),
    "64 KiB over TCP": within_limit(1.05),
    "start and join a thread": within_limit(1.1),
    "start a program and the library, stop both": Goal(
        "at most 1 ms more than the bare program", lambda size, times: ours(times) <= limit(times) + 1e6),
}


def read(directory):
    """The times and the memory of each job: {job: {size: {who: value}}}, and the first file's context."""
    samples = collections.defaultdict(list)
    memory = collections.defaultdict(lambda: collections.defaultdict(dict))
    context = None
    for file in sorted(pathlib.Path(directory).glob("*.json")):
        report = json.loads(file.read_text())
        context = context or report["context"]
        for run in report["benchmarks"]:
            if run.get("run_type") != "iteration" or "error_message" in run:
                continue
            job, rest = run["run_name"].split("|")
            who, *parts = rest.split("/")
            key = job, "/".join(part for part in parts if part != "real_time"), who
            if file.name.startswith("memory"):
                memory[key[0]][key[1]][who] = run.get("max_bytes_used", 0)
            else:
                measure = "real_time" if "real_time" in parts else "cpu_time"
                samples[key].append(run[measure] * NANOSECONDS[run["time_unit"]])
    times = collections.defaultdict(lambda: collections.defaultdict(dict))
    for (job, size, who), values in samples.items():
        times[job][size][who] = statistics.median(values)
    return times, memory, context, max(len(values) for values in samples.values())


def shown_time(nanoseconds):
    for unit, factor in (("ns", 1.0), ("µs", 1e3), ("ms", 1e6), ("s", 1e9)):
        if nanoseconds < 1000 * factor or unit == "s":
            return f"{nanoseconds / factor:.3g} {unit}"
    return ""


def shown_size(number):
    return f"{int(number):,}" if number.isdigit() else number.replace(":", " ").replace("/", ", ")


def shown_bytes(number):
    for unit, factor in (("B", 1), ("KiB", 1024), ("MiB", 1024 * 1024)):
        if number < 1024 * factor or unit == "MiB":
            return f"{number / factor:.3g} {unit}"
    return ""


def size_order(size):
    return [int(word) for word in size.replace(":", "/").split("/") if word.isdigit()]


def job_table(job, by_size, memory):
    everyone = list(dict.fromkeys(who for times in by_size.values() for who in times))
    lines = ["| | " + " | ".join(everyone) + " | goal |", "|---|" + "---:|" * len(everyone) + ":---:|"]
    missed = False
    for size in sorted(by_size, key=size_order):
        times = by_size[size]
        cells = []
        for who in everyone:
            if who not in times:
                cells.append("")
                continue
            ratio = "" if who.startswith(US) else f" ({times[who] / ours(times):.2f})"
            used = memory.get(job, {}).get(size, {}).get(who)
            cells.append(shown_time(times[who]) + ratio + (f"<br>{shown_bytes(used)}" if used else ""))
        try:
            met = GOALS[job].is_met(size, times)
        except (KeyError, StopIteration, ValueError):
            met = None
        missed = missed or met is False
        mark = {True: "met", False: "**missed**", None: "a peer is missing"}[met]
        lines.append(f"| {shown_size(size)} | " + " | ".join(cells) + f" | {mark} |")
    return lines, missed


def document(times, memory, context, repetitions, notes, plot):
    lines = [
        "# Performance", "",
        "What jobs cost with the library and with what its users would pick instead. Made by `scripts/bench --compare`;",
        f"medians of {repetitions} interleaved repetitions on {platform.machine()}, {context['num_cpus']} processors,",
        f"{context['date'][:10]}. Times are of the processor, or of the wall clock where several threads or processes",
        "take part. In brackets: how many times the library's time. \"Limit\" is the least that the system's own calls",
        "take for the job. Below the times: the most memory that the job held at once. A size is the n of the job's",
        "name, or bytes. The log's level is 3, except where lines are what is measured.", "",
        f"![Cost against size]({plot})", "",
    ]
    for job in GOALS:
        if job not in times:
            continue
        table, missed = job_table(job, times[job], memory)
        lines += [f"## {job[0].upper()}{job[1:]}", "", f"Goal: {GOALS[job].text}.", ""] + table + [""]
        if missed:
            lines += [notes.get(job, "Why it is missed has not been looked into."), ""]
    return "\n".join(lines)


def draw(times, file):
    jobs = [job for job in GOALS
            if job in times and sum(size.isdigit() for size in times[job]) > 2]
    columns = 3
    rows = (len(jobs) + columns - 1) // columns
    figure, axes = plt.subplots(rows, columns, figsize=(5 * columns, 3.6 * rows), squeeze=False)
    for axis in axes.flat[len(jobs):]:
        axis.set_visible(False)
    for job, axis in zip(jobs, axes.flat):
        everyone = list(dict.fromkeys(who for by_who in times[job].values() for who in by_who))
        for who in everyone:
            points = sorted((int(size), by_who[who]) for size, by_who in times[job].items() if who in by_who)
            axis.plot(*zip(*points), marker="o", markersize=3, label=who, linewidth=2.5 if who.startswith(US) else 1)
        axis.set_xscale("log")
        axis.set_yscale("log")
        axis.set_title(job, fontsize=10)
        axis.set_ylabel("ns")
        axis.grid(True, which="major", alpha=0.3)
        axis.legend(fontsize=7)
    figure.tight_layout()
    figure.savefig(file, metadata={"Date": None})


def read_notes(file):
    """Sections of a document by their titles: why a goal is missed."""
    notes = {}
    for section in file.read_text().split("\n## ")[1:]:
        title, _, text = section.partition("\n")
        notes[title.strip()] = text.strip()
    return notes


def main():
    results, target, plot = sys.argv[1:]
    times, memory, context, repetitions = read(results)
    notes = read_notes(pathlib.Path(__file__).with_name("notes.md"))
    pathlib.Path(target).write_text(
        document(times, memory, context, repetitions, notes, pathlib.Path(plot).name) + "\n")
    draw(times, plot)


if __name__ == "__main__":
    main()
