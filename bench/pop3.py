"""POP3 retrieval from a local Dovecot, side by side in one run: Korvane.POP3,
Python's poplib, and a raw read of the same bytes (a minimal client that
sends each RETR and reads the reply to its terminator, nothing more), over
POP3 and POP3S.

    /usr/bin/python3 bench/pop3.py [--messages 1000] [--total-mb 100] [--rounds 3] [--seed 7]

Needs root (it starts Dovecot through tests/integration/mailpeers.py). The
mailbox is generated from the seed: mostly small text messages, some HTML
with images, some large base64 attachments, dot-led lines among them, every
line ending in CRLF. Each client retrieves every message once per round; the
best round counts. The library is $KORVANE_LIBRARY or build/libkorvane.so.
"""
import argparse
import base64
import os
import poplib
import random
import resource
import socket
import ssl
import sys
import time

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path.insert(0, os.path.join(ROOT, "python"))
sys.path.insert(0, os.path.join(ROOT, "tests", "integration"))
os.environ.setdefault("KORVANE_LIBRARY", os.path.join(ROOT, "build", "libkorvane.so"))

import korvane  # noqa: E402
from mailpeers import BOB, MailPeers, PeersUnavailable  # noqa: E402

WORDS = ("the of and to in is that for it as with was on be by this are from at or an have not which "
         "report figures quarter meeting agenda invoice schedule attached please review thanks regards "
         "server mailbox delivery message tomorrow project budget draft final update").split()


def text_lines(rng, count):
    lines = []
    for _ in range(count):
        n = rng.randint(3, 14)
        line = " ".join(rng.choice(WORDS) for _ in range(n))
        if rng.random() < 0.03:
            line = "." + line  # dot-stuffed on the wire
        lines.append(line)
    return lines


def base64_lines(rng, size):
    data = rng.randbytes(size)
    text = base64.b64encode(data).decode()
    return [text[i:i + 76] for i in range(0, len(text), 76)]


def make_message(rng, n, target):
    """One message of about target bytes."""
    head = [
        "Return-Path: <sender%d@example.test>" % (n % 37),
        "Received: from relay.example.test (relay.example.test [127.0.0.1])",
        "\tby mail.example.test with ESMTPS id %08X; Mon, 2 Jan 2023 10:%02d:00 +0000" % (n, n % 60),
        "From: Sender %d <sender%d@example.test>" % (n % 37, n % 37),
        "To: Bob <bob@example.test>",
        "Subject: %s %d" % (" ".join(rng.choice(WORDS) for _ in range(5)), n),
        "Date: Mon, 2 Jan 2023 10:%02d:00 +0000" % (n % 60),
        "Message-ID: <%d.%d@example.test>" % (n, rng.randint(0, 1 << 30)),
        "MIME-Version: 1.0",
    ]
    text_size = min(target, rng.randint(800, 6000))
    body = text_lines(rng, max(1, text_size // 60))
    attachment = target - text_size
    if attachment < 2000:
        head.append("Content-Type: text/plain; charset=utf-8")
        lines = head + [""] + body
    else:
        kind = rng.choice([("application/pdf", "report.pdf"), ("image/jpeg", "photo.jpg"),
                           ("application/zip", "archive.zip")])
        lines = head + ['Content-Type: multipart/mixed; boundary="b%d"' % n, "", "--b%d" % n,
                        "Content-Type: text/plain; charset=utf-8", ""] + body + [
            "--b%d" % n, "Content-Type: %s; name=\"%s\"" % kind,
            "Content-Transfer-Encoding: base64", "Content-Disposition: attachment; filename=\"%s\"" % kind[1],
            ""] + base64_lines(rng, attachment * 3 // 4) + ["--b%d--" % n]
    return ("\r\n".join(lines) + "\r\n").encode()


def make_mailbox(seed, count, total):
    """count messages of about total bytes in all: sizes drawn log-normal, so
    that most are a few KB and a few carry megabytes, then scaled."""
    rng = random.Random(seed)
    sizes = [min(rng.lognormvariate(10, 1.4), 8e6) for _ in range(count)]
    scale = total / sum(sizes)
    return [make_message(rng, n, max(1500, int(s * scale))) for n, s in enumerate(sizes, 1)]


# ---- the clients; each returns the bytes it received ----

def korvane_client(port, tls, user, password, count):
    pop = korvane.CreateObject("Korvane.POP3")
    sslobj = pop.SSL
    sslobj.AutosetPortAndSSL = False
    sslobj.Enabled = tls
    korvane.release(sslobj)
    if not pop.Connect("127.0.0.1", port, user, password):
        raise RuntimeError("Korvane: " + pop.ErrDesc)
    received = 0
    for i in range(1, count + 1):
        msg = pop.RetrieveSingleMessage(i)
        if msg is None:
            raise RuntimeError("Korvane: message %d: %s" % (i, pop.ErrDesc))
        received += pop.Size(i)
        korvane.release(msg)
    pop.Disconnect()
    korvane.release(pop)
    return received


def poplib_client(port, tls, user, password, count, context):
    client = poplib.POP3_SSL("127.0.0.1", port, context=context) if tls else poplib.POP3("127.0.0.1", port)
    client.user(user)
    client.pass_(password)
    received = 0
    for i in range(1, count + 1):
        received += client.retr(i)[2]
    client.quit()
    return received


def raw_client(port, tls, user, password, count, context):
    sock = socket.create_connection(("127.0.0.1", port), timeout=60)
    if tls:
        sock = context.wrap_socket(sock, server_hostname="localhost")
    buf = bytearray()

    def reply(terminator):
        start = 0
        while True:
            end = buf.find(terminator, start)
            if end >= 0:
                end += len(terminator)
                out = bytes(buf[:end]) if end < 256 else end
                del buf[:end]
                return out
            start = max(0, len(buf) - len(terminator) + 1)
            chunk = sock.recv(1 << 18)
            if not chunk:
                raise RuntimeError("raw: connection closed")
            buf.extend(chunk)

    reply(b"\r\n")
    for line in (b"USER %s\r\n" % user.encode(), b"PASS %s\r\n" % password.encode()):
        sock.sendall(line)
        if not reply(b"\r\n").startswith(b"+OK"):
            raise RuntimeError("raw: login refused")
    received = 0
    for i in range(1, count + 1):
        sock.sendall(b"RETR %d\r\n" % i)
        got = reply(b"\r\n.\r\n")
        received += got if isinstance(got, int) else len(got)
    sock.sendall(b"QUIT\r\n")
    reply(b"\r\n")
    sock.close()
    return received


def cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_SELF)
    return usage.ru_utime + usage.ru_stime


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--messages", type=int, default=1000)
    ap.add_argument("--total-mb", type=float, default=100)
    ap.add_argument("--rounds", type=int, default=3)
    ap.add_argument("--seed", type=int, default=7)
    args = ap.parse_args()
    if os.path.isdir("/tmp/korvane"):
        print("note: /tmp/korvane exists, so the library writes its trace; figures will be low")

    t0 = time.perf_counter()
    messages = make_mailbox(args.seed, args.messages, int(args.total_mb * 1e6))
    total = sum(len(m) for m in messages)
    print("mailbox: %d messages, %.1f MB (largest %.1f MB), made in %.1f s" % (
        len(messages), total / 1e6, max(map(len, messages)) / 1e6, time.perf_counter() - t0))
    try:
        peers = MailPeers.start(with_cyrus=False, with_kerberos=False)
    except PeersUnavailable as e:
        print("skipped: %s" % e)
        return 0
    try:
        peers.fill(BOB[0], messages)
        del messages
        context = ssl.create_default_context(cafile=peers.ca)
        count = args.messages
        clients = [
            ("Korvane.POP3", lambda port, tls: korvane_client(port, tls, *BOB, count)),
            ("poplib", lambda port, tls: poplib_client(port, tls, *BOB, count, context)),
            ("raw read", lambda port, tls: raw_client(port, tls, *BOB, count, context)),
        ]
        # One untimed pass brings the files into the page cache and builds Dovecot's index.
        raw_client(peers.pop3, False, *BOB, count, context)
        best = {}
        for _ in range(args.rounds):
            for label, port, tls in (("POP3", peers.pop3, False), ("POP3S", peers.pop3s, True)):
                for name, run in clients:
                    cpu = cpu_seconds()
                    start = time.perf_counter()
                    received = run(port, tls)
                    seconds = time.perf_counter() - start
                    cpu = cpu_seconds() - cpu
                    key = (label, name)
                    if key not in best or seconds < best[key][0]:
                        best[key] = (seconds, received, cpu)
    finally:
        peers.stop()

    # The client's own CPU time beside the wall time: the rest is spent
    # waiting for the server (which shares the machine's cores).
    print("\n%-7s %-14s %10s %9s %10s %12s" % ("", "client", "MB", "seconds", "MB/s", "client CPU s"))
    rate = {}
    for (label, name), (seconds, received, cpu) in best.items():
        rate[(label, name)] = received / 1e6 / seconds
        print("%-7s %-14s %10.1f %9.3f %10.1f %12.3f" % (label, name, received / 1e6, seconds, rate[(label, name)],
                                                        cpu))
    print()
    for label in ("POP3", "POP3S"):
        k = rate[(label, "Korvane.POP3")]
        print("%-6s Korvane / poplib = %.2fx (target >= 3x)   Korvane / raw read = %.0f%% (target >= 80%%)" % (
            label, k / rate[(label, "poplib")], 100 * k / rate[(label, "raw read")]))
    return 0


if __name__ == "__main__":
    sys.exit(main())
