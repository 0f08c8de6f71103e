"""How figures are written, and how what Google Benchmark wrote is read."""
import json
import sys
import textwrap

US = "Kalvoren"
NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


TIMES = (("ns", 1.0), ("µs", 1e3), ("ms", 1e6), ("s", 1e9))
BYTES = (("B", 1), ("KiB", 1024), ("MiB", 1024 ** 2), ("GiB", 1024 ** 3))


def shown_in(number, units):
    """Three digits, in the unit that takes no more in front of the point; what is too much for the last keeps all."""
    unit, factor = next(((unit, factor) for unit, factor in units if number < 999.5 * factor), units[-1])
    return f"{number / factor:.3g} {unit}" if number < 999.5 * factor else f"{number / factor:,.0f} {unit}"


def shown_time(nanoseconds):
    return shown_in(nanoseconds, TIMES)


WORDS = {"to:0": "/dev/null", "to:1": "a file"}  # where a line goes


def shown_size(number):
    if number in WORDS:
        return WORDS[number]
    return f"{int(number):,}" if number.isdigit() else number.replace(":", " ").replace("/", ", ")


def shown_bytes(number):
    return shown_in(number, BYTES)


def shown_count(number):
    return f"{number:,.0f}" if number >= 100 else f"{number:.1f}"


def shown_met(met):
    return {True: "met", False: "**missed**", None: "a peer is missing"}[met]


def size_order(size):
    return [int(word) for word in size.replace(":", "/").split("/") if word.isdigit()]


def wrapped(text, begin="", indent=""):
    return textwrap.wrap(text, 120, initial_indent=begin, subsequent_indent=indent, break_long_words=False,
                         break_on_hyphens=False)  # fmt: skip


def paragraph(*sentences):
    """Lines of a document, and an empty one behind them."""
    return [*wrapped(" ".join(sentences)), ""]


def items(*texts):
    """A list."""
    return [*(line for text in texts for line in wrapped(text, "- ", "  ")), ""]


def table(columns, rows, alignment="---:"):
    """A table whose first column is on the left."""
    return ["| " + " | ".join(columns) + " |", "|---|" + f"{alignment}|" * (len(columns) - 1)] + \
        ["| " + " | ".join(row) + " |" for row in rows]


def plotter():
    """matplotlib, set to write text as text, and the same plot the same way each time."""
    import matplotlib
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "kalvoren"})
    from matplotlib import pyplot
    return pyplot


def split_name(name):
    """Job, who and size of "job|who/size"."""
    job, rest = name.split("|")
    who, *parts = rest.split("/")
    return job, who, "/".join(part for part in parts if part != "real_time")


def read_runs(file):
    """The file's context, and its runs: (job, who, size, time in ns, run). A job's name is "job|who/size"."""
    report = json.loads(file.read_text(encoding="utf-8"))
    runs = []
    for run in report["benchmarks"]:
        if run.get("run_type") != "iteration":
            continue
        if run.get("error_occurred"):
            sys.exit(f"report.py: {run['run_name']}: {run['error_message']}")
        job, who, size = split_name(run["run_name"])
        measure = "real_time" if run["run_name"].endswith("/real_time") else "cpu_time"
        runs.append((job, who, size, run[measure] * NANOSECONDS[run["time_unit"]], run))
    return report["context"], runs
