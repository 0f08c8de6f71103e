#!/usr/bin/env python3
"""check-figures.py SOURCE-DIRECTORY

A figure of docs/reliability.md that also stands in what scripts/trust kept in docs/trust is the same there; one that can be
counted in the sources is what they have. Where nothing was kept of a part, its row says so; and of a target or a class alone,
the document may have figures, but not say that they were made by scripts/trust.
"""
import pathlib
import re
import sys

# What the document calls otherwise than by the class; and the tests that are judged with those of another class.
CLASSES = {"queues": ["KQueue"], "property lists": ["KPropertyList"], "`KMutex`": [], "`KNetInfo`": [],
           "the order of sorted directories": ["ExchangeOrder"]}  # fmt: skip


# What has to pass before each change may take no longer, on two processors.
MOST_MINUTES = 25


# By which command the document has the row of a part, and what it says there where nothing was kept.
COMMANDS = {"tests": "`.ci/run`", "ubsan": "`scripts/test ubsan`", "valgrind": "`scripts/valgrind`",
            "coverage": "`scripts/coverage`", "repeat": "`scripts/repeat 20 dev tsan`",
            "release": "`scripts/test release arm-release`", "clang": "`scripts/test clang`", "lint": "`scripts/lint`",
            "torture": "`build/dev/tests/TortureTest`", "soak": "`scripts/soak 10 release`"}  # fmt: skip
NOT_KEPT = "kept yet"


def section(text, preset):
    """What scripts/test printed of a preset."""
    return re.search(rf"^=== {preset} ===$(.*?)(?=^=== |\Z)", text, re.MULTILINE | re.DOTALL)[1]


def counts(text, preset):
    """How many tests of a preset there are, and how many failed and were skipped."""
    printed = section(text, preset)
    failed, total = re.search(r"(\d+) tests failed out of (\d+)", printed).groups()
    return int(total), int(failed), printed.count("(Skipped)")


def figures_of_tests(text):
    passed, failed, skipped = map(int, re.search(r"^(\d+) passed, (\d+) failed, (\d+) skipped", text, re.MULTILINE).groups())
    yield COMMANDS["tests"], f"{passed:,} passed, {skipped:,} skipped{f', {failed:,} failed' if failed else ''};"
    minutes = int(re.search(r"^This took (\d+) minutes", text, re.MULTILINE)[1])
    yield COMMANDS["tests"], f"{minutes} minutes" if minutes <= MOST_MINUTES else f"no more than {MOST_MINUTES} minutes"
    for preset in ("dev", "asan", "tsan", "arm"):
        total, broken, skipped = counts(text, preset)
        yield f"| `{preset}` |", f"{total:,} | {total - broken - skipped:,} | {skipped:,} |"
    yield "test cases", f"{counts(text, 'dev')[0]:,} on the plain build"


def figures_of_release(text):
    passed, failed = map(int, re.search(r"^(\d+) passed, (\d+) failed", text, re.MULTILINE).groups())
    yield COMMANDS["release"], f"{passed:,} passed{f', {failed:,} failed' if failed else ''}"


def figures_of_clang(text):
    failed, total = map(int, re.search(r"(\d+) tests failed out of (\d+)", text).groups())
    yield COMMANDS["clang"], f"{total:,} tests, {failed or 'none'} failed"


def figures_of_lint(text):
    yield COMMANDS["lint"], "there are findings" if re.search(r"^\(failed\)$", text, re.MULTILINE) else "nothing found"


def figures_of_torture(text):
    yield COMMANDS["torture"], f"{int(re.search(r'^([0-9]+) faults injected$', text, re.MULTILINE)[1]):,} failures"


def figures_of_ubsan(text):
    total, failed = re.search(r"(\d+) tests failed out of (\d+)", text).group(2, 1)
    yield COMMANDS["ubsan"], f"{int(total):,} tests, {f'{failed} failed' if int(failed) else 'no report'}"


def figures_of_valgrind(text):
    passed = len(re.findall(r"^\w+: .+, nothing reported$", text, re.MULTILINE))
    failed = len(re.findall(r"^\w+: failed$", text, re.MULTILINE))
    yield COMMANDS["valgrind"], f"{passed} of {passed + failed} programs"


def figures_of_coverage(text):
    for what in ("lines", "functions", "branches"):
        share, count = re.search(rf"^{what}: ([\d.]+)% \(\d+ out of (\d+)\)", text, re.MULTILINE).groups()
        yield COMMANDS["coverage"], f"{float(share):g} % of {int(count):,} {what}"


def figures_of_repeat(text):
    for preset in ("dev", "tsan"):
        last = re.findall(rf"^{preset}: run (\d+) of (\d+), \d+ programs, (\d+) runs with failures", text, re.MULTILINE)[-1]
        yield COMMANDS["repeat"], f"{int(last[0]) - int(last[2])} of {last[1]} without a failure"


def figures_of_soak(text):
    """Of the first of the runs, which is the long one."""
    def first(pattern):
        return re.search(pattern, text, re.MULTILINE)[1]
    yield COMMANDS["soak"], f"{int(first(r'^pictures +([0-9]+)$')):,} pictures"
    yield COMMANDS["soak"], f"{float(first(r'^pictures a second +([0-9.]+) ')):.1f} a second"
    yield COMMANDS["soak"], f"{float(first(r'^pictures dropped +([0-9.]+) ')):g} dropped"
    yield COMMANDS["soak"], f"{int(first(r'^visits +([0-9]+);')):,} visits"
    yield COMMANDS["soak"], f"{int(first(r'^KB more resident at the end +(-?[0-9]+) ')):,} KB more"


FIGURES = {"tests": figures_of_tests, "ubsan": figures_of_ubsan, "valgrind": figures_of_valgrind,
           "coverage": figures_of_coverage, "repeat": figures_of_repeat, "release": figures_of_release,
           "clang": figures_of_clang, "lint": figures_of_lint, "torture": figures_of_torture,
           "soak": figures_of_soak}  # fmt: skip


def check_methods(document, kept):
    """A line of a table names the row, and has the figure."""
    rows = [line for line in document.splitlines() if line.startswith("| ")]
    for part in FIGURES.keys() & kept.keys():
        try:
            for row, figure in FIGURES[part](kept[part]):
                if not any(row in line and re.search(rf"(?<![\d,.]){re.escape(figure)}", line) for line in rows):
                    yield f"{part}.txt has '{figure}', the row of {row} has not"
        except (IndexError, TypeError, AttributeError):
            yield f"{part}.txt does not have the figures that are expected there"
    for part, command in COMMANDS.items():
        if any(command in line and NOT_KEPT in line for line in rows) == (part in kept):
            yield f"of {part} {'a run' if part in kept else 'nothing'} is kept, the row of {command} says otherwise"


def runs_of(kept, part):
    """What was kept of a part, or of one of its targets, the latest last; of two on one day, that of the target."""
    runs = sorted((text[:10], name, text) for name, text in kept.items() if name.split("-")[0] == part)
    return [text for _, _, text in runs]


def last(kept, part, pattern):
    """By name the figures that a pattern finds, of the latest run."""
    return {name: figures for text in runs_of(kept, part) for name, *figures in re.findall(pattern, text, re.MULTILINE)}


def seconds(kept, target):
    """How long a fuzz target ran last."""
    heads = [re.search(r"^=== fuzz targets, (\d+) s each", text, re.MULTILINE)
             for text in runs_of(kept, "fuzz") if f"\n{target} " in text]  # fmt: skip
    return heads[-1][1] if heads and heads[-1] else 0


def check_fuzzing(document, kept):
    for target, (executions, edges, result) in last(kept, "fuzz", r"^(\w+) +(\d+) +\d+ +(\d+)  (\w[\w ]+)").items():
        row = rf"^\| `{target}` \| {int(seconds(kept, target)):,} \| {int(executions):,} \| {int(edges):,} \| {result}"
        if not re.search(row, document, re.MULTILINE):
            yield f"{target} had {executions} executions that reached {edges} edges, {result}; its row says something else"


def classes_of(cell):
    return [name for words in cell.split(", ") for name in CLASSES.get(words, [words.strip("`")])]


def check_mutations(document, kept):
    done = last(kept, "mutate", r"^(\w+): (\d+) of (\d+) changes tried: (\d+) noticed .*?, (\d+) survived")
    table = document.partition("| class | tried | noticed |")[2].partition("\n\n")[0]
    rows = re.findall(r"^\| ([^|]+) \| ([^|]+) \| ([^|]*) \|", table, re.MULTILINE)
    for name in sorted(done.keys() - {name for cell, _, _ in rows for name in classes_of(cell)}):
        yield f"{name} was tried, and is in no row"
    for cell, tried, noticed in rows:
        names = classes_of(cell)
        figures = [done[name] for name in names if name in done]
        if len(figures) == len(names):
            changes, total, seen, survived = (sum(map(int, column)) for column in zip(*figures))
            there = "all" if changes == total else f"{changes:,} of {total:,}", f"{seen:,} of {seen + survived:,}"
            if (tried, noticed) != there:
                yield f"of {cell}, {there[0]} were tried and {there[1]} noticed, the row says {tried} and {noticed}"
        elif figures and tried == "none yet":
            yield f"of {cell}, some were tried, the row says {tried}"
        elif done and tried == "all":
            yield f"of {cell}, not all that the row has were kept, which says {tried}"


def check_mutations_together(document, kept):
    """The sentence below the table."""
    found = last(kept, "mutate",
                 r"^(\w+): \d+ of \d+ changes tried: (\d+) noticed .*?, (\d+) survived(?:.*?; (\d+) listed)?")
    if found:
        noticed, survived, listed = (sum(int(figure or 0) for figure in column) for column in zip(*found.values()))
        together = (f"Together {noticed:,} of {noticed + survived:,} are noticed; "
                    f"of {noticed + survived + listed:,}, {100 * noticed / (noticed + survived + listed):.1f} %,")
        if together not in " ".join(document.split()):
            yield f"of mutations the document does not say '{together}'"


def check_claims(document, kept):
    for part in re.findall(r"by\s`scripts/trust\s?([\w:]*)`", document):
        if not any(f"{name}-".startswith(part.replace(":", "-") + "-") for name in kept) and (part or not kept):
            yield f"a figure is said to be made by scripts/trust {part}, of which nothing was kept"


NUMBERS = ("no", "one", "two", "three", "four", "five", "six", "seven", "eight", "nine", "ten", "eleven", "twelve")


def counted(texts):
    """What the sources have, by their paths, in the document's words."""
    scenarios = sum(len(re.findall(r'\{"(\w+)",\s*\1,', text)) for path, text in texts.items() if "tests/torture/" in path)
    races = texts["tests/RacesTest.cpp"]
    threads = re.search(r"testing::Values\(([^)]*)\)", races)[1].split(",")
    cases = len(re.findall(r"^TEST_P\(", races, re.MULTILINE)) * len(threads)
    marked = [line for path, text in texts.items() if path.startswith(("inc/", "src/")) for line in text.splitlines()
              if "GCOVR_EXCL_BR_LINE" in line]  # fmt: skip
    deletes = sum(re.match(r"\s*delete ", line) is not None for line in marked)
    yield f"{scenarios} scenarios"
    yield f"{cases} cases"
    yield f"{NUMBERS[len(marked)]} branches that the compiler makes, {NUMBERS[deletes]} of them for `delete`"


def check_counts(document, texts):
    words = " ".join(document.split())
    for figure in counted(texts):
        if not re.search(rf"(?<![\w,.-]){re.escape(figure)}", words):
            yield f"the sources have {figure}, the document says something else"


def complaints(document, kept, texts):
    checks = (check_methods, check_fuzzing, check_mutations, check_mutations_together, check_claims)
    return [*(complaint for check in checks for complaint in check(document, kept)), *check_counts(document, texts)]


# A document and what was kept, as the scripts print it, that agree; and what makes them disagree, each in one figure.
SAMPLE = """
| What is tested | 7,995 passed, 6 skipped; by build below; 18 minutes | `.ci/run` |
| What is shipped | 3,000 passed | `scripts/test release arm-release` |
| By Clang | 2,100 tests, none failed | `scripts/test clang` |
| Every source | nothing found | `scripts/lint` |
| Failures | 2 scenarios, 6,504 failures | `build/dev/tests/TortureTest` |
| Threads | 6 cases | `ctest` |
| The camera | 15,022 pictures, 25.0 a second, 1 dropped, 1,351 visits, 63 KB more resident | `scripts/soak 10 release` |
| In random orders | both: 3 of 3 without a failure | `scripts/repeat 20 dev tsan` |
| Undefined behaviour | 1,550 tests, no report | `scripts/test ubsan` |
| Memory | 2 of 3 programs | `scripts/valgrind` |
| Coverage | 99.5 % of 3,450 lines, 94.2 % of 948 functions, 99.4 % of 1,852 branches | `scripts/coverage` |
| test cases | 2,000 on the plain build |

| `dev` | 2,000 | 1,995 | 5 |
| `asan` | 4,001 | 4,000 | 1 |
| `tsan` | 1,000 | 1,000 | 0 |
| `arm` | 1,000 | 1,000 | 0 |

| class | tried | noticed | |
|---|---:|---:|---|
| `KPath`, `KThread`, `KMutex` | all | 30 of 32 | |
| queues | 100 of 2,000 | 90 of 90 | |
| `KTime` | none yet | | |

Together 120 of 122 are noticed; of 126, 95.2 %, where 4 count that are listed.

| `KString` | 60 | 20,829 | 1,361 | nothing failed |

Made by `scripts/trust fuzz` and by `scripts/trust mutate:KQueue`. Marked are two branches that the compiler makes, one
of them for `delete` of a null pointer.
"""
SAMPLE_KEPT = {
    "tests": "2024-05-06\n$ .ci/run\n\n=== dev ===\n100% tests passed, 0 tests failed out of 2000\n"
             "\t1 - A.B (Skipped)\n\t2 - A.C (Skipped)\n\t3 - A.D (Skipped)\n\t4 - A.E (Skipped)\n\t5 - A.F (Skipped)\n"
             "\n=== asan ===\n100% tests passed, 0 tests failed out of 4001\n\t1 - A.B (Skipped)\n"
             "\n=== tsan ===\n100% tests passed, 0 tests failed out of 1000\n"
             "\n=== arm ===\n100% tests passed, 0 tests failed out of 1000\n"
             "\n=== summary ===\n7995 passed, 0 failed, 6 skipped\n\nThis took 18 minutes.\n",
    "release": "=== release ===\n=== summary ===\n3000 passed, 0 failed, 9 skipped\n",
    "clang": "100% tests passed, 0 tests failed out of 2100\n",
    "lint": "2024-05-06\n\n$ scripts/lint\n\n=== formatting ===\n",
    "torture": "6504 faults injected\n[==========] 128 tests from 2 test suites ran. (65678 ms total)\n",
    "ubsan": "100% tests passed, 0 tests failed out of 1550\n",
    "valgrind": "ATest: 12 tests passed, nothing reported\nkplist: 9 files checked, nothing reported\nCTest: failed\n",
    "coverage": "lines: 99.5% (3433 out of 3450)\nfunctions: 94.2% (893 out of 948)\nbranches: 99.4% (1840 out of 1852)\n",
    "repeat": "dev: run 2 of 3, 30 programs, 0 runs with failures so far\n"
              "dev: run 3 of 3, 30 programs, 0 runs with failures so far\n"
              "tsan: run 3 of 3, 30 programs, 0 runs with failures so far\n",
    "soak": "$ scripts/soak 10 release\n  1 min  136 visits\n\npictures            15022\n"
            "visits              1351; 96366 pictures, 1585 MB; 3585 skipped for slow clients\n"
            "pictures a second                                          25.02  at least 24.50\n"
            "pictures dropped                                             1.0  at most 15.0\n"
            "KB more resident at the end                                   63  at most 512\n"
            "\n$ scripts/soak 2 asan\n\npictures            3005\n",
    "fuzz": "2024-05-06\n=== fuzz targets, 60 s each, 2 at a time ===\nKString               20829      347     1361  nothing failed\n",
    "mutate": "2024-05-06\n"
              "KPath: 20 of 20 changes tried: 18 noticed (1 for the time that a test took), 2 survived (90.0 % noticed)\n"
              "KThread: 13 of 13 changes tried: 12 noticed (0 for the time that a test took), 0 survived (100.0 % noticed)\n"
              "KQueue: 9 of 2000 changes tried: 9 noticed (0 for the time that a test took), 0 survived (100.0 % noticed)\n",
    "mutate-KQueue": "2024-05-07\nKQueue: 100 of 2000 changes tried: 90 noticed (0 for the time), 0 survived (100.0 % noticed); 4 listed as equivalent\n"}  # fmt: skip
SAMPLE_TEXTS = {
    "tests/torture/AScenarios.cpp": 'return {{"A", A, {}},\n            {"B",\n             B,\n             {"new in B"}}};\n',
    "tests/RacesTest.cpp": "TEST_P(RacesTest, A) {\nTEST_P(RacesTest, B) {\nINSTANTIATE(testing::Values(2, 4, 16))\n",
    "inc/A.h": "        delete p;  // GCOVR_EXCL_BR_LINE: a reason\n", "src/A.cpp": "    p = new A();  // GCOVR_EXCL_BR_LINE: a reason\n"
}  # fmt: skip
CHANGES_OF_TEXTS = [("tests/torture/AScenarios.cpp", '{"A", A, {}},', ""), ("tests/RacesTest.cpp", "2, 4, 16", "2, 4"),
                    ("tests/RacesTest.cpp", "TEST_P(RacesTest, B)", ""), ("inc/A.h", "delete p", "p = q"),
                    ("src/A.cpp", "GCOVR", "")]  # fmt: skip
CHANGES = [("tests", "took 18", "took 19"), ("fuzz", "60 s", "61 s"), ("fuzz", "nothing failed", "failed: see KString.log"),
           ("tests", "7995 passed, 0 failed", "7995 passed, 1 failed"), ("tests", "7995 passed", "6995 passed"),
           ("tests", "\t1 - A.B (Skipped)\n", ""), ("tests", "out of 4001\n\t1 - A.B (Skipped)", "out of 4001"),
           ("tests", "out of 1000\n\n=== arm", "out of 1001\n\n=== arm"), ("release", "3000", "3001"),
           ("release", "0 failed", "1 failed"), ("clang", "2100", "2101"), ("clang", "0 tests failed", "1 tests failed"),
           ("soak", "15022", "15023"), ("soak", "25.02", "24.02"), ("soak", "  1.0  at most", "  2.0  at most"),
           ("soak", "1351", "1352"), ("soak", "  63  at", "  64  at"), ("soak", "KB more", "KB less"),
           ("lint", "$ scripts/lint\n", "$ scripts/lint\n(failed)\n"), ("torture", "6504", "6505"), ("coverage", "948", "949"),
           ("tests", "=== dev", "=== gone"), ("ubsan", "1550", "1551"),
           ("ubsan", "0 tests failed", "1 tests failed"), ("valgrind", "CTest: failed\n", ""), ("coverage", "3450", "3451"),
           ("coverage", "99.4%", "99.3%"), ("repeat", "dev: run 3 of 3, 30 programs, 0", "dev: run 3 of 3, 30 programs, 1"),
           ("repeat", "tsan: run 3 of 3", "tsan: run 2 of 3"), ("fuzz", "20829", "20830"), ("fuzz", "1361", "1362"),
           ("mutate", "18 noticed", "19 noticed"), ("mutate", "13 of 13", "12 of 13"), ("mutate", "KThread", "KTime"),
           ("mutate", "KThread", "KList"), ("mutate", "KThread: 13", "KNothing: none"), ("mutate-KQueue", "90 noticed", "91 noticed"),
           ("mutate-KQueue", "2024-05-07", "2024-05-05"), ("mutate-KQueue", "4 listed", "5 listed")]  # fmt: skip


def control():
    """What the check makes of the sample: nothing as it stands, something after each of the changes."""
    yield from complaints(SAMPLE, SAMPLE_KEPT, SAMPLE_TEXTS)
    for name, old, new in CHANGES:
        changed = SAMPLE_KEPT[name].replace(old, new)
        if changed == SAMPLE_KEPT[name] or not complaints(SAMPLE, {**SAMPLE_KEPT, name: changed}, SAMPLE_TEXTS):
            yield f"in the sample, '{new}' for '{old}' in {name} is not noticed"
    for name, old, new in CHANGES_OF_TEXTS:
        changed = SAMPLE_TEXTS[name].replace(old, new)
        if changed == SAMPLE_TEXTS[name] or not complaints(SAMPLE, SAMPLE_KEPT, {**SAMPLE_TEXTS, name: changed}):
            yield f"in the sample, '{new}' for '{old}' in {name} is not noticed"
    for name in (*FIGURES, "fuzz", "mutate-KQueue"):
        kept = {other: text for other, text in SAMPLE_KEPT.items() if other != name}
        if not complaints(SAMPLE, kept, SAMPLE_TEXTS):
            yield f"in the sample, it is not noticed that {name} was not kept"
        if name in FIGURES:
            document = SAMPLE.replace(f" | {COMMANDS[name]}", f"; no run is {NOT_KEPT} | {COMMANDS[name]}")
            yield from complaints(document, kept, SAMPLE_TEXTS)
            if not complaints(document, SAMPLE_KEPT, SAMPLE_TEXTS):
                yield f"in the sample, it is not noticed that {name} was kept though its row denies it"


def main():
    source = pathlib.Path(sys.argv[1])
    kept = {path.stem: path.read_text(encoding="utf-8") for path in (source / "docs/trust").glob("*.txt")}
    document = (source / "docs/reliability.md").read_text(encoding="utf-8")
    texts = {str(path.relative_to(source)): path.read_text(encoding="utf-8")
             for pattern in ("tests/torture/*.cpp", "tests/RacesTest.cpp", "inc/*.h", "src/**/*.h", "src/**/*.cpp")
             for path in source.glob(pattern)}  # fmt: skip
    found = [*control(), *complaints(document, kept, texts)]
    if found:
        print(*found, sep="\n")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
