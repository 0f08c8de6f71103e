#!/usr/bin/env python3
"""count.py COUNTER RESULTS BITS=COMMAND...

Counts the instructions of each job of LinearJobs at each of its sizes, with the library and bare: for each BITS (64, 32)
by COMMAND, an emulator's with the program behind it. COUNTER is the emulators' plug-in. Writes RESULTS, a file of JSON.
"""
import json
import os
import re
import shlex
import subprocess
import sys


def instructions(emulator, counter, program, *arguments):
    """What the measured part of one run takes."""
    command = [*emulator, "-plugin", counter, *program, *arguments]
    # A call's function is looked up before the program begins, not when it is called for the first time.
    result = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False,
                            env={**os.environ, "LD_BIND_NOW": "1"})
    found = re.findall(r"^instructions (\d+)$", result.stderr, re.MULTILINE)
    if result.returncode != 0 or len(found) != 1:
        sys.exit(f"count.py: {shlex.join(command)}: status {result.returncode}\n{result.stderr}")
    return int(found[0])


def jobs(program):
    """The program's own list, which the emulated ones have too."""
    lines = subprocess.run([program, "--list"], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()
    for line in lines:
        name, title, unit, sizes, bare = line.split("|")
        yield name, title, unit, [int(size) for size in sizes.split(",")], bare != ""


def main():
    counter, target, *targets = sys.argv[1:]
    commands = {}
    for bits, _, command in (argument.partition("=") for argument in targets):
        *emulator, program = shlex.split(command)
        commands[bits] = emulator, [program]
    results = []
    for name, title, unit, sizes, has_bare in jobs(commands["64"][1][0]):
        for size in sizes:
            row = {"job": name, "title": title, "size": size, "units": size if unit == "n" else int(unit)}
            for bits, (emulator, program) in commands.items():
                row[bits] = instructions(emulator, counter, program, name, str(size))
                if has_bare:
                    row["bare " + bits] = instructions(emulator, counter, program, "--bare", name, str(size))
            results.append(row)
            print(f"{title}, {size}: " + ", ".join(f"{row[bits] / row['units']:.1f} ({bits} bits)" for bits in commands),
                  flush=True)
    with open(target, "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)


if __name__ == "__main__":
    main()
