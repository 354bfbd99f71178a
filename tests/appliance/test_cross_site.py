"""Every action from a page of another site, and by the methods that change nothing."""

import json
from pathlib import Path

import pytest
from conftest import Client, snapshot
from rights import ROWS

WATCHED = ("/etc", "/usr/vemo", "/run/vemo/session")
OTHER_SITE = ["-H", "Origin: http://evil.example", "-H", "Sec-Fetch-Site: cross-site",
              "-H", "Referer: http://evil.example/"]
FORM = "Content-Type: application/x-www-form-urlencoded"
UPLOAD = "Content-Type: multipart/form-data; boundary=b"


def part(name, value):
    return f"--b\r\nContent-Disposition: form-data; name=\"{name}\"\r\n\r\n{value}\r\n"


# What a page can make a browser send, with the visitor's cookies: query, content type, body.
KINDS = {
    "form": lambda row: ("", FORM, row.parameters),
    "text": lambda row: ("", "Content-Type: text/plain", row.parameters),
    "text of JSON": lambda row: ("", "Content-Type: text/plain", json.dumps(row.fields)),
    "JSON": lambda row: ("", "Content-Type: application/json", json.dumps(row.fields)),
    "JSON as a form": lambda row: ("", FORM, json.dumps(row.fields)),
    "no type": lambda row: ("", "Content-Type:", row.parameters),
    "upload": lambda row: ("", UPLOAD, "".join(part(*pair) for pair in row.fields.items()) + "--b--\r\n"),
    "upload with a query": lambda row: (row.parameters, UPLOAD, "--b--\r\n"),
    "form with a query": lambda row: (row.parameters, FORM, ""),
}


def logged_in(who="admin"):
    client = Client()
    assert client.login(who).json["success"]
    for program in ("usersettings", "groupsettings"):  # folders are made on first use
        client.get(program, "action=load")
    return client


def unchanged(client, send):
    """Whether a request left everything as it was; the use of the session apart."""
    before = snapshot(*WATCHED)
    answer = send()
    assert snapshot(*WATCHED) == before
    assert answer.all("Set-Cookie") == []
    assert client.session_file.exists()
    return answer


@pytest.mark.parametrize("row", ROWS, ids=lambda row: f"{row.name}-{row.parameters[:8]}")
@pytest.mark.parametrize("kind, method", [(kind, "POST") for kind in KINDS] + [
    (kind, method) for kind in ("form", "JSON", "form with a query") for method in ("PUT", "DELETE")])
def test_another_site_changes_nothing(server, row, kind, method):
    admin = logged_in()
    query, content_type, body = KINDS[kind](row)
    path = f"/webman/{row.program}.cgi" + (f"?{query}" if query else "")
    answer = unchanged(admin, lambda: admin.curl(path, "-X", method, "-H", content_type, *OTHER_SITE,
                                                 data=body.encode()))
    assert answer.json["success"] is False


@pytest.mark.parametrize("row", ROWS, ids=lambda row: f"{row.name}-{row.parameters[:8]}")
@pytest.mark.parametrize("token", [True, False], ids=["token", "bare"])
@pytest.mark.parametrize("site", [OTHER_SITE, []], ids=["other", "own"])
@pytest.mark.parametrize("method", ["GET", "HEAD"])
def test_reading_changes_nothing(server, row, token, site, method):
    admin = logged_in()
    extra = ["-H", f"X-Vemo-Token: {admin.token}"] if token else []
    if method == "HEAD":
        extra.append("-I")
    unchanged(admin, lambda: admin.get(row.program, row.parameters, *extra, *site))


def test_a_page_of_another_origin_may_not_read(server):
    alice = logged_in("alice")
    for arguments in ([], ["-X", "OPTIONS", "-H", "Access-Control-Request-Method: POST",
                           "-H", "Access-Control-Request-Headers: x-vemo-token"]):
        answer = alice.get("session", "", *OTHER_SITE, *arguments)
        assert [name for name, _ in answer.headers if name.lower().startswith("access-control")] == []


def test_the_check_sees_what_an_apply_changes(server, settings):
    admin = logged_in()
    row = next(row for row in ROWS if "action=apply" in row.parameters)
    before = snapshot(*WATCHED)
    assert admin.post(row.program, row.parameters.encode()).json["success"]
    assert snapshot(*WATCHED) != before
    assert 'network_hostname="x"' in Path("/etc/vemoinfo.conf").read_text()
