"""Takes the pictures of docs/memtrack.md: page_pictures.py PAGE FOLDER"""
import base64
import shutil
import sys
import time
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

page, folder = Path(sys.argv[1]).resolve(), Path(sys.argv[2])
options = webdriver.ChromeOptions()
options.binary_location = shutil.which("chromium")
for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--hide-scrollbars",
                 "--disable-dev-shm-usage"):
    options.add_argument(argument)
browser = webdriver.Chrome(options=options, service=Service(shutil.which("chromedriver")))
try:
    for name, theme, top, bottom in (("page", "light", "head", "run"),
                                     ("page-dark", "dark", "by-phase", "thread-table")):
        browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": 1200, "height": 900, "deviceScaleFactor": 1, "mobile": False})
        browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": theme}]})
        browser.get(page.as_uri())
        time.sleep(1)
        # From above the one element to below the other, whole, however high that is.
        begin, end = browser.execute_script("""
            const box = (id) => document.getElementById(id).getBoundingClientRect();
            return [Math.max(0, box(arguments[0]).top - 12), box(arguments[1]).bottom + 12];
        """, top, bottom)
        picture = browser.execute_cdp_cmd("Page.captureScreenshot", {
            "captureBeyondViewport": True,
            "clip": {"x": 0, "y": begin, "width": 1200, "height": end - begin, "scale": 1}})
        (folder / f"{name}.png").write_bytes(base64.b64decode(picture["data"]))
finally:
    browser.quit()
