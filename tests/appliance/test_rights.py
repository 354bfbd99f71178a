"""Who may do what: every program that is installed, and every action from another site."""

from pathlib import Path

import pytest
from conftest import Client, snapshot

WATCHED = ("/etc", "/usr/vemo", "/run/vemo/session")

# program: (method, parameters), then what nobody, an ordinary user and an administrator
# get, each with and without the token: the reason of the refusal, or "ok".
UNAUTH = "unauth"
TABLE = {
    "login": (("POST", "action=login&username=alice&passwd=alice-demo"),
              {"nobody": "ok", "alice": "ok", "admin": "ok"},
              {"nobody": "ok", "alice": "ok", "admin": "ok"}),
    "logout": (("POST", "action=logout"),
               {"nobody": UNAUTH, "alice": "ok", "admin": "ok"},
               {"nobody": UNAUTH, "alice": UNAUTH, "admin": UNAUTH}),
    "session": (("GET", ""),
                {"nobody": UNAUTH, "alice": "ok", "admin": "ok"},
                {"nobody": UNAUTH, "alice": "ok", "admin": "ok"}),
    "network": (("POST", "action=apply&hostname=x&comment=&mode=dhcp&ip=10.1&mask=255.0.0.0&gateway=10.2"
                         "&mtu=1500&speed=10&valid_from=2024/1/1"),
                {"nobody": UNAUTH, "alice": "noprivilege", "admin": "ok"},
                {"nobody": UNAUTH, "alice": "noprivilege", "admin": UNAUTH}),
}
ACTIONS = {
    "login": ["login"],
    "logout": ["logout"],
    "session": [],
    "network": ["load", "apply"],
}


def installed():
    return sorted(path.stem for path in Path("/usr/vemo/vemoman/webman").glob("*.cgi"))


def logged_in(who):
    client = Client()
    if who != "nobody":
        assert client.login(who).json["success"]
    return client


def test_every_installed_program_has_its_row(server):
    assert installed() == sorted(TABLE) == sorted(ACTIONS)


@pytest.mark.parametrize("program", sorted(TABLE))
@pytest.mark.parametrize("who", ["nobody", "alice", "admin"])
@pytest.mark.parametrize("token", [True, False])
def test_who_may_do_what(server, program, who, token):
    (method, parameters), with_token, without_token = TABLE[program]
    client = logged_in(who)
    if method == "GET":
        extra = ["-H", f"X-Vemo-Token: {client.token}"] if token and client.token else []
        answer = client.get(program, parameters, *extra)
    else:
        answer = client.post(program, parameters.encode(), token=token)
    got = answer.header("x-request-error") or ("ok" if answer.json["success"] else "failed")
    assert got == (with_token if token else without_token)[who]


OTHER_SITE = ["-H", "Origin: http://evil.example", "-H", "Sec-Fetch-Site: cross-site",
              "-H", "Referer: http://evil.example/"]
KINDS = {
    "form": ("application/x-www-form-urlencoded", "{}"),
    "text": ("text/plain", "{}"),
    "json": ("application/json", None),
    "upload": ("multipart/form-data; boundary=b", "--b\r\nContent-Disposition: form-data; name=\"action\"\r\n\r\n{}\r\n--b--\r\n"),
}


@pytest.mark.parametrize("program, action", [(p, a) for p in sorted(ACTIONS) for a in ACTIONS[p]])
@pytest.mark.parametrize("kind", sorted(KINDS))
def test_another_site_changes_nothing(server, program, action, kind):
    admin = logged_in("admin")
    parameters = TABLE[program][0][1] if action != "load" else "action=load"
    content_type, form = KINDS[kind]
    if form is None:
        import json
        from urllib.parse import parse_qsl

        body = json.dumps(dict(parse_qsl(parameters, keep_blank_values=True)))
    else:
        body = form.format(parameters)
    before = snapshot(*WATCHED)
    answer = admin.post(program, body.encode(), "-H", f"Content-Type: {content_type}", *OTHER_SITE, token=False)
    assert answer.all("Set-Cookie") == []
    assert snapshot(*WATCHED) == before


@pytest.mark.parametrize("program, action", [(p, a) for p in sorted(ACTIONS) for a in ACTIONS[p]])
@pytest.mark.parametrize("site", [OTHER_SITE, []], ids=["other", "own"])
@pytest.mark.parametrize("method", ["GET", "HEAD"])
def test_get_changes_nothing(server, program, action, site, method):
    admin = logged_in("admin")
    parameters = TABLE[program][0][1] if action != "load" else "action=load"
    before = snapshot(*WATCHED)
    arguments = ["-I"] if method == "HEAD" else []
    answer = admin.get(program, parameters, "-H", f"X-Vemo-Token: {admin.token}", *arguments, *site)
    assert answer.all("Set-Cookie") == []
    assert snapshot(*WATCHED) == before


def test_a_login_from_another_site_is_refused(client):
    fields = {"action": "login", "username": "alice", "passwd": "alice-demo"}
    for header in ("Origin: http://evil.example", "Origin: null", "Sec-Fetch-Site: same-site",
                   "Origin: http://127.0.0.1:5001"):
        answer = client.post("login", fields, "-H", header, token=False)
        assert answer.json["errinfo"] == {"sec": "common", "key": "error_request"}
        assert answer.all("Set-Cookie") == []
    own = client.post("login", fields, "-H", "Origin: http://127.0.0.1:5000", "-H", "Sec-Fetch-Site: same-origin",
                      token=False)
    assert own.json["success"]


def test_no_page_of_another_origin_may_read(alice):
    answer = alice.get("session", "", "-H", "Origin: https://evil.example")
    assert [name for name, _ in answer.headers if name.lower().startswith("access-control")] == []
