"""Chromium on the page of a probe, in the namespace of the test."""

import json

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

from web import PORT
from testbed.process import wait_until

PHONE = (360, 740)
DESK = (1280, 900)
# The sandbox needs name spaces that root has left; nothing but our own page is shown.
ARGUMENTS = ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--no-first-run", "--disable-component-update", "--disable-background-networking",
             "--force-device-scale-factor=1", "--hide-scrollbars")


class Browser:
    def __init__(self, profile):
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for argument in (*ARGUMENTS, f"--user-data-dir={profile}", "about:blank"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"performance": "ALL", "browser": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.driver.set_script_timeout(30)

    def close(self):
        self.driver.quit()

    def command(self, name, **parameters):
        """A command of the DevTools protocol."""
        return self.driver.execute_cdp_cmd(name, parameters)

    def set_size(self, size):
        self.command("Emulation.setDeviceMetricsOverride", width=size[0], height=size[1],
                     deviceScaleFactor=1, mobile=size == PHONE)

    def set_scheme(self, scheme):
        """"light" or "dark"."""
        self.command("Emulation.setEmulatedMedia",
                     features=[{"name": "prefers-color-scheme", "value": scheme}])

    def open(self, port=PORT):
        self.errors(), self.requested()  # those of the browser's own first page
        self.driver.get(f"http://127.0.0.1:{port}/")
        self.wait_for_updates(2)

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def wait_for_updates(self, count):
        before = self._updates()
        wait_until(lambda: self._updates() >= before + count, f"{count} updates of the page")

    def _updates(self):
        return int(self.run("return document.body.dataset.updates ?? 0"))

    def number(self, metric):
        """A number that the page shows in whole; None where there is none."""
        value = self.run("return document.querySelector(`[data-metric='${arguments[0]}']`)"
                         "?.dataset.value", metric)
        return int(value) if value else None

    def text(self, selector):
        return self.run("return document.querySelector(arguments[0]).innerText", selector)

    def rows(self, selector):
        """The rows of a table's body, each a list of texts."""
        return self.run("return [...document.querySelectorAll(`${arguments[0]} tr`)].map("
                        "row => [...row.children].map(cell => cell.innerText.trim()))", selector)

    def errors(self):
        """What the console has to complain of, the content security policy included."""
        return [entry["message"] for entry in self.driver.get_log("browser")]

    def requested(self):
        """The addresses that were asked for since the last call."""
        found = []
        for entry in self.driver.get_log("performance"):
            message = json.loads(entry["message"])["message"]
            if message["method"] == "Network.requestWillBeSent":
                found.append(message["params"]["request"]["url"])
        return found

    def picture(self, path):
        """The whole page, as far as it goes."""
        self.driver.get_screenshot_as_file(str(path))
