"""Who may use which application, and who says so."""

import sqlite3
import subprocess
from pathlib import Path

import pytest

STORE = Path("/usr/vemo/etc/app_priv.db")


@pytest.fixture(autouse=True)
def no_grants():
    STORE.unlink(missing_ok=True)


def grant(admin, action="grant", **fields):
    return admin.post("apps", {"action": action, **fields}).json


def mine(client):
    return client.get("apps", "action=get").json["data"]


def entry(admin, app):
    return next((one for one in admin.get("apps", "action=list").json["data"] if one["id"] == app), None)


def test_without_grants(alice, admin):
    assert mine(alice) == {"admin": False, "apps": []}
    own = mine(admin)
    assert own["admin"] is True
    # What can be granted is the store's business, for administrators too; the rest is theirs.
    assert {"VEMO.Network", "VEMO.GroupSettings", "VEMO.ContentPolicy", "VEMO.AppPrivileges"} <= set(own["apps"])
    assert "VEMO.Notes" not in own["apps"]


def test_what_can_be_granted(admin):
    notes = entry(admin, "VEMO.Notes")
    assert (notes["local"], notes["domain"], notes["grants"], notes["title"]) == (True, True, [], "app:title")
    assert entry(admin, "VEMO.SessionInfo")["domain"] is False
    assert entry(admin, "VEMO.Network") is None


def test_a_grant_is_given_and_taken_back(alice, admin):
    assert grant(admin, app="VEMO.Notes", kind="user", name="alice")["data"] == {"changed": True}
    assert grant(admin, app="VEMO.Notes", kind="user", name="alice")["data"] == {"changed": False}
    assert mine(alice)["apps"] == ["VEMO.Notes"]
    assert entry(admin, "VEMO.Notes")["grants"] == [{"kind": "user", "name": "alice", "range": ""}]
    assert grant(admin, "revoke", app="VEMO.Notes", kind="user", name="alice")["data"] == {"changed": True}
    assert grant(admin, "revoke", app="VEMO.Notes", kind="user", name="alice")["data"] == {"changed": False}
    assert mine(alice)["apps"] == []


def test_grants_to_everybody_to_groups_and_by_address(alice, admin):
    grant(admin, app="VEMO.Preferences", kind="everyone")
    grant(admin, app="VEMO.SessionInfo", kind="group", name="administrators")
    grant(admin, app="VEMO.Notes", kind="user", name="alice", range="10.0.0.0/8")
    grant(admin, app="Bulletin.Board", kind="user", name="alice", range="127.0.0.0/8")
    assert mine(alice)["apps"] == ["Bulletin.Board", "VEMO.Preferences"]
    assert "VEMO.SessionInfo" in mine(admin)["apps"]


@pytest.mark.parametrize("fields, key", [
    ({}, "error_not_grantable"),
    ({"app": "VEMO.Network", "kind": "everyone"}, "error_not_grantable"),
    ({"app": "none", "kind": "everyone"}, "error_not_grantable"),
    ({"app": "VEMO.SessionInfo", "kind": "user", "name": "CORP\\dora"}, "error_not_grantable"),
    ({"app": "VEMO.SessionInfo", "kind": "user", "name": "carl@corp.example"}, "error_not_grantable"),
    ({"app": "VEMO.Notes", "kind": "user"}, "error_request"),
    ({"app": "VEMO.Notes", "kind": "nobody", "name": "alice"}, "error_request"),
    ({"app": "VEMO.Notes", "kind": "everyone", "name": "alice"}, "error_request"),
    ({"app": "VEMO.Notes", "kind": "user", "name": "alice", "range": "10.0.0.0/33"}, "error_request"),
    ({"app": "VEMO.Notes", "kind": "user", "name": "none"}, "error_no_user"),
    ({"app": "VEMO.Notes", "kind": "user", "name": "'; drop table grants; --"}, "error_no_user"),
    ({"app": "VEMO.Notes", "kind": "group", "name": "none"}, "error_no_group"),
    ({"app": "VEMO.Notes", "kind": "user", "name": "a" * 100000}, "error_request"),
])
def test_what_is_refused(admin, fields, key):
    assert grant(admin, **fields) == {"success": False, "errinfo": {"sec": "common", "key": key}}
    assert not STORE.exists()


def test_grants_of_applications_that_are_gone_can_be_taken_back(admin):
    grant(admin, app="VEMO.Notes", kind="everyone")
    with sqlite3.connect(STORE) as store:
        store.execute("UPDATE grants SET app = 'Gone.App'")
    assert entry(admin, "Gone.App") == {"id": "Gone.App", "title": "Gone.App", "local": False, "domain": False,
                                        "grants": [{"kind": "everyone", "name": "", "range": ""}]}
    assert grant(admin, "revoke", app="Gone.App", kind="everyone")["data"] == {"changed": True}
    assert entry(admin, "Gone.App") is None


def test_changes_need_a_post(admin):
    for action in ("grant", "revoke"):
        answer = admin.get("apps", f"action={action}&app=VEMO.Notes&kind=everyone", "-H",
                           f"X-Vemo-Token: {admin.token}")
        assert answer.json["errinfo"]["key"] == "error_request"
    assert not STORE.exists()


def test_a_broken_store_is_told(admin, alice):
    STORE.write_text("this is no database, but long enough to be looked at as one by the library")
    for answer in (admin.get("apps", "action=list").json, grant(admin, app="VEMO.Notes", kind="everyone")):
        assert answer == {"success": False, "errinfo": {"sec": "common", "key": "error_system"}}
    assert mine(alice)["apps"] == []
    assert "no database" in STORE.read_text()


def test_a_demoted_administrator_has_no_say(server):
    from conftest import Client, account

    account("chief", groups=["administrators"])
    chief = Client()
    assert chief.login("chief").json["success"]
    assert grant(chief, app="VEMO.Notes", kind="everyone")["success"]
    subprocess.run(["gpasswd", "-d", "chief", "administrators"], check=True, stdout=subprocess.DEVNULL)
    answer = chief.post("apps", {"action": "revoke", "app": "VEMO.Notes", "kind": "everyone"})
    assert answer.header("x-request-error") == "noprivilege"
    assert mine(chief) == {"admin": False, "apps": ["VEMO.Notes"]}
