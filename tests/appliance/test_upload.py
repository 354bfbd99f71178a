"""Uploads over HTTP: whole and in slices, broken, resumed, hostile."""

import hashlib
import os
import random
import shutil
import signal
import socket
import subprocess
import threading
import time
from pathlib import Path
from urllib.parse import urlencode

import pytest
from conftest import PORT, Client, parse_answer

VOLUME = Path("/volume1")
SPOOL = VOLUME / "@tmp"
REGISTRY = Path("/tmp/slice_file_id")


def waiting():
    """What waits in the spool directory; the web server has a folder of its own there."""
    return [path for path in SPOOL.iterdir() if path.name != "server"]


BOUNDARY = "----------------boundary1234"


@pytest.fixture(autouse=True)
def tidy(server):
    folder = VOLUME / "public/In"
    folder.mkdir(exist_ok=True)
    folder.chmod(0o777)
    yield
    shutil.rmtree(folder, ignore_errors=True)
    # What was refused has left nothing; slices that can go on are removed by the tests.
    assert not list(waiting()), list(waiting())
    assert not list(REGISTRY.iterdir())


def part(name, content, filename=None, boundary=BOUNDARY):
    disposition = f'form-data; name="{name}"' + (f'; filename="{filename}"' if filename is not None else "")
    return f"--{boundary}\r\nContent-Disposition: {disposition}\r\n\r\n".encode() + content + b"\r\n"


def body(*parts, boundary=BOUNDARY):
    return b"".join(parts) + f"--{boundary}--\r\n".encode()


def post(client, data, query=None, *headers, boundary=BOUNDARY, token=True):
    extra = [argument for header in headers for argument in ("-H", header)]
    if token:
        extra += ["-H", f"X-Vemo-Token: {client.token}"]
    address = "/webman/upload.cgi" + (f"?{urlencode(query)}" if query else "")
    return client.curl(address, "-H", f"Content-Type: multipart/form-data; boundary={boundary}", *extra, data=data)


def send(client, content, name="a.txt", path="/public/In", **query):
    return post(client, body(part("file", content, name)), {"path": path, **query}).json


def key(answer):
    return None if answer["success"] else answer["errinfo"]["key"]


def slice_of(client, content, first, size, id=None, path="/public/In", name="sliced", total=None):
    piece = content[first:first + size]
    total = len(content) if total is None else total
    headers = [f"Content-Range: bytes {first}-{first + len(piece) - 1}/{total}"]
    if id:
        headers.append(f"X-Tmp-File: {id}")
    return post(client, body(part("file", piece, name)), {"path": path}, *headers).json


# --- Whole files ---


@pytest.mark.parametrize("content", [b"", b"x", b"\r\n", os.urandom(70000), b"x--" + BOUNDARY.encode(), b"\r\n--" + BOUNDARY.encode()[:-1],
                                     bytes(range(256)) * 100], ids=range(7))
def test_a_file_arrives_as_it_was(alice, content):
    answer = send(alice, content)
    assert answer == {"success": True, "data": {"files": [{"name": "a.txt", "size": len(content)}]}}
    path = VOLUME / "public/In/a.txt"
    assert path.read_bytes() == content
    status = path.stat()
    assert status.st_uid == int(subprocess.check_output(["id", "-u", "alice"])) and status.st_mode & 0o7777 == 0o644


def test_several_files_and_parameters_in_any_order(alice):
    data = body(part("file", b"one", "1.txt"), part("path", b"/public/In"), part("file", b"two", "2.txt"),
                part("overwrite", b"no"))
    assert post(alice, data).json["data"]["files"] == [{"name": "1.txt", "size": 3}, {"name": "2.txt", "size": 3}]
    assert (VOLUME / "public/In/2.txt").read_bytes() == b"two"


def test_into_the_home_and_as_an_administrator(alice, admin):
    assert key(send(alice, b"mine", "Mine.txt", "/home")) is None
    path = VOLUME / "homes/alice/Mine.txt"
    assert path.read_bytes() == b"mine" and path.owner() == "alice"
    path.unlink()
    assert key(send(admin, b"x", "Admins.txt")) is None
    assert (VOLUME / "public/In/Admins.txt").owner() == "admin"
    assert key(send(admin, b"x", "Book.txt", "/library/Books")) is None
    (VOLUME / "library/Books/Book.txt").unlink()


def test_nothing_is_replaced_without_being_told(alice):
    assert key(send(alice, b"first")) is None
    assert key(send(alice, b"second")) == "error_exists"
    assert (VOLUME / "public/In/a.txt").read_bytes() == b"first"
    assert key(send(alice, b"second", overwrite="yes")) is None
    assert (VOLUME / "public/In/a.txt").read_bytes() == b"second"
    (VOLUME / "public/In/folder").mkdir()
    assert key(send(alice, b"x", "folder", overwrite="yes")) is not None
    # A link that lies in the way is replaced, not followed.
    (VOLUME / "public/In/link").symlink_to("/root/target")
    assert key(send(alice, b"x", "link")) == "error_exists"
    assert key(send(alice, b"x", "link", overwrite="yes")) is None
    assert not (VOLUME / "public/In/link").is_symlink() and not Path("/root/target").exists()


def test_the_lists_of_the_folder_hold_for_new_files(alice):
    assert key(send(alice, b"x", "Planned.txt", "/team/Plans")) is None
    acl = subprocess.check_output(["getfacl", "-cp", VOLUME / "team/Plans/Planned.txt"]).decode()
    (VOLUME / "team/Plans/Planned.txt").unlink()
    assert "group:administrators:" in acl


@pytest.mark.parametrize("path, reason", [
    ("", "error_path"), ("/public/..", "error_path"), ("/none", "error_not_found"), ("/vault", "error_not_found"),
    ("/library", "error_no_right"), ("/team/../private", "error_path"), ("/public/Welcome.txt", "error_not_found"),
    ("/public/none", "error_not_found"), ("/homes/bob", "error_not_found"), ("/public/@eaDir", "error_path")])
def test_where_one_may_not(alice, path, reason):
    assert key(send(alice, b"x", path=path)) == reason


@pytest.mark.parametrize("name, reason", [
    ("../../etc/passwd", None), ("C:\\dir\\b.txt", None), ("", "error_upload_broken"), (".", "error_upload_broken"),
    ("..", "error_upload_broken"), ("a:b", "error_name"), ("@eaDir", "error_name"), ("._x", "error_name"),
    ("x" * 255, None), ("x" * 256, "error_upload_broken"), ("a\x00b", "error_upload_broken"),
    ("a\u202eb", "error_upload_broken"), ("a\tb", "error_upload_broken"), ("日本.txt", None), ("%22", None)])
def test_names(alice, name, reason):
    answer = send(alice, b"x", name)
    assert key(answer) == reason, answer
    if reason is None:
        (stored,) = answer["data"]["files"]
        assert [path.name for path in (VOLUME / "public/In").iterdir()] == [stored["name"]]
        assert "/" not in stored["name"] and "\\" not in stored["name"]
    assert not Path("/etc/passwd").read_bytes() == b"x"


def test_filename_star_and_quotes(alice):
    data = (f"--{BOUNDARY}\r\nContent-Disposition: form-data; name=\"file\"; filename=\"no.txt\"; "
            f"filename*=UTF-8''%e6%97%a5.txt\r\n\r\nx\r\n--{BOUNDARY}--\r\n").encode()
    assert post(alice, data, {"path": "/public/In"}).json["data"]["files"][0]["name"] == "日.txt"
    assert send(alice, b"x", "a%22b.txt")["data"]["files"][0]["name"] == 'a"b.txt'


# --- Who may ---


def test_without_a_session_or_a_token(alice, client):
    data = body(part("file", b"x", "a.txt"))
    answer = post(client, data, {"path": "/public/In"}, token=False)
    assert answer.header("x-request-error")
    answer = post(alice, data, {"path": "/public/In"}, token=False)
    assert answer.header("x-request-error")
    assert post(alice, data, {"path": "/public/In", "VemoToken": alice.token}, token=False).json["success"]
    wrong = alice.curl("/webman/upload.cgi?path=/public/In", "-H", f"X-Vemo-Token: {alice.token}", data=b"a=1")
    assert key(wrong.json) == "error_request"
    assert key(alice.get("upload", "path=/public/In", "-H", f"X-Vemo-Token: {alice.token}").json) == "error_request"


# --- Broken bodies ---


def connect():
    return socket.create_connection(("127.0.0.1", PORT), timeout=20)


def head(client, length, query="path=/public/In", *extra, boundary=BOUNDARY):
    lines = [f"POST /webman/upload.cgi?{query} HTTP/1.1", "Host: 127.0.0.1", f"Cookie: id={client.cookies['id']}",
             f"X-Vemo-Token: {client.token}", f"Content-Type: multipart/form-data; boundary={boundary}",
             f"Content-Length: {length}", *extra, "", ""]
    return "\r\n".join(lines).encode()


def test_cut_at_every_byte(alice):
    whole = body(part("path", b"/public/In"), part("file", b"content", "cut.txt"))
    for size in range(len(whole) - 2):  # without its last line end it is whole
        answer = post(alice, whole[:size], {"path": "/public/In"}).json
        assert key(answer) in ("error_upload_broken", "error_request"), size
        assert not list((VOLUME / "public/In").iterdir()), size
    assert key(post(alice, whole, {"path": "/public/In"}).json) is None


@pytest.mark.parametrize("boundary, good", [("x" * 70, True), ("x" * 71, False), ("a b", False), ("\"q\"", True), ("", False),
                                            ("'()+_,-./:=?", True)])
def test_boundaries(alice, boundary, good):
    real = boundary.strip('"')
    data = body(part("file", b"x", "b.txt", boundary=real), boundary=real)
    answer = post(alice, data, {"path": "/public/In"}, boundary=boundary).json
    assert answer["success"] is good, answer


@pytest.mark.parametrize("change", [
    lambda data: data.replace(b"\r\n", b"\n"), lambda data: data.replace(b"\r\n", b"\r"),
    lambda data: data.replace(b"Content-Disposition", b"X-" + b"y" * 1_000_000 + b": z\r\nContent-Disposition"),
    lambda data: data.replace(b"Content-Disposition: form-data;", b"Content-Transfer-Encoding: base64\r\nContent-Disposition: form-data;"),
    lambda data: data.replace(BOUNDARY.encode(), b"other-boundary-here"), lambda data: b"", lambda data: b"\0" * 1000,
    lambda data: part("x", b"y") * 10_000 + data])
def test_bodies_of_odd_forms(alice, change):
    answer = post(alice, change(body(part("file", b"x", "odd.txt"))), {"path": "/public/In"}).json
    assert key(answer) in ("error_upload_broken", "error_request")
    assert not list((VOLUME / "public/In").iterdir())


def test_preamble_and_epilogue_do_not_count(alice):
    data = b"preamble\r\n" + body(part("file", b"x", "pre.txt")) + b"epilogue"
    assert key(post(alice, data, {"path": "/public/In"}).json) is None


def test_lengths_that_lie(alice):
    data = body(part("file", b"x" * 1000, "lie.txt"))
    for length, cut in ((len(data) + 50, False), (len(data) - 50, True)):
        with connect() as connection:
            connection.sendall(head(alice, length) + (data[:length] if cut else data))
            connection.shutdown(socket.SHUT_WR)
            received = b""
            while chunk := connection.recv(65536):
                received += chunk
        assert not list((VOLUME / "public/In").iterdir())
        if received:
            assert b'"success" : true' not in received
    for length in ("-1", "+3", "9" * 30, "1e3", "0x10"):
        with connect() as connection:
            connection.sendall(head(alice, length) + data)
            answer = connection.recv(65536)
        assert b" 400 " in answer.split(b"\r\n")[0] or b" 413 " in answer.split(b"\r\n")[0], length


def test_the_connection_is_usable_after_a_refusal(alice):
    data = body(part("file", b"x" * 300_000, "kept.txt"))
    with connect() as connection:
        for query in ("path=/none", "path=/library", "path=/public/In"):
            connection.sendall(head(alice, len(data), query) + data)
            received = b""
            while b"\r\n\r\n" not in received or b"}\n" not in received:
                chunk = connection.recv(65536)
                assert chunk, (query, received)
                received += chunk
            assert received.startswith(b"HTTP/1.1 200"), query
    assert (VOLUME / "public/In/kept.txt").stat().st_size == 300_000


def test_a_full_volume(alice):
    conf = Path("/etc/samba/smb.conf")
    before = conf.read_text()
    small = Path("/volume3")
    small.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=300k,mode=1777", "none", small], check=True)
    conf.write_text(before + "\n[small]\npath=/volume3/share\nread only=no\n")
    (small / "share").mkdir(mode=0o777)
    (small / "share").chmod(0o777)
    try:
        assert key(send(alice, b"x" * 1000, path="/small")) is None
        assert key(send(alice, b"x" * 600_000, "big", path="/small")) == "error_no_space"
        assert [path.name for path in (small / "share").iterdir()] == ["a.txt"]
        subprocess.run(["mount", "-o", "remount,ro", small], check=True)
        assert key(send(alice, b"x", "late", path="/small")) in ("error_read_only", "error_no_volume", "error_no_space")
    finally:
        conf.write_text(before)
        subprocess.run(["umount", "-l", small], check=True)
        small.rmdir()


# --- Slices ---


def test_a_file_in_slices(alice):
    content = os.urandom(300_000)
    answer = slice_of(alice, content, 0, 100_000)
    id = answer["data"]["id"]
    assert answer["data"]["offset"] == 100_000 and len(id) == 22 and not (VOLUME / "public/In/sliced").exists()
    (growing,) = waiting()
    assert growing.stat().st_mode & 0o7777 == 0o600 and growing.owner() == "alice"
    assert (REGISTRY / id).stat().st_mode & 0o7777 == 0o600 and REGISTRY.stat().st_mode & 0o7777 == 0o700
    assert slice_of(alice, content, 100_000, 100_000, id)["data"]["offset"] == 200_000
    answer = slice_of(alice, content, 200_000, 100_000, id)
    assert answer["data"]["files"] == [{"name": "sliced", "size": 300_000}]
    assert (VOLUME / "public/In/sliced").read_bytes() == content


def test_one_slice_that_is_all(alice):
    answer = slice_of(alice, b"all of it", 0, 9)
    assert answer["data"]["files"] == [{"name": "sliced", "size": 9}], answer


def test_slices_that_do_not_follow(alice):
    content = os.urandom(3000)
    id = slice_of(alice, content, 0, 1000)["data"]["id"]
    for first, size, total in ((2000, 1000, None), (500, 1000, None), (0, 1000, None), (1000, 1000, 4000)):
        answer = slice_of(alice, content, first, size, id, total=total)
        assert (key(answer), answer["data"]["offset"]) == ("error_slice", 1000), (first, size, total)
    for unknown in ("x" * 22, "../" + id, "..", "%2e%2e", "a=b", id[:-1], id + "x", "/etc/passwd", id.upper() + "a"):
        answer = slice_of(alice, content, 1000, 1000, unknown)
        assert key(answer) == "error_slice" and "data" not in answer, unknown
    for bad in ("bytes 0-999/*", "bytes */3000", "bytes 5-2/3000", "bytes 0-3000/3000", "bytes a-b/c", "0-1/2", "bytes 0-1/2, 3-4/5"):
        answer = post(alice, body(part("file", b"x", "f")), {"path": "/public/In"}, f"Content-Range: {bad}").json
        assert key(answer) is not None, bad
    assert slice_of(alice, content, 1000, 2000, id)["success"]
    assert (VOLUME / "public/In/sliced").read_bytes() == content


def test_a_slice_is_its_users(alice, admin, server):
    content = os.urandom(2000)
    id = slice_of(alice, content, 0, 1000)["data"]["id"]
    bob = Client()
    bob.login("bob")
    for other in (bob, admin):
        answer = slice_of(other, content, 1000, 1000, id)
        assert key(answer) == "error_slice" and "data" not in answer
    again = Client()
    again.login("alice")  # another session of the same user may go on
    assert slice_of(again, content, 1000, 1000, id)["success"]
    assert (VOLUME / "public/In/sliced").read_bytes() == content


def test_the_last_slice_can_be_sent_again(alice):
    content = os.urandom(2000)
    (VOLUME / "public/In/sliced").write_bytes(b"in the way")
    id = slice_of(alice, content, 0, 1000)["data"]["id"]
    answer = slice_of(alice, content, 1000, 1000, id)
    assert key(answer) == "error_exists"
    (VOLUME / "public/In/sliced").unlink()
    assert slice_of(alice, content, 1999, 1, id)["data"]["files"] == [{"name": "sliced", "size": 2000}]
    assert (VOLUME / "public/In/sliced").read_bytes() == content


def test_a_refused_slice_can_be_gone_on_with(alice):
    """Whatever is refused once something grows comes with the id and the place to go on at."""
    (VOLUME / "public/In/sliced").write_bytes(b"in the way")
    answer = slice_of(alice, b"hello", 0, 5)  # the first slice, and the last
    assert (key(answer), answer["data"]["offset"]) == ("error_exists", 4)
    id = answer["data"]["id"]
    assert slice_of(alice, b"hello", 4, 1, id, name="other")["data"] == {"files": [{"name": "other", "size": 5}]}
    assert (VOLUME / "public/In/other").read_bytes() == b"hello"
    data = body(part("file", b"0123456789", "late"), part("path", b"/none"))
    answer = post(alice, data, None, "Content-Range: bytes 0-9/20").json
    if not answer["success"]:
        assert key(answer) == "error_not_found" and answer["data"]["offset"] == 10
    id = answer["data"]["id"]
    assert slice_of(alice, b"x" * 20, 10, 10, id, name="late")["success"]


def test_of_several_files_the_answer_names_those_that_are_stored(alice):
    data = body(part("file", b"1", "one"), part("file", b"2", "a:b"), part("file", b"3", "three"))
    answer = post(alice, data, {"path": "/public/In"}).json
    assert key(answer) == "error_name" and answer["data"]["files"] == [{"name": "one", "size": 1}]
    data = body(part("file", b"1", "x"), part("file", b"2", "y"))
    answer = post(alice, data, {"path": "/public/In", "name": "same", "overwrite": "yes"}).json
    assert key(answer) == "error_request" and (VOLUME / "public/In/same").read_bytes() == b"1"


def test_two_with_one_id_at_once(alice):
    content = os.urandom(4_000_000)
    id = slice_of(alice, content, 0, 1_000_000)["data"]["id"]
    results = []
    threads = [threading.Thread(target=lambda: results.append(slice_of(alice, content, 1_000_000, 3_000_000, id))) for _ in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert sum(result["success"] for result in results) == 1, results
    assert (VOLUME / "public/In/sliced").read_bytes() == content


def test_ids_are_not_guessed_and_slices_are_limited(alice):
    ids = set()
    for number in range(16):
        ids.add(slice_of(alice, b"x" * 100, 0, 10, name=f"f{number}")["data"]["id"])
    answer = slice_of(alice, b"x" * 100, 0, 10, name="one more")
    assert not answer["success"] and len(ids) == 16
    assert subprocess.check_output(["zem-cleanup"]) == b""
    assert len(list(waiting())) == 16
    old = time.time() - 25 * 3600
    for path in waiting():
        os.utime(path, (old, old))
    (SPOOL / "kept").write_text("somebody else's")
    (SPOOL / "slice-link").symlink_to("/etc/passwd")
    removed = subprocess.check_output(["zem-cleanup"]).decode().splitlines()
    assert len([line for line in removed if line.startswith("/volume1/@tmp/slice-")]) == 16
    assert len([line for line in removed if line.startswith("/tmp/slice_file_id/")]) == 16
    assert sorted(path.name for path in waiting()) == ["kept", "slice-link"]
    (SPOOL / "kept").unlink()
    (SPOOL / "slice-link").unlink()
    assert slice_of(alice, b"x" * 20, 0, 20, name="again")["success"]


@pytest.mark.parametrize("record", ["/etc/passwd", "/volume1/public/Welcome.txt", "/volume1/@tmp/../public/Welcome.txt",
                                    "/volume1/@tmp/slice-planted", "/dev/null", ""])
def test_records_that_name_something_else(alice, record):
    before = Path("/etc/passwd").read_bytes(), (VOLUME / "public/Welcome.txt").read_bytes()
    id = "plantedplantedplantedp"
    (REGISTRY / id).write_text(f'{id}="{record}"\n')
    planted = SPOOL / "slice-planted"
    planted.symlink_to("/etc/passwd")
    try:
        answer = slice_of(alice, b"x" * 100, 50, 50, id)
        assert key(answer) == "error_slice", answer
    finally:
        planted.unlink()
        (REGISTRY / id).unlink()
    assert (Path("/etc/passwd").read_bytes(), (VOLUME / "public/Welcome.txt").read_bytes()) == before


def test_a_registry_that_somebody_else_made(alice):
    REGISTRY.rename("/tmp/aside")
    REGISTRY.mkdir(mode=0o777)
    shutil.chown(REGISTRY, "bob")
    try:
        assert not slice_of(alice, b"x" * 100, 0, 50)["success"]
        for path in waiting():
            path.unlink()
    finally:
        REGISTRY.rmdir()
        Path("/tmp/aside").rename(REGISTRY)


# --- Killed in the middle ---


def resume(client, content, id, size=1 << 20):
    """Goes on as the documentation tells authors of clients."""
    offset = 0
    answer = slice_of(client, content, len(content) - 1, 1, id) if id else None
    for _ in range(200):
        if answer and answer["success"] and answer["data"].get("files"):
            return
        if answer and "offset" in answer.get("data", {}):
            offset = answer["data"]["offset"]
        elif answer is not None:
            id, offset = None, 0
        answer = slice_of(client, content, offset, size, id)
        if answer["success"] and "id" in answer["data"]:
            id = answer["data"]["id"]
    raise AssertionError(answer)


def start_slice(client, content, first, last, id):
    """Sends a slice by hand. Gives the open connection and the rest of the bytes."""
    data = body(part("file", content[first:last], "sliced"))
    extra = [f"Content-Range: bytes {first}-{last - 1}/{len(content)}"] + ([f"X-Tmp-File: {id}"] if id else [])
    connection = connect()
    connection.sendall(head(client, len(data), "path=/public/In", *extra))
    return connection, data


@pytest.mark.parametrize("who", ["client", "program"])
def test_killed_and_resumed(alice, who):
    dice = random.Random(who)
    content = os.urandom(6_000_000)
    for round in range(20):
        id = slice_of(alice, content, 0, 64 * 1024)["data"]["id"]
        connection, data = start_slice(alice, content, 64 * 1024, 5_000_000, id)
        with connection:
            cut = dice.randrange(len(data))
            if who == "client":
                connection.sendall(data[:cut])
            else:
                connection.sendall(data)
                end = time.monotonic() + dice.random() * 0.02
                while time.monotonic() < end:
                    for entry in Path("/proc").glob("[0-9]*/comm"):
                        try:
                            if entry.read_text() == "upload.cgi\n":
                                os.kill(int(entry.parent.name), signal.SIGKILL)
                        except (OSError, ProcessLookupError):
                            pass
        time.sleep(0.05)
        resume(alice, content, id)
        path = VOLUME / "public/In/sliced"
        assert hashlib.sha256(path.read_bytes()).digest() == hashlib.sha256(content).digest(), round
        path.unlink()


def test_the_server_killed_and_resumed(log):
    """A server of the test's own, on the same volume."""
    from conftest import PROJECT, wait_for_port

    dice = random.Random(3)
    content = os.urandom(3_000_000)
    env = dict(os.environ)
    for round in range(20):
        client = Client()
        client.login("alice")
        id = slice_of(client, content, 0, 64 * 1024)["data"]["id"]
        connection, data = start_slice(client, content, 64 * 1024, len(content), id)
        with connection:
            connection.sendall(data[:dice.randrange(len(data))])
            pids = [int(path.parent.name) for path in Path("/proc").glob("[0-9]*/comm") if path.read_text() == "lighttpd\n"]
            for pid in pids:
                os.kill(pid, signal.SIGKILL)
        time.sleep(0.1)
        subprocess.Popen([PROJECT / "appliance/web-server"], env=env)
        wait_for_port()
        client = Client()
        client.login("alice")
        resume(client, content, id)
        path = VOLUME / "public/In/sliced"
        assert path.read_bytes() == content, round
        path.unlink()
        log.take()


def test_a_hundred_megabytes_in_constant_memory(alice):
    size = 100 << 20
    data_file = Path("/tmp/large")
    with open(data_file, "wb") as file:
        file.write(part("file", b"", "large.bin")[:-2])
        for _ in range(100):
            file.write(os.urandom(1 << 20))
        file.write(f"\r\n--{BOUNDARY}--\r\n".encode())
    peak = 0
    done = threading.Event()

    def watch():
        nonlocal peak
        while not done.is_set():
            for entry in Path("/proc").glob("[0-9]*/comm"):
                try:
                    if entry.read_text() == "upload.cgi\n":
                        for line in (entry.parent / "status").read_text().splitlines():
                            if line.startswith("VmHWM"):
                                peak = max(peak, int(line.split()[1]))
                except OSError:
                    pass
            time.sleep(0.005)

    thread = threading.Thread(target=watch)
    thread.start()
    try:
        done_curl = subprocess.run(
            ["curl", "-s", "-H", "Expect:", "-H", f"Cookie: id={alice.cookies['id']}", "-H", f"X-Vemo-Token: {alice.token}", "-H",
             f"Content-Type: multipart/form-data; boundary={BOUNDARY}", "--data-binary", f"@{data_file}",
             f"http://127.0.0.1:{PORT}/webman/upload.cgi?path=/public/In"], stdout=subprocess.PIPE, check=True)
    finally:
        done.set()
        thread.join()
        data_file.unlink()
    assert b"large.bin" in done_curl.stdout
    assert (VOLUME / "public/In/large.bin").stat().st_size == size
    assert 0 < peak < 16 << 10, peak  # KiB, code and libraries included


def test_uploaded_files_are_never_run(alice):
    for name, content in (("x.cgi", b"#!/bin/sh\necho\necho run\n"), (".htaccess", b"x"), ("index.html", b"<script>alert(1)</script>")):
        assert key(send(alice, content, name)) is None
        for address in (f"/volume1/public/In/{name}", f"/public/In/{name}", f"/webman/{name}", f"/webman/modules/{name}",
                        f"/webman/files.cgi/{name}"):
            assert alice.curl(address).status in (400, 403, 404), address


def test_wrong_calls_of_the_cleaner():
    for arguments in (["--hours"], ["--hours", "x"], ["--hours", "-1"], ["x"], ["--hours", "1", "2"]):
        done = subprocess.run(["zem-cleanup", *arguments], stderr=subprocess.PIPE, check=False)
        assert (done.returncode, done.stderr) == (2, b"usage: zem-cleanup [--hours N]\n")
