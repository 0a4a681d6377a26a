# A headless Chromium, driven through chromedriver's WebDriver interface (W3C) with the standard library alone.
import contextlib
import functools
import http.server
import json
import pathlib
import re
import shutil
import subprocess
import tempfile
import threading
import time
import urllib.error
import urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # the key of an element's reference, as the standard has it
ARGUMENTS = ("--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking "
             "--disable-component-update --disable-sync --window-size=1280,1400").split()
DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))


LEFT, RIGHT, ENTER = "\ue012", "\ue014", "\ue007"


class Folder(http.server.SimpleHTTPRequestHandler):
    """A static folder as web servers show it: parts of files, too, without which no browser goes to a place in a clip."""
    protocol_version = "HTTP/1.1"

    def log_message(self, *_):
        pass

    def do_GET(self):
        path = pathlib.Path(self.translate_path(self.path))
        if path.is_dir():
            path = path / "index.html"
        if not path.is_file():
            self.send_error(404)
            return
        content = path.read_bytes()
        part = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range", ""))
        first = int(part[1]) if part else 0
        last = min(int(part[2]) if part and part[2] else len(content) - 1, len(content) - 1)
        self.send_response(206 if part else 200)
        if part:
            self.send_header("Content-Range", f"bytes {first}-{last}/{len(content)}")
        self.send_header("Content-Type", self.guess_type(str(path)))
        self.send_header("Accept-Ranges", "bytes")
        self.send_header("Content-Length", str(last - first + 1))
        self.end_headers()
        try:
            self.wfile.write(content[first:last + 1])
        except ConnectionError:
            pass  # the browser has enough


@contextlib.contextmanager
def serve(directory):
    """Gives the address under which a browser finds the directory."""
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Folder, directory=directory)) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield f"http://127.0.0.1:{server.server_port}/"
        server.shutdown()


class Browser:
    def __init__(self):
        self.profile = tempfile.TemporaryDirectory(prefix="tavi-chromium-", ignore_cleanup_errors=True)
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, text=True)
        found = (re.search(r"successfully on port (\d+)", line) for line in self.driver.stdout)
        self.base = f"http://127.0.0.1:{next(filter(None, found))[1]}"
        try:
            session = self.call("POST", "/session", {"capabilities": {"alwaysMatch": {
                "goog:chromeOptions": {"binary": shutil.which("chromium"),
                                       "args": ARGUMENTS + ["--user-data-dir=" + self.profile.name]},
                "goog:loggingPrefs": {"browser": "ALL", "performance": "ALL"}}}})
        except urllib.error.HTTPError as error:
            # A driver that outlives the test keeps its output open, and whoever reads that waits for ever.
            self.end()
            raise RuntimeError(json.load(error)["value"]["message"]) from None
        self.base += "/session/" + session["sessionId"]

    def close(self):
        self.call("DELETE", "")
        self.end()

    def end(self):
        self.driver.terminate()
        self.driver.communicate()
        self.profile.cleanup()

    def call(self, method, path, body=None):
        data = json.dumps(body or {}).encode() if method == "POST" else None
        request = urllib.request.Request(self.base + path, data, {"Content-Type": "application/json"}, method=method)
        with DIRECT.open(request, timeout=60) as answer:
            return json.load(answer)["value"]

    def run(self, script):
        return self.call("POST", "/execute/sync", {"script": script, "args": []})

    def click(self, selector):
        found = self.call("POST", "/element", {"using": "css selector", "value": selector})
        self.call("POST", f"/element/{found[ELEMENT]}/click")

    def type(self, selector, text):
        found = self.call("POST", "/element", {"using": "css selector", "value": selector})
        self.call("POST", f"/element/{found[ELEMENT]}/value", {"text": text})

    def press(self, *keys):
        """Each key down and up again, by whatever has the focus."""
        actions = [{"type": kind, "value": key} for key in keys for kind in ("keyDown", "keyUp")]
        self.call("POST", "/actions", {"actions": [{"type": "key", "id": "keys", "actions": actions}]})

    def show_as(self, width, height, **media):
        """As a screen of that size, with CSS media features such as prefers_color_scheme="dark"."""
        features = [{"name": name.replace("_", "-"), "value": value} for name, value in media.items()]
        for command, parameters in (
                ("Emulation.setDeviceMetricsOverride",
                 {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 600}),
                ("Emulation.setEmulatedMedia", {"features": features})):
            self.call("POST", "/chromium/send_command_and_get_result", {"cmd": command, "params": parameters})

    def wait_for(self, condition):
        deadline = time.monotonic() + 60
        while not self.run("return " + condition):
            assert time.monotonic() < deadline, "never true: " + condition
            time.sleep(0.05)

    def read_complaints(self):
        """What the page's console has said since the last call."""
        return [entry["message"] for entry in self.call("POST", "/se/log", {"type": "browser"})]

    def read_requests(self):
        """Addresses of all requests of pages from files since the last call: the browser's own first page has some, too."""
        entries = self.call("POST", "/se/log", {"type": "performance"})
        messages = [json.loads(entry["message"])["message"] for entry in entries]
        return [message["params"]["request"]["url"] for message in messages
                if message["method"] == "Network.requestWillBeSent"
                and message["params"]["documentURL"].startswith("file:")]
