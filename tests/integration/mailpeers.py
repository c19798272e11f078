"""Real mail servers for the integration tests, started by the scripts in
peers/ on 127.0.0.1 from private configuration in a temporary directory, and
stopped by PID at the end: an MIT KDC, Dovecot (POP3 with STLS, POP3S, LMTP;
USER/PASS, APOP, XOAUTH2, GSSAPI), Cyrus pop3d (NTLM through Cyrus SASL) and
Postfix (SMTP into Dovecot; logins through Dovecot, NTLM through Cyrus SASL).

    peers = MailPeers.start()        # raises PeersUnavailable when they can't run here
    try:
        peers.fill("alice@example.test", [b"Subject: x\\r\\n\\r\\nbody\\r\\n"])
        ... POP3 on peers.pop3 / peers.pop3s ...
        peers.clear("bob@example.test")
        ... SMTP to bob@example.test on peers.submission ...
        [message] = peers.wait_for_mail("bob@example.test", 1)
    finally:
        peers.stop()

Postfix's listeners (peers/postfix-up.sh):
    smtp            STARTTLS offered, AUTH only after it; mail from 127/8 taken
                    without a login
    submission      STARTTLS and AUTH required
    smtps           implicit TLS, AUTH required
    smtp_plainauth  no TLS at all, AUTH in the clear
    smtp_ntlm       Cyrus SASL: NTLM, PLAIN, LOGIN, CRAM-MD5, also without TLS
The first four take PLAIN, LOGIN, CRAM-MD5 (ALICE, BOB), XOAUTH2 (ALICE_TOKEN)
and GSSAPI (service smtp@localhost, with krb5_env); smtp_ntlm takes SASLDB_ALICE.

Ports are picked free at start, so that two runs on one machine don't meet.
"""
import os
import shutil
import smtplib
import socket
import subprocess
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
PEERS = os.path.join(HERE, "peers")
SCRIPT_SECONDS = 60

# Accounts the servers are set up with (see peers/dovecot-up.sh, cyrus-up.sh).
ALICE = ("alice@example.test", "alicepw")
BOB = ("bob@example.test", "bobpw")
ALICE_TOKEN = "ya29.test-token-alice"
KERBEROS_ALICE = ("alice", "alicepw")       # its ticket logs in to the mailbox "alice"
CYRUS_ALICE = ("alice", "alicepw")
# Postfix's sasldb (realm example.test): NTLM also takes "alice@example.test"
# or the domain "EXAMPLE.TEST"; PLAIN, LOGIN and CRAM-MD5 either name.
SASLDB_ALICE = ("alice", "alicepw")


class PeersUnavailable(Exception):
    """The servers cannot run on this machine (not root, not installed)."""


def _free_ports(count):
    """count distinct ports free on 127.0.0.1 for TCP and UDP (the KDC takes both)."""
    ports, held = [], []
    try:
        while len(ports) < count:
            t = socket.socket()
            t.bind(("127.0.0.1", 0))
            port = t.getsockname()[1]
            u = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            try:
                u.bind(("127.0.0.1", port))
            except OSError:
                t.close()
                u.close()
                continue
            held += [t, u]
            ports.append(port)
    finally:
        for s in held:
            s.close()
    return ports


def _run(script, *args, env=None, log):
    """Runs one of peers/*.sh with output to log (daemons it starts may keep
    their inherited descriptors: a pipe would never reach its end); returns the
    last line it printed."""
    with open(log, "w+") as out:
        try:
            result = subprocess.run(["bash", os.path.join(PEERS, script), *args], stdout=out,
                                    stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                    env={**os.environ, **(env or {})}, timeout=SCRIPT_SECONDS)
        except subprocess.TimeoutExpired:
            raise RuntimeError("%s did not finish in %d s; see %s" % (script, SCRIPT_SECONDS, log))
        out.seek(0)
        text = out.read()
    if result.returncode != 0:
        raise RuntimeError("%s failed (%d):\n%s" % (script, result.returncode, text))
    lines = text.strip().splitlines()
    return lines[-1] if lines else ""


class MailPeers:
    def __init__(self, root):
        self.root = root
        self.certs = os.path.join(root, "certs")
        self.ca = os.path.join(self.certs, "ca.pem")
        self.ca_store = os.path.join(self.certs, "ca-store.pem")
        self.krb5_dir = os.path.join(root, "krb5")
        self.dovecot_dir = os.path.join(root, "dovecot")
        self.cyrus_dir = os.path.join(root, "cyrus")
        self.postfix_dir = os.path.join(root, "postfix")
        (self.pop3, self.pop3s, self.imap, self.imaps, self.lmtp, self.dovecot_auth,
         self.cyrus_pop3, self.cyrus_pop3s, self.kdc,
         self.smtp, self.submission, self.smtps, self.smtp_plainauth, self.smtp_ntlm) = _free_ports(14)
        self.krb5_env = {"KRB5_CONFIG": os.path.join(self.krb5_dir, "krb5.conf"),
                         "KRB5CCNAME": "FILE:" + os.path.join(self.krb5_dir, "cc.alice")}
        self._started = []
        self._seq = 0

    @classmethod
    def start(cls, with_cyrus=True, with_kerberos=True, with_postfix=True):
        """Starts the servers in a new temporary directory; stops what did start
        if one of them fails."""
        if os.geteuid() != 0:
            raise PeersUnavailable("the mail servers need root (users, ports, mail owner)")
        if not shutil.which("dovecot") and not os.path.exists("/usr/sbin/dovecot"):
            raise PeersUnavailable("Dovecot is not installed: run tests/integration/install-peers.sh")
        if with_postfix and not shutil.which("postfix") and not os.path.exists("/usr/sbin/postfix"):
            raise PeersUnavailable("Postfix is not installed: run tests/integration/install-peers.sh")
        root = tempfile.mkdtemp(prefix="korvane-peers-")
        os.chmod(root, 0o711)   # the servers drop root and must reach their files
        peers = cls(root)
        try:
            peers._up(with_cyrus, with_kerberos, with_postfix)
        except BaseException:
            peers.stop()
            raise
        return peers

    def _up(self, with_cyrus, with_kerberos, with_postfix):
        log = lambda name: os.path.join(self.root, name + ".out")  # noqa: E731
        subprocess.run(["sh", os.path.join(HERE, "tls", "make-certs.sh"), self.certs], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=SCRIPT_SECONDS)
        krb = []
        if with_kerberos:
            self._started.append(("krb5-down.sh", self.krb5_dir))
            _run("krb5-up.sh", self.krb5_dir, str(self.kdc), log=log("krb5"))
            krb = [self.krb5_dir]
        self._started.append(("dovecot-down.sh", self.dovecot_dir))
        _run("dovecot-up.sh", self.dovecot_dir, self.certs, *krb, log=log("dovecot"), env={
            "KV_POP3_PORT": str(self.pop3), "KV_POP3S_PORT": str(self.pop3s), "KV_IMAP_PORT": str(self.imap),
            "KV_IMAPS_PORT": str(self.imaps), "KV_LMTP_PORT": str(self.lmtp),
            "KV_AUTH_PORT": str(self.dovecot_auth)})
        if with_postfix:
            self._started.append(("postfix-down.sh", self.postfix_dir))
            _run("postfix-up.sh", self.postfix_dir, self.certs, log=log("postfix"), env={
                "KV_SMTP_PORT": str(self.smtp), "KV_SUBMISSION_PORT": str(self.submission),
                "KV_SMTPS_PORT": str(self.smtps), "KV_SMTP_PLAINAUTH_PORT": str(self.smtp_plainauth),
                "KV_SMTP_NTLM_PORT": str(self.smtp_ntlm), "KV_LMTP_PORT": str(self.lmtp),
                "KV_AUTH_PORT": str(self.dovecot_auth)})
        if with_cyrus:
            self._started.append(("cyrus-down.sh", self.cyrus_dir))
            _run("cyrus-up.sh", self.cyrus_dir, self.certs, log=log("cyrus"), env={
                "KV_CYRUS_POP3_PORT": str(self.cyrus_pop3), "KV_CYRUS_POP3S_PORT": str(self.cyrus_pop3s)})
        self.kerberos = with_kerberos
        self.cyrus = with_cyrus
        self.postfix = with_postfix

    def stop(self, keep_files=False):
        """Stops every server that was started, newest first, and removes the directory."""
        errors = []
        while self._started:
            script, directory = self._started.pop()
            try:
                done = subprocess.run(["bash", os.path.join(PEERS, script), directory], timeout=SCRIPT_SECONDS,
                                      stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
                if done.returncode != 0:
                    errors.append("%s: %s" % (script, done.stderr.decode(errors="replace").strip()))
            except subprocess.TimeoutExpired as e:
                errors.append(e)
        if not keep_files:
            shutil.rmtree(self.root, ignore_errors=True)
        if errors:
            raise RuntimeError("peers did not stop: %r" % errors)

    # ---- mailboxes ----

    def maildir(self, user):
        return os.path.join(self.dovecot_dir, "mail", user, "Maildir")

    def clear(self, user):
        """Empties the mailbox of user, with Dovecot's indexes and UID list,
        so the next session numbers from 1 again."""
        top = self.maildir(user)
        for name in os.listdir(top):
            path = os.path.join(top, name)
            if name in ("cur", "new", "tmp"):
                for f in os.listdir(path):
                    os.unlink(os.path.join(path, f))
            elif name.startswith("dovecot"):
                os.unlink(path) if os.path.isfile(path) else shutil.rmtree(path)

    def messages(self, user):
        """The messages in user's mailbox, oldest delivery first, as Dovecot
        stored them: a delivery has its Return-Path, Delivered-To and Received
        lines on top, and LF line ends where the wire had CRLF."""
        top = self.maildir(user)
        paths = [os.path.join(top, sub, name) for sub in ("new", "cur")
                 for name in os.listdir(os.path.join(top, sub))]
        found = []
        for path in paths:
            try:
                with open(path, "rb") as f:
                    found.append((os.fstat(f.fileno()).st_mtime_ns, os.path.basename(path), f.read()))
            except FileNotFoundError:     # moved from new/ to cur/ by a POP3 or IMAP session
                continue
        return [data for _, _, data in sorted(found)]

    def wait_for_mail(self, user, count, timeout=20):
        """Waits until user's mailbox holds count messages (Postfix delivers
        after its queue manager picks the message up) and returns them, oldest
        first. Raises TimeoutError when fewer arrived in time, AssertionError
        as soon as there are more (a message delivered twice)."""
        deadline = time.monotonic() + timeout
        while True:
            got = self.messages(user)
            if len(got) > count:
                raise AssertionError("%s holds %d messages, expected %d" % (user, len(got), count))
            if len(got) == count:
                return got
            if time.monotonic() >= deadline:
                raise TimeoutError("%s holds %d of %d messages after %s s; see %s" % (
                    user, len(got), count, timeout, os.path.join(self.postfix_dir, "log", "postfix.log")))
            time.sleep(0.05)

    def fill(self, user, messages):
        """Replaces user's mailbox with messages (bytes, exactly as the server
        is to give them), numbered in their order; returns their count.

        Dovecot numbers new maildir files in the order it lists the
        directory, so the files come with a UID list of our own."""
        self.clear(user)
        top = self.maildir(user)
        st = os.stat(top)
        names = []
        base = int(time.time())
        for data in messages:
            self._seq += 1
            name = "%d.M%08dP%d.korvane" % (base, self._seq, os.getpid())
            path = os.path.join(top, "cur", name + ":2,")
            with open(path, "wb") as f:
                f.write(data)
            os.chown(path, st.st_uid, st.st_gid)
            names.append(name)
        # Version 3 of the list: validity, next UID, then "UID :name" per message.
        lines = ["3 V%d N%d" % (base, len(names) + 1)]
        lines += ["%d :%s" % (uid, name) for uid, name in enumerate(names, 1)]
        listing = os.path.join(top, "dovecot-uidlist")
        with open(listing, "w") as f:
            f.write("\n".join(lines) + "\n")
        os.chown(listing, st.st_uid, st.st_gid)
        return len(messages)

    def deliver(self, user, message, sender="sender@example.test"):
        """Delivers message (bytes or str) to user through Dovecot's LMTP, as an MTA would."""
        with smtplib.LMTP("127.0.0.1", self.lmtp, timeout=30) as lmtp:
            refused = lmtp.sendmail(sender, [user], message)
        if refused:
            raise RuntimeError("LMTP refused %r" % refused)
