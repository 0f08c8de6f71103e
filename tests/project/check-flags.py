#!/usr/bin/env python3
"""check-flags.py SOURCE-DIRECTORY BUILD-DIRECTORY strong|plain LIBRARY READELF

Every source of the library, of the tools and of the examples that are built is compiled with level 2 of libc's checked calls
and with the strong or the plain form of the stack protector, and those of the library are what the built file was made of.

A file shows only that one call is checked and one function protected. So the compiler is asked, by the command that compiles a
source, what it makes of the flags: a later one undoes an earlier one, and without optimisation libc checks nothing. Where
the library has debug information, the compiler wrote there too how it was called for each source.
"""
import concurrent.futures
import json
import pathlib
import re
import shlex
import subprocess
import sys

FLAGS = {"strong": "-fstack-protector-strong", "plain": "-fstack-protector"}


def commands(build):
    """How the sources of the library, the tools and the examples are compiled; tests and fuzz targets compile some of them too."""
    found = {}
    for entry in json.loads(pathlib.Path(build, "compile_commands.json").read_text(encoding="utf-8")):
        command = shlex.split(entry["command"])
        if re.match("CMakeFiles/kalvoren-sharedd.dir/|tools/|examples/", command[command.index("-o") + 1]):
            found[pathlib.Path(entry["file"]).resolve()] = {"directory": entry["directory"], "command": command}
    return found


def macros(entry, *more):
    """What is defined behind the last line of a source that is compiled by its command and more arguments; None if it is not."""
    command = entry["command"]
    output = command.index("-o")
    command = [*command[:output], *command[output + 2:], *more]
    command[command.index("-c")] = "-E"
    ended = subprocess.run([*command, "-dM"], cwd=entry["directory"], capture_output=True, text=True, check=False)
    if ended.returncode != 0:
        return None
    return dict(line.split(maxsplit=2)[1:] for line in ended.stdout.splitlines() if len(line.split(maxsplit=2)) == 3)


def complaint_of_command(form, defined):
    """What is wrong with a source of which this is defined."""
    if defined is None:
        return "is not compiled by its command"
    if defined.get("__USE_FORTIFY_LEVEL") != "2":
        return f"has level {defined.get('__USE_FORTIFY_LEVEL', 'none')} of libc's checked calls, not 2"
    protected = "strong" if "__SSP_STRONG__" in defined else "plain" if "__SSP__" in defined else "no"
    if protected != form:
        return f"has {protected} stack protection, not the {form} form"
    return None


def units(library, readelf):
    """Of each source in the debug information, how the compiler says that it was called."""
    text = subprocess.run([readelf, "--debug-dump=info", "--dwarf-depth=1", library], capture_output=True, text=True,
                          check=True).stdout
    found = {}
    for unit in text.split("Compilation Unit @")[1:]:
        attribute = dict(re.findall(r"DW_AT_(producer|name|comp_dir)\s*: (?:\([^)]*\): )?(.*)", unit))
        path = pathlib.Path(attribute["comp_dir"].strip(), attribute["name"].strip())
        found[path.resolve()] = attribute["producer"]
    return found


def complaints_of_units(form, found, sources):
    """What is wrong with the debug information, where there is any. Clang does not say how it was called."""
    if not found:
        return
    for source in sorted(sources - found.keys()):
        yield f"{source} is no part of the library, by its debug information"
    for source in sorted(sources & found.keys()):
        if found[source].startswith("GNU") and FLAGS[form] not in found[source].split():
            yield f"{source} was compiled without {FLAGS[form]}, by the debug information of the library"


def complaints(form, entries, sources):
    """What is wrong with the commands of the sources."""
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        defined = pool.map(lambda source: macros(entries[source]) if source in entries else None, sorted(sources))
        for source, found in zip(sorted(sources), defined):
            complaint = complaint_of_command(form, found)
            if complaint:
                yield f"{source} {complaint}"


def control(form, entries, found, sources):
    """A command that is a little worse has to be complained of, and so has debug information that says less."""
    other = "plain" if form == "strong" else "strong"
    entry = entries[min(sources)]
    for worse in (["-U_FORTIFY_SOURCE"], ["-U_FORTIFY_SOURCE", "-D_FORTIFY_SOURCE=1"], ["-O0", "-Wno-cpp", "-Wno-error"],
                  ["-fno-stack-protector"], [FLAGS[other]]):
        if not complaint_of_command(form, macros(entry, *worse)):
            yield f"{' '.join(worse)} behind a command is not noticed"
    if not found:
        return
    for source in (min(found), max(found)):
        weaker = found[source].replace(FLAGS[form], "-fno-stack-protector")
        if weaker != found[source] and not list(complaints_of_units(form, {**found, source: weaker}, sources)):
            yield f"debug information of {source} without stack protection is not noticed"
        if not list(complaints_of_units(form, {path: by for path, by in found.items() if path != source}, sources)):
            yield f"debug information without {source} is not noticed"


def main():
    root, build, form, library, readelf = sys.argv[1:]
    entries = commands(build)
    own = {path.resolve() for path in pathlib.Path(root, "src").glob("**/*.cpp")}
    tools = {path.resolve() for path in pathlib.Path(root, "tools").glob("**/*.cpp")}
    examples = {source for source in entries if source.is_relative_to(pathlib.Path(root, "examples").resolve())}
    found = {source: by for source, by in units(library, readelf).items() if source in own}
    wrong = [*complaints(form, entries, own | tools | examples), *complaints_of_units(form, found, own),
             *control(form, entries, found, own)]
    if wrong or not own or not tools:
        print(*wrong or ["there are no sources"], sep="\n")
    else:
        print(f"{len(own | tools | examples)} sources, {len(found)} of them in debug information")
    return 1 if wrong or not own or not tools else 0


if __name__ == "__main__":
    sys.exit(main())
