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
