"""The network form over HTTP: loading, every field, the three shapes of an answer."""

import fcntl
import subprocess
from pathlib import Path

import pytest
from conftest import Client, snapshot

GOOD = {"hostname": "box", "comment": "a \"quoted\" \\ text = x # y", "mode": "static", "ip": "10.0.0.2",
        "mask": "255.255.255.0", "gateway": "10.0.0.1", "mtu": "1500", "speed": "1000",
        "valid_from": "2024/02/03"}
NOT_VALID = "The field is not valid."
NOT_PRESENT = "The field is not present."


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
    ("hostname", "a" * 63), ("comment", ""), ("comment", "x" * 1024), ("comment", "日本語 ümläut"),
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
    ("hostname", "a b", "Use letters, digits and hyphens only, and no hyphen at either end."),
    ("hostname", "-a", "Use letters, digits and hyphens only, and no hyphen at either end."),
    ("comment", "x" * 1025, "The text is too long."),
    ("comment", "a\nb=\"c\"", "Line breaks and control characters are not allowed."),
    ("comment", "a\x1b[31m", "Line breaks and control characters are not allowed."),
    ("mode", "Static", NOT_VALID), ("mode", "", NOT_VALID), ("mode", "static ", NOT_VALID),
    ("ip", "192.168.1.300", NOT_VALID), ("ip", "", NOT_VALID), ("ip", "::1", NOT_VALID),
    ("mask", "255.0.255.0", NOT_VALID), ("mask", "0.0.0.0", NOT_VALID), ("mask", "24", NOT_VALID),
    ("gateway", "x", NOT_VALID), ("gateway", "10.0.1.1", "The gateway is not within the network."),
    ("mtu", "575", NOT_VALID), ("mtu", "9001", NOT_VALID), ("mtu", "1500x", NOT_VALID), ("mtu", "", NOT_VALID),
    ("mtu", "4294968796", NOT_VALID), ("mtu", "99999999999999999999", NOT_VALID),
    ("speed", "7", NOT_VALID), ("speed", "", NOT_VALID), ("speed", "10 ", NOT_VALID),
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


@pytest.mark.parametrize("language, text", [
    ("enu", "The text is too long."), ("ger", "Der Text ist zu lang."), ("jpn", "テキストが長すぎます。"),
    ("xxx", "The text is too long."), ("../ger", "The text is too long."),
])
def test_marks_are_in_the_callers_language(admin, language, text):
    admin.cookies["lang"] = language
    assert apply(admin, hostname="a" * 64).json["errors"] == {"hostname": text}


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
    from urllib.parse import urlencode

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
    from concurrent.futures import ThreadPoolExecutor

    def many(client, name):
        return [apply(client, hostname=f"{name}{i}").json["success"] for i in range(20)]

    with ThreadPoolExecutor(2) as pool:
        done = list(pool.map(many, (admin, second), "ab"))
    assert any(done[0]) and any(done[1])
    assert load(admin)["comment"] == GOOD["comment"]
    assert Path("/etc/vemoinfo.conf").read_text().count("network_hostname=") == 1


def test_a_client_that_hangs_up_leaves_a_whole_file(admin):
    import random
    import socket
    import time
    from urllib.parse import urlencode

    generator = random.Random(1)
    for turn in range(60):
        body = urlencode({"action": "apply", **GOOD, "hostname": f"h{turn}"}).encode()
        head = (f"POST /webman/network.cgi HTTP/1.1\r\nHost: 127.0.0.1\r\nCookie: id={admin.cookies['id']}\r\n"
                f"X-Vemo-Token: {admin.token}\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                f"Content-Length: {len(body)}\r\n\r\n").encode()
        with socket.create_connection(("127.0.0.1", 5000)) as connection:
            connection.sendall(head + body)
            time.sleep(generator.random() * 0.03)
        text = Path("/etc/vemoinfo.conf").read_text()
        assert text.startswith("# The appliance") and text.endswith("\n")
    time.sleep(0.2)
    assert apply(admin).json["success"]
    assert list(Path("/etc").glob("vemoinfo.conf.new*")) == []


def test_snapshots_see_changes(tmp_path):
    before = snapshot(tmp_path)
    (tmp_path / "x").write_text("1")
    assert snapshot(tmp_path) != before
