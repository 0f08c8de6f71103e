#!/usr/bin/env python3
"""report.py RESULTS DOCUMENT [PLOTS]

What scripts/bench measured, as a document. RESULTS is the directory of its results: peers/ and log/ with Google Benchmark's
files, camera.json and instructions.json. A section for which there are none stays as it is in the DOCUMENT, or says how to
make them. With PLOTS, a path such as docs/performance, draws PLOTS.svg and PLOTS-camera.svg.
"""
import pathlib
import sys

import camera_cost
import comparison
import instruction_cost
import logging_cost

NOTES = "notes.md", "notes-target.md"  # why goals are missed, beside other libraries and on the target

INTRODUCTION = [
    "# Performance", "",
    "What jobs cost with the library, beside what its users would pick instead and beside the bare calls; what the log costs;",
    "what the example camera costs with its clients; and what jobs cost on 32-bit ARM, counted in the emulator. Each section",
    "says which command made it.",
    ""]


def read_sections(file):
    """Sections of a document by their titles."""
    sections = {}
    text = file.read_text(encoding="utf-8") if file.exists() else ""
    for part in text.split("\n## ")[1:]:
        title, _, rest = part.partition("\n")
        sections[title.strip()] = rest.strip()
    return sections


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit("report.py: wrong arguments")
    results, target = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    compared = comparison.Results(results / "peers")
    plot = camera_plot = None
    if len(sys.argv) == 4:
        plot, camera_plot = (pathlib.Path(sys.argv[3] + ending) for ending in (".svg", "-camera.svg"))
        plot = plot.name if comparison.draw(compared, plot) else None
        camera_plot = camera_plot.name if camera_cost.draw(results / "camera.json", camera_plot) else None
    notes, target_notes = (read_sections(pathlib.Path(__file__).with_name(name)) for name in NOTES)
    made = {comparison: comparison.section(compared, notes, plot),
            logging_cost: logging_cost.section(results / "log"),
            camera_cost: camera_cost.section(results / "camera.json", camera_plot),
            instruction_cost: instruction_cost.section(results / "instructions.json", target_notes)}
    before = read_sections(target)
    text = "\n".join(INTRODUCTION)
    for part, lines in made.items():
        body = "\n".join(lines) if lines else before.get(part.TITLE, f"Not measured yet; `{part.MAKE}` does it.")
        text += f"\n## {part.TITLE}\n\n{body.strip()}\n"
    target.write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
