"""The instructions that jobs take on the target beside this machine's."""
import json
import pathlib

from shown import paragraph, shown_count, shown_met, table

TITLE, MAKE = "On the target", "scripts/bench --instructions"
WORSE = 1.1  # how much more than here a job may grow there


def read(file):
    path = pathlib.Path(file)
    return json.loads(path.read_text(encoding="utf-8")) if path.exists() else []


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


def job_rows(rows):
    """The table's rows of one job, and whether it grows on the target as it does here."""
    cells, met = [], True
    for before, row in zip([None, *rows], rows):
        growths = [growth(row, before, bits) for bits in ("64", "32")] if before else []
        bare = [f"{row[bits] / row['bare ' + bits]:.2f}" if row.get("bare " + bits) else "" for bits in ("64", "32")]
        is_met = before is None or grows_as_here(row, before)
        met = met and is_met
        cells.append([row["title"] if before is None else "", f"{row['size']:,}",
                      *(shown_count(row[bits] / row["units"]) for bits in ("64", "32")), f"{row['32'] / row['64']:.2f}",
                      *([f"{g:.2f}" for g in growths] or ["", ""]), *bare, shown_met(is_met) if growths else ""])
    return cells, met


def section(file):
    results = read(file)
    if not results:
        return None
    jobs = list(dict.fromkeys(row["job"] for row in results))
    cells, worse = [], []
    for job in jobs:
        rows = [row for row in results if row["job"] == job]
        more, met = job_rows(rows)
        cells += more
        if not met:
            worse.append(rows[0]["title"])
    return [
        *paragraph(
            f"Made by `{MAKE}`: the instructions that a job takes in the release for 32-bit ARM, which is optimised for size,",
            "beside those in the release for x86-64, both counted by the emulator, the kernel's not included. Instructions are",
            "not time, but what suits only one of the two shows. A unit is one of the n of the job's name; where n is a size, the",
            "job was done 1,000 times, and a unit is one of these. The last ratios are to the same job done with the bare calls",
            "of libc and the language's library, where there is such a thing."),
        *paragraph(
            f"Goal: from one size to the next, instructions a unit do not grow on ARM, or at most {WORSE} times as much as on",
            "x86-64, or as those of the bare calls on ARM: libc's own loops take 16 bytes and more at a time on x86-64, and four",
            "on ARM."),
        *table(["", "n", "x86-64, a unit", "ARM, a unit", "ARM : x86-64", "growth, x86-64", "growth, ARM", "to bare, x86-64",
                "to bare, ARM", "goal"], cells), "",
        *paragraph("No job grows worse on ARM." if not worse else f"**These grow worse on ARM**: {'; '.join(worse)}.")]
