"""The network form over HTTP: loading, every field, the three shapes of an answer."""

import fcntl
import os
import random
import re
import signal
import socket
import struct
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from urllib.parse import urlencode

import pytest
from conftest import Client, snapshot

GOOD = {"hostname": "box", "comment": "a \"quoted\" \\ text = x # y", "mode": "static", "ip": "10.0.0.2",
        "mask": "255.255.255.0", "gateway": "10.0.0.1", "mtu": "1500", "speed": "1000",
        "valid_from": "2024/02/03"}
NOT_VALID = "The field is not valid."
NOT_PRESENT = "The field is not present."
CONTROL = "Line breaks and control characters are not allowed."
ENCODING = "The text is not valid UTF-8."
HOSTNAME = "Use letters, digits and hyphens only, and no hyphen at either end."


def apply(client, *arguments, **changes):
    fields = {"action": "apply", **GOOD, **changes}
    return client.post("network", {k: v for k, v in fields.items() if v is not None}, *arguments)


def load(client):
    return client.get("network", "action=load").json["data"]


@pytest.fixture(autouse=True)
def as_before(server):
    path = Path("/etc/vemoinfo.conf")
    before = path.read_bytes()
    yield
    path.write_bytes(before)


def test_what_was_never_set_is_the_factory_default(admin):
    assert load(admin) == {
        "hostname": "nas", "comment": "", "mode": "dhcp", "ip": "192.168.1.2", "mask": "255.255.255.0",
        "gateway": "192.168.1.1", "mtu": "1500", "speed": "1000", "valid_from": "2024/01/01"}


def test_what_is_applied_is_read_back(admin):
    answer = apply(admin)
    assert answer.text == '{\n   "data" : {},\n   "success" : true\n}\n'
    assert answer.header("Content-type") == 'text/plain; charset="UTF-8"'
    assert answer.header("Cache-Control") == "no-store"
    assert load(admin) == GOOD
    assert 'network_ip="10.0.0.2"' in Path("/etc/vemoinfo.conf").read_text()


@pytest.mark.parametrize("field, value", [
    ("hostname", "a" * 63), ("comment", ""), ("comment", "x" * 1024), ("comment", "日本語 ümläut 🙂 \u0080\u07ff\u0800\uffff\U0010ffff"),
    ("comment", "<b>&amp;</b> %s %n $(id) `id` ${x} '"), ("comment", " both ends "),
    ("mode", "dhcp"), ("ip", "10.3"), ("gateway", "10.0.0.254"), ("mask", "255.255.0.0"),
    ("mtu", "576"), ("mtu", "9000"), ("mtu", " 1500"), ("mtu", "+1500"), ("speed", "010"), ("speed", "10000"),
    ("valid_from", "2024/2/3"), ("valid_from", "2024/02/30"),
])
def test_a_good_value(admin, field, value):
    changes = {field: value} if field != "ip" else {field: value, "gateway": "10.0.0.1"}
    assert apply(admin, **changes).json["success"], field
    assert load(admin)[field] == value


@pytest.mark.parametrize("field, value, mark", [
    ("hostname", "", NOT_VALID), ("hostname", "a" * 64, "The text is too long."),
    ("hostname", "a b", HOSTNAME),
    ("hostname", "-a", HOSTNAME),
    ("comment", "x" * 1025, "The text is too long."),
    ("comment", "a\nb=\"c\"", CONTROL),
    ("comment", "a\x1b[31m", CONTROL),
    ("mode", "Static", NOT_VALID), ("mode", "", NOT_VALID), ("mode", "static ", NOT_VALID),
    ("ip", "192.168.1.300", NOT_VALID), ("ip", "", NOT_VALID), ("ip", "::1", NOT_VALID),
    ("mask", "255.0.255.0", NOT_VALID), ("mask", "0.0.0.0", NOT_VALID), ("mask", "24", NOT_VALID),
    ("gateway", "x", NOT_VALID), ("gateway", "10.0.1.1", "The gateway is not within the network."),
    ("mtu", "575", NOT_VALID), ("mtu", "9001", NOT_VALID), ("mtu", "1500x", NOT_VALID), ("mtu", "", NOT_VALID),
    ("mtu", "4294968796", NOT_VALID), ("mtu", "99999999999999999999", NOT_VALID),
    ("speed", "7", NOT_VALID), ("speed", "", NOT_VALID), ("speed", "10 ", NOT_VALID),
    # Rules that white space passes: a line break must not become a line of the configuration.
    ("mtu", "\n1500", CONTROL), ("speed", "\t10", CONTROL), ("valid_from", "2024/\n2/3", CONTROL),
    ("ip", "10.0.0.2\nnetwork_mtu=1", CONTROL), ("gateway", "10.0.0.1\r\nx", CONTROL),
    ("comment", "a\r\nb", CONTROL), ("comment", "\x7f", CONTROL), ("mtu", " " * 1025 + "1500", "The text is too long."),
    ("ip", "10.0.0.2 and more", "Enter an address such as 192.168.1.2."),
    ("gateway", "10.0.0.1 ", "Enter an address such as 192.168.1.2."),
    ("hostname", "a-", HOSTNAME), ("hostname", "a.b", HOSTNAME), ("hostname", "ä", HOSTNAME), ("hostname", " ", HOSTNAME),
    ("comment", b"\xff", ENCODING), ("comment", b"\xc0\x80", ENCODING), ("comment", b"\xed\xa0\x80", ENCODING),
    ("comment", b"\xf4\x90\x80\x80", ENCODING), ("comment", b"\xe3\x81", ENCODING), ("comment", b"a\xbf", ENCODING),
    ("comment", b"\xe0\x9f\xbf", ENCODING), ("comment", b"\xf0\x8f\xbf\xbf", ENCODING), ("hostname", b"\xff", ENCODING),
    ("valid_from", "2024/02/03 ", NOT_VALID), ("valid_from", "2024-02-03", NOT_VALID), ("valid_from", "", NOT_VALID),
])
def test_a_bad_value_is_marked_under_its_field(admin, field, value, mark):
    before = load(admin)
    answer = apply(admin, **{field: value})
    assert answer.json == {"success": False, "errors": {field: mark}}
    assert load(admin) == before


def test_an_invalid_form_byte_for_byte(admin):
    answer = apply(admin, mtu="9", ip="1.2.3.4.5")
    assert answer.text == ('{\n   "errors" : {\n      "ip" : "The field is not valid.",\n'
                           '      "mtu" : "The field is not valid."\n   },\n   "success" : false\n}\n')


MARKS = {
    "enu": ["The text is too long.", CONTROL, HOSTNAME, "The gateway is not within the network.", ENCODING,
            "Enter an address such as 192.168.1.2."],
    "ger": ["Der Text ist zu lang.", "Zeilenumbrüche und Steuerzeichen sind nicht erlaubt.",
            "Nur Buchstaben, Ziffern und Bindestriche, kein Bindestrich am Anfang oder Ende.",
            "Das Gateway liegt nicht im Netzwerk.", "Der Text ist kein gültiges UTF-8.",
            "Geben Sie eine Adresse wie 192.168.1.2 ein."],
    "jpn": ["テキストが長すぎます。", "改行や制御文字は使用できません。",
            "英数字とハイフンのみ使用できます。先頭と末尾にハイフンは使えません。",
            "ゲートウェイがネットワークの範囲内にありません。", "テキストが正しい UTF-8 ではありません。",
            "192.168.1.2 のようなアドレスを入力してください。"],
}
PROVOKED = [("hostname", "a" * 64), ("comment", "\n"), ("hostname", "-"), ("gateway", "10.9.9.9"),
            ("comment", b"\xff"), ("ip", "10.0.0.2 x")]


@pytest.mark.parametrize("language, marks", [*MARKS.items(), ("xxx", MARKS["enu"]), ("../ger", MARKS["enu"])],
                         ids=[*MARKS, "no such language", "a path"])
def test_marks_are_in_the_callers_language(admin, language, marks):
    admin.cookies["lang"] = language
    for (field, value), mark in zip(PROVOKED, marks, strict=True):
        assert apply(admin, **{field: value}).json["errors"] == {field: mark}


def test_a_field_gets_one_mark_and_all_bad_fields_get_theirs(admin):
    answer = apply(admin, hostname="a" * 64, mtu="x", speed="1", comment="\n")
    assert answer.json["errors"] == {"hostname": "The text is too long.", "mtu": NOT_VALID, "speed": NOT_VALID}
    answer = apply(admin, hostname="-", ip="10.0.0.2 x", gateway="10.9.9.9")
    assert answer.json["errors"] == {"hostname": HOSTNAME, "ip": "Enter an address such as 192.168.1.2."}


def test_the_gateway_of_a_network_by_dhcp_is_not_looked_at(admin):
    assert apply(admin, mode="dhcp", gateway="10.9.9.9").json["success"]


@pytest.mark.parametrize("accept, text", [
    ("de-AT,en;q=0.5", "Der Text ist zu lang."), ("fr, ja;q=0.3, en;q=0.2", "テキストが長すぎます。"),
    ("*", "The text is too long."), ("de;q=0", "The text is too long."),
])
def test_the_browsers_language_is_the_next_choice(admin, accept, text):
    answer = apply(admin, "-H", f"Accept-Language: {accept}", hostname="a" * 64)
    assert answer.json["errors"] == {"hostname": text}


def test_absent_fields_are_all_named(admin):
    answer = apply(admin, mtu=None, ip=None)
    assert answer.json["errors"] == {"mtu": NOT_PRESENT, "ip": NOT_PRESENT}


def test_a_json_document_has_no_fields(admin):
    answer = admin.post("network", b'{"action":"apply","hostname":"x"}')
    assert answer.json["errinfo"] == {"sec": "common", "key": "error_request"}


def test_undeclared_fields_are_ignored(admin):
    assert apply(admin, admin="yes", network_root="1").json["success"]
    assert "root" not in Path("/etc/vemoinfo.conf").read_text()


def test_the_lock_refuses_a_second_writer(admin):
    before = load(admin)
    with open("/run/vemo/network.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        answer = apply(admin)
    assert answer.text == ('{\n   "errinfo" : {\n      "key" : "error_apply_occupied",\n'
                           '      "sec" : "common"\n   },\n   "success" : false\n}\n')
    assert load(admin) == before
    assert apply(admin).json["success"]


def test_get_changes_nothing_even_with_the_token(admin):
    query = urlencode({"action": "apply", **GOOD})
    answer = admin.get("network", query, "-H", f"X-Vemo-Token: {admin.token}")
    assert answer.json["errinfo"] == {"sec": "common", "key": "error_request"}
    assert load(admin)["hostname"] == "nas"


def test_an_unknown_action_is_refused(admin, alice):
    for fields in ({"action": "other"}, {"a": "b"}):
        assert admin.post("network", fields).json["errinfo"] == {"sec": "common", "key": "error_request"}
        assert alice.post("network", fields).header("x-request-error") == "noprivilege"


def test_a_configuration_that_cannot_be_written_loses_nothing(admin):
    before = Path("/etc/vemoinfo.conf").read_bytes()
    subprocess.run(["mount", "--bind", "/etc", "/etc"], check=True)
    subprocess.run(["mount", "-o", "remount,bind,ro", "/etc"], check=True)
    try:
        answer = apply(admin)
        assert answer.json["errinfo"] == {"sec": "common", "key": "error_system"}
    finally:
        subprocess.run(["umount", "/etc"], check=True)
    assert Path("/etc/vemoinfo.conf").read_bytes() == before


def test_two_administrators_lose_nothing(admin):
    second = Client()
    second.login("admin")
    def many(client, name):
        return [apply(client, hostname=f"{name}{i}").json["success"] for i in range(20)]

    with ThreadPoolExecutor(2) as pool:
        done = list(pool.map(many, (admin, second), "ab"))
    assert any(done[0]) and any(done[1])
    assert load(admin)["comment"] == GOOD["comment"]
    assert Path("/etc/vemoinfo.conf").read_text().count("network_hostname=") == 1


def test_a_disk_that_fills_up_in_the_middle_loses_nothing(admin):
    assert apply(admin, comment="").json["success"]
    page = 4096
    subprocess.run("mkdir -p /var/etc && mount -t tmpfs -o size=32m tmpfs /var/etc && cp -a /etc/. /var/etc/",
                   shell=True, check=True)
    try:
        # Within one page; the long comment, the second field, makes it two, and one is free.
        stored = Path("/var/etc/vemoinfo.conf")
        stored.write_text(stored.read_text() + "#" * (page - 600 - stored.stat().st_size) + "\n")
        with open("/var/etc/filler", "wb") as filler:
            while os.statvfs("/var/etc").f_bavail > 1:
                filler.write(b"x" * page)
                filler.flush()
        subprocess.run(["mount", "--bind", "/var/etc", "/etc"], check=True)
        try:
            before = stored.read_bytes()
            answer = apply(admin, hostname="changed", comment="x" * 1024)
            assert answer.json["errinfo"] == {"sec": "common", "key": "error_system"}
            assert stored.read_bytes() == before
            # The first field alone fits: it was stored, and put back.
            assert apply(admin, hostname="changed", comment="").json["success"]
        finally:
            subprocess.run(["umount", "/etc"], check=True)
    finally:
        subprocess.run(["umount", "/var/etc"], check=True)


def whole():
    """The file is whole, and all fields in it are of one request."""
    # When the lock is free, the program is at its end.
    with open("/run/vemo/network.lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        text = Path("/etc/vemoinfo.conf").read_text()
    assert text.startswith("# The appliance") and text.endswith("\n")
    data = stored_values(text)
    if "network_hostname" not in data:
        return None
    turn = int(data["network_hostname"][1:])
    assert (data["network_comment"], data["network_valid_from"]) == (f"c{turn}", f"{2000 + turn}/01/01")
    return turn


def body_of(turn):
    return urlencode({"action": "apply", **GOOD, "hostname": f"h{turn}", "comment": f"c{turn}",
                      "valid_from": f"{2000 + turn}/01/01"}).encode()


def test_a_client_that_hangs_up_leaves_all_or_nothing(admin):
    generator = random.Random(1)
    for turn in range(60):
        body = body_of(turn)
        head = (f"POST /webman/network.cgi HTTP/1.1\r\nHost: 127.0.0.1\r\nCookie: id={admin.cookies['id']}\r\n"
                f"X-Vemo-Token: {admin.token}\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                f"Content-Length: {len(body)}\r\n\r\n").encode()
        with socket.create_connection(("127.0.0.1", 5000)) as connection:
            connection.sendall(head + body)
            time.sleep(generator.random() * 0.015)
            if turn % 2:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        whole()
    time.sleep(0.2)
    assert apply(admin).json["success"]
    assert list(Path("/etc").glob("vemoinfo.conf.new*")) == []


def test_a_program_that_is_told_to_end_leaves_all_or_nothing(admin):
    """The signal that the web server sends, at every moment of the program's short life."""
    assert admin.post("network", body_of(0)).json["success"]
    ended = stored = 0
    for turn in range(1, 301):
        body = body_of(turn)
        environment = {
            "REQUEST_METHOD": "POST", "CONTENT_LENGTH": str(len(body)), "REMOTE_ADDR": "127.0.0.1",
            "CONTENT_TYPE": "application/x-www-form-urlencoded", "HTTP_COOKIE": f"id={admin.cookies['id']}",
            "HTTP_X_VEMO_TOKEN": admin.token}
        program = subprocess.Popen(["/usr/vemo/vemoman/webman/network.cgi"], env=environment, stdin=subprocess.PIPE,
                                   stdout=subprocess.DEVNULL)
        program.stdin.write(body)
        program.stdin.close()
        time.sleep(turn % 100 * 0.0002)
        program.terminate()
        ended += program.wait(10) == -signal.SIGTERM
        stored += whole() == turn
    # Some were ended before they stored anything, some after.
    assert ended > 0 and stored > 0
    assert apply(admin).json["success"]
    assert list(Path("/etc").glob("vemoinfo.conf.new*")) == []


def stored_values(text):
    return dict(re.findall(r'^(\w+)="(.*)"$', text, re.M))


def test_snapshots_see_changes(tmp_path):
    before = snapshot(tmp_path)
    (tmp_path / "x").write_text("1")
    assert snapshot(tmp_path) != before
