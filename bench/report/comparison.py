"""The library beside other libraries and beside the limit: tables, goals and a plot of cost against size."""
import collections
import itertools
import math
import pathlib
import platform
import re
import statistics

from shown import US, items, paragraph, plotter, read_runs, shown_bytes, shown_met, shown_size, shown_time, size_order, table

TITLE, MAKE = "Beside other libraries", "scripts/bench --compare"


class Row:
    """What was measured of a job at a size: times in ns by who did it, one for each repetition, by how many bytes it made a
    process grow (starting does so once and once more), and the memory it takes; and which peers are missing.

    `medians` holds the times. `times` holds what they are compared by: for a peer the library's median times the median of
    the peer's ratio to the library in the same repetition. All of a row are measured one behind the other, so that a machine
    that is slow for a while does not count for or against one of them.
    """

    def __init__(self, size, samples, growth, memory, missing):
        self.size, self.samples, self.growths, self.memory, self.missing = size, samples, growth, memory, missing
        self.growth = {who: [statistics.median(values) for values in zip(*runs)] for who, runs in growth.items()}
        self.medians = {who: statistics.median(values) for who, values in samples.items()}
        if len({len(values) for values in samples.values()}) > 1:
            raise ValueError(f"a repetition of size {size} is missing: {sorted(samples)}")
        self.us = next((who for who in samples if who.startswith(US)), None)
        self.times = self.medians if self.us is None else {who: self.beside_us(values) for who, values in samples.items()}

    def beside_us(self, values):
        """Our median times the median of the ratio of these values to ours."""
        ours = self.samples[self.us]
        return self.medians[self.us] * statistics.median(theirs / our for theirs, our in zip(values, ours))

    def repetitions(self):
        """A row for each of them alone."""
        alone = zip(*self.samples.values())
        return [Row(self.size, {who: [value] for who, value in zip(self.samples, values)}, self.growths, self.memory,
                    self.missing) for values in alone]

    def ours(self):
        return max(time for who, time in self.times.items() if who.startswith(US))

    def limit(self, figures=None):
        """The limit's time, or the limit's of other figures."""
        return next(figure for who, figure in (self.times if figures is None else figures).items() if who.startswith("limit"))

    def best(self, place=1):
        """The best of the others in each repetition, or the one on another place, without the limit."""
        others = [values for who, values in self.samples.items()
                  if not who.startswith((US, "limit", "the exchange sort", "the fields alone"))]
        return self.beside_us([sorted(values)[place - 1] for values in zip(*others)])


class Goal:
    """What is wanted of a job: a text, and whether a row meets it."""

    def __init__(self, text, is_met):
        self.text, self.is_met = text, is_met

    def check(self, row):
        """None when a peer is missing: "all" and "the best" are those that the job is to be compared with, not those that
        happen to be there."""
        return None if row.missing else bool(self.is_met(row))


def within_limit(factor):
    return Goal(f"within {factor} of the limit", lambda row: row.ours() <= factor * row.limit())


def faster_than(peer, factor):
    words = f"at least {factor} times faster" if factor > 1 else "faster"
    return Goal(f"{words} than {peer}", lambda row: factor * row.ours() <= row.times[peer])


FASTEST = Goal("faster than all but the limit", lambda row: row.ours() <= row.best())
NO_WORSE = Goal("no worse than the best of the others", lambda row: row.ours() <= row.best())


SEARCH = Goal("within 1.2 of the limit, and at least 5 times faster than std::string",
              lambda row: row.ours() <= 1.2 * row.limit() and 5 * row.ours() <= row.times["std::string"])


def directory_goal(row):
    if int(row.size) <= 1000:
        return row.ours() <= min(row.best(2), 1.3 * row.best())
    return row.ours() <= 3 * row.best()


GOALS = {
    "make a text": within_limit(1.2),
    "copy a text": within_limit(1.2),
    "compare equal texts": within_limit(1.2),
    "search a text for its last word": SEARCH,
    "search a text, the word's first letter is rare": SEARCH,
    "search a text for what is not there, of letters that are everywhere": SEARCH,
    "append 16 bytes n times": Goal("no worse than the limit", lambda row: row.ours() <= row.limit()),
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
    "the name without its extension": FASTEST,
    "the directory of a path": FASTEST,
    "make a path and go up": FASTEST,
    "a path's extension": FASTEST,
    "a path's system form": FASTEST,
    "open a directory of n entries": Goal(
        "up to 1,000 entries faster than all but the best and within 1.3 of that, above within 3 and 30 times faster than the "
        "exchange sort",
        lambda row: directory_goal(row) and (
            int(row.size) <= 1000 or 30 * row.ours() <= row.times["the exchange sort alone"])),
    "open a directory of n entries, with libc's own settings": Goal(
        "up to 1,000 entries faster than all but the best and within 1.3 of that, above within 3", directory_goal),
    "read a property list of n bytes": Goal(
        "3 times faster than libplist, faster than expat",
        lambda row: 3 * row.ours() <= row.times["libplist"] and row.ours() <= row.times["expat: no tree"]),
    "allocate and free 64 bytes beside n live blocks": Goal(
        "within 2.5 of the limit, and without live blocks at most 8 KiB for the registry",
        lambda row: row.ours() <= 2.5 * row.limit() and (int(row.size) > 0 or row.growth[US][0] <= 8 * 1024)),
    "hand n buffers on, one thread": faster_than("GAsyncQueue", 1),
    "hand 10,000 buffers on, two threads, n buffers in all": Goal(
        "faster than GAsyncQueue, and no worse than std::mutex, std::deque",
        lambda row: row.ours() <= min(row.times["GAsyncQueue"], row.times["std::mutex, std::deque"])),
    "dispatch by name": Goal("within 1.2 of the vector under a mutex",
                             lambda row: row.ours() <= 1.2 * row.times["std::mutex, std::vector"]),
    "a record of n bytes there and back": within_limit(1.05),
    "n bytes over TCP and back": within_limit(1.05),
    "n bytes over TCP": within_limit(1.05),
    "start and join n threads": within_limit(1.1),
    "start a program and the library, stop both": Goal(
        "at most 1 ms and 200 KiB of resident memory more than the bare program, with what loading takes, and a growth of at "
        "most 200 KiB by the start, and while started again",
        lambda row: (row.ours() <= row.limit() + 1e6 and row.memory[US] <= row.limit(row.memory) + 200 * 1024
                     and max(row.growth[US]) <= 200 * 1024)),
    "start the library and stop it, in the process": Goal("at most 1 ms", lambda row: row.ours() <= 1e6),
}

# Who does each job: the columns that its table must have.
LISTS = "std::list, std::mutex", "GQueue, GMutex"
QUEUES = US, "std::mutex, std::deque", "GAsyncQueue", "moodycamel"
DIRECTORIES = US, "scandir, strcasecmp", "std::filesystem", "GDir", "POCO"
SEARCHES = US, "std::string", "limit: strstr", "GLib: g_strstr_len"
PEERS = {
    "make a text": (US, "std::string", "limit: strlen, malloc, memcpy", "GString"),
    "copy a text": (US, "std::string", "limit: malloc, memcpy", "GString"),
    "compare equal texts": (US, "std::string", "limit: lengths, memcmp", "GString"),
    "search a text for its last word": SEARCHES,
    "search a text, the word's first letter is rare": SEARCHES,
    "search a text for what is not there, of letters that are everywhere": SEARCHES,
    "append 16 bytes n times": (US, "std::string", "limit: strlen, exact realloc, memcpy", "GString"),
    "divide a line of n fields": (US, "std::list of std::string", "limit: strchrnul, strndup, malloc", "g_strsplit"),
    "fill a list and destroy it": (US, "limit: pthread, malloc, free", *LISTS),
    "walk a list": (US, "limit: pthread", *LISTS),
    "fill a list and pop all": (US, "limit: pthread, malloc, free", *LISTS),
    "lock and unlock": (US, "limit: pthread", "std::mutex", "GMutex"),
    "log a line without a stamp": (f"{US}: Error", f"{US}: Debug", "fprintf", "limit: snprintf, write", "GLib: g_printerr",
                                   "POCO", "spdlog"),
    "log a line with a stamp": (f"{US}: Log", "limit: two bare writes and the formatting", "fprintf, gmtime_r",
                                "GLib: g_log_structured", "GLib: g_message", "POCO", "spdlog"),
    "seconds to calendar fields": (US, "gmtime_r", "GDateTime", "POCO"),
    "calendar fields to seconds": (US, "timegm", "the fields alone", "GDateTime", "POCO"),
    "a time's text": (US, "gmtime_r, strftime", "GDateTime", "POCO"),
    "join a directory and a name": (US, "std::filesystem", "limit: strlen, malloc, memcpy", "GLib", "POCO"),
    "the name at a path's end": (US, "std::filesystem", "limit: strrchr, strdup", "GLib", "POCO"),
    "the name without its extension": (US, "std::filesystem", "limit: strrchr, strndup", "POCO"),
    "the directory of a path": (US, "std::filesystem", "limit: strrchr, strndup", "GLib", "POCO"),
    "make a path and go up": (US, "std::filesystem", "limit: strdup, strrchr", "GLib", "POCO"),
    "a path's extension": (US, "std::filesystem", "limit: strrchr, strdup", "POCO"),
    "a path's system form": (US, "std::filesystem", "limit: strlen, memcpy", "GLib", "POCO"),
    "open a directory of n entries": (*DIRECTORIES, "the exchange sort alone"),
    "open a directory of n entries, with libc's own settings": DIRECTORIES,
    "read a property list of n bytes": (US, "expat: no tree", "pugixml", "libplist"),
    "allocate and free 64 bytes beside n live blocks": (US, "limit: malloc", "a linear scan"),
    "hand n buffers on, one thread": QUEUES,
    "hand 10,000 buffers on, two threads, n buffers in all": QUEUES,
    "dispatch by name": (US, "std::mutex, std::vector", "boost::signals2 in a table", "sigc++ in a table, no lock"),
    "a record of n bytes there and back": (US, "limit: write, read", "POCO"),
    "n bytes over TCP and back": (US, "limit: send, recv", "POCO"),
    "n bytes over TCP": (US, "limit: send, recv", "POCO"),
    "start and join n threads": (US, "limit: pthread", "std::thread", "POCO"),
    "start a program and the library, stop both": (US, "limit: a program with the language's library", "GLib", "POCO"),
    "start the library and stop it, in the process": (US, "GLib", "POCO"),
}

# How the jobs are to grow. Time is not exact enough to be judged by it: a test counts instructions.
GROWTH = {
    "linear": (lambda n: n, ["append 16 bytes n times", "divide a line of n fields", "fill a list and destroy it", "walk a list",
                             "fill a list and pop all", "read a property list of n bytes", "dispatch by name"]),
    "n log n": (lambda n: n * math.log(n), ["open a directory of n entries",
                                                   "open a directory of n entries, with libc's own settings"]),
    "constant": (lambda n: 1, ["allocate and free 64 bytes beside n live blocks"]),
}  # fmt: skip

# What belongs to a table and is no reason for a miss.
REMARKS = {
    "the name without its extension": "GLib has no call for it.",
    "a path's extension": "GLib has no call for it.",
    "start and join n threads":
        "The memory is what malloc gave. A thread's stack comes from the system and is not counted.",
    "start a program and the library, stop both":
        "The time and the resident memory include loading the libraries that each program needs. What it grows by includes pages "
        "of the library's file that are read for the first time; [Footprint](footprint.md) has what it writes to.",
    "start the library and stop it, in the process":
        "What the library allocates are the log's two buffers, a mebibyte each; the registry of blocks, 4.9 MiB, "
        "comes from the system and is not counted. Of all three a page each is touched ([Footprint](footprint.md)).",
}  # fmt: skip


GROWING = {"linear": "linear growth", "n log n": "growth by n log n", "constant": "a constant time"}


def shown_factor(factor, digits=3):
    """Without an exponent: so many digits of those in front of the point, or three in all."""
    return f"{float(f'{factor:.{digits}g}'):,.0f}" if factor >= 100 else f"{factor:.3g}"


def shown_range(first, last):
    """From one size to another, of which only the last number differs."""
    start, end = (f"{size_order(size)[-1]:,}" for size in (first, last))
    *fixed, growing = [part.split(":") for part in first.split("/")]
    words = f" {growing[0]}" if len(growing) > 1 else ""
    return f"from {start} to {end}{words}" + (f" ({', '.join(': '.join(part) for part in fixed)})" if fixed else "")


def steepest(rows, cost):
    """The step from one size to the next that goes farthest beyond what is in proportion: both rows, the times' factor and
    what it would be."""
    steps = []
    for before, row in zip(rows, rows[1:]):
        wanted = cost(size_order(row.size)[-1]) / cost(size_order(before.size)[-1])
        steps.append((before, row, row.medians[row.us] / before.medians[before.us], wanted))
    return max(steps, key=lambda step: step[2] / step[3])


def growth_of(job, rows):
    """How a job is to grow, or None, and how the times grew from its smallest size that is not 0 to its largest, and what would
    be in proportion. Of several numbers the last is the one that grows, with the others as in the first row."""
    words, (cost, _) = next(((words, way) for words, way in GROWTH.items() if job in way[1]), (None, (None, None)))
    sized = [row for row in rows if words and size_order(row.size) and size_order(row.size)[-1] > 0]
    sized = [row for row in sized if cost(size_order(row.size)[-1]) > 0]
    sized = [row for row in sized if size_order(row.size)[:-1] == size_order(sized[0].size)[:-1]]
    if len(sized) < 2:
        return words, []
    first, last = sized[0], sized[-1]
    start, end = (size_order(row.size)[-1] for row in (first, last))
    grown = [f"{who} {shown_factor(last.medians[who] / first.medians[who])}" for who in first.medians if who in last.medians]
    would_be = GROWING[words]
    lines = [f"{would_be[0].upper()}{would_be[1:]} {shown_range(first.size, last.size)} would be a factor of",
             f"{shown_factor(cost(end) / cost(start), 9)}. Measured: {'; '.join(grown)}."]
    if len(sized) > 2 and all(row.us for row in sized):
        before, after, factor, wanted = steepest(sized, cost)
        lines.append(f"The library's steepest step is {shown_range(before.size, after.size)}: a factor of "
                     f"{shown_factor(factor)}, where {would_be} would be {shown_factor(wanted, 9)}.")
    return words, paragraph(*lines)


class Results:
    """All repetitions in a directory of Google Benchmark's files; those whose name begins with "memory" hold no times."""

    def __init__(self, directory):
        def by_size():
            return collections.defaultdict(lambda: collections.defaultdict(dict))

        self.directory = pathlib.Path(directory)
        self.samples, self.memory, self.growth, self.context = by_size(), by_size(), by_size(), None
        self.days = set()
        for file in sorted(self.directory.glob("*.json")):
            context, runs = read_runs(file)
            self.context = self.context or context
            self.days.add(context["date"][:10])
            for job, who, size, time, run in runs:
                if file.name.startswith("memory"):
                    self.memory[job][size][who] = run.get("max_bytes_used", 0)
                    continue
                self.samples[job][size].setdefault(who, []).append(time)
                if "resident_bytes" in run:
                    self.memory[job][size][who] = run["resident_bytes"]
                if "growth_bytes" in run:
                    self.growth[job][size].setdefault(who, []).append(
                        [run[key] for key in ("growth_bytes", "growth_again_bytes") if key in run])
        self.repetitions = max((len(values) for rows in self.samples.values() for by_who in rows.values()
                                for values in by_who.values()), default=0)

    def when(self):
        """The day, or the first and the last: jobs may have been measured again by themselves."""
        first, last = min(self.days), max(self.days)
        return first if first == last else f"measured from {first} to {last}"

    def versions(self):
        """What the jobs were built of, as far as it was kept."""
        file = self.directory / "versions.txt"
        return f", with {', '.join(file.read_text(encoding='utf-8').splitlines())}" if file.exists() else ""

    def rows(self, job):
        """Those of each size, the smallest first."""
        return [Row(size, samples, self.growth[job][size], self.memory[job][size],
                    [who for who in PEERS[job] if who not in samples])
                for size, samples in sorted(self.samples[job].items(), key=lambda row: size_order(row[0]))]


def how_often(goal, row):
    """In how many of the repetitions a goal is met, where they do not agree."""
    met = [goal.check(each) for each in row.repetitions()]
    return f", {met.count(True)} of {len(met)}" if True in met and False in met else ""


def job_section(results, job, notes):
    rows = results.rows(job)
    everyone = list(dict.fromkeys(who for row in rows for who in row.times))
    lines, marks = [], []
    for row in rows:
        cells = [shown_size(row.size)]
        for who in everyone:
            if who not in row.times:
                cells.append("")
                continue
            cell = shown_time(row.medians[who])
            if not who.startswith(US):
                cell += f" ({row.times[who] / row.ours():.2f})"
            used = row.memory.get(who)
            if used:
                cell += f"<br>{shown_bytes(used)}"
            if who in row.growth:
                cell += "<br>growth " + ", again ".join(map(shown_bytes, row.growth[who]))
            cells.append(cell)
        marks.append(GOALS[job].check(row))
        lines.append(cells + [shown_met(marks[-1]) + how_often(GOALS[job], row)])
    words, growth = growth_of(job, rows)
    section = [f"### {job[0].upper()}{job[1:]}", "", *paragraph(f"Goal: {GOALS[job].text}{f'; {words}' if words else ''}."),
               *table(["", *everyone, "goal"], lines), "", *(paragraph(REMARKS[job]) if job in REMARKS else []), *growth]
    if False in marks:
        section += [notes.get(job, "Why it is missed has not been looked into."), ""]
    return section, marks


def introduction(results):
    return paragraph(
        f"Made by `{MAKE}`; medians of {results.repetitions} interleaved repetitions on {platform.machine()},",
        f"{results.context['num_cpus']} processors, {results.when()}{results.versions()}.")


# How to read the tables, and what the figures are of.
LEGEND = (
    "Times are of the processor, or of the wall clock where several threads or processes take part. Within a repetition all "
    "columns of a row are measured one after the other. What was measured at no more than two sizes (paths, times, locks, "
    "lines of the log, records, the start) has a table and no plot.",
    "In brackets stands the column's time divided by the library's time in the same repetition, as the median over the "
    "repetitions. The goals are judged by it; where a goal names the best of the others, the fastest in each repetition counts.",
    "\"Limit\" is what the bare calls take that it names; where no calls of libc do the job, there is none.",
    "Below the times stands the most memory that was allocated at once, with what the job works on and 408 bytes of the "
    "measurement (GLib's by malloc alone, which its times are not). Where a program is started, it is its resident memory, "
    "with by how much it grows between the first line of its main function and the end of the start, and by how much until it "
    "was stopped and started again. Where blocks are registered, \"growth\" is what the registry makes the process grow, "
    "which comes straight from the system.",
    "A size is the n of the job's name, or bytes.",
    "The log's level is 3, except where lines are what is measured; what level 0 costs the library is below, and nobody else "
    "has it.",
    "What a job frees stays with its process, and where long texts are copied, libc does so without the processor's own "
    "instruction: without these two settings the same row differs by a factor from one run to the next. The kernel's work of "
    "clearing fresh pages, 2 KB for each entry of a directory, comes on top in a process with libc's own settings.",
    "From one run of all this to the next most rows differ by a tenth, and those that depend on the caches by up to a half: a "
    "row that is near its goal meets it in one run and misses it in the next. Where its repetitions do not agree, it says how "
    "many of them meet it.",
    "Whether a job grows as it is to is judged by a test that counts instructions, not by these times.")


def section(results, notes, plot):
    if not results.samples:
        return None
    unknown = sorted(set(results.samples) - set(GOALS))
    if unknown:
        raise ValueError(f"these jobs have no goal: {', '.join(unknown)}")
    strangers = [f"{job}|{who}" for job, rows in results.samples.items() for who in {who for row in rows.values() for who in row}
                 if who not in PEERS[job]]
    if strangers:
        raise ValueError(f"nobody expects these: {', '.join(sorted(strangers))}")
    sections, everything, missed = [], [], []
    for job in GOALS:
        if job not in results.samples:
            continue
        job_lines, marks = job_section(results, job, notes)
        sections += job_lines
        everything += marks
        if False in marks:
            sizes = [shown_size(row.size) for row, mark in zip(results.rows(job), marks) if mark is False]
            missed.append(job + (f" ({', '.join(sizes)})" if any(sizes) else ""))
    met, judged, lacking = everything.count(True), len(everything) - everything.count(None), everything.count(None)
    lines = introduction(results) + paragraph(
        f"{met} of {judged} rows meet their goal.",
        *([f"{lacking} more are not judged: a peer is missing."] if lacking else []),
        f"Missed, with the reasons below the tables: {'; '.join(missed)}." if missed else "None misses it.")
    if plot:
        lines += [f"![Cost against size]({plot})", ""]
    return lines + ["How to read the tables:", "", *items(*LEGEND), *sections]


class Plot:
    """What a job costs as one of its numbers grows: rows by that number, a family for each state of its other numbers."""

    def __init__(self, title, axis):
        self.title, self.axis, self.families = title, axis, {}

    def is_worth_it(self):
        return any(len(rows) > 2 for rows in self.families.values())

    def drawn(self):
        """The families; one that has a single point is no curve."""
        return {fixed: rows for fixed, rows in self.families.items() if len(rows) > 1}


def plots(results):
    """One for each number that grows in a job."""
    found = {}
    for job in GOALS:
        for row in results.rows(job) if job in results.samples else []:
            numbers, words = size_order(row.size), re.findall("[a-z]+", row.size)
            for place, number in enumerate(numbers):
                growing = words[place] if words else ("bytes" if "text" in job else "n")
                title = f"{job}: {growing}" if words else job
                fixed = ", ".join(f"{word} {other}" for word, other in zip(words, numbers) if word != growing)
                plot = found.setdefault(title, Plot(title, growing))
                plot.families.setdefault(fixed, {})[number] = row
    return [plot for plot in found.values() if plot.is_worth_it()]


def draw_plot(axis, plot):
    """A colour for each of those who do the job, and a way of drawing lines for each family."""
    families = plot.drawn()
    everyone = list(dict.fromkeys(who for rows in families.values() for row in rows.values() for who in row.medians))
    ways = dict(zip(families, itertools.cycle(("-", "--", ":", "-."))))
    for fixed, rows in families.items():
        for number, who in enumerate(everyone):
            points = sorted((size, row.medians[who]) for size, row in rows.items() if who in row.medians)
            axis.plot(*zip(*points), color=f"C{number}", linestyle=ways[fixed], marker="o", markersize=3,
                      label=who if fixed == next(iter(families)) else None, linewidth=2.5 if who.startswith(US) else 1)
    for fixed in families if len(families) > 1 else ():
        axis.plot([], [], color="grey", linestyle=ways[fixed], label=fixed)
    # A job that begins with nothing has no logarithm there.
    axis.set_xscale("symlog" if any(0 in rows for rows in families.values()) else "log")
    axis.set_yscale("log")
    axis.set_title(plot.title, fontsize=10)
    axis.set_xlabel(plot.axis)
    axis.set_ylabel("ns")
    axis.grid(True, which="major", alpha=0.3)
    if len(families) > 1:
        axis.set_ylim(top=20 * axis.get_ylim()[1])  # room for a legend of two kinds
    axis.legend(fontsize=7, loc="upper left" if len(families) > 1 else "best")


def draw(results, file):
    found = plots(results)
    if not found:
        return False
    plt = plotter()
    columns = 3
    rows = (len(found) + columns - 1) // columns
    figure, axes = plt.subplots(rows, columns, figsize=(5 * columns, 3.6 * rows), squeeze=False)
    for axis in axes.flat[len(found):]:
        axis.set_visible(False)
    for plot, axis in zip(found, axes.flat):
        draw_plot(axis, plot)
    figure.tight_layout()
    figure.savefig(file, metadata={"Date": None})
    return True
