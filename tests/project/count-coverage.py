#!/usr/bin/env python3
"""count-coverage.py COVERAGE

Of a coverage in gcovr's form: how many branches only an exception takes, and which functions no test reaches. One that is made
of a template for a type for which nothing calls it does not count where the same is reached that was made for another type.
"""
import collections
import json
import pathlib
import sys


def main():
    branches, functions = [], collections.defaultdict(list)
    for file in json.loads(pathlib.Path(sys.argv[1]).read_text(encoding="utf-8"))["files"]:
        branches += [branch for line in file["lines"] for branch in line["branches"] if branch["throw"]]
        for function in file["functions"]:
            functions[file["file"], function["lineno"]].append(function)
    print(f"branches that only an exception takes: {len(branches)}, of which tests take "
          f"{sum(branch['count'] > 0 for branch in branches)}")
    unreached = {place: [function for function in made if function["execution_count"] == 0]
                 for place, made in functions.items()}
    missing = {place: made[0]["name"] for place, made in unreached.items() if len(made) == len(functions[place])}
    print(f"functions that no test reaches: {sum(map(len, unreached.values()))}, of which "
          f"{sum(map(len, unreached.values())) - sum(len(unreached[place]) for place in missing)} "
          "are made of a template for a type that needs no more than others of it")
    for (file, line), name in missing.items():
        print(f"{file}:{line}: no test reaches {name}")
    return 1 if missing or not functions else 0


if __name__ == "__main__":
    sys.exit(main())
