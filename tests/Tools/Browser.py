# A headless Chromium, driven through chromedriver's WebDriver interface (W3C) with the standard library alone.
import json
import re
import shutil
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"  # the key of an element's reference, as the standard has it
ARGUMENTS = ("--headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking "
             "--disable-component-update --disable-sync --window-size=1280,1400").split()
DIRECT = urllib.request.build_opener(urllib.request.ProxyHandler({}))


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
