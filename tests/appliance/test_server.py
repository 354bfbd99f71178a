"""The web server: what stands on every answer, what is refused, what is logged."""

import os
import subprocess
import time
from pathlib import Path

import pytest
from conftest import PROJECT, raw

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


@pytest.mark.parametrize("arguments, status", [
    (["/"], 200), (["/first/app.js"], 200), (["/webman/session.cgi"], 200), (["/nothing"], 404),
    (["/", "-H", "X_Tmp_File: a"], 400), (["/", "-X", "TRACE"], 501), (["/", "-X", "FOO"], 501),
    (["/", "-H", "Host: a_b"], 400), (["/webman/texts/enu/strings"], 403),
    (["/", "-X", "OPTIONS"], 200), (["/first"], 301), (["/", "-I"], 200),
])
def test_every_answer_has_the_security_headers(client, arguments, status):
    answer = client.curl(*arguments)
    assert answer.status == status
    for name, value in SECURITY_HEADERS.items():
        assert answer.all(name) == [value]
    assert answer.header("Content-Security-Policy").endswith(MINIMAL_POLICY)


def test_not_modified_has_them_too(client):
    tag = client.curl("/").header("ETag")
    answer = client.curl("/", "-H", f"If-None-Match: {tag}")
    assert answer.status == 304
    assert answer.header("X-Content-Type-Options") == "nosniff"


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


@pytest.mark.parametrize("path", ["/webman/texts/enu/strings", "/webman", "/webman/", "/.git/config",
                                  "/first/", "/.htaccess", "/webman/login.cgi/", "/webman/login.cgi~"])
def test_nothing_but_pages_and_programs_is_served(client, path):
    assert client.curl(path).status in (403, 404)


def test_a_program_elsewhere_does_not_run(client):
    program = Path("/usr/vemo/vemoman/first/x.cgi")
    program.write_text("#!/bin/sh\nprintf '\\r\\nran'\n")
    program.chmod(0o755)
    assert not client.curl("/first/x.cgi").body.endswith(b"\nran")
    program.unlink()


def test_the_access_log_holds_no_query(client):
    client.get("env", "_sid=a-secret&x=1")
    client.curl("/nothing?_sid=a-secret")
    time.sleep(0.2)
    # The server writes its log when it has a page of it, or is told to.
    server_pid = int(subprocess.run(["pidof", "lighttpd"], capture_output=True, check=True).stdout)
    os.kill(server_pid, 1)
    time.sleep(1.2)
    text = Path("/var/log/vemo/access.log").read_text()
    assert "/webman/env.cgi" in text and "a-secret" not in text


def test_the_program_sees_a_small_environment(client):
    names = {line.split("=")[0] for line in client.get("env").text.splitlines()}
    assert "QUERY_STRING" in names and "REMOTE_ADDR" in names
    assert not names & {"HOME", "SHELL", "USER", "LS_COLORS"}


class TestSandbox:
    def test_it_is_private(self):
        assert Path("/dev/log").exists()
        devices = {Path(line.split()[1]).name for line in Path("/proc/self/mounts").read_text().splitlines()}
        assert "overlay" in Path("/proc/self/mounts").read_text() and devices

    def test_it_passes_on_status_and_words(self):
        done = subprocess.run([PROJECT / "appliance/sandbox", "--bare", "sh", "-c", "printf %s \"$1\"; exit 7",
                               "sh", "two words"], capture_output=True, check=False)
        assert (done.returncode, done.stdout) == (7, b"two words")

    def test_it_changes_nothing_outside(self, tmp_path):
        subprocess.run([PROJECT / "appliance/sandbox", "--bare", "sh", "-c",
                        "touch /etc/changed /run/changed /dev/changed; useradd stranger"], check=True)
        assert not any(Path(p).exists() for p in ("/etc/changed", "/run/changed", "/dev/changed"))
        assert "stranger" not in Path("/etc/passwd").read_text()
