"""Requests that no browser makes: the documented refusal, a normal end, nothing lost."""

import time
from pathlib import Path

import pytest
from conftest import Client, raw, snapshot


@pytest.fixture(autouse=True)
def nothing_is_written_elsewhere(server, log):
    before = snapshot("/etc", "/usr/vemo")
    yield
    assert snapshot("/etc", "/usr/vemo") == before
    assert "ended unexpectedly" not in Path("/var/log/vemo/error.log").read_text()
    # A program that a signal ends is reported by the web server.
    assert "signal" not in Path("/var/log/vemo/error.log").read_text()


def answered(client, body, *arguments):
    answer = client.post("login", body, *arguments, token=False)
    assert answer.status == 200
    return answer.json["errinfo"]["key"]


@pytest.mark.parametrize("body", [
    b"[" * 1000 + b"]" * 1000, b"[" * 1001 + b"]" * 1001, b"[" * 100000, b'{"a":' * 100000,
    b"{}", b"[]", b"null", b"1", b'"action=login"', b"\xff\xfe", b"%", b"%%%", b"a=%zz", b"&&&&", b"====",
    b"action=%00login", b"action%00=login", b"\xef\xbb\xbf{}", b"{\"action\":\"login\"", b"// comment",
    b"&".join(b"p%d=1" % i for i in range(10001)), b"a" * 1_000_000, b"a=" + b"%41" * 300_000,
], ids=lambda body: repr(body[:20]))
def test_a_body_that_is_no_login(client, body):
    assert answered(client, body) == "error_request"


@pytest.mark.parametrize("value", ["1", "1.5", "true", "null", "[]", "{}", "[\"login\"]", "\"\\ud800\""])
@pytest.mark.parametrize("field", ["action", "username", "passwd", "otp_code", "remember"])
def test_every_kind_of_json_for_a_field(client, field, value):
    client.address = "127.0.7.1"
    fields = {"action": '"login"', "username": '"nobody-there"', "passwd": '""', field: value}
    body = "{" + ",".join(f'"{k}":{v}' for k, v in fields.items()) + "}"
    assert answered(client, body.encode()) in ("error_request", "error_account", "error_too_many")


def test_a_body_over_the_limit(client):
    assert answered(client, b"action=login&a=" + b"x" * (8 * 1024 * 1024)) == "error_request"


def test_a_body_just_below_the_limit(client):
    client.address = "127.0.7.2"
    head = b"action=login&username=nobody-there&passwd=x&a="
    assert answered(client, head + b"x" * (8 * 1024 * 1024 - len(head))) == "error_account"


def test_a_nul_byte_in_a_body(client):
    assert answered(client, b"action=login&username=alice\0&passwd=x") == "error_request"


def test_a_body_that_breaks_off(server):
    begun = time.monotonic()
    answer = raw(b"POST /webman/login.cgi HTTP/1.1\r\nHost: a\r\nContent-Length: 100\r\n\r\naction=login",
                 shutdown=True)
    assert time.monotonic() - begun < 25
    assert b'"success" : true' not in answer
    assert Client().login("bob").json["success"]


def test_a_thousand_cookies(alice):
    alice.cookies = {**{f"c{i}": "x" for i in range(500)}, **alice.cookies}
    assert alice.get("session").json["success"]


def test_the_first_of_two_cookies_counts(alice):
    identifier = alice.cookies["id"]
    bad = "B" * 43
    for header, good in ((f"id={identifier}; id={bad}", True), (f"id={bad}; id={identifier}", False),
                         (f"xid={bad}; id={identifier}", True), (f"id={identifier}, id={bad}", True),
                         (f'id="{identifier}"', False), (f"ID={identifier}", False),
                         (f" id = {identifier} ;x", True)):
        answer = Client().get("session", "", "-H", f"Cookie: {header}")
        assert answer.json["success"] is good, header
    two = Client().get("session", "", "-H", f"Cookie: id={identifier}", "-H", f"Cookie: id={bad}")
    assert two.json["success"]


@pytest.mark.parametrize("text", ["a\r\nX-Evil: 1", "a\nX-Evil: 1", "a\rX-Evil: 1", "\0", "a" * 3000],
                         ids=lambda text: repr(text[:20]))
def test_no_text_makes_a_header(client, text):
    from urllib.parse import quote

    client.address = "127.0.7.3"
    for answer in (client.get("session", f"_sid={quote(text)}"),
                   client.get("session", f"_sharing_id={quote(text)}&VemoToken={quote(text)}"),
                   client.login(text, text)):
        assert [name for name, _ in answer.headers if name.lower() == "x-evil"] == []


@pytest.mark.parametrize("method", ["PUT", "DELETE"])
def test_other_methods_change_nothing(alice, method):
    answer = alice.post("logout", {"action": "logout"}, "-X", method)
    assert answer.json["errinfo"]["key"] == "error_request"
    assert alice.session_file.exists()


def test_the_path_info_of_a_program(client):
    assert client.curl("/webman/session.cgi/../../etc/passwd").status in (400, 403, 404)


def test_a_large_query(alice):
    assert alice.get("session", "a=" + "x" * 3000).json["success"]
