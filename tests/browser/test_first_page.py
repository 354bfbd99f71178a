"""The first page in a browser: logging in, the form, its errors, languages, the keyboard."""

from pathlib import Path

import pytest
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import Select, WebDriverWait


def find(browser, identifier):
    return browser.find_element(By.ID, identifier)


def until(browser, condition):
    return WebDriverWait(browser, 10, 0.02).until(lambda _: condition())


def shown(browser, identifier):
    until(browser, lambda: find(browser, identifier).is_displayed())
    return find(browser, identifier)


def says(browser, identifier, text):
    until(browser, lambda: find(browser, identifier).text == text)


def login(browser, user, password=None):
    shown(browser, "username").send_keys(user)
    find(browser, "passwd").send_keys(password or f"{user}-demo", Keys.ENTER)


def fill(browser, field, value):
    box = shown(browser, f"field-{field}")
    box.clear()
    box.send_keys(value)


def apply(browser):
    find(browser, "network").find_element(By.CSS_SELECTOR, "button[type=submit]").click()


def loaded(browser):
    until(browser, lambda: shown(browser, "network") and find(browser, "field-hostname").get_property("value") != "")


def complaints(browser):
    """What the browser itself has to say: errors of scripts, violations of the policy."""
    return [entry for entry in browser.get_log("browser") if entry["level"] in ("SEVERE", "WARNING")]


def test_the_whole_road(browser, settings):
    login(browser, "admin", "wrong")
    says(browser, "message", "The user name or the password is wrong.")
    find(browser, "username").clear()
    find(browser, "passwd").clear()
    login(browser, "admin")
    loaded(browser)
    assert find(browser, "user").text == "admin"
    assert not find(browser, "login").is_displayed()
    assert find(browser, "passwd").get_property("value") == ""

    fill(browser, "mtu", "12")
    fill(browser, "hostname", "a" * 64)
    apply(browser)
    says(browser, "message", "Please check the marked fields.")
    assert find(browser, "error-mtu").text == "The field is not valid."
    assert find(browser, "error-hostname").text == "The text is too long."
    hostname = find(browser, "field-hostname")
    assert hostname.get_attribute("aria-invalid") == "true"
    assert hostname.get_attribute("aria-describedby") == "error-hostname"
    assert browser.switch_to.active_element == hostname
    assert find(browser, "field-ip").get_attribute("aria-invalid") is None

    fill(browser, "mtu", "9000")
    fill(browser, "hostname", "box")
    Select(find(browser, "field-speed")).select_by_value("10000")
    apply(browser)
    says(browser, "message", "The settings were applied.")
    assert find(browser, "error-mtu").text == "" and hostname.get_attribute("aria-invalid") is None

    browser.refresh()
    loaded(browser)
    assert find(browser, "field-mtu").get_property("value") == "9000"
    assert find(browser, "field-hostname").get_property("value") == "box"
    assert find(browser, "field-speed").get_property("value") == "10000"

    find(browser, "logout").click()
    shown(browser, "login")
    assert [cookie["name"] for cookie in browser.get_cookies() if cookie["name"] == "id"] == []
    browser.refresh()
    shown(browser, "login")
    assert complaints(browser) == []


def test_an_ordinary_user_is_told(browser):
    login(browser, "alice")
    says(browser, "message", "You are not allowed to do this.")
    assert find(browser, "user").text == "alice"
    assert not find(browser, "network").is_displayed()
    find(browser, "logout").click()
    shown(browser, "login")


def test_a_session_that_is_over_leads_to_the_login(browser):
    login(browser, "admin")
    loaded(browser)
    browser.delete_cookie("id")
    apply(browser)
    shown(browser, "login")
    assert not find(browser, "network").is_displayed()
    assert find(browser, "message").text != ""


@pytest.mark.parametrize("code, tag, words", [
    ("enu", "en", ("Log in", "The user name or the password is wrong.", "Host name", "The text is too long.")),
    ("ger", "de", ("Anmelden", "Der Benutzername oder das Kennwort ist falsch.", "Hostname", "Der Text ist zu lang.")),
    ("jpn", "ja", ("ログイン", "ユーザー名またはパスワードが正しくありません。", "ホスト名", "テキストが長すぎます。")),
])
def test_the_page_speaks_the_chosen_language(browser, code, tag, words):
    heading, message, label, mark = words
    Select(shown(browser, "language")).select_by_value(code)
    until(browser, lambda: browser.find_element(By.TAG_NAME, "html").get_attribute("lang") == tag)
    says_heading = browser.find_element(By.CSS_SELECTOR, "#login h2")
    until(browser, lambda: says_heading.text == heading)
    login(browser, "admin", "wrong")
    says(browser, "message", message)
    find(browser, "username").clear()
    find(browser, "passwd").clear()
    login(browser, "admin")
    loaded(browser)
    assert browser.find_element(By.CSS_SELECTOR, "label[for=field-hostname]").text == label
    fill(browser, "hostname", "a" * 64)
    apply(browser)
    says(browser, "error-hostname", mark)
    # The choice is kept.
    browser.refresh()
    until(browser, lambda: find(browser, "language").get_property("value") == code)


def test_it_is_used_by_keyboard_alone(browser, settings):
    until(browser, lambda: browser.switch_to.active_element == find(browser, "username"))
    browser.switch_to.active_element.send_keys("admin", Keys.TAB)
    browser.switch_to.active_element.send_keys("admin-demo", Keys.ENTER)
    loaded(browser)
    seen = []
    for _ in range(50):
        browser.switch_to.active_element.send_keys(Keys.TAB)
        seen.append(browser.switch_to.active_element.get_attribute("id"))
    fields = [name for name in seen if name.startswith("field-")]
    assert len(set(fields)) == 9 and "language" in seen and "logout" in seen


@pytest.mark.parametrize("width", [360, 1000])
@pytest.mark.parametrize("code", ["enu", "ger", "jpn"])
def test_nothing_is_wider_than_the_window(browser, width, code):
    browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                            {"width": width, "height": 800, "deviceScaleFactor": 1, "mobile": width < 500})
    try:
        Select(shown(browser, "language")).select_by_value(code)
        login(browser, "admin")
        loaded(browser)
        assert browser.execute_script("return document.documentElement.scrollWidth") <= width
    finally:
        browser.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})


LUMINANCE = """
const value = (colour) => {
  const [r, g, b] = colour.match(/[\\d.]+/g).map(Number).map((c) => {
    c /= 255; return c <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4; });
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
};
const back = (node) => {
  const colour = getComputedStyle(node).backgroundColor;
  return colour === 'rgba(0, 0, 0, 0)' && node.parentElement ? back(node.parentElement) : colour;
};
return [...document.querySelectorAll('h1, h2, label, input, select, button, p')]
  .filter((node) => node.offsetParent)
  .map((node) => [value(getComputedStyle(node).color), value(back(node))])
  .map(([a, b]) => (Math.max(a, b) + 0.05) / (Math.min(a, b) + 0.05));
"""


@pytest.mark.parametrize("scheme", ["light", "dark"])
def test_the_contrast_is_enough(browser, scheme):
    """WCAG 2.2, 1.4.3: 4.5 to 1."""
    browser.execute_cdp_cmd("Emulation.setEmulatedMedia",
                            {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
    try:
        login(browser, "admin")
        loaded(browser)
        fill(browser, "mtu", "x")
        apply(browser)
        until(browser, lambda: find(browser, "error-mtu").text != "")
        ratios = browser.execute_script(LUMINANCE)
        assert len(ratios) > 15 and min(ratios) >= 4.5
        body = browser.execute_script("return getComputedStyle(document.body).backgroundColor")
        assert (body == "rgb(18, 22, 28)") is (scheme == "dark")
    finally:
        browser.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": []})


STRICT = ("default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self'; "
          "form-action 'none'; base-uri 'none'")


@pytest.fixture
def strict_page(browser):
    """The page with a strict policy of its own, under another name, since nobody has that in a cache."""
    page = Path("/usr/vemo/vemoman/strict.html")
    text = Path("/usr/vemo/vemoman/index.html").read_text()
    page.write_text(text.replace("<head>", f'<head><meta http-equiv="Content-Security-Policy" content="{STRICT}">'))
    browser.get(browser.current_url + page.name)
    yield
    page.unlink()


def test_a_strict_policy_stops_nothing(browser, strict_page, settings):
    login(browser, "admin")
    loaded(browser)
    apply(browser)
    says(browser, "message", "The settings were applied.")
    assert complaints(browser) == []
    # It is in force.
    browser.execute_script("document.head.appendChild(document.createElement('style')).textContent = 'p {}'")
    assert any("Content Security Policy" in entry["message"] for entry in complaints(browser))


def test_nothing_secret_stays_with_the_page(browser):
    login(browser, "admin")
    loaded(browser)
    assert browser.execute_script("return [localStorage.length, sessionStorage.length]") == [0, 0]
    assert "id=" not in browser.execute_script("return document.cookie")
    assert "?" not in browser.current_url
