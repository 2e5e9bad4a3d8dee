"""Headless Chromium for the page tests, one page driven over the DevTools protocol on a pipe
(--remote-debugging-pipe reads commands on descriptor 3 and writes answers on 4). With
MANAGER_SVC_SCREENSHOTS set to a folder, `shoot` saves pages there as PNG files."""
import base64
import json
import os
import select
import shutil
import subprocess
import tempfile

from harness import deadline, wait_for

SHOTS = os.environ.get("MANAGER_SVC_SCREENSHOTS")


class Browser:
    def __init__(self, width, height, mobile=False):
        self.profile = tempfile.mkdtemp(prefix="monitor-ui-")
        commands_in, self.commands = os.pipe()
        self.answers, answers_out = os.pipe()

        def wire():
            os.dup2(commands_in, 3)
            os.dup2(answers_out, 4)
        self.proc = subprocess.Popen(
            [shutil.which("chromium"), "--headless", "--no-sandbox", "--disable-gpu",
             "--no-first-run", "--hide-scrollbars", f"--user-data-dir={self.profile}",
             "--remote-debugging-pipe", "about:blank"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            close_fds=False, preexec_fn=wire)
        os.close(commands_in)
        os.close(answers_out)
        self.buffer, self.last_id, self.session = b"", 0, None
        page = next(t for t in self.send("Target.getTargets")["targetInfos"] if t["type"] == "page")
        self.session = self.send("Target.attachToTarget", targetId=page["targetId"],
                                 flatten=True)["sessionId"]
        self.send("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=1, mobile=mobile)

    def send(self, method, **params):
        self.last_id += 1
        message = {"id": self.last_id, "method": method, "params": params}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.commands, json.dumps(message).encode() + b"\0")
        while True:  # answers and events, each ended by a NUL byte
            while b"\0" not in self.buffer:
                assert select.select([self.answers], [], [], deadline(30))[0], "chromium is silent"
                chunk = os.read(self.answers, 1 << 16)
                assert chunk, "chromium closed its pipe"
                self.buffer += chunk
            message, _, self.buffer = self.buffer.partition(b"\0")
            reply = json.loads(message)
            if reply.get("id") == self.last_id:
                assert "error" not in reply, (method, reply["error"])
                return reply["result"]

    def js(self, expression):
        result = self.send("Runtime.evaluate", expression=expression, returnByValue=True,
                           awaitPromise=True)
        assert "exceptionDetails" not in result, result["exceptionDetails"]
        return result["result"].get("value")

    def open(self, url):
        self.send("Page.navigate", url=url)
        assert wait_for(lambda: self.js("document.readyState === 'complete' && location.href") == url)

    def shoot(self, name):
        if SHOTS:
            shot = self.send("Page.captureScreenshot", format="png", captureBeyondViewport=True)
            with open(os.path.join(SHOTS, name + ".png"), "wb") as out:
                out.write(base64.b64decode(shot["data"]))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.proc.kill()
        self.proc.wait()
        os.close(self.commands)
        os.close(self.answers)
        shutil.rmtree(self.profile, ignore_errors=True)
