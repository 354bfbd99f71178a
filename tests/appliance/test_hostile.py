"""Requests that no browser makes: the documented refusal, a normal end, nothing lost."""

import re
import time
from pathlib import Path
from urllib.parse import quote

import pytest
from conftest import SESSIONS, Client, raw, snapshot


COUNTERS = Path("/run/vemo/login")


def names_elsewhere():
    """What there is in the folders where a program could leave something by mistake."""
    seen = {path for folder in ("/", "/root", "/home", "/var", "/var/tmp", "/tmp", "/dev/shm", "/var/log/vemo")
            for path in Path(folder).iterdir()}
    return seen | {path for path in Path("/run").rglob("*") if path.parent not in (SESSIONS, COUNTERS)}


@pytest.fixture(autouse=True)
def nothing_is_written_elsewhere(server, log):
    names_elsewhere_before = names_elsewhere() | {Path("/run/vemo/network.lock")}
    before = snapshot("/etc", "/usr/vemo")
    yield
    assert snapshot("/etc", "/usr/vemo") == before
    assert names_elsewhere() - names_elsewhere_before == set()
    assert all(re.fullmatch(r"[A-Za-z0-9_-]{43}", path.name) for path in SESSIONS.iterdir())
    errors = Path("/var/log/vemo/error.log").read_text()
    # A program that a signal ends is reported by the web server.
    assert "ended unexpectedly" not in errors and "signal" not in errors


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
    alice.cookies = {**{f"{i:x}": "" for i in range(0xa00, 0xa00 + 999)}, **alice.cookies}
    assert len(alice.cookies) == 1000
    assert alice.get("session").json["success"]


@pytest.mark.parametrize("count, taken", [(9_998, True), (9_999, True), (10_000, False), (50_000, False)])
def test_ten_thousand_parameters(admin, count, taken):
    # The first ten thousand are read: an action behind the others among them, or not.
    others = b"&".join(b"p%d=1" % i for i in range(count))
    assert admin.post("network", b"action=load&" + others).json["success"]
    assert admin.post("logout", others + b"&action=logout").json["success"] is taken


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


def curl_chunked(client, program, body):
    return client.post(program, body, "-H", "Transfer-Encoding: chunked")


def test_a_chunked_body_counts_like_any_other(admin):
    assert curl_chunked(admin, "network", b"action=load").json["data"]["hostname"]
    assert curl_chunked(admin, "login", b"[" * 100_000).json["errinfo"]["key"] == "error_request"


@pytest.mark.parametrize("request_bytes", [
    b"Transfer-Encoding: chunked\r\n\r\nfffffffffffffffff\r\n", b"Transfer-Encoding: chunked\r\n\r\n-1\r\n",
    b"Transfer-Encoding: chunked\r\n\r\n5\r\nab\r\n0\r\n\r\n", b"Content-Length: 99999999999999999999\r\n\r\n",
    b"Content-Length: 2147483648\r\n\r\n", b"Content-Length: 0x10\r\n\r\n", b"Content-Length: 5 5\r\n\r\nabcde",
], ids=lambda text: text.decode().strip().replace("\r\n", " ")[:40])
def test_a_length_that_is_none(server, request_bytes):
    answer = raw(b"POST /webman/login.cgi HTTP/1.1\r\nHost: a\r\n" + request_bytes, shutdown=True)
    assert answer.split(b" ", 2)[1] in (b"400", b"413")


# The form, by somebody who may use it.

@pytest.mark.parametrize("body", [
    b"[" * 1000 + b"]" * 1000, b"[" * 1001 + b"]" * 1001, b"[" * 100000, b'{"action":' * 100000,
    b'{"action":"apply"}', b'{"action":["apply"]}', b"[]", b"null", b'"action=apply"', b"\xff\xfe=1", b"%",
    b"action", b"action=", b"action=apply%00", b"action%00=apply", b"=apply", b"&action=%61pply%", b"action=APPLY",
    b"action=load%0a", b"action=../apply", b"action=" + b"a" * 1_000_000,
], ids=lambda body: repr(body[:20]))
def test_a_request_that_is_no_form(admin, body):
    answer = admin.post("network", body)
    assert answer.json == {"success": False, "errinfo": {"sec": "common", "key": "error_request"}}


GOOD = {"hostname": "box", "comment": "", "mode": "static", "ip": "10.0.0.2", "mask": "255.255.255.0",
        "gateway": "10.0.0.1", "mtu": "1500", "speed": "1000", "valid_from": "2024/02/03"}
HOSTILE = [b"../../etc/passwd", b"%00", b"a\r\nX-Evil: 1", b"\xff\xfe", b"%n%n%s", b"-x", b"$(id)", b"x" * 1_000_000,
           b"{}", b"[1]", b"null", b"\x1b[31m", b"'\";--", b"9" * 400, b"-" * 400, b"1e9", b"0x10", b"\xe2\x80\xa8"]


# Harmless there: names of hosts, and an address in short.
HARMLESS = {("hostname", b"null"), ("hostname", b"1e9"), ("hostname", b"0x10"), ("gateway", b"0x10"), ("ip", b"0x10")}


@pytest.mark.parametrize("field, value", [
    (field, value) for field in GOOD if field != "comment" for value in HOSTILE if (field, value) not in HARMLESS
], ids=lambda value: value if isinstance(value, str) else repr(value[:20]))
def test_a_hostile_value_is_a_mark_under_its_field(admin, field, value):
    fields = {"action": "apply", **GOOD}
    pairs = [(k, quote(v)) for k, v in fields.items() if k != field] + [(field, value_of(value))]
    answer = admin.post("network", "&".join("=".join(pair) for pair in pairs).encode())
    assert answer.status == 200 and answer.json["success"] is False
    assert list(answer.json["errors"]) == [field]
    assert "x-evil" not in [name.lower() for name, _ in answer.headers]


def value_of(value):
    return value.decode() if value == b"%00" else quote(value)


def test_a_large_query(alice):
    assert alice.get("session", "a=" + "x" * 3000).json["success"]
