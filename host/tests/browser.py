# SPDX-License-Identifier: Apache-2.0
"""A headless browser, controlled through the WebDriver protocol."""
import base64
import http.client
import json
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import time

BOUND = 20  # seconds that any step may take
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
KEYS = {"ArrowLeft": "\ue012", "ArrowUp": "\ue013", "ArrowRight": "\ue014", "ArrowDown": "\ue015", "Home": "\ue011",
        "End": "\ue010", "Tab": "\ue004", "Enter": "\ue007", "Escape": "\ue00c", "Space": " ", "Control": "\ue009"}


class Browser:
    def __init__(self, driver, browser, language="en-US", zone="UTC"):
        self._folder = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        log = pathlib.Path(self._folder.name) / "driver.log"
        # The driver prints the port that the system has chosen.
        with open(log, "wb") as output:
            self._driver = subprocess.Popen([driver, "--port=0"], stdout=output, stderr=subprocess.STDOUT,
                                            stdin=subprocess.DEVNULL, start_new_session=True,
                                            env={**os.environ, "TZ": zone, "LANGUAGE": language})
        try:
            self._connection = http.client.HTTPConnection("127.0.0.1", self._port(log), timeout=BOUND)
            self._session = ""
            options = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                       "--disable-background-networking", "--disable-component-update", "--disable-sync",
                       "--disable-dev-shm-usage", "--hide-scrollbars", f"--lang={language}",
                       f"--user-data-dir={self._folder.name}/profile"]
            session = self._call("POST", "/session", {"capabilities": {"alwaysMatch": {
                "browserName": "chrome",
                "goog:chromeOptions": {"binary": browser, "args": options},
                "goog:loggingPrefs": {"browser": "ALL", "performance": "ALL"},
            }}})
            self._session = "/session/" + session["sessionId"]
        except BaseException:
            self.close()
            raise

    def close(self):
        try:
            if getattr(self, "_session", ""):
                self._call("DELETE", "")
        finally:
            os.killpg(self._driver.pid, signal.SIGKILL)  # the driver and its browser, in their own group
            self._driver.wait(timeout=BOUND)
            self._folder.cleanup()

    def _port(self, log):
        deadline = time.monotonic() + BOUND
        while time.monotonic() < deadline:
            found = re.search(rb"started successfully on port (\d+)", log.read_bytes())
            if found:
                return int(found[1])
            time.sleep(0.02)
        raise RuntimeError("the driver did not start: " + log.read_text(errors="replace"))

    def _call(self, method, path, body=None):
        text = None if body is None else json.dumps(body)
        self._connection.request(method, self._session + path, text, {"Content-Type": "application/json"})
        answer = json.loads(self._connection.getresponse().read())["value"]
        if isinstance(answer, dict) and "error" in answer:
            raise RuntimeError(answer["error"] + ": " + answer["message"])
        return answer

    # Actions of a viewer.

    def open(self, path):
        self._call("POST", "/url", {"url": pathlib.Path(path).resolve().as_uri()})

    def resize(self, width, height, dark=False, media="", reduced=False):
        """Emulates a screen and the preferences of a viewer."""
        self.devtools("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1,
                      mobile=width < 500)
        self.devtools("Emulation.setEmulatedMedia", media=media, features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"},
            {"name": "prefers-reduced-motion", "value": "reduce" if reduced else "no-preference"}])

    def press(self, *keys):
        """Presses the keys at the same time."""
        codes = [KEYS[key] for key in keys]
        self._call("POST", "/actions", {"actions": [{"type": "key", "id": "keys", "actions": [
            *({"type": "keyDown", "value": code} for code in codes),
            *({"type": "keyUp", "value": code} for code in reversed(codes))]}]})

    def point(self, selector, click=False, kind="mouse"):
        """Moves the mouse or a finger to an element."""
        element = self._call("POST", "/element", {"using": "css selector", "value": selector})
        self.run("arguments[0].scrollIntoView({block: 'center', behavior: 'instant'})", element)
        press = [{"type": "pointerDown", "button": 0}, {"type": "pointerUp", "button": 0}] if click else []
        self._call("POST", "/actions", {"actions": [{"type": "pointer", "id": kind, "parameters": {"pointerType": kind},
                   "actions": [{"type": "pointerMove", "duration": 0, "x": 0, "y": 0, "origin": element}, *press]}]})

    def run(self, script, *arguments):
        return self._call("POST", "/execute/sync", {"script": script, "args": list(arguments)})

    def devtools(self, command, **parameters):
        return self._call("POST", "/goog/cdp/execute", {"cmd": command, "params": parameters})

    # Observations.

    def paper(self):
        """The printed page, as a PDF."""
        return base64.b64decode(self._call("POST", "/print", {"background": False,
                                                              "page": {"width": 21.0, "height": 29.7}}))

    def complaints(self):
        """The messages of the console since the last call."""
        return [entry["message"] for entry in self._call("POST", "/se/log", {"type": "browser"})]

    def requests(self):
        """The addresses requested since the last call, except by the browser's own pages."""
        events = [json.loads(entry["message"])["message"]
                  for entry in self._call("POST", "/se/log", {"type": "performance"})]
        return [event["params"]["request"]["url"] for event in events
                if event["method"] == "Network.requestWillBeSent"
                and not event["params"]["documentURL"].startswith("chrome:")]
