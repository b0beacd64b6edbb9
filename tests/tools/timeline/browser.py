"""Debian's Chromium, without a window, driven through chromium-driver: nothing but HTTP and JSON."""

import base64
import json
import shutil
import subprocess
import tempfile
import time
import urllib.error
import urllib.request


def is_there():
    return bool(shutil.which("chromium") and shutil.which("chromedriver"))


class Browser:
    """One browser with one page. Use it in a `with`: the browser and its profile go at the end."""

    def __init__(self, width=1400, height=900, dark=False):
        self._profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        self._driver = subprocess.Popen(
            ["chromedriver", "--port=0"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        port = None
        for line in self._driver.stdout:
            if "successfully on port" in line:
                port = line.rstrip().rstrip(".").split()[-1]
                break
        self._url = f"http://127.0.0.1:{port}/session"
        arguments = [
            "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
            "--disable-background-networking", "--disable-component-update", "--disable-sync",
            "--disable-dev-shm-usage", "--hide-scrollbars", f"--user-data-dir={self._profile.name}",
            f"--window-size={width},{height}"] + (["--force-dark-mode"] if dark else [])
        try:
            session = self._ask("POST", "", {"capabilities": {"alwaysMatch": {
                "browserName": "chrome", "goog:chromeOptions": {"args": arguments}, "goog:loggingPrefs": {"browser": "ALL"}}}})
        except Exception:
            self._driver.terminate()
            raise
        self._url += "/" + session["sessionId"]
        self.command("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.command("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        try:
            self._ask("DELETE", "")
        finally:
            self._driver.terminate()
            self._driver.wait()
            self._profile.cleanup()

    def _ask(self, method, path, body=None):
        request = urllib.request.Request(
            self._url + path, method=method, headers={"Content-Type": "application/json"},
            data=json.dumps(body).encode() if body is not None else None)
        try:
            with urllib.request.urlopen(request, timeout=120) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise RuntimeError(json.load(error)["value"]["message"]) from None

    def command(self, name, **parameters):
        """One of the browser's own development commands."""
        return self._ask("POST", "/goog/cdp/execute", {"cmd": name, "params": parameters})

    def visit(self, url):
        self._ask("POST", "/url", {"url": url})

    def open(self, path):
        """Opens the page of a timeline, and returns the seconds until it was painted."""
        start = time.monotonic()
        self.visit("file://" + str(path))
        self.wait("document.querySelector('#view')?.dataset.mode || "
                  "document.querySelector('#message').textContent.includes('cannot')")
        return time.monotonic() - start

    def run(self, script, *arguments):
        return self._ask("POST", "/execute/sync", {"script": script, "args": list(arguments)})

    def run_async(self, script, *arguments):
        """The last argument of the script is the function that takes the result."""
        return self._ask("POST", "/execute/async", {"script": script, "args": list(arguments)})

    def wait(self, condition, seconds=60):
        """Waits until an expression holds, and the page has been painted since; returns its value."""
        return self.run_async("""
            const [condition, limit, done] = arguments, start = performance.now();
            const look = () => {
                const value = eval('(' + condition + ')');
                if (value) requestAnimationFrame(() => requestAnimationFrame(() => done(value)));
                else if (performance.now() - start > limit) done(null);
                else setTimeout(look, 5);
            };
            look();""".replace("eval('(' + condition + ')')", f"({condition})"), "", seconds * 1000)

    def state(self):
        """What the page says of itself, once it is painted."""
        self.wait("true")
        return self.run("return {...document.querySelector('#view').dataset}")

    def text(self, selector):
        return self.run("return document.querySelector(arguments[0]).innerText", selector)

    def keys(self, *keys):
        """Presses keys one after the other, on whatever has the focus; "Shift+x" holds Shift."""
        actions = []
        names = {"Enter": "\ue007", "Escape": "\ue00c", "ArrowLeft": "\ue012", "ArrowUp": "\ue013",
                 "ArrowRight": "\ue014", "ArrowDown": "\ue015", "Tab": "\ue004", "End": "\ue010", "Home": "\ue011"}
        for key in keys:
            shift = key.startswith("Shift+")
            value = names.get(key.removeprefix("Shift+"), key.removeprefix("Shift+"))
            pressed = ([{"type": "keyDown", "value": "\ue008"}] if shift else [])
            pressed += [{"type": "keyDown", "value": value}, {"type": "keyUp", "value": value}]
            actions += pressed + ([{"type": "keyUp", "value": "\ue008"}] if shift else [])
        self._ask("POST", "/actions", {"actions": [{"type": "key", "id": "keys", "actions": actions}]})

    def pointer(self, steps, kind="mouse"):
        """Steps of one pointer: ("move", x, y), ("down",), ("up",)."""
        self._ask("POST", "/actions", {"actions": [self._pointer("pointer", steps, kind)]})

    def fingers(self, *steps):
        """As many fingers as there are lists of steps, at the same time."""
        self._ask("POST", "/actions", {"actions": [
            self._pointer(f"finger{i}", s, "touch") for i, s in enumerate(steps)]})

    @staticmethod
    def _pointer(name, steps, kind):
        actions = []
        for step in steps:
            if step[0] == "move":
                actions.append({"type": "pointerMove", "x": int(step[1]), "y": int(step[2]), "duration": 30, "origin": "viewport"})
            else:
                actions.append({"type": "pointerDown" if step[0] == "down" else "pointerUp", "button": 0})
        return {"type": "pointer", "id": name, "parameters": {"pointerType": kind}, "actions": actions}

    def wheel(self, x, y, delta_x=0, delta_y=0):
        self._ask("POST", "/actions", {"actions": [{"type": "wheel", "id": "wheel", "actions": [
            {"type": "scroll", "x": int(x), "y": int(y), "deltaX": delta_x, "deltaY": delta_y, "origin": "viewport"}]}]})

    def complaints(self):
        """What the page has said to the console that is worse than a hint."""
        return [entry["message"] for entry in self._ask("POST", "/se/log", {"type": "browser"})
                if entry["level"] in ("SEVERE", "WARNING")]

    def screenshot(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self._ask("GET", "/screenshot")))
