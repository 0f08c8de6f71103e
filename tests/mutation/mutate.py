"""Changes the library in one place at a time and sees whether the tests of the class notice.

Started by scripts/mutate, which sees to the build. A change is an operator, a constant, a condition or a statement; comments
and texts are spared. Compiling each changed source would take most of the time, so that all changes of a class that are in the
bodies of functions are compiled as one library, and an environment variable says which one runs (see changes.py). Of the tests
those run first that reach the changed function. What none of them notices, and what cannot be chosen by a variable, is compiled
and linked by itself, and has to pass all tests of the class, in one process and in one for each case. What passes them is built
once more with the sanitizers of addresses and undefined behaviour, and what has to do with a lock with that of threads, for
the tests of races. It counts as a survivor when they notice nothing either.

The tests run where they can break nothing, and find a changed library in the place of the real one: the file system is
read-only but for a small /tmp, with a network and processes of its own.
"""

import argparse
import collections
import hashlib
import heapq
import json
import os
import random
import re
import shlex
import subprocess
import sys
import tempfile
import threading
import time

from changes import Change, Switched, changes_of

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.join(ROOT, "build", "mutate")
SANITIZED = os.path.join(ROOT, "build", "mutate-asan")
THREADS = os.path.join(ROOT, "build", "mutate-tsan")
LIBRARY = "libkalvoren-sharedd.so.1.0.0"
SWITCH = os.path.join(ROOT, "tests", "mutation", "switch")
# Changes that make no difference, and those that make one that no test is to look at.
EQUIVALENTS = os.path.join(ROOT, "tests", "mutation", "equivalents.json")
ACCEPTED = os.path.join(ROOT, "tests", "mutation", "accepted.json")

# Of each class the files that are changed, and its tests. The sources of the library that are compiled with a changed header
# are those of the class, or those named behind the tests; the templates are in the tests alone.
CLASSES = {
    "KAssert": (["src/api/KAssert.cpp", "inc/KAssert.h"], ["KAssertTest"]),
    "KDebug": (["src/api/KDebug.cpp", "inc/KDebug.h"], ["KDebugTest"]),
    "KDirectory": (["src/api/KDirectory.cpp", "inc/KDirectory.h"], ["KDirectoryTest"]),
    "KEntry": (["src/KEntry.cpp", "inc/KEntry.h"], ["KEntryTest"]),
    "KFile": (["src/api/KFile.cpp", "inc/KFile.h"], ["KFileTest"]),
    "KIPC": (["src/api/KIPC.cpp", "inc/KIPC.h"], ["KIPCTest"]),
    "KLib": (["src/api/KLib.cpp", "inc/KLib.h"], ["KLibTest"]),
    "KList": (["inc/KList.h"], ["KListTest"], []),
    "KLocale": (["src/api/KLocale.cpp", "inc/KLocale.h"], ["KLocaleTest"]),
    "KMem": (["src/api/KMem.cpp", "inc/KMem.h"], ["KMemTest"]),
    "KMessage": (["src/KMessage.cpp", "inc/KMessage.h"], ["KMessageTest"]),
    "KNet": (["src/api/KNet.cpp", "inc/KNet.h"], ["KNetInfoTest", "KNetTest"]),
    "KPath": (["src/KPath.cpp", "inc/KPath.h"], ["KPathTest"]),
    "KPropertyList": (["src/KPropertyList.cpp", "inc/KPropertyList.h"], ["KPropertyNodeTest", "KPropertyListTest"]),
    "KQueue": (["src/KQueue.cpp", "inc/KQueue.h"], ["KQueueTest"]),
    "KString": (["src/api/KString.cpp", "inc/KString.h"], ["KStringTest", "KPathTest"]),
    "KSystem": (["src/api/KSystem.cpp", "inc/KSystem.h"], ["KSystemTest"]),
    "KThread": (["src/api/KThread.cpp", "inc/KThread.h"], ["KMutexTest", "KThreadTest"]),
    "KTime": (["src/api/KTime.cpp", "inc/KTime.h"], ["KTimeTest"]),
    "ExchangeOrder": (["src/ExchangeOrder.h"], ["ExchangeOrderTest"], []),
    "Checks": (["src/Checks.h"], ["KAssertTest", "KStringTest"], ["src/api/KString.cpp"]),
    "Numbers": (["src/Numbers.h"], ["KStringTest", "KTimeTest", "KFileTest"],
                ["src/api/KString.cpp", "src/api/KTime.cpp", "src/api/KFile.cpp"]),
    "Permission": (["src/Permission.h"], ["KFileTest", "KDirectoryTest"], ["src/api/KFile.cpp", "src/api/KDirectory.cpp"]),
    "ScopedLock": (["src/ScopedLock.h"], ["KMessageTest"], ["src/KMessage.cpp"]),
    "TimeText": (["src/TimeText.h"], ["KTimeTest", "KDebugTest"], ["src/api/KTime.cpp", "src/api/KDebug.cpp"]),
}  # fmt: skip

# What threads may share, and the tests that make them do so.
SHARED = {"KDebug", "KFile", "KList", "KMessage", "KPropertyList", "KQueue", "KSystem", "KThread", "ScopedLock"}
RACES = ["RacesTest"]


# -------------------------------------------------------------------------------------------------------------- The build


def run(command, **options):
    """Runs a command whose output is looked at: it is English."""
    environment = {**os.environ, "LC_ALL": "C"}
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=environment, **options)


def checked(result):
    """What a command printed that has to end well."""
    output = result.stdout.decode(errors="replace")
    if result.returncode:
        sys.exit("mutate: ended with %d: %s\n%s" % (result.returncode, shlex.join(result.args), output[-4000:]))
    return output


def refused(result):
    """Whether a compiler or linker found fault with what it was given. Whatever else ended it, a signal, a fault of its own or
    a full disk, says nothing about that: it ends the run."""
    output = result.stdout.decode(errors="replace")
    fault = re.search(r"^[^\s:]+:\d+:(\d+:)? error: |undefined reference to|multiple definition of", output, re.MULTILINE)
    if result.returncode <= 0 or not fault or "internal compiler error" in output:
        checked(result)
        return False
    return True


def text_of(path):
    with open(os.path.join(ROOT, path)) as file:
        return file.read()


def source_of(program):
    return os.path.join("tests", os.path.basename(program) + ".cpp")


def build_programs(directory, programs):
    command = ["cmake", "--build", directory, "--target", "kalvoren-sharedd", *programs]
    if subprocess.run(command, stdout=sys.stderr).returncode != 0:
        sys.exit("mutate: the tests do not build")


def digest(*parts):
    return hashlib.sha256("\0".join(parts).encode()).hexdigest()


def digest_of(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


def code_of(path, bare):
    """What an object, a library or a program does, without what it says about where it came from."""
    checked(run(["objcopy", "--strip-debug", "--remove-section=.comment", "--remove-section=.note.gnu.build-id", path, bare]))
    return digest_of(bare)


class Build:
    """Compiles changed files with the commands that compile the real ones."""

    # What objects do without any change: it takes long to find out, and is the same for all.
    plain = {}
    plain_lock = threading.Lock()

    def __init__(self, *names, directory=BUILD):
        with open(os.path.join(directory, "compile_commands.json")) as file:
            self.entries = json.load(file)
        self.directory = directory
        self.work = os.path.join(directory, "changed", *names)
        self.headers = os.path.join(self.work, "include")
        os.makedirs(self.headers, exist_ok=True)

    def entry(self, source):
        path = os.path.join(ROOT, source)
        for entry in self.entries:
            if entry["file"] == path:
                return entry
        sys.exit("mutate: %s is not part of the build" % source)

    def compile(self, source, path, target, more=()):
        """Compiles a file as if it were another."""
        entry = self.entry(source)
        words = shlex.split(entry["command"])
        words[words.index("-o") + 1] = target
        words[words.index("-c") + 1] = path
        words = [word for word in words if word not in ("-Werror", "-g", "-g1")]
        directory = os.path.dirname(os.path.join(ROOT, source))
        # What the source includes by a path from its own directory. Objects must not tell in which directory they were made.
        words[1:1] = ["-w", *more, "-I", directory, "-ffile-prefix-map=%s=." % self.work]
        return run(words, cwd=entry["directory"])

    def link_as(self, target, changed, more):
        """Links a target with the objects of some sources changed, as it is linked itself, or returns None."""
        listed = checked(run(["ninja", "-C", self.directory, "-t", "commands", target])).splitlines()
        line = [line for line in listed if " -o " + target in line][-1]
        words = shlex.split(line[line.index("&&") + 2 : line.rindex("&&")])
        for source, path in changed.items():
            names = [i for i, word in enumerate(words) if word.endswith("/" + os.path.basename(source) + ".o")]
            if names:
                words[names[0]] = path
        linked = os.path.join(self.work, os.path.basename(target))
        words[words.index("-o") + 1] = linked
        return None if refused(run([*words, *more], cwd=self.directory)) else linked

    def link(self, objects, programs, *more):
        """Links the library, and those of some test programs that need it, with the objects of changed sources. Returns the
        setting in which they run, None where they do not link."""
        replaced = {}
        for program in programs:
            source = source_of(program)
            if source in objects:
                target = os.path.join("tests", os.path.basename(program))
                replaced[program] = self.link_as(target, {source: objects[source]}, more)
        library = self.link_as(LIBRARY, objects, more)
        failed = library is None or None in replaced.values()
        return None if failed else Setting(library, replaced, directory=self.directory)

    def code_of(self, path):
        return code_of(path, path + ".bare")

    def code_without_change(self, source):
        with Build.plain_lock:
            lock, code = Build.plain.setdefault(source, (threading.Lock(), []))
        with lock:
            if not code:
                plain = Build("plain")  # not where changed objects are
                path = plain.changed_object(source, text_of(source))
                if path is None:
                    sys.exit("mutate: %s does not compile without a change" % source)
                code.append(plain.code_of(path))
        return code[0]

    def put(self, source, text):
        """Writes a text in place of a source, and says where."""
        path = os.path.join(self.work, os.path.basename(source))
        with open(path, "w") as file:
            file.write(text)
        return path

    def changed_object(self, source, text, more=()):
        """Compiles a text in place of a source: the object, or None."""
        path = self.put(source, text)
        return None if refused(self.compile(source, path, path + ".o", more)) else path + ".o"

    def change_headers(self, texts):
        """Puts all headers, some of them with a text of their own, where they are found before the real ones."""
        for place in ("inc", "src"):
            for name in os.listdir(os.path.join(ROOT, place)):
                if name.endswith(".h"):
                    header = os.path.join(place, name)
                    with open(os.path.join(self.headers, name), "w") as file:
                        file.write(texts.get(header) or text_of(header))

    def includes(self, source, header):
        """Whether a source is compiled with a header."""
        listed = checked(self.compile(source, os.path.join(ROOT, source), "/dev/stdout", ["-M"]))
        return os.path.join(ROOT, header) in (os.path.normpath(word) for word in listed.split() if word != "\\")


# -------------------------------------------------------------------------------------------------------------- The tests


def sandboxed(command, *more):
    """A command that can change nothing outside it, whatever a changed library does."""
    # Tests of permissions write to /tmp as another user than the one that started them. The sources may be below it.
    return ["bwrap", "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc", "--perms", "1777", "--tmpfs", "/tmp",
            "--perms", "1777", "--tmpfs", "/var/tmp", "--ro-bind", ROOT, ROOT, *more, "--unshare-pid", "--unshare-net",
            "--unshare-ipc", "--die-with-parent", "--setenv", "TMPDIR", "/tmp", "--chdir", os.path.join(BUILD, "tests"),
            *command]  # fmt: skip


class Setting:
    """What the tests run with: a library in place of the real one, other programs in place of theirs, the change that runs."""

    def __init__(self, library=None, replaced=None, number=0, directory=BUILD):
        self.library = library
        self.directory = directory
        self.replaced = replaced or {}
        self.number = number

    def binds(self):
        """Puts the library and the programs where the real ones are: programs look for what they load beside themselves."""
        places = {path: program for program, path in self.replaced.items()}
        if self.library:
            places[self.library] = os.path.join(self.directory, LIBRARY)
        return [word for path, place in places.items() for word in ("--ro-bind", path, place)]


# How some cases of a program ended: whether all passed, or one did not end, and which did not; what they and each took.
Outcome = collections.namedtuple("Outcome", "passed late case seconds times")
# Who noticed a change, and whether because the case did not end in time.
Noticed = collections.namedtuple("Noticed", "program case late")


def case_of_interest(text):
    """From what a program printed the case that failed, or the last that ran: behind one that failed all others are said to."""
    failed = re.search(r"^\[  FAILED  \] ([^\s,]+)", text, re.MULTILINE)
    ran = re.findall(r"^\[ RUN      \] (\S+)", text, re.MULTILINE)
    return failed.group(1) if failed else ran[-1] if ran else None


def times_of(text):
    """The seconds that each case took that ended well."""
    ended = re.findall(r"^\[ +(?:OK|SKIPPED) +\] (\S+) \((\d+) ms\)", text, re.MULTILINE)
    return {case: int(milliseconds) / 1000 for case, milliseconds in ended}


def first(found):
    """The first of what is looked for that is there, or None."""
    return next((one for one in found if one), None)


class Tests:
    """The tests of a class. Several threads use them."""

    # So many of the cases that noticed changes before are run ahead of all others: they are likely to notice the next.
    AHEAD = 25

    def __init__(self, programs, directory=BUILD):
        self.programs = [os.path.join(directory, "tests", program) for program in programs]
        self.cases = {program: self.cases_of(program) for program in self.programs}
        self.seconds = {program: {} for program in self.programs}  # what each case takes in a process of its own
        self.reached = {program: {} for program in self.programs}  # the functions that each case reaches
        self.noticing = {program: [] for program in self.programs}
        self.lock = threading.Lock()

    def cases_of(self, program):
        cases = []
        suite = ""
        for line in run([program, "--gtest_list_tests"]).stdout.decode().splitlines():
            name = line.split("#")[0].strip()
            if line.startswith(" "):
                cases.append(suite + name)
            elif name.endswith("."):
                suite = name
        return cases

    def start(self, setting, program, cases, limit, marks=None):
        """Runs some cases of a program until one fails."""
        command = [program, "--gtest_color=no", "--gtest_fail_fast"]
        if cases != self.cases[program]:
            command.append("--gtest_filter=" + ":".join(cases))
        options = setting.binds()
        if setting.number:
            options += ["--setenv", "KALVOREN_CHANGE", str(setting.number)]
        if marks:
            options += ["--bind", marks, marks, "--setenv", "KALVOREN_MARKS", marks]
        command = sandboxed(command, *options)
        started = time.monotonic()
        with tempfile.TemporaryFile() as output:
            try:
                result = subprocess.run(command, stdout=output, stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL,
                                        timeout=limit)  # fmt: skip
                passed, late = result.returncode == 0, False
            except subprocess.TimeoutExpired:
                passed, late = False, True
            output.seek(0)
            text = output.read().decode(errors="replace")
        return Outcome(passed, late, case_of_interest(text), time.monotonic() - started, times_of(text))

    def measure(self, setting, marks):
        """How long each case takes, and which functions it reaches. Returns the case that fails, as none may."""
        for program in self.programs:
            outcome = self.start(setting, program, self.cases[program], 300.0)
            if not outcome.passed:
                return outcome.case or program
            for case in self.cases[program]:
                with open(marks, "wb") as file:
                    file.truncate(65536)
                os.chmod(marks, 0o666)
                outcome = self.start(setting, program, [case], 60.0, marks)
                if not outcome.passed:
                    return case
                with open(marks, "rb") as file:
                    self.reached[program][case] = {i for i, mark in enumerate(file.read()) if mark}
                self.seconds[program][case] = outcome.seconds
        return None

    def measure_together(self):
        """How long each case takes, of tests whose library has no switch. Returns the case that fails, as none may."""
        for program in self.programs:
            outcome = self.start(Setting(), program, self.cases[program], 900.0)
            if not outcome.passed:
                return outcome.case or program
            self.seconds[program] = {case: outcome.times.get(case, 0.0) for case in self.cases[program]}
        return None

    def noticed_by(self, setting, program, cases):
        """The one of some cases that fails, or does not end."""
        usual = sum(self.seconds[program][case] for case in cases)
        outcome = self.start(setting, program, cases, max(3.0, 5 * usual))
        if outcome.passed:
            return None
        # The processors may have been busy with something else: it has to fail again, with plenty of time.
        outcome = self.start_again(setting, program, cases, outcome)
        if outcome.passed:
            return None
        if not outcome.late and outcome.case:
            with self.lock:
                noticing = self.noticing[program]
                noticing[:] = [outcome.case] + [other for other in noticing if other != outcome.case]
        return Noticed(os.path.basename(program), outcome.case, outcome.late)

    def start_again(self, setting, program, cases, before):
        """What comes of cases that failed once: of the one that failed by itself, then of all."""
        usual = sum(self.seconds[program][case] for case in cases)
        if before.case:
            # How long the case takes now without a change tells how busy the processors are.
            alone = self.start(Setting(), program, [before.case], 60.0).seconds if before.late else usual
            outcome = self.start(setting, program, [before.case], max(10.0, 20 * alone))
            if not outcome.passed:
                return outcome
        return self.start(setting, program, cases, max(60.0, 20 * usual))

    def notice_again(self, setting, before):
        """Whether the case that noticed a change before, if any did, notices it now."""
        for program in self.programs:
            if before and os.path.basename(program) == before.program and before.case in self.cases[program]:
                return self.noticed_by(setting, program, [before.case])
        return None

    def notice_soon(self, setting, function=None):
        """Whether the cases that reach a function, or all, notice a change: in few processes, the likely and quick ones first."""
        batches = []
        for program in self.programs:
            with self.lock:
                ahead = self.noticing[program][: self.AHEAD]
            cases = [case for case in self.cases[program] if function is None or function in self.reached[program][case]]
            cases.sort(key=lambda case: (case not in ahead or self.seconds[program][case] > 0.5, self.seconds[program][case]))
            batches += [(i, program, batch) for i, batch in enumerate(self.batches(program, cases))]
        return first(self.noticed_by(setting, program, batch) for _, program, batch in sorted(batches))

    def batches(self, program, cases):
        """Splits cases: the first ones take little time together, the next more, and so on."""
        batches, seconds, limit = [[]], 0.0, 1.0
        for case in cases:
            if batches[-1] and seconds + self.seconds[program][case] > limit:
                batches.append([])
                seconds, limit = 0.0, 4 * limit
            batches[-1].append(case)
            seconds += self.seconds[program][case]
        return batches if cases else []

    def notice(self, setting):
        """Whether any case notices a change: all in one process, and each in its own."""
        by = first(self.noticed_by(setting, program, self.cases[program]) for program in self.programs)
        # As CTest starts them: what one case leaves in the process may hide a change from the next.
        return by or first(self.noticed_by(setting, program, [case]) for program in self.programs for case in self.cases[program])


class SanitizedTests:
    """Tests in a build with sanitizers, which is made when the first change comes that no test noticed."""

    lock = threading.Lock()
    measured = {}  # by the build and the programs: some are those of several classes

    def __init__(self, name, programs, directory):
        self.name = name
        self.programs = programs
        self.directory = directory

    def prepared(self):
        with SanitizedTests.lock:
            key = (self.directory, *self.programs)
            if key not in SanitizedTests.measured:
                build_programs(self.directory, self.programs)
                tests = Tests(self.programs, self.directory)
                failed = tests.measure_together()
                if failed:
                    sys.exit("mutate: %s fails with the sanitizers without any change" % failed)
                SanitizedTests.measured[key] = tests
            return SanitizedTests.measured[key]

    def notice(self, objects_of):
        """Whether the sanitizers notice what a function compiles."""
        tests = self.prepared()
        build = Build(self.name, threading.current_thread().name, directory=self.directory)
        objects = objects_of(build)
        setting = build.link(objects, tests.programs) if objects else None
        return tests.notice_soon(setting) if setting else None


# ---------------------------------------------------------------------------------------------------------- What is known


def texts_in(place, *endings):
    """What the files in a directory of the project say, and what they are called."""
    names = sorted(name for name in os.listdir(os.path.join(ROOT, place)) if name.endswith(endings))
    return [name + "\0" + text_of(os.path.join(place, name)) for name in names]


def commands_of(directory, programs):
    """How the library and some tests are compiled in a build."""
    tests = [os.path.join(ROOT, source_of(program)) for program in programs]
    return [e["command"] for e in Build("state", directory=directory).entries
            if e["file"].startswith(os.path.join(ROOT, "src")) or e["file"] in tests]  # fmt: skip


def state_of_library():
    """Changes when anything does that every verdict depends on: the library, the tools, how changes are made and tried."""
    versions = [checked(run([tool, "--version"])) for tool in ("g++", "ld")]
    code = code_of(os.path.join(BUILD, LIBRARY), os.path.join(Build("state").work, LIBRARY))
    return digest(code, *versions, *texts_in("tests/mutation", ".py", ".h", ".cpp"), *texts_in("tests", ".supp"))


def state_of_tests(programs):
    """Changes when tests do, in what they are compiled from, load, or are compiled with."""
    work = Build("state").work
    code = [code_of(os.path.join(BUILD, "tests", program), os.path.join(work, program)) for program in programs]
    commands = [command for directory in (BUILD, SANITIZED, THREADS) for command in commands_of(directory, programs)]
    return digest(*code, *commands, *texts_in("tests/plugins", ".cpp", ".txt"))


def state_of_races():
    """Changes when the tests do that threads share something in."""
    return digest(*(text_of(source_of(program)) for program in RACES), *texts_in("tests/support", ".h", ".cpp"),
                  *commands_of(THREADS, RACES))  # fmt: skip


Verdict = collections.namedtuple("Verdict", "result by")


def name_of(identity):
    return json.dumps(identity, sort_keys=True)


def listed(path):
    """The reasons of the changes in a list, by their names. Each has to be there still."""
    with open(path) as file:
        entries = json.load(file)
    reasons = {name_of({key: value for key, value in entry.items() if key != "why"}): entry["why"] for entry in entries}
    there = {name_of(change.identity()) for source in {e["file"] for e in entries} for change in all_changes(source)}
    for name in reasons:
        if name not in there:
            sys.exit("mutate: %s has a change that is not there any more: %s" % (os.path.relpath(path, ROOT), name))
    return reasons


def all_changes(path):
    text = text_of(path)
    return [Change(path, text, *change) for change in changes_of(text)]


class Results:
    """What came of each change of a class, kept over runs. It holds for as long as nothing changes that it depends on; which
    case noticed a change stays of use even then."""

    def __init__(self, name):
        self.path = os.path.join(BUILD, "verdicts-%s.json" % name)
        self.lock = threading.Lock()
        self.known = {}
        if os.path.exists(self.path):
            with open(self.path) as file:
                self.known = json.load(file)

    def get(self, change, state):
        known = self.known.get(name_of(change.identity()))
        return Verdict(known["result"], self.noticed_by(change)) if known and known["state"] == state else None

    def noticed_by(self, change):
        """Who noticed a change when it was tried last, whatever has changed since."""
        by = self.known.get(name_of(change.identity()), {}).get("by")
        return Noticed(*by) if by else None

    def put(self, change, state, verdict):
        with self.lock:
            self.known[name_of(change.identity())] = {"result": verdict.result, "state": state, "by": verdict.by}
            with open(self.path + ".new", "w") as file:
                json.dump(self.known, file)
            os.replace(self.path + ".new", self.path)


# ----------------------------------------------------------------------------------------------------------------- A class


class Changes:
    """All changes of a class that run by a switch, in one library; the rest is left to be compiled one by one."""

    def __init__(self, build, tests, units, changes):
        self.tests = tests
        self.build = build
        self.units = units  # the sources that are compiled with a changed file, by that file
        self.numbers = dict(enumerate(changes, 1))
        self.setting = None
        self.functions = {}

    def make(self):
        """Compiles what does compile. Returns the sources that were compiled, by their objects, or None."""
        while self.numbers:
            self.texts, self.functions, last = {}, {}, 0
            for path in self.units:
                numbers = {n: change for n, change in self.numbers.items() if change.path == path}
                self.texts[path] = Switched(text_of(path), numbers, last)
                self.functions.update(self.texts[path].functions)
                last = self.texts[path].last_function
            self.numbers = {n: change for n, change in self.numbers.items() if n in self.functions}
            blamed = self.blamed()
            if blamed is None:
                return None
            if not blamed:
                break
            self.numbers = {n: change for n, change in self.numbers.items() if n not in blamed}
        objects = {source: self.compile(source, []) for source in self.sources()}
        return None if any(refused(result) for _, result in objects.values()) else {
            source: target for source, (target, _) in objects.items()
        }  # fmt: skip

    def sources(self):
        changed = {change.path for change in self.numbers.values()}
        return sorted({source for path in changed for source in self.units[path]})

    def compile(self, source, more):
        text = self.texts[source].text if source in self.texts else text_of(source)
        path = self.build.put(source, text)
        more = ["-include", SWITCH + ".h", "-I", self.build.headers, *more]
        return path + ".o", self.build.compile(source, path, path + ".o", more)

    def blamed(self):
        """The changes that do not compile; None where it is not known what does not."""
        self.build.change_headers({path: switched.text for path, switched in self.texts.items()})
        blamed = set()
        for source in self.sources():
            _, result = self.compile(source, ["-fsyntax-only"])
            if refused(result):
                lines = result.stdout.decode(errors="replace").splitlines()
                # A template's error may be said to be where it is used.
                found = self.blamed_by([line for line in lines if "error:" in line]) or self.blamed_by(lines)
                if not found:
                    return None
                blamed |= found
        return blamed

    def blamed_by(self, lines):
        names = {os.path.basename(path): path for path in self.texts}
        places = [re.match(r"(?:.*/)?([\w.]+):(\d+):\d+:", line) for line in lines]
        return {
            number
            for place in places
            if place and place.group(1) in names
            for number in self.texts[names[place.group(1)]].blamed(int(place.group(2)))
        }

    def link(self, objects):
        switch = os.path.join(self.build.work, "switch.o")
        checked(run(["g++", "-O1", "-fPIC", "-c", SWITCH + ".cpp", "-o", switch]))
        return self.build.link(objects, self.tests.programs, switch)

    def prepare(self, name):
        objects = self.make()
        setting = self.link(objects or {})
        if objects is None or setting is None:
            print("mutate: the changes of %s do not compile together: they are compiled one by one" % name, file=sys.stderr)
            self.functions = {}
            setting = Setting()
        failed = self.tests.measure(setting, os.path.join(self.build.work, "marks"))
        if failed:
            sys.exit("mutate: %s fails without any change of %s" % (failed, name))
        self.setting = setting
        self.numbers = {id(change): number for number, change in self.numbers.items() if number in self.functions}

    def chosen(self, change):
        """The setting in which a change runs, and the function that it is in; None for a change that has no switch."""
        number = self.numbers.get(id(change)) if self.functions else None
        if number is None:
            return None
        return Setting(self.setting.library, self.setting.replaced, number), self.functions[number]


class Class:
    """A class whose changes are tried, by as many threads as there are."""

    CHUNK = 20  # so many changes are tried by one thread before another class may have its turn

    def __init__(self, name, options, lists, deadline):
        self.name = name
        self.options = options
        self.deadline = deadline
        self.lists = lists
        files, programs, *compiled = CLASSES[name]
        self.compiled = compiled[0] if compiled else [path for path in files if path.endswith(".cpp")]
        self.files = files
        self.tests = Tests(programs)
        self.sanitized = SanitizedTests(name, programs, SANITIZED)
        self.races = SanitizedTests(name, RACES, THREADS)
        self.state = digest(lists.state, state_of_tests(programs))
        self.results = Results(name)
        self.counts = {"noticed": 0, "sanitized": 0, "survived": 0, "equivalent": 0, "same": 0, "invalid": 0}
        self.late = 0  # changes that were noticed because a test did not end in time
        self.survivors = []
        self.lock = threading.Lock()
        self.units = {}
        changes = [change for path in files for change in all_changes(path)]
        self.total = len(changes)
        random.Random(options.seed).shuffle(changes)
        self.left = []
        for change in changes[: options.sample or self.total]:
            equivalent = name_of(change.identity()) in lists.equivalents
            verdict = Verdict("equivalent", None) if equivalent else self.results.get(change, self.state_of(change))
            if verdict is None:
                self.left.append(change)
            else:
                self.count(change, verdict)

    def is_for_races(self, change):
        return self.name in SHARED and change.concerns_locks()

    def state_of(self, change):
        """Changes when anything does that the verdict of a change depends on."""
        return digest(self.state, change.path, change.text, *([self.lists.races_state] if self.is_for_races(change) else []))

    def count(self, change, verdict):
        with self.lock:
            self.counts[verdict.result] += 1
            self.late += bool(verdict.by and verdict.by.late)
            if verdict.result == "survived":
                self.survivors.append(change)
                if self.options.verbose:
                    print(json.dumps(change.identity()), flush=True)

    def reason(self, change):
        """Why it is accepted that a change survives; None where it is not."""
        return self.lists.accepted.get(name_of(change.identity()))

    def share(self):
        """How many percent of the changes that make a difference were noticed."""
        noticed = self.counts["noticed"] + self.counts["sanitized"]
        judged = noticed + self.counts["survived"]
        return 100.0 * noticed / judged if judged else 100.0

    def begin(self, crew):
        """Prepares the changes that are left, and hands them out."""
        if not self.left or time.time() > self.deadline:
            return self.report()
        build = Build(self.name, "all")
        self.units = {path: self.units_of(build, path, self.tests.programs) for path in self.files}
        self.changes = Changes(build, self.tests, self.units, self.left)
        self.changes.prepare(self.name)
        # One function after the other, so that what noticed one change is likely to notice the next. What takes long comes first.
        self.left.sort(key=lambda change: (self.changes.chosen(change) is not None, change.path, change.start))
        chunks = [self.left[i : i + self.CHUNK] for i in range(0, len(self.left), self.CHUNK)]
        self.chunks_left = len(chunks)
        for chunk in chunks:
            crew.add(0, lambda chunk=chunk: self.try_changes(chunk))

    def units_of(self, build, path, programs):
        """The sources of the class and of some tests that are compiled with a file."""
        sources = [path] if path.endswith(".cpp") else self.compiled + [source_of(program) for program in programs]
        return [source for source in sources if source == path or build.includes(source, path)]

    def try_changes(self, chunk):
        build = Build(self.name, threading.current_thread().name)
        for change in chunk:
            if time.time() > self.deadline:
                break
            verdict = self.examine(change, build)
            self.results.put(change, self.state_of(change), verdict)
            self.count(change, verdict)
        with self.lock:
            self.chunks_left -= 1
            last = self.chunks_left == 0
        if last:
            self.report()

    def examine(self, change, build):
        """'invalid', 'same', 'noticed', 'sanitized' (noticed by the sanitizers alone) or 'survived', and by whom."""
        before = self.results.noticed_by(change)
        chosen = self.changes.chosen(change)
        by = chosen and (self.tests.notice_again(chosen[0], before) or self.tests.notice_soon(*chosen))
        if by:
            return Verdict("noticed", by)
        objects = self.changed_objects(change, build)
        if not objects:
            return Verdict("invalid" if objects is None else "same", None)
        setting = build.link(objects, self.tests.programs)
        if setting is None:
            return Verdict("invalid", None)
        by = None if chosen else self.tests.notice_again(setting, before) or self.tests.notice_soon(setting)
        by = by or self.tests.notice(setting)
        if by:
            return Verdict("noticed", by)
        by = self.notice_sanitized(change)
        return Verdict("sanitized" if by else "survived", by)

    def notice_sanitized(self, change):
        """Whether the sanitizers notice a change that the tests alone do not."""
        by = self.sanitized.notice(lambda build: self.objects_of(change, build, self.units[change.path]))
        if by or not self.is_for_races(change):
            return by
        return self.races.notice(
            lambda build: self.objects_of(change, build, self.units_of(build, change.path, self.races.programs))
        )

    def changed_objects(self, change, build):
        """The objects that a change makes others, by their sources; None where it does not compile."""
        objects = self.objects_of(change, build, self.units[change.path])
        if objects is None:
            return None
        return {s: path for s, path in objects.items() if build.code_of(path) != build.code_without_change(s)}

    def objects_of(self, change, build, sources):
        """The objects of sources that are compiled with a changed file; None where it does not compile."""
        objects, more = {}, []
        if change.path.endswith(".h"):
            build.change_headers({change.path: change.text})
            more = ["-I", build.headers]
        for source in sources:
            changed = build.changed_object(source, change.text if source == change.path else text_of(source), more)
            if changed is None:
                return None
            objects[source] = changed
        return objects

    def report(self):
        counts = self.counts
        lines = [
            "%s: %d of %d changes tried: %d noticed (%d for the time that a test took, %d by the sanitizers alone), "
            "%d survived (%.1f %% noticed); %d listed as equivalent, %d compile to the same, %d do not compile"
            % (self.name, sum(counts.values()), self.total, counts["noticed"] + counts["sanitized"], self.late,
               counts["sanitized"], counts["survived"], self.share(), counts["equivalent"], counts["same"], counts["invalid"])
        ]
        for change in sorted(self.survivors, key=lambda change: (change.path, change.start)):
            reason = self.reason(change)
            lines.append("  %s%s" % (change, " (accepted: %s)" % reason if reason else ""))
        print("\n".join(lines), flush=True)


class Crew:
    """Threads that do what there is to do, the lowest rank first."""

    def __init__(self):
        self.changed = threading.Condition()
        self.tasks = []
        self.added = self.left = 0
        self.error = None

    def add(self, rank, task):
        with self.changed:
            self.added += 1
            self.left += 1
            heapq.heappush(self.tasks, (rank, self.added, task))
            self.changed.notify_all()

    def work(self):
        while True:
            with self.changed:
                self.changed.wait_for(lambda: self.tasks or not self.left or self.error)
                if not self.tasks or self.error:
                    return
                task = heapq.heappop(self.tasks)[2]
            error = None
            try:
                task()
            except BaseException as caught:  # sys.exit() ends no more than a thread
                error = caught
            with self.changed:
                self.error = self.error or error
                self.left -= 1
                self.changed.notify_all()

    def run(self, size):
        threads = [threading.Thread(target=self.work, name=str(i), daemon=True) for i in range(size)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        if self.error:
            raise self.error


# What all classes are judged by: the reasons of both lists by the names of the changes, and what all verdicts depend on.
Lists = collections.namedtuple("Lists", "equivalents accepted state races_state")


def options_of(arguments):
    parser = argparse.ArgumentParser(usage="scripts/mutate [--seed N] [--sample N] [--seconds N] [--verbose] [CLASS...]")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--sample", type=int, default=0)
    parser.add_argument("--seconds", type=int, default=0)
    parser.add_argument("--least", type=float, default=95.0)
    parser.add_argument("--verbose", action="store_true")
    parser.add_argument("classes", nargs="*")
    options = parser.parse_args(arguments)
    for name in options.classes:
        if name not in CLASSES:
            sys.exit("mutate: no class named %s; there are: %s" % (name, " ".join(CLASSES)))
    return options


def faults_of(classes, least):
    """Why a run fails: every survivor has to be looked at, whatever share of the changes is noticed."""
    for one in classes:
        if one.share() < least:
            yield "%s: %.1f %% noticed, which is less than %g %%" % (one.name, one.share(), least)
        unlisted = sum(1 for change in one.survivors if not one.reason(change))
        if unlisted:
            yield "%s: %d survived that no list has; a test is missing, or a reason" % (one.name, unlisted)


def main():
    options = options_of(sys.argv[1:])
    names = options.classes or list(CLASSES)
    equivalents, accepted = listed(EQUIVALENTS), listed(ACCEPTED)
    if run(sandboxed(["true"])).returncode != 0:
        sys.exit("mutate: bubblewrap does not work here, and nothing changed is run outside it")
    programs = sorted({program for name in names for program in CLASSES[name][1]})
    build_programs(BUILD, programs)
    lists = Lists(equivalents, accepted, state_of_library(), state_of_races())
    deadline = time.time() + options.seconds if options.seconds else float("inf")
    classes = [Class(name, options, lists, deadline) for name in names]
    crew = Crew()
    # What is begun is ended before the next class is begun; the largest first, so that all processors are busy to the end.
    for tried in sorted(classes, key=lambda one: -len(one.left)):
        crew.add(1, lambda tried=tried: tried.begin(crew))
    crew.run(int(os.environ.get("JOBS") or os.cpu_count()))
    noticed = sum(tried.counts["noticed"] + tried.counts["sanitized"] for tried in classes)
    judged = noticed + sum(tried.counts["survived"] for tried in classes)
    if not judged:
        sys.exit("mutate: no change was judged")
    print("All: %d of %d changes noticed (%.1f %%)" % (noticed, judged, 100.0 * noticed / judged))
    faults = list(faults_of(classes, options.least))
    if faults:
        print(*faults, sep="\n")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
