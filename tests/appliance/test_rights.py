"""Who may do what: every program that is installed, for everybody, with and without token."""

import os

import pytest
from conftest import Client
from rights import PAGES, ROWS, installed

WHO = ["nobody", "alice", "admin"]


def is_done(answer):
    """A picture is answered as it is."""
    return answer.header("Content-Type").startswith("image/") or answer.json["success"]


def test_every_installed_program_has_a_row(server):
    assert installed() == sorted({row.program for row in ROWS} | set(PAGES))


@pytest.mark.parametrize("row", ROWS, ids=lambda row: f"{row.name}-{row.parameters[:8]}")
@pytest.mark.parametrize("who", WHO)
@pytest.mark.parametrize("token", [True, False], ids=["token", "bare"])
def test_who_may_do_what(server, settings, row, who, token):
    client = Client()
    if who != "nobody":
        assert client.login(who).json["success"]
        if row.first:
            client.post(row.program, row.first.encode())
    if row.method == "GET":
        extra = ["-H", f"X-Vemo-Token: {client.token}"] if token and client.token else []
        answer = client.get(row.program, row.parameters, *extra)
    else:
        answer = client.post(row.program, row.parameters.encode(), token=token)
    got = answer.header("x-request-error") or ("ok" if is_done(answer) else "failed")
    assert got == (row.with_token if token else row.without_token)[WHO.index(who)]


@pytest.mark.parametrize("row", ROWS, ids=lambda row: f"{row.name}-{row.parameters[:8]}")
def test_answers_are_for_this_caller_alone(server, settings, row):
    for who in WHO:
        client = Client()
        if who != "nobody":
            client.login(who)
        if row.method == "GET":
            answer = client.get(row.program, row.parameters)
        else:
            answer = client.post(row.program, row.parameters.encode())
        assert answer.header("Cache-Control") in {"no-store", row.cached}
        assert answer.header("X-Content-Type-Options") == "nosniff"


def test_every_program_is_roots_and_not_writable(server):
    for program in installed():
        status = os.stat(f"/usr/vemo/vemoman/webman/{program}.cgi")
        assert (status.st_uid, status.st_mode & 0o7777) == (0, 0o755)
