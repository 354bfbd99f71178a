"""The policy of pages, as Chromium enforces it: what is blocked, what is let through, who may frame."""

import functools
import http.server
import json
import subprocess
import threading
from pathlib import Path

import pytest
from selenium.webdriver.support.ui import WebDriverWait

URL = "http://127.0.0.1:5000"
OTHER_PORT = 8766
OTHER = f"127.0.0.1:{OTHER_PORT}"
MODULE = Path("/usr/vemo/vemoman/webman/modules/Probe")
RULES = Path("/usr/vemo/etc/csp")

# Tries to load one thing of each kind from the other origin, and tells what came of it.
PROBE = """
const seen = { blocked: [], done: [] };
addEventListener("securitypolicyviolation", (event) => seen.blocked.push(event.effectiveDirective));
const other = "http://OTHER";
const wait = (element, ok) => { element.onload = () => seen.done.push(ok); return element; };
const add = (name, properties) => document.body.append(Object.assign(document.createElement(name), properties));
const image = wait(new Image(), "img-src");
image.src = other + "/pixel.png";
const style = wait(document.createElement("link"), "style-src-elem");
style.rel = "stylesheet";
style.href = other + "/style.css";
const script = wait(document.createElement("script"), "script-src-elem");
script.src = other + "/script.js";
document.head.append(style, script);
add("iframe", { src: other + "/page.html" });
fetch(other + "/data.json", { mode: "no-cors" }).then(() => seen.done.push("connect-src"), () => {});
const inline = document.createElement("script");
inline.textContent = "window.inline = true;";
document.head.append(inline);
try { eval("window.evaluated = true"); } catch { seen.evalRefused = true; }
window.seen = seen;
""".replace("OTHER", OTHER)


class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *_):
        pass


@pytest.fixture(scope="module")
def other(server):
    """Another site."""
    root = Path("/run/other")
    root.mkdir(exist_ok=True)
    (root / "script.js").write_text("window.foreign = true;\n")
    (root / "style.css").write_text("p { color: red }\n")
    (root / "data.json").write_text("{}\n")
    (root / "page.html").write_text("<p>framed</p>\n")
    (root / "frame.html").write_text(f'<iframe id="f" src="{URL}/webman/desktop.cgi"></iframe>\n')
    (root / "pixel.png").write_bytes(bytes.fromhex(
        "89504e470d0a1a0a0000000d49484452000000010000000108060000001f15c4890000000d49444154789c6360606060000000050001"
        "a5f645400000000049454e44ae426082"))
    handler = functools.partial(Quiet, directory=str(root))
    one = http.server.ThreadingHTTPServer(("127.0.0.1", OTHER_PORT), handler)
    threading.Thread(target=one.serve_forever, daemon=True).start()
    yield one
    one.shutdown()


@pytest.fixture
def rules(server, other):
    """Saves a module's rules; all are gone afterwards."""
    (MODULE).mkdir(parents=True, exist_ok=True)
    (MODULE / "probe.js").write_text(PROBE)
    (MODULE / "config").write_text(json.dumps({"probe.js": {
        "VEMO.Probe": {"type": "standalone"}, "VEMO.Alone": {"type": "standalone"}}}))

    def save(document):
        Path("/run/rules").write_text(json.dumps(document))
        subprocess.run(["zem-csp", "save", "probe", "/run/rules"], check=True)

    yield save
    subprocess.run(f"rm -rf {RULES} /run/csp {MODULE}", shell=True, check=True)


def log_in(browser):
    done = browser.execute_async_script(
        "const done = arguments[0];"
        "fetch('/webman/login.cgi', {method: 'POST', body: new URLSearchParams("
        "{action: 'login', username: 'alice', passwd: 'alice-demo'})}).then(a => a.json()).then(a => done(a.success));")
    assert done is True


def probe(browser, page="VEMO.Probe"):
    """What was blocked and what was loaded on an application's page."""
    browser.get(f"{URL}/webman/desktop.cgi?page={page}")
    state = "return window.seen && window.seen.blocked.length + window.seen.done.length"
    WebDriverWait(browser, 10, 0.05).until(lambda _: (browser.execute_script(state) or 0) >= 5)
    browser.execute_async_script("setTimeout(arguments[0], 300)")
    return browser.execute_script("return {blocked: [...new Set(seen.blocked)].sort(), done: seen.done.sort(),"
                                  " foreign: !!window.foreign, inline: !!window.inline,"
                                  " evaluated: !!window.evaluated}")


def test_what_is_not_listed_is_blocked(browser, rules):
    rules({"rule": {}})
    log_in(browser)
    seen = probe(browser)
    assert {"img-src", "script-src-elem", "style-src-elem", "frame-src", "connect-src"} <= set(seen["blocked"])
    assert seen["done"] == []
    assert not (seen["foreign"] or seen["inline"] or seen["evaluated"])


def test_what_a_module_lists_is_let_through(browser, rules):
    rules({"rule": {name: [OTHER] for name in ("img-src", "script-src", "style-src", "child-src", "connect-src")}})
    log_in(browser)
    seen = probe(browser)
    assert seen["done"] == ["connect-src", "img-src", "script-src-elem", "style-src-elem"]
    assert seen["foreign"] and not seen["inline"] and not seen["evaluated"]
    assert "frame-src" not in seen["blocked"] and "img-src" not in seen["blocked"]


def test_a_page_on_its_own_has_its_own(browser, rules):
    rules({"rule-standalone": [{"jsid": "VEMO.Alone", "rule": {"connect-src": [OTHER]}, "wildcard": ["img-src"]}]})
    log_in(browser)
    assert probe(browser, "VEMO.Alone")["done"] == ["connect-src", "img-src"]
    assert probe(browser)["done"] == []


def test_a_semicolon_in_a_source_replaces_a_directive(browser, rules):
    # Why the tools name such sources: the pattern lets them pass.
    rules({"rule": {"img-src": ["a.b;script-src", OTHER]}})
    browser.get(f"{URL}/webman/desktop.cgi")
    refused = [entry["message"] for entry in browser.get_log("browser") if "first/app.js" in entry["message"]]
    assert refused and all("Content Security Policy" in message for message in refused)


def test_a_source_that_is_not_ascii_removes_its_directive(browser, rules):
    rules({"rule": {"img-src": ["bücher.example"]}})
    log_in(browser)
    # The directive is ignored, and that of all kinds, default-src, stands in.
    assert "img-src" in probe(browser)["blocked"]
    rules({"rule": {"style-src": ["bücher.example"], "img-src": [OTHER]}})
    assert "img-src" in probe(browser)["done"]


def test_the_desktop_runs_under_its_policy(browser, rules):
    rules({"rule": {}})
    browser.get_log("browser")
    browser.get(f"{URL}/webman/desktop.cgi")
    WebDriverWait(browser, 10, 0.05).until(lambda _: browser.find_element("id", "username").is_displayed())
    assert [entry for entry in browser.get_log("browser") if entry["level"] == "SEVERE"] == []


# The list of origins, the rule's frame-ancestors, and whether the other site's frame shows the page.
@pytest.mark.parametrize("allowed, ancestors, shown", [
    ("", None, False),
    (f"http://{OTHER}", None, True),
    ("", OTHER, True),                       # the policy overrules X-Frame-Options
    (f"http://{OTHER}", "nas.example", False),
])
def test_who_may_frame(browser, rules, settings, allowed, ancestors, shown):
    settings(frame_options_built_in_allow_url=allowed)
    rules({"rule": {} if ancestors is None else {"frame-ancestors": [ancestors]}})
    browser.get(f"http://{OTHER}/frame.html")
    browser.execute_async_script("setTimeout(arguments[0], 700)")
    browser.switch_to.frame("f")
    try:
        assert bool(browser.find_elements("id", "username")) is shown
    finally:
        browser.switch_to.default_content()
