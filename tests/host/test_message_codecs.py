"""Addresses, header words, charsets and dates through Korvane.Message, as a
script uses them."""
import datetime

import pytest

import korvane


@pytest.fixture
def msg(leakcheck):
    m = korvane.CreateObject("Korvane.Message")
    yield m
    korvane.release(m)


def ansi(data):
    """Bytes as the script host sees them: one character per byte, code page 1252
    (whose five holes are the C1 controls of the same number)."""
    out = []
    for b in data:
        try:
            out.append(bytes([b]).decode("cp1252"))
        except UnicodeDecodeError:
            out.append(chr(b))
    return "".join(out)


# Charset name as a mail program writes it, Python's codec, a text it can carry.
# The unit tests hold every charset against Python's codecs; these few cross
# the script host: multi-byte, stateful, four-byte and the 1252 holes.
SAMPLES = [
    ("utf-8", "utf-8", "Grüße, 日本語, Ελληνικά ✓"),
    ("windows-1251", "cp1251", "Съешь же ещё этих булок"),
    ("windows-1252", "cp1252", "“Smart” quotes – and € signs"),
    ("koi8-r", "koi8-r", "Широкая электрификация"),
    ("shift_jis", "cp932", "日本語のテキスト、カタカナ"),
    ("iso-2022-jp", "iso2022-jp", "こんにちは世界"),
    ("gb18030", "gb18030", "中文 𠀀 测试"),
    ("ks_c_5601-1987", "cp949", "안녕하세요"),
]


@pytest.mark.parametrize("charset, codec, text", SAMPLES)
def test_to_utf8_matches_python(msg, charset, codec, text):
    assert msg.ToUTF8(ansi(text.encode(codec)), charset) == ansi(text.encode("utf-8"))


@pytest.mark.parametrize("charset, codec, text", SAMPLES)
def test_convert_charset_matches_python(msg, charset, codec, text):
    raw = ansi(text.encode(codec))
    assert msg.ConvertCharset(raw, charset, "utf-8") == ansi(text.encode("utf-8"))
    assert msg.ConvertCharset(ansi(text.encode("utf-8")), "utf-8", charset) == raw
    assert msg.ConvertCharset(raw, charset, "") == text
    assert msg.ConvertCharset(text, "", charset) == raw
    assert msg.ConvertCharset(text, "", "") == text


def test_codepage_from_charset(msg):
    table = {"utf-8": 65001, "ISO-8859-1": 28591, "latin1": 28591, "shift_jis": 932,
             "x-sjis": 932, "gb2312": 936, "big5": 950, "koi8-r": 20866, "us-ascii": 20127,
             "": -1, "x" * 300: -1, "no-such-charset": -1, "TIS-620": 874}
    for name, codepage in table.items():
        assert msg.GetCodepageFromCharset(name) == codepage, name


def test_remove_charset_from_body(msg):
    msg.BodyText = ('<html><head><meta http-equiv="Content-Type" '
                    'content="text/html; charset=ISO-8859-2"></head><body>x</body></html>')
    assert msg.RemoveCharsetFromBody() == "iso-8859-2"
    assert "meta" not in msg.BodyText
    assert msg.RemoveCharsetFromBody() == ""


def test_pure_addresses_and_friendly_names(msg):
    msg.ToAddr = 'John Smith <js@example>, "Doe, Jane" <jd@example>; x@y'
    assert msg.PureToAddr == "js@example, jd@example, x@y"
    assert msg.ToFriendlyName == "John Smith, Doe, Jane, x@y"
    msg.FromAddr = "a@b (John)"
    assert msg.PureFromAddr == "a@b"
    assert msg.FromFriendlyName == "John"
    msg.CCAddr = "(just a comment)"
    assert msg.PureCCAddr == ""
    assert msg.CCFriendlyName == "just a comment"
    msg.ReplyToAddr = "Jörg <jörg@example.de>"
    assert msg.PureReplyToAddr == "jörg@example.de"
    assert msg.ReplyToFriendlyName == "Jörg"
    assert msg.GetPureAddr('John Smith <js@example>, "Doe, Jane" <jd@example>; x@y', "|") == \
        "js@example|jd@example|x@y"
    assert msg.GetPureAddr("a@b,,, <c@d>") == "a@b, c@d"
    assert msg.GetFriendlyName("John <a@b> (Boss); Ann <c@d>", " / ") == "John / Ann"
    # The Pure form is cached until the field is written again.
    msg.AddressDelimiter = ";"
    assert msg.PureToAddr == "js@example, jd@example, x@y"
    msg.ToAddr = "a@b, c@d"
    assert msg.PureToAddr == "a@b;c@d"


@pytest.mark.parametrize("address, ok", [
    ("a@b.c", True), ("a@b", True), ("a@b.c1", False), ("a@@b", False), ("a..b@c", True),
    ("a@b..c", False), ("a@[1.2.3.4]", True), ("a@[1.2.3]", False), ("-a@b.c", False),
])
def test_validate_email_address_syntax(msg, address, ok):
    assert msg.ValidateEmailAddress(address) is ok


def test_encode_header_text(msg):
    assert msg.EncodeHeaderText("Subject", "abc", "utf-8", 2) == "abc"
    assert msg.EncodeHeaderText("Subject", "héllo world", "utf-8", 2) == \
        "=?utf-8?Q?h=C3=A9llo_world?="
    assert msg.EncodeHeaderText("Subject", "héllo", "iso-8859-1", 3) == "=?iso-8859-1?B?6GxsbW8=?=".replace(
        "6GxsbW8=", __import__("base64").b64encode("héllo".encode("latin-1")).decode())
    assert msg.EncodeHeaderText("Subject", "héllo", "utf-8", 0) == ""
    assert msg.EncodeHeaderText("To", "Jörg <j@x>", "utf-8", 2) == "=?utf-8?Q?J=C3=B6rg_?=<j@x>"


def test_get_date_from_string(msg):
    utc = msg.GetDateFromString("Mon, 5 Jan 2009 07:03:09 +0300", False)
    assert utc == datetime.datetime(2009, 1, 5, 4, 3, 9)
    # A text without any date reads as 1 January 1900, 00:00 UTC.
    assert msg.GetDateFromString("not a date", False) == datetime.datetime(1900, 1, 1)


@pytest.mark.parametrize("unicode_form, ascii_form", [
    ("user@bücher.example", "user@xn--bcher-kva.example"),
    ("mail@日本語.jp", "mail@xn--wgv71a119e.jp"),
    ("plain@example.org", "plain@example.org"),
])
def test_idn_domains(msg, unicode_form, ascii_form):
    assert msg.EscapeIdnDomain(unicode_form) == ascii_form
    assert msg.UnescapeIdnDomain(ascii_form) == unicode_form
