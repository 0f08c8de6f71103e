#!/usr/bin/env python3
"""visit-camera.py PROGRAMS CONFIGURATION

Starts the camera from the directory PROGRAMS, does with it once what clients and operators do, and stops it; see
scripts/valgrind. Both programs have to end as they should.
"""
import json
import socket
import subprocess
import sys

from camera_process import CameraProcess, fail

PICTURES = 5


def control(camera, word, *more):
    process = camera.start("camera-ctl", word, *more, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    output = process.communicate()[0]
    if process.returncode != 0:
        fail(f"camera-ctl {word} ended with {process.returncode}: {output}")
    return output


def watch(camera):
    """Reads some pictures of the stream, and leaves in the middle of one."""
    with socket.create_connection(("127.0.0.1", camera.port), timeout=120) as connection:
        connection.sendall(b"GET /stream.mjpg HTTP/1.1\r\n\r\n")
        received = b""
        while received.count(b"--picture\r\n") < PICTURES:
            data = connection.recv(65536)
            if not data:
                fail("the stream ended")
            received += data


def refuse(camera, request, status):
    with socket.create_connection(("127.0.0.1", camera.port), timeout=120) as connection:
        connection.sendall(request)
        answer = connection.recv(65536)
    if not answer.startswith(b"HTTP/1.1 " + status):
        fail(f"{request[:40]} is answered by {answer[:40]}")


def main():
    camera = CameraProcess(*sys.argv[1:], {"Width": 160, "Height": 120, "Rate": 5, "SegmentSeconds": 1, "LimitKilobytes": 256})
    try:
        watch(camera)  # Behind it there is a picture.
        for path, status in (("/", 200), ("/status.json", 200), ("/snapshot.jpg", 200), ("/nothing", 404)):
            if camera.request(path)[0] != status:
                fail(f"{path} is not answered by {status}")
        refuse(camera, b"\x00\xff\r\n\r\n", b"400")
        refuse(camera, b"GET /" + 10000 * b"x", b"431")
        for words in (("status",), ("snapshot",), ("rotate",), ("loglevel", "2")):
            control(camera, *words)
        watch(camera)
        recorded = json.loads(camera.request("/status.json")[1])
        control(camera, "stop")
        if camera.process.wait(120) != 0:
            fail(f"the camera ended with {camera.process.returncode}: {camera.read_log()}")
    finally:
        camera.process.kill()
    print(f"camera: {recorded['frames']} pictures made, 5 kinds of commands, nothing reported")


if __name__ == "__main__":
    main()
