"""Background pictures and themes over HTTP, and files that pretend to be pictures."""

import fcntl
import json
import os
import re
import stat
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from conftest import Client, account, snapshot
from pictures import bmp, chunk, encoded, gif, noise_png, png

PREFERENCES = Path("/usr/vemo/etc/preference")
LOGIN, SHARING = Path("/usr/vemo/etc/login_image"), Path("/usr/vemo/etc/fbsharing_login_image")
STATE = Path("/run/vemo/appearance")
CONVERT = "/usr/bin/convert"
THEME = Path("/usr/vemo/vemoman/theme/theme.css")


def refused(key):
    own = ("error_picture", "error_picture_too_large", "error_no_room", "error_theme")
    return {"success": False, "errinfo": {"sec": "appearance" if key in own else "common", "key": key}}


def send(client, **fields):
    return client.post("appearance", json.dumps(fields).encode(), "-H", "Content-Type: application/json")


def upload(client, data, kind="desktop", **more):
    return send(client, action="upload", kind=kind, data=encoded(data), **more).json


def listed(client, kind="desktop"):
    answer = client.get("appearance", f"action=list&kind={kind}").json
    assert answer["success"], answer
    return answer["data"]


def setting(key):
    found = re.search(rf'^{key}="(.*)"$', Path("/etc/vemoinfo.conf").read_text(), re.M)
    return found and found.group(1)


def made(options, name, source=None):
    """A picture that ImageMagick makes of a plain one."""
    Path("/run/made.bmp").write_bytes(source or bmp(300, 200))
    subprocess.run([CONVERT, "/run/made.bmp", *options.split(), f"/run/{name}"], check=True)
    return Path(f"/run/{name}").read_bytes()


_users = iter(range(10**6))


@pytest.fixture
def carol(server):
    """A user of this test alone."""
    name = f"pic{next(_users)}"
    account(name)
    client = Client()
    assert client.login(name).json["success"]
    client.name = name
    client.folder = PREFERENCES / name
    return client


# --- What everybody does ---


def test_a_picture_is_added_listed_and_served(carol):
    assert listed(carol) == {"current": None, "slots": [None] * 8}
    data = png()
    assert upload(carol, data) == {"success": True, "data": {"slot": 1}}
    found = listed(carol)
    assert found["current"] == 1 and [slot is not None for slot in found["slots"]] == [False, True] + [False] * 6
    entry = found["slots"][1]
    assert (entry["type"], entry["size"]) == ("image/png", len(data))
    for address, content in ((entry["picture"], data), ("/webman/appearance.cgi?action=get&kind=desktop", data)):
        answer = carol.curl(address)
        assert (answer.status, answer.body) == (200, content)
        assert answer.header("Content-Type") == "image/png"
        assert answer.header("Cache-Control") == "private, no-cache"
        assert answer.header("X-Content-Type-Options") == "nosniff"
    thumb = carol.curl(entry["thumbnail"])
    assert thumb.header("Content-Type") == "image/png" and thumb.body != data


def test_files_are_the_users(carol):
    upload(carol, png())
    assert {path.name for path in carol.folder.iterdir()} == {"1.png", "1thumb.png", "usersettings", "settings.lock"}
    for name in ("1.png", "1thumb.png"):
        assert (carol.folder / name).owner() == carol.name
    assert (carol.folder / "usersettings").owner() == "root"
    assert json.loads((carol.folder / "usersettings").read_text()) == {"Desktop": {"wallpaper": {"index": 1}}}
    # The two programs share the settings and their lock.
    settings = json.dumps({"Desktop": {"wallpaper": {"index": 1}, "color": "red"}})
    assert carol.post("usersettings", {"action": "apply", "settings": settings}).json["success"]
    assert upload(carol, png())["data"] == {"slot": 2}
    assert json.loads((carol.folder / "usersettings").read_text()) == {
        "Desktop": {"color": "red", "wallpaper": {"index": 2}}}


def test_an_administrators_desktop_is_the_accounts_own(admin):
    assert upload(admin, png())["success"]
    folder = PREFERENCES / "admin"
    assert (folder / "1.png").owner() == "admin" and (folder / "1thumb.png").owner() == "admin"
    apply = {"action": "apply", "settings": '{"a":1}'}
    assert admin.post("usersettings", apply).json["success"]
    assert upload(admin, png())["data"] == {"slot": 2}


def test_the_ring_of_eight(carol):
    for turn in range(1, 11):
        assert upload(carol, png(10 + turn, 10))["data"] == {"slot": turn % 8}
    for slot, turn in ((0, 8), (1, 9), (2, 10), (3, 3)):
        assert carol.curl(listed(carol)["slots"][slot]["picture"]).body == png(10 + turn, 10)
    assert listed(carol)["current"] == 2


def test_choosing(carol, admin):
    for _ in range(3):
        upload(carol, png())
    good = {"success": True, "data": {}}
    assert send(carol, action="choose", kind="desktop", slot=2).json == good
    assert listed(carol)["current"] == 2
    assert carol.post("appearance", {"action": "choose", "kind": "desktop", "slot": "1"}).json == good
    assert listed(carol)["current"] == 1
    assert send(carol, action="choose", kind="desktop", slot=5).json == refused("error_not_found")
    for slot in (8, -1, "1", None, 1.5, 2**40, []):
        assert send(carol, action="choose", kind="desktop", slot=slot).json == refused("error_request"), slot
    assert send(carol, action="choose", kind="desktop").json == refused("error_request")
    assert listed(carol)["current"] == 1
    assert upload(admin, png(), "login")["success"]
    assert send(admin, action="choose", kind="login", slot=0).json == good
    assert setting("login_bg_index") == "0"


def test_a_number_from_elsewhere_counts_in_the_ring(carol):
    apply = {"action": "apply", "settings": '{"Desktop":{"wallpaper":{"index":13}}}'}
    assert carol.post("usersettings", apply).json["success"]
    assert upload(carol, png())["data"] == {"slot": 6}


def test_validation(carol):
    upload(carol, png())
    address = listed(carol)["slots"][1]["picture"]
    tag = carol.curl(address).header("ETag")
    assert re.fullmatch(r'"[0-9a-f-]+"', tag)
    for encoding in ("gzip, deflate, br", "identity"):
        answer = carol.curl(address, "-H", f"If-None-Match: {tag}", "-H", f"Accept-Encoding: {encoding}")
        assert (answer.status, answer.body, answer.header("ETag")) == (304, b"", tag)
    assert carol.curl(address, "-H", 'If-None-Match: "other"').status == 200
    for _ in range(8):
        upload(carol, png(50, 50))
    after = listed(carol)["slots"][1]
    assert after["picture"] != address and after["thumbnail"] != address
    assert carol.curl(after["picture"], "-H", f"If-None-Match: {tag}").status == 200
    nobody = Client()
    answer = nobody.curl(after["picture"], "-H", f"If-None-Match: {tag}")
    assert answer.header("x-request-error") == "unauth"


def test_users_are_apart(carol, alice):
    upload(carol, png())
    assert listed(alice)["slots"][1] is None
    address = listed(carol)["slots"][1]["picture"]
    assert alice.curl(address).json == refused("error_not_found")


# --- Login pages ---


def test_the_picture_of_a_login_page_is_for_everybody(client, admin, alice):
    for kind, folder in (("login", LOGIN), ("sharing", SHARING)):
        answer = client.get("appearance", f"action=get&kind={kind}")
        assert answer.header("Content-Type") == "image/jpeg" and answer.body == (folder / "bg0.jpg").read_bytes()
        assert len(answer.body) < 20000
        for query in ("slot=0", "slot=9", "slot=x", "slot=0&thumb=yes"):
            for who in (client, alice):
                answer = who.get("appearance", f"action=get&kind={kind}&{query}")
                public = query == "slot=x"  # no number: as without a slot
                assert bool(answer.header("x-request-error")) is not public
        assert admin.get("appearance", f"action=get&kind={kind}&slot=0").status == 200
        assert client.get("appearance", f"action=list&kind={kind}").header("x-request-error") == "unauth"
        thumb = client.get("appearance", f"action=get&kind={kind}&thumb=yes")
        assert thumb.body == (folder / "bg0thumb.jpg").read_bytes()


def test_login_pages_are_the_administrators(admin, alice, settings):
    before = snapshot("/usr/vemo/etc", "/etc")
    for kind in ("login", "sharing"):
        for fields in ({"action": "upload", "data": encoded(png())}, {"action": "choose", "slot": 0}):
            assert send(alice, kind=kind, **fields).header("x-request-error") == "noprivilege"
    assert snapshot("/usr/vemo/etc", "/etc") == before
    slot = upload(admin, png(), "sharing")["data"]["slot"]
    assert setting("fbsharing_login_bg_index") == str(slot)
    assert stat.S_IMODE((SHARING / f"bg{slot}.png").stat().st_mode) == 0o644
    assert Client().get("appearance", "action=get&kind=sharing").body == png()
    assert listed(admin, "sharing")["current"] == slot


def test_what_does_not_exist(carol, admin):
    for query in ("action=list", "action=list&kind=", "action=list&kind=x", "action=get&kind=../login", "", "action=",
                  "action=remove", "action=getx", "kind=desktop"):
        answer = carol.get("appearance", query, "-H", f"X-Vemo-Token: {carol.token}")
        assert answer.json == refused("error_request"), query
    for slot in ("3", "-1", "8", "1e0", "99999999999"):
        assert carol.get("appearance", f"action=get&kind=desktop&slot={slot}").json == refused("error_not_found")
    assert send(carol, action="upload", kind="desktops", data=encoded(png())).json == refused("error_request")
    for body in (b"{}", b"[]", b"[{", b'"upload"', b'{"action":["upload"]}', b'{"action":"upload","kind":5}'):
        assert carol.post("appearance", body).json == refused("error_request")


def test_get_changes_nothing(carol, admin):
    before = snapshot("/usr/vemo", "/etc")
    for query in ("action=upload&kind=desktop&data=" + encoded(gif()).replace("+", "%2b"),
                  "action=choose&kind=login&slot=0", "action=apply&theme=dark"):
        for who in (carol, admin):
            answer = who.get("appearance", query, "-H", f"X-Vemo-Token: {who.token}")
            assert answer.json == refused("error_request") or answer.header("x-request-error")
    after = snapshot("/usr/vemo", "/etc")
    assert {path for path in after if path not in before} <= {str(carol.folder), str(PREFERENCES / "admin")}
    assert all(after[path] == before[path] for path in before)


# --- What is a picture ---


GOOD = [
    ("", "a.jpg", "image/jpeg", ".jpg"),
    ("-interlace JPEG", "a.jpg", "image/jpeg", ".jpg"),
    ("-colorspace CMYK", "a.jpg", "image/jpeg", ".jpg"),
    ("-colorspace Gray", "a.jpg", "image/jpeg", ".jpg"),
    ("", "a.png", "image/png", ".png"),
    ("-define png:bit-depth=16", "a.png", "image/png", ".png"),
    ("-alpha set -channel A -evaluate set 40%", "a.png", "image/png", ".png"),
    ("-interlace PNG", "a.png", "image/png", ".png"),
    ("", "a.gif", "image/gif", ".gif"),
    ("-duplicate 4 -delay 10", "a.gif", "image/gif", ".gif"),
    ("", "a.bmp", "image/bmp", ".bmp"),
]


@pytest.mark.parametrize("options, name, content_type, extension", GOOD)
def test_every_kind_of_picture(carol, options, name, content_type, extension):
    data = made(options, name)
    assert upload(carol, data) == {"success": True, "data": {"slot": 1}}
    entry = listed(carol)["slots"][1]
    assert entry["type"] == content_type and (carol.folder / f"1{extension}").read_bytes() == data
    assert (entry["thumbnail"] == entry["picture"]) is (extension == ".gif")
    if extension != ".gif":
        thumb = carol.curl(entry["thumbnail"]).body
        Path("/run/thumb").write_bytes(thumb)
        size = subprocess.run(["/usr/bin/identify", "-format", "%wx%h", f"{extension[1:]}:/run/thumb"],
                              capture_output=True, text=True, check=False).stdout
        assert size in ("120x80", "") and len(thumb) > 100


def test_what_follows_a_picture_is_no_matter(carol):
    for name in ("a.jpg", "a.png", "a.gif", "a.bmp"):
        data = made("", name)
        assert upload(carol, data + b"<script>alert(1)</script>" * 10)["success"], name
        assert carol.get("appearance", "action=get&kind=desktop").header("Content-Type").startswith("image/")


def test_large_pictures_are_compressed(carol):
    opaque, transparent = noise_png(1000, 800), noise_png(1000, 600, 6)
    assert 2 << 20 < len(transparent) <= len(opaque) + 100
    assert upload(carol, opaque)["success"]
    entry = listed(carol)["slots"][1]
    assert entry["type"] == "image/jpeg" and entry["size"] < len(opaque)
    assert sorted(path.name for path in carol.folder.glob("1*")) == ["1.jpg", "1.png", "1thumb.png"]
    assert carol.curl(entry["thumbnail"]).header("Content-Type") == "image/png"
    assert upload(carol, transparent)["success"]
    entry = listed(carol)["slots"][2]
    assert (entry["type"], entry["size"]) == ("image/png", len(transparent))
    large = made("-quality 100", "large.jpg", bmp(1400, 1000, os.urandom(1400 * 1000 * 3)))
    assert len(large) > 2 << 20
    assert upload(carol, large)["success"]
    assert listed(carol)["slots"][3]["type"] == "image/jpeg"


def jpeg_header(width, height, components=3):
    frame = bytes([8]) + height.to_bytes(2, "big") + width.to_bytes(2, "big") + bytes([components])
    frame += b"".join(bytes([i + 1, 0x11, 0]) for i in range(components))
    return b"\xff\xd8\xff\xc0" + (len(frame) + 2).to_bytes(2, "big") + frame


def many_scans(data, count):
    at = data.index(b"\xff\xda")
    return data[:at] + data[at:-2] * count + data[-2:]


SVG = b'<svg xmlns="http://www.w3.org/2000/svg" width="9" height="9"><image href="/etc/passwd"/></svg>'
NO_PICTURES = {
    "svg": SVG,
    "svg-xml": b'<?xml version="1.0"?>' + SVG,
    "mvg": b"push graphic-context\nviewbox 0 0 9 9\nimage over 0,0 0,0 'https://127.0.0.1/x'\npop graphic-context\n",
    "mvg-shell": b"push graphic-context\nfill 'url(https://127.0.0.1/x\"|touch \"/run/owned)'\npop graphic-context\n",
    "msl": b'<?xml version="1.0"?><image><read filename="/etc/shadow"/><write filename="/run/owned"/></image>',
    "pdf": b"%PDF-1.4\n1 0 obj<</Type/Catalog>>endobj\ntrailer<</Root 1 0 R>>\n%%EOF\n",
    "ps": b"%!PS-Adobe-3.0\n(/run/owned) (w) file closefile\nshowpage\n",
    "eps": b"\xc5\xd0\xd3\xc6" + bytes(28),
    "https": b"https://127.0.0.1:5000/first/icon.svg",
    "msl-prefix": b"msl:/run/x.msl",
    "text": b"text:/etc/passwd",
    "at": b"@/etc/passwd",
    "label": b"label:@/etc/passwd",
    "ephemeral": b"ephemeral:/etc/vemoinfo.conf",
    "html": b"<html><script>alert(1)</script></html>",
    "webp": b"RIFF\x24\0\0\0WEBPVP8 " + bytes(32),
    "tiff": b"II*\0\x08\0\0\0" + bytes(32),
    "ppm": b"P6 1 1 255\n\0\0\0",
    "xpm": b'/* XPM */\nstatic char *x[] = {"1 1 1 1","a c red","a"};\n',
    "ico": b"\0\0\1\0\1\0" + bytes(64),
    "mp4": b"\0\0\0\x18ftypmp42" + bytes(64),
    "zip": b"PK\3\4" + bytes(64),
    "elf": b"\x7fELF" + bytes(64),
    "xcf": b"gimp xcf file\0" + bytes(64),
    "nul": bytes(100),
    "one-byte": b"\xff",
    "blank-before": b" " + gif(),
    "png-start": png()[:20],
    "png-signature": png()[:8],
    "png-cut": png()[:-10],
    "png-no-data": b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", b"\0\0\0\1\0\0\0\1\x08\2\0\0\0") + chunk(b"IEND", b""),
    "png-header-later": b"\x89PNG\r\n\x1a\n" + chunk(b"tEXt", b"a\0b") + png()[8:],
    "png-empty": png(0, 10, b""),
    "png-chunk-size": png()[:33] + b"\xff\xff\xff\xff" + png()[37:],
    "png-garbage": png(pixels=b"\x07" * 100),
    "png-data-broken": b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", b"\0\0\0\x09\0\0\0\x09\x08\2\0\0\0")
                       + chunk(b"IDAT", b"not compressed") + chunk(b"IEND", b""),
    "jpeg-start": b"\xff\xd8\xff",
    "jpeg-header": jpeg_header(10, 10),
    "jpeg-empty": jpeg_header(0, 10) + b"\xff\xda\0\x08\1\1\0\0\x3f\0\0\xff\xd9",
    "jpeg-no-scan": jpeg_header(10, 10) + b"\xff\xd9",
    "jpeg-no-frame": b"\xff\xd8\xff\xda\0\x08\1\1\0\0\x3f\0\0\xff\xd9",
    "jpeg-two-frames": jpeg_header(10, 10) + jpeg_header(9, 9)[2:] + b"\xff\xda\0\x08\1\1\0\0\x3f\0\0\xff\xd9",
    "jpeg-segment": b"\xff\xd8\xff\xe0\0\1" + bytes(50),
    "jpeg-svg": b"\xff\xd8\xff" + SVG,
    "gif-start": b"GIF89a",
    "gif-no-frame": gif(frames=0),
    "gif-cut": gif()[:-6],
    "gif-no-trailer": gif()[:-1],
    "gif-empty-frame": gif(frame=(0, 5)),
    "bmp-start": b"BM",
    "bmp-cut": bmp()[:-100],
    "bmp-header": bmp()[:54],
    "bmp-offset": bmp()[:10] + b"\xff\xff\xff\x7f" + bmp()[14:],
    "bmp-empty": bmp(0, 0),
    "bmp-header-size": bmp()[:14] + b"\x0d\0\0\0" + bmp()[18:],
    "bmp-bits": bmp()[:28] + b"\0\0" + bmp()[30:],
}


@pytest.mark.parametrize("name", NO_PICTURES)
def test_what_is_no_picture_is_refused(carol, name, log):
    upload(carol, png())
    before = snapshot(carol.folder, "/etc", "/run", "/tmp")
    assert upload(carol, NO_PICTURES[name], filename="x.jpg") == refused("error_picture")
    after = snapshot(carol.folder, "/etc", "/run", "/tmp")
    changed = {path for path in set(before) | set(after) if before.get(path) != after.get(path)}
    assert not {path for path in changed if "/run/vemo/session" not in path}
    assert listed(carol)["current"] == 1
    assert not Path("/run/owned").exists()


TOO_LARGE = {
    "png-wide": png(16001, 1),
    "png-high": png(1, 16001),
    "png-64k": b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", b"\0\1\0\0\0\1\0\0\x08\2\0\0\0") + png()[33:],
    "png-area": b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", b"\0\0\x3e\x80\0\0\x3e\x80\x01\0\0\0\0") + png()[33:],
    "png-huge": b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", b"\xff\xff\xff\xff\xff\xff\xff\xff\x08\2\0\0\0") + png()[33:],
    "jpeg-lottapixel": jpeg_header(64250, 64250) + b"\xff\xda\0\x08\1\1\0\0\x3f\0\0\xff\xd9",
    "gif-64k": gif(65535, 65535, frame=(1, 1)),
    "gif-mvg": b"GIF89a push graphic-context",
    "gif-64k-frame": gif(10, 10, frame=(65535, 65535)),
    "gif-10000-frames": gif(frames=10000),
    "bmp-wide": bmp(2**31 - 1, 1, b""),
    "bmp-high": bmp(1, -2**31, b""),
}


@pytest.mark.parametrize("name", TOO_LARGE)
def test_what_is_too_large_is_refused_at_once(carol, name):
    start = time.monotonic()
    assert upload(carol, TOO_LARGE[name]) == refused("error_picture_too_large")
    assert time.monotonic() - start < 2
    assert listed(carol)["slots"] == [None] * 8


def test_many_scans(carol):
    progressive = made("-interlace JPEG", "p.jpg")
    assert upload(carol, many_scans(progressive, 60)) == refused("error_picture_too_large")


def test_as_large_as_it_may_be(carol):
    """36 million pixels in some kB: as much as is worked on, within memory and time."""
    start = time.monotonic()
    for color, depth, row in ((0, 1, 1000), (0, 8, 8000), (2, 8, 24000), (6, 8, 32000)):
        assert upload(carol, png(8000, 4500, (b"\0" + bytes(row)) * 4500, color, depth))["success"], (color, depth)
    assert time.monotonic() - start < 40
    assert upload(carol, png(8000, 4501, b"")) == refused("error_picture_too_large")
    assert upload(carol, gif(frames=500))["success"]


def test_texts_within_a_picture_that_unpack_to_much(carol):
    """Compressed texts and profiles beside the pixels; whether it is refused or taken, it ends."""
    bomb = zlib_bomb(64 << 20)
    for kind, data in ((b"zTXt", b"Comment\0\0" + bomb), (b"iTXt", b"Comment\0\1\0\0\0" + bomb), (b"iCCP", b"x\0\0" + bomb)):
        start = time.monotonic()
        answer = upload(carol, png(more=chunk(kind, data)))
        assert answer["success"] or answer == refused("error_picture")
        assert time.monotonic() - start < 10


def zlib_bomb(size):
    import zlib

    return zlib.compress(bytes(size), 9)


def test_more_data_than_pixels(carol):
    """Rows for a picture a thousand times as high as the header says."""
    data = png(1000, 10, (b"\0" + bytes(3000)) * 10000)
    start = time.monotonic()
    answer = upload(carol, data)
    assert answer["success"] or answer == refused("error_picture")
    assert time.monotonic() - start < 10


@pytest.mark.parametrize("data", ["", "=", "A", "AA", "AAA", "A===", "AAAA=", "AA=A", "####", "iVBO\nRw0K", "-_-_", "AAAA "])
def test_what_is_no_base64_is_refused(carol, data):
    assert send(carol, action="upload", kind="desktop", data=data).json == refused("error_request")


@pytest.mark.parametrize("data", [None, 5, ["AAAA"], {"a": 1}, True])
def test_data_that_is_no_text_is_refused(carol, data):
    assert send(carol, action="upload", kind="desktop", data=data).json == refused("error_request")


def test_a_form_will_do_too(carol):
    answer = carol.post("appearance", {"action": "upload", "kind": "desktop", "data": encoded(png())})
    assert answer.json["success"]


def test_a_body_over_the_limit(carol):
    answer = carol.post("appearance", b'{"action":"upload","kind":"desktop","data":"' + b"A" * (8 << 20) + b'"}')
    assert not answer.json["success"]
    assert listed(carol)["slots"] == [None] * 8


NAMES = ["-x", "%d", "[0]", "a:b", "msl:x", "@x", "../../../../run/owned", "$(touch /run/owned)", ";id", "a\nb", "/etc/passwd"]


@pytest.mark.parametrize("name", NAMES)
def test_no_text_of_the_client_reaches_a_file_name(carol, name):
    fields = {"filename": name, "name": name, "type": name, "extension": name, "user": name}
    assert upload(carol, png(), **fields)["success"]
    assert {path.name for path in carol.folder.iterdir()} == {"1.png", "1thumb.png", "usersettings", "settings.lock"}
    assert upload(carol, png(), kind=name) == refused("error_request")
    assert not Path("/run/owned").exists()


# --- How the tool is run ---


@pytest.fixture
def tool():
    """A stand-in for the picture tool, which notes what it is allowed to."""
    target = Path(CONVERT)
    before = os.readlink(target)

    def replace(script):
        target.unlink(missing_ok=True)
        target.write_text("#!/bin/sh\n" + script)
        target.chmod(0o755)

    Path("/run/good.png").write_bytes(png())
    Path("/run/notes").write_text("")
    Path("/run/notes").chmod(0o666)
    yield replace
    target.unlink()
    target.symlink_to(before)


NOTE = "for last; do :; done\n"  # the file that is to be made


@pytest.mark.parametrize("who, kind", [("alice", "desktop"), ("admin", "desktop"), ("admin", "login")])
def test_the_tool_is_confined(server, tool, who, kind):
    tool(NOTE + "{ cat /proc/self/status /proc/self/limits /proc/net/dev; tr '\\0' '\\n' </proc/self/environ; "
         "ls -l /proc/self/fd; } >/run/notes; cp /run/good.png \"$last\"\n")
    client = Client()
    assert client.login(who).json["success"]
    assert upload(client, png(), kind)["success"]
    notes = Path("/run/notes").read_text()
    uid = "0" if kind == "login" else subprocess.run(["id", "-u", who], capture_output=True, text=True,
                                                     check=True).stdout.strip()
    assert re.search(rf"^Uid:\t{uid}\t{uid}\t{uid}\t{uid}$", notes, re.M)
    assert re.search(r"^NoNewPrivs:\t1$", notes, re.M)
    for capabilities in ("CapEff", "CapPrm", "CapBnd"):
        assert re.search(rf"^{capabilities}:\t0+$", notes, re.M), capabilities
    for limit, value in (("cpu time", 30), ("file size", 64 << 20), ("address space", 1 << 30), ("core file size", 0),
                         ("open files", 64)):
        assert re.search(rf"^Max {limit} +{value} +{value} ", notes, re.M), limit
    devices = re.findall(r"^ *(\w+):", notes.split("Inter-|")[1].split("PATH=")[0], re.M)
    assert devices == ["lo"] and "carol" not in notes
    assert "HTTP_COOKIE" not in notes and "QUERY_STRING" not in notes
    assert client.cookies["id"] not in notes


def test_the_tool_reaches_no_network(carol, tool):
    tool(NOTE + "curl -s -m 2 http://127.0.0.1:5000/ >/run/notes 2>&1; echo $? >>/run/notes; cp /run/good.png \"$last\"\n")
    assert upload(carol, png())["success"]
    assert Path("/run/notes").read_text() == "7\n"


def test_what_the_tool_prints_reaches_nobody(carol, tool):
    tool(NOTE + "echo 'Content-Type: text/html'; cat; cp /run/good.png \"$last\"\n")
    answer = send(carol, action="upload", kind="desktop", data=encoded(png()))
    assert answer.json["success"] and answer.text.startswith("{")


def test_a_tool_that_fails_leaves_the_slot_empty_and_the_number(carol, tool):
    for _ in range(9):
        upload(carol, png())
    tool("exit 1\n")
    assert upload(carol, png()) == refused("error_picture")
    found = listed(carol)
    assert found["current"] == 1 and found["slots"][2] is None
    assert not (carol.folder / "picture.new").exists()


def test_no_more_than_two_run_at_once(server, tool):
    tool(NOTE + "echo + >>/run/notes; sleep 0.4; echo - >>/run/notes; cp /run/good.png \"$last\"\n")
    clients = []
    for number in range(6):
        account(f"crowd{number}")
        client = Client()
        assert client.login(f"crowd{number}").json["success"]
        clients.append(client)
    with ThreadPoolExecutor(6) as pool:
        answers = list(pool.map(lambda client: upload(client, png()), clients))
    assert all(answer["success"] for answer in answers), answers
    running = most = 0
    for line in Path("/run/notes").read_text().split():
        running += 1 if line == "+" else -1
        most = max(most, running)
    assert most == 2 and running == 0


def test_who_waits_too_long_is_told(carol):
    STATE.mkdir(mode=0o700, exist_ok=True)
    locks = [open(STATE / f"tool{number}", "w") for number in range(2)]
    for lock in locks:
        fcntl.flock(lock, fcntl.LOCK_EX)
    start = time.monotonic()
    assert upload(carol, png()) == refused("error_occupied")
    assert 8 < time.monotonic() - start < 14
    fcntl.flock(locks[1], fcntl.LOCK_UN)
    assert upload(carol, png())["success"]
    for lock in locks:
        lock.close()


def test_two_windows_of_one_user(carol):
    with ThreadPoolExecutor(4) as pool:
        answers = list(pool.map(lambda n: upload(carol, png(20 + n, 20)), range(7)))
    slots = sorted(answer["data"]["slot"] for answer in answers if answer["success"])
    assert slots == [1, 2, 3, 4, 5, 6, 7], answers


def test_settings_do_not_wait_for_who_waits(carol):
    """While an addition waits for its turn at the tool, the user's settings can be changed."""
    upload(carol, png())
    locks = [open(STATE / f"tool{number}", "w") for number in range(2)]
    for lock in locks:
        fcntl.flock(lock, fcntl.LOCK_EX)
    answers = []
    waiting = threading.Thread(target=lambda: answers.append(upload(carol, png())))
    waiting.start()
    time.sleep(0.5)
    start = time.monotonic()
    assert carol.post("usersettings", {"action": "apply", "settings": '{"a":1}'}).json["success"]
    assert time.monotonic() - start < 2
    for lock in locks:
        lock.close()
    waiting.join()
    assert answers == [{"success": True, "data": {"slot": 2}}]
    settings = json.loads((carol.folder / "usersettings").read_text())
    assert settings == {"a": 1, "Desktop": {"wallpaper": {"index": 2}}}


def test_settings_that_are_being_changed_are_waited_for(carol):
    upload(carol, png())
    with open(carol.folder / "settings.lock") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        for fields in ({"action": "choose", "slot": 1}, {"action": "upload", "data": encoded(png())}):
            assert send(carol, kind="desktop", **fields).json == refused("error_occupied")
    assert upload(carol, png())["success"]


def test_locks_are_roots_alone(carol):
    upload(carol, png())
    status = STATE.stat()
    assert (status.st_uid, stat.S_IMODE(status.st_mode)) == (0, 0o700)


def test_a_full_disk_is_left_alone(carol):
    upload(carol, png())
    folder = carol.folder
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"size=5m,mode=0700,uid={folder.stat().st_uid}", "tmpfs", folder],
                   check=True)
    try:
        assert upload(carol, noise_png(300, 200))["success"]
        (folder / "pad").write_bytes(bytes(600 << 10))
        before = snapshot(folder)
        assert upload(carol, noise_png(300, 200)) == refused("error_no_room")
        assert snapshot(folder) == before
    finally:
        subprocess.run(["umount", folder], check=True)


@pytest.fixture
def copier():
    """A stand-in for cp."""
    target = Path("/usr/bin/cp")
    before = target.read_bytes()

    def replace(script):
        target.unlink()
        target.write_text("#!/bin/sh\n" + script)
        target.chmod(0o755)

    yield replace
    target.unlink()
    target.write_bytes(before)
    target.chmod(0o755)


@pytest.mark.parametrize("script", ['head -c 100 "$2" >"$3"; exit 1', "exit 1", "kill -9 $$"])
def test_a_copy_that_is_cut_is_no_picture(carol, copier, script):
    for _ in range(2):
        upload(carol, png())
    copier(script)
    assert upload(carol, png()) == refused("error_system")
    found = listed(carol)
    assert found["current"] == 2 and [slot is not None for slot in found["slots"][:4]] == [False, True, True, False]


def test_links_in_a_users_folder_lead_nowhere(carol):
    upload(carol, png())
    Path("/run/victim").write_bytes(gif())
    Path("/run/victim").chmod(0o600)
    uid = carol.folder.stat().st_uid
    for name in ("3.gif", "2.png", "2thumb.png", "picture.new"):
        (carol.folder / name).symlink_to("/run/victim")
        os.lchown(carol.folder / name, uid, -1)
    assert carol.get("appearance", "action=get&kind=desktop&slot=3").json == refused("error_not_found")
    assert listed(carol)["slots"][3] is None
    assert upload(carol, png())["data"] == {"slot": 2}
    assert Path("/run/victim").read_bytes() == gif()
    (carol.folder / "4.png").write_text("<html>")
    (carol.folder / "5.png").mkdir()
    os.mkfifo(carol.folder / "6.png")
    for slot in (4, 5, 6):
        assert carol.get("appearance", f"action=get&kind=desktop&slot={slot}").json == refused("error_not_found")
    assert [slot is not None for slot in listed(carol)["slots"]] == [False, True, True] + [False] * 5


def test_a_client_that_hangs_up_leaves_whole_slots(carol):
    from test_settings import hang_up

    uploads = [json.dumps({"action": "upload", "kind": "desktop", "data": encoded(noise_png(100, n))}).encode()
               for n in range(20, 30)]
    for number, body in enumerate(uploads):
        hang_up(carol, body, 0.005 * number, "appearance")
    time.sleep(1)
    found = listed(carol)
    for slot in found["slots"]:
        assert slot is None or (slot["thumbnail"] != slot["picture"] and slot["size"] > 5000)
    assert not (carol.folder / "picture.new").exists()
    assert upload(carol, png())["success"]


# --- Themes ---


def test_themes(admin, alice, settings):
    assert alice.get("appearance", "action=load").json["data"] == {"theme": "default", "themes": ["dark", "default"]}
    assert b"default theme" in alice.curl("/theme/theme.css").body
    assert send(alice, action="apply", theme="dark").header("x-request-error") == "noprivilege"
    assert send(admin, action="apply", theme="dark").json == {"success": True, "data": {}}
    assert os.readlink(THEME) == "/usr/vemo/theme/dark/theme.css"
    end = time.monotonic() + 5  # the web server looks at a file once a second
    while b"dark theme" not in (answer := alice.curl("/theme/theme.css")).body and time.monotonic() < end:
        time.sleep(0.2)
    assert b"dark theme" in answer.body and answer.header("Content-Type") == "text/css; charset=utf-8"
    assert setting("theme") == "dark" and alice.get("appearance", "action=load").json["data"]["theme"] == "dark"
    assert send(admin, action="apply", theme="default", key="apply").json["success"]
    assert os.readlink(THEME) == "/usr/vemo/theme/default/theme.css"


@pytest.mark.parametrize("theme", ["", "../x", "a b", 'x"y', "x" * 65, "dark\nx", "ä", None, 5])
def test_names_that_are_no_themes(admin, theme, settings):
    assert send(admin, action="apply", theme=theme).json == refused("error_request")


def test_themes_that_are_not_there(admin, settings):
    before = os.readlink(THEME)
    assert send(admin, action="apply", theme="light").json == refused("error_not_found")
    assert send(admin, action="apply", theme="dark", key="remove").json == refused("error_not_found")
    assert os.readlink(THEME) == before and setting("theme") in (None, "default")


@pytest.fixture
def theme_file():
    path = Path("/usr/vemo/theme/theme.json")
    before = path.read_bytes()
    yield path
    path.write_bytes(before)


def test_a_theme_that_applies_only_in_part(admin, settings, theme_file):
    mappings = [{"source": "/usr/vemo/theme/dark/theme.css", "target": "/run/a.css"},
                {"source": "/run/none", "target": "/run/b.css"}, {"target": "/run/c"}, 7]
    theme_file.write_text(json.dumps({"part": {"apply": {"mappings": mappings}}}))
    assert send(admin, action="apply", theme="part").json == refused("error_theme")
    assert setting("theme") != "part" and os.readlink("/run/a.css")


@pytest.mark.parametrize("content", ["", "{", "[]", "5", '{"x":5}', '{"x":{"apply":[]}}', '{"x":{"apply":{"mappings":{}}}}'])
def test_theme_files_of_the_wrong_kind(admin, settings, theme_file, content):
    theme_file.write_text(content)
    assert admin.get("appearance", "action=load").json["success"]
    key = "error_system" if content in ("", "{") else "error_not_found"
    assert send(admin, action="apply", theme="x").json == refused(key)


def test_answers_are_private(carol):
    for query in ("action=list&kind=desktop", "action=load", "action=get&kind=desktop"):
        assert carol.get("appearance", query).header("Cache-Control") == "no-store"
