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
WARM_UP = 120  # seconds until what the camera has is what it needs
LONGEST_VISIT = 6.0  # seconds
MOST_GROWTH = 512  # KB; in the ten minutes behind the figures in docs/camera.md it was 63


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
        super().__init__(programs, configuration, {"SegmentSeconds": 10, "LimitKilobytes": 20000},
                         dict(os.environ, LSAN_OPTIONS=f"print_suppressions=0:suppressions={suppressions}/lsan.supp",
                              TSAN_OPTIONS=f"suppressions={suppressions}/tsan.supp"))
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
        self.tally.add("requests answered" if status == 200 else f"status {status}")
        return body

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
    while json.loads(soak.get("/status.json"))["clients"] != 0 and time.monotonic() < end:
        time.sleep(0.2)
    time.sleep(2)  # A client's end is waited for a second.
    return soak.usage()


def run(soak, seconds):
    before = wait_until_all_left(soak)
    threads = [threading.Thread(target=soak.guarded(work)) for work in [soak.watch] * CLIENTS + [soak.command, soak.browse]]
    for thread in threads:
        thread.start()
    samples = []
    began = time.monotonic()
    while time.monotonic() - began < seconds and soak.is_running():
        time.sleep(1)
        if soak.is_running():
            samples.append((time.monotonic() - began, *soak.usage()))
        if len(samples) % 60 == 0 and samples:
            _, rss, descriptors, running = samples[-1]
            print(f"{len(samples) // 60:3} min  {rss} KB resident  {descriptors} descriptors  {running} threads  "
                  f"{soak.tally['visits']} visits  {soak.tally['commands answered']} commands", flush=True)
    status = json.loads(soak.get("/status.json")) if soak.is_running() else None
    soak.ending.set()
    for thread in threads:
        thread.join()
    if status is None:
        fail(f"the camera ended with {soak.process.returncode}: {soak.read_log()}")
    rest = wait_until_all_left(soak)
    final = json.loads(soak.get("/status.json"))
    soak.control("stop")
    return samples, status, before, rest, final, soak.process.wait(60)


def mean(values):
    return sum(values) / len(values)


def growth(samples, column):
    """The means of a column in the minute behind the warm-up and in the last one."""
    end = samples[-1][0]
    early = [s[column] for s in samples if WARM_UP <= s[0] < WARM_UP + 60]
    late = [s[column] for s in samples if s[0] >= end - 60]
    return mean(early), mean(late)


def main():
    if len(sys.argv) != 5:
        fail("wrong arguments")
    minutes = float(sys.argv[3])
    soak = Soak(sys.argv[1], sys.argv[2], sys.argv[4])
    try:
        samples, status, before, rest, final, code = run(soak, minutes * 60)
    finally:
        soak.ending.set()
        if soak.is_running():
            soak.process.kill()
    tally, faults = soak.tally, []

    print(f"\npictures        {status['frames']}, {status['frames'] / (minutes * 60):.2f} a second; {status['drops']} dropped, "
          f"{status['notRecorded']} not recorded")
    print(f"visits          {tally['visits']}; {tally['pictures']} pictures, {tally['bytes'] // 1000000} MB; "
          f"{status['skipped']} skipped for slow clients")
    print(f"requests        {tally['requests answered']} answered; {status['refused']} connections refused")
    print(f"commands        {tally['commands answered']} answered of {tally['commands sent']}")
    print(f"segments        {status['segments']}; {status['recordedKilobytes']} KB kept of at most 20000")
    print(f"resident        {max(s[1] for s in samples)} KB at most")
    print(f"descriptors     {max(s[2] for s in samples)} at most, {before[1]} before the clients, {rest[1]} after")
    print(f"threads         {max(s[3] for s in samples)} at most, {rest[2]} without clients")

    if minutes >= 4:
        early, late = growth(samples, 1)
        print(f"growth          {early:.0f} KB in minute 3, {late:.0f} KB in the last ({(late / early - 1) * 100:+.1f} %)")
        # A sanitizer keeps freed memory for a while.
        if late - early > (max(1024, early / 10) if soak.sanitized else MOST_GROWTH):
            faults.append("resident memory grows")
        early, late = growth(samples, 2)
        print(f"                {early:.1f} descriptors in minute 3, {late:.1f} in the last")
    if rest[1] != before[1]:
        faults.append("descriptors are left of clients that are gone")
    # The stop command is answered, but counted when nobody can look any more.
    if tally["commands answered"] != tally["commands sent"] or final["commands"] != tally["commands sent"] - 1:
        faults.append(f"commands were lost: {final['commands']} counted by the camera")
    if tally["broken clients"] or tally["streams that ended"]:
        faults.append("clients met with faults")
    if code != 0:
        faults.append(f"the camera ended with {code}: {soak.read_log()}")
    if re.search("Sanitizer|runtime error", soak.read_log()):
        faults.append(f"a sanitizer has something to say: {soak.read_log()}")
    if final["recording"] != "on" or status["recordedKilobytes"] > 20000:
        faults.append("the recording is not as it should be")
    if faults:
        fail("; ".join(faults))
    print("Nothing was lost, and nothing grows.")


main()
