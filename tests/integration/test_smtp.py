"""Korvane.SMTP against a real Postfix that delivers into Dovecot: every login
method right and wrong (Dovecot's SASL, Cyrus SASL for NTLM, the KDC for
GSSAPI), plain, STARTTLS and implicit TLS with and without verification, and
messages composed by Korvane that come back byte-identical in body and
attachments over Korvane's POP3 and over Python's imaplib with its email
package as the reader; the relay lookup against a real dnsmasq. The pickup tool hands queue files to Postfix's sendmail."""
import email
import email.policy
import imaplib
import os
import random
import ssl
import subprocess
import sys

import pytest

import korvane
from mailpeers import ALICE, ALICE_TOKEN, BOB, KERBEROS_ALICE, SASLDB_ALICE

HERE = os.path.dirname(os.path.abspath(__file__))
PICKUP = os.path.join(HERE, "..", "..", "tools", "korvane-pickup")
CONNECTION_FAILURE = "[Error: Connection failure]"


@pytest.fixture
def make_smtp(tmp_path):
    """Makes Korvane.SMTP objects that log to a file; disconnects and releases them after the test."""
    made = []

    def make(auth_method=0, tls="plain", verify_store=None):
        smtp = korvane.CreateObject("Korvane.SMTP")
        smtp.AuthMethod = auth_method
        smtp.Timeout = 30
        smtp.Domain = "client.example.test"
        sslobj = smtp.SSL
        sslobj.AutosetPortAndSSL = False
        sslobj.Enabled = tls != "plain"
        sslobj.UseStartTLS = tls == "starttls"
        if verify_store:
            sslobj.VerifyServerCert = True
            assert sslobj.SelectServerCertStore(verify_store, 1) is True
        korvane.release(sslobj)
        smtp.LogFilePath = str(tmp_path / ("smtp-%d.log" % len(made)))
        smtp.EnableLogging = True
        made.append(smtp)
        return smtp

    yield make
    for smtp in made:
        if smtp.Connected:
            smtp.Disconnect()
        korvane.release(smtp)


def log_of(smtp):
    with open(smtp.LogFilePath, encoding="latin-1") as f:
        return f.read()


def send_note(smtp, to, subject):
    smtp.FromAddr = "Korvane <sender@example.test>"
    smtp.ToAddr = to
    smtp.Subject = subject
    smtp.BodyText = "note %s\r\n" % subject
    return smtp.Send()


def delivered(peers, user, count=1):
    return [email.message_from_bytes(m, policy=email.policy.default) for m in peers.wait_for_mail(user, count)]


# ---- logins ----

# name, AuthMethod, port attribute, TLS, server name, user, password, wrong-password code
LOGINS = [
    ("plain", 1, "submission", "starttls", "127.0.0.1", *BOB, 114),
    ("login", 2, "smtps", "implicit", "127.0.0.1", *BOB, 114),
    ("cram-md5", 3, "smtp_plainauth", "plain", "127.0.0.1", *BOB, 114),
    ("xoauth2", 8, "submission", "starttls", "127.0.0.1", ALICE[0], ALICE_TOKEN, 114),
    ("ntlm", 4, "smtp_ntlm", "plain", "127.0.0.1", *SASLDB_ALICE, 114),
    ("gssapi-kerberos", 7, "smtp", "starttls", "localhost", *KERBEROS_ALICE, 113),
]


@pytest.mark.parametrize("name,method,port,tls,server,user,password,wrong_code", LOGINS,
                         ids=[c[0] for c in LOGINS])
def test_login_method_sends_and_a_wrong_password_is_refused(peers, make_smtp, name, method, port, tls, server, user,
                                                            password, wrong_code):
    peers.clear(BOB[0])
    smtp = make_smtp(method, tls)
    smtp.ServerName, smtp.PortNumber, smtp.UserName, smtp.Password = server, getattr(peers, port), user, password
    assert smtp.Connect() is True, log_of(smtp)
    assert (smtp.Connected, smtp.IsError, smtp.ErrCode) == (True, False, 0)
    assert send_note(smtp, BOB[0], "login " + name) is True, log_of(smtp)
    assert smtp.Disconnect() is True
    assert "[Authenticated]" in log_of(smtp)
    [message] = delivered(peers, BOB[0])
    assert message["Subject"] == "login " + name

    wrong = make_smtp(method, tls)
    wrong.ServerName, wrong.PortNumber, wrong.UserName, wrong.Password = server, getattr(peers, port), user, "wrong"
    assert wrong.Connect() is False
    assert (wrong.ErrCode, wrong.ErrDesc, wrong.Connected) == (wrong_code, CONNECTION_FAILURE, False)


def test_mechanisms_the_server_does_not_offer_are_refused_with_their_reason(peers, make_smtp):
    smtp = make_smtp(5)  # MSN
    smtp.PortNumber, smtp.UserName, smtp.Password = peers.smtp_plainauth, *BOB
    assert smtp.Connect() is False
    assert smtp.ErrCode == 112
    assert ("[Possible error reason: MSN authentication type (auth msn command) is not supported by this server]"
            in log_of(smtp))


def test_login_before_starttls_is_not_offered_and_plain_helo_is_anonymous(peers, make_smtp):
    # On the STARTTLS listener AUTH comes only after TLS: asked in the clear, it is refused.
    smtp = make_smtp(1, "plain")
    smtp.PortNumber, smtp.UserName, smtp.Password = peers.smtp, *BOB
    assert smtp.Connect() is False
    assert smtp.ErrCode == 112
    # Without a login the same listener takes mail for its own domain.
    peers.clear(BOB[0])
    anonymous = make_smtp(0, "plain")
    anonymous.PortNumber = peers.smtp
    assert anonymous.Connect() is True
    assert "[Authenticated anonymously, sending to external domains might not work]" in log_of(anonymous)
    assert send_note(anonymous, BOB[0], "anonymous") is True
    delivered(peers, BOB[0])


# ---- TLS ----

# TLS mode, port attribute, verified against the test CA, line that shows the road
TLS_MODES = [
    ("starttls", "submission", False, "[Switching to SSL over regular port mode]"),
    ("starttls", "submission", True, "[Switching to SSL over regular port mode]"),
    ("implicit", "smtps", False, "[Initiating SSL Connection]"),
    ("implicit", "smtps", True, "[Initiating SSL Connection]"),
    ("starttls", "smtp_plainauth", False, None),  # not offered: the session goes on in the clear
]


@pytest.mark.parametrize("tls,port,verify,line", TLS_MODES,
                         ids=["%s-%s%s" % (m[0], m[1], "-verified" if m[2] else "") for m in TLS_MODES])
def test_tls_modes(peers, make_smtp, tls, port, verify, line):
    smtp = make_smtp(1, tls, peers.ca_store if verify else None)
    smtp.PortNumber, smtp.UserName, smtp.Password = getattr(peers, port), *BOB
    assert smtp.Connect() is True, log_of(smtp)
    log = log_of(smtp)
    if line:
        assert line in log
    else:
        assert "SSL" not in log and smtp.SupportsStartTLS is False
    assert smtp.Disconnect() is True


def test_server_certificate_from_another_ca_is_refused(peers, make_smtp, tmp_path):
    other = tmp_path / "other-ca"
    subprocess.run(["sh", os.path.join(HERE, "tls", "make-certs.sh"), str(other)], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    smtp = make_smtp(1, "implicit", str(other / "ca-store.pem"))
    smtp.PortNumber, smtp.UserName, smtp.Password = peers.smtps, *BOB
    assert smtp.Connect() is False
    assert (smtp.ErrCode, smtp.Connected) == (12, False)
    assert "[Error: SSL Init Failed]" in log_of(smtp)


# ---- messages through Postfix into Dovecot ----

def fetch_over_imap(peers, user, password):
    """Every message of the mailbox as Python's imaplib fetches it, parsed by its email package."""
    client = imaplib.IMAP4_SSL("127.0.0.1", peers.imaps, ssl_context=ssl.create_default_context(cafile=peers.ca))
    client.login(user, password)
    client.select("INBOX", readonly=True)
    _, numbers = client.search(None, "ALL")
    messages = []
    for n in numbers[0].split():
        _, data = client.fetch(n, "(RFC822)")
        messages.append(email.message_from_bytes(data[0][1], policy=email.policy.default))
    client.logout()
    return messages


def fetch_over_pop3(peers, user, password):
    """Every message of the mailbox as Korvane.POP3 retrieves it: subject, body, attachments' bytes."""
    pop = korvane.CreateObject("Korvane.POP3")
    pop.Timeout = 60
    try:
        assert pop.Connect("127.0.0.1", peers.pop3, user, password) is True, pop.ErrDesc
        got = {}
        for message in pop.RetrieveMessages():
            got[message.Subject] = (message.BodyText, {a.Filename: bytes(a.ContentAsArray) for a in message.Attachments})
        pop.Disconnect()
        return got
    finally:
        korvane.release(pop)


def test_composed_messages_come_back_byte_identical(peers, make_smtp, tmp_path):
    rng = random.Random(20)
    files = {
        "binary.bin": rng.randbytes(200000),
        "notes.txt": "d\u00e9j\u00e0 vu, \u65e5\u672c\r\n.starts with a dot\r\n..two dots\r\n".encode("utf-8") * 50,
        "large.bin": rng.randbytes(30 << 20),
        "logo.png": b"\x89PNG\r\n\x1a\n" + rng.randbytes(3000),
    }
    for name, data in files.items():
        (tmp_path / name).write_bytes(data)

    peers.clear(BOB[0])
    smtp = make_smtp(1, "starttls")
    smtp.PortNumber, smtp.UserName, smtp.Password = peers.submission, *BOB
    # subject, BodyFormat, body, attachments (name, content ID), with an alternative plain body
    shapes = [
        ("plain with dot lines", 0, "line one\r\n.\r\n.dot line\r\n..double\r\n", [], False),
        ("html with its plain alternative", 1, "<p>caf\u00e9 <b>bold</b></p>", [], True),
        ("related image", 1, '<p><img src="cid:logo"></p>', [("logo.png", "logo")], False),
        ("mixed", 0, "see attached\r\n", [("binary.bin", ""), ("notes.txt", "")], False),
        ("thirty megabytes", 0, "big\r\n", [("large.bin", "")], False),
    ]
    for subject, body_format, body, attachments, alternative in shapes:
        smtp.ResetMessage()
        smtp.FromAddr, smtp.ToAddr, smtp.Subject = "Sender <sender@example.test>", BOB[0], subject
        smtp.BodyFormat = body_format
        smtp.BodyText = body
        if alternative:
            assert smtp.MakeAltBody() is True
        for name, content_id in attachments:
            assert smtp.AddAttachment(str(tmp_path / name), "", content_id) is True
        assert smtp.Send() is True, log_of(smtp)
        assert smtp.GetAcceptedRecipients() == BOB[0]
    assert smtp.Disconnect() is True
    peers.wait_for_mail(BOB[0], len(shapes))

    over_imap = {m["Subject"]: m for m in fetch_over_imap(peers, *BOB)}
    over_pop3 = fetch_over_pop3(peers, *BOB)
    for subject, body_format, body, attachments, alternative in shapes:
        message = over_imap[subject]
        text = message.get_body(("html",) if body_format else ("plain",)).get_content()
        assert text.replace("\r\n", "\n").rstrip("\n") == body.replace("\r\n", "\n").rstrip("\n")
        if alternative:
            assert message.get_body(("plain",)) is not None
        parts = {part.get_filename(): part.get_payload(decode=True) for part in message.walk() if part.get_filename()}
        korvane_body, korvane_parts = over_pop3[subject]
        assert korvane_body.replace("\r\n", "\n").rstrip("\n") == body.replace("\r\n", "\n").rstrip("\n")
        for name, _ in attachments:
            assert parts[name] == files[name], name
            assert korvane_parts[name] == files[name], name


def test_refused_recipient_and_the_session_goes_on(peers, make_smtp):
    peers.clear(BOB[0])
    smtp = make_smtp(1, "starttls")
    smtp.PortNumber, smtp.UserName, smtp.Password = peers.submission, *BOB
    smtp.AllowRefusedRecipients = True
    smtp.FromAddr, smtp.Subject, smtp.BodyText = "sender@example.test", "some refused", "x"
    assert smtp.SendEx("", "nobody@elsewhere.invalid, %s" % BOB[0]) is True, log_of(smtp)
    assert (smtp.GetRefusedRecipients(), smtp.GetAcceptedRecipients()) == ("nobody@elsewhere.invalid", BOB[0])
    smtp.AllowRefusedRecipients = False
    assert smtp.SendEx("", "nobody@elsewhere.invalid") is False
    assert (smtp.ErrCode, smtp.Connected) == (123, True)
    assert smtp.ServerResponse.startswith("550 5.1.1 <nobody@elsewhere.invalid>")  # the refusal, not RSET's reply
    assert smtp.SendEx("", BOB[0]) is True
    delivered(peers, BOB[0], 2)


# ---- queue files and the pickup tool ----

def test_queue_file_arrives_through_sendmail_and_a_refused_one_stays(peers, make_smtp, tmp_path):
    queue = tmp_path / "pickup"
    queue.mkdir()
    peers.clear(BOB[0])
    smtp = make_smtp()
    smtp.FromAddr, smtp.ToAddr, smtp.Subject = "sender@example.test", BOB[0], "queued"
    smtp.BodyText = ".leading dot\r\nend\r\n"
    smtp.IsQueueIIS = True
    assert smtp.SendToQueue(str(queue)) is True, log_of(smtp)
    sendmail = "/usr/sbin/sendmail -C %s" % os.path.join(peers.postfix_dir, "etc")
    done = subprocess.run([sys.executable, PICKUP, str(queue), "--sendmail", sendmail, "--iis"],
                          capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    assert os.listdir(queue) == []
    [message] = delivered(peers, BOB[0])
    assert message["Subject"] == "queued"
    assert message.get_body(("plain",)).get_content().startswith(".leading dot")

    # A file that sendmail refuses (here an option Postfix's sendmail does not take) stays.
    assert smtp.SendToQueue(str(queue)) is True
    refused = subprocess.run([sys.executable, PICKUP, str(queue), "--sendmail", sendmail + " -X /nonexistent/log"],
                             capture_output=True, text=True, timeout=60)
    assert refused.returncode == 1 and "refused" in refused.stderr
    assert len(os.listdir(queue)) == 1


# ---- the relay lookup against a real DNS server ----

@pytest.fixture(scope="module")
def dns_server(tmp_path_factory):
    """dnsmasq, authoritative for example.test, on 127.0.0.5 port 53 (the client always asks 53)."""
    if os.geteuid() != 0:
        pytest.skip("dnsmasq on port 53 needs root")
    directory = str(tmp_path_factory.mktemp("dns"))
    up = subprocess.run(["bash", os.path.join(HERE, "peers", "dns-up.sh"), directory, "127.0.0.5", "53"],
                        capture_output=True, text=True, timeout=30)
    assert up.returncode == 0, up.stderr
    yield "127.0.0.5"
    subprocess.run(["bash", os.path.join(HERE, "peers", "dns-down.sh"), directory], timeout=30)


# address, DNSServer, SingleAttemptOnly, relay ("" for none)
RELAYS = [
    ("a@example.test", "127.0.0.5", False, "mail.example.test"),           # the lowest preference
    ("a@noip.example.test", "127.0.0.5", False, "missing.example.test"),
    ("a@mail.example.test", "127.0.0.5", False, "mail.example.test"),      # no MX, a clean answer: the domain
    ("a@nothere.example.test", "127.0.0.5", False, ""),                   # no such domain
    ("not an address", "127.0.0.5", False, ""),
    ("a@example.test", "127.0.0.6;127.0.0.5", False, "mail.example.test"),  # the first is silent
    ("a@example.test", "127.0.0.6;127.0.0.5", True, ""),                   # ... and asked alone
]


@pytest.mark.parametrize("address,server,single,relay", RELAYS, ids=[r[0] + " via " + r[1] for r in RELAYS])
def test_relay_server_from_the_mail_exchangers(dns_server, make_smtp, address, server, single, relay):
    smtp = make_smtp()
    assert (smtp.GetRelayServerFromEmailAddress(address, server, single, 1) or "") == relay
    assert smtp.IsError is False and smtp.Connected is False
