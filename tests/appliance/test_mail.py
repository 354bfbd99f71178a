"""Mail, through the real mailer, to a real SMTP server."""

import email
import email.policy
import subprocess
import time
from pathlib import Path

import pytest
from aiosmtpd.controller import Controller


class Sink:
    """Keeps what the server takes: sender, recipients and the message's bytes."""

    def __init__(self):
        self.mails = []

    async def handle_DATA(self, server, session, envelope):
        self.mails.append((envelope.mail_from, envelope.rcpt_tos, envelope.content))
        return "250 OK"

    def wait(self, count=1, seconds=10):
        end = time.monotonic() + seconds
        while len(self.mails) < count and time.monotonic() < end:
            time.sleep(0.02)
        assert len(self.mails) == count
        return self.mails[-1]


@pytest.fixture
def sink():
    handler = Sink()
    controller = Controller(handler, hostname="127.0.0.1", port=25)
    controller.start()
    yield handler
    controller.stop()


def send(*arguments, password=None, code=0):
    extra = [] if password is None else ["--password"]
    done = subprocess.run(["zem-mail", *arguments, *extra], input=(password or "").encode() + b"\n",
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=20, check=False)
    assert done.returncode == code, done.stderr
    return done


def parsed(content):
    return email.message_from_bytes(content, policy=email.policy.default)


def test_the_mail_about_an_account_arrives(sink):
    send("mona", "mona@example.org", password="s3cret %USER_NAME% =20 ü")
    sender, recipients, content = sink.wait()
    message = parsed(content)
    assert recipients == ["mona@example.org"] and sender == str(message["from"]) and sender.startswith("root@")
    assert message["subject"] == "Your account" and message["to"] == "mona@example.org"
    assert "User name: mona\n" in message.get_content().replace("\r\n", "\n")
    assert "Password: s3cret %USER_NAME% =20 ü\n" in message.get_content().replace("\r\n", "\n")
    assert not message.defects


@pytest.mark.parametrize("code, subject", [("ger", "Dein Zugang"), ("jpn", "アカウントのお知らせ")])
def test_in_the_language_of_mails(sink, settings, code, subject):
    settings(maillang=code, mail_from="nas@example.org")
    send("mona", "mona@example.org")
    sender, _, content = sink.wait()
    assert sender == "nas@example.org" and parsed(content)["subject"] == subject
    assert "********" in parsed(content).get_content()


@pytest.mark.parametrize("user", ["x\nBcc: evil@example.org", "x\r\n\r\nbody", "x\r\n.\r\nMAIL FROM:<a@b>", "\x1b[31m",
                                  "=?utf-8?q?=0ABcc:_evil@example.org?=", "%PASSWD%", "a" * 100000])
def test_hostile_names_forge_nothing(sink, user):
    Path("/usr/vemo/share/mail/enu/named").write_text("Subject: For %USER_NAME%\n\n%USER_NAME%\n")
    send(user, "mona@example.org", "--template", "named")
    _, recipients, content = sink.wait()
    message = parsed(content)
    assert recipients == ["mona@example.org"]
    assert {name.lower() for name in message.keys()} <= {
        "from", "to", "subject", "date", "message-id", "auto-submitted", "mime-version", "content-type",
        "content-transfer-encoding", "received", "x-peer"}
    assert message["bcc"] is None and len(message.get_all("subject")) == 1
    assert message.get_content().replace("\r", "").strip("\n") == user.replace("\r", "").strip("\n")


@pytest.mark.parametrize("recipient", ["", "mona", "-Xlog@example.org", "a@b,c@d", "a@b\nBcc: c@d", "<a@b>", "a@b c@d"])
def test_hostile_recipients_get_nothing(sink, recipient):
    send("mona", recipient)
    time.sleep(0.3)
    assert not sink.mails and not Path("log@example.org").exists()


def test_the_password_is_in_no_list_of_processes_and_in_no_log(sink, log):
    log.take()
    slow = Path("/usr/sbin/sendmail")
    real = slow.readlink()
    slow.unlink()
    slow.write_text("#!/bin/sh\nsleep 1\nexec /usr/bin/msmtp \"$@\"\n")
    slow.chmod(0o755)
    try:
        send("mona", "mona@example.org", password="s3cret-in-nobodys-sight")
        seen = b"".join(path.read_bytes() for path in Path("/proc").glob("[0-9]*/cmdline"))
        seen += b"".join(path.read_bytes() for path in Path("/proc").glob("[0-9]*/environ") if path.exists())
        sink.wait()
    finally:
        slow.unlink()
        slow.symlink_to(real)
    assert b"sendmail" in seen and b"in-nobodys-sight" not in seen
    assert not any("in-nobodys-sight" in line for line in log.take())


def test_wrong_calls_are_told():
    for arguments in ([], ["x"], ["x", "a@b", "--template"], ["x", "a@b", "--nothing"]):
        assert b"usage" in send(*arguments, code=2).stderr
