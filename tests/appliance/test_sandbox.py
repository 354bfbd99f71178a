"""The sandbox and the server script: what stays inside, what is kept, how they end."""

import os
import pty
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest
from conftest import PROJECT, snapshot

SANDBOX = str(PROJECT / "appliance/sandbox")


def run(*arguments, **options):
    return subprocess.run([SANDBOX, "--bare", *arguments], capture_output=True, check=False, text=True, **options)


def inside(script, **options):
    done = run("sh", "-c", script, **options)
    assert done.returncode == 0, done.stderr
    return done.stdout


def processes(word):
    """The processes whose command line holds the word."""
    found = []
    for path in Path("/proc").glob("[0-9]*/cmdline"):
        try:
            if word.encode() in path.read_bytes():
                found.append(path)
        except OSError:
            pass
    return found


def wait_for(condition, seconds=10):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if condition():
            return True
        time.sleep(0.02)
    return False


@pytest.mark.parametrize("command, status", [
    (["true"], 0), (["sh", "-c", "exit 7"], 7), (["sh", "-c", "kill -KILL $$"], 137), (["/nothing"], 127),
    (["/etc/passwd"], 126),
])
def test_the_status_passes_through(command, status):
    assert run(*command).returncode == status


def test_words_input_environment_and_folder_pass_through(tmp_path):
    assert run("printf", "%s|", "two words", "", "$x").stdout == "two words||$x|"
    assert run("cat", input="in").stdout == "in"
    assert inside('echo "$ZEM_X"', env={**os.environ, "ZEM_X": "a b"}) == "a b\n"
    assert inside("pwd", cwd="/usr/share") == "/usr/share\n"
    assert inside("pwd", cwd=PROJECT / "tests") == f"{PROJECT}/tests\n"


@pytest.mark.parametrize("arguments, message", [
    ([], "no command"), (["--nothing", "true"], "unknown option --nothing"), (["--state"], "--state needs a folder"),
])
def test_wrong_usage_is_told_in_a_line(arguments, message):
    done = subprocess.run([SANDBOX, *arguments], capture_output=True, check=False, text=True)
    assert done.returncode == 125 and message in done.stderr and done.stderr.count("\n") == 1


@pytest.mark.parametrize("without", [
    ["setpriv", "--reuid", "65534"], ["setpriv", "--bounding-set", "-sys_admin"],
])
def test_a_refusal_is_told_in_a_line(without):
    done = subprocess.run([*without, SANDBOX, "--bare", "true"], capture_output=True, check=False, text=True)
    assert done.returncode == 125
    assert done.stderr.startswith("sandbox: ") and "root" in done.stderr and done.stderr.count("\n") == 1


def test_it_changes_nothing_outside():
    before = snapshot("/etc"), Path("/proc/self/mounts").read_text(), os.uname().nodename, sorted(os.listdir("/dev"))
    inside("touch /etc/changed /run/changed /dev/changed /tmp/changed /changed; useradd stranger; rm /etc/hostname;"
           "mkdir /volume1 && mount -t tmpfs v /volume1; hostname changed; rm -f /dev/null; ip link set lo down")
    assert before == (snapshot("/etc"), Path("/proc/self/mounts").read_text(), os.uname().nodename,
                      sorted(os.listdir("/dev")))
    assert not any(Path(place, "changed").exists() for place in ("/etc", "/run", "/dev", "/tmp", "/"))
    assert run("ls", "/etc/changed").returncode != 0


def test_what_is_fresh_and_what_is_there():
    Path("/run/mine").touch()
    Path("/tmp/mine").touch()
    assert set(inside("ls /run").split()) <= {"lock", "vemo", "user"}
    assert str(PROJECT).startswith("/tmp/") or inside("ls /tmp") == ""
    assert inside("ls -d /dev/log 2>&1 || true").startswith("ls: ")
    assert inside("stat -c '%F %t %T' /dev/null /dev/urandom").splitlines() == [
        "character special file 1 3", "character special file 1 9"]
    assert inside("echo x >/dev/shm/x; cat /dev/shm/x; echo y >/dev/stderr; readlink /dev/fd") == "x\n/proc/self/fd\n"
    assert run("touch", "/sys/x").returncode != 0
    assert inside("stat -c %a /tmp /run /run/vemo /dev/shm", umask=0o077).split() == ["1777", "755", "755", "1777"]


def test_it_has_processes_and_a_network_of_its_own():
    assert inside("cat /proc/1/comm; ls -d /proc/[0-9]* | wc -l").splitlines()[0] == "sandbox"
    with socket.create_server(("127.0.0.1", 0)) as server:
        port = server.getsockname()[1]
        reach = f"exec 3<>/dev/tcp/127.0.0.1/{port}"
        assert run("bash", "-c", reach).returncode != 0
        assert run("--host-network", "bash", "-c", reach).returncode == 0
    assert "state UNKNOWN" in inside("ip -o link") and inside("ip -o link").count("\n") == 1


def test_the_project_is_writable_and_a_build_folder_too(tmp_path):
    mark = PROJECT / "build" / f"mark-{os.getpid()}"
    inside(f"echo 1 >{mark}")
    assert mark.read_text() == "1\n"
    mark.unlink()
    (tmp_path / "CMakeCache.txt").touch()
    (tmp_path / "tests").mkdir()
    inside("echo 2 >made", cwd=tmp_path / "tests")
    assert (tmp_path / "tests/made").read_text() == "2\n"
    program = tmp_path / "tests/program"
    program.write_text("#!/bin/sh\necho ran\n")
    program.chmod(0o755)
    assert run(str(program), cwd="/").stdout == "ran\n"


def test_without_a_bind_a_folder_below_tmp_is_not_seen(tmp_path):
    (tmp_path / "file").touch()
    assert run("ls", str(tmp_path / "file"), cwd=tmp_path).returncode != 0
    assert run("ls", str(tmp_path / "file"), env={**os.environ, "SANDBOX_BIND": str(tmp_path)}).returncode == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGUSR1])
def test_signals_are_passed_on(number, tmp_path):
    with subprocess.Popen([SANDBOX, "--bare", "bash", "-c",
                           f"trap 'echo got; exit 3' {int(number)}; echo ready; while :; do sleep 0.02; done"],
                          stdout=subprocess.PIPE, text=True) as process:
        assert process.stdout.readline() == "ready\n"
        process.send_signal(number)
        assert process.stdout.readline() == "got\n"
        assert process.wait(10) == 3


@pytest.mark.parametrize("ending", ["command", "TERM", "KILL"])
def test_nothing_is_left_running(ending):
    word = f"left-by-{ending}"
    script = f"(exec -a {word} sleep 98765) & (exec -a {word} setsid sleep 98765) & echo ready; read line"
    with subprocess.Popen([SANDBOX, "--bare", "bash", "-c", script], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          text=True) as process:
        assert process.stdout.readline() == "ready\n"
        assert wait_for(lambda: len([p for p in processes(word) if b"bash" not in p.read_bytes()]) >= 1)
        if ending == "command":
            process.stdin.write("\n")
            process.stdin.flush()
        else:
            process.send_signal(getattr(signal, f"SIG{ending}"))
        process.wait(10)
        assert wait_for(lambda: not processes(word))


def test_many_start_at_once():
    started = [subprocess.Popen([SANDBOX, "sh", "-c", "id -u alice >/dev/null && test -x /usr/vemo/vemoman"])
               for _ in range(12)]
    assert [one.wait(60) for one in started] == [0] * 12


def test_the_appliance_is_in_it():
    done = subprocess.run([SANDBOX, "sh", "-c", "getent group administrators; cat /etc/pam.d/vemo;"
                           "stat -c '%a %U %n' /usr/vemo/etc/otp /usr/vemo/etc/sso /run/vemo"],
                          capture_output=True, check=True, text=True).stdout
    assert done.splitlines()[0].endswith(":admin") and "common-auth" in done
    assert "700 root /usr/vemo/etc/otp" in done and "700 root /usr/vemo/etc/sso" in done


@pytest.fixture
def state():
    """A folder for a kept state: an upper layer cannot lie on another overlay."""
    folder = PROJECT / ".state" / f"test-{os.getpid()}"
    yield folder
    subprocess.run(["rm", "-rf", str(folder)], check=True)


def test_a_state_is_kept_and_only_one_uses_it(state):
    assert run("--state", str(state), "sh", "-c", "echo 1 >/etc/kept; rm /etc/hostname; echo 2 >/run/x").returncode == 0
    assert run("--state", str(state), "sh", "-c", "cat /etc/kept; ls /etc/hostname /run/x").stdout == "1\n"
    with subprocess.Popen([SANDBOX, "--bare", "--state", str(state), "sh", "-c", "echo in; read line"],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as first:
        assert first.stdout.readline() == "in\n"
        second = run("--state", str(state), "true")
        assert second.returncode == 125 and "is in use" in second.stderr
        first.communicate("\n")
    assert run("--state", str(state), "true").returncode == 0


class Server:
    """script/server at a terminal of its own."""

    def __init__(self, state, *options):
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.execv(PROJECT / "script/server", ["server", "--port", "5055", "--state", str(state), *options])
        self.said = ""

    def read_until(self, word, seconds=300):
        end = time.monotonic() + seconds
        while word not in self.said and time.monotonic() < end:
            try:
                self.said += os.read(self.terminal, 4096).decode()
            except OSError:
                break
        assert word in self.said, self.said

    def end(self):
        status = None

        def ended():
            nonlocal status
            try:
                os.set_blocking(self.terminal, False)
                self.said += os.read(self.terminal, 4096).decode()
            except OSError:
                pass
            pid, status = os.waitpid(self.pid, os.WNOHANG)
            return pid != 0

        assert wait_for(ended, 20), self.said
        os.close(self.terminal)
        return os.waitstatus_to_exitcode(status)


def curl(path, *arguments):
    return subprocess.run(["curl", "-s", *arguments, f"http://127.0.0.1:5055{path}"], capture_output=True, check=False,
                          text=True).stdout


def no_server_left():
    with socket.socket() as probe:
        taken = probe.connect_ex(("127.0.0.1", 5055)) == 0
    return not taken and not processes("--port\0005055") and not processes("lighttpd.conf")


def test_the_server_script(state):
    """Started, stopped by Ctrl-C, started again with what was kept, stopped by SIGTERM, reset."""
    server = Server(state)
    server.read_until("Ctrl-C stops it.")
    assert "http://127.0.0.1:5055/" in server.said and "admin / admin-demo" in server.said
    assert "<!DOCTYPE html>" in curl("/")
    taken = subprocess.run([PROJECT / "script/server", "--port", "5055"], capture_output=True, check=False, text=True)
    assert (taken.returncode, taken.stderr) == (
        1, "server: port 5055 is taken on this machine; choose another with --port\n")
    answer = curl("/webman/login.cgi", "-d", "action=login&username=alice&passwd=alice-demo")
    assert '"success":true' in answer.replace(" ", "")
    inside_etc = state / "upper/etc"
    os.write(server.terminal, b"\x03")
    assert server.end() == 0 and "Stopped." in server.said
    assert wait_for(no_server_left)

    # What an administrator changed is still there, and newer files come up beside it.
    inside_etc.mkdir(exist_ok=True)
    assert subprocess.run([SANDBOX, "--state", str(state), "sh", "-c",
                           "echo 'network_hostname=\"kept\"' >>/etc/vemoinfo.conf; useradd -M keptuser"],
                          check=False).returncode == 0
    page = PROJECT / "appliance/rootfs/usr/vemo/vemoman/first" / f"test-{os.getpid()}.css"
    page.write_text("newer\n")
    try:
        server = Server(state)
        server.read_until("Ctrl-C stops it.")
        assert curl(f"/first/{page.name}") == "newer\n"
    finally:
        page.unlink()
    assert "kept" in (state / "upper/etc/vemoinfo.conf").read_text()
    assert "keptuser" in (state / "upper/etc/passwd").read_text()
    os.kill(server.pid, signal.SIGTERM)
    assert server.end() == 0
    assert wait_for(no_server_left)

    server = Server(state, "--reset")
    server.read_until("Ctrl-C stops it.")
    assert not (state / "upper/etc/passwd").exists() or "keptuser" not in (state / "upper/etc/passwd").read_text()
    os.write(server.terminal, b"\x03")
    assert server.end() == 0


@pytest.mark.parametrize("arguments, message", [
    (["--port", "70000"], "server: 70000 is no port\n"), (["--port", "a"], "server: a is no port\n"),
    (["--wrong"], "server: unknown option --wrong (--port N, --reset, --state DIR)\n"),
])
def test_wrong_usage_of_the_server_script(arguments, message):
    done = subprocess.run([PROJECT / "script/server", *arguments], capture_output=True, check=False, text=True)
    assert done.returncode in (1, 2) and done.stderr == message
