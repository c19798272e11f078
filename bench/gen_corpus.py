#!/usr/bin/python3
"""Writes the message corpus of the parse benchmark, the same bytes for the
same seed and sizes:

    bench/gen_corpus.py --seed 1 --out build/bench-corpus

OUT/msgs/00000.eml ... holds --count messages of about --total-mb in all,
OUT/big.eml one message of about --big-mb, and OUT/manifest.txt (written
last, so a cut-short run is not mistaken for a corpus) the parameters and
the sizes. With --check the script only says, by its exit status, whether
OUT already holds the corpus of these parameters.

The messages mix what a mailbox holds: plain text, HTML with a plain
alternative, HTML with inline images by Content-ID, base64 attachments from
10 KB to 5 MB (most small, so that the total lands near the target),
quoted-printable and base64 bodies in several charsets, RFC 2047 encoded
headers, RFC 2231 file names and forwarded messages as message/rfc822.
Lines end in CRLF. Python 3 standard library only.
"""

import argparse
import base64
import binascii
import os
import random
import sys

GENERATOR_VERSION = 1
KB = 1024
MB = 1024 * 1024
MIN_ATTACHMENT = 10 * KB
MAX_ATTACHMENT = 5 * MB

# Words each charset can carry; a body in that charset is made of them.
LATIN_WORDS = (
    "the of and to in is that for it as was with be by on not he this are or his from at which "
    "but have an they you were her she there been one all we their has would when if so no "
    "meeting report invoice attached please regards thanks review schedule quarter budget "
    "project delivery customer shipment contract update tomorrow morning office team draft"
).split()
ACCENTED_WORDS = "café naïve résumé über Straße Größe façade déjà señor año crème garçon Zürich".split()
CP1252_WORDS = ["\u201cquoted\u201d", "\u2013", "\u20ac100", "it\u2019s", "\u2026", "na\u00efve"]
RUSSIAN_WORDS = (
    "привет встреча отчёт счёт приложение пожалуйста спасибо проект договор поставка клиент "
    "завтра утром команда бюджет квартал обновление документ письмо"
).split()
JAPANESE_WORDS = (
    "こんにちは 会議 報告書 請求書 添付 よろしく お願いします ありがとう 計画 契約 配送 顧客 "
    "明日 午前 チーム 予算 四半期 更新 資料 メール 確認 東京 大阪"
).split()
CHINESE_WORDS = (
    "你好 会议 报告 发票 附件 请 谢谢 项目 合同 交货 客户 明天 上午 团队 预算 季度 更新 "
    "文件 邮件 确认 北京 上海"
).split()

# charset, word lists, body transfer encoding weights (qp, base64, 8bit/7bit)
CHARSETS = [
    ("utf-8", [LATIN_WORDS, ACCENTED_WORDS, RUSSIAN_WORDS, JAPANESE_WORDS], 40),
    ("iso-8859-1", [LATIN_WORDS, ACCENTED_WORDS], 15),
    ("windows-1252", [LATIN_WORDS, ACCENTED_WORDS, CP1252_WORDS], 12),
    ("us-ascii", [LATIN_WORDS], 10),
    ("koi8-r", [RUSSIAN_WORDS, LATIN_WORDS], 6),
    ("iso-2022-jp", [JAPANESE_WORDS], 6),
    ("shift_jis", [JAPANESE_WORDS], 5),
    ("gb2312", [CHINESE_WORDS], 6),
]

NAMES = [
    ("Alice Martin", "alice.martin"), ("Bob Stone", "bob"), ("Chloé Dubois", "chloe.dubois"),
    ("Jürgen Weiß", "j.weiss"), ("Иван Петров", "ivan.petrov"), ("山田 太郎", "yamada"),
    ("王 小明", "wang.xm"), ("Dana O'Neil", "dana"), ("Erik Lund", "erik.lund"),
    ("Fatima Zahra", "fzahra"), ("Grace Ho", "grace"), ("Héctor Muñoz", "hmunoz"),
]
DOMAINS = ["example.com", "example.org", "mail.example.net", "corp.example", "example.co.jp"]
MAILERS = ["Thunderbird 115.3", "Apple Mail (2.3731)", "Outlook 16.0", "Roundcube 1.6",
           "K-9 Mail 6.6", "Evolution 3.46"]

BINARY_TYPES = [
    ("application/pdf", "pdf", b"%PDF-1.7\r\n"),
    ("application/zip", "zip", b"PK\x03\x04"),
    ("image/jpeg", "jpg", b"\xff\xd8\xff\xe0\x00\x10JFIF\x00"),
    ("image/png", "png", b"\x89PNG\r\n\x1a\n"),
    ("application/vnd.openxmlformats-officedocument.wordprocessingml.document", "docx",
     b"PK\x03\x04"),
    ("application/octet-stream", "bin", b""),
    ("text/csv", "csv", None),  # text content, still sent in base64
]
FILE_STEMS = ["report", "invoice", "photo", "scan", "contract", "Präsentation", "отчёт",
              "見積書", "data", "backup", "summary 2023", "résumé"]


def crlf(lines):
    return "\r\n".join(lines) + "\r\n"


class Writer:
    """Writes one message. Its structure and text come from rng, attachment
    bytes from data_rng, so that a dry run (no attachment bytes, for sizing)
    makes the same structure and text as the real one."""

    def __init__(self, rng, data_rng, dry=False):
        self.rng = rng
        self.data_rng = data_rng
        self.dry = dry
        self.boundary_counter = 0

    # ---- pieces ----
    def words(self, charset_entry, n):
        _, lists, _ = charset_entry
        r = self.rng
        out = []
        for _ in range(n):
            lst = lists[0] if r.random() < 0.7 else r.choice(lists)
            out.append(r.choice(lst))
        return out

    def paragraphs(self, charset_entry, size):
        """Text of about size characters in lines of at most ~70 characters."""
        r = self.rng
        joiner = "" if charset_entry[0] in ("iso-2022-jp", "shift_jis", "gb2312") else " "
        paras, total = [], 0
        while total < size:
            lines = []
            for _ in range(r.randint(2, 8)):
                line = joiner.join(self.words(charset_entry, r.randint(6, 12)))
                lines.append(line[:1].upper() + line[1:] + ".")
            para = "\r\n".join(lines)
            paras.append(para)
            total += len(para) + 4
        return paras

    def boundary(self):
        self.boundary_counter += 1
        tail = "%016x" % self.rng.getrandbits(64)
        return "----=_Part_%d_%s" % (self.boundary_counter, tail)

    def encoded_word(self, text, charset):
        """RFC 2047 words for text, B or Q, split so no word passes 75 characters."""
        r = self.rng
        if charset in ("us-ascii",):
            return text
        mode = "B" if charset in ("iso-2022-jp", "shift_jis", "gb2312", "koi8-r") or r.random() < 0.5 else "Q"
        words, chunk = [], ""
        for ch in text:
            if len((chunk + ch).encode(charset, "replace")) > 30:
                words.append(chunk)
                chunk = ""
            chunk += ch
        if chunk:
            words.append(chunk)
        out = []
        for w in words:
            data = w.encode(charset, "replace")
            if mode == "B":
                payload = base64.b64encode(data).decode("ascii")
            else:
                payload = "".join(
                    "_" if b == 0x20 else chr(b) if (0x30 <= b <= 0x39 or 0x41 <= b <= 0x5A or 0x61 <= b <= 0x7A)
                    else "=%02X" % b for b in data)
            out.append("=?%s?%s?%s?=" % (charset, mode, payload))
        return "\r\n ".join(out)

    def header_text(self, text, charset):
        try:
            text.encode("ascii")
            return text
        except UnicodeEncodeError:
            cs = charset if charset != "us-ascii" else "utf-8"
            try:
                text.encode(cs)
            except UnicodeEncodeError:
                cs = "utf-8"
            return self.encoded_word(text, cs)

    def address(self, charset):
        name, local = self.rng.choice(NAMES)
        addr = "%s@%s" % (local, self.rng.choice(DOMAINS))
        shown = self.header_text(name, charset)
        if shown == name and ("'" in name or "." in name):
            shown = '"%s"' % name
        return "%s <%s>" % (shown, addr)

    def date(self):
        r = self.rng
        days = ["Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"]
        months = ["Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"]
        zone = r.choice(["+0000", "+0100", "+0200", "-0500", "-0800", "+0900", "+0530"])
        return "%s, %d %s %d %02d:%02d:%02d %s" % (
            r.choice(days), r.randint(1, 28), r.choice(months), r.randint(2015, 2024),
            r.randint(0, 23), r.randint(0, 59), r.randint(0, 59), zone)

    def top_headers(self, charset_entry, content_type_lines):
        r = self.rng
        cs = charset_entry[0]
        lines = []
        for hop in range(r.randint(2, 6)):
            lines.append("Received: from mx%d.%s (mx%d.%s [192.0.2.%d])" % (
                hop, r.choice(DOMAINS), hop, r.choice(DOMAINS), r.randint(1, 254)))
            lines.append("\tby mail.example.net (Postfix) with ESMTPS id %08X" % r.getrandbits(32))
            lines.append("\tfor <user@example.net>; %s" % self.date())
        if r.random() < 0.5:
            lines.append("DKIM-Signature: v=1; a=rsa-sha256; c=relaxed/relaxed; d=%s; s=sel1;" % r.choice(DOMAINS))
            lines.append("\th=from:to:subject:date:message-id; bh=%s;" % base64.b64encode(r.randbytes(32)).decode())
            sig = base64.b64encode(r.randbytes(256)).decode()
            lines.append("\tb=" + "\r\n\t".join(sig[i:i + 70] for i in range(0, len(sig), 70)))
        lines.append("From: " + self.address(cs))
        to = [self.address(cs) for _ in range(r.randint(1, 4))]
        lines.append("To: " + ",\r\n\t".join(to))
        if r.random() < 0.4:
            lines.append("Cc: " + ",\r\n\t".join(self.address(cs) for _ in range(r.randint(1, 3))))
        subject = " ".join(self.words(charset_entry, r.randint(3, 9)))
        lines.append("Subject: " + self.header_text(subject, cs))
        lines.append("Date: " + self.date())
        lines.append("Message-ID: <%016x.%d@%s>" % (r.getrandbits(64), r.randint(1, 99999), r.choice(DOMAINS)))
        lines.append("MIME-Version: 1.0")
        lines.append("X-Mailer: " + r.choice(MAILERS))
        if r.random() < 0.3:
            lines.append("List-Unsubscribe: <mailto:unsubscribe@%s>, <https://%s/u/%08x>" % (
                r.choice(DOMAINS), r.choice(DOMAINS), r.getrandbits(32)))
        lines.extend(content_type_lines)
        return crlf(lines)

    # ---- leaves ----
    def encode_body(self, text, charset, html):
        """Header lines and body of a text leaf."""
        r = self.rng
        data = text.encode(charset, "replace")
        ascii_only = all(b < 0x80 for b in data)
        subtype = "html" if html else "plain"
        if charset == "iso-2022-jp":
            cte = "7bit" if r.random() < 0.6 else "quoted-printable"
        elif ascii_only and r.random() < 0.5:
            cte = "7bit"
        else:
            cte = r.choices(["quoted-printable", "base64", "8bit"], [70, 20, 10])[0]
        if cte == "quoted-printable":
            body = binascii.b2a_qp(data, istext=True)
        elif cte == "base64":
            body = wrap_base64(data)
        else:
            body = data
        if not body.endswith(b"\r\n"):
            body += b"\r\n"
        head = crlf(["Content-Type: text/%s; charset=\"%s\"" % (subtype, charset),
                     "Content-Transfer-Encoding: " + cte])
        return head.encode("ascii") + b"\r\n" + body

    def html_of(self, paras, images, charset):
        r = self.rng
        out = ["<!DOCTYPE html>", "<html><head><meta charset=\"%s\"><title>message</title>" % charset,
               "<style>p { margin: 0 0 1em 0; } td { padding: 4px; }</style></head>",
               "<body style=\"font-family: Arial, sans-serif;\">"]
        for i, p in enumerate(paras):
            p = p.replace("&", "&amp;").replace("<", "&lt;")
            if r.random() < 0.2:
                out.append("<table border=\"1\"><tr><td>%s</td><td><b>%d</b></td></tr></table>" % (
                    p[:60], r.randint(1, 9999)))
            out.append("<p>" + p.replace("\r\n", "<br>\r\n") + "</p>")
            if r.random() < 0.15:
                out.append("<p><a href=\"https://www.%s/item/%d\">link</a></p>" % (r.choice(DOMAINS), i))
            if images and i < len(images):
                out.append("<p><img src=\"cid:%s\" alt=\"image %d\" width=\"320\"></p>" % (images[i], i))
        out.append("</body></html>")
        return crlf(out)

    def attachment(self, raw_size, inline_cid=None):
        r = self.rng
        if inline_cid:
            ctype, ext, magic = r.choice([t for t in BINARY_TYPES if t[0].startswith("image/")])
        else:
            ctype, ext, magic = r.choice(BINARY_TYPES)
        d = self.data_rng
        if self.dry:
            data = b""
        elif magic is None:
            rows = []
            total = 0
            while total < raw_size:
                row = "%d,%s,%d.%02d\r\n" % (d.randint(1, 10 ** 6), d.choice(LATIN_WORDS), d.randint(0, 9999), d.randint(0, 99))
                rows.append(row)
                total += len(row)
            data = "".join(rows).encode("ascii")[:raw_size]
        else:
            data = magic + d.randbytes(max(0, raw_size - len(magic)))
        stem = "image" if inline_cid else r.choice(FILE_STEMS)
        filename = "%s_%d.%s" % (stem, r.randint(1, 999), ext)
        lines = []
        if inline_cid:
            lines.append("Content-Type: %s; name=\"%s\"" % (ctype, filename))
            lines.append("Content-Transfer-Encoding: base64")
            lines.append("Content-ID: <%s>" % inline_cid)
            lines.append("Content-Disposition: inline; filename=\"%s\"" % filename)
        else:
            ascii_name = all(ord(c) < 128 for c in filename)
            if ascii_name:
                name_param = "name=\"%s\"" % filename
                disp = "attachment; filename=\"%s\"" % filename
            elif r.random() < 0.5:
                encoded = self.encoded_word(filename, "utf-8")
                name_param = "name=\"%s\"" % encoded
                disp = "attachment; filename=\"%s\"" % encoded
            else:
                pct = "".join(c if c.isascii() and (c.isalnum() or c in "._-") else
                              "".join("%%%02X" % b for b in c.encode("utf-8")) for c in filename)
                name_param = "name*=utf-8''%s" % pct
                disp = "attachment;\r\n filename*=utf-8''%s;\r\n size=%d" % (pct, raw_size)
            lines.append("Content-Type: %s;\r\n\t%s" % (ctype, name_param))
            lines.append("Content-Transfer-Encoding: base64")
            lines.append("Content-Disposition: " + disp)
        return crlf(lines).encode("ascii") + b"\r\n" + wrap_base64(data)

    # ---- shapes ----
    def multipart(self, subtype, parts, extra=""):
        b = self.boundary()
        head = "Content-Type: multipart/%s;%s\r\n\tboundary=\"%s\"\r\n" % (subtype, extra, b)
        body = [b"This is a multi-part message in MIME format.\r\n"]
        for p in parts:
            body.append(("\r\n--%s\r\n" % b).encode("ascii"))
            body.append(p)
        body.append(("\r\n--%s--\r\n" % b).encode("ascii"))
        return head.encode("ascii") + b"\r\n" + b"".join(body)

    def text_leaves(self, charset_entry, text_size, with_html, images=None):
        paras = self.paragraphs(charset_entry, text_size)
        plain = self.encode_body("\r\n\r\n".join(paras) + "\r\n", charset_entry[0], False)
        if not with_html:
            return plain
        html = self.encode_body(self.html_of(paras, images or [], charset_entry[0]), charset_entry[0], True)
        return self.multipart("alternative", [plain, html])

    def message(self, plan, depth=0):
        """Whole message (headers + body) for a plan."""
        r = self.rng
        cs_entry = plan["charset"]
        shape = plan["shape"]
        if shape == "related":
            cids = ["img%d.%08x@%s" % (i, r.getrandbits(32), r.choice(DOMAINS)) for i in range(len(plan["inline"]))]
            alt = self.text_leaves(cs_entry, plan["text"], True, cids)
            images = [self.attachment(size, cid) for size, cid in zip(plan["inline"], cids)]
            body = self.multipart("related", [alt] + images, " type=\"multipart/alternative\";")
        else:
            body = self.text_leaves(cs_entry, plan["text"], plan["html"])
        parts = [body]
        parts += [self.attachment(size) for size in plan["attachments"]]
        if plan.get("forward") is not None and depth < 2:
            inner = self.message(plan["forward"], depth + 1)
            parts.append(b"Content-Type: message/rfc822\r\nContent-Disposition: inline\r\n\r\n" + inner)
        if len(parts) > 1:
            body = self.multipart("mixed", parts)
        split = body.index(b"\r\n\r\n")
        content_headers = body[:split].decode("ascii").split("\r\n")
        head = self.top_headers(cs_entry, content_headers)
        return head.encode("ascii") + body[split + 2:]


def wrap_base64(data):
    encoded = base64.b64encode(data)
    return b"\r\n".join(encoded[i:i + 76] for i in range(0, len(encoded), 76)) + b"\r\n"


def pareto_size(rng):
    # Heavy tail from MIN_ATTACHMENT: most attachments are small, a few are large.
    return MIN_ATTACHMENT / (1.0 - rng.random()) ** (1 / 1.15)


def plan_message(rng, forward_allowed=True):
    cs_entry = rng.choices(CHARSETS, [c[2] for c in CHARSETS])[0]
    shape = rng.choices(["plain", "alternative", "related", "mixed", "forward"], [25, 25, 12, 28, 10])[0]
    plan = {"charset": cs_entry, "shape": shape, "html": shape != "plain" and rng.random() < 0.8,
            "text": int(rng.lognormvariate(7.6, 0.9)), "inline": [], "attachments": [], "forward": None}
    if shape == "plain":
        plan["html"] = False
    if shape == "related":
        plan["inline"] = [pareto_size(rng) for _ in range(rng.randint(1, 4))]
    if shape == "mixed" or (shape == "forward" and rng.random() < 0.3):
        plan["attachments"] = [pareto_size(rng) for _ in range(rng.choices([1, 2, 3, 5], [55, 25, 12, 8])[0])]
    if shape == "forward" and forward_allowed:
        plan["forward"] = plan_message(rng, forward_allowed=rng.random() < 0.2)
    return plan


def plan_sizes(plan):
    """Raw attachment sizes of a plan, the forwarded ones included."""
    out = plan["inline"] + plan["attachments"]
    if plan["forward"]:
        out += plan_sizes(plan["forward"])
    return out


def scale_plan(plan, factor):
    clamp = lambda s: int(min(MAX_ATTACHMENT, max(MIN_ATTACHMENT, s * factor)))
    plan["inline"] = [clamp(s) for s in plan["inline"]]
    plan["attachments"] = [clamp(s) for s in plan["attachments"]]
    if plan["forward"]:
        scale_plan(plan["forward"], factor)


def base64_size(n):
    chars = (n + 2) // 3 * 4
    return chars + (chars + 75) // 76 * 2


def attachment_bytes(plans, factor):
    return sum(base64_size(int(min(MAX_ATTACHMENT, max(MIN_ATTACHMENT, s * factor))))
               for p in plans for s in plan_sizes(p))


def big_plan(rng, target):
    """One message of about target bytes: a long HTML body with its plain
    alternative and inline images, and attachments of a few MB each."""
    cs_entry = CHARSETS[0]
    plan = {"charset": cs_entry, "shape": "related", "html": True, "text": 600 * KB,
            "inline": [rng.randint(200 * KB, 800 * KB) for _ in range(4)], "attachments": [], "forward": None}
    left = (target - 2.5 * MB) / 1.37 - sum(plan["inline"])
    while left > MAX_ATTACHMENT / 2:
        size = rng.randint(2 * MB, MAX_ATTACHMENT)
        plan["attachments"].append(min(size, int(left)))
        left -= size
    if left > MIN_ATTACHMENT:
        plan["attachments"].append(int(left))
    return plan


def message_rngs(seed, index):
    # Each message has its own generators: its bytes do not depend on the
    # sizes chosen for the others.
    base = (seed << 24) + index * 2
    return random.Random(base), random.Random(base + 1)


def manifest_text(args):
    return "gen_corpus %d seed=%d count=%d total_mb=%g big_mb=%g\n" % (
        GENERATOR_VERSION, args.seed, args.count, args.total_mb, args.big_mb)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--out", required=True)
    ap.add_argument("--count", type=int, default=2000)
    ap.add_argument("--total-mb", type=float, default=100)
    ap.add_argument("--big-mb", type=float, default=50)
    ap.add_argument("--check", action="store_true", help="exit 0 when OUT holds this corpus")
    args = ap.parse_args()

    manifest = os.path.join(args.out, "manifest.txt")
    if args.check:
        try:
            with open(manifest, encoding="ascii") as f:
                return 0 if f.readline() == manifest_text(args) else 1
        except OSError:
            return 1

    plans = [plan_message(random.Random((args.seed << 24) + 2 * i + (1 << 23)))
             for i in range(args.count)]
    # Text and headers come out of a dry run; the attachments share what is
    # left of the target, their heavy-tailed sizes scaled by one factor.
    text = 0
    for i, plan in enumerate(plans):
        text += len(Writer(*message_rngs(args.seed, i), dry=True).message(plan))
    left = args.total_mb * MB - text
    lo, hi = 1e-3, 1e3
    for _ in range(80):
        mid = (lo * hi) ** 0.5
        lo, hi = (mid, hi) if attachment_bytes(plans, mid) < left else (lo, mid)
    for p in plans:
        scale_plan(p, lo)
    big_rng, big_data = message_rngs(args.seed, args.count)
    big = big_plan(big_rng, args.big_mb * MB)

    msg_dir = os.path.join(args.out, "msgs")
    os.makedirs(msg_dir, exist_ok=True)
    if os.path.exists(manifest):
        os.remove(manifest)
    for name in os.listdir(msg_dir):
        if name.endswith(".eml"):
            os.remove(os.path.join(msg_dir, name))

    total = 0
    for i, plan in enumerate(plans):
        data = Writer(*message_rngs(args.seed, i)).message(plan)
        with open(os.path.join(msg_dir, "%05d.eml" % i), "wb") as f:
            f.write(data)
        total += len(data)
    data = Writer(big_rng, big_data).message(big)
    with open(os.path.join(args.out, "big.eml"), "wb") as f:
        f.write(data)
    with open(manifest, "w", encoding="ascii") as f:
        f.write(manifest_text(args))
        f.write("messages=%d bytes=%d big_bytes=%d\n" % (args.count, total, len(data)))
    print("%d messages, %.1f MB; big.eml %.1f MB in %s" % (args.count, total / MB, len(data) / MB, args.out))
    return 0


if __name__ == "__main__":
    sys.exit(main())
