"""Opens pages of memtrack html in a browser without a window, clicks on them, and keeps pictures.

  page_test.py MEMTRACK FOLDER

Exit status 77, which CTest takes as skipped, where this machine has no Chromium or no Selenium, or where
memtrack was built without its page. The pictures in FOLDER are for looking at.
"""
import json
import os
import shutil
import subprocess
import sys
import time
import unittest
from pathlib import Path

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import Select
except ImportError:
    print("SKIPPED: no Selenium for Python (Debian package python3-selenium)")
    sys.exit(77)

from recording import MALLOC, Recording, solver

MEMTRACK, FOLDER = sys.argv[1], Path(sys.argv[2])
HOSTILE = "</script><img src=x onerror=window.owned=1>"


def memtrack(*arguments):
    return subprocess.run([MEMTRACK, *map(str, arguments)], capture_output=True, text=True)


def make_page(*bases, name, status=0):
    page = FOLDER / f"{name}.html"
    done = memtrack("html", *bases, "--force", "--output", page)
    assert done.returncode == status, done.stderr
    assert page.stat().st_size < 10_000_000, page.stat().st_size
    return page


def report(*bases):
    return json.loads(memtrack("report", "--json", "-n", 0, *bases).stdout)


def start_browser():
    options = webdriver.ChromeOptions()
    options.binary_location = shutil.which("chromium")
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                     "--disable-dev-shm-usage"):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    return webdriver.Chrome(options=options, service=Service(shutil.which("chromedriver")))


class PageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.browser = start_browser()

    @classmethod
    def tearDownClass(cls):
        cls.browser.quit()

    def tearDown(self):
        said = [entry for entry in self.browser.get_log("browser") if entry["level"] != "DEBUG"]
        self.assertEqual(said, [], "on the console")
        asked = [json.loads(entry["message"])["message"] for entry in self.browser.get_log("performance")]
        fetched = [one["params"]["request"]["url"] for one in asked
                   if one["method"] == "Network.requestWillBeSent"]
        self.assertEqual([url for url in fetched if url != self.url], [], "requests")
        self.assertIsNone(self.script("return window.owned ?? null"))

    # --- helpers ---

    def script(self, text, *arguments):
        return self.browser.execute_script(text, *arguments)

    def open(self, page, width=1300, height=1500, dark=False):
        self.url = page.resolve().as_uri()
        self.look(width, height, dark)
        self.browser.get(self.url)
        self.assertTrue(self.script("return document.title").startswith("Memory of "))

    def look(self, width, height, dark=False):
        self.browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        self.browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})

    def picture(self, name):
        time.sleep(0.3)
        self.browser.save_screenshot(str(FOLDER / f"{name}.png"))

    def find(self, selector):
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def texts(self, selector):
        return self.script("return [...document.querySelectorAll(arguments[0])].map(e => e.textContent)",
                           selector)

    def figure(self, name):
        return int(self.script("return document.querySelector(`[data-figure=${arguments[0]}]`)?.dataset.value",
                               name))

    def click(self, selector):
        self.script("document.querySelector(arguments[0]).click()", selector)
        time.sleep(0.2)

    def range_text(self):
        return self.script("return document.getElementById('range').textContent").replace("\u00a0", "")

    def assert_figures(self, told):
        for name, value in {
                "peak": told["peak"]["bytes"], "left": told["left"]["bytes"],
                "allocated": told["allocated"]["bytes"], "events": told["events"],
                "temporary": told["temporary"], "failed": told["failed"],
                "threads": len(told["threads"]), "phases": len(told["phases"])}.items():
            self.assertEqual(self.figure(name), value, name)

    # --- tests ---

    def test_million_events(self):
        base = solver(FOLDER / "million", 1_000_000)
        told = report(base)
        self.open(make_page(base, name="million"))
        self.assert_figures(told)
        self.assertFalse(self.find("#banner").is_displayed())
        self.assertTrue(self.range_text().startswith("Events 0 – 999999"))
        self.picture("light-wide")

        # Figures of each phase, as the table has them sorted by what was not released.
        left = {phase["phase"]: phase["left"]["bytes"] for phase in told["phases"]
                if phase["left"]["bytes"]}
        rows = self.texts("#left-phase-table tbody td:first-child")
        self.assertEqual(rows, sorted(left, key=left.get, reverse=True))
        exact = self.script("return [...document.querySelectorAll('#left-phase-table tbody td:nth-child(2)')]"
                            ".map(e => e.title.replace(/\\D/g, ''))")
        self.assertEqual([int(text) for text in exact], [left[phase] for phase in rows])

        # A drag zooms, tables follow, and a double click goes back.
        over = self.find(".u-over")
        width = over.size["width"]
        ActionChains(self.browser).move_to_element_with_offset(over, -width // 4, 20).click_and_hold() \
            .move_by_offset(width // 8, 0).release().perform()
        time.sleep(0.3)
        first, last = (int(part) for part in self.range_text().split(":")[0][7:].split(" – "))
        self.assertAlmostEqual(first, 250_000, delta=15_000)
        self.assertAlmostEqual(last, 375_000, delta=15_000)
        self.assertIn("of 9 rows", self.find("#phase-table .note").text)
        self.assertNotIn("ROOT->read", self.texts("#phase-table tbody td:first-child"))
        self.picture("light-zoomed")
        ActionChains(self.browser).double_click(over).perform()
        time.sleep(0.3)
        self.assertTrue(self.range_text().startswith("Events 0 – 999999"))

        # The peak is found however close one looks.
        self.click("#zoom-peak")
        for _ in range(4):
            self.click("#zoom-in")
        first, last = (int(part) for part in self.range_text().split(":")[0][7:].split(" – "))
        self.assertLess(last - first, 1000)
        self.assertTrue(first <= told["peak"]["event"] <= last)
        self.assertIn("at most 421.7 MiB", self.range_text())

        # By keyboard: out to the whole run again.
        self.find("#chart").send_keys("0")
        time.sleep(0.2)
        self.assertTrue(self.range_text().startswith("Events 0 – 999999"))
        self.find("#chart").send_keys("+", Keys.ARROW_LEFT)
        time.sleep(0.2)
        self.assertTrue(self.range_text().startswith("Events 125000 – 624999"))
        self.click("#zoom-reset")

        # Filters and sorting.
        self.find("#phase-table input").send_keys("precond")
        self.assertEqual(self.texts("#phase-table tbody td:first-child"), ["ROOT->solve->precondition"])
        self.find("#phase-table input").send_keys(Keys.CONTROL, "a", Keys.NULL, Keys.BACKSPACE)
        self.click("#thread-table th:nth-child(2) button")
        events = [int(text.replace("\u00a0", "")) for text in
                  self.texts("#thread-table tbody td:nth-child(2)")]
        self.assertEqual(events, sorted((t["events"] for t in told["threads"]), reverse=True))
        self.click("#thread-table th:nth-child(2) button")
        self.assertEqual(self.find("#thread-table th:nth-child(2)").get_attribute("aria-sort"), "ascending")

        # The icicle: in by a click, out by a key; at the end other bytes.
        assemble = "#icicle .box:nth-child(3)"
        self.assertTrue(self.find(assemble).text.startswith("assemble"))
        self.click(assemble)
        self.assertEqual(self.find(assemble).get_attribute("style").split("width: ")[1][:4], "100%")
        self.assertTrue(self.find("#icicle-at").text.startswith("ROOT->assemble: "))
        self.browser.switch_to.active_element.send_keys(Keys.ESCAPE)
        self.click("#moments button:nth-child(2)")
        self.assertIn("390.5", self.find("#icicle .box").text)

        Select(self.find("#thread")).select_by_value("2")
        ActionChains(self.browser).move_to_element_with_offset(self.find(".u-over"), 200, 20).perform()
        self.assertIn("thread 2 in ROOT->solve", self.find("#at").text)

        # Fits a telephone, in the dark, after the window changed.
        self.look(400, 1700)
        time.sleep(0.4)
        self.assertLessEqual(self.script("return document.documentElement.scrollWidth"), 400)
        self.click("#theme")
        self.assertEqual(self.script("return document.documentElement.dataset.theme"), "dark")
        self.script("scrollTo(0, 0)")
        self.picture("dark-narrow")
        self.open(FOLDER / "million.html", dark=True)
        self.picture("dark-wide")

        # On paper: light, without what one cannot click there.
        pdf = self.browser.execute_cdp_cmd("Page.printToPDF", {"printBackground": True})
        self.assertGreater(len(pdf["data"]), 10_000)

    def test_nothing_recorded(self):
        base = Recording(FOLDER / "nothing").finish()
        self.open(make_page(base, name="nothing", status=memtrack("report", base).returncode))
        self.assertTrue(self.find("#empty").is_displayed())
        self.assertFalse(self.find("#run").is_displayed())
        self.picture("nothing")

    def test_one_event(self):
        run = Recording(FOLDER / "one")
        run.add(MALLOC, 64, 1000)
        self.open(make_page(run.finish(), name="one"))
        self.assertEqual(self.figure("peak"), 1000)
        self.assertTrue(self.range_text().startswith("Events 0 – 0: at most 1000 bytes"))

    def test_damaged_files(self):
        base = solver(FOLDER / "damaged", 5000, 7)
        os.remove(f"{base}.phaseStack")
        os.truncate(f"{base}.memT0", 4 + 40 * 3000 + 20)
        page = make_page(base, name="damaged", status=1)
        self.open(page)
        self.assert_figures(report(base))
        self.assertIn("Incomplete: 2 problems", self.find("#banner").text)
        self.assertIn(f"damaged.memT0, byte {4 + 40 * 3000}", self.find("#banner").text)
        self.picture("damaged")

    def test_ranks(self):
        bases = [solver(FOLDER / f"rank{i}", 20_000 + 3000 * i, i + 3) for i in range(4)]
        told = report(*bases)
        self.open(make_page(*bases, name="ranks"))
        self.assert_figures(told)
        spread = self.script("return [...document.querySelectorAll('[data-spread=events] td')]"
                             ".map(e => e.textContent)")
        self.assertEqual(spread[:3], ["20 000".replace(" ", "\u00a0"), "24 500".replace(" ", "\u00a0"),
                                      "29 000".replace(" ", "\u00a0")])
        self.assertEqual(spread[3], str(bases[3]))
        self.assertEqual(told["over_ranks"]["events"]["mean"], 24_500)
        self.picture("ranks")
        Select(self.find("#rank")).select_by_value("1")
        self.assert_figures(report(bases[1]))
        self.assertTrue(self.find("#chart").is_displayed())
        self.assertFalse(self.find("#ranks").is_displayed())
        Select(self.find("#rank")).select_by_value("all")
        self.click("#multiples button")
        self.assertEqual(self.figure("events"), 29_000)

    def test_hostile_names(self):
        names = [HOSTILE, "<!--<script>", "&lt;b&gt;\"'`", "__proto__", "constructor", "@DATA@", "\u2028",
                 "a b", "x" * 5000]
        folder = FOLDER / "<img src=x onerror=window.owned=2>"
        folder.mkdir(exist_ok=True)
        run = Recording(folder / "run", ["ROOT", *(f"ROOT->{name}" for name in names)])
        for i in range(300):
            run.malloc(10 + i, i % 3, i % (len(names) + 1))
        run.refuse(2**64 - 1, 0, 1)
        self.open(make_page(run.finish(), name="hostile"))
        self.assertEqual(self.texts("img, b"), [])
        self.assertEqual(len(self.script("return document.scripts")), 3)
        shown = self.texts("#phase-table tbody td:first-child")
        for name in names[:-1]:
            self.assertIn(f"ROOT->{name}", shown)
        self.assertTrue(any(text.endswith("x...") for text in shown))
        self.assertIn("window.owned=2", self.find("h1").text)
        # The largest of sizes keeps its digits.
        self.assertEqual(self.script("return document.querySelector('#refusal-table td:nth-child(3)').title")
                         .replace("\u00a0", ""), "18446744073709551615 bytes")
        for box in self.browser.find_elements(By.CSS_SELECTOR, "#icicle .box")[:8]:
            ActionChains(self.browser).move_to_element(box).perform()
        self.picture("hostile")

    def test_refusals_lead_to_their_place(self):
        run = Recording(FOLDER / "refused")
        for i in range(5000):
            if i in (1000, 4000):
                run.refuse(1 << 40)
            else:
                run.malloc(8)
        self.open(make_page(run.finish(), name="refused"))
        self.assertEqual(len(self.texts("#refusal-table tbody tr")), 2)
        self.click("#refusal-table tbody tr:nth-child(2) button")
        self.assertTrue(self.range_text().startswith("Events 3950 – 4049"), self.range_text())
        self.assertEqual(len(self.texts("#refusal-table tbody tr")), 1)
        self.click("#follow")
        self.assertEqual(len(self.texts("#refusal-table tbody tr")), 2)


if __name__ == "__main__":
    for program, package in (("chromium", "chromium"), ("chromedriver", "chromium-driver")):
        if not shutil.which(program):
            print(f"SKIPPED: no {program} (Debian package {package})")
            sys.exit(77)
    FOLDER.mkdir(parents=True, exist_ok=True)
    if "was built without" in memtrack("html", Recording(FOLDER / "none").finish()).stderr:
        print("SKIPPED: memtrack was built without its page, which needs npm")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
