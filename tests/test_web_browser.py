"""The web front end in a real browser: headless Chromium driven by Selenium.

A browser that cannot start fails these tests with the reason; they never skip.
Each test leaves a screenshot in build/web-screenshots/.
"""
import os
import shutil

import pytest
from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support import expected_conditions as ready
from selenium.webdriver.support.ui import WebDriverWait
from web_support import BEAMS, KIT, SN, LiveServer, calibration_text, prepare, stored_beam

from vexcore.web.app import create_app

SHOTS = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "build", "web-screenshots")
BEAM_1 = BEAMS + "/TX/1?kit=" + KIT


def _browser(profile):
    """Headless Chromium with its profile in `profile`: without one it makes a profile and a
    singleton-socket folder in /tmp and leaves them there."""
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--window-size=1400,1000",
                 "--user-data-dir=%s" % profile):
        options.add_argument(flag)
    # The browser is not ours to sanitize: under `make sanitize` it must not inherit the
    # preloaded sanitizer runtimes.
    env = {k: v for k, v in os.environ.items() if k not in ("LD_PRELOAD", "ASAN_OPTIONS", "UBSAN_OPTIONS")}
    try:
        return webdriver.Chrome(service=Service("/usr/bin/chromedriver", env=env), options=options)
    except Exception as error:                    # the reason must show, whatever Selenium raised
        pytest.fail("headless Chromium could not start (Debian's chromium and chromium-driver are needed; "
                    "`make check` installs them): %s" % error)


@pytest.fixture
def server(tmp_path, monkeypatch):
    live = LiveServer(create_app(prepare(tmp_path, monkeypatch)))
    yield live
    live.stop()


@pytest.fixture
def browser(tmp_path):
    profile = tmp_path / "chromium-profile"
    driver = _browser(profile)
    yield driver
    driver.quit()
    shutil.rmtree(profile)


def shot(driver, name):
    os.makedirs(SHOTS, exist_ok=True)
    driver.save_screenshot(os.path.join(SHOTS, name + ".png"))


def _message(driver):
    return WebDriverWait(driver, 20).until(ready.presence_of_element_located((By.ID, "message"))).text


def _peak(driver):
    return float(driver.find_element(By.CSS_SELECTOR, "svg.pattern").get_attribute("data-peak"))


def _fill(driver, field, value):
    element = driver.find_element(By.ID, field)
    element.clear()
    element.send_keys(value)


def test_upload_a_calibration_file_and_see_the_device(server, browser, tmp_path):
    upload = tmp_path / "K5350R019-55_28GHz.csv"
    upload.write_text(calibration_text("K5350R019-55"), encoding="utf-8")
    browser.get(server.url + "/devices")
    browser.find_element(By.NAME, "file").send_keys(str(upload))
    browser.find_element(By.CSS_SELECTOR, "form[action='/devices/upload'] button").click()
    assert "Stored: K5350R019-55 at 28 GHz" in _message(browser)
    shot(browser, "devices-after-upload")
    browser.find_element(By.CSS_SELECTOR, "a[href='/calibration/K5350R019-55/28']").click()  # listed from the database
    assert len(browser.find_elements(By.CSS_SELECTOR, ".charts svg")) == 4     # limits and offsets of TX and RX
    shot(browser, "calibration")


def test_change_theta_save_reload_and_the_peak_moves(server, browser):
    browser.get(server.url + BEAM_1)
    before = _peak(browser)
    _fill(browser, "theta", "-25")
    browser.find_element(By.ID, "save").click()
    assert _message(browser) == "Saved."
    browser.get(server.url + BEAM_1)
    after = _peak(browser)
    assert before == pytest.approx(30, abs=1) and after == pytest.approx(-25, abs=1)
    shot(browser, "beam-editor")
    browser.get(server.url + BEAMS + "/TX/2?kit=" + KIT)
    assert len(browser.find_elements(By.CSS_SELECTOR, "svg.pattern")) == 2
    shot(browser, "beam-editor-channel")


def test_an_out_of_range_gain_is_shown_above_the_form_and_beside_its_field(server, browser):
    browser.get(server.url + BEAM_1)
    _fill(browser, "db", "12")
    browser.find_element(By.ID, "save").click()
    assert _message(browser) == "db 12 is outside the TX DR [-10, 5]"
    assert browser.find_element(By.CSS_SELECTOR, ".field-error").text == "db 12 is outside the TX DR [-10, 5]"
    shot(browser, "beam-refused")


def test_the_second_of_two_sessions_gets_the_conflict(server, browser, tmp_path):
    other = _browser(tmp_path / "chromium-other")
    try:
        for driver in (browser, other):
            driver.get(server.url + BEAM_1)
        _fill(browser, "theta", "10")
        browser.find_element(By.ID, "save").click()
        assert _message(browser) == "Saved."
        _fill(other, "theta", "-10")
        other.find_element(By.ID, "save").click()
        assert "changed by someone else, reload" in _message(other)
        assert stored_beam(SN, KIT, "TX", 1)["beam_config"]["theta"] == 10
        shot(other, "beam-conflict")
    finally:
        other.quit()
        shutil.rmtree(tmp_path / "chromium-other")
