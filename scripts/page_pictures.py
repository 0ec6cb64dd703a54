"""Takes the pictures of docs/memtrack.md: page_pictures.py PAGE FOLDER"""
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
    for name, theme, height, top in (("page", "light", 860, "head"),
                                     ("page-dark", "dark", 760, "by-phase")):
        browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": 1200, "height": height, "deviceScaleFactor": 1, "mobile": False})
        browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": theme}]})
        browser.get(page.as_uri())
        time.sleep(1)
        browser.execute_script("document.getElementById(arguments[0]).scrollIntoView()", top)
        time.sleep(0.5)
        browser.save_screenshot(str(folder / f"{name}.png"))
finally:
    browser.quit()
