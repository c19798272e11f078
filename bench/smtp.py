"""SMTP submission to a local Postfix, side by side in one run: Korvane.SMTP,
Python's smtplib, and a bare client that writes the same SMTP exchange from
a prepared buffer (the body already dot-stuffed), over one connection each.

    /usr/bin/python3 bench/smtp.py [--messages 1000] [--size-kb 100] [--big-mb 100] [--rounds 3]

Needs root (it starts Postfix and Dovecot through tests/integration/mailpeers.py).
Each client sends every message of the batch once per round, and the big
message once; rounds interleave the clients, and the best round counts.
Between clients the deliveries into Dovecot are awaited and the mailbox
emptied, so the server's background work does not fall into the next
client's time. Korvane sends prepared message files with RelayMessage;
smtplib sends the same bytes with sendmail(). Wall time is to the server's
final reply; client CPU is this process's own.
"""
import argparse
import base64
import os
import random
import resource
import smtplib
import socket
import sys
import tempfile
import time

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path.insert(0, os.path.join(ROOT, "python"))
sys.path.insert(0, os.path.join(ROOT, "tests", "integration"))
os.environ.setdefault("KORVANE_LIBRARY", os.path.join(ROOT, "build", "libkorvane.so"))

import korvane  # noqa: E402
from mailpeers import BOB, MailPeers, PeersUnavailable  # noqa: E402

SENDER = "bench@example.test"


def make_message(rng, n, size):
    """A message of about size bytes: a text part with some dot-led lines and a base64 attachment."""
    text = []
    for i in range(40):
        line = "line %d of message %d, with words enough to look like a letter" % (i, n)
        text.append(("." + line) if i % 13 == 5 else line)
    encoded = base64.b64encode(rng.randbytes(max(0, size - 4000) * 3 // 4)).decode()
    lines = ["From: Bench <%s>" % SENDER, "To: Bob <%s>" % BOB[0], "Subject: bench %d" % n,
             "MIME-Version: 1.0", 'Content-Type: multipart/mixed; boundary="b%d"' % n, "",
             "--b%d" % n, "Content-Type: text/plain; charset=us-ascii", ""] + text + [
        "--b%d" % n, "Content-Type: application/octet-stream; name=\"data.bin\"",
        "Content-Transfer-Encoding: base64", ""] + [encoded[i:i + 76] for i in range(0, len(encoded), 76)] + [
        "--b%d--" % n, ""]
    return "\r\n".join(lines).encode()


def stuffed(message):
    body = message.replace(b"\r\n.", b"\r\n..")
    if body.startswith(b"."):
        body = b"." + body
    return body + (b".\r\n" if body.endswith(b"\r\n") else b"\r\n.\r\n")


# ---- the clients; each sends its messages over one connection ----

def korvane_client(port, files):
    smtp = korvane.CreateObject("Korvane.SMTP")
    smtp.ServerName, smtp.PortNumber, smtp.Domain = "127.0.0.1", port, "bench.example.test"
    if not smtp.Connect():
        raise RuntimeError("Korvane: " + smtp.ErrDesc)
    for path in files:
        if not smtp.RelayMessage(path, SENDER, BOB[0]):
            raise RuntimeError("Korvane: %s: %s" % (path, smtp.ErrDesc))
    smtp.Disconnect()
    korvane.release(smtp)


def smtplib_client(port, messages):
    client = smtplib.SMTP("127.0.0.1", port, local_hostname="bench.example.test")
    for message in messages:
        client.sendmail(SENDER, [BOB[0]], message)
    client.quit()


def bare_client(port, prepared):
    sock = socket.create_connection(("127.0.0.1", port), timeout=120)
    buf = bytearray()

    def reply():
        """The code of the next whole reply; continuation lines ("250-") are passed over."""
        while True:
            end = buf.find(b"\r\n")
            if end < 0:
                chunk = sock.recv(65536)
                if not chunk:
                    raise RuntimeError("bare: connection closed")
                buf.extend(chunk)
                continue
            line = bytes(buf[:end])
            del buf[:end + 2]
            if line[3:4] != b"-":
                return line[:3]

    reply()
    sock.sendall(b"HELO bench.example.test\r\n")
    reply()
    for body in prepared:
        for command in (b"MAIL FROM:<%s>\r\n" % SENDER.encode(), b"RCPT TO:<%s>\r\n" % BOB[0].encode(),
                        b"DATA\r\n"):
            sock.sendall(command)
            if reply()[:1] not in (b"2", b"3"):
                raise RuntimeError("bare: refused")
        sock.sendall(body)
        if reply()[:1] != b"2":
            raise RuntimeError("bare: message refused")
    sock.sendall(b"QUIT\r\n")
    reply()
    sock.close()


def cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--messages", type=int, default=1000)
    ap.add_argument("--size-kb", type=int, default=100)
    ap.add_argument("--big-mb", type=int, default=100)
    ap.add_argument("--rounds", type=int, default=3)
    ap.add_argument("--seed", type=int, default=9)
    args = ap.parse_args()
    if os.path.isdir("/tmp/korvane"):
        print("note: /tmp/korvane exists, so the library writes its trace; figures will be low")
    rng = random.Random(args.seed)
    batch = [make_message(rng, n, args.size_kb * 1000) for n in range(1, args.messages + 1)]
    big = [make_message(rng, 0, args.big_mb * 1000 * 1000)]
    try:
        peers = MailPeers.start(with_cyrus=False, with_kerberos=False)
    except PeersUnavailable as e:
        print("skipped: %s" % e)
        return 0
    tmp = tempfile.mkdtemp(prefix="korvane-smtp-bench-")
    try:
        def files_of(messages, tag):
            paths = []
            for i, m in enumerate(messages):
                path = os.path.join(tmp, "%s-%d.eml" % (tag, i))
                with open(path, "wb") as f:
                    f.write(m)
                paths.append(path)
            return paths

        workloads = [("%d x %d KB" % (len(batch), args.size_kb), batch, files_of(batch, "m")),
                     ("1 x %d MB" % args.big_mb, big, files_of(big, "big"))]
        port = peers.smtp_plainauth
        clients = [
            ("Korvane.SMTP", lambda w: korvane_client(port, w[2])),
            ("smtplib", lambda w: smtplib_client(port, w[1])),
            ("bare client", lambda w: bare_client(port, [stuffed(m) for m in w[1]])),
        ]
        best = {}
        for r in range(args.rounds):
            for work in workloads:
                for name, run in clients:
                    peers.clear(BOB[0])
                    cpu0, t0 = cpu_seconds(), time.perf_counter()
                    run(work)
                    wall, cpu = time.perf_counter() - t0, cpu_seconds() - cpu0
                    peers.wait_for_mail(BOB[0], len(work[1]), timeout=600)
                    key = (work[0], name)
                    if key not in best or wall < best[key][0]:
                        best[key] = (wall, cpu)
        print("load average: %.2f %.2f %.2f" % os.getloadavg())
        print("%-16s %-14s %9s %9s %11s %14s" % ("workload", "client", "MB", "seconds", "MB/s", "client CPU s"))
        for work in workloads:
            size = sum(len(m) for m in work[1]) / 1e6
            for name, _ in clients:
                wall, cpu = best[(work[0], name)]
                print("%-16s %-14s %9.1f %9.3f %11.1f %14.3f" % (work[0], name, size, wall, size / wall, cpu))
            k, s, b = (best[(work[0], n)] for n in ("Korvane.SMTP", "smtplib", "bare client"))
            print("%-16s Korvane / bare client throughput = %.0f%% (target >= 95%%)   "
                  "smtplib CPU / Korvane CPU = %.1fx (target >= 3x)" % (work[0], 100 * b[0] / k[0], s[1] / k[1]))
    finally:
        peers.stop()
        for name in os.listdir(tmp):
            os.unlink(os.path.join(tmp, name))
        os.rmdir(tmp)
    return 0


if __name__ == "__main__":
    sys.exit(main())
