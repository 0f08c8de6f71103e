"""What the log costs the jobs that write lines: the library at level 3 and at level 0."""
import pathlib

from shown import paragraph, read_runs, shown_size, shown_time, size_order, split_name, table

TITLE, MAKE = "What the log costs", "scripts/bench --log"
LINE = 100.0  # ns: writing one to /dev/null takes more


def read(directory):
    """What each job takes at each level that it was measured at, by job and size; and how many lines each job writes when
    it is done once."""
    times, date, lines = {}, None, {}
    for file in sorted(pathlib.Path(directory).glob("level-*.json")):
        level = int(file.name.split("-")[1])
        context, runs = read_runs(file)
        date = date or context["date"][:10]
        for job, _, size, time, _ in runs:
            times.setdefault((job, size), {})[level] = time
    counts = pathlib.Path(directory) / "lines.tsv"
    for line in counts.read_text(encoding="utf-8").splitlines() if counts.exists() else []:
        count, name = line.split("\t")
        job, _, size = split_name(name)
        lines[job, size] = int(count)
    return times, date, lines


def section(directory):
    times, date, lines = read(directory)
    rows, untold = [], []
    for (job, size), count in sorted(lines.items(), key=lambda item: (item[0][0], size_order(item[0][1]))):
        levels = times.get((job, size), {})
        if count == 0 or not {0, 3} <= set(levels):
            continue
        name = job + (f", {shown_size(size)}" if size else "")
        if levels[0] - levels[3] < LINE * count:
            untold.append(f"{name} ({count:,}; {shown_time(levels[3])} at level 3 and {shown_time(levels[0])} at level 0)")
        else:
            rows.append([name, f"{count:,}", shown_time(levels[3]), shown_time(levels[0]), f"{levels[0] / levels[3]:.2f}"])
    if not rows and not untold:
        return None
    writing = {job for (job, _), count in lines.items() if count > 0}
    quiet = list(dict.fromkeys(job for job, _ in lines if job not in writing))
    text = [
        *paragraph(f"Made by `{MAKE}`, {date}, one repetition: the library's jobs at the level 3, at which nothing is written,",
                   "and at 0, at which everything is, to /dev/null. The lines are those of the job done once, with what it takes",
                   "to set it up."),
        *table(["", "lines", "level 3", "level 0", "ratio"], rows), ""]
    if untold:
        text += paragraph(f"These write lines, but level 0 adds less than {shown_time(LINE)} for each: the lines belong to what",
                          f"sets the job up, or are too few to be told: {'; '.join(untold)}.")
    if quiet:
        text += paragraph(f"These write no line, so that the level makes no difference to them: {'; '.join(quiet)}.")
    return text
