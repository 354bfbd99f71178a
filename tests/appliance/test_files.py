"""Files in shares over HTTP: who sees and does what, and what hostile paths lead to."""

import json
import os
import random
import shutil
import subprocess
import threading
import time
from pathlib import Path
from urllib.parse import quote, urlencode

import pytest
from conftest import Client, account, snapshot

VOLUME = Path("/volume1")


@pytest.fixture(scope="session")
def bob_account(server):
    account("carol", password="carol-demo")


def login(name, password=None):
    client = Client()
    assert client.login(name, password).json["success"], name
    return client


@pytest.fixture
def bob(server):
    return login("bob")


def ask(client, action, **fields):
    answer = client.get("files", urlencode({"action": action, **fields}))
    if answer.status in (400, 414, 431):  # the server refuses such an address itself
        return {"success": False, "errinfo": {"key": "error_path"}}
    return answer.json


def do(client, action, **fields):
    return client.post("files", {"action": action, **fields}).json


def key(answer):
    return None if answer["success"] else answer["errinfo"]["key"]


def names(client, path, **fields):
    return [entry["name"] for entry in ask(client, "list", path=path, **fields)["data"]["entries"]]


def load(client, path, *arguments):
    return client.get("files", urlencode({"action": "load", "path": path}), *arguments)


# --- Shares ---


def shares(client):
    return {share["name"]: share for share in ask(client, "list")["data"]}


def test_everybody_sees_what_is_theirs(alice, bob, admin):
    assert set(shares(alice)) == {"home", "public", "library", "team", "private", "dropbox", "gallery"}
    assert set(shares(bob)) == {"home", "public", "library", "team", "dropbox", "gallery"}
    assert set(shares(admin)) == {"home", "homes", "public", "library", "team", "private", "dropbox", "gallery", "vault"}
    assert shares(alice)["team"]["writable"] and not shares(bob)["team"]["writable"]
    assert not shares(alice)["library"]["writable"] and shares(admin)["library"]["writable"]
    assert shares(alice)["dropbox"]["list"] is False and shares(admin)["dropbox"]["list"] is True
    assert shares(alice)["gallery"] == {"name": "gallery", "path": "/gallery", "writable": False, "list": True,
                                        "download": False, "encrypted": False}
    assert shares(admin)["vault"]["encrypted"] is True


def test_without_the_home_service_there_are_no_homes(alice, settings):
    settings(userhome_enable="no")
    assert "home" not in shares(alice)
    assert key(ask(alice, "list", path="/home")) == "error_not_found"


def test_a_home_is_its_owners(alice, bob, admin):
    assert names(alice, "/home") == ["Readme.txt"]
    assert load(alice, "/home/Readme.txt").text == "This is your home, alice.\n"
    assert load(bob, "/home/Readme.txt").text == "This is your home, bob.\n"
    for client in (alice, bob):
        for path in ("/homes", "/homes/alice", "/homes/bob/Readme.txt", "/homes/Alice"):
            assert key(ask(client, "get", path=path)) == "error_not_found", path
    assert names(admin, "/homes") == ["admin", "alice", "bob"]


def test_a_share_that_one_may_not_enter_is_not_there(bob):
    for path in ("/private", "/private/Secrets.txt", "/vault", "/none", "/none/x"):
        for action in ("list", "get", "load"):
            assert key(ask(bob, action, path=path)) == "error_not_found", path
        for action in ("create", "rename", "delete"):
            assert key(do(bob, action, path=path, name="x")) == "error_not_found", path
    assert (VOLUME / "private/Secrets.txt").exists()


# --- Listing ---


def test_a_folder_is_listed(alice):
    data = ask(alice, "list", path="/public")["data"]
    assert [entry["name"] for entry in data["entries"]] == ["Music", "Photos", "Welcome.txt"]
    assert (data["total"], data["offset"], data["unlisted"]) == (3, 0, 0)
    entry = data["entries"][2]
    status = os.stat(VOLUME / "public/Welcome.txt")
    assert entry == {"name": "Welcome.txt", "type": "file", "size": status.st_size, "mtime": int(status.st_mtime),
                     "mode": 644, "uid": status.st_uid, "gid": status.st_gid}


def test_names_are_sorted_by_case_folding_and_paged(alice):
    folder = VOLUME / "public/Sorted"
    folder.mkdir()
    try:
        for number, name in enumerate(["b.txt", "A.txt", "ä.txt", "Ä2.txt", "c", "Z.md", ".hidden", "日本.txt", "a b.txt"]):
            (folder / name).write_text("x" * number)
            os.utime(folder / name, (1000 - number, 1000 - number))
        (folder / "z folder").mkdir()
        (folder / "@eaDir").mkdir()
        (folder / "lost+found").mkdir()
        (folder / "link").symlink_to("/etc")
        os.mkfifo(folder / "fifo")
        by_name = names(alice, "/public/Sorted")
        assert by_name == ["z folder", ".hidden", "a b.txt", "A.txt", "b.txt", "c", "fifo", "link", "Z.md", "ä.txt",
                           "Ä2.txt", "日本.txt"]
        assert names(alice, "/public/Sorted", order="desc") == [by_name[0]] + by_name[:0:-1]
        pages = [names(alice, "/public/Sorted", offset=start, limit=5) for start in range(0, 15, 5)]
        assert sum(pages, []) == by_name and [len(page) for page in pages] == [5, 5, 2]
        files = [name for name in names(alice, "/public/Sorted", sort="size") if name.endswith(".txt")]
        assert files == ["b.txt", "A.txt", "ä.txt", "Ä2.txt", "日本.txt", "a b.txt"]
        files = [name for name in names(alice, "/public/Sorted", sort="mtime") if name.endswith(".txt")]
        assert files == ["a b.txt", "日本.txt", "Ä2.txt", "ä.txt", "A.txt", "b.txt"]
        assert names(alice, "/public/Sorted", sort="type")[-6:] == ["a b.txt", "A.txt", "b.txt", "ä.txt", "Ä2.txt", "日本.txt"]
        types = {entry["name"]: entry["type"] for entry in ask(alice, "list", path="/public/Sorted")["data"]["entries"]}
        assert (types["link"], types["fifo"], types["z folder"]) == ("link", "other", "folder")
        for bad in ({"sort": "colour"}, {"offset": "-1"}, {"offset": "x"}, {"limit": "10001"}, {"limit": "99999999999"}):
            assert key(ask(alice, "list", path="/public/Sorted", **bad)) == "error_request", bad
    finally:
        shutil.rmtree(folder)


def test_names_that_are_no_utf8_are_counted(alice):
    path = os.path.join(os.fsencode(VOLUME / "public"), b"bad\xff.txt")
    os.close(os.open(path, os.O_CREAT | os.O_WRONLY))
    try:
        data = ask(alice, "list", path="/public")["data"]
        assert data["unlisted"] == 1 and data["total"] == 3
    finally:
        os.unlink(path)


def test_ten_thousand_entries(alice):
    folder = VOLUME / "public/Many"
    folder.mkdir()
    try:
        for number in range(10000):
            os.close(os.open(folder / f"file{number:05}", os.O_CREAT | os.O_WRONLY))
        start = time.monotonic()
        data = ask(alice, "list", path="/public/Many", limit=100, offset=5000)["data"]
        assert time.monotonic() - start < 5
        assert data["total"] == 10000 and data["entries"][0]["name"] == "file05000" and len(data["entries"]) == 100
        assert len(names(alice, "/public/Many", limit=10000)) == 10000
    finally:
        shutil.rmtree(folder)


def test_folders_for_a_tree(alice):
    mounted = VOLUME / "public/Photos/Mounted"
    mounted.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "none", mounted], check=True)
    try:
        folders = ask(alice, "list", path="/public/Photos", folders="yes")["data"]["folders"]
        assert [(one["name"], one.get("mount")) for one in folders] == [("2025", None), ("Mounted", "")]
    finally:
        subprocess.run(["umount", mounted], check=True)
        mounted.rmdir()
    assert [one["name"] for one in ask(alice, "list", path="/public", folders="yes")["data"]["folders"]] == [
        "Music", "Photos"]


def test_what_is_unreadable_is_hidden(alice, admin):
    assert names(alice, "/private") == ["Secrets.txt"]
    assert names(admin, "/private") == ["Locked.txt", "Secrets.txt"]


def test_what_is_hidden_is_not_told_by_its_name(alice, admin):
    assert key(ask(alice, "get", path="/private/Locked.txt")) == "error_not_found"
    assert ask(admin, "get", path="/private/Locked.txt")["success"]


def test_a_share_that_was_replaced_by_a_link(admin, alice):
    conf = Path("/etc/samba/smb.conf")
    before = conf.read_text()
    outside = Path("/root/outside")
    outside.mkdir()
    (outside / "secret").write_text("secret")
    link = VOLUME / "public/Nested"
    link.symlink_to(outside)
    conf.write_text(before + f"\n[nested]\npath={link}\nread only=no\n")
    try:
        assert ask(admin, "list", path="/nested")["success"]  # a link of root's is the administrator's wish
        subprocess.run(["chown", "-h", "alice:", link], check=True)
        for action in ("list", "get"):
            assert key(ask(admin, action, path="/nested")) == "error_not_found"
        assert key(load(admin, "/nested/secret").json) == "error_not_found"
        assert key(do(admin, "create", path="/nested/x")) == "error_not_found"
    finally:
        conf.write_text(before)
        link.unlink()
        shutil.rmtree(outside)


@pytest.mark.parametrize("fields", [{"offset": 1.5}, {"offset": {}}, {"limit": True}, {"offset": 2**63 - 1}, {"offset": -1},
                                    {"limit": 2**64 - 1}])
def test_numbers_that_are_none(alice, fields):
    answer = alice.post("files", json.dumps({"action": "list", "path": "/public", **fields}).encode()).json
    assert key(answer) == "error_request"


def test_where_listing_is_forbidden(alice, admin):
    for answer in (ask(alice, "list", path="/dropbox"), ask(alice, "get", path="/dropbox"),
                   ask(alice, "list", path="/dropbox", folders="yes")):
        assert key(answer) == "error_no_right"
    assert key(do(alice, "create", path="/dropbox/Parcel")) is None
    assert names(admin, "/dropbox") == ["Parcel"]
    assert key(do(admin, "delete", path="/dropbox/Parcel")) is None


# --- Downloads ---


def test_a_download(alice):
    answer = load(alice, "/public/Welcome.txt")
    assert answer.status == 200 and answer.text == "Welcome to the share of everyone.\n"
    assert answer.header("Content-Type") == "application/octet-stream"
    assert answer.header("Content-Disposition") == 'attachment; filename="Welcome.txt"'
    assert answer.header("Cache-Control") == "private, no-cache"
    assert answer.header("X-Content-Type-Options") == "nosniff"
    assert answer.header("Content-Security-Policy").startswith("sandbox; default-src 'none'")
    assert answer.header("Accept-Ranges") == "bytes" and answer.header("Content-Length") == "34"
    head = alice.get("files", urlencode({"action": "load", "path": "/public/Welcome.txt"}), "-I")
    assert (head.status, head.body, head.header("Content-Length")) == (200, b"", "34")


@pytest.mark.parametrize("header, status, body, place", [
    ("bytes=0-6", 206, b"Welcome", "bytes 0-6/34"), ("bytes=8-", 206, b"to the share of everyone.\n", "bytes 8-33/34"),
    ("bytes=-10", 206, b"everyone.\n", "bytes 24-33/34"), ("bytes=0-999", 206, None, "bytes 0-33/34"),
    ("bytes=33-33", 206, b"\n", "bytes 33-33/34"), ("bytes=-999", 206, None, "bytes 0-33/34"),
    ("bytes=34-", 416, b"", "bytes */34"), ("bytes=-0", 416, b"", "bytes */34"),
    ("bytes=5-2", 200, None, None), ("bytes=a-b", 200, None, None), ("bytes=0-1,3-4", 200, None, None),
    ("lines=1-2", 200, None, None), ("bytes=", 200, None, None), ("bytes=-", 200, None, None),
    ("bytes=0-99999999999999999999", 200, None, None), ("bytes= 0-1", 200, None, None),
])
def test_ranges(alice, header, status, body, place):
    answer = load(alice, "/public/Welcome.txt", "-H", f"Range: {header}")
    assert (answer.status, answer.header("Content-Range")) == (status, place)
    assert answer.body == (body if body is not None else b"Welcome to the share of everyone.\n")


def test_validation(alice):
    path = VOLUME / "public/Changing"
    path.write_text("one")
    try:
        tag = load(alice, "/public/Changing").header("ETag")
        for held in (tag, f'"x", {tag}', f"W/{tag}", "*"):
            answer = load(alice, "/public/Changing", "-H", f"If-None-Match: {held}")
            assert (answer.status, answer.body, answer.header("ETag")) == (304, b"", tag), held
        assert load(alice, "/public/Changing", "-H", 'If-None-Match: "x"').status == 200
        part = load(alice, "/public/Changing", "-H", f"If-Range: {tag}", "-H", "Range: bytes=1-")
        assert (part.status, part.text) == (206, "ne")
        path.write_text("two, and longer")
        answer = load(alice, "/public/Changing", "-H", f"If-Range: {tag}", "-H", "Range: bytes=1-")
        assert (answer.status, answer.text) == (200, "two, and longer")
        assert load(alice, "/public/Changing", "-H", f"If-None-Match: {tag}").status == 200
    finally:
        path.unlink()


@pytest.mark.parametrize("name, header", [
    ("plain.txt", 'attachment; filename="plain.txt"'),
    ('quo"te.txt', "attachment; filename=\"quo_te.txt\"; filename*=UTF-8''quo%22te.txt"),
    ("back\\slash;x.txt", "attachment; filename=\"back_slash;x.txt\"; filename*=UTF-8''back%5Cslash%3Bx.txt"),
    ("100%.txt", "attachment; filename=\"100_.txt\"; filename*=UTF-8''100%25.txt"),
    ("ä 日.txt", "attachment; filename=\"__ ___.txt\"; filename*=UTF-8''%C3%A4%20%E6%97%A5.txt"),
    ("<script>.html", 'attachment; filename="<script>.html"'),
])
def test_names_of_downloads(alice, name, header):
    path = VOLUME / "public" / name
    path.write_text("<script>alert(1)</script>")
    try:
        answer = load(alice, f"/public/{name}")
        assert answer.status == 200 and answer.header("Content-Disposition") == header
    finally:
        path.unlink()


def test_an_empty_and_a_large_file(alice):
    path = VOLUME / "public/Large"
    try:
        path.write_bytes(b"")
        assert load(alice, "/public/Large").header("Content-Length") == "0"
        assert load(alice, "/public/Large", "-H", "Range: bytes=0-").status == 416
        with open(path, "wb") as file:
            for number in range(64):
                file.write(bytes([number]) * (1 << 20))
        answer = load(alice, "/public/Large")
        assert len(answer.body) == 64 << 20 and answer.body[5 << 20] == 5 and answer.body[-1] == 63
    finally:
        path.unlink()


def test_what_is_not_downloaded(alice, admin):
    for path, reason in (("/public", "error_no_file"), ("/public/Photos", "error_no_file"),
                         ("/public/none", "error_not_found"), ("/public/Welcome.txt/x", "error_not_found"),
                         ("/gallery/Pictures/Note.txt", "error_no_right"), ("/dropbox", "error_no_right"),
                         ("/private/Locked.txt", "error_no_right")):
        assert key(load(alice, path).json) == reason, path
    assert load(admin, "/gallery/Pictures/Note.txt").status == 200
    assert load(admin, "/private/Locked.txt").text.startswith("Nobody")


# --- Changing ---


def test_folders_are_made_renamed_and_deleted(alice):
    assert key(do(alice, "create", path="/public/New")) is None
    status = os.stat(VOLUME / "public/New")
    assert status.st_uid == int(subprocess.check_output(["id", "-u", "alice"])) and status.st_mode & 0o7777 == 0o755
    assert key(do(alice, "create", path="/public/New")) == "error_exists"
    assert key(do(alice, "create", path="/public/none/New")) == "error_not_found"
    (VOLUME / "public/New/file").write_text("x")
    assert key(do(alice, "rename", path="/public/New", name="Newer")) is None
    assert key(do(alice, "rename", path="/public/Newer", name="Welcome.txt")) == "error_exists"
    assert key(do(alice, "rename", path="/public/none", name="x")) == "error_not_found"
    assert do(alice, "delete", path="/public/Newer")["errinfo"]["key"] == "error_not_empty"
    answer = do(alice, "delete", path="/public/Newer", recursive="yes")
    # The file in it is root's, in a folder of alice's: hers to take away.
    assert answer == {"success": True, "data": {"removed": 2}}
    assert not (VOLUME / "public/Newer").exists()


@pytest.mark.parametrize("name", ["", ".", "..", "a/b", "/", "a:b", "._x", "@eaDir", "@tmp", "lost+found", "a\nb", "x" * 256,
                                  "\x7f", "../x"])
def test_names_that_are_refused(alice, name):
    before = snapshot(VOLUME / "public")
    assert key(do(alice, "rename", path="/public/Photos", name=name)) == "error_name", name
    assert key(do(alice, "create", path=f"/public/{name}")) in ("error_name", "error_path", "error_not_found"), name
    assert snapshot(VOLUME / "public") == before


def test_where_one_may_only_read(bob, alice):
    for path in ("/library/Books/New", "/team/New"):
        assert key(do(bob, "create", path=path)) == "error_no_right"
    assert key(do(bob, "delete", path="/library/Books/Quotation.txt")) == "error_no_right"
    assert key(do(bob, "rename", path="/team/Plans", name="x")) == "error_no_right"
    # The share lets alice write, the folder's sticky bit keeps what is others'.
    assert key(do(alice, "delete", path="/public/Welcome.txt")) == "error_no_right"
    assert key(do(alice, "create", path="/team/Plans/Alice")) is None
    assert key(do(alice, "delete", path="/team/Plans/Alice")) is None


def test_roots_are_not_touched(alice, admin):
    for client in (alice, admin):
        for path in ("/public", "/home", "/team"):
            assert key(do(client, "delete", path=path, recursive="yes")) == "error_no_right"
            assert key(do(client, "rename", path=path, name="x")) == "error_no_right"
            assert key(do(client, "create", path=path)) == "error_no_right"


def test_a_full_and_a_read_only_share(alice, admin):
    conf = Path("/etc/samba/smb.conf")
    before = conf.read_text()
    small = Path("/volume1/small")
    small.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=8k,mode=1777,nr_inodes=2", "none", small], check=True)
    conf.write_text(before + "\n[small]\npath=/volume1/small\nread only=no\n")
    try:
        (small / "x").write_text("x")
        assert key(do(alice, "create", path="/small/New")) == "error_no_space"
        subprocess.run(["mount", "-o", "remount,ro", small], check=True)
        assert key(do(alice, "create", path="/small/New")) == "error_read_only"
        assert key(do(admin, "delete", path="/small/x")) == "error_read_only"
        why = ask(admin, "get", path="/small/x", why="yes", user="alice")["data"]
        assert {"level": "file system", "state": "read-only"} in why["why"] and why["may"]["write"] is False
    finally:
        conf.write_text(before)
        subprocess.run(["umount", "-l", small], check=True)
        small.rmdir()


def test_a_deep_tree_is_deleted_and_mounts_are_not_entered(alice):
    root = VOLUME / "public/Deep"
    path = root
    subprocess.run(["setpriv", "--reuid", "alice", "--clear-groups", "mkdir", "-p", str(root / "/".join(["d"] * 150))], check=True)
    outside = VOLUME / "public/Photos/2025/kept"
    outside.write_text("kept")
    (root / "d/link").symlink_to(outside)
    assert do(alice, "delete", path="/public/Deep", recursive="yes") == {"success": True, "data": {"removed": 152}}
    assert outside.read_text() == "kept"
    outside.unlink()

    (path / "d").mkdir(parents=True)
    subprocess.run(["chown", "-R", "alice:", str(root)], check=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=0777", "none", str(root / "d")], check=True)
    (root / "d/kept").write_text("kept")
    try:
        assert key(do(alice, "delete", path="/public/Deep", recursive="yes")) == "error_in_use"
        assert (root / "d/kept").exists()
    finally:
        subprocess.run(["umount", str(root / "d")], check=True)
        shutil.rmtree(root)


# --- Hostile paths ---

OUTSIDE = ["/public/..", "/public/../etc/passwd", "/../etc/passwd", "/public/./Welcome.txt", "public/Welcome.txt", "/",
           "//public", "/public//Welcome.txt", "/public/", "/public/Photos/", "/public/Photos/../../../etc",
           "/public/%2e%2e/%2e%2e/etc/passwd", "/public/..%2f..%2fetc", "/public/..\\..\\etc", "/etc/passwd", "/volume1",
           "/volume1/public/Welcome.txt", "/public\\Welcome.txt", "/home/../../../etc/passwd", "/home/..", "/homes/../etc",
           "/public/@eaDir", "/public/@tmp/x", "/public/lost+found", "/public/Photos/@eaDir/x", "/public/Welcome.txt ",
           "/public/welcome.txt", "/public/Welcome.txt\n", "/public/\x01", "/" + "a" * 4095, "/public/" + "a/" * 2040 + "b",
           "/public/" + "b" * 256, "/global", "/printers", "/..", "/.", "", " ", "/public/\u202e", "/proc/self/environ"]


@pytest.mark.parametrize("path", OUTSIDE, ids=lambda path: repr(path[:40]))
def test_hostile_paths_lead_nowhere(alice, admin, path):
    roots = [VOLUME]
    before = snapshot(*roots)
    for client in (alice, admin):
        for action in ("get", "load"):
            assert key(ask(client, action, path=path)) in ("error_path", "error_not_found"), action
        if path:
            assert key(ask(client, "list", path=path)) in ("error_path", "error_not_found")
        for action in ("rename", "delete"):
            assert key(do(client, action, path=path, name="x", recursive="yes")) in ("error_path", "error_not_found")
    assert snapshot(*roots) == before


def test_bytes_that_are_no_text(alice):
    for path in ("/public/%ff", "/public/%c0%ae%c0%ae/x", "/public/%00", "/public/Welcome.txt%00.png", "/public/%ed%a0%80"):
        answer = alice.get("files", f"action=get&path={path}")
        assert answer.status == 400 or key(answer.json) in ("error_path", "error_not_found"), path
        answer = alice.post("files", f"action=delete&path={path}".encode()).json
        assert key(answer) in ("error_path", "error_not_found"), path
    for body in ('{"action": "delete", "path": "/public/x\\u0000y"}', '{"action": "delete", "path": 7}',
                 '{"action": "delete", "path": ["/public"]}', '{"action": ["delete"]}'):
        assert not alice.post("files", body.encode()).json["success"]


def test_links_lead_nowhere(alice, admin):
    folder = VOLUME / "public/Links"
    folder.mkdir()
    secret = Path("/root/secret")
    secret.write_text("secret")
    try:
        (folder / "etc").symlink_to("/etc")
        (folder / "secret").symlink_to(secret)
        (folder / "inside").symlink_to(VOLUME / "public/Photos")
        (folder / "relative").symlink_to("../Photos")
        (folder / "dangling").symlink_to("/root/none")
        (folder / "loop").symlink_to("loop")
        os.mkfifo(folder / "fifo")
        os.mknod(folder / "null", 0o666 | 0o020000, os.makedev(1, 3))
        os.link(VOLUME / "public/Welcome.txt", folder / "hard")
        for client in (alice, admin):
            for name in ("etc", "secret", "inside", "relative", "dangling", "loop"):
                for action in ("list", "load"):
                    assert key(ask(client, action, path=f"/public/Links/{name}")) == "error_not_found", name
                    assert key(ask(client, action, path=f"/public/Links/{name}/passwd")) == "error_not_found", name
                assert key(do(client, "create", path=f"/public/Links/{name}/New")) == "error_not_found", name
                assert key(do(client, "delete", path=f"/public/Links/{name}/x")) == "error_not_found", name
            for name in ("fifo", "null"):
                assert key(load(client, f"/public/Links/{name}").json) in ("error_no_file", "error_no_right"), name
            assert load(client, "/public/Links/hard").text.startswith("Welcome")
        assert not list(Path("/etc").glob("New")) and not Path("/root/none").exists()
        # Deleting a link deletes the link.
        assert key(do(admin, "delete", path="/public/Links/etc", recursive="yes")) is None
        assert Path("/etc/passwd").exists() and not (folder / "etc").is_symlink()
    finally:
        shutil.rmtree(folder)
        secret.unlink()


def test_a_link_swapped_in_between(server):
    """A loop that swaps a folder and a link to another, while requests run."""
    folder = VOLUME / "public/Swap"
    outside = VOLUME / "vault/Outside"
    for path in (folder, outside):
        path.mkdir()
        path.chmod(0o777)
    (outside / "secret").write_text("secret")
    alice, admin = login("alice"), login("admin")
    stop = threading.Event()

    def swap():
        link, real = folder / "link", folder / "real"
        real.mkdir()
        real.chmod(0o777)
        link.symlink_to(outside)
        while not stop.is_set():
            os.rename(real, folder / "x") if not (folder / "x").exists() else None
            os.rename(link, folder / "at")
            os.rename(folder / "at", link)
            os.rename(folder / "x", folder / "at")
            os.rename(folder / "at", real)

    thread = threading.Thread(target=swap)
    thread.start()
    seen = set()
    try:
        end = time.monotonic() + 6
        while time.monotonic() < end:
            for client in (alice, admin):
                answer = ask(client, "list", path="/public/Swap/at")
                seen.add(key(answer))
                if answer["success"]:
                    assert {entry["name"] for entry in answer["data"]["entries"]} <= {"planted"}, answer
                assert load(client, "/public/Swap/at/secret").header("Content-Disposition") is None
                do(client, "delete", path="/public/Swap/at/secret")
                do(client, "create", path="/public/Swap/at/planted")
                do(client, "delete", path="/public/Swap/at/planted")
    finally:
        stop.set()
        thread.join()
    assert sorted(path.name for path in outside.iterdir()) == ["secret"]
    assert "error_not_found" in seen
    shutil.rmtree(folder)
    shutil.rmtree(outside)


def test_names_that_differ_in_case_or_form(alice):
    folder = VOLUME / "public/Forms"
    folder.mkdir()
    try:
        for name in ("Name", "name", "\u00e9", "e\u0301"):
            (folder / name).write_text(name)
        for name in ("Name", "name", "\u00e9", "e\u0301"):
            assert load(alice, f"/public/Forms/{name}").text == name
        assert key(ask(alice, "get", path="/public/Forms/NAME")) == "error_not_found"
        assert load(alice, "/PUBLIC/Forms/Name").text == "Name"  # shares are named without regard to case
    finally:
        shutil.rmtree(folder)


def test_an_account_that_is_gone(server):
    account("leaver", "--home-dir", "/volume1/homes/leaver")
    leaver = login("leaver")
    assert "public" in shares(leaver)
    subprocess.run(["userdel", "leaver"], check=True, stderr=subprocess.DEVNULL)
    assert leaver.get("files", "action=list").header("x-request-error")


# --- Why ---


def why(admin, user, path):
    return ask(admin, "get", path=path, why="yes", user=user)["data"]


def test_administrators_are_told_why(admin, alice):
    assert why(admin, "alice", "/public/Welcome.txt")["may"] == {"list": True, "read": True, "write": False, "delete": False}
    assert {"level": "share", "setting": "valid users"} in why(admin, "bob", "/private/Secrets.txt")["why"]
    assert {"level": "share", "setting": "read only"} in why(admin, "bob", "/library")["why"]
    assert {"level": "restriction", "what": "list"} in why(admin, "alice", "/dropbox")["why"]
    assert {"level": "restriction", "what": "download"} in why(admin, "alice", "/gallery")["why"]
    assert {"level": "acl", "missing": "read", "at": "/volume1/private/Locked.txt"} in why(
        admin, "alice", "/private/Locked.txt")["why"]
    assert any(reason["level"] == "acl" and reason["missing"] == "write" for reason in why(admin, "bob", "/team")["why"])
    assert key(ask(admin, "get", path="/public", why="yes", user="nobody-known")) == "error_no_user"
    assert key(ask(admin, "get", path="/none", why="yes", user="alice")) == "error_not_found"
    assert {"level": "mode", "missing": "write", "at": "/volume1/library"} in why(admin, "bob", "/library")["why"]
    folder = VOLUME / "public/Closed"
    (folder / "in").mkdir(parents=True)
    folder.chmod(0o700)
    try:
        assert {"level": "path", "at": str(folder)} in why(admin, "alice", "/public/Closed/in")["why"]
    finally:
        shutil.rmtree(folder)
    assert key(ask(alice, "get", path="/private/Locked.txt", why="yes", user="bob")) == "error_no_right"


# --- Samba is the judge ---

CONF = """[global]
  server role = standalone server
  workgroup = TEST
  private dir = {dir}
  state directory = {dir}
  lock directory = {dir}
  cache directory = {dir}
  pid directory = {dir}
  ncalrpc dir = {dir}/ncalrpc
  log file = {dir}/log
  smb ports = 1445
  interfaces = 127.0.0.1
  bind interfaces only = yes
  map to guest = never
  load printers = no
  disable spoolss = yes
"""


def smb(share, user, command):
    done = subprocess.run(["smbclient", f"//127.0.0.1/{share}", "-p", "1445", "-U", f"{user}%{user}-demo", "-c", command],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False, timeout=30, cwd="/tmp")
    return done.returncode == 0 and b"NT_STATUS_" not in done.stdout, done.stdout.decode(errors="replace")


def random_share(dice, number, path):
    lists = ["alice", "@team", "bob, carol", '"@administrators"', "+team alice", "ALICE", "nobody-known", "@nosuchgroup"]
    lines = [f"[share{number}]", f"path = {path}"]
    for option, chance in (("valid users", 0.4), ("invalid users", 0.25), ("read list", 0.4), ("write list", 0.4)):
        if dice.random() < chance:
            lines.append(f"{option} = {dice.choice(lists)}")
    lines.append(dice.choice(["read only = no", "writable = yes", "read only = yes", "", "hide unreadable = yes"]))
    return "\n".join(lines) + "\n"


def test_samba_agrees(server, bob_account, log):
    if not shutil.which("smbd"):
        pytest.skip("no smbd")
    place = Path("/run/judge")
    place.mkdir()
    (place / "ncalrpc").mkdir()
    dice = random.Random(7)
    conf = Path("/etc/samba/smb.conf")
    before = conf.read_text()
    text = CONF.format(dir=place)
    for number in range(14):
        folder = VOLUME / f"judged{number}"
        folder.mkdir()
        folder.chmod(0o777)
        (folder / "readable").write_text("x")
        (folder / "secret").write_text("x")
        (folder / "secret").chmod(0o600)
        text += random_share(dice, number, folder)
    conf.write_text(text)
    users = ["alice", "bob", "carol"]
    for user in users:
        subprocess.run(["smbpasswd", "-c", conf, "-s", "-a", user], input=f"{user}-demo\n{user}-demo\n".encode(), check=True,
                       stdout=subprocess.DEVNULL)
    daemon = subprocess.Popen(["smbd", "-F", "--no-process-group", "-s", str(conf)], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, start_new_session=True)
    differences = []
    try:
        for _ in range(100):
            if smb("share0", "alice", "ls")[1].find("CONNECTION_REFUSED") < 0:
                break
            time.sleep(0.1)
        for user in users:
            client = login(user)
            for number in range(14):
                share, folder = f"share{number}", VOLUME / f"judged{number}"
                lists, listing = smb(share, user, "ls")
                reads = smb(share, user, "get readable /dev/null")[0]
                writes = smb(share, user, "mkdir made")[0]
                deletes = smb(share, user, "rmdir made")[0]
                shutil.rmtree(folder / "made", ignore_errors=True)
                ours = ask(client, "list", path=f"/{share}")
                mine = (ours["success"], load(client, f"/{share}/readable").status == 200
                        and load(client, f"/{share}/readable").body == b"x",
                        key(do(client, "create", path=f"/{share}/made")) is None,
                        key(do(client, "delete", path=f"/{share}/made")) is None)
                shutil.rmtree(folder / "made", ignore_errors=True)
                if mine != (lists, reads, writes, deletes):
                    differences.append((user, share, (lists, reads, writes, deletes), mine))
                if lists and ours["success"]:
                    shown = {entry["name"] for entry in ours["data"]["entries"]}
                    if ("secret" in listing) != ("secret" in shown):
                        differences.append((user, share, "hidden", listing, shown))
    finally:
        daemon.terminate()
        daemon.wait(10)
        conf.write_text(before)
        for number in range(14):
            shutil.rmtree(VOLUME / f"judged{number}")
    assert differences == [], text
