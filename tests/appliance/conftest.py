"""The appliance for tests over HTTP: the real web server in the test's own sandbox.

Each test file runs in a sandbox of its own, as root, with a private network; what it
changes is gone at its end.
"""

import json
import os
import queue
import re
import socket
import subprocess
import threading
import time
from dataclasses import dataclass, field
from pathlib import Path

import pytest

PROJECT = Path(__file__).resolve().parents[2]
PORT = 5000
SESSIONS = Path("/run/vemo/session")


@dataclass
class Answer:
    """One HTTP answer."""

    status: int
    headers: list
    body: bytes

    def all(self, name):
        return [value for key, value in self.headers if key.lower() == name.lower()]

    def header(self, name):
        values = self.all(name)
        return values[0] if values else None

    @property
    def text(self):
        return self.body.decode()

    @property
    def json(self):
        return json.loads(self.body)


def parse_answer(raw):
    """The last answer of what a server sent (after a 100 Continue, if there is one)."""
    while True:
        head, _, body = raw.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        status = int(lines[0].split()[1])
        if status != 100:
            break
        raw = body
    headers = [tuple(line.split(": ", 1)) if ": " in line else (line.rstrip(":"), "") for line in lines[1:]]
    return Answer(status, headers, body)


@dataclass
class Client:
    """A browser: its cookies, its address, its session's token."""

    cookies: dict = field(default_factory=dict)
    token: str = ""
    address: str = "127.0.0.1"

    def curl(self, path, *arguments, data=None):
        """A request by curl, with this client's cookies."""
        command = ["curl", "-s", "-i", "-g", "-m", "60", "--path-as-is", "-H", "Expect:",
                   "--interface", self.address]
        if self.cookies:
            command += ["-H", "Cookie: " + "; ".join(f"{k}={v}" for k, v in self.cookies.items())]
        if data is not None:
            command += ["--data-binary", "@-"]
        command += [*arguments, f"http://127.0.0.1:{PORT}{path}"]
        done = subprocess.run(command, input=data, stdout=subprocess.PIPE, check=False)
        assert done.stdout, f"no answer: curl exited {done.returncode}: {command}"
        answer = parse_answer(done.stdout)
        for cookie in answer.all("Set-Cookie"):
            name, value = cookie.split(";")[0].split("=", 1)
            if value:
                self.cookies[name] = value
            else:
                self.cookies.pop(name, None)
        return answer

    def get(self, program, query="", *arguments):
        return self.curl(f"/webman/{program}.cgi" + (f"?{query}" if query else ""), *arguments)

    def post(self, program, fields, *arguments, token=True):
        """A form; `fields` are a dictionary or the bytes of a body."""
        from urllib.parse import urlencode

        body = fields if isinstance(fields, bytes) else urlencode(fields).encode()
        extra = ["-H", f"X-Vemo-Token: {self.token}"] if token and self.token else []
        return self.curl(f"/webman/{program}.cgi", *extra, *arguments, data=body)

    def login(self, user, password=None, **more):
        fields = {"action": "login", "username": user,
                  "passwd": f"{user}-demo" if password is None else password, **more}
        answer = self.post("login", fields, token=False)
        if answer.json.get("success"):
            self.token = answer.json["data"]["token"]
        return answer

    @property
    def session_file(self):
        return SESSIONS / self.cookies["id"]


class SystemLog:
    """The system log, /dev/log, read as it comes: a full socket would hold the programs."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("/dev/log")
        os.chmod("/dev/log", 0o666)
        self.lines = queue.SimpleQueue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        while True:
            packet = self.socket.recv(65536).decode("utf-8", "replace")
            self.lines.put(re.sub(r"^<\d+>.{15} [^:]*: ", "", packet))

    def take(self):
        """The lines that have come since the last call."""
        time.sleep(0.05)
        taken = []
        while not self.lines.empty():
            taken.append(self.lines.get())
        return taken


def wait_for_port(port=PORT, seconds=10):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) == 0:
                return
        time.sleep(0.02)
    raise AssertionError("the web server did not start")


@pytest.fixture(scope="session")
def log():
    return SystemLog()


@pytest.fixture(scope="session")
def server(log):
    """The web server, started once a test file."""
    process = subprocess.Popen([PROJECT / "appliance/web-server"])
    wait_for_port()
    yield process
    process.terminate()
    process.wait(10)


@pytest.fixture
def client(server):
    return Client()


@pytest.fixture
def admin(server):
    one = Client()
    assert one.login("admin").json["success"]
    return one


@pytest.fixture
def alice(server):
    one = Client()
    assert one.login("alice").json["success"]
    return one


def raw(data, shutdown=False, seconds=10):
    """Sends bytes as they are, and gives what comes back until the server closes."""
    with socket.create_connection(("127.0.0.1", PORT), timeout=seconds) as connection:
        connection.sendall(data)
        if shutdown:
            connection.shutdown(socket.SHUT_WR)
        received = b""
        try:
            while chunk := connection.recv(65536):
                received += chunk
        except (TimeoutError, ConnectionResetError):
            pass
        return received


def configure(**settings):
    """Sets keys of /etc/vemoinfo.conf; None removes one."""
    path = Path("/etc/vemoinfo.conf")
    lines = [line for line in path.read_text().splitlines()
             if line.split("=")[0] not in settings]
    lines += [f'{key}="{value}"' for key, value in settings.items() if value is not None]
    path.write_text("\n".join(lines) + "\n")


@pytest.fixture
def settings():
    """`configure`, and everything as it was afterwards."""
    path = Path("/etc/vemoinfo.conf")
    before = path.read_bytes()
    yield configure
    path.write_bytes(before)


def account(name, *options, password=None, groups=()):
    """An account of this sandbox."""
    subprocess.run(["useradd", "--no-create-home", *options, name], check=True)
    for group in groups:
        subprocess.run(["usermod", "-aG", group, name], check=True)
    subprocess.run(["chpasswd"], input=f"{name}:{password or name + '-demo'}\n".encode(), check=True)


def snapshot(*roots):
    """Every file below the roots with its content, to see that nothing changed."""
    seen = {}
    for root in roots:
        for path in sorted(Path(root).rglob("*")):
            if path.is_file() and not path.is_symlink():
                seen[str(path)] = path.read_bytes()
            else:
                seen[str(path)] = None
    return seen
