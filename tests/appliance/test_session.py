"""Logins, sessions and refusals over HTTP, with real accounts."""

import os
import re
import subprocess
import time

import pytest
from conftest import SESSIONS, Client, account

REFUSAL = ('{{\n   "errno" : {{\n      "key" : "{key}",\n      "section" : "{section}"\n   }},\n'
           '   "items" : [],\n   "success" : false,\n   "total" : 0\n}}\n')


def assert_refused(answer, reason, key, section="login"):
    assert answer.status == 200
    assert answer.all("x-request-error") == [reason]
    assert answer.header("Content-type") == 'text/plain; charset="UTF-8"'
    assert answer.text == REFUSAL.format(key=key, section=section)


def failure(answer):
    document = answer.json
    assert document["success"] is False
    return document["errinfo"]["sec"], document["errinfo"]["key"]


def test_a_login_gives_name_token_and_cookie(client):
    answer = client.login("admin")
    assert answer.json["data"] == {"user": "admin", "admin": True, "token": client.token}
    assert re.fullmatch(r"[A-Za-z0-9_-]{43}", client.token)
    cookies = answer.all("Set-Cookie")
    assert len(cookies) == 1
    assert re.fullmatch(r"id=[A-Za-z0-9_-]{43}; Path=/; HttpOnly; SameSite=Lax", cookies[0])
    # The id goes out in the cookie alone.
    assert client.cookies["id"] not in answer.text
    assert answer.header("Cache-Control") == "no-store"


def test_the_session_is_a_file_of_roots(admin):
    status = admin.session_file.stat()
    assert status.st_mode & 0o777 == 0o600 and status.st_uid == 0
    assert SESSIONS.stat().st_mode & 0o777 == 0o700
    assert [p.name for p in SESSIONS.iterdir() if p.name.startswith(".")] == []


def test_who_am_i(alice):
    answer = alice.get("session")
    assert answer.json == {"success": True, "data": {
        "user": "alice", "admin": False, "token": alice.token, "token_enabled": True, "language": "enu"}}


def test_a_login_may_outlive_the_browser(client):
    cookie = client.login("alice", remember="yes").header("Set-Cookie")
    assert "; Expires=" in cookie


def test_a_login_in_json(client):
    answer = client.post("login", b'{"action":"login","username":"alice","passwd":"alice-demo"}')
    assert answer.json["data"]["user"] == "alice"


@pytest.mark.parametrize("fields, key", [
    ({"username": "alice", "passwd": "wrong"}, "error_account"),
    ({"username": "nobody-there", "passwd": "x"}, "error_account"),
    ({"username": "", "passwd": ""}, "error_account"),
    ({"username": "alice"}, "error_account"),
    ({"username": "../../etc/passwd", "passwd": "x"}, "error_account"),
    ({"username": "alice\r\nSet-Cookie: a=b", "passwd": "x"}, "error_account"),
    ({"username": "a" * 256, "passwd": "x"}, "error_account"),
    ({"username": "%n%s%x", "passwd": "%n"}, "error_account"),
    ({"username": "bob", "passwd": "x" * 512}, "error_account"),
    ({"username": "bob", "passwd": "bob-demo "}, "error_account"),
    ({"username": "BOB", "passwd": "bob-demo"}, "error_account"),
])
def test_a_refused_login_names_its_text(client, fields, key, request):
    client.address = f"127.0.1.{len(request.node.name) % 250 + 1}"
    answer = client.post("login", {"action": "login", **fields}, token=False)
    assert failure(answer) == ("login", key)
    assert answer.all("Set-Cookie") == []


def test_a_megabyte_for_a_name(client):
    client.address = "127.0.2.1"
    assert failure(client.login("x" * 1_000_000, "x")) == ("login", "error_account")


def test_a_disabled_account(server):
    account("expired")
    subprocess.run(["usermod", "-e", "1", "expired"], check=True)
    assert failure(Client().login("expired")) == ("login", "error_disabled")
    account("locked")
    subprocess.run(["usermod", "-L", "locked"], check=True)
    assert failure(Client().login("locked")) == ("login", "error_disabled")
    # Without the password nobody learns that.
    assert failure(Client().login("locked", "wrong")) == ("login", "error_account")
    assert failure(Client().login("expired", "wrong")) == ("login", "error_account")


def test_an_expired_password(server):
    account("stale")
    subprocess.run(["chage", "-d", "0", "stale"], check=True)
    assert failure(Client().login("stale")) == ("login", "error_disabled")


@pytest.mark.parametrize("password", [" spaces at both ends ", "ünïcödé-パス", "x" * 64, "y" * 128, "a+b%20&c=d"])
def test_passwords_are_taken_as_they_are(client, password):
    name = f"p{abs(hash(password)) % 10**8}"
    account(name, password=password)
    assert client.login(name, password).json["success"]


def test_guessing_is_slowed_and_the_owner_is_not_locked_out(server):
    account("owner")
    home = Client(address="127.0.3.1")
    assert home.login("owner").json["success"]
    attacker = Client(address="127.0.3.2")
    for _ in range(10):
        assert failure(attacker.login("owner", "guess")) == ("login", "error_account")
    assert failure(attacker.login("owner", "guess")) == ("login", "error_too_many")
    assert failure(attacker.login("owner")) == ("login", "error_too_many")
    # From this address nobody else gets in either, and from the owner's all is well.
    assert failure(attacker.login("bob")) == ("login", "error_too_many")
    assert home.login("owner").json["success"]


def test_an_unknown_user_answers_like_a_wrong_password(server):
    account("timed")

    def seconds(name, address):
        one = Client(address=address)
        begun = time.monotonic()
        answer = one.login(name, "wrong")
        assert failure(answer) == ("login", "error_account")
        return time.monotonic() - begun

    known = sorted(seconds("timed", f"127.0.4.{i}") for i in range(1, 16))[7]
    unknown = sorted(seconds("not-there", f"127.0.4.{i}") for i in range(101, 116))[7]
    assert 0.6 < known / unknown < 1.6


def test_a_new_login_makes_a_new_id(client):
    client.login("alice")
    first = client.session_file
    old = dict(client.cookies)
    client.login("alice")
    assert client.session_file != first and not first.exists()
    assert_refused(Client(cookies=old).get("session"), "timeout", "error_timeout")


def test_a_planted_id_is_not_taken_over(client):
    client.cookies["id"] = "A" * 43
    client.login("alice")
    assert client.cookies["id"] != "A" * 43


# Refusals, each provoked for real.

def test_nobody(client):
    assert_refused(client.get("session"), "unauth", "error_noprivilege")


@pytest.mark.parametrize("identifier", ["../../etc/passwd", "/etc/passwd", ".", "..", "A" * 42, "A" * 44,
                                        "A" * 300, "A" * 42 + "/", "A" * 40 + "%00", "A" * 43])
def test_an_id_that_is_no_session(client, identifier):
    client.cookies["id"] = identifier
    assert_refused(client.get("session"), "timeout", "error_timeout")


def test_idle_for_too_long(alice):
    old = time.time() - 16 * 60
    os.utime(alice.session_file, (old, old))
    assert_refused(alice.get("session"), "timeout", "error_timeout")
    assert not alice.session_file.exists()


def test_idle_for_almost_too_long(alice):
    old = time.time() - 14 * 60
    os.utime(alice.session_file, (old, old))
    assert alice.get("session").json["success"]
    assert alice.session_file.stat().st_mtime > time.time() - 60


def test_a_poll_does_not_count_as_use(alice):
    old = int(time.time() - 14 * 60)
    os.utime(alice.session_file, (old, old))
    assert alice.get("session", "poll=yes").json["success"]
    assert alice.session_file.stat().st_mtime == old


def test_the_idle_limit_is_a_setting(alice, settings):
    settings(session_timeout="1")
    old = time.time() - 2 * 60
    os.utime(alice.session_file, (old, old))
    assert_refused(alice.get("session"), "timeout", "error_timeout")


def test_a_day_is_the_end(alice):
    text = alice.session_file.read_text()
    created = int(re.search(r'"created": ?(\d+)', text)[1])
    alice.session_file.write_text(text.replace(str(created), str(created - 24 * 3600 - 5)))
    assert_refused(alice.get("session"), "timeout", "error_timeout")


def test_another_address(alice):
    alice.address = "127.9.9.9"
    assert_refused(alice.get("session"), "errorip", "error_noprivilege")
    alice.address = "127.0.0.77"
    assert alice.get("session").json["success"]


def test_how_exact_the_address_must_be_is_a_setting(alice, settings):
    settings(session_address="exact")
    alice.address = "127.0.0.77"
    assert_refused(alice.get("session"), "errorip", "error_noprivilege")
    settings(session_address="off")
    alice.address = "127.9.9.9"
    assert alice.get("session").json["success"]


def test_replaced_by_a_newer_login(alice, settings):
    other = Client()
    other.login("alice")
    assert alice.get("session").json["success"]
    settings(single_session="yes")
    assert_refused(alice.get("session"), "relogin", "error_interrupt")
    assert other.get("session").json["success"]


def test_not_an_administrator(alice):
    assert_refused(alice.get("network", "action=load"), "noprivilege", "error_noprivilege")


def test_an_administrator_who_is_none_any_more(client):
    account("demoted", groups=["administrators"])
    client.login("demoted")
    assert client.get("network", "action=load").json["success"]
    subprocess.run(["gpasswd", "-d", "demoted", "administrators"], check=True, capture_output=True)
    assert_refused(client.get("network", "action=load"), "noprivilege", "error_noprivilege")


def test_an_account_that_was_removed(client):
    account("leaver")
    client.login("leaver")
    subprocess.run(["userdel", "leaver"], check=True)
    assert_refused(client.get("session"), "timeout", "error_timeout")


def test_an_account_that_was_disabled(client):
    account("suspended")
    client.login("suspended")
    subprocess.run(["usermod", "-e", "1", "suspended"], check=True)
    assert_refused(client.get("session"), "timeout", "error_timeout")


@pytest.mark.parametrize("content", [b"", b"{", b"[]", b"1", b'"text"', b"null", b"{}", b'{"user":1}',
                                     b'{"user":"alice","token":[],"addr":"127.0.0.1"}',
                                     b"[" * 100000, b'{"a":' * 5000, b"\xff" * 100, b"x" * 1_000_000],
                         ids=lambda content: repr(content[:20]))
def test_a_record_that_is_none(alice, content):
    alice.session_file.write_bytes(content)
    assert_refused(alice.get("session"), "timeout", "error_timeout")


def test_a_record_that_others_could_write(alice):
    alice.session_file.chmod(0o666)
    assert_refused(alice.get("session"), "timeout", "error_timeout")


def test_a_link_in_the_place_of_a_session(alice):
    moved = SESSIONS.parent / "record"
    alice.session_file.rename(moved)
    alice.session_file.symlink_to(moved)
    assert_refused(alice.get("session"), "timeout", "error_timeout")


def test_a_store_that_cannot_be_used(alice):
    kept = SESSIONS.with_name("kept")
    SESSIONS.rename(kept)
    SESSIONS.write_text("")
    try:
        assert_refused(alice.get("session"), "system", "error_system", "common")
        assert failure(Client().login("bob")) == ("login", "error_login_system")
    finally:
        SESSIONS.unlink()
        kept.rename(SESSIONS)


def test_a_refused_upload_is_answered_as_html(client):
    answer = client.post("session", b"--b--\r\n", "-H", "Content-Type: multipart/form-data; boundary=b")
    assert answer.header("Content-type") == 'text/html; charset="UTF-8"'
    assert answer.text == REFUSAL.format(key="error_noprivilege", section="login")


def test_the_id_may_come_as_a_parameter(alice):
    stranger = Client()
    identifier = alice.cookies["id"]
    assert stranger.get("session", f"_sid={identifier}").json["data"]["user"] == "alice"
    assert_refused(stranger.get("session", "_sid=" + "A" * 43), "timeout", "error_timeout")
    # An empty one leaves the cookie alone.
    assert alice.get("session", "_sid=").json["success"]


# The token.

def test_without_the_token_nothing_is_done(alice):
    for token in ("", "x", alice.token[:-1], alice.token + "x", "A" * 43):
        extra = ["-H", f"X-Vemo-Token: {token}"] if token else []
        answer = alice.post("logout", {"action": "logout"}, *extra, token=False)
        assert_refused(answer, "unauth", "error_noprivilege")
    assert alice.session_file.exists()


def test_another_sessions_token_is_no_good(alice, admin):
    alice.token = admin.token
    assert_refused(alice.post("logout", {"action": "logout"}), "unauth", "error_noprivilege")


def test_the_token_may_be_a_parameter(alice):
    answer = alice.post("logout", {"action": "logout", "VemoToken": alice.token}, token=False)
    assert answer.json["success"]


def test_a_get_with_an_action_needs_the_token_too(admin):
    assert_refused(admin.get("network", "action=apply"), "unauth", "error_noprivilege")
    for action in ("load", "list", "get"):
        assert admin.get("network", f"action={action}").all("x-request-error") == []


def test_the_token_can_be_switched_off(alice, settings):
    settings(enable_token="no")
    assert alice.get("session").json["data"]["token_enabled"] is False
    assert alice.post("logout", {"action": "logout"}, token=False).json["success"]


# Logout.

def test_a_logout_ends_the_session(alice):
    kept = dict(alice.cookies)
    answer = alice.post("logout", {"action": "logout"})
    assert answer.json == {"success": True, "data": {}}
    assert re.match(r"id=; Path=/; Expires=Thu, 01 Jan 1970 ", answer.header("Set-Cookie"))
    assert answer.header("Clear-Site-Data") == '"cache", "storage"'
    assert not (SESSIONS / kept["id"]).exists()
    assert_refused(Client(cookies=kept).get("session"), "timeout", "error_timeout")


def test_a_logout_asks_for_its_action(alice):
    answer = alice.post("logout", {"action": "other"})
    assert answer.json["errinfo"] == {"key": "error_request", "sec": "common"}
    assert alice.session_file.exists()


# The log.

def test_logins_and_refusals_are_logged_without_secrets(client, log):
    log.take()
    client.login("alice")
    Client(address="127.0.5.1").login("evil\nname\x1b[31m", "a-secret-password")
    alice_cookie = client.cookies["id"]
    client.post("logout", {"action": "logout"}, token=False)
    lines = log.take()
    assert any("alice" in line and "127.0.0.1" in line for line in lines)
    assert len(lines) >= 3
    for line in lines:
        assert "a-secret-password" not in line and "alice-demo" not in line
        assert alice_cookie not in line and client.token not in line
        assert "\n" not in line.rstrip("\n\0") and "\x1b" not in line
