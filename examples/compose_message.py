"""Composes a newsletter-style message: an HTML body with an inline image, a
plain-text alternative made from the HTML, and two attachments; saves it as a
message file and prints its structure.

    python3 examples/compose_message.py [output.eml]
"""
import os
import sys
import tempfile

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python"))
import korvane  # noqa: E402

out_path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(tempfile.gettempdir(), "newsletter.eml")

msg = korvane.CreateObject("Korvane.Message")
msg.FromAddr = "Newsletter <news@example.org>"
msg.ToAddr = "Jörg Müller <joerg@example.de>, ann@example.org"
msg.Subject = "Our autumn news – with pictures"
msg.BodyFormat = 1  # HTML
msg.BodyText = """<html><body>
<h1>Autumn news</h1>
<p>Dear reader, here is our <b>logo</b>:</p>
<p><img src="cid:logo@example.org" alt="logo"></p>
<ul><li>New office in Graz</li><li>Prices from 10&nbsp;&euro;</li></ul>
<p>More at <a href="https://example.org/news">our site</a>.</p>
</body></html>"""
msg.MakeAltBody()  # the plain-text alternative, made from the HTML

png = bytes.fromhex("89504e470d0a1a0a0000000d49484452000000010000000108060000001f15c489"
                    "0000000d4944415478da63f8cfc0f01f0005000201a5f0a1f30000000049454e44ae426082")
msg.AddMemoryAttachment(png, "logo.png", "image/png", "<logo@example.org>")
msg.AddStringAttachment("region,sales\nnorth,10\nsouth,12\n", True, "sales.csv", "text/csv")
msg.AddMemoryAttachment(b"%PDF-1.4\n% a tiny stand-in document\n", "brochure.pdf")

msg.SaveMessage(out_path)
print("saved", out_path, "(%d bytes)" % os.path.getsize(out_path))
print("alternative text:")
print("  " + msg.AltBodyText.strip().replace("\n", "\n  "))
print("structure:")
for line in msg.RawBody.split("\r\n"):
    if line.startswith("Content-Type:") or line.startswith("\tboundary") or line.startswith("\ttype"):
        print("  " + line.strip())
