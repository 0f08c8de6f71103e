"""The example camera as a process of its own, in a directory of its own: what the scripts share that run it."""
import fcntl
import http.client
import os
import re
import socket
import subprocess
import sys
import tempfile


def fail(message):
    sys.exit(f"{os.path.basename(sys.argv[0]).removesuffix('.py')}: {message}")


class Channel:
    """The number of a control channel that nobody else uses who asks for one so, for as long as this object lives. The numbers
    belong to the machine, and so does the lock: a socket of that name. The test of channels removes the names of all; it waits
    for whoever has the directory locked."""

    def __init__(self):
        self.directory = os.open("/dev/shm", os.O_RDONLY | os.O_DIRECTORY)
        fcntl.flock(self.directory, fcntl.LOCK_SH)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.number = 100 + os.getpid() % 800
        while not self.take():
            self.number = 100 if self.number == 999 else self.number + 1

    def take(self):
        try:
            self.socket.bind(f"\0kalvoren-test-camera-{self.number}")
        except OSError:
            return False
        return True


class CameraProcess:
    """A camera from the directory PROGRAMS with a copy of CONFIGURATION in which the numbers of SETTINGS are changed. It
    listens at a port of the system's choice, and has a control channel of its own."""

    def __init__(self, programs, configuration, settings, environment=None):
        self.programs, self.environment = os.path.abspath(programs), environment
        self.directory, self.channel = tempfile.TemporaryDirectory(), Channel()
        with open(configuration, encoding="utf-8") as file:
            text = file.read()
        for key, number in {"Channel": self.channel.number, **settings}.items():
            text, changes = re.subn(rf"(<key>{key}</key>\s*<integer>)\d+", rf"\g<1>{number}", text)
            if changes != 1:
                fail(f"there is no setting {key} in {configuration}")
        with open(os.path.join(self.directory.name, "camera.plist"), "w", encoding="utf-8") as file:
            file.write(text)
        self.log = open(os.path.join(self.directory.name, "log"), "w+", encoding="utf-8", errors="replace")
        self.process = self.start("camera", "--port", "0", stdout=subprocess.PIPE, stderr=self.log, text=True)
        line = self.process.stdout.readline()
        if not line.startswith("camera: http"):
            fail("the camera does not start: " + self.read_log())
        self.url = line.split()[1]
        self.port = int(self.url.rstrip("/").rsplit(":", 1)[1])

    def start(self, program, *arguments, **options):
        return subprocess.Popen([os.path.join(self.programs, program), *arguments], cwd=self.directory.name,
                                env=self.environment, **options)

    def is_running(self):
        return self.process.poll() is None

    def read_log(self):
        self.log.flush()
        with open(self.log.name, encoding="utf-8", errors="replace") as file:
            return file.read()

    def request(self, path):
        """Returns the answer's status and its body."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        try:
            connection.request("GET", path)
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            connection.close()

    def usage(self):
        """Resident memory in KB, descriptors, threads."""
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as file:
            status = dict(line.split(":", 1) for line in file)
        return int(status["VmRSS"].split()[0]), len(os.listdir(f"/proc/{self.process.pid}/fd")), int(status["Threads"])
