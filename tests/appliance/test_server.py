"""The web server: what stands on every answer, what is refused, what is logged."""

import os
import re
import socket
import struct
import subprocess
import time
from pathlib import Path

import pytest
from conftest import PORT, raw

SECURITY_HEADERS = {
    "X-Content-Type-Options": "nosniff",
    "Referrer-Policy": "same-origin",
    "Cross-Origin-Opener-Policy": "same-origin",
    "Cross-Origin-Resource-Policy": "same-origin",
}
MINIMAL_POLICY = "object-src 'none'; base-uri 'self'"
PROGRAMS = Path("/usr/vemo/vemoman/webman")


@pytest.fixture(scope="session", autouse=True)
def environment_program(server):
    """A program that prints its environment and its body."""
    program = PROGRAMS / "env.cgi"
    program.write_text("#!/bin/sh\nprintf 'Content-type: text/plain\\r\\n\\r\\n'\nenv | sort\n"
                       "printf 'BODY='\ncat\n")
    program.chmod(0o755)
    policy = PROGRAMS / "policy.cgi"
    policy.write_text("#!/bin/sh\nprintf \"Content-Security-Policy: script-src 'self'\\r\\n\"\n"
                      "printf 'Content-type: text/html\\r\\n\\r\\n<p>'\n")
    policy.chmod(0o755)
    # Says when it has begun, and what ended it.
    slow = PROGRAMS / "slow.cgi"
    slow.write_text("#!/bin/sh\ntrap 'echo TERM >/run/slow; exit' TERM\necho begun >/run/slow\n"
                    "sleep 20 & wait\nprintf 'Content-type: text/plain\\r\\n\\r\\nslow'\n")
    slow.chmod(0o755)


def wait_for(condition, seconds=10):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(0.02)
    return False


def flush_access_log():
    """The server writes its log when it has a page of it, or is told to."""
    server_pid = int(subprocess.run(["pidof", "lighttpd"], capture_output=True, check=True).stdout)
    os.kill(server_pid, 1)
    time.sleep(1.2)
    return Path("/var/log/vemo/access.log").read_text()


@pytest.mark.parametrize("arguments, status", [
    (["/"], 200), (["/first/app.js"], 200), (["/webman/session.cgi"], 200), (["/nothing"], 404),
    (["/", "-H", "X_Tmp_File: a"], 400), (["/", "-X", "TRACE"], 501), (["/", "-X", "FOO"], 501),
    (["/", "-H", "Host: a_b"], 400), (["/webman/texts/enu/strings"], 403),
    (["/", "-X", "OPTIONS"], 200), (["/first"], 301), (["/", "-I"], 200), (["/", "-H", "Range: bytes=0-3"], 200),
    (["/", "-H", "Range: bytes=99999-"], 200), (["/webman/broken.cgi"], 404), (["/webman/env.cgi", "-X", "PUT"], 200),
    (["/", "-X", "DELETE"], 501), (["/" + "x" * 9000], 431),
])
def test_every_answer_has_the_security_headers(client, arguments, status):
    answer = client.curl(*arguments)
    assert answer.status == status
    for name, value in SECURITY_HEADERS.items():
        assert answer.all(name) == [value]
    assert answer.header("Content-Security-Policy").endswith(MINIMAL_POLICY)


def test_not_modified_has_them_too(client):
    tag = client.curl("/first/app.js").header("ETag")
    answer = client.curl("/first/app.js", "-H", f"If-None-Match: {tag}")
    assert answer.status == 304
    assert answer.header("X-Content-Type-Options") == "nosniff"


def test_the_first_page_has_the_policy_of_the_desktop(client):
    answer = client.curl("/?x=1")
    policy = answer.header("Content-Security-Policy")
    assert answer.status == 200 and "script-src 'self'" in policy and policy.endswith(MINIMAL_POLICY)
    assert answer.header("X-Frame-Options") == "SAMEORIGIN"


def test_a_broken_request_has_them_too(server):
    answer = raw(b"GET / HTTP/1.1\r\nbroken\r\n\r\n").decode()
    assert answer.startswith("HTTP/1.1 400 ")
    assert "X-Content-Type-Options: nosniff" in answer and MINIMAL_POLICY in answer


def test_the_minimal_policy_stands_beside_a_pages_own(client):
    policies = ", ".join(client.get("policy").all("Content-Security-Policy"))
    assert policies == f"script-src 'self', {MINIMAL_POLICY}"


def test_the_server_names_no_version(client):
    assert client.curl("/").all("Server") == []


@pytest.mark.parametrize("name", ["X-Forwarded-Proto", "X-Forwarded-For", "X-Forwarded-Host",
                                  "x-forwarded-proto", "Forwarded", "X-Real-IP"])
def test_strangers_do_not_speak_for_proxies(client, name):
    answer = client.get("env", "", "-H", f"{name}: https")
    assert answer.status == 200
    assert "FORWARDED" not in answer.text and "REAL_IP" not in answer.text


def test_a_trusted_proxy_does(client):
    trusted = Path("/usr/vemo/etc/www/trusted_proxies")
    trusted.write_text("127.0.0.9\n")
    try:
        client.address = "127.0.0.9"
        assert "HTTP_X_FORWARDED_PROTO=https" in client.get("env", "", "-H", "X-Forwarded-Proto: https").text
        client.address = "127.0.0.8"
        assert "FORWARDED" not in client.get("env", "", "-H", "X-Forwarded-Proto: https").text
    finally:
        trusted.unlink()


@pytest.mark.parametrize("name", ["X_Tmp_File", "X.Tmp.File", "X_Forwarded_Proto", "X_Vemo_Token", "a!b"])
def test_names_that_collide_are_refused(client, name):
    assert client.get("env", "", "-H", f"{name}: 1").status == 400


def test_a_proxy_variable_never_reaches_a_program(client):
    assert "HTTP_PROXY" not in client.get("env", "", "-H", "Proxy: http://evil").text


@pytest.mark.parametrize("request_bytes, status", [
    (b"GET / HTTP/1.1\r\nHost: a_b.c\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\nHost: b%3bc\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\nHost: 127.0.0.1:0x50\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\nHost: [::1]\r\nConnection: close\r\n\r\n", 200),
    (b"GET / HTTP/1.1\r\nHost: a\r\nX-A : b\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\nHost: a\r\n folded: b\r\n\r\n", 400),
    (b"TRACE / HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n", 501),
    (b"CONNECT a:80 HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n", 400),
    (b"GET /a\x01b HTTP/1.1\r\nHost: a\r\n\r\n", 400),
    (b"GET /a%00b HTTP/1.1\r\nHost: a\r\n\r\n", 400),
    (b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", 505),
    (b"POST /webman/env.cgi HTTP/1.1\r\nHost: a\r\nContent-Length: 9223372036854775808\r\n\r\n", 400),
    (b"POST /webman/env.cgi HTTP/1.1\r\nHost: a\r\nContent-Length: 16777217\r\n\r\n", 413),
    (b"GET / HTTP/1.1\r\nHost: a.b;script-src\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\nHost: a.b,x\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\nHost: a@b\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\n\r\n", 400),
    (b"POST /webman/env.cgi HTTP/1.1\r\nHost: a\r\nContent-Length: +3\r\n\r\nabc", 400),
    (b"POST /webman/env.cgi HTTP/1.1\r\nHost: a\r\nContent-Length: -1\r\n\r\n", 400),
    (b"POST /webman/env.cgi HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nContent-Length: 4\r\n\r\nabcd", 400),
    (b"POST /webman/env.cgi HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\nHost: a\r\nX: a\0b\r\n\r\n", 400),
    (b"GET / HTTP/1.1\nHost: a\n\n", 400),
    pytest.param(b"GET / HTTP/1.1\r\nHost: a\r\nX: " + b"x" * 65536 + b"\r\n\r\n", 431, id="64 kB header"),
    (b"GET /webman/%2e%2e/%2e%2e/etc/passwd HTTP/1.1\r\nHost: a\r\n\r\n", 400),
    (b"GET /first/%2e%2e/webman/texts/enu/strings HTTP/1.1\r\nHost: a\r\n\r\n", 400),
])
def test_ambiguous_requests_are_refused(server, request_bytes, status):
    assert raw(request_bytes).split(b" ", 2)[1] == str(status).encode()


def test_a_chunked_body_arrives_with_its_length(client):
    answer = client.curl("/webman/env.cgi", "-H", "Transfer-Encoding: chunked", data=b"a=1&b=2")
    assert "CONTENT_LENGTH=7" in answer.text and answer.text.endswith("BODY=a=1&b=2")


def test_an_upgrade_to_another_protocol_is_ignored(client):
    answer = client.get("env", "", "-H", "Connection: Upgrade, HTTP2-Settings", "-H", "Upgrade: h2c",
                        "-H", "HTTP2-Settings: AAMAAABkAAQAAP__")
    assert answer.status == 200 and answer.header("Content-Security-Policy") == MINIMAL_POLICY


def test_what_follows_a_chunked_body_reaches_no_program(server):
    answer = raw(b"POST /webman/env.cgi HTTP/1.1\r\nHost: a\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n"
                 b"Trailer: X-Forwarded-Proto\r\n\r\n3\r\nabc\r\n0\r\nX-Forwarded-Proto: https\r\n"
                 b"X_Tmp_File: a\r\n\r\n").decode()
    assert answer.startswith("HTTP/1.1 200 ") and "BODY=abc" in answer
    assert "FORWARDED" not in answer and "TMP_FILE" not in answer


@pytest.mark.parametrize("arguments, line", [
    ([], "CONTENT_LENGTH=0"),
    (["-H", "Cookie: id=a", "-H", "Cookie: id=b"], "HTTP_COOKIE=id=a; id=b"),
    (["-H", "HTTPS: on"], "HTTP_HTTPS=on"),
    (["-H", "X-Tmp-File: good"], "HTTP_X_TMP_FILE=good"),
    (["-H", "X-Vemo-Token: t"], "HTTP_X_VEMO_TOKEN=t"),
])
def test_what_a_program_sees(client, arguments, line):
    lines = client.get("env", "", *arguments).text.splitlines()
    assert line in lines and "HTTPS=on" not in lines


def test_a_program_whose_client_hangs_up_is_told(server):
    mark = Path("/run/slow")
    with socket.create_connection(("127.0.0.1", PORT)) as connection:
        # The server watches a client whose request came in more than one piece.
        connection.sendall(b"POST /webman/slow.cgi HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\n\r\n")
        time.sleep(0.2)
        connection.sendall(b"abc")
        assert wait_for(lambda: mark.exists() and mark.read_text() == "begun\n")
        # Gone, not only done with sending.
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    assert wait_for(lambda: mark.read_text() == "TERM\n")


@pytest.mark.parametrize("path", ["/webman/texts/enu/strings", "/webman", "/webman/", "/.git/config",
                                  "/first/", "/.htaccess", "/webman/login.cgi/", "/webman/login.cgi~",
                                  "/webman/login.cgi/more", "/first/.hidden", "/first/a.conf", "/first/a.bak",
                                  "/webman/Login.cgi", "/webman//texts/enu/strings", "//webman/texts/enu/strings"])
def test_nothing_but_pages_and_programs_is_served(client, path):
    assert client.curl(path).status in (400, 403, 404)


def test_a_program_elsewhere_does_not_run(client):
    program = Path("/usr/vemo/vemoman/first/x.cgi")
    program.write_text("#!/bin/sh\nprintf '\\r\\nran'\n")
    program.chmod(0o755)
    assert not client.curl("/first/x.cgi").body.endswith(b"\nran")
    program.unlink()


def test_the_logs_hold_no_secret(client):
    client.get("env", "_sid=a-secret&x=1")
    client.curl("/nothing?_sid=a-secret", "-H", "X-Vemo-Token: a-secret", "-H", "Referer: http://a/?a-secret")
    client.curl("/", "-H", "X_Tmp_File: a-secret", "-H", "Cookie: id=a-secret")
    client.post("env", b"passwd=a-secret")
    raw(b"GET /?a-secret HTTP/1.1\r\nHost: a_b\r\nCookie: a-secret\r\nbroken a-secret\r\n\r\n")
    text = flush_access_log()
    assert re.search(r'^127\.0\.0\.1 \d{4}-\d\d-\d\dT[\d:]{8}[+-]\d{4} "GET /webman/env\.cgi HTTP/1\.1" 200 \d+$',
                     text, re.MULTILINE)
    assert "a-secret" not in text
    assert "a-secret" not in Path("/var/log/vemo/error.log").read_text()


def test_a_line_of_the_log_cannot_be_forged(client):
    client.curl("/nothing%0a127.0.9.9%20forged")
    client.curl('/nothing"%20200')
    text = flush_access_log()
    line = re.compile(r'127\.0\.0\.\d+ [\d:T+-]+ "[^"]*" \d{3} \d+')
    assert [one for one in text.splitlines() if not line.fullmatch(one)] == []


def test_the_program_sees_a_small_environment(client):
    names = {line.split("=")[0] for line in client.get("env").text.splitlines()}
    assert "QUERY_STRING" in names and "REMOTE_ADDR" in names
    assert not names & {"HOME", "SHELL", "USER", "LS_COLORS"}

