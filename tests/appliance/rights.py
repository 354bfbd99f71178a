"""Who may do what: a row for each action of each program that is installed.

A new program adds its rows here; without one the tests fail.
"""

from dataclasses import dataclass
from pathlib import Path
from urllib.parse import parse_qsl, quote_plus

from pictures import encoded, png

UNAUTH, NO_PRIVILEGE, OK = "unauth", "noprivilege", "ok"

APPLY = ("action=apply&hostname=x&comment=&mode=dhcp&ip=10.1&mask=255.0.0.0&gateway=10.2&mtu=1500&speed=10"
         "&valid_from=2024/1/1")
PICTURE = "action=upload&data=" + quote_plus(encoded(png(1, 1))) + "&kind="


@dataclass
class Row:
    """An action: how it is asked for, and what nobody, an ordinary user and an
    administrator get, with the token and without: "ok" or the reason of the refusal."""

    program: str
    method: str
    parameters: str
    with_token: tuple
    without_token: tuple
    first: str = ""  # what is posted before, with the token
    cached: str = "no-store"  # what caches are told

    @property
    def name(self):
        return f"{self.program}-{self.fields.get('action', 'none')}-{self.method}"

    @property
    def fields(self):
        return dict(parse_qsl(self.parameters, keep_blank_values=True))


ROWS = [
    Row("login", "POST", "action=login&username=alice&passwd=alice-demo", (OK, OK, OK), (OK, OK, OK)),
    Row("logout", "POST", "action=logout", (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH)),
    Row("session", "GET", "", (UNAUTH, OK, OK), (UNAUTH, OK, OK)),
    Row("session", "GET", "poll=yes", (UNAUTH, OK, OK), (UNAUTH, OK, OK)),
    Row("session", "POST", "", (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH)),
    Row("network", "GET", "action=load", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, OK)),
    Row("network", "POST", "action=load", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, UNAUTH)),
    Row("network", "POST", APPLY, (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, UNAUTH)),
    Row("usersettings", "GET", "action=load", (UNAUTH, OK, OK), (UNAUTH, OK, OK)),
    Row("usersettings", "POST", 'action=apply&settings={"x":1}', (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH)),
    Row("groupsettings", "GET", "action=load", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, OK)),
    Row("groupsettings", "GET", "action=get", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, OK)),
    Row("groupsettings", "POST", 'action=apply&settings={"x":1}', (UNAUTH, NO_PRIVILEGE, OK),
        (UNAUTH, NO_PRIVILEGE, UNAUTH)),
    Row("moduledata", "GET", "action=list", (UNAUTH, OK, OK), (UNAUTH, OK, OK)),
    Row("moduledata", "POST", "action=write&name=x&data=1", (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH)),
    Row("moduledata", "GET", "action=get&name=x", (UNAUTH, OK, OK), (UNAUTH, OK, OK),
        first="action=write&name=x&data=1"),
    Row("moduledata", "POST", "action=remove&name=x", (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH),
        first="action=write&name=x&data=1"),
    Row("csp", "GET", "action=list", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, OK)),
    Row("csp", "GET", "action=load", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, OK)),
    Row("csp", "POST", 'action=save&name=x&document={"rule":{}}', (UNAUTH, NO_PRIVILEGE, OK),
        (UNAUTH, NO_PRIVILEGE, UNAUTH)),
    Row("csp", "GET", "action=get&name=x", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, OK),
        first='action=save&name=x&document={"rule":{}}'),
    Row("files", "GET", "action=list", (UNAUTH, OK, OK), (UNAUTH, OK, OK)),
    Row("files", "GET", "action=list&path=/public", (UNAUTH, OK, OK), (UNAUTH, OK, OK)),
    Row("files", "GET", "action=get&path=/public/Welcome.txt", (UNAUTH, OK, OK), (UNAUTH, OK, OK)),
    Row("files", "POST", "action=create&path=/home/Row", (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH),
        first="action=delete&path=/home/Row"),
    Row("files", "POST", "action=rename&path=/home/Row&name=Row2", (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH),
        first="action=create&path=/home/Row"),
    Row("files", "POST", "action=delete&path=/home/Row", (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH),
        first="action=create&path=/home/Row"),
    Row("registry", "GET", "", (UNAUTH, OK, OK), (UNAUTH, OK, OK), cached="private, no-cache"),
    Row("registry", "POST", "", (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH), cached="private, no-cache"),
    Row("apps", "GET", "action=get", (UNAUTH, OK, OK), (UNAUTH, OK, OK)),
    Row("apps", "GET", "action=list", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, OK)),
    Row("apps", "POST", "action=grant&app=VEMO.Notes&kind=everyone", (UNAUTH, NO_PRIVILEGE, OK),
        (UNAUTH, NO_PRIVILEGE, UNAUTH)),
    Row("apps", "POST", "action=revoke&app=VEMO.Notes&kind=everyone", (UNAUTH, NO_PRIVILEGE, OK),
        (UNAUTH, NO_PRIVILEGE, UNAUTH)),
    Row("appearance", "GET", "action=load", (UNAUTH, OK, OK), (UNAUTH, OK, OK)),
    Row("appearance", "GET", "action=list&kind=desktop", (UNAUTH, OK, OK), (UNAUTH, OK, OK)),
    Row("appearance", "GET", "action=list&kind=login", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, OK)),
    Row("appearance", "GET", "action=list&kind=sharing", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, OK)),
    Row("appearance", "GET", "action=get&kind=desktop", (UNAUTH, OK, OK), (UNAUTH, OK, OK), first=PICTURE + "desktop",
        cached="private, no-cache"),
    # The login pages show theirs before a login; what they showed before is the administrators'.
    Row("appearance", "GET", "action=get&kind=login", (OK, OK, OK), (OK, OK, OK), cached="private, no-cache"),
    Row("appearance", "GET", "action=get&kind=sharing", (OK, OK, OK), (OK, OK, OK), cached="private, no-cache"),
    Row("appearance", "GET", "action=get&kind=login&slot=0", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, OK),
        cached="private, no-cache"),
    Row("appearance", "POST", PICTURE + "desktop", (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH)),
    Row("appearance", "POST", PICTURE + "login", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, UNAUTH)),
    Row("appearance", "POST", PICTURE + "sharing", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, UNAUTH)),
    Row("appearance", "POST", "action=choose&kind=desktop&slot=1", (UNAUTH, OK, OK), (UNAUTH, UNAUTH, UNAUTH),
        first=PICTURE + "desktop"),
    Row("appearance", "POST", "action=choose&kind=login&slot=0", (UNAUTH, NO_PRIVILEGE, OK),
        (UNAUTH, NO_PRIVILEGE, UNAUTH)),
    Row("appearance", "POST", "action=apply&theme=dark", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, UNAUTH)),
    Row("csp", "POST", "action=delete&name=x", (UNAUTH, NO_PRIVILEGE, OK), (UNAUTH, NO_PRIVILEGE, UNAUTH)),
]

# Pages are for everybody, and answer with no JSON; uploads are no forms: tested apart.
PAGES = ["desktop", "upload"]


def installed():
    return sorted(path.stem for path in Path("/usr/vemo/vemoman/webman").glob("*.cgi"))
