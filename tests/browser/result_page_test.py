#!/usr/bin/env python3
"""The page of `ahs select --html` as a browser shows it: rendered by headless Chromium, asked over
WebDriver (https://www.w3.org/TR/webdriver2/), never read as text. Ends with 77, skipped, where there
is no Chromium.

Usage: result_page_test.py BINARIES
"""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
import urllib.request
from xml.sax.saxutils import quoteattr

PATIENCE_S = 60
GATEWAYS = ["127.0.0.1:0,delay=100", "127.0.0.1:0,delay=400"]
# Nobody uses port 1 (tcpmux) any more.
CLOSED = "127.0.0.1:1"
# One host entry's name is markup; another entry has only an address.
NAMES = ["Near", "<b>Far</b>", CLOSED]


def start(command, **options):
    """Starts a program that the kernel ends if the test dies first."""
    return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command], text=True, stdout=subprocess.PIPE, **options)


def line_with(child, word):
    """The first line of a program that has a word, and those before it."""
    lines = []
    for line in child.stdout:
        lines.append(line)
        if word in line:
            return lines
    raise RuntimeError(f"{child.args} ended")


class Browser:
    """A WebDriver session."""

    def __init__(self, port):
        self.root = f"http://127.0.0.1:{port}"
        arguments = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                     "--hide-scrollbars", "--disable-lcd-text", "--force-color-profile=srgb",
                     "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1"]
        session = self.ask("POST", "/session", {
            "capabilities": {"alwaysMatch": {
                "browserName": "chrome",
                "goog:chromeOptions": {"args": arguments, "binary": shutil.which("chromium")}}}})
        self.root += "/session/" + session["sessionId"]

    def ask(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.root + path, data, {"Content-Type": "application/json"},
                                         method=method)
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(request, timeout=PATIENCE_S) as answer:
            return json.load(answer)["value"]

    def open(self, path):
        self.ask("POST", "/url", {"url": "file://" + path})

    def run(self, script):
        return self.ask("POST", "/execute/sync", {"script": "return " + script, "args": []})

    def resize(self, width, height):
        self.command("Emulation.setDeviceMetricsOverride",
                     {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def prefer(self, scheme):
        self.command("Emulation.setEmulatedMedia",
                     {"features": [{"name": "prefers-color-scheme", "value": scheme}]})

    def command(self, name, parameters):
        return self.ask("POST", "/goog/cdp/execute", {"cmd": name, "params": parameters})

    def close(self):
        self.ask("DELETE", "")


class ResultPage(unittest.TestCase):
    binaries = ""

    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.page = os.path.join(cls.scratch.name, "page.html")
        cls.chart = os.path.join(cls.scratch.name, "chart.svg")
        command = [os.path.join(cls.binaries, "ahs-gateways")]
        for gateway in GATEWAYS:
            command += ["--gateway", gateway]
        cls.gateways = start(command)
        cls.addresses = [line.split()[1] for line in line_with(cls.gateways, "ready")
                         if line.startswith("gateway")] + [CLOSED]
        preferences = os.path.join(cls.scratch.name, "preferences.xml")
        with open(preferences, "w", encoding="utf-8") as file:
            file.write('<preferences version="1"><preference name="RoundTripTime" value="response"/>'
                       "</preferences>")
        profiles = os.path.join(cls.scratch.name, "profiles")
        os.umask(0o022)
        os.mkdir(profiles)
        with open(os.path.join(profiles, "vpn.xml"), "w", encoding="utf-8") as file:
            file.write('<profile version="1"><preferences><preference name="EnableAutomaticServerSelection"'
                       ' value="true"/></preferences><hosts>')
            for name, address in zip(NAMES, cls.addresses):
                file.write(f"<host name={quoteattr(name)} address={quoteattr(address)}/>")
            file.write("</hosts></profile>")
        outcome = subprocess.run(
            [os.path.join(cls.binaries, "ahs"), "select", "--no-cache", "--no-proxy", "--json",
             "--preferences", preferences, "--profiles", profiles, "--html", cls.page, "--svg", cls.chart],
            stdout=subprocess.PIPE, check=True, timeout=PATIENCE_S)
        cls.result = json.loads(outcome.stdout)
        cls.driver = start(["chromedriver", "--port=0"], stderr=subprocess.STDOUT,
                           env={**os.environ, "HOME": cls.scratch.name})
        cls.browser = Browser(int(line_with(cls.driver, "successfully on port")[-1].rstrip(". \n").split()[-1]))
        cls.browser.resize(1000, 900)
        cls.browser.open(cls.page)

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()
        for child in (cls.driver, cls.gateways):
            child.terminate()
            child.communicate()
        cls.scratch.cleanup()

    def test_the_headline_is_the_decision(self):
        words = self.result["decision"]["words"]
        self.assertIn(self.addresses[0], words)
        self.assertEqual(self.browser.run("document.querySelector('h1').innerText"), words)
        self.assertEqual(self.browser.run("document.title"), words)

    def test_the_table_has_a_row_for_every_headend_with_the_name_of_its_entry(self):
        rows = self.browser.run("[...document.querySelectorAll('tbody tr')]"
                                ".map(r => [...r.cells].map(c => c.innerText))")
        self.assertEqual([(row[1], row[2], row[5]) for row in rows],
                         [(one["headend"], name, one["outcome"])
                          for one, name in zip(self.result["results"], ["Near", "<b>Far</b>", ""])])
        self.assertEqual(self.browser.run("[...document.querySelectorAll('svg g')]"
                                          ".map(g => g.querySelector('text').textContent)"), NAMES)

    def test_nothing_is_fetched_and_no_script_runs(self):
        self.assertEqual(self.browser.run("performance.getEntriesByType('resource').length"), 0)
        self.assertEqual(self.browser.run("document.scripts.length"), 0)

    def test_a_narrow_window_is_not_scrolled_sideways(self):
        self.browser.resize(360, 700)
        try:
            self.assertLessEqual(self.browser.run("document.documentElement.scrollWidth"), 360)
        finally:
            self.browser.resize(1000, 900)

    def test_light_and_dark_have_colours_of_their_own(self):
        for scheme, ground in (("dark", "rgb(21, 25, 30)"), ("light", "rgb(255, 255, 255)")):
            self.browser.prefer(scheme)
            self.assertEqual(self.browser.run("getComputedStyle(document.body).backgroundColor"), ground)

    def test_the_picture_alone_is_drawn_too(self):
        self.browser.open(self.chart)
        try:
            self.assertEqual(self.browser.run("document.documentElement.localName"), "svg")
            self.assertGreater(self.browser.run("document.querySelector('rect').getBoundingClientRect().width"), 0)
        finally:
            self.browser.open(self.page)


def main():
    if not shutil.which("chromium") or not shutil.which("chromedriver"):
        print("skipped: chromium and chromedriver are not installed (Debian: chromium, chromium-driver)")
        sys.exit(1 if os.environ.get("AHS_NO_SKIP") else 77)
    ResultPage.binaries = os.path.abspath(sys.argv[1])
    unittest.main(argv=[sys.argv[0]], verbosity=2)


if __name__ == "__main__":
    main()
