#!/usr/bin/env python3
"""soak-camera.py PROGRAMS CONFIGURATION MINUTES SUPPRESSIONS

Runs the camera from the directory PROGRAMS for MINUTES with clients that come and go; see scripts/soak.
"""
import json
import os
import random
import re
import socket
import subprocess
import sys
import threading
import time

from camera_process import CameraProcess, fail

CLIENTS = 8
LONGEST_VISIT = 6.0  # seconds
KEPT_KILOBYTES = 20000

# The limits. What is lost is given for a thousand pictures; what grows, between a piece of the run behind the warm-up and as
# long a piece at its end.
LEAST_RATE = 0.98  # of the rate that is configured
MOST_LOST = 1
LEAST_RATE_SANITIZED = 0.9
MOST_LOST_SANITIZED = 10
MOST_GROWTH = 512  # KB; in ten minutes it was 63, in two minutes 48
MOST_MORE = 1.0  # descriptors and threads, in the mean: clients come and go at random


class Tally:
    """What the clients count, all together."""

    def __init__(self):
        self.lock = threading.Lock()
        self.counts = {}

    def add(self, what, number=1):
        with self.lock:
            self.counts[what] = self.counts.get(what, 0) + number

    def __getitem__(self, what):
        return self.counts.get(what, 0)


class Soak(CameraProcess):
    def __init__(self, programs, configuration, suppressions):
        suppressions = os.path.abspath(suppressions)
        super().__init__(programs, configuration, {"SegmentSeconds": 10, "LimitKilobytes": KEPT_KILOBYTES},
                         dict(os.environ, LSAN_OPTIONS=f"print_suppressions=0:suppressions='{suppressions}/lsan.supp'",
                              TSAN_OPTIONS=f"halt_on_error=1:suppressions='{suppressions}/tsan.supp'"))
        self.tally, self.ending = Tally(), threading.Event()
        with open(f"/proc/{self.process.pid}/maps", encoding="utf-8") as file:
            self.sanitized = re.search(r"/lib[at]san\.so", file.read()) is not None

    def control(self, *words):
        """Sends a command as camera-ctl does. Returns its answer; one that is missing counts."""
        self.tally.add("commands sent")
        process = self.start("camera-ctl", *words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        answer = process.communicate()[0].strip()
        if process.returncode == 0:
            self.tally.add("commands answered")
        else:
            print(f"camera-ctl {' '.join(words)}: status {process.returncode}, {answer}")
        return answer

    def get(self, path):
        status, body = self.request(path)
        self.tally.add("requests answered" if status == 200 else "other answers")
        if status != 200:
            print(f"{path}: status {status}")
        return body

    def status(self):
        return json.loads(self.get("/status.json"))

    def watch(self):
        """A client of the stream: joins, reads for a while, slowly at times, and leaves."""
        chance = random.Random(threading.get_ident())
        while not self.ending.is_set():
            with socket.create_connection(("127.0.0.1", self.port), timeout=30) as connection:
                connection.sendall(b"GET /stream.mjpg HTTP/1.1\r\n\r\n")
                self.tally.add("visits")
                end = time.monotonic() + chance.uniform(0, LONGEST_VISIT)
                slow = chance.random() < 0.25
                while time.monotonic() < end and not self.ending.is_set():
                    data = connection.recv(65536)
                    if not data:
                        self.tally.add("streams that ended")
                        break
                    self.tally.add("bytes", len(data))
                    self.tally.add("pictures", data.count(b"--picture\r\n"))
                    if slow:
                        time.sleep(0.2)
            time.sleep(chance.uniform(0, 1))

    def command(self):
        chance = random.Random(1)
        while not self.ending.is_set():
            self.control(*chance.choice([("snapshot",), ("rotate",), ("loglevel", "1"), ("loglevel", "2")]))
            time.sleep(chance.uniform(0, 1))

    def browse(self):
        while not self.ending.is_set():
            for path in ("/", "/status.json", "/snapshot.jpg"):
                self.get(path)
            time.sleep(1)

    def guarded(self, work):
        def run():
            try:
                work()
            except Exception as error:  # pylint: disable=broad-except
                if not self.ending.is_set():
                    self.tally.add("broken clients")
                    print(f"{work.__name__}: {error!r}")
        return run


def wait_until_all_left(soak):
    """Waits until no client's descriptor is left but that of the question. Returns the usage then."""
    end = time.monotonic() + 30
    while soak.status()["clients"] != 0 and time.monotonic() < end:
        time.sleep(0.2)
    time.sleep(2)  # A client's end is waited for a second.
    return soak.usage()


def run(soak, seconds):
    """Returns what the camera said and had: before the clients, with them, and after them."""
    before = wait_until_all_left(soak)
    first, began = soak.status(), time.monotonic()
    threads = [threading.Thread(target=soak.guarded(work)) for work in [soak.watch] * CLIENTS + [soak.command, soak.browse]]
    for thread in threads:
        thread.start()
    samples = []
    while time.monotonic() - began < seconds and soak.is_running():
        time.sleep(1)
        if soak.is_running():
            samples.append((time.monotonic() - began, *soak.usage()))
        if len(samples) % 60 == 0 and samples:
            _, rss, descriptors, running = samples[-1]
            print(f"{len(samples) // 60:3} min  {rss} KB resident  {descriptors} descriptors  {running} threads  "
                  f"{soak.tally['visits']} visits  {soak.tally['commands answered']} commands", flush=True)
    last = soak.status() if soak.is_running() else None
    rate = (last["frames"] - first["frames"]) / (time.monotonic() - began) if last else 0
    soak.ending.set()
    for thread in threads:
        thread.join()
    if last is None:
        fail(f"the camera ended with {soak.process.returncode}: {soak.read_log()}")
    after = wait_until_all_left(soak)
    final = soak.status()
    soak.control("stop")
    return {"samples": samples, "status": last, "rate": rate, "before": before, "after": after, "final": final,
            "code": soak.process.wait(60)}


def mean(values):
    return sum(values) / len(values)


def growth(samples, column):
    """The means of a column in a minute behind two minutes of warm-up and in the last minute; of a short run, in the second
    quarter and in the last."""
    end = samples[-1][0]
    warm_up, piece = (120, 60) if end >= 240 else (end / 4, end / 4)
    early = [s[column] for s in samples if warm_up <= s[0] < warm_up + piece]
    late = [s[column] for s in samples if s[0] >= end - piece]
    return mean(early), mean(late)


class Verdict:
    """Prints figures, and remembers those beyond their limits."""

    def __init__(self):
        self.faults = []

    def most(self, what, figure, limit, form=".0f"):
        print(f"{what:<52}{figure:>12{form}}  at most {limit:{form}}")
        if figure > limit:
            self.faults.append(f"{what}: {figure:{form}}")

    def least(self, what, figure, limit, form=".0f"):
        print(f"{what:<52}{figure:>12{form}}  at least {limit:{form}}")
        if figure < limit:
            self.faults.append(f"{what}: {figure:{form}}")

    def holds(self, what, held, more=""):
        if not held:
            self.faults.append(what + more)


def judge_losses(verdict, soak, result, configured):
    tally, status = soak.tally, result["status"]
    share = LEAST_RATE_SANITIZED if soak.sanitized else LEAST_RATE
    lost = (MOST_LOST_SANITIZED if soak.sanitized else MOST_LOST) * status["frames"] / 1000
    verdict.least("pictures a second", result["rate"], share * configured, ".2f")
    verdict.most("pictures dropped", status["drops"], lost, ".1f")
    verdict.most("pictures not recorded", status["notRecorded"], lost, ".1f")
    verdict.most("connections refused", status["refused"], 0)
    verdict.most("answers other than 200", tally["other answers"], 0)
    verdict.most("clients that met with faults", tally["broken clients"] + tally["streams that ended"], 0)
    verdict.most("commands without an answer", tally["commands sent"] - tally["commands answered"], 0)
    # The stop command is answered, but counted when nobody can look any more.
    verdict.most("commands that the camera did not count", abs(tally["commands sent"] - 1 - result["final"]["commands"]), 0)
    verdict.most("errors in the log", len(re.findall(r"^.*Error\*", soak.read_log(), re.M)), 0)
    verdict.most("KB recorded", status["recordedKilobytes"], KEPT_KILOBYTES)


def judge_growth(verdict, soak, result, minutes):
    samples = result["samples"]
    for column, what in ((2, "descriptors"), (3, "threads")):
        early, late = growth(samples, column)
        print(f"{what:<20}{max(s[column] for s in samples)} at most; {early:.1f} early, {late:.1f} at the end (means); "
              f"{result['before'][column - 1]} before the clients, {result['after'][column - 1]} after")
        verdict.most(f"more {what} at the end (mean)", late - early, MOST_MORE, ".1f")
        verdict.most(f"{what} left of clients that are gone", result["after"][column - 1] - result["before"][column - 1], 0)
    early, late = growth(samples, 1)
    print(f"resident KB         {max(s[1] for s in samples)} at most; {early:.0f} early, {late:.0f} at the end (means)")
    if not soak.sanitized:
        verdict.most("KB more resident at the end", late - early, MOST_GROWTH)
    elif minutes >= 4:
        # A sanitizer keeps freed memory for a while; what is left at the end it reports itself.
        verdict.most("KB more resident at the end", late - early, max(1024, early / 10))


def main():
    if len(sys.argv) != 5:
        fail("wrong arguments")
    minutes = float(sys.argv[3])
    with open(sys.argv[2], encoding="utf-8") as file:
        configured = int(re.search(r"<key>Rate</key>\s*<integer>(\d+)", file.read()).group(1))
    soak = Soak(sys.argv[1], sys.argv[2], sys.argv[4])
    try:
        result = run(soak, minutes * 60)
    finally:
        soak.ending.set()
        if soak.is_running():
            soak.process.kill()
    tally, status, verdict = soak.tally, result["status"], Verdict()

    print(f"\npictures            {status['frames']}")
    print(f"visits              {tally['visits']}; {tally['pictures']} pictures, {tally['bytes'] // 1000000} MB; "
          f"{status['skipped']} skipped for slow clients")
    print(f"requests            {tally['requests answered']} answered")
    print(f"commands            {tally['commands answered']} answered of {tally['commands sent']}")
    print(f"segments            {status['segments']}")
    judge_losses(verdict, soak, result, configured)
    judge_growth(verdict, soak, result, minutes)
    verdict.holds("the recording is not on", result["final"]["recording"] == "on")
    verdict.holds(f"the camera ended with {result['code']}: ", result["code"] == 0, soak.read_log())
    verdict.holds("a sanitizer has something to say: ", not re.search("Sanitizer|runtime error", soak.read_log()),
                  soak.read_log())
    if verdict.faults:
        fail("; ".join(verdict.faults))
    print("Nothing was lost, and nothing grows.")


main()
