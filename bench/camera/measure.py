#!/usr/bin/env python3
"""measure.py PROGRAMS CONFIGURATION SECONDS RESULTS [CLIENTS...]

Runs the camera from the directory PROGRAMS with 0, 1, 2, 4 and so on up to 64 clients (or each number of CLIENTS) that
read the stream, for SECONDS each, in a new process each time, and all of that three times. Writes what it costs to RESULTS,
a file of JSON: of the three runs the one with the middle processor time, its pictures, resident memory, and the fewest
pictures that a client got in any of them.
"""
import ctypes
import json
import pathlib
import platform
import selectors
import socket
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tests" / "project"))
from camera_process import CameraProcess, fail  # noqa: E402

ROUNDS = 3
CLIENTS = (0, 1, 2, 4, 8, 16, 32, 64)
RATE = 25  # pictures a second, as configured
WARM_UP = 2  # seconds until every buffer has been used
PATIENCE = 20  # seconds for the first pictures to come
BOUNDARY = b"--picture\r\n"

LIBC = ctypes.CDLL(None, use_errno=True)


class ProcessorClock:
    """The processor time of another process, all its threads together, the ended ones too. In ticks of a nanosecond;
    what /proc has is the same in ticks of ten milliseconds."""

    def __init__(self, process):
        clock = ctypes.c_int()
        error = LIBC.clock_getcpuclockid(process, ctypes.byref(clock))
        if error != 0:
            fail(f"the processor time of process {process} cannot be had: error {error}")
        self.clock = clock.value

    def read(self):
        return time.clock_gettime(self.clock)


class Client:
    """Reads the stream and counts its pictures by their boundaries."""

    def __init__(self, port):
        self.socket = socket.create_connection(("127.0.0.1", port), timeout=PATIENCE)
        self.socket.sendall(b"GET /stream.mjpg HTTP/1.1\r\n\r\n")
        self.socket.setblocking(False)
        self.pictures, self.rest = 0, b""

    def read(self):
        """Takes what has come. Returns false when the stream has ended."""
        try:
            data = self.socket.recv(1 << 18)
        except BlockingIOError:
            return True
        # A boundary may lie across two pieces.
        data = self.rest + data
        self.pictures += data.count(BOUNDARY)
        self.rest = data[-(len(BOUNDARY) - 1):]
        return bool(data)


class Audience:
    """Any number of clients in this one thread."""

    def __init__(self, port, number):
        self.selector = selectors.DefaultSelector()
        self.clients = [Client(port) for _ in range(number)]
        for client in self.clients:
            self.selector.register(client.socket, selectors.EVENT_READ, client)

    def read_until(self, is_over):
        while not is_over():
            for key, _ in self.selector.select(0.02):
                if not key.data.read():
                    fail("the camera ended a stream")

    def close(self):
        for client in self.clients:
            client.socket.close()


def measure(programs, configuration, number, seconds):
    camera = CameraProcess(programs, configuration, {"Clients": 64, "Rate": RATE})
    try:
        audience = Audience(camera.port, number)
        latest = time.monotonic() + PATIENCE
        audience.read_until(lambda: time.monotonic() > latest or all(c.pictures > 0 for c in audience.clients))
        if not all(client.pictures > 0 for client in audience.clients):
            fail(f"not all of {number} clients got a picture")
        end = time.monotonic() + WARM_UP
        audience.read_until(lambda: time.monotonic() > end)

        clock = ProcessorClock(camera.process.pid)
        before = [client.pictures for client in audience.clients]
        # Without a client, the camera says itself how many pictures it made.
        own = 0 if number else -json.loads(camera.request("/status.json")[1])["frames"]
        began, used = time.monotonic(), clock.read()
        audience.read_until(lambda: time.monotonic() > began + seconds)
        took, used = time.monotonic() - began, clock.read() - used
        resident, _, threads = camera.usage()
        got = [client.pictures - start for client, start in zip(audience.clients, before)]
        pictures = max(got) if got else own + json.loads(camera.request("/status.json")[1])["frames"]
        audience.close()
        return {"clients": number, "seconds": took, "pictures": pictures, "fewest": min(got) if got else None,
                "processor": used, "resident": resident * 1024, "threads": threads}
    finally:
        camera.process.terminate()
        camera.process.wait(60)


def show(row):
    print(f"{row['clients']:2} clients: {row['pictures'] / row['seconds']:.2f} pictures a second, "
          f"{row['processor'] / row['pictures'] * 1e3:.3f} ms of processor time each, {row['resident'] // 1024} KB resident"
          + (f"; the slowest client got {row['fewest']} of {row['pictures']}" if row["clients"] else ""), flush=True)


def middle(runs):
    """The run with the middle processor time, and with the fewest pictures a second that a client got in any."""
    chosen = dict(sorted(runs, key=lambda run: run["processor"] / run["pictures"])[len(runs) // 2])
    if chosen["clients"]:
        chosen["fewest"] = min(run["fewest"] / run["seconds"] for run in runs) * chosen["seconds"]
    return chosen


def main():
    programs, configuration, seconds, target = sys.argv[1:5]
    numbers = [int(number) for number in sys.argv[5:]] or CLIENTS
    runs = {number: [] for number in numbers}
    for _ in range(ROUNDS):
        for number in numbers:
            runs[number].append(measure(programs, configuration, number, float(seconds)))
            show(runs[number][-1])
    rows = [middle(of_number) for of_number in runs.values()]
    with open(target, "w", encoding="utf-8") as file:
        json.dump({"rate": RATE, "rounds": ROUNDS, "machine": platform.machine(), "date": time.strftime("%Y-%m-%d"),
                   "rows": rows}, file, indent=1)


if __name__ == "__main__":
    main()
