#!/usr/bin/env python3
"""check-camera-browser.py CAMERA CONFIGURATION [SCREENSHOT]

Starts the camera, opens its page in headless Chromium, and looks: the picture moves, the numbers change, the events fill,
nothing is wider than a phone, and nothing comes from elsewhere. With SCREENSHOT, keeps a picture of the page there. Without
Chromium the test is skipped (exit status 77).
"""
import base64
import json
import os
import select
import shutil
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
from camera_process import CameraProcess, fail  # noqa: E402

PATIENCE = 60  # seconds for anything to happen
SKIPPED = 77


class Browser:
    """Chromium, spoken to through a pair of pipes: descriptors 3 and 4 of its process, a NUL behind each message."""

    def __init__(self, program, profile):
        read_here, write_there = os.pipe()
        read_there, write_here = os.pipe()
        # Out of the way of the descriptors that they are to become.
        read_there, write_there = (os.dup2(fd, fd + 100) for fd in (read_there, write_there))
        script = f'exec 3<&{read_there} 4>&{write_there}; exec "$@"'
        self.process = subprocess.Popen(
            ["bash", "-c", script, "browser", program, "--headless=new", "--no-sandbox", "--disable-gpu", "--mute-audio",
             "--no-first-run", "--disable-dev-shm-usage", "--disable-background-networking", "--hide-scrollbars",
             f"--user-data-dir={profile}", "--remote-debugging-pipe", "about:blank"],
            pass_fds=(read_there, write_there), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(read_there)
        os.close(write_there)
        self.reading, self.writing = read_here, write_here
        self.number, self.waiting, self.session = 0, b"", None

    def call(self, method, **parameters):
        self.number += 1
        message = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.writing, json.dumps(message).encode() + b"\0")
        end = time.monotonic() + PATIENCE
        while time.monotonic() < end:
            answer, separator, rest = self.waiting.partition(b"\0")
            if not separator:
                if not select.select([self.reading], [], [], 1)[0]:
                    continue
                came = os.read(self.reading, 1 << 20)
                if not came:
                    fail("the browser ended")
                self.waiting += came
                continue
            self.waiting = rest
            answer = json.loads(answer)
            if answer.get("id") == self.number:
                if "error" in answer:
                    fail(f"{method}: {answer['error']}")
                return answer["result"]
        fail(f"the browser does not answer {method}")

    def open(self, url):
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        self.call("Page.navigate", url=url)

    def ask(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            fail(f"{expression}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def wait_for(self, expression, what):
        end = time.monotonic() + PATIENCE
        while not self.ask(expression):
            if time.monotonic() > end:
                fail(f"it never came about that {what}")
            time.sleep(0.2)

    def size(self, width, height, phone):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=phone)

    def screenshot(self, path):
        data = self.call("Page.captureScreenshot", format="png", captureBeyondViewport=True)["data"]
        with open(path, "wb") as file:
            file.write(base64.b64decode(data))

    def end(self):
        self.process.terminate()
        self.process.wait()


# The mean difference between two pictures of the stream, half a second apart.
MOVEMENT = """(async () => {
  const image = document.getElementById("picture"), canvas = document.createElement("canvas");
  canvas.width = image.naturalWidth;
  canvas.height = image.naturalHeight;
  if (!canvas.width) return 0;
  const pen = canvas.getContext("2d", {willReadFrequently: true});
  const grab = () => { pen.drawImage(image, 0, 0); return pen.getImageData(0, 0, canvas.width, canvas.height).data; };
  const before = grab();
  await new Promise(done => setTimeout(done, 500));
  const after = grab();
  return before.reduce((sum, value, i) => sum + Math.abs(value - after[i]), 0) / before.length;
})()"""


def look(browser, url, screenshot):
    browser.open(url)
    browser.size(1280, 900, False)
    # The page may still be on its way.
    browser.wait_for("document.getElementById('state')?.textContent == 'live'", "the page is live")
    browser.wait_for(f"{MOVEMENT}.then(movement => movement > 0.3)", "the picture moves")
    frames = browser.ask("document.getElementById('frames').textContent")
    browser.wait_for(f"document.getElementById('frames').textContent != {frames!r}", "the number of pictures changes")
    browser.wait_for("Number(document.getElementById('fps').textContent) > 0", "pictures a second are shown")
    browser.wait_for("document.getElementById('clients').textContent == '1'", "the page counts as a client")
    for name in ("configuration.read", "client.joined", "motion.began", "motion.ended", "segment.closed"):
        browser.wait_for(f"document.getElementById('events').textContent.includes('{name}')", f"{name} is among the events")
    browser.wait_for("document.getElementById('configuration').textContent.includes('Picture/Rate')", "the configuration is there")
    browser.wait_for("(c => c.getContext('2d').getImageData(0, 0, c.width, c.height).data.some(v => v))"
                     "(document.getElementById('plot'))", "something is plotted")
    foreign = browser.ask("performance.getEntriesByType('resource').filter(e => !e.name.startsWith(location.origin) "
                          "&& !e.name.startsWith('data:')).map(e => e.name).join(' ')")
    if foreign:
        fail(f"the page asks others for {foreign}")
    if screenshot:
        time.sleep(20)  # so that the plot has something to show
        browser.screenshot(screenshot)
    browser.size(390, 844, True)
    browser.wait_for("window.innerWidth == 390 && document.documentElement.scrollWidth <= 390", "the page fits a phone")
    comes_back(browser, "document.getElementById('picture').src = '/nothing.jpg'", "an answer that was no picture")
    comes_back(browser, "document.dispatchEvent(new Event('visibilitychange'))", "the page was not seen")
    if screenshot and os.environ.get("PHONE_SCREENSHOT"):
        browser.screenshot(os.environ["PHONE_SCREENSHOT"])


def comes_back(browser, what, name):
    """Does something after which the page is to ask for the stream anew."""
    before = browser.ask("document.getElementById('picture').src")
    browser.ask(f"{what}; 0")
    browser.wait_for("(src => src.includes('/stream.mjpg') && src != " + json.dumps(before) +
                     ")(document.getElementById('picture').src)", f"the stream is asked for anew after {name}")
    browser.wait_for(f"{MOVEMENT}.then(movement => movement > 0.3)", f"the picture moves again after {name}")


def main():
    if not 3 <= len(sys.argv) <= 4:
        fail("wrong arguments")
    program = shutil.which("chromium")
    if program is None:
        print("chromium is not installed: the page is not looked at")
        sys.exit(SKIPPED)
    camera = CameraProcess(os.path.dirname(sys.argv[1]), sys.argv[2], {"SegmentSeconds": 5})
    with tempfile.TemporaryDirectory() as profile:
        browser = Browser(program, profile)
        try:
            look(browser, camera.url, sys.argv[3] if len(sys.argv) > 3 else None)
        finally:
            browser.end()
            camera.process.terminate()
            camera.process.wait()
        if camera.process.returncode != 0:
            fail(f"the camera ended with {camera.process.returncode}: {camera.read_log()}")


main()
