"""The appliance and a real browser before it, both in the test's own sandbox."""

import importlib.util
import sys
from pathlib import Path

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service

# The web server, its system log and the settings are those of the tests over HTTP.
_spec = importlib.util.spec_from_file_location(
    "appliance", Path(__file__).resolve().parents[1] / "appliance/conftest.py")
appliance = importlib.util.module_from_spec(_spec)
sys.modules["appliance"] = appliance
_spec.loader.exec_module(appliance)
log, server, settings = appliance.log, appliance.server, appliance.settings

URL = f"http://127.0.0.1:{appliance.PORT}/"


def chromium():
    """Chromium without a window."""
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--lang=en-US",
                     "--no-first-run", "--disable-background-networking", "--disable-component-update"):
        options.add_argument(argument)
    options.add_experimental_option("prefs", {"intl.accept_languages": "en-US"})
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    one = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    one.implicitly_wait(0)
    return one


@pytest.fixture(scope="session")
def driver(server):
    one = chromium()
    yield one
    one.quit()


@pytest.fixture
def second_browser(server):
    """Somebody else's, with cookies of its own."""
    one = chromium()
    yield one
    one.quit()


@pytest.fixture
def browser(driver):
    """The first page, as somebody sees it who was never here."""
    driver.set_window_size(1000, 900)
    driver.get(URL)
    driver.delete_all_cookies()
    driver.get_log("browser")
    driver.get(URL)
    return driver
