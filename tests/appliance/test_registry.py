"""The desktop's registry: what is in it, for whom, and how browsers keep it."""

import json
import os
import re
import shutil
import subprocess
import time
from pathlib import Path

import pytest

WEB = Path("/usr/vemo/vemoman/webman")
MODULES = {"Utils", "Network", "Preferences", "GroupSettings", "ContentPolicy", "AppPrivileges", "SessionInfo", "Notes"}


def put(path, text):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(text if isinstance(text, bytes) else text.encode())


@pytest.fixture
def module():
    """Makes modules of the test's own, and takes them away."""
    made = []

    def make(name, config, **files):
        folder = WEB / "modules" / name
        made.append(folder)
        put(folder / "config", config if isinstance(config, (str, bytes)) else json.dumps(config))
        for file, text in files.items():
            put(folder / file.replace("_", "."), text)
        return folder

    yield make
    for folder in made:
        shutil.rmtree(folder, ignore_errors=True)


def registry(client, query="", *arguments):
    answer = client.get("registry", query, *arguments)
    return answer, answer.json["data"] if answer.status == 200 and answer.json["success"] else None


def test_modules_and_packages_are_in_it(alice):
    _, data = registry(alice)
    folders = {path.split("/")[2] for path in data["scripts"] if path.startswith("webman/modules/")}
    assert MODULES <= folders
    assert data["scripts"]["webman/3rdparty/Bulletin/bulletin.js"]["Bulletin.Board"]["version"] == "1.2-7"
    launchers = {id: entry for script, entries in data["scripts"].items() if script.endswith("/.url")
                 for id, entry in entries.items()}
    assert launchers["VEMO.KTR._ThirdParty.App.Almanac"]["type"] == "legacy"
    assert launchers["VEMO.KTR._ThirdParty.App.Almanac"]["url"] == "http://127.0.0.1:5000/webman/3rdparty/Almanac/almanac.svg"
    assert launchers["VEMO.KTR._ThirdParty.Desktop.Handbook"]["url"] == "http://127.0.0.1:8088/handbook/"
    assert launchers["VEMO.KTR._ThirdParty.App.Forum"]["allUsers"] is False
    assert "VEMO.KTR._ThirdParty.Desktop.Forum" in launchers
    assert data["apps"]["VEMO.Notes"]["jsBaseURL"] == "webman/modules/Notes"
    assert "VEMO.Notes" in data["grantable"]["local"] and "VEMO.Notes" in data["grantable"]["domain"]
    assert "VEMO.SessionInfo" in data["grantable"]["local"] and "VEMO.SessionInfo" not in data["grantable"]["domain"]
    assert all(re.search(r"\?v=\d+$", sheet) for sheet in data["styles"])
    assert any(sheet.startswith("webman/modules/Notes/paper.css?") for sheet in data["styles"])


@pytest.mark.parametrize("code, title", [("enu", "Notes"), ("ger", "Notizen"), ("jpn", "メモ")])
def test_texts_are_in_the_callers_language(alice, code, title):
    alice.cookies["lang"] = code
    _, data = registry(alice)
    assert data["language"] == code
    assert data["texts"]["VEMO.Notes"]["app"]["title"] == title

    news = data["texts"]["Bulletin.Board"]["news"]["first"]
    assert "_CRATESERVER_" not in news and "CrateServer" in news


def test_every_address_that_it_names_is_served(alice):
    _, data = registry(alice)
    paths = list(data["styles"]) + [path for path in data["scripts"] if not path.endswith("/.url")]
    paths += [f"{entry['jsBaseURL']}/{entry['icon']}" for entries in data["scripts"].values()
              for entry in entries.values() if "icon" in entry]
    assert len(paths) > 20
    for path in paths:
        assert alice.curl("/" + path).status == 200, path
    # What is the desktop's own business is not.
    for path in ("modules/Notes/config", "modules/Notes/texts/enu/strings", "3rdparty/Almanac/application.cfg"):
        assert alice.curl("/webman/" + path).status in (403, 404), path


def test_it_is_the_same_for_everybody(alice, admin):
    assert registry(alice)[0].body == registry(admin)[0].body


def test_nobody_gets_nothing(client):
    answer = client.get("registry")
    assert answer.header("x-request-error") and "data" not in answer.json


@pytest.mark.parametrize("extra", [[], ["-H", "Accept-Encoding: gzip"], ["-H", "Accept-Encoding: gzip, deflate, br"]])
def test_an_unchanged_one_is_not_sent_again(alice, extra):
    answer, data = registry(alice, "", *extra)
    tag = answer.header("ETag")
    assert data and re.fullmatch(r"(?:[0-9a-f]{4,8}-){4}[0-9a-f]{16}", tag), tag
    assert answer.header("Cache-Control") == "private, no-cache"
    assert answer.header("Content-Encoding") is None
    again = alice.get("registry", "", "-H", f"If-None-Match: {tag}", *extra)
    assert (again.status, again.body, again.header("ETag")) == (304, b"", tag)
    assert again.header("X-Content-Type-Options") == "nosniff"
    for other in (f'"{tag}"', f"W/{tag}", f"{tag}, x", tag.upper(), tag[:-1], "*"):
        assert alice.get("registry", "", "-H", f"If-None-Match: {other}", *extra).status == 200, other


def test_the_tag_goes_with_every_change(alice, module):
    tag = registry(alice)[0].header("ETag")

    def changed():
        nonlocal tag
        answer = alice.get("registry", "", "-H", f"If-None-Match: {tag}")
        before, tag = tag, answer.header("ETag")
        return answer.status == 200 and before != tag

    assert not changed()
    folder = module("Fresh", {"a.js": {"Fresh.App": {"type": "app", "texts": "texts"}}}, a_js="")
    assert changed() and not changed()
    put(folder / "texts/enu/strings", "[a]\nb = c\n")
    assert changed() and not changed()
    put(folder / "texts/enu/strings", "[a]\nb = d\n")
    assert changed() and not changed()
    put(folder / "style.css", "")
    assert changed() and not changed()
    os.utime(folder / "config", (1, 1))
    assert changed() and not changed()
    alice.cookies["lang"] = "ger"
    assert changed() and not changed()
    del alice.cookies["lang"]
    assert changed()
    # Another address has another tag, though the answer is the same.
    assert registry(alice, "x=1")[0].header("ETag") != tag


def test_a_304_is_for_those_who_are_logged_in(alice, client):
    tag = registry(alice)[0].header("ETag")
    answer = client.get("registry", "", "-H", f"If-None-Match: {tag}")
    assert answer.status == 200 and answer.header("x-request-error")


def test_one_application_alone(alice):
    _, whole = registry(alice)
    _, data = registry(alice, "app=VEMO.Notes")
    assert set(data["texts"]) == {"VEMO.Notes", "VEMO.Utils"} and set(whole["texts"]) > set(data["texts"])
    sheets = {sheet.split("?")[0] for sheet in data["styles"]}
    assert sheets == {"webman/modules/Notes/style.css", "webman/modules/Notes/paper.css",
                      "webman/modules/Utils/style.css"}
    assert data["scripts"] == whole["scripts"]


def test_broken_modules_leave_the_others(alice, module, log):
    put(WEB / "modules/Broken1/config", "{")
    put(WEB / "modules/Broken2/config", b"\xff\xfe{}")
    put(WEB / "modules/Broken3/config", "[" * 100000)
    put(WEB / "modules/Broken4/config", "[]")
    (WEB / "modules/Broken5/config").mkdir(parents=True)
    (WEB / "modules/Broken6").mkdir()
    os.mkfifo(WEB / "modules/Broken6/config")
    put(WEB / "modules/Broken7/config", b'{"' + b"x" * 50_000_000 + b'":{}}')
    put(WEB / "modules/Broken8/config", json.dumps({".url": {"Broken.Kinds": {
        "type": [1], "texts": {"a": 1}, "grantPrivilege": 7, "additionalCSSFiles": "x", "white_pkg_list": 3}}}))
    try:
        start = time.monotonic()
        _, data = registry(alice)
        assert time.monotonic() - start < 10
        assert MODULES <= {path.split("/")[2] for path in data["scripts"]}
        assert data["scripts"]["webman/modules/Broken8/.url"]["Broken.Kinds"]["type"] == [1]
    finally:
        for number in range(1, 9):
            shutil.rmtree(WEB / f"modules/Broken{number}", ignore_errors=True)


def test_texts_of_odd_forms(alice, module):
    folder = module("Odd", {".url": {"Odd.App": {"type": "app", "texts": "texts"}}})
    put(folder / "texts/enu/strings", b"\xef\xbb\xbf[a]\r\n\xef\xbb\xbfb = c\r\n\xef\xbb\xbf[d]\r\ne = \x00f\r\n")
    _, data = registry(alice)
    assert data["texts"]["Odd.App"] == {"a": {"b": "c"}, "d": {"e": ""}}
    put(folder / "texts/enu/strings", b"[a]\nb = " + b"x" * 100_000_000)
    assert alice.get("registry").status in (200, 500)
    put(folder / "texts/enu/strings", "[a]\nb = </script>\u2028\"'\\\n")
    answer, data = registry(alice)
    assert data["texts"]["Odd.App"]["a"]["b"] == "</script>\u2028\"'\\"


def test_the_debug_configuration(alice, module):
    folder = module("Debugged", {".url": {"Debugged.Plain": {}}})
    put(folder / "config.debug", json.dumps({".url": {"Debugged.Debug": {}}}))
    conf = Path("/etc/vemoinfo.conf")
    before = conf.read_text()
    assert "Debugged.Plain" in registry(alice)[1]["scripts"]["webman/modules/Debugged/.url"]
    conf.write_text(before + 'desktop_debug="yes"\n')
    try:
        assert "Debugged.Debug" in registry(alice)[1]["scripts"]["webman/modules/Debugged/.url"]
    finally:
        conf.write_text(before)


# --- A port of its own ---


def other_port(client, path, *arguments):
    """The same client on the port that serves one application."""
    cookies = "; ".join(f"{k}={v}" for k, v in client.cookies.items())
    done = subprocess.run(["curl", "-s", "-i", "-g", "-m", "20", "-H", f"Cookie: {cookies}", *arguments,
                           f"http://127.0.0.1:5010{path}"], stdout=subprocess.PIPE, check=True)
    head, _, body = done.stdout.partition(b"\r\n\r\n")
    return int(head.split()[1]), head.decode("latin-1"), body.decode()


def test_an_application_on_a_port_of_its_own(alice, client):
    status, head, body = other_port(alice, "/")
    assert status == 200 and 'data-jsid="VEMO.Notes"' in body and "Content-Security-Policy" in head
    assert "webman/modules/Notes/paper.css" in body
    status, _, body = other_port(client, "/")
    assert status == 200 and 'id="login"' in body  # the login stands here
    assert other_port(alice, "/webman/desktop.cgi?page=VEMO.Preferences")[0] == 404
    assert other_port(alice, "/webman/desktop.cgi?page=VEMO.Notes")[0] == 200
    data = json.loads(other_port(alice, "/webman/registry.cgi")[2])["data"]
    assert set(data["texts"]) == {"VEMO.Notes", "VEMO.Utils"}
    assert json.loads(other_port(alice, "/webman/session.cgi")[2])["data"]["app"] == "VEMO.Notes"
    assert "app" not in alice.get("session").json["data"]


def test_a_client_cannot_choose_the_application(alice):
    for header in ("REWRITE_APP: VEMO.Notes", "Rewrite-App: VEMO.Notes"):
        answer = alice.get("session", "", "-H", header)
        assert answer.status == 400 or "app" not in answer.json["data"]
    assert set(registry(alice)[1]["texts"]) > {"VEMO.Notes", "VEMO.Utils"}


# --- The tool for authors ---


def zem_module(*arguments):
    done = subprocess.run(["zem-module", *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60,
                          check=False)
    return done.returncode, done.stdout.decode().splitlines(), done.stderr.decode()


def test_what_comes_with_the_appliance_is_good():
    folders = [str(path) for part in ("modules", "3rdparty") for path in (WEB / part).iterdir()]
    assert len(folders) >= 12
    assert zem_module("check", *folders) == (0, [], "")


def test_wrong_calls_are_told():
    for arguments in ([], ["check"], ["chek", "/"], ["--help"]):
        code, lines, usage = zem_module(*arguments)
        assert code == 2 and not lines and usage.startswith("usage: "), arguments


GOOD = {"a.js": {"A.App": {"type": "app"}}}


@pytest.mark.parametrize("config, problems", [
    ("{}", []),
    ("[]", ["config:1: is not an object: the desktop skips the module"]),
    ('{\n "a.js": 7}', ['config:2: "a.js" is not an object: the desktop skips it']),
    ('{"a.js": []}', []),
    ('{"none.js": {}}', ['config:1: "none.js": there is no such file: the desktop skips its entries']),
    ('{"../a.js": {}}', ['config:1: "../a.js": a file outside of the module']),
    ('{\n\n"a.js": {\n"A": 1}}', ['config:4: "A" is not an object: the desktop skips it']),
    ('{"a.js": {"A": {"type": "App"}}}',
     ['config:1: "A": the type "App" is none that the desktop knows: the entry is no application']),
    ('{"a.js": {"A": {"type": 1}}}', ['config:1: "A": "type" is not a text']),
    ('{"a.js": {"A": {"grantPrivilege": "ALL"}}}',
     ['config:1: "A": "grantPrivilege" is not "all", "local" or "domain": the application cannot be granted']),
    ('{"a.js": {"A": {"texts": []}}}', ['config:1: "A": "texts" is not the name of a folder']),
    ('{"a.js": {"A": {"texts": "none"}}}', ['config:1: "A": there is no folder of texts "none"']),
    ('{"a.js": {"A": {"texts": "../x"}}}', ['config:1: "A": the folder of texts "../x" is outside of the module']),
    ('{"a.js": {"A": {"additionalCSSFiles": "x.css"}}}', ['config:1: "A": "additionalCSSFiles" is not a list']),
    ('{"a.js": {"A": {"additionalCSSFiles": [\n"x.css",\n1]}}}',
     ['config:2: "A": there is no style sheet "x.css": the desktop leaves it out',
      'config:3: "A": a style sheet\'s name is not a text']),
    ('{"a.js": {"A": {"white_pkg_list": {}}}}', ['config:1: "A": "white_pkg_list" is not a list']),
    ('{"a.js": {"A": {"white_pkg_list": [1]}}}', ['config:1: "A": an application\'s id is not a text']),
    ('{"a.js": {"A": {"jsID": "B"}}}', ['config:1: "A": "jsID" is the desktop\'s own, and overwritten']),
    ('{"a.js": {"A": {"icon": "x.png"}}}', ['config:1: "A": there is no picture "x.png"']),
    ('{"a.js": {"A": {}},\n".url": {"A": {}}}',
     ['config:1: "A" is defined at {}/config:2 too, and one replaces the other']),
    ('{"a.js": {"A": {},\n"A": {}}}', ["config:2: Duplicate key: 'A'"]),
    ('{"a.js": {\n"A" {}}}', None),
    (b'{"\xff": {}}', ["config:0: is not UTF-8"]),
    (b'{\n"a\0": {}}', ["config:2: holds a NUL byte"]),
    ("[" * 100000, None),
])
def test_problems_of_configurations(tmp_path, config, problems):
    folder = tmp_path / "M"
    put(folder / "config", config)
    put(folder / "a.js", "")
    code, lines, _ = zem_module("check", str(folder) + "/")
    if problems is None:  # the reader's own words
        assert code == 1 and all(re.match(re.escape(f"{folder}/config:") + r"\d+: ", line) for line in lines)
    else:
        assert lines == [f"{folder}/{problem}".replace("{}/config", f"{folder}/config") for problem in problems]
        assert code == (1 if problems else 0)


@pytest.mark.parametrize("text, problems", [
    ("[a]\nb = c\n# x\n  \n", []),
    ("b = c\n[a]\n", ['1: "b" stands before the first section, and is dropped']),
    ("[a]\nb\n[c\n", ["2: is neither a section, nor a pair, nor a comment: it is passed over",
                      "3: is neither a section, nor a pair, nor a comment: it is passed over"]),
    ("[a]\nb = 1\nb = 2\n", ['3: "b" is given in line 2 already: the last one counts']),
    ("[a]\nb = 1\n[a]\n", ["3: the section [a] begins anew: what line 1 began is dropped"]),
    ("[a]\n = 1\n", ["2: the pair has no key"]),
    (b"[a]\nb = \0\n", ["2: holds a NUL byte"]),
    (b"[a]\nb = \xff\n", ["0: is not UTF-8"]),
    (b"\xef\xbb\xbf[a]\r\n\xef\xbb\xbf# x\r\n", []),
])
def test_problems_of_texts(tmp_path, text, problems):
    folder = tmp_path / "M"
    put(folder / "config", json.dumps({".url": {"A": {"texts": "texts"}}}))
    put(folder / "texts/enu/strings", text)
    code, lines, _ = zem_module("check", str(folder))
    assert lines == [f"{folder}/texts/enu/strings:{problem}" for problem in problems]


def test_languages_are_compared(tmp_path):
    folder = tmp_path / "M"
    put(folder / "config", json.dumps({".url": {"A": {"texts": "texts"}}}))
    put(folder / "texts/ger/strings", "[a]\nb = c\n")
    assert zem_module("check", str(folder))[1] == [
        f'{folder}/texts:0: has no "enu", which is shown in languages without their own texts']
    put(folder / "texts/enu/strings", "[a]\nx = y\n")
    put(folder / "texts/README/x", "")
    put(folder / "texts/fre/other", "")
    assert set(zem_module("check", str(folder))[1]) == {
        f"{folder}/texts/README:0: is no language's code, and not looked at",
        f"{folder}/texts/fre/strings:0: cannot be read, or is no regular file: the desktop skips it",
        f"{folder}/texts/fre/strings:0: [a] x is missing, which English has",
        f"{folder}/texts/ger/strings:0: [a] x is missing, which English has",
        f"{folder}/texts/ger/strings:0: [a] b is none that English has"}


@pytest.mark.parametrize("desktop, text, problems", [
    (False, 'text="A"\nicon_16="i.png"\n', []),
    (True, "text=A\nicon=i.png\ntext_ger=B\ndescription_jpn=C\nversion=1\npath=/\nport=1\nprotocol=HTTP\n", []),
    (False, "", ['0: has no "text": in languages without their own it is called ThirdParty']),
    (False, "text=A\nnothing\n", ["2: is no pair, and passed over"]),
    (False, "text=A\n[x]\n;c\n#c\n", ["2: is no pair, and passed over"]),
    (False, "text=A\ntext=B\n", ['2: "text" is given in line 1 already: the last one counts']),
    (False, "text=A\nicon=i.png\n", ['2: the desktop knows no "icon"']),
    (True, "text=A\nicon_16=i.png\n", ['2: the desktop knows no "icon_16"']),
    (True, "text=A\ntext_german=B\n", ['2: the desktop knows no "text_german"']),
    (True, "text=A\nicon=none.png\n", ['2: there is no picture "none.png"']),
    (True, "text=A\nadminonly=yes\n", ['2: "adminonly" is neither "true" nor "false": it counts as "true"']),
    (True, "text=A\nprotocol=ftp\n", ['2: the protocol is neither "http" nor "https": the request\'s is taken']),
    (True, "text=A\nport=0\nport=65536\n",
     ["2: the port is no number from 1 to 65535", '3: "port" is given in line 2 already: the last one counts',
      "3: the port is no number from 1 to 65535"]),
    (True, "text=A\npath=x\n", ['2: the path does not begin with "/", and would run into the port']),
    (True, "text=A\ntype=embedded\n", ['2: a shortcut\'s "type" does nothing']),
    (False, "text=A\ntype=Embedded\n", []),
    (False, "text=A\ntype=inside\n", ['2: the type is neither "embedded" nor "url": it counts as "url"']),
])
def test_problems_of_launchers(tmp_path, desktop, text, problems):
    folder = tmp_path / "P"
    name = "desktop.cfg" if desktop else "application.cfg"
    put(folder / name, text)
    put(folder / "i.png", "")
    code, lines, _ = zem_module("check", str(folder))
    assert lines == [f"{folder}/{name}:{problem}" for problem in problems]


def test_problems_of_directories(tmp_path):
    empty = tmp_path / "E"
    empty.mkdir()
    both = tmp_path / "B"
    put(both / "config", "{}")
    put(both / "desktop.cfg", "text=x")
    fifo = tmp_path / "F"
    fifo.mkdir()
    os.mkfifo(fifo / "config")
    huge = tmp_path / "H"
    put(huge / "config", b'{"' + b"x" * 2_000_000 + b'": {}}')
    code, lines, _ = zem_module("check", str(tmp_path / "none"), str(empty), str(both), str(fifo), str(huge))
    assert code == 1
    assert lines[0] == f"{tmp_path}/none:0: is no directory"
    assert lines[1].startswith(f'{empty}:0: has neither "config"')
    assert lines[2] == f'{both}/desktop.cfg:0: is not looked at, because there is a "config"'
    assert lines[3] == f"{fifo}/config:0: cannot be read, or is no regular file: the desktop skips it"
    assert lines[4] == f"{huge}/config:0: is larger than 1 MiB: every page of the desktop waits for it"


def test_two_modules_with_one_id(tmp_path):
    for name in "AB":
        put(tmp_path / name / "config", json.dumps({".url": {"Same": {}}}))
    assert zem_module("check", str(tmp_path / "A"), str(tmp_path / "B"))[1] == [
        f'{tmp_path}/B/config:1: "Same" is defined at {tmp_path}/A/config:1 too, and one replaces the other']
