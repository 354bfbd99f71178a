"""Sessions over HTTP: who is who, every refusal, the token, the end."""

import os
import re
import subprocess
import time

import pytest
from answers import REFUSAL, assert_refused, failure
from conftest import SESSIONS, Client, account


def test_the_session_is_a_file_of_roots(admin):
    status = admin.session_file.stat()
    assert status.st_mode & 0o777 == 0o600 and status.st_uid == 0
    assert SESSIONS.stat().st_mode & 0o777 == 0o700
    assert [p.name for p in SESSIONS.iterdir() if p.name.startswith(".")] == []


def test_who_am_i(alice):
    answer = alice.get("session")
    assert answer.json == {"success": True, "data": {
        "user": "alice", "admin": False, "token": alice.token, "token_enabled": True, "language": "enu"}}


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
