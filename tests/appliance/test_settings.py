"""Settings of users and administrators and data of modules over HTTP."""

import fcntl
import json
import os
import random
import socket
import stat
import struct
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from conftest import PORT, Client, account, snapshot

PREFERENCES = Path("/usr/vemo/etc/preference")
GROUP = Path("/usr/vemo/etc/preference_group/administrators")
MEGABYTE = 1 << 20


def refused(key):
    return {"success": False, "errinfo": {"sec": "common", "key": key}}


def apply(client, settings, program="usersettings"):
    return client.post(program, {"action": "apply", "settings": json.dumps(settings)}).json


def load(client, program="usersettings"):
    answer = client.get(program, "action=load")
    assert answer.json["success"], answer.text
    return answer.json["data"]


@pytest.fixture
def carol(server):
    """A user of this test alone."""
    name = f"u{random.randrange(10**9)}"
    account(name)
    client = Client()
    assert client.login(name).json["success"]
    client.name = name
    client.folder = PREFERENCES / name
    return client


def test_a_new_user_has_no_settings(carol):
    assert load(carol) == {"BackgroundTask": {}}


def test_what_is_applied_is_loaded(carol):
    assert apply(carol, {"Desktop": {"wallpaper": "blue"}, "n": [1, None, "ä"]}) == {"success": True, "data": {}}
    assert load(carol) == {"BackgroundTask": {}, "Desktop": {"wallpaper": "blue"}, "n": [1, None, "ä"]}


def test_changes_are_by_member(carol):
    apply(carol, {"a": 1, "b": {"x": 1}, "BackgroundTask": {"copy": 5}})
    apply(carol, {"b": {"y": 2}, "c": 3})
    assert load(carol) == {"a": 1, "b": {"y": 2}, "c": 3, "BackgroundTask": {"copy": 5}}
    apply(carol, {"a": None, "BackgroundTask": None, "never": None})
    assert load(carol) == {"b": {"y": 2}, "c": 3, "BackgroundTask": {"copy": 5}}
    apply(carol, {"BackgroundTask": {}})
    assert load(carol)["BackgroundTask"] == {}


def test_json_requests(carol):
    body = json.dumps({"action": "apply", "settings": {"a": {"b": 1}}}).encode()
    assert carol.post("usersettings", body).json["success"]
    assert load(carol)["a"] == {"b": 1}


def test_the_two_files_and_their_owners(carol):
    apply(carol, {"a": 1, "BackgroundTask": {"copy": 5}})
    settings, tasks = carol.folder / "usersettings", carol.folder / "bkgtask"
    assert settings.read_text() == '{"a":1}\n' and tasks.read_text() == '{"copy":5}\n'
    assert settings.stat().st_uid == 0 and tasks.owner() == carol.name
    assert carol.folder.owner() == carol.name and stat.S_IMODE(carol.folder.stat().st_mode) == 0o700


def test_users_are_apart(carol, alice):
    apply(carol, {"mine": 1})
    assert "mine" not in load(alice)
    assert "mine" not in carol.get("groupsettings", "action=load").text


@pytest.mark.parametrize("settings", ["", "{", "[1]", "1", '"text"', "null", "{]", "[" * 5000])
def test_what_is_no_object_is_refused(carol, settings):
    apply(carol, {"a": 1})
    assert carol.post("usersettings", {"action": "apply", "settings": settings}).json == refused("error_request")
    assert load(carol)["a"] == 1


def test_missing_settings_are_refused(carol):
    assert carol.post("usersettings", {"action": "apply"}).json == refused("error_request")
    for body in ({"action": "apply"}, {"action": "apply", "settings": []}, {"action": ["apply"], "settings": {}}):
        assert carol.post("usersettings", json.dumps(body).encode()).json == refused("error_request")


def get(client, program, query):
    return client.get(program, query, "-H", f"X-Vemo-Token: {client.token}").json


@pytest.mark.parametrize("action", ["", "action=", "action=remove", "action=Load", "action=load2"])
def test_unknown_actions_are_refused(carol, admin, action):
    assert get(carol, "usersettings", action) == refused("error_request")
    assert get(admin, "groupsettings", action) == refused("error_request")
    assert get(carol, "moduledata", action) == refused("error_request")


def test_get_changes_nothing(carol):
    apply(carol, {"a": 1})
    assert get(carol, "usersettings", "action=apply&settings=%7B%22a%22:2%7D") == refused("error_request")
    assert get(carol, "moduledata", "action=write&name=x&data=1") == refused("error_request")
    assert load(carol)["a"] == 1 and carol.get("moduledata", "action=list").json["data"] == []


def test_a_megabyte_is_the_limit(carol):
    room = MEGABYTE - len('{"BackgroundTask":{},"a":""}\n')
    assert apply(carol, {"a": "x" * room}) == {"success": True, "data": {}}
    assert apply(carol, {"a": "x" * (room + 1)}) == refused("error_too_large")
    assert apply(carol, {"b": 1}) == refused("error_too_large")
    assert apply(carol, {"a": None, "b": 1})["success"]
    assert load(carol) == {"b": 1, "BackgroundTask": {}}


@pytest.mark.parametrize("levels, stored", [(990, True), (1500, False)])
def test_deep_settings(carol, levels, stored):
    settings = '{"a":' * levels + "1" + "}" * levels
    answer = carol.post("usersettings", {"action": "apply", "settings": settings})
    assert answer.json["success"] is stored
    text = carol.get("usersettings", "action=load").text
    assert (text.count('"a"') == levels) is stored


@pytest.mark.parametrize("content", ["[1]", "7", "", "{", "[" * 100000, "folder", "fifo", "link"])
def test_settings_that_cannot_be_read_start_empty(carol, content):
    apply(carol, {"BackgroundTask": {"copy": 5}})
    file = carol.folder / "usersettings"
    file.unlink()
    if content == "folder":
        file.mkdir()
    elif content == "fifo":
        os.mkfifo(file)
    elif content == "link":
        file.symlink_to("/dev/zero")
    else:
        file.write_text(content)
    assert load(carol) == {"BackgroundTask": {"copy": 5}}
    if content in ("folder", "fifo"):
        assert apply(carol, {"a": 1}) == refused("error_system")
        return
    if content == "link":
        os.lchown(file, carol.folder.stat().st_uid, -1)
        assert apply(carol, {"a": 1}) == refused("error_system")  # root follows no link of a user's
        return
    assert apply(carol, {"a": 1})["success"]
    assert load(carol) == {"a": 1, "BackgroundTask": {"copy": 5}}


def test_a_link_of_the_users_is_no_way_out(carol):
    victim = Path("/run/victim")
    victim.write_text("precious")
    victim.chmod(0o600)
    apply(carol, {"a": 1})
    for name in ("usersettings", "bkgtask"):
        (carol.folder / name).unlink(missing_ok=True)
        (carol.folder / name).symlink_to(victim)
        os.lchown(carol.folder / name, carol.folder.stat().st_uid, -1)
    assert apply(carol, {"a": 1, "BackgroundTask": {}}) == refused("error_system")
    assert victim.read_text() == "precious"
    assert "precious" not in carol.get("usersettings", "action=load").text


def test_changes_wait_for_their_turn(carol):
    apply(carol, {"n": 0})
    with open(carol.folder / "settings.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        timer = threading.Timer(1, lambda: fcntl.flock(lock, fcntl.LOCK_UN))
        timer.start()
        start = time.monotonic()
        assert apply(carol, {"n": 1})["success"]
        assert time.monotonic() - start > 0.8
        timer.join()
        fcntl.flock(lock, fcntl.LOCK_EX)
        start = time.monotonic()
        assert apply(carol, {"n": 2}) == refused("error_apply_occupied")
        assert 4 < time.monotonic() - start < 8
    assert load(carol)["n"] == 1


def test_windows_do_not_undo_each_others_changes(carol):
    with ThreadPoolExecutor(8) as pool:
        answers = list(pool.map(lambda n: apply(carol, {f"window{n}": n}), range(60)))
    assert all(answer["success"] for answer in answers)
    assert load(carol) == {"BackgroundTask": {}, **{f"window{n}": n for n in range(60)}}


def hang_up(client, body, delay, program="usersettings"):
    """Sends a change and is gone after `delay` seconds."""
    head = (f"POST /webman/{program}.cgi HTTP/1.1\r\nHost: nas\r\nCookie: id={client.cookies['id']}\r\n"
            f"X-Vemo-Token: {client.token}\r\nContent-Length: {len(body)}\r\n\r\n").encode()
    with socket.create_connection(("127.0.0.1", PORT)) as connection:
        connection.sendall(head + body[:-1])
        connection.sendall(body[-1:])
        time.sleep(delay)
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def test_a_client_that_hangs_up_cuts_nothing(carol):
    rounds = int(os.environ.get("ZEM_TEST_HANG_UPS", "150"))
    apply(carol, {"n": -1, "pad": "p"})
    file = carol.folder / "usersettings"

    def round_(number):
        pad = chr(97 + number % 26) * random.randrange(1, 200000)
        body = json.dumps({"action": "apply", "settings": {"n": number, "pad": pad}}).encode()
        hang_up(carol, body, random.random() * 0.02)

    with ThreadPoolExecutor(3) as pool:
        for done in [pool.submit(round_, number) for number in range(rounds)]:
            done.result()
            with open(file) as stored:
                fcntl.flock(stored, fcntl.LOCK_SH)
                content = json.load(stored)
            assert set(content) == {"n", "pad"}
            assert len(set(content["pad"])) == 1
    with open(file) as stored:
        fcntl.flock(stored, fcntl.LOCK_EX | fcntl.LOCK_NB)
    assert apply(carol, {"n": "after"})["success"]


def test_group_settings_are_for_administrators(admin, alice):
    before = snapshot("/usr/vemo/etc")
    assert alice.get("groupsettings", "action=load").header("x-request-error") == "noprivilege"
    assert alice.post("groupsettings", {"action": "apply", "settings": "{}"}).header("x-request-error")
    assert snapshot("/usr/vemo/etc") == before
    start = int(time.time())
    assert admin.get("groupsettings", "action=get").json["data"] == {"mtime": 0}
    assert load(admin, "groupsettings") == {}
    assert apply(admin, {"banner": "hello", "BackgroundTask": {"x": 1}}, "groupsettings")["success"]
    assert apply(admin, {"more": 1}, "groupsettings")["success"]
    assert load(admin, "groupsettings") == {"banner": "hello", "more": 1, "BackgroundTask": {"x": 1}}
    assert (GROUP / "groupsettings").exists()
    assert start <= admin.get("groupsettings", "action=get").json["data"]["mtime"] <= time.time()


def module(client, action, **more):
    if action == "list":
        return client.get("moduledata", "action=list").json
    return client.post("moduledata", {"action": action, **more}).json


def test_module_data(carol, alice):
    good = {"success": True, "data": {}}
    assert module(carol, "list") == {"success": True, "data": []}
    assert module(carol, "get", name="notes") == refused("error_not_found")
    assert module(carol, "write", name="notes", data='{"a": [1]}') == good
    assert module(carol, "write", name="Öl", data="null") == good
    assert module(carol, "get", name="notes")["data"] == {"name": "notes", "data": {"a": [1]}}
    assert carol.get("moduledata", "action=get&name=%C3%96l").json["data"] == {"name": "Öl", "data": None}
    assert module(carol, "list")["data"] == ["notes", "Öl"]
    assert module(alice, "get", name="notes") == refused("error_not_found")
    assert module(carol, "remove", name="notes") == good
    assert module(carol, "remove", name="notes") == refused("error_not_found")
    assert module(carol, "list")["data"] == ["Öl"]


def test_module_data_is_the_users(carol):
    module(carol, "write", name="notes", data="1")
    [file] = (carol.folder / "module").iterdir()
    assert file.owner() == carol.name and stat.S_IMODE(file.stat().st_mode) == 0o600


@pytest.mark.parametrize("name", ["", "/", "..", ".", "../../usersettings", "a/b", "a\nb", "n" * 300, "%2e%2e/x"])
def test_hostile_names(carol, name):
    module(carol, "write", name="kept", data="1")
    before = snapshot("/usr/vemo/etc", "/tmp", "/etc")
    answers = [module(carol, "write", name=name, data="1"), module(carol, "get", name=name),
               module(carol, "remove", name=name)]
    assert snapshot("/usr/vemo/etc", "/tmp", "/etc") == before
    assert all(answer["success"] or answer["errinfo"]["sec"] == "common" for answer in answers)
    assert module(carol, "list")["data"] == ["kept"]


def test_module_data_limits(carol):
    assert module(carol, "write", name="x", data="{") == refused("error_request")
    assert module(carol, "write", name="x") == refused("error_request")
    body = json.dumps({"action": "write", "name": "x", "data": "y" * MEGABYTE}).encode()
    assert carol.post("moduledata", body).json == refused("error_too_large")
    assert module(carol, "list")["data"] == []
    folder = carol.folder / "module"
    module(carol, "write", name="n0", data="1")
    for number in range(1, 1000):
        (folder / f"n{number}").write_bytes((folder / "n0").read_bytes())
        os.chown(folder / f"n{number}", folder.stat().st_uid, -1)
    assert module(carol, "write", name="one-more", data="1") == refused("error_full")
    assert module(carol, "write", name="n5", data="2")["success"]


def test_answers_are_private(carol):
    for program in ("usersettings", "moduledata"):
        assert carol.get(program, "action=load").header("Cache-Control") == "no-store"
