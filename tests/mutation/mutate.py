"""Changes the library in one place at a time and sees whether the tests of the class notice.

Started by scripts/mutate, which sees to the build. A change is an operator, a constant, a condition or a statement; comments
and texts are spared. Compiling each changed source would take most of the time, so that all changes of a class that are in the
bodies of functions are compiled as one library, and an environment variable says which one runs (see changes.py). Of the tests
those run first that reach the changed function. What none of them notices, and what cannot be chosen by a variable, is compiled
and linked by itself, and has to pass all tests of the class, in one process and in one for each case. What passes them is built
once more with the sanitizers of addresses and undefined behaviour, and counts as a survivor when they notice nothing either.

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
LIBRARY = "libkalvoren-sharedd.so.1.0.0"
SWITCH = os.path.join(ROOT, "tests", "mutation", "switch")
EQUIVALENTS = os.path.join(ROOT, "tests", "mutation", "equivalents.json")

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


# -------------------------------------------------------------------------------------------------------------- The build


def run(command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)


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
        return run(words, cwd=entry["directory"], env={**os.environ, "LC_ALL": "C"})

    def link_as(self, target, changed, more):
        """Links a target with the objects of some sources changed, as it is linked itself, or returns None."""
        listed = run(["ninja", "-C", self.directory, "-t", "commands", target]).stdout.decode().splitlines()
        line = [line for line in listed if " -o " + target in line][-1]
        words = shlex.split(line[line.index("&&") + 2 : line.rindex("&&")])
        for source, path in changed.items():
            names = [i for i, word in enumerate(words) if word.endswith("/" + os.path.basename(source) + ".o")]
            if names:
                words[names[0]] = path
        linked = os.path.join(self.work, os.path.basename(target))
        words[words.index("-o") + 1] = linked
        return linked if run([*words, *more], cwd=self.directory).returncode == 0 else None

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
        """What an object does, without what it says about where it came from."""
        bare = path + ".bare"
        run(["objcopy", "--strip-debug", "--remove-section=.comment", path, bare])
        with open(bare, "rb") as file:
            return hashlib.sha256(file.read()).hexdigest()

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
        return path + ".o" if self.compile(source, path, path + ".o", more).returncode == 0 else None

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
        listed = self.compile(source, os.path.join(ROOT, source), "/dev/stdout", ["-M"]).stdout.decode()
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


Outcome = collections.namedtuple("Outcome", "passed late case seconds")


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
        self.late = 0  # changes that were noticed because a test did not end in time
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
            ran = re.findall(rb"^\[ RUN      \] (\S+)", output.read(), re.MULTILINE)
        return Outcome(passed, late, ran[-1].decode() if ran else None, time.monotonic() - started)

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

    def fails(self, setting, program, cases):
        """Whether one of some cases fails, or does not end."""
        usual = sum(self.seconds[program][case] for case in cases)
        outcome = self.start(setting, program, cases, max(3.0, 5 * usual))
        if outcome.passed:
            return False
        # The processors may have been busy with something else: it has to fail again, with plenty of time.
        outcome = self.start_again(setting, program, cases, outcome)
        with self.lock:
            self.late += outcome.late
            if not outcome.passed and not outcome.late and outcome.case:
                noticing = self.noticing[program]
                noticing[:] = [outcome.case] + [other for other in noticing if other != outcome.case]
        return not outcome.passed

    def start_again(self, setting, program, cases, first):
        """What comes of cases that failed once: of the one that failed by itself, then of all."""
        usual = sum(self.seconds[program][case] for case in cases)
        if first.case:
            # How long the case takes now without a change tells how busy the processors are.
            alone = self.start(Setting(), program, [first.case], 60.0).seconds if first.late else usual
            outcome = self.start(setting, program, [first.case], max(10.0, 20 * alone))
            if not outcome.passed:
                return outcome
        return self.start(setting, program, cases, max(60.0, 20 * usual))

    def notice_soon(self, setting, function=None):
        """Whether the cases that reach a function, or all, notice a change: in few processes, the likely and quick ones first."""
        batches = []
        for program in self.programs:
            with self.lock:
                ahead = self.noticing[program][: self.AHEAD]
            cases = [case for case in self.cases[program] if function is None or function in self.reached[program][case]]
            cases.sort(key=lambda case: (case not in ahead or self.seconds[program][case] > 0.5, self.seconds[program][case]))
            batches += [(i, program, batch) for i, batch in enumerate(self.batches(program, cases))]
        return any(self.fails(setting, program, batch) for _, program, batch in sorted(batches))

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
        if any(self.fails(setting, program, self.cases[program]) for program in self.programs):
            return True
        # As CTest starts them: what one case leaves in the process may hide a change from the next.
        return any(self.fails(setting, program, [case]) for program in self.programs for case in self.cases[program])

    def state(self):
        """Changes when a test does, or how changes are tried: a survivor is looked at again then."""
        states = ["sanitized"]
        for program in self.programs:
            with open(program, "rb") as file:
                states.append(hashlib.sha256(file.read()).hexdigest())
        return digest(*states)


class SanitizedTests:
    """The tests of a class in the build with sanitizers, which is made when the first change comes that no test noticed."""

    lock = threading.Lock()

    def __init__(self, name, programs):
        self.name = name
        self.programs = programs
        self.tests = None

    def prepared(self):
        with SanitizedTests.lock:
            if self.tests is None:
                build_programs(SANITIZED, self.programs)
                tests = Tests(self.programs, SANITIZED)
                failed = tests.measure(Setting(), os.path.join(Build(self.name, directory=SANITIZED).work, "marks"))
                if failed:
                    sys.exit("mutate: %s fails with the sanitizers without any change" % failed)
                self.tests = tests
        return self.tests

    def late(self):
        return self.tests.late if self.tests else 0

    def notice(self, objects_of):
        """Whether the sanitizers notice what a function compiles."""
        tests = self.prepared()
        build = Build(self.name, threading.current_thread().name, directory=SANITIZED)
        objects = objects_of(build)
        setting = build.link(objects, tests.programs) if objects else None
        if setting is None:
            return False
        return any(tests.fails(setting, program, tests.cases[program]) for program in tests.programs)


# ----------------------------------------------------------------------------------------------------------------- A class


class Results:
    """What came of each change of a class, kept over runs."""

    def __init__(self, name):
        self.path = os.path.join(BUILD, "results-%s.json" % name)
        self.lock = threading.Lock()
        self.known = {}
        if os.path.exists(self.path):
            with open(self.path) as file:
                self.known = json.load(file)

    def get(self, change, state):
        known = self.known.get(digest(change.path, change.text))
        return known["result"] if known and (known["result"] != "survived" or known["state"] == state) else None

    def put(self, change, state, result):
        with self.lock:
            self.known[digest(change.path, change.text)] = {"result": result, "state": state}
            with open(self.path + ".new", "w") as file:
                json.dump(self.known, file)
            os.replace(self.path + ".new", self.path)


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
        return None if any(result.returncode for _, result in objects.values()) else {
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
            if result.returncode:
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
        if run(["g++", "-O1", "-fPIC", "-c", SWITCH + ".cpp", "-o", switch]).returncode != 0:
            sys.exit("mutate: the switch does not compile")
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

    def __init__(self, name, options, equivalents, deadline):
        self.name = name
        self.options = options
        self.deadline = deadline
        files, programs, *compiled = CLASSES[name]
        self.compiled = compiled[0] if compiled else [path for path in files if path.endswith(".cpp")]
        self.files = files
        self.tests = Tests(programs)
        self.sanitized = SanitizedTests(name, programs)
        self.state = self.tests.state()
        self.results = Results(name)
        self.counts = {"noticed": 0, "sanitized": 0, "survived": 0, "equivalent": 0, "same": 0, "invalid": 0}
        self.survivors = []
        self.lock = threading.Lock()
        self.units = {}
        changes = [Change(path, text_of(path), *change) for path in files for change in changes_of(text_of(path))]
        self.total = len(changes)
        random.Random(options.seed).shuffle(changes)
        self.left = []
        for change in changes[: options.sample or self.total]:
            result = "equivalent" if change.identity() in equivalents else self.results.get(change, self.state)
            if result is None:
                self.left.append(change)
            else:
                self.count(change, result)

    def count(self, change, result):
        with self.lock:
            self.counts[result] += 1
            if result == "survived":
                self.survivors.append(change)
                if self.options.verbose:
                    print(json.dumps(change.identity()), flush=True)

    def begin(self, crew):
        """Prepares the changes that are left, and hands them out."""
        if not self.left or time.time() > self.deadline:
            return self.report()
        build = Build(self.name, "all")
        for path in self.files:
            sources = [path] if path.endswith(".cpp") else self.compiled + [source_of(p) for p in self.tests.programs]
            self.units[path] = [s for s in sources if s == path or build.includes(s, path)]
        self.changes = Changes(build, self.tests, self.units, self.left)
        self.changes.prepare(self.name)
        # One function after the other, so that what noticed one change is likely to notice the next. What takes long comes first.
        self.left.sort(key=lambda change: (self.changes.chosen(change) is not None, change.path, change.start))
        chunks = [self.left[i : i + self.CHUNK] for i in range(0, len(self.left), self.CHUNK)]
        self.chunks_left = len(chunks)
        for chunk in chunks:
            crew.add(0, lambda chunk=chunk: self.try_changes(chunk))

    def try_changes(self, chunk):
        build = Build(self.name, threading.current_thread().name)
        for change in chunk:
            if time.time() > self.deadline:
                break
            result = self.examine(change, build)
            self.results.put(change, self.state, result)
            self.count(change, result)
        with self.lock:
            self.chunks_left -= 1
            last = self.chunks_left == 0
        if last:
            self.report()

    def examine(self, change, build):
        """'invalid', 'same', 'noticed', 'sanitized' (noticed by the sanitizers alone) or 'survived'."""
        chosen = self.changes.chosen(change)
        if chosen and self.tests.notice_soon(*chosen):
            return "noticed"
        objects = self.changed_objects(change, build)
        if objects is None:
            return "invalid"
        if not objects:
            return "same"
        setting = build.link(objects, self.tests.programs)
        if setting is None:
            return "invalid"
        if not chosen and self.tests.notice_soon(setting):
            return "noticed"
        if self.tests.notice(setting):
            return "noticed"
        return "sanitized" if self.sanitized.notice(lambda other: self.objects_of(change, other)) else "survived"

    def changed_objects(self, change, build):
        """The objects that a change makes others, by their sources; None where it does not compile."""
        objects = self.objects_of(change, build)
        if objects is None:
            return None
        return {s: path for s, path in objects.items() if build.code_of(path) != build.code_without_change(s)}

    def objects_of(self, change, build):
        """All objects that are compiled with a changed file, by their sources; None where it does not compile."""
        objects, more = {}, []
        if change.path.endswith(".h"):
            build.change_headers({change.path: change.text})
            more = ["-I", build.headers]
        for source in self.units[change.path]:
            changed = build.changed_object(source, change.text if source == change.path else text_of(source), more)
            if changed is None:
                return None
            objects[source] = changed
        return objects

    def report(self):
        counts = self.counts
        noticed = counts["noticed"] + counts["sanitized"]
        judged = noticed + counts["survived"]
        share = 100.0 * noticed / judged if judged else 100.0
        lines = [
            "%s: %d of %d changes tried: %d noticed (%d for the time that a test took, %d by the sanitizers alone), "
            "%d survived (%.1f %% noticed); %d listed as equivalent, %d compile to the same, %d do not compile"
            % (self.name, sum(counts.values()), self.total, noticed, self.tests.late + self.sanitized.late(),
               counts["sanitized"], counts["survived"], share, counts["equivalent"], counts["same"], counts["invalid"])
        ]
        lines += ["  " + str(change) for change in sorted(self.survivors, key=lambda change: (change.path, change.start))]
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


def main():
    parser = argparse.ArgumentParser(usage="scripts/mutate [--seed N] [--sample N] [--seconds N] [--verbose] [CLASS...]")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--sample", type=int, default=0)
    parser.add_argument("--seconds", type=int, default=0)
    parser.add_argument("--least", type=float, default=95.0)
    parser.add_argument("--verbose", action="store_true")
    parser.add_argument("classes", nargs="*")
    options = parser.parse_args()
    names = options.classes or list(CLASSES)
    for name in names:
        if name not in CLASSES:
            sys.exit("mutate: no class named %s; there are: %s" % (name, " ".join(CLASSES)))
    with open(EQUIVALENTS) as file:
        equivalents = [{key: entry[key] for key in ("file", "in", "nth", "at", "old", "new")} for entry in json.load(file)]
    for path in sorted({entry["file"] for entry in equivalents}):
        there = [Change(path, text_of(path), *change).identity() for change in changes_of(text_of(path))]
        for entry in equivalents:
            if entry["file"] == path and entry not in there:
                sys.exit("mutate: a change is listed as equivalent that is not there any more: %s" % json.dumps(entry))
    if run(sandboxed(["true"])).returncode != 0:
        sys.exit("mutate: bubblewrap does not work here, and nothing changed is run outside it")
    programs = sorted({program for name in names for program in CLASSES[name][1]})
    build_programs(BUILD, programs)
    deadline = time.time() + options.seconds if options.seconds else float("inf")
    classes = [Class(name, options, equivalents, deadline) for name in names]
    crew = Crew()
    # What is begun is ended before the next class is begun; the largest first, so that all processors are busy to the end.
    for tried in sorted(classes, key=lambda one: -len(one.left)):
        crew.add(1, lambda tried=tried: tried.begin(crew))
    crew.run(int(os.environ.get("JOBS") or os.cpu_count()))
    noticed = sum(tried.counts["noticed"] + tried.counts["sanitized"] for tried in classes)
    judged = noticed + sum(tried.counts["survived"] for tried in classes)
    if not judged:
        sys.exit("mutate: no change was judged")
    share = 100.0 * noticed / judged
    print("All: %d of %d changes noticed (%.1f %%)" % (noticed, judged, share))
    return 0 if share >= options.least else 1


if __name__ == "__main__":
    sys.exit(main())
