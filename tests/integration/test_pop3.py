"""Korvane.POP3 against real servers: Dovecot for USER/PASS, APOP, XOAUTH2 and
Kerberos GSSAPI, Cyrus pop3d for NTLM; plain, STLS and implicit TLS; a
mailbox of messages written by others, retrieved whole and as headers, with
Python's poplib on the same mailbox as the oracle."""
import glob
import os
import poplib
import ssl

import pytest

import korvane
from mailpeers import ALICE, ALICE_TOKEN, BOB, CYRUS_ALICE, KERBEROS_ALICE

CONNECTION_FAILURE = "[Error: Connection failure]"
OUT_OF_RANGE = "[Error: Message index is out of range]"

CORPUS_FILES = sorted(glob.glob("/usr/lib/python3.11/test/test_email/data/msg_*.txt")) + sorted(
    glob.glob("/usr/share/gocode/src/github.com/jhillyerd/enmime/testdata/**/*.raw", recursive=True))

# A few lines of the corpus are longer than poplib's guard against runaway servers.
poplib._MAXLINE = 1 << 20

# Bytes cross the automation boundary as code page 1252, one character per byte
# (its five holes are the C1 controls of the same number): this undoes it.
_FROM_1252 = {}
for _b in range(0x80, 0xA0):
    try:
        _FROM_1252[ord(bytes([_b]).decode("cp1252"))] = _b
    except UnicodeDecodeError:
        pass


def raw_bytes(text):
    return text.translate(_FROM_1252).encode("latin-1")


def small_message(n, body="hello"):
    return ("From: sender@example.test\r\nTo: bob@example.test\r\nSubject: message %d\r\n"
            "Message-ID: <m%d@example.test>\r\n\r\n%s %d\r\n" % (n, n, body, n)).encode()


@pytest.fixture(scope="module")
def corpus(peers):
    """alice@example.test's mailbox holds the corpus, in file order; returns its messages."""
    if len(CORPUS_FILES) < 100:
        pytest.skip("the corpora are missing (Debian libpython3.11-testsuite, golang-github-jhillyerd-enmime-dev)")
    messages = []
    for path in CORPUS_FILES:
        with open(path, "rb") as f:
            messages.append(f.read())
    peers.fill(ALICE[0], messages)
    peers.fill(KERBEROS_ALICE[0], [small_message(1), small_message(2)])
    return messages


@pytest.fixture
def bob(peers):
    """bob@example.test's mailbox with five small messages, fresh for each test."""
    peers.fill(BOB[0], [small_message(n) for n in range(1, 6)])
    return BOB


@pytest.fixture
def make_pop3(peers, tmp_path):
    """Makes Korvane.POP3 objects that log to a file; disconnects and releases them after the test."""
    made = []

    def make(auth_method=0, tls=None, log=True):
        pop = korvane.CreateObject("Korvane.POP3")
        pop.AuthMethod = auth_method
        pop.Timeout = 30
        if tls:
            sslobj = pop.SSL
            sslobj.AutosetPortAndSSL = False
            sslobj.Enabled = True
            sslobj.UseStartTLS = tls == "stls"
            korvane.release(sslobj)
        if log:
            pop.LogFilePath = str(tmp_path / ("pop3-%d.log" % len(made)))
            pop.EnableLogging = True
        made.append(pop)
        return pop

    yield make
    for pop in made:
        if pop.Connected:
            pop.Disconnect()
        korvane.release(pop)


def log_of(pop):
    with open(pop.LogFilePath, encoding="latin-1") as f:
        return f.read()


def oracle(peers, user, password, port, tls=None):
    """poplib logged in to the same mailbox, as the reference client."""
    context = ssl.create_default_context(cafile=peers.ca)
    if tls == "implicit":
        client = poplib.POP3_SSL("127.0.0.1", port, context=context, timeout=30)
    else:
        client = poplib.POP3("127.0.0.1", port, timeout=30)
        if tls == "stls":
            client.stls(context=context)
    client.user(user)
    client.pass_(password)
    return client


def joined(lines):
    """A poplib reply's lines as the message text it carried (every line ends in CRLF)."""
    return b"".join(line + b"\r\n" for line in lines)


# ---- logins ----

# name, AuthMethod, server, port attribute, user, password, TargetName, mailbox size
LOGINS = [
    ("user-pass", 0, "127.0.0.1", "pop3", *ALICE, "", "corpus"),
    ("apop", 1, "127.0.0.1", "pop3", *ALICE, "", "corpus"),
    ("xoauth2", 6, "127.0.0.1", "pop3", ALICE[0], ALICE_TOKEN, "", "corpus"),
    ("gssapi-kerberos-ticket-cache", 5, "localhost", "pop3", "", "", "", 2),
    ("gssapi-kerberos-password", 5, "localhost", "pop3", *KERBEROS_ALICE, "", 2),
    ("gssapi-kerberos-target-name", 5, "127.0.0.1", "pop3", "", "", "pop/localhost", 2),
    ("ntlm", 2, "127.0.0.1", "cyrus_pop3", *CYRUS_ALICE, "", 0),
    ("ntlm-pop3s", 2, "127.0.0.1", "cyrus_pop3s", *CYRUS_ALICE, "", 0),
]


@pytest.mark.parametrize("name,method,server,port,user,password,target,count", LOGINS, ids=[c[0] for c in LOGINS])
def test_login_method_against_real_server(peers, corpus, make_pop3, name, method, server, port, user, password,
                                          target, count):
    pop = make_pop3(method, tls="implicit" if port.endswith("s") else None)
    assert pop.Connect(server, getattr(peers, port), user, password, "", target) is True, pop.ErrDesc
    assert (pop.Connected, pop.IsError, pop.ErrCode, pop.ErrDesc) == (True, False, 0, "")
    assert pop.MessageCount == (len(corpus) if count == "corpus" else count)
    assert pop.Ping() is True
    assert pop.Disconnect() is True, log_of(pop)
    assert pop.Connected is False
    assert "[Connected to the server, getting statistics]" in log_of(pop)


# name, AuthMethod, port attribute, user, wrong password, server, ErrCode, lines the log must hold
WRONG = [
    ("user-pass", 0, "pop3", ALICE[0], "wrong", "127.0.0.1", 213,
     ["[Sending Password]", "[Possible error reason: incorrect UserName and/or Password]"]),
    ("apop", 1, "pop3", ALICE[0], "wrong", "127.0.0.1", 213,
     ["[Sending MD5 Digest]", "[Possible error reason: incorrect UserName and/or Password]"]),
    ("xoauth2", 6, "pop3", ALICE[0], "ya29.not-the-token", "127.0.0.1", 213,
     ["[Sending XOAUTH2 client response]",
      "[Possible error reason: incorrect UserName and/or OAuth2 access token (if you decode server reply "
      "from base64, you may get more information)]"]),
    ("gssapi-kerberos", 5, "pop3", KERBEROS_ALICE[0], "wrong", "localhost", 212,
     ["[Error: Incorrect credentials]", "[Possible error reason: incorrect domain name, username or password]"]),
    ("ntlm", 2, "cyrus_pop3", CYRUS_ALICE[0], "wrong", "127.0.0.1", 213,
     ["[Sending NTLM/MSN/GSSAPI Response]", "[Possible error reason: incorrect UserName and/or Password]"]),
]


@pytest.mark.parametrize("name,method,port,user,password,server,code,lines", WRONG, ids=[c[0] for c in WRONG])
def test_wrong_password_fails_with_code_and_text(peers, make_pop3, name, method, port, user, password, server, code,
                                                 lines):
    pop = make_pop3(method)
    assert pop.Connect(server, getattr(peers, port), user, password) is False
    assert (pop.IsError, pop.ErrCode, pop.ErrDesc, pop.Connected) == (True, code, CONNECTION_FAILURE, False)
    assert pop.MessageCount == 0
    log = log_of(pop)
    for line in lines + [CONNECTION_FAILURE]:
        assert line in log


def test_gssapi_with_the_ntlm_package_is_refused_where_no_server_offers_it(peers, make_pop3):
    # Neither Dovecot nor Cyrus takes NTLM tokens under AUTH GSSAPI: the
    # server's refusal must come back as the unsupported-command failure.
    pop = make_pop3(4)
    assert pop.Connect("127.0.0.1", peers.cyrus_pop3, *CYRUS_ALICE) is False
    assert (pop.ErrCode, pop.ErrDesc) == (211, CONNECTION_FAILURE)
    assert ("[Possible error reason: GSSAPI authentication type (auth gssapi command) is not supported by this "
            "server]") in log_of(pop)


# ---- TLS ----

def configure_tls(pop, mode, ca_store=None):
    sslobj = pop.SSL
    sslobj.AutosetPortAndSSL = False
    sslobj.Enabled = mode != "plain"
    sslobj.UseStartTLS = mode == "stls"
    if ca_store:
        sslobj.VerifyServerCert = True
        assert sslobj.SelectServerCertStore(ca_store, 1) is True
    korvane.release(sslobj)


# mode, port attribute, verify against the test CA, log line that shows the road taken
TLS_MODES = [
    ("plain", "pop3", False, None),
    ("stls", "pop3", False, "[Switching to SSL over regular port mode]"),
    ("stls", "pop3", True, "[Switching to SSL over regular port mode]"),
    ("implicit", "pop3s", False, "[Initiating SSL Connection]"),
    ("implicit", "pop3s", True, "[Initiating SSL Connection]"),
]


@pytest.mark.parametrize("mode,port,verify,line", TLS_MODES,
                         ids=["%s%s" % (m[0], "-verified" if m[2] else "") for m in TLS_MODES])
def test_connection_modes_carry_the_session(peers, bob, make_pop3, mode, port, verify, line):
    pop = make_pop3(log=True)
    configure_tls(pop, mode, peers.ca_store if verify else None)
    assert pop.Connect("127.0.0.1", getattr(peers, port), *bob) is True, pop.ErrDesc
    assert (pop.MessageCount, pop.TotalSize) == (5, sum(len(small_message(n)) for n in range(1, 6)))
    assert raw_bytes(pop.RetrieveSingleMessage(3).RawBody) == small_message(3)
    assert pop.Disconnect() is True, log_of(pop)
    log = log_of(pop)
    if line:
        assert line in log
    else:
        assert "SSL" not in log


def test_server_certificate_from_another_ca_is_refused(peers, make_pop3, tmp_path):
    other = tmp_path / "other-ca"
    os.system("sh %s %s >/dev/null 2>&1" % (os.path.join(os.path.dirname(__file__), "tls", "make-certs.sh"), other))
    pop = make_pop3()
    configure_tls(pop, "implicit", str(other / "ca-store.pem"))
    assert pop.Connect("127.0.0.1", peers.pop3s, *ALICE) is False
    assert (pop.ErrCode, pop.ErrDesc, pop.Connected) == (12, CONNECTION_FAILURE, False)
    assert "[Error: SSL Init Failed]" in log_of(pop)


def test_port_rule_turns_stls_on_for_port_110_only(peers, bob, make_pop3):
    # AutosetPortAndSSL adds STLS on port 110 alone; on another port an
    # Enabled object without UseStartTLS means TLS from the first byte, which
    # the plain listener cannot answer.
    pop = make_pop3()
    sslobj = pop.SSL
    sslobj.AutosetPortAndSSL = True
    sslobj.Enabled = True
    korvane.release(sslobj)
    assert pop.Connect("127.0.0.1", peers.pop3s, *bob) is True
    assert "[Switching to SSL over regular port mode]" not in log_of(pop)
    assert pop.Disconnect() is True, log_of(pop)
    assert pop.Connect("127.0.0.1", peers.pop3, *bob) is False
    assert pop.ErrCode != 0 and pop.Connected is False


# ---- the corpus, byte for byte ----

@pytest.mark.parametrize("mode,port", [("plain", "pop3"), ("stls", "pop3"), ("implicit", "pop3s")])
def test_corpus_retrieved_byte_for_byte_whole_and_as_headers(peers, corpus, make_pop3, mode, port):
    pop = make_pop3(log=False)
    configure_tls(pop, mode)
    assert pop.Connect("127.0.0.1", getattr(peers, port), *ALICE) is True, pop.ErrDesc
    ref = oracle(peers, *ALICE, getattr(peers, port), None if mode == "plain" else mode)
    try:
        count, size = ref.stat()
        assert (pop.MessageCount, pop.TotalSize) == (count, size) == (len(corpus), size)
        sizes = dict(map(int, entry.split()) for entry in ref.list()[1])
        mismatched = []
        for index in range(1, count + 1):
            whole = joined(ref.retr(index)[1])
            head = joined(ref.top(index, 0)[1])
            assert pop.Size(index) == sizes[index]
            got = pop.RetrieveSingleMessage(index)
            assert got is not None, pop.ErrDesc
            got_head = pop.RetrieveSingleMessageHeaders(index, 0)
            assert got_head is not None, pop.ErrDesc
            if raw_bytes(got.RawBody) != whole or raw_bytes(got_head.RawBody) != head:
                mismatched.append(os.path.basename(CORPUS_FILES[index - 1]))
            korvane.release(got)
            korvane.release(got_head)
        assert mismatched == []
    finally:
        ref.quit()


def test_retrieve_messages_and_headers_as_collections(peers, corpus, make_pop3):
    pop = make_pop3(log=False)
    assert pop.Connect("127.0.0.1", peers.pop3, *ALICE) is True
    ref = oracle(peers, *ALICE, peers.pop3)
    try:
        messages = pop.RetrieveMessages(3, 7)
        headers = pop.RetrieveHeaders(10, 12, 2)
        assert [raw_bytes(m.RawBody) for m in messages] == [joined(ref.retr(i)[1]) for i in range(3, 8)]
        assert [raw_bytes(m.RawBody) for m in headers] == [joined(ref.top(i, 2)[1]) for i in range(10, 13)]
        assert pop.IsError is False
    finally:
        ref.quit()
    tail = pop.RetrieveHeaders(len(corpus) - 1)
    assert len(tail) == 2 and pop.IsError is False
    assert pop.RetrieveHeaders(0) is None
    assert (pop.ErrCode, pop.ErrDesc) == (203, "[Error: Message index is less than 1]")


def test_retrieved_message_is_parsed(peers, corpus, make_pop3):
    pop = make_pop3(log=False)
    assert pop.Connect("127.0.0.1", peers.pop3, *ALICE) is True
    index = next(i for i, path in enumerate(CORPUS_FILES, 1) if path.endswith("mail/attachment.raw"))
    msg = pop.RetrieveSingleMessage(index)
    assert msg.Subject == "Attachment"
    assert [a.Filename for a in msg.Attachments] == ["test.html"]
    head = pop.RetrieveSingleMessageHeaders(index, 0)
    assert head.Subject == msg.Subject and head.FromAddr == msg.FromAddr
    assert head.BodyText == ""
    korvane.release(msg)
    korvane.release(head)


# ---- mailbox commands ----

def test_uid_list_matches_the_server_and_maps_both_ways(peers, bob, make_pop3):
    pop = make_pop3()
    assert pop.Connect("127.0.0.1", peers.pop3, *bob) is True
    ref = oracle(peers, *bob, peers.pop3)
    try:
        uids = [entry.split()[1].decode() for entry in ref.uidl()[1]]
    finally:
        ref.quit()
    assert [pop.GetMessageUID(i) for i in range(1, 6)] == uids
    assert [pop.GetMessageNumberFromUID(uid.swapcase()) for uid in uids] == [1, 2, 3, 4, 5]
    assert pop.Search() == uids
    assert log_of(pop).count("[Sending UIDL]") == 1  # the list is kept for the session
    assert pop.GetMessageNumberFromUID("no-such-uid") == 0
    assert (pop.IsError, pop.ErrCode, pop.ErrDesc) == (True, 203, "[Error: UID value not found]")
    assert not pop.GetMessageUID(6)
    assert (pop.ErrCode, pop.ErrDesc) == (203, OUT_OF_RANGE)


# index, expected Size, ErrCode
SIZES = [(1, len(small_message(1)), 0), (5, len(small_message(5)), 0), (0, -1, 203), (6, -1, 203)]


@pytest.mark.parametrize("index,size,code", SIZES)
def test_size_of_each_message(peers, bob, make_pop3, index, size, code):
    pop = make_pop3()
    assert pop.Connect("127.0.0.1", peers.pop3, *bob) is True
    assert (pop.Size(index), pop.ErrCode, pop.IsError) == (size, code, code != 0)


def test_delete_takes_effect_at_quit_and_keeps_the_numbering(peers, bob, make_pop3):
    pop = make_pop3()
    assert pop.Connect("127.0.0.1", peers.pop3, *bob) is True
    assert pop.DeleteMessage(2) is True and pop.DeleteMessage(4) is True
    assert "[Sending DELE: DELE 2\\r\\n]" in log_of(pop)
    assert pop.MessageCount == 5
    # The server refuses a message deleted in this session; the session stays.
    assert pop.RetrieveSingleMessage(2) is None
    assert (pop.ErrCode, pop.ErrDesc, pop.Connected) == (216, "[Error: message/headers retrieving failed]", True)
    assert pop.DeleteMessage(2) is False
    assert (pop.ErrCode, pop.ErrDesc, pop.Connected) == (216, "[Error: message deletion failed]", True)
    assert pop.DeleteMessage(6) is False
    assert (pop.ErrCode, pop.ErrDesc) == (203, OUT_OF_RANGE)
    assert pop.Disconnect() is True, log_of(pop)
    ref = oracle(peers, *bob, peers.pop3)
    try:
        assert [b"".join(ref.retr(i)[1][-1:]) for i in (1, 2, 3)] == [b"hello 1", b"hello 3", b"hello 5"]
    finally:
        ref.quit()


# command, multi-line, result starts with, result ends with, ErrCode
COMMANDS = [
    ("CAPA\r\n", True, "+OK", "\r\n.\r\n", 0),
    ("STAT\r\n", False, "+OK 5 ", "\r\n", 0),
    ("LIST 3\r\n", False, "+OK 3 %d" % len(small_message(3)), "\r\n", 0),
    ("UIDL\r\n", True, "+OK", "\r\n.\r\n", 0),
    ("NOSUCHCOMMAND\r\n", True, "-ERR", "\r\n", 216),
]


@pytest.mark.parametrize("command,multiline,head,tail,code", COMMANDS, ids=[c[0].strip() for c in COMMANDS])
def test_send_command_returns_the_server_reply(peers, bob, make_pop3, command, multiline, head, tail, code):
    pop = make_pop3()
    assert pop.Connect("127.0.0.1", peers.pop3, *bob) is True
    reply = pop.SendCommand(command, multiline)
    assert reply.startswith(head) and reply.endswith(tail)
    assert reply == pop.ServerResponse
    assert (pop.ErrCode, pop.Connected) == (code, True)
    if code:
        assert pop.ErrDesc == "[Error: Custom command failed]"
    # The session goes on after either reply.
    assert pop.Ping() is True


def test_methods_connect_by_themselves_with_the_stored_properties(peers, bob, make_pop3):
    pop = make_pop3()
    pop.ServerName = "127.0.0.1"
    pop.PortNumber = peers.pop3
    pop.UserName, pop.Password = bob
    msg = pop.RetrieveSingleMessage(5)
    assert pop.Connected is True and pop.MessageCount == 5
    assert raw_bytes(msg.RawBody) == small_message(5)
    korvane.release(msg)


# ---- events ----

class Recorder:
    def __init__(self, stop_after_progress=None):
        self.seen = []
        self.stop_after_progress = stop_after_progress

    def OnReceiveStart(self, Index, Proceed):
        self.seen.append(("start", Index))

    def OnReceiveProgress(self, Index, TotalBytesReceived, Proceed):
        self.seen.append(("progress", Index, TotalBytesReceived))
        if self.stop_after_progress is not None and TotalBytesReceived >= self.stop_after_progress:
            Proceed.value = False

    def OnReceiveComplete(self, Index, Proceed):
        self.seen.append(("complete", Index))

    def OnMessageComplete(self, Index, Proceed):
        self.seen.append(("message", Index))


def largest(corpus):
    return max(range(len(corpus)), key=lambda i: len(corpus[i])) + 1


def test_events_fire_in_order_for_each_message(peers, corpus, make_pop3):
    pop = make_pop3(log=False)
    pop.EnableEvents = True
    recorder = Recorder()
    events = korvane.WithEvents(pop, recorder)
    try:
        assert pop.Connect("127.0.0.1", peers.pop3, *ALICE) is True
        index = largest(corpus)
        assert pop.RetrieveSingleMessage(index) is not None
    finally:
        events.close()
    kinds = [e[0] for e in recorder.seen]
    assert kinds[0] == "start" and kinds[-2:] == ["complete", "message"]
    progress = [e for e in recorder.seen if e[0] == "progress"]
    assert kinds[1:-2] == ["progress"] * len(progress) and progress
    totals = [e[2] for e in progress]
    assert totals == sorted(totals) and totals[-1] >= pop.Size(index)
    assert {e[1] for e in recorder.seen} == {index}


def test_proceed_false_in_progress_cancels_and_closes(peers, corpus, make_pop3):
    pop = make_pop3(log=False)
    pop.EnableEvents = True
    events = korvane.WithEvents(pop, Recorder(stop_after_progress=1))
    try:
        assert pop.Connect("127.0.0.1", peers.pop3, *ALICE) is True
        assert pop.RetrieveSingleMessage(largest(corpus)) is None
    finally:
        events.close()
    assert (pop.ErrCode, pop.ErrDesc, pop.Connected) == (
        202, "[Error: Operation cancelled by user. Connection closed.]", False)
    # A cancelled object does not reconnect behind the caller's back.
    assert pop.RetrieveSingleMessage(1) is None and pop.Connected is False
