"""Changes the library in one place at a time and sees whether the tests of the class notice.

Started by scripts/mutate, which sees to the build. A change is an operator, a constant, a condition or a statement; comments
and texts are spared. A changed source is compiled and linked with the other objects of the library, and the result put in
front of the real one (LD_PRELOAD) of the test programs of its class. They run where they can break nothing: the file system
is read-only but for a small /tmp, with a network and processes of their own.
"""

import argparse
import concurrent.futures
import hashlib
import json
import os
import random
import re
import shlex
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.path.join(ROOT, "build", "mutate")
LIBRARY = "libkalvoren-sharedd.so.1"
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
    "KString": (["src/api/KString.cpp", "inc/KString.h"], ["KStringTest"]),
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


# ------------------------------------------------------------------------------------------------------------ The changes


def blank_out(text):
    """The text with comments, texts, characters and preprocessor lines blanked out, every byte in its place."""
    pattern = re.compile(
        r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|^[ \t]*#(?:[^\n]*\\\n)*[^\n]*',
        re.DOTALL | re.MULTILINE,
    )
    return pattern.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), text)


# Operators stand between blanks where they are binary: the formatting tells them from templates, pointers and signs.
SWAPS = {
    "==": ["!="],
    "!=": ["=="],
    "<": ["<=", ">"],
    "<=": ["<", ">"],
    ">": [">=", "<"],
    ">=": [">", "<"],
    "&&": ["||"],
    "||": ["&&"],
    "+": ["-"],
    "-": ["+"],
    "*": ["/"],
    "/": ["*"],
    "%": ["*"],
    "&": ["|"],
    "|": ["&"],
    "+=": ["-="],
    "-=": ["+="],
}


def closing(text, opening):
    """The place of the bracket that closes the one at a place; -1 where it is missing."""
    depth = 0
    for i in range(opening, len(text)):
        depth += {"(": 1, ")": -1}.get(text[i], 0)
        if depth == 0:
            return i
    return -1


def is_statement(line):
    """Whether a line is a whole statement that can be left out: a call or an assignment, no declaration."""
    line = line.strip()
    if not line.endswith(";") or line.count("(") != line.count(")") or line.count("{") != line.count("}"):
        return False
    if re.match(r"(return|using|typedef|static_assert|static|const|constexpr|case|default|goto|friend|extern|template)\b", line):
        return False
    if re.match(r"(break|continue);$", line):
        return True
    # Two words in a row begin a declaration.
    if re.match(r"[\w:]+(<.*>)?[*&]*\s+[*&]*\w+\s*(=|\(|\{|;|\[)", line):
        return False
    return re.match(r"(\+\+|--|\*)?[\w:~]+(<[^<>]*>)?\s*(\(|\.|->|\[|=|\+=|-=|\|=|&=|\*=|\+\+|--|;)", line) is not None or (
        re.match(r"(\+\+|--|\*|\()", line) is not None
    )


def changes_of(text):
    """Every change of a source: (from, to, replacement, kind), in order."""
    plain = blank_out(text)
    found = []

    for match in re.finditer(r"(?<= )(==|!=|<=|>=|<|>|&&|\|\||\+=|-=|\+|-|\*|/|%|&|\|)(?= )", plain):
        for other in SWAPS[match.group()]:
            found.append((match.start(), match.end(), other, "operator"))
    for match in re.finditer(r"\+\+|--", plain):
        found.append((match.start(), match.end(), "--" if match.group() == "++" else "++", "operator"))
    for match in re.finditer(r"!(?=[\w(*])", plain):
        found.append((match.start(), match.end(), "", "operator"))
    for match in re.finditer(r"(?<![\w.'])(\d+)(?![\w.'])", plain):
        number = int(match.group())
        for other in {str(number + 1), "0" if number else "1"}:
            found.append((match.start(), match.end(), other, "constant"))
    for match in re.finditer(r"\b(true|false|nullptr)\b", plain):
        other = {"true": "false", "false": "true"}.get(match.group())
        if other:
            found.append((match.start(), match.end(), other, "constant"))
    for match in re.finditer(r"\b(if|while) \(", plain):
        end = closing(plain, match.end() - 1)
        inner = text[match.end() : end]
        if end > 0 and " = " not in blank_out(inner) and ";" not in inner:
            other = "!(%s)" % inner if match.group(1) == "if" else "false && (%s)" % inner
            found.append((match.end(), end, other, "condition"))
    for match in re.finditer(r"\breturn ([^;{}]+);", plain):
        value = text[match.start(1) : match.end(1)]
        if value not in ("0", "false", "nullptr", "true", "*this") and not value.startswith("[" ):
            found.append((match.start(1), match.end(1), "{}", "statement"))
    place = 0
    for line in plain.splitlines(keepends=True):
        if is_statement(line):
            stripped = line.strip()
            start = place + line.index(stripped)
            found.append((start, start + len(stripped), ";", "statement"))
        place += len(line)
    return sorted(set(found))


class Change:
    """One change of one file."""

    def __init__(self, path, text, start, end, other, kind):
        self.path = path
        self.start = start
        self.old = text[start:end]
        self.new = other
        self.kind = kind
        self.text = text[:start] + other + text[end:]
        self.line = text.count("\n", 0, start) + 1
        first = text.rfind("\n", 0, start) + 1
        self.line_text = text[first : text.find("\n", start)].strip()
        # Which of the lines that read like this one it is.
        self.nth = sum(1 for line in text[:first].splitlines() if line.strip() == self.line_text)
        indent = len(text[first:start]) - len(text[first:start].lstrip())
        self.column = start - first - (indent if text[first:start].strip() else start - first)

    def identity(self):
        """What tells the change from others, wherever its line moves to."""
        return {"file": self.path, "in": self.line_text, "nth": self.nth, "at": self.column, "old": self.old,
                "new": self.new}  # fmt: skip

    def __str__(self):
        new = self.new.replace("\n", " ")
        old = self.old.replace("\n", " ")
        return "%s:%d: %s: '%s' -> '%s' in: %s" % (self.path, self.line, self.kind, old, new, self.line_text)


# -------------------------------------------------------------------------------------------------------------- The build


def run(command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, **options)


def text_of(path):
    with open(os.path.join(ROOT, path)) as file:
        return file.read()


def source_of(program):
    return os.path.join("tests", os.path.basename(program) + ".cpp")


def digest(*parts):
    return hashlib.sha256("\0".join(parts).encode()).hexdigest()


class Build:
    """Compiles changed files with the commands that compile the real ones."""

    def __init__(self, name):
        with open(os.path.join(BUILD, "compile_commands.json")) as file:
            self.entries = json.load(file)
        self.work = os.path.join(BUILD, "changed", name)
        self.headers = os.path.join(self.work, "include")
        os.makedirs(self.headers, exist_ok=True)
        self.plain = {}

    def entry(self, source):
        path = os.path.join(ROOT, source)
        for entry in self.entries:
            if entry["file"] == path:
                return entry
        sys.exit("mutate: %s is not part of the build" % source)

    def compile(self, source, path, target, more=()):
        """Compiles a file as if it were another; returns whether that worked."""
        entry = self.entry(source)
        words = shlex.split(entry["command"])
        words[words.index("-o") + 1] = target
        words[words.index("-c") + 1] = path
        words = [word for word in words if word not in ("-Werror", "-g", "-g1")]
        directory = os.path.dirname(os.path.join(ROOT, source))
        # What the source includes by a path from its own directory.
        words[1:1] = ["-w", *more, "-I", directory]
        return run(words, cwd=entry["directory"]).returncode == 0

    def objects(self):
        """The object of each source of the library, by source."""
        objects = {}
        for entry in self.entries:
            words = shlex.split(entry["command"])
            target = words[words.index("-o") + 1]
            if target.startswith("CMakeFiles/kalvoren-sharedd.dir/"):
                objects[os.path.relpath(entry["file"], ROOT)] = os.path.join(entry["directory"], target)
        return objects

    def link(self, changed):
        """Links the library with the objects of some sources changed."""
        library = os.path.join(self.work, LIBRARY)
        objects = [changed.get(name, path) for name, path in sorted(self.objects().items())]
        words = ["g++", "-shared", "-o", library, "-Wl,-soname," + LIBRARY]
        words += ["-Wl,--version-script," + os.path.join(ROOT, "src", "exports.map"), "-pthread", *objects, "-ldl"]
        return library if run(words).returncode == 0 else None

    def code_of(self, path):
        """What an object does, without what it says about where it came from."""
        bare = path + ".bare"
        run(["objcopy", "--strip-debug", "--remove-section=.comment", path, bare])
        with open(bare, "rb") as file:
            return hashlib.sha256(file.read()).hexdigest()

    def code_without_change(self, source):
        if source not in self.plain:
            self.plain[source] = self.changed_object(source, text_of(source))
            if self.plain[source] is None:
                sys.exit("mutate: %s does not compile without a change" % source)
        return self.plain[source][1]

    def changed_object(self, source, text, more=()):
        """Compiles a text in place of a source: the object's path and its code, or None."""
        path = os.path.join(self.work, os.path.basename(source))
        target = path + ".o"
        with open(path, "w") as file:
            file.write(text)
        if not self.compile(source, path, target, more):
            return None
        return target, self.code_of(target)

    def change_header(self, path, text):
        """Puts all headers, one of them with a text of its own, where they are found before the real ones."""
        for place in ("inc", "src"):
            for name in os.listdir(os.path.join(ROOT, place)):
                if name.endswith(".h"):
                    header = os.path.join(place, name)
                    with open(os.path.join(self.headers, name), "w") as file:
                        file.write(text if header == path else text_of(header))

    def program(self, program, test):
        """Links a test program of another object."""
        program = os.path.join(self.work, os.path.basename(program))
        libraries = [os.path.join(BUILD, "tests", "lib%s.a" % part) for part in ("kalvoren-test-support", "kalvoren-googletest")]
        words = ["g++", "-o", program, test, *libraries, "-L" + BUILD, "-lkalvoren-sharedd", "-Wl,-rpath," + BUILD, "-pthread",
                 "-ldl"]  # fmt: skip
        return program if run(words).returncode == 0 else None


# -------------------------------------------------------------------------------------------------------------- The tests


def sandboxed(command):
    """A command that can change nothing outside it, whatever a changed library does."""
    # Tests of permissions write to /tmp as another user than the one that started them.
    return ["bwrap", "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc", "--perms", "1777", "--tmpfs", "/tmp",
            "--perms", "1777", "--tmpfs", "/var/tmp", "--unshare-pid", "--unshare-net", "--unshare-ipc",
            "--die-with-parent", "--setenv", "TMPDIR", "/tmp", "--chdir", os.path.join(BUILD, "tests"),
            *command]  # fmt: skip


class Tests:
    # So many of the cases that noticed changes before are run ahead of all others: they are likely to notice the next.
    AHEAD = 25

    def __init__(self, programs):
        self.programs = [os.path.join(BUILD, "tests", program) for program in programs]
        self.seconds = {}
        self.cases = {}
        self.noticing = {program: [] for program in self.programs}
        self.late = 0  # changes that were noticed because a test did not end in time

    def passes(self, library=None, program=None, replaced=None, limit=300.0, more=()):
        """Whether a test program passes, with a changed library in front or replaced by another program."""
        command = [(replaced or {}).get(program, program), "--gtest_color=no", "--gtest_fail_fast", *more]
        if library:
            command = ["env", "LD_PRELOAD=" + library, *command]
        started = time.time()
        with tempfile.TemporaryFile() as output:
            try:
                result = subprocess.run(sandboxed(command), stdout=output, stderr=subprocess.DEVNULL,
                                        stdin=subprocess.DEVNULL, timeout=limit)  # fmt: skip
                passed = result.returncode == 0
            except subprocess.TimeoutExpired:
                passed = False
                self.late += 1
            if not passed:
                output.seek(0)
                self.remember(program, output.read())
        if not more:
            self.seconds.setdefault(program, time.time() - started)
        return passed

    def remember(self, program, output):
        """Keeps the case that a program ended in, the latest first."""
        started = re.findall(rb"^\[ RUN      \] (\S+)", output, re.MULTILINE)
        if started:
            noticing = self.noticing[program]
            case = started[-1].decode()
            noticing[:] = [case] + [other for other in noticing if other != case]

    def notice(self, library=None, replaced=None):
        for program in self.programs:
            ahead = self.noticing[program][: self.AHEAD]
            if ahead and not self.passes(library, program, replaced, 20.0, ["--gtest_filter=" + ":".join(ahead)]):
                return True
        for program in self.programs:
            limit = max(20.0, 6 * self.seconds[program])
            if not self.passes(library, program, replaced, limit):
                return True
        # As CTest starts them: what one case leaves in the process may hide a change from the next.
        return any(not self.passes_apart(library, program, replaced) for program in self.programs)

    def passes_apart(self, library, program, replaced):
        if program not in self.cases:
            listed = run([program, "--gtest_list_tests"]).stdout.decode().splitlines()
            suite = ""
            self.cases[program] = []
            for line in listed:
                name = line.split("#")[0].strip()
                if line.startswith(" "):
                    self.cases[program].append(suite + name)
                elif name.endswith("."):
                    suite = name
        return all(
            self.passes(library, program, replaced, 60.0, ["--gtest_filter=" + case]) for case in self.cases[program]
        )

    def state(self):
        """Changes when a test does: a survivor is looked at again then."""
        states = []
        for program in self.programs:
            with open(program, "rb") as file:
                states.append(hashlib.sha256(file.read()).hexdigest())
        return digest(*states)


# ----------------------------------------------------------------------------------------------------------------- A class


class Results:
    """What came of each change of a class, kept over runs."""

    def __init__(self, name):
        self.path = os.path.join(BUILD, "results-%s.json" % name)
        self.known = {}
        if os.path.exists(self.path):
            with open(self.path) as file:
                self.known = json.load(file)

    def get(self, change, state):
        known = self.known.get(digest(change.path, change.text))
        return known["result"] if known and (known["result"] != "survived" or known["state"] == state) else None

    def put(self, change, state, result):
        self.known[digest(change.path, change.text)] = {"result": result, "state": state}
        with open(self.path + ".new", "w") as file:
            json.dump(self.known, file)
        os.replace(self.path + ".new", self.path)


def examine(change, build, tests, compiled):
    """'invalid', 'same', 'noticed' or 'survived'."""
    if change.path.endswith(".h"):
        return examine_header(change, build, tests, compiled)
    plain = build.code_without_change(change.path)
    changed = build.changed_object(change.path, change.text)
    if changed is None:
        return "invalid"
    if changed[1] == plain:
        return "same"
    library = build.link({change.path: changed[0]})
    if library is None:
        return "invalid"
    return "noticed" if tests.notice(library=library) else "survived"


def examine_header(change, build, tests, compiled):
    """The same for a header, with which sources of the library and the tests are compiled anew."""
    objects, replaced = {}, {}
    build.change_header(change.path, change.text)
    for source in compiled + [source_of(program) for program in tests.programs]:
        plain = build.code_without_change(source)
        changed = build.changed_object(source, text_of(source), ["-I", build.headers])
        if changed is None:
            return "invalid"
        if changed[1] != plain:
            objects[source] = changed[0]
    if not objects:
        return "same"
    for program in tests.programs:
        if source_of(program) in objects:
            replaced[program] = build.program(program, objects[source_of(program)])
    library = build.link(objects)
    if library is None or None in replaced.values():
        return "invalid"
    return "noticed" if tests.notice(library, replaced) else "survived"


def check_setting(name, compiled, build, tests):
    """What is not changed has to pass in the same setting, or every change would seem to be noticed."""
    for program in tests.programs:
        if not tests.passes(program=program):
            sys.exit("mutate: %s fails without any change" % os.path.basename(program))
    build.change_header("", "")
    objects, replaced = {}, {}
    for source in compiled + [source_of(program) for program in tests.programs]:
        plain = build.changed_object(source, text_of(source), ["-I", build.headers])
        if plain is None or plain[1] != build.code_without_change(source):
            sys.exit("mutate: %s does not compile to the same without a change" % source)
        objects[source] = plain[0]
    for program in tests.programs:
        replaced[program] = build.program(program, objects[source_of(program)])
    library = build.link(objects)
    if library is None or not all(tests.passes(library, program, replaced) for program in tests.programs):
        sys.exit("mutate: the tests of %s fail with a library that was put in front" % name)


def report(name, counts, total, late, survivors):
    judged = counts["noticed"] + counts["survived"]
    share = 100.0 * counts["noticed"] / judged if judged else 100.0
    print(
        "%s: %d of %d changes tried: %d noticed (%d for the time that a test took), %d survived (%.1f %% noticed); "
        "%d listed as equivalent, %d compile to the same, %d do not compile"
        % (name, sum(counts.values()), total, counts["noticed"], late, counts["survived"], share, counts["equivalent"],
           counts["same"], counts["invalid"]),  # fmt: skip
        flush=True,
    )
    for survivor in survivors:
        print("  " + str(survivor), flush=True)


def mutate(name, options, equivalents, deadline):
    files, programs, *compiled = CLASSES[name]
    compiled = compiled[0] if compiled else [path for path in files if path.endswith(".cpp")]
    build = Build(name)
    tests = Tests(programs)
    results = Results(name)
    check_setting(name, compiled, build, tests)
    state = tests.state()
    changes = [Change(path, text_of(path), *change) for path in files for change in changes_of(text_of(path))]
    total = len(changes)
    random.Random(options.seed).shuffle(changes)
    counts = {"noticed": 0, "survived": 0, "equivalent": 0, "same": 0, "invalid": 0}
    survivors = []
    for change in changes[: options.sample or total]:
        if time.time() > deadline:
            break
        if change.identity() in equivalents:
            counts["equivalent"] += 1
            continue
        result = results.get(change, state)
        if result is None:
            result = examine(change, build, tests, compiled)
            results.put(change, state, result)
        counts[result] += 1
        if result == "survived":
            survivors.append(change)
            if options.verbose:
                print(json.dumps(change.identity()), flush=True)
    survivors.sort(key=lambda change: (change.path, change.start))
    report(name, counts, total, tests.late, survivors)
    return counts


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
    if subprocess.run(["cmake", "--build", BUILD, "--target", "kalvoren-sharedd", *programs], stdout=sys.stderr).returncode != 0:
        sys.exit("mutate: the tests do not build")
    deadline = time.time() + options.seconds if options.seconds else float("inf")
    noticed = judged = 0
    # One class on each processor.
    with concurrent.futures.ThreadPoolExecutor(int(os.environ.get("JOBS") or os.cpu_count())) as pool:
        classes = [pool.submit(mutate, name, options, equivalents, deadline) for name in names]
        try:
            for counts in (done.result() for done in classes):
                noticed += counts["noticed"]
                judged += counts["noticed"] + counts["survived"]
        finally:
            pool.shutdown(cancel_futures=True)
    if not judged:
        sys.exit("mutate: no change was judged")
    share = 100.0 * noticed / judged
    print("All: %d of %d changes noticed (%.1f %%)" % (noticed, judged, share))
    return 0 if share >= options.least else 1


if __name__ == "__main__":
    sys.exit(main())
