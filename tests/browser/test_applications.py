"""The desktop's applications in a browser: found by the registry, opened, and their use."""

from pathlib import Path

from selenium.common.exceptions import NoSuchElementException, StaleElementReferenceException
from selenium.webdriver.common.by import By
from selenium.webdriver.support.ui import WebDriverWait

PORT = 5000


def wait(browser, condition, seconds=15):
    # What was found may be gone by the time it is asked: pages load anew.
    return WebDriverWait(browser, seconds, poll_frequency=0.05,
                         ignored_exceptions=[NoSuchElementException, StaleElementReferenceException]).until(condition)


def log_in(browser, user, port=PORT):
    browser.get(f"http://127.0.0.1:{port}/")
    wait(browser, lambda b: b.find_element(By.ID, "login").is_displayed())
    browser.find_element(By.ID, "username").send_keys(user)
    browser.find_element(By.ID, "passwd").send_keys(f"{user}-demo")
    browser.find_element(By.CSS_SELECTOR, "#login button[type=submit]").click()


def applications(browser):
    wait(browser, lambda b: b.find_elements(By.CSS_SELECTOR, "#applications li"))
    return [item.text for item in browser.find_elements(By.CSS_SELECTOR, "#applications li")]


def open_application(browser, id):
    applications(browser)
    browser.find_element(By.CSS_SELECTOR, f'[data-app="{id}"]').click()
    return wait(browser, lambda b: b.find_element(By.CSS_SELECTOR, "#application .content > *"))


def problems(browser):
    return [entry for entry in browser.get_log("browser") if entry["level"] == "SEVERE"]


def test_an_administrator_opens_every_application(server, browser):
    log_in(browser, "admin")
    titles = applications(browser)
    assert titles == sorted(titles, key=str.lower) and len(titles) >= 8
    assert {"Network", "Content policy", "Application privileges", "Almanac", "Handbook", "Forum"} <= set(titles)
    problems(browser)
    for id in ("VEMO.Network", "VEMO.GroupSettings", "VEMO.ContentPolicy", "VEMO.AppPrivileges"):
        open_application(browser, id)
        heading = browser.find_element(By.CSS_SELECTOR, "#application h2").text
        assert heading and ":" not in heading, id
    assert problems(browser) == []


def test_a_grant_makes_an_application_appear(server, browser, second_browser):
    log_in(second_browser, "alice")
    wait(second_browser, lambda b: b.find_elements(By.CSS_SELECTOR, "#applications li"))
    assert "Notes" not in applications(second_browser)
    log_in(browser, "admin")
    open_application(browser, "VEMO.AppPrivileges")
    section = next(s for s in browser.find_elements(By.CSS_SELECTOR, "#application section")
                   if s.find_element(By.TAG_NAME, "h3").text == "Notes")
    section.find_element(By.NAME, "name").send_keys("alice")
    section.find_element(By.CSS_SELECTOR, "button[type=submit]").click()
    wait(browser, lambda b: "applied" in b.find_element(By.CSS_SELECTOR, "#application .status").text)
    assert "User alice" in browser.find_element(By.ID, "application").text

    second_browser.refresh()
    assert "Notes" in applications(second_browser)
    open_application(second_browser, "VEMO.Notes")
    field = second_browser.find_element(By.CSS_SELECTOR, "textarea.notes")
    field.send_keys("<b>remember</b> \u540d\u524d")
    second_browser.find_element(By.CSS_SELECTOR, "#application .content button").click()
    wait(second_browser, lambda b: "applied" in b.find_element(By.CSS_SELECTOR, "#application .status").text)
    second_browser.refresh()
    open_application(second_browser, "VEMO.Notes")
    assert second_browser.find_element(By.CSS_SELECTOR, "textarea.notes").get_property("value") == "<b>remember</b> \u540d\u524d"
    assert not second_browser.find_elements(By.CSS_SELECTOR, "#application b")


def test_the_language_of_the_texts(server, browser):
    log_in(browser, "admin")
    applications(browser)
    browser.find_element(By.CSS_SELECTOR, "#language option[value=ger]").click()
    wait(browser, lambda b: "Netzwerk" in [i.text for i in b.find_elements(By.CSS_SELECTOR, "#applications li")])
    open_application(browser, "VEMO.GroupSettings")
    assert "Gemeinsame Einstellungen" in browser.find_element(By.ID, "application").text


def test_an_application_on_a_page_of_its_own(server, browser):
    log_in(browser, "admin")
    applications(browser)
    problems(browser)
    browser.get(f"http://127.0.0.1:{PORT}/webman/desktop.cgi?page=VEMO.ContentPolicy")
    wait(browser, lambda b: b.find_elements(By.CSS_SELECTOR, "pre.policy"))
    assert browser.title == "Content policy"
    assert "default-src 'self'" in browser.find_element(By.CSS_SELECTOR, "pre.policy").text
    assert problems(browser) == []


def test_an_application_on_a_port_of_its_own(server, browser):
    log_in(browser, "alice", 5010)
    wait(browser, lambda b: b.find_elements(By.CSS_SELECTOR, "textarea.notes"))
    assert browser.title == "Notes" and not browser.find_elements(By.ID, "applications")


def test_a_browser_asks_with_the_tag_as_it_came(server, browser):
    """What Chromium makes of a tag without quotes: it sends it back as it is, and takes the 304."""
    log_in(browser, "admin")
    applications(browser)
    result = browser.execute_async_script("""
        const done = arguments[0];
        (async () => {
          const seen = [];
          for (let i = 0; i < 3; i++) {
            const answer = await fetch('/webman/registry.cgi?probe=1');
            seen.push([answer.status, (await answer.text()).length > 1000, answer.headers.get('ETag')]);
          }
          const sizes = performance.getEntriesByType('resource')
            .filter((entry) => entry.name.endsWith('probe=1')).map((entry) => entry.transferSize);
          done([seen, sizes]);
        })();
    """)
    seen, sizes = result
    assert [one[:2] for one in seen] == [[200, True]] * 3 and len({one[2] for one in seen}) == 1
    # The second and third came with a 304: a head alone.
    assert sizes[0] > 1000 and all(size < 1000 for size in sizes[1:]), sizes
    wait(browser, lambda _: Path("/var/log/vemo/access.log").read_text().count('registry.cgi HTTP/1.1" 304 ') >= 2)


def grant_to_everybody(*ids):
    import subprocess

    store = "/usr/vemo/etc/app_priv.db"
    statement = ("CREATE TABLE IF NOT EXISTS grants(app TEXT NOT NULL, kind TEXT NOT NULL, name TEXT NOT NULL, "
                 "cidr TEXT NOT NULL, PRIMARY KEY(app, kind, name, cidr));")
    for id in ids:
        statement += f"INSERT OR IGNORE INTO grants VALUES('{id}', 'everyone', '', '');"
    subprocess.run(["sqlite3", store, statement], check=True)


def test_files_are_looked_at_sent_and_deleted(server, browser, tmp_path):
    grant_to_everybody("VEMO.FileManager")
    log_in(browser, "alice")
    open_application(browser, "VEMO.FileManager")
    problems(browser)
    shares = [item.text for item in browser.find_elements(By.CSS_SELECTOR, ".shares button")]
    assert "public" in shares and "home" in shares and "vault" not in shares
    next(b for b in browser.find_elements(By.CSS_SELECTOR, ".shares button") if b.text == "home").click()
    wait(browser, lambda b: "Readme.txt" in b.find_element(By.ID, "application").text)

    name = "<img src=x onerror=alert(1)> \u540d.bin"
    content = bytes(range(256)) * 1200  # more than one slice
    (tmp_path / name).write_bytes(content)
    (tmp_path / "empty").write_bytes(b"")
    for file in (tmp_path / name, tmp_path / "empty"):
        browser.find_element(By.ID, "chosen-files").send_keys(str(file))
        wait(browser, lambda b, file=file: file.name in b.find_element(By.ID, "application").text)
    stored = Path("/volume1/homes/alice") / name
    assert stored.read_bytes() == content and (stored.parent / "empty").stat().st_size == 0
    assert not browser.find_elements(By.CSS_SELECTOR, "#application img")

    row = next(r for r in browser.find_elements(By.CSS_SELECTOR, ".files tr") if name in r.text)
    row.find_element(By.CSS_SELECTOR, "button.delete").click()
    browser.switch_to.alert.accept()
    wait(browser, lambda b: name not in b.find_element(By.ID, "application").text)
    assert not stored.exists()
    (stored.parent / "empty").unlink()
    assert problems(browser) == []


def test_a_wallpaper_is_chosen(server, browser):
    grant_to_everybody("VEMO.Appearance")
    picture = next(Path("/usr/vemo/etc/login_image").glob("*thumb*"))
    log_in(browser, "alice")
    open_application(browser, "VEMO.Appearance")
    problems(browser)
    sections = browser.find_elements(By.CSS_SELECTOR, "#application section")
    assert [s.find_element(By.TAG_NAME, "h3").text for s in sections] == ["Your wallpaper", "Theme"]
    sections[0].find_element(By.CSS_SELECTOR, "input[type=file]").send_keys(str(picture))
    shown = wait(browser, lambda b: b.find_elements(By.CSS_SELECTOR, ".slots button[aria-pressed=true] img"))
    wait(browser, lambda b: b.execute_script("return arguments[0].naturalWidth", shown[0]) > 0)
    assert problems(browser) == []


def test_a_theme_is_seen(server, browser):
    back = "return getComputedStyle(document.body).backgroundColor"
    log_in(browser, "admin")
    applications(browser)
    before = browser.execute_script(back)
    for theme in ("dark", "default"):
        answer = browser.execute_async_script(
            "import('/webman/modules/Utils/utils.js').then((u) => u.call('appearance', 'apply', {theme: arguments[0]})).then(arguments[1])",
            theme)
        assert answer["success"], answer
        browser.refresh()
        applications(browser)
        after = browser.execute_script(back)
        assert (after == "rgb(16, 17, 20)") == (theme == "dark"), after
    assert after == before
