"""A tour of what Korvane does so far, written as a user's script."""
import os
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python"))
import korvane  # noqa: E402

msg = korvane.CreateObject("Korvane.Message")
msg.FromAddr = "Doe, John <john@example.org>"
msg.ToAddr = "Jane Roe <jane@example.org>, ops@example.org"
msg.Subject = "Quarterly report – Grüße"
msg.BodyFormat = 1
msg.BodyText = "<p>Hello <b>Jane</b>, the figures are attached.</p>"
msg.AddHeader("X-Priority", "1")

with tempfile.TemporaryDirectory() as tmp:
    report = os.path.join(tmp, "report.pdf")
    with open(report, "wb") as f:
        f.write(b"%PDF-1.4 demo")
    msg.AddAttachment(report)
msg.AddMemoryAttachment(b"\x89PNG\r\n\x1a\n...", "logo.png", "", "<logo>")
msg.AddStringAttachment("a,b\n1,2\n", True, "figures.csv")

print("Korvane.Message")
print("  From:      ", msg.FromAddr)
print("  To:        ", msg.ToAddr)
print("  Subject:   ", msg.Subject)
print("  Charset:   ", msg.Charset, "| X-Mailer:", msg.XMailer)
print("  X-Priority:", msg.GetHeader("X-Priority"))
print("  Attachments:")
for att in msg.Attachments:
    kind = "inline" if att.IsInline else "attachment"
    print("    %-12s %-26s %5d bytes  %s" % (att.Filename, att.ContentType, att.Size, kind))

# Reading the raw side composes the message once, here as multipart/mixed
# with a related part for the inline image.
raw = msg.RawBody
print("  Composed:   %d bytes; its head:" % msg.Size)
for line in raw.split("\r\n\r\n")[0].split("\r\n"):
    print("    " + line)

# The raw side is kept in step with the decoded side lazily; assigning raw
# text and reading it back costs no rebuild.
msg.RawBody = "From: a@example.org\r\nSubject: raw\r\n\r\nHello\r\n"
print("  Raw header:", repr(msg.RawHeader), "| size", msg.Size)

# Registration as a host of the automation runtime would see it.
with tempfile.TemporaryDirectory() as tmp:
    store = os.path.join(tmp, "registry.ini")
    korvane.RegisterServer(store)
    again = korvane.CreateRegisteredObject("Korvane.Message.1", store)
    print("Created through the key store:", again.XMailer)
    korvane.UnregisterServer(store)


# ---- Parsing a real message -------------------------------------------------
# A message from the test corpus, as a mail client would receive it: parse it
# and show its structure, its bodies and its attachments.
sample = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "data", "messages",
                      "mimekit", "simple-multipart.eml")
with open(sample, "rb") as f:
    raw = f.read().replace(b"\r\n", b"\n").replace(b"\n", b"\r\n")
parsed = korvane.CreateObject("Korvane.Message")
parsed.ImportFromMemory(raw)
print()
print("Parsed", os.path.basename(sample), "(%d bytes)" % len(raw))
print("  Subject:     ", parsed.Subject)
print("  From:        ", parsed.FromAddr)
print("  Content-Type:", " ".join(parsed.ContentType.split()))
print("  BodyFormat:  ", parsed.BodyFormat, "| Charset:", parsed.Charset,
      "| HasAttachments:", parsed.HasAttachments)
print("  BodyText:    ", repr(parsed.BodyText[:70]) + "...")
print("  AltBodyText: ", repr(" ".join(parsed.AltBodyText.split())[:70]) + "...")
for att in parsed.Attachments:
    print("  Attachment:   %-14s %-24s %3d bytes  inline=%s: %r" % (
        att.Filename, att.ContentType, att.Size, att.IsInline, att.Content))
with tempfile.TemporaryDirectory() as tmp:
    html = parsed.GetBodyWithEmbeddedObjectsEx(tmp, "", "demo")
    print("  Message directory:", sorted(os.listdir(os.path.join(tmp, "demo")))
          if os.path.isdir(os.path.join(tmp, "demo")) else "none (a plain body needs none)")
print("  MD5 of the raw text:", parsed.GetMD5DigestOfArray(raw))


# ---- The main job: mail through real servers -------------------------------
# Starts Postfix and Dovecot on 127.0.0.1 from private configurations, sends
# messages composed here through Postfix with STARTTLS and a login
# (Korvane.SMTP), and reads them back from Dovecot with Korvane.POP3 over TLS.
ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
sys.path.insert(0, os.path.join(ROOT, "tests", "integration"))
import subprocess  # noqa: E402

from mailpeers import BOB, MailPeers, PeersUnavailable  # noqa: E402


def use_verified_tls(session, ca_store, starttls):
    tls = session.SSL
    tls.AutosetPortAndSSL = False
    tls.Enabled = True
    tls.UseStartTLS = starttls               # STARTTLS, or TLS from the first byte
    tls.VerifyServerCert = True              # against the test CA the servers were given
    tls.SelectServerCertStore(ca_store, 1)
    korvane.release(tls)


print()
print("Korvane.SMTP and Korvane.POP3 against a local Postfix and Dovecot")
installer = os.path.join(ROOT, "tests", "integration", "install-peers.sh")
try:
    if os.geteuid() == 0 and subprocess.run([installer], timeout=900).returncode != 0:
        raise PeersUnavailable("installing the servers failed")
    peers = MailPeers.start(with_cyrus=False, with_kerberos=False)
except PeersUnavailable as e:
    print("  skipped:", e)
    peers = None
if peers:
    try:
        outbox = [
            ("Minutes of Monday's meeting", "Hello Bob,\r\nthe minutes are attached.\r\n",
             [("minutes.txt", b"1. Budget\r\n2. Schedule\r\n")]),
            ("Photos \u2013 Gr\u00fc\u00dfe aus K\u00f6ln", "Two pictures from the trip.\r\n",
             [("cathedral.jpg", b"\xff\xd8\xff\xe0 not really a JPEG"), ("rhine.png", b"\x89PNG\r\n\x1a\n...")]),
            ("No attachment today", "Just a line of text.\r\n.A line that starts with a dot.\r\n", []),
        ]
        peers.clear(BOB[0])
        smtp = korvane.CreateObject("Korvane.SMTP")
        smtp.ServerName, smtp.PortNumber = "127.0.0.1", peers.submission
        smtp.AuthMethod = 2                      # AUTH LOGIN, after STARTTLS
        smtp.UserName, smtp.Password = BOB
        use_verified_tls(smtp, peers.ca_store, starttls=True)
        for subject, body, attachments in outbox:
            smtp.ResetMessage()
            smtp.FromAddr = "Korvane Demo <demo@example.test>"
            smtp.ToAddr = "Bob <%s>" % BOB[0]
            smtp.Subject = subject
            smtp.BodyText = body
            message = smtp.Message
            for name, data in attachments:
                message.AddMemoryAttachment(data, name)
            korvane.release(message)
            if not smtp.Send():
                print("  send failed:", smtp.ErrCode, smtp.ErrDesc)
                break
            print("  sent %-34r accepted for %s" % (subject, smtp.GetAcceptedRecipients()))
        print("  over STARTTLS on port %d, logged in as %s; SupportsDSN=%s" % (
            peers.submission, BOB[0], smtp.SupportsDSN))
        smtp.Disconnect()
        korvane.release(smtp)
        peers.wait_for_mail(BOB[0], len(outbox))

        pop = korvane.CreateObject("Korvane.POP3")
        use_verified_tls(pop, peers.ca_store, starttls=False)
        if pop.Connect("127.0.0.1", peers.pop3s, *BOB):
            print("  POP3 over TLS on port %d: %d messages, %d bytes" % (
                peers.pop3s, pop.MessageCount, pop.TotalSize))
            for i, got in enumerate(pop.RetrieveMessages(), 1):
                print("  [%d] %s (UID %s, %d bytes)" % (i, got.Subject, pop.GetMessageUID(i), pop.Size(i)))
                print("      Body:        %r" % got.BodyText.strip())
                print("      Attachments: %s" % (", ".join(a.Filename for a in got.Attachments) or "none"))
            pop.Disconnect()
        else:
            print("  connect failed:", pop.ErrCode, pop.ErrDesc)
    finally:
        peers.stop()
    print("  servers stopped")
