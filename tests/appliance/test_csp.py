"""Rules of the Content-Security-Policy: csp.cgi, zem-csp, and the pages of desktop.cgi."""

import json
import subprocess
from pathlib import Path

import pytest
from conftest import snapshot

BUILT_IN, PACKAGES = Path("/usr/vemo/etc/csp"), Path("/usr/local/etc/csp")
STANDALONE = Path("/run/csp/standalone")
GOOD = {"rule": {"img-src": ["tiles.example.org"]}}
DEFAULT = ("base-uri 'self';  connect-src 'self'; default-src 'self'; font-src 'self'; form-action 'self';  "
           "frame-src 'self'; img-src 'self'; media-src 'self'; object-src 'none'; script-src 'self'; "
           "style-src 'self'; ")
MINIMAL = "object-src 'none'; base-uri 'self'"


@pytest.fixture(autouse=True)
def clean(server):
    yield
    subprocess.run("rm -rf /run/csp /usr/vemo/etc/csp /usr/local/etc/csp /usr/vemo/vemoman/webman/modules", shell=True,
                   check=True)


def get(client, **query):
    from urllib.parse import urlencode

    return client.get("csp", urlencode(query), "-H", f"X-Vemo-Token: {client.token}").json


def save(client, document, name="map", **more):
    return client.post("csp", {"action": "save", "name": name, "document": json.dumps(document), **more}).json


def tool(*arguments, **more):
    done = subprocess.run(["zem-csp", *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=60, **more)
    return done.returncode, done.stdout


def refused(key):
    return {"success": False, "errinfo": {"sec": "common", "key": key}}


def test_documents_are_saved_listed_and_deleted(admin):
    assert get(admin, action="list")["data"] == []
    assert save(admin, GOOD) == {"success": True, "data": {"problems": []}}
    assert save(admin, GOOD, name="shop", package="yes")["success"]
    assert json.loads((BUILT_IN / "map").read_text()) == GOOD == json.loads((PACKAGES / "shop").read_text())
    assert get(admin, action="list")["data"] == [
        {"name": "map", "package": False, "good": True, "problems": []},
        {"name": "shop", "package": True, "good": True, "problems": []}]
    assert get(admin, action="get", name="shop", package="yes")["data"]["document"] == GOOD
    assert get(admin, action="get", name="shop") == refused("error_not_found")
    header = get(admin, action="load")["data"]["header"]
    assert "img-src 'self' tiles.example.org tiles.example.org; " in header
    assert admin.post("csp", {"action": "delete", "name": "map"}).json == {"success": True, "data": {}}
    assert not (BUILT_IN / "map").exists()
    assert get(admin, action="load")["data"]["effective"][0]["img-src"] == ["'self'", "tiles.example.org"]
    assert admin.post("csp", {"action": "delete", "name": "map"}).json["success"]  # there is none


def test_a_document_that_is_none_is_named_and_not_stored(admin):
    answer = save(admin, {"rule": {"img-src": ["'self'", "a.b"], "x": []}})
    assert answer["errinfo"]["key"] == "error_csp_document"
    assert answer["data"]["problems"] == [
        {"path": "rule.img-src[0]", "text": "keywords cannot be added: the default rule has 'self'"},
        {"path": "rule.x", "text": "is no directive that a rule may have"}]
    assert not BUILT_IN.exists()
    assert save(admin, 5)["data"]["problems"] == [{"path": "", "text": "is no object"}]


@pytest.mark.parametrize("name", ["", ".", "..", "../x", "a/b", "n" * 300])
def test_names_stay_in_the_directory(admin, name):
    before = snapshot("/usr/vemo/etc", "/usr/local/etc", "/etc")
    assert save(admin, GOOD, name=name) == refused("error_request")
    assert admin.post("csp", {"action": "delete", "name": name}).json == refused("error_request")
    assert get(admin, action="get", name=name) == refused("error_request")
    assert snapshot("/usr/vemo/etc", "/usr/local/etc", "/etc") == before


def test_it_is_for_administrators(alice):
    for answer in (alice.get("csp", "action=list"), alice.post("csp", {"action": "save", "name": "x", "document": "{}"})):
        assert answer.header("x-request-error") == "noprivilege"


def test_get_changes_nothing(admin):
    assert get(admin, action="save", name="x", document=json.dumps(GOOD)) == refused("error_request")
    assert not BUILT_IN.exists()


# What the pattern lets through, or what authors try, and the words for it.
SOURCES = [
    ("a.b;script-src", "a semicolon ends the directive, and what follows it is read as another one", True),
    ("a.b,x", "a comma ends the policy, and what follows it is read as a second one", True),
    ("bücher.example", "a character that is not ASCII makes browsers ignore the whole directive: write the name in "
     "Punycode", True),
    ("a.b\u0000c", "blanks and control characters split or break the directive", True),
    ("a.b\u0001", "blanks and control characters split or break the directive", True),
    ("a.b c", "blanks and control characters split or break the directive", False),
    ("https:", "a scheme alone opens the directive to every host", True),
    ("http:a.b", 'browsers ignore it: "//" is missing after the scheme', True),
    ("a.b/", "a slash at the end is refused: leave it out", False),
    ("a.b:*", "a port cannot be a wildcard", False),
    ("'unsafe-inline'", "keywords cannot be added: the default rule has 'self'", False),
    ("data:", "schemes other than http, https, ws and wss are refused", False),
    ("localhost", "a name needs at least two labels with a dot between", False),
    ("*", "a name needs at least two labels with a dot between", False),
    ("", "an empty source", False),
    ("a(b.c", "does not fit the pattern of sources", False),
]


@pytest.mark.parametrize("source, text, stored", SOURCES, ids=[repr(row[0]) for row in SOURCES])
def test_sources_that_authors_should_know_of(admin, source, text, stored):
    document = {"rule": {"img-src": [source]}}
    answer = save(admin, document)
    assert answer["success"] is stored
    assert answer["data"]["problems"] == [{"path": "rule.img-src[0]", "text": text}]
    file = Path("/run/rules")
    file.write_text(json.dumps(document))
    assert tool("check", str(file)) == (1, f"/run/rules: rule.img-src[0]: {text}\n")


def test_the_effective_policy_is_what_a_browser_takes(admin):
    save(admin, {"rule": {"img-src": ["a.b;script-src", "127.0.0.1:8766"]}})
    [policy] = get(admin, action="load")["data"]["effective"]
    assert policy["img-src"] == ["'self'", "a.b"]
    assert policy["script-src"] == ["127.0.0.1:8766"]  # it replaces the later one
    save(admin, {"rule": {"img-src": ["a.b,default-src"], "style-src": ["bücher.example"]}})
    first, second = get(admin, action="load")["data"]["effective"]
    assert first["img-src"] == ["'self'", "a.b"] and "script-src" not in first
    assert second["default-src"] == [] and "style-src" not in second


def test_the_tool(server):
    status, text = tool("show")
    assert status == 0
    assert json.loads(text) == [{part.split()[0]: part.split()[1:] for part in DEFAULT.split(";")[:-1]}]
    file = Path("/run/document")
    file.write_text(json.dumps({**GOOD, "rule-standalone": [{"jsid": "P", "wildcard": ["img-src"]}]}))
    assert tool("check", str(file)) == (0, "")
    assert tool("save", "map", str(file)) == (0, "")
    assert tool("save", "--package", "shop", str(file)) == (0, "")
    assert json.loads(tool("show", "P")[1])[0]["img-src"] == ["'self'", "tiles.example.org", "tiles.example.org", "*"]
    assert tool("delete", "map") == (0, "") == tool("delete", "map")
    assert tool("generate") == (0, "")
    assert json.loads(tool("show")[1])[0]["img-src"] == ["'self'", "tiles.example.org"]
    file.write_text('{"rule": {"img": []}}')
    status, text = tool("save", "map", str(file))
    assert status == 1 and "/run/document: rule.img: is no directive that a rule may have\n" in text
    assert tool("check", "/none", str(file)) == (1, "/none: : cannot be read, or is no JSON\n"
                                                 "/run/document: rule.img: is no directive that a rule may have\n")
    for wrong in ([], ["check"], ["save", "a"], ["delete"], ["generate", "x"], ["show", "a", "b"], ["other"]):
        assert tool(*wrong)[0] == 2
    assert tool("save", "../x", "/run/document")[0] == 1


@pytest.mark.parametrize("document, problems", [
    ([], [": is no object"]),
    ({}, [': has neither "rule" nor "rule-standalone"']),
    ({"rule": []}, ["rule: is no object of directives"]),
    ({"rule": {"img-src": "a.b"}}, ["rule.img-src: is no list of sources"]),
    ({"rule": {"img-src": [5, None]}}, ["rule.img-src[0]: is no text", "rule.img-src[1]: is no text"]),
    ({"rule": {}, "jsid": "x"}, ["jsid: is no key of a document"]),
    ({"rule-standalone": 5}, ["rule-standalone: is no object"]),
    ({"rule-standalone": [{}]}, ["rule-standalone[0].jsid: is missing, or no text",
                                 'rule-standalone[0]: has neither "rule" nor "wildcard"']),
    ({"rule-standalone": {"jsid": "a/b", "rule": {}}}, ["rule-standalone.jsid: must not hold a slash"]),
    ({"rule-standalone": {"jsid": "..", "rule": {}}},
     ["rule-standalone.jsid: names no file: the page gets no policy of its own"]),
    ({"rule-standalone": {"jsid": "P", "wildcard": ["script-src", "x", 1]}},
     ["rule-standalone.wildcard[0]: scripts cannot be opened to every origin",
      "rule-standalone.wildcard[1]: is no directive that a rule may have",
      "rule-standalone.wildcard[2]: is no directive that a rule may have"]),
    # The sources of a page's own rule are not held to the pattern, but to what they do.
    ({"rule-standalone": {"jsid": "P", "rule": {"img-src": ["'self'", "data:", "a.b;x"]}}},
     ["rule-standalone.rule.img-src[2]: a semicolon ends the directive, and what follows it is read as another one"]),
])
def test_check_names_the_place(server, document, problems):
    Path("/run/d").write_text(json.dumps(document))
    assert tool("check", "/run/d") == (1, "".join(f"/run/d: {problem}\n" for problem in problems))


def module(name="Probe", jsid="VEMO.Probe"):
    folder = Path("/usr/vemo/vemoman/webman/modules") / name
    (folder / "texts/enu").mkdir(parents=True, exist_ok=True)
    (folder / "config").write_text(json.dumps({"probe.js": {jsid: {"type": "standalone", "title": "A <b> & c"}}}))
    (folder / "probe.js").write_text("document.title = 'ran';\n")
    (folder / "style.css").write_text("body { color: red }\n")
    (folder / "texts/enu/strings").write_text("[a]\nb=c\n")
    return folder


def test_the_desktop_has_its_policy(client):
    answer = client.get("desktop", "", "-H", "Host: nas:5000")
    assert answer.status == 200
    assert answer.header("Content-Type") == 'text/html; charset="UTF-8"'
    assert answer.header("Content-Security-Policy") == f"{DEFAULT}, {MINIMAL}"
    assert answer.header("X-Frame-Options") == "SAMEORIGIN"
    assert answer.text == Path("/usr/vemo/vemoman/index.html").read_text()


def test_a_page_of_its_own(client, alice):
    module()
    Path("/usr/vemo/etc/csp").mkdir(parents=True, exist_ok=True)
    (BUILT_IN / "probe").write_text(json.dumps({"rule-standalone": {"jsid": "VEMO.Probe", "wildcard": ["img-src"]}}))
    answer = alice.get("desktop", "page=VEMO.Probe")
    assert "img-src 'self' *; " in answer.header("Content-Security-Policy")
    assert "<title>A &lt;b&gt; &amp; c</title>" in answer.text
    assert '<script type="module" src="/webman/modules/Probe/probe.js"></script>' in answer.text
    assert '<link rel="stylesheet" href="/webman/modules/Probe/style.css?v=' in answer.text
    assert client.get("desktop", "page=VEMO.Probe").header("Location") == "/"
    for page in ("VEMO.Other", "..", "../rule", "%3Cscript%3E", "x" * 5000):
        assert alice.get("desktop", f"page={page}").status == 404


def test_what_modules_bring_is_served_and_nothing_else(client):
    module()
    assert client.curl("/webman/modules/Probe/probe.js").status == 200
    assert client.curl("/webman/modules/Probe/style.css?v=5").status == 200
    for path in ("config", "texts/enu/strings", "", "../../texts/enu/strings", "probe.js/x"):
        assert client.curl(f"/webman/modules/Probe/{path}").status in (400, 403, 404), path


def test_a_header_that_is_refused_is_logged_and_the_second_policy_stays(admin, client, log):
    assert save(admin, {"rule": {"img-src": ["a.b\u0001"]}})["success"]
    log.take()
    answer = client.get("desktop")
    assert answer.status == 200
    assert answer.header("Content-Security-Policy") == MINIMAL
    assert answer.header("X-Frame-Options") == "SAMEORIGIN"
    assert ('desktop.cgi: the header Content-Security-Policy of page "" was refused: a rule holds what no header may'
            in log.take())


def test_a_broken_default_leaves_the_second_policy(client):
    path = Path("/usr/vemo/share/csp/rule-default")
    before = path.read_bytes()
    try:
        path.write_text("{")
        answer = client.get("desktop")
        assert answer.header("Content-Security-Policy") == MINIMAL
    finally:
        path.write_bytes(before)


def test_framing_follows_the_referrer(client, settings):
    settings(frame_options_built_in_allow_url="https://portal.lan,nas.lan")
    for referrer, may in [("https://portal.lan/x", True), ("http://portal.lan/", False), ("http://NAS.lan:99/", True),
                          ("https://evil.example/", False)]:
        answer = client.get("desktop", "", "-H", f"Referer: {referrer}")
        assert (answer.header("X-Frame-Options") is None) is may
