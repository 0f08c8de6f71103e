"""The instructions that jobs take on the target beside this machine's."""
import json
import pathlib

from shown import paragraph, shown_count, shown_met, table

TITLE, MAKE = "For the target, in the emulator", "scripts/bench --instructions"
WORSE = 1.1  # how much more than here a job may grow there, or take of what the bare calls take


def read(file):
    path = pathlib.Path(file)
    return json.loads(path.read_text(encoding="utf-8")) if path.exists() else []


def versions(file):
    """When it was counted and with what, as far as that was kept."""
    path = pathlib.Path(file).with_name("instructions-versions.txt")
    if not path.exists():
        return ""
    day, *packages = path.read_text(encoding="utf-8").splitlines()
    return f", {day}, with {', '.join(packages)}"


def growth(row, before, bits):
    """Of the instructions a unit, from one size to the next."""
    return (row[bits] / row["units"]) / (before[bits] / before["units"])


def grows_as_here(row, before):
    """Whether a job grows on the target as it does here, or as the same job's bare calls do there: where libc works on 16
    bytes at a time here and on four there, everything built on it grows with that. A job of which a unit does not grow at
    all is linear, however much of the fixed part goes on the first size here."""
    allowed = growth(row, before, "64")
    if row.get("bare 32"):
        allowed = max(allowed, growth(row, before, "bare 32"))
    return growth(row, before, "32") <= max(1, WORSE * allowed)


def to_bare(row, bits):
    """How many times the bare calls' instructions a row takes; None where there are no such calls."""
    return row[bits] / row["bare " + bits] if row.get("bare " + bits) else None


def is_level(row):
    """Whether a job takes as many times the bare calls' instructions on the target as here. None without bare calls."""
    here, there = to_bare(row, "64"), to_bare(row, "32")
    return there <= WORSE * here if here and there else None


class Job:
    """The rows of one job, and which of the goals they meet: None where a goal says nothing."""

    def __init__(self, rows):
        self.title, self.rows = rows[0]["title"], rows
        self.even = [None] + [grows_as_here(row, before) for before, row in zip(rows, rows[1:])]
        self.level = [is_level(row) for row in rows]

    def has_bare(self):
        return any(level is not None for level in self.level)

    def uneven_sizes(self):
        """Those at which the job takes more of the bare calls' instructions on the target."""
        return [f"{row['size']:,}" for row, level in zip(self.rows, self.level) if level is False]

    def cells(self):
        """The table's rows."""
        for before, row, even, level in zip([None, *self.rows], self.rows, self.even, self.level):
            growths = [f"{growth(row, before, bits):.2f}" for bits in ("64", "32")] if before else ["", ""]
            bare = [f"{to_bare(row, bits):.2f}" if to_bare(row, bits) else "" for bits in ("64", "32")]
            yield ["" if before else self.title, f"{row['size']:,}",
                   *(shown_count(row[bits] / row["units"]) for bits in ("64", "32")), f"{row['32'] / row['64']:.2f}",
                   *growths, "" if even is None else shown_met(even), *bare, "" if level is None else shown_met(level)]


COLUMNS = ["", "n", "x86-64, a unit", "ARM, a unit", "ARM : x86-64", "growth, x86-64", "growth, ARM", "goal", "to bare, x86-64",
           "to bare, ARM", "goal"]


def misses(jobs, notes):
    """What does not meet the goals, and why."""
    worse = [job for job in jobs if False in job.even]
    uneven = [job for job in jobs if False in job.level]
    lines = paragraph("No job grows worse on ARM." if not worse else
                      f"**These grow worse on ARM**, with the reasons below: {'; '.join(job.title for job in worse)}.")
    if not uneven:
        lines += paragraph("No job takes more of the bare calls' instructions on ARM.")
    else:
        titles = "; ".join(f"{job.title} ({', '.join(job.uneven_sizes())})" for job in uneven)
        lines += paragraph(
            f"**These take more of the bare calls' instructions on ARM**, with the reasons below: {titles}. Not every row can",
            "keep the goal. It compares two pieces of code on two machines, and a change in any of the four moves the ratio: libc",
            "has a call in the machine's language on one and in C on the other, the bare side of a job gets cheaper, or 64 bits",
            "that fit one register there take two here. A row where the library takes a tenth of what the bare call takes on",
            "x86-64 misses the goal when it takes a quarter on ARM. The release for ARM is optimised for size besides, which",
            "leaves calls where the other has none.")
    for job in jobs:
        if job in worse or job in uneven:
            lines += [f"### On ARM: {job.title}", "", notes.get(job.title, "Why it is missed has not been looked into."), ""]
    return lines


def section(file, notes):
    results = read(file)
    if not results:
        return None
    names = list(dict.fromkeys(row["job"] for row in results))
    jobs = [Job([row for row in results if row["job"] == name]) for name in names]
    without = [job.title for job in jobs if not job.has_bare()]
    return [
        *paragraph(
            f"Made by `{MAKE}`{versions(file)}: the instructions that a job takes in the release for 32-bit ARM, which is",
            "optimised for size, beside those in the release for x86-64, both counted by the emulator; for x86-64 it is a processor",
            "of 2008, without instructions for 32 bytes at a time. The kernel's are not included, nor those that look up which",
            "function a call leads to; and two threads at a queue are not counted, since it is how they meet that makes the",
            "difference; nor is the example camera. Instructions are not time, but what suits only one of the two shows. A unit",
            "is one of the n of the job's name; where n is a size, the job was done 1,000 times, and a unit is one of these. The",
            "last ratios are to the same job done with the bare calls of libc and the language's library."),
        *(paragraph(
            f"There is no call to stand beside these, and a loop written by hand for the purpose would be none: "
            f"{'; '.join(without)}.") if without else []),
        *paragraph(
            f"Goals: from one size to the next, instructions a unit do not grow on ARM, or at most {WORSE} times as much as on",
            "x86-64, or as those of the bare calls on ARM: libc's own loops take 16 bytes and more at a time on x86-64, and four",
            f"on ARM. And the ratio to the bare calls is on ARM at most {WORSE} times that on x86-64."),
        *table(COLUMNS, [cells for job in jobs for cells in job.cells()]), "",
        *misses(jobs, notes)]
