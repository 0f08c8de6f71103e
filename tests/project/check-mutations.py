#!/usr/bin/env python3
"""check-mutations.py SOURCE-DIRECTORY

scripts/mutate finds every kind of change in a sample and nothing to change in what is none; keeps what came of a change for as
long as it holds; and takes for a change that does not compile only one that a compiler found fault with.
"""
import pathlib
import subprocess
import sys
import tempfile
import types

sys.dont_write_bytecode = True
SOURCE = pathlib.Path(sys.argv[1])
sys.path.insert(0, str(SOURCE / "tests/mutation"))
import changes  # noqa: E402
import mutate  # noqa: E402

SAMPLE = r"""
constexpr unsigned int kMask = 0xFFu;
constexpr mode_t kMode = 0644;

constexpr int Bits(int n) {
    for (; Big(n);) {
        Halve(n);
    }
}

Sample::~Sample() {
    const ScopedLock lock(m_Mutex);
    delete m_pNext;
}

/// Comments have no a == b, and no 'x'.
int Sample::Add(int nMore, bool fgTwice) {
    const Watch watch(nMore);
    const Name name(nMore);
    Log("a < b %s %d", name.Text(),
        nMore);
    for (int i = 0; i < 3; ++i) {
        m_nBits |= kMask << i;
    }
    switch (nMore) {
        case 1:
            Stop();
            break;
        default:
            m_Each.Do([&](int n) {
                Count(n);
            });
    }
    const char chSign = nMore < 0 ? '-' : '+';
    m_nBits *= ~m_nBits;
    return fgTwice &&
                   nMore != -1 ? Twice(nMore) : 0;
}
"""

# Of each change what there was and what there is instead, in the order of the places.
EXPECTED = [
    ("0xFF", "0"), ("0xFF", "0x100"), ("0644", "0"), ("0644", "0645"), ("Halve(n);", ";"), ("const ScopedLock lock(m_Mutex);", ";"),
    ("delete m_pNext;", ";"), ("const Watch watch(nMore);", ";"), ('Log("a < b %s %d", name.Text(),\n        nMore);', ";"),
    ("0", "1"), ("<", "<="), ("<", ">"), ("3", "0"), ("3", "4"), ("++", "--"), ("m_nBits |= kMask << i;", ";"), ("|=", "&="),
    ("<<", ">>"), ("1", "0"), ("1", "2"), ("Stop();", ";"), ("break;", ";"),
    ("m_Each.Do([&](int n) {\n                Count(n);\n            });", ";"), ("Count(n);", ";"), ("nMore < 0", "!(nMore < 0)"),
    ("<", "<="), ("<", ">"), ("0", "1"), ("-", "."), ("+", ","), ("m_nBits *= ~m_nBits;", ";"), ("*=", "/="), ("~", ""),
    ("fgTwice &&\n                   nMore != -1", "!(fgTwice &&\n                   nMore != -1)"),
    ("fgTwice &&\n                   nMore != -1 ? Twice(nMore) : 0", "{}"), ("&&", "||"), ("!=", "=="), ("-", ""), ("1", "0"),
    ("1", "2"), ("0", "1")]  # fmt: skip

# What compilers and linkers print, how they end, and whether that is the change's fault; None where it ends the run.
ENDS = [
    ("", 0, False),
    ("/src/KPath.cpp:12:5: error: expected ';'\n", 1, True),
    ("In file included from a.cpp:1:\nKList.h:9: error: no\n", 1, True),
    ("/usr/bin/ld: a.o: undefined reference to `Foo()'\ncollect2: error: ld returned 1 exit status\n", 1, True),
    ("g++: fatal error: Killed signal terminated program cc1plus\n", 1, None),
    ("a.cpp:9:1: error: no\na.cpp:9:1: internal compiler error: Segmentation fault\n", 1, None),
    ("a.cpp:9:1: fatal error: error writing to /tmp/a.s: No space left on device\n", 1, None),
    ("collect2: error: ld returned 1 exit status\n", 1, None),
    ("", -9, None)]  # fmt: skip


def check_changes():
    found = [(change.old, change.new) for change in (changes.Change("a", SAMPLE, *one) for one in changes.changes_of(SAMPLE))]
    for missing in EXPECTED:
        if found.count(missing) < EXPECTED.count(missing):
            yield f"in the sample, this change is not found: {missing}"
    for one in found:
        if found.count(one) > EXPECTED.count(one):
            yield f"in the sample, this change is found: {one}"


def check_switched():
    """Each change is in a copy of its function."""
    numbers = dict(enumerate((changes.Change("a", SAMPLE, *one) for one in changes.changes_of(SAMPLE)), 1))
    text = changes.Switched(SAMPLE, numbers, 0).text
    inside = [number for number, change in numbers.items() if change.start > SAMPLE.index("Sample::~Sample")]
    for number in inside:
        if text.count(f"if (kalvorenChange == {number}) {{") != 1:
            yield f"a library with all changes cannot choose {numbers[number]}"
    # What the compiler runs cannot ask which change was chosen.
    if SAMPLE[: SAMPLE.index("Sample::~Sample")] not in text:
        yield "a library with all changes chooses where the compiler runs a function"


def check_ends():
    for output, status, expected in ENDS:
        try:
            refused = mutate.refused(subprocess.CompletedProcess(["g++"], status, output.encode()))
        except SystemExit:
            refused = None
        if refused is not expected:
            yield f"whether the change is at fault of what ended with {status} is {refused}, not {expected}: {output}"


# What a program of tests prints, and the case that is to blame.
PRINTED = [
    ("[ RUN      ] A.B\n[       OK ] A.B (12 ms)\n[ RUN      ] A.C\n", "A.C"),
    ("[ RUN      ] A.B\n[  FAILED  ] A.B (3 ms)\n[ RUN      ] A.C\n[  SKIPPED ] A.C (0 ms)\n", "A.B"),
    ("[ RUN      ] N/A.B/2\n[  FAILED  ] N/A.B/2, where GetParam() = 2 (3 ms)\n[ RUN      ] N/A.C/2\n", "N/A.B/2"),
    ("", None)]  # fmt: skip


def check_outcomes():
    for printed, expected in PRINTED:
        if mutate.case_of_interest(printed) != expected:
            yield f"{mutate.case_of_interest(printed)} is to blame, not {expected}, for what was printed: {printed}"
    if mutate.times_of(PRINTED[0][0] + PRINTED[1][0]) != {"A.B": 0.012, "A.C": 0.0}:
        yield "what cases took is misread"


def check_results():
    """A verdict holds for one state; who noticed the change is known after it as well."""
    change = changes.Change("a", SAMPLE, *changes.changes_of(SAMPLE)[0])
    by = mutate.Noticed("ATest", "A.B", False)
    with tempfile.TemporaryDirectory() as mutate.BUILD:
        mutate.Results("A").put(change, "now", mutate.Verdict("noticed", by))
        kept = mutate.Results("A")
        if kept.get(change, "now") != mutate.Verdict("noticed", by):
            yield "what came of a change is forgotten"
        if kept.get(change, "later") is not None:
            yield "what came of a change holds for what it was not tried with"
        if kept.noticed_by(change) != by:
            yield "who noticed a change is forgotten"


def check_classes():
    """Every file of the library is some class's, but those that have nothing to change."""
    there = {str(path.relative_to(SOURCE)) for place in ("inc", "src") for path in (SOURCE / place).rglob("*.*")
             if path.suffix in (".h", ".cpp")}  # fmt: skip
    named = {path for paths, *_ in mutate.CLASSES.values() for path in paths}
    for path in sorted(there ^ named):
        if path not in there or list(mutate.all_changes(path)):
            yield f"{path} is in one of the library and the classes, and not in the other"


def check_faults():
    """A class fails when too little is noticed, and when a survivor is in no list."""
    for share, reasons, expected in ((95, [], 0), (94, [], 1), (99, ["so"], 0), (99, ["so", None], 1), (90, [None], 2)):
        one = types.SimpleNamespace(name="A", share=lambda share=share: share, survivors=reasons, reason=lambda reason: reason)
        found = list(mutate.faults_of([one], 95))
        if len(found) != expected:
            yield f"with {share} % noticed and the reasons {reasons}, {expected} faults were expected, not {found}"


def main():
    checks = (check_changes, check_switched, check_ends, check_outcomes, check_results, check_classes, check_faults)
    found = [fault for check in checks for fault in check()]
    if found:
        print(*found, sep="\n")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
