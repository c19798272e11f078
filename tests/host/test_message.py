"""Korvane.Message as a script sees it."""
import os

import pytest

import korvane


@pytest.fixture
def msg(leakcheck):
    m = korvane.CreateObject("Korvane.Message")
    yield m
    korvane.release(m)


def test_both_progids_make_a_message(leakcheck):
    a = korvane.CreateObject("Korvane.Message")
    b = korvane.CreateObject("Korvane.Message.1")
    assert a.XMailer == b.XMailer == "Korvane Objects (ActiveX) 9.4"
    korvane.release(a)
    korvane.release(b)


@pytest.mark.parametrize("name, default", [
    ("Charset", "utf-8"),
    ("AddressDelimiter", ", "),
    ("BodyFormat", 0),
    ("BodyEncoding", 2),
    ("AltBodyEncoding", 2),
    ("AltBodyOptions", 1),
    ("AutoEncodeHeaders", True),
    ("MinimalRebuild", False),
    ("Enable8bitEncoding", False),
    ("HasAttachments", False),
    ("IsRtlBody", False),
    ("CodepageOriginal", 0),
    ("CharsetOriginal", ""),
    ("Codepage", 0),
    ("CodepageMode", 0),
    ("Locked", False),
    ("Subject", ""),
])
def test_defaults(msg, name, default):
    assert getattr(msg, name) == default


@pytest.mark.parametrize("name, value", [
    ("BodyText", "Hello\r\nwörld €"),
    ("AltBodyText", "plain"),
    ("Subject", "Grüße 日本"),
    ("FromAddr", "Doe, John <john@example.org>"),
    ("ToAddr", "a@example.org, b@example.org"),
    ("CCAddr", "c@example.org"),
    ("BCCAddr", "d@example.org"),
    ("ReplyToAddr", "r@example.org"),
    ("Charset", "iso-8859-1"),
    ("MessageId", "<1@example.org>"),
    ("ReturnPath", "<bounce@example.org>"),
    ("XMailer", "my mailer"),
    ("SpecialBodyText", "special"),
    ("SpecialBodyContentType", "text/calendar"),
    ("SpecialBodyHeaders", "X-A: 1"),
    ("AltBodyHRefSuffix", " [link]"),
    ("AddressDelimiter", "; "),
    ("AltBodyOptions", 3),
    ("BodyEncoding", 3),
    ("AltBodyEncoding", 0),
    ("BodyFormat", 1),
    ("Enable8bitEncoding", True),
    ("AutoEncodeHeaders", False),
    ("MinimalRebuild", True),
])
def test_properties_read_back(msg, name, value):
    setattr(msg, name, value)
    assert getattr(msg, name) == value


def test_enumerated_values_out_of_range_are_ignored(msg):
    msg.BodyFormat = 2
    msg.BodyFormat = 4
    msg.BodyEncoding = 7
    msg.AltBodyEncoding = 9
    assert (msg.BodyFormat, msg.BodyEncoding, msg.AltBodyEncoding) == (2, 2, 2)
    msg.BodyFormat = "3"  # a script may pass text for a long
    assert msg.BodyFormat == 3


def test_locked_reads_false(msg):
    msg.Locked = True
    assert msg.Locked is False


def test_date_and_message_date_share_a_field(msg):
    msg.MessageDate = "Mon, 1 Jan 2024 10:00:00 +0000"
    assert msg.Date == "Mon, 1 Jan 2024 10:00:00 +0000"
    msg.Date = "Tue, 2 Jan 2024 10:00:00 +0000"
    assert msg.MessageDate == "Tue, 2 Jan 2024 10:00:00 +0000"


def test_custom_headers(msg):
    assert msg.AddHeader("Subject", "x") is False
    assert msg.AddHeader("X-Priority", "1") is True
    assert msg.AddHeader("x-priority", "3") is True
    assert msg.GetHeader("X-PRIORITY") == "3"
    assert msg.RemoveHeader("Received") is True
    assert msg.RemoveHeader("X-Missing") is False
    assert msg.RemoveHeader("x-priority") is True
    assert msg.GetHeader("X-Priority") == ""  # null string: scripts see it empty
    msg.MinimalRebuild = True
    assert msg.AddHeader("Subject", "now allowed") is True


def test_raw_body_assigned_reads_back_the_same(msg):
    raw = "From: a@example.org\r\nSubject: hi\r\n\r\nbody text\r\n"
    msg.RawBody = raw
    assert msg.RawBody == raw
    assert msg.RawHeader == "From: a@example.org\r\nSubject: hi"
    assert msg.Size == len(raw)


def test_attachments_from_files_memory_and_strings(msg, tmp_path):
    path = tmp_path / "photo.JPG"
    path.write_bytes(b"\xff\xd8\xff\x00binary")
    assert msg.AddAttachment(str(path)) is True
    assert msg.AddAttachment(str(tmp_path / "missing.bin")) is False
    assert msg.AddMemoryAttachment(b"%PDF-1.4", "doc.pdf") is True
    assert msg.AddMemoryAttachment("not bytes", "x.bin") is False
    assert msg.AddStringAttachment("h\u00e9", True, "note", "text/html", "<c1>") is True
    assert msg.HasAttachments is False  # follows parses only

    atts = msg.Attachments
    assert len(atts) == 3
    names = [a.Filename for a in atts]
    assert names == ["photo.JPG", "doc.pdf", "note.html"]
    first = atts.Item(1)
    assert first.ContentType == "image/jpeg"
    assert first.ContentAsArray == b"\xff\xd8\xff\x00binary"
    assert first.Size == 10
    assert first.IsInline is False
    third = atts[3] if hasattr(atts, "__getitem__") else atts.Item(3)
    assert third.IsInline is True
    assert third.PureContentID == "c1"
    assert third.ContentAsArray == "h\u00e9".encode()
    assert third.FilenameAsIs == "note"

    with pytest.raises(korvane.Error):
        atts.Item(0)
    with pytest.raises(korvane.Error):
        atts.Item(4)
    assert atts.Remove(0) is False
    assert atts.Remove(1) is True
    assert [a.Filename for a in atts] == ["doc.pdf", "note.html"]

    out = tmp_path / "out"
    out.mkdir()
    assert atts.Item(1).SaveFile(str(out)) is True
    assert (out / "doc.pdf").read_bytes() == b"%PDF-1.4"
    atts.RemoveAll()
    assert atts.Count == 0
    korvane.release(first)
    korvane.release(third)
    korvane.release(atts)


def test_nameless_attachment_names(msg):
    assert msg.AddMemoryAttachment(b"a", "", "application/pdf") is True
    assert msg.AddMemoryAttachment(b"b", "", "application/pdf") is True
    atts = msg.Attachments
    assert [a.Filename for a in atts] == ["att0.dat", "att1.dat"]
    assert atts.Remove(1) is True
    att = atts.Item(1)
    assert att.Filename == "att1.dat"  # keeps its number
    assert att.SaveFile("/tmp") is False  # a nameless attachment must be named
    korvane.release(att)
    korvane.release(atts)


def test_clone_is_stale_and_unparsed(msg):
    msg.RawBody = "Subject: parsed\r\n\r\nx"
    clone = msg.Clone()
    assert clone.Subject == ""
    korvane.release(clone)


def test_pending_members_say_so(msg):
    with pytest.raises(korvane.Error) as info:
        msg.DecodeMstnef()
    assert "not available" in str(info.value)


def test_time_zone_offset_matches_the_platform(msg):
    import time
    now = time.localtime()
    bias = -now.tm_gmtoff // 60
    assert msg.GetLocalTimeZoneOffset() == bias


def test_registration_and_creation_through_the_store(leakcheck, tmp_path):
    store = str(tmp_path / "registry.ini")
    korvane.RegisterServer(store)
    text = open(store).read()
    for progid in ["Korvane.Message", "Korvane.FromFile", "Korvane.MailboxStatus"]:
        assert "[%s.1]" % progid in text
    assert "[Korvane.FormFile]" not in text and "[Korvane.TestObject]" not in text
    m = korvane.CreateRegisteredObject("Korvane.Message.1", store)
    m.Subject = "through the store"
    assert m.Subject == "through the store"
    korvane.release(m)
    with pytest.raises(korvane.Error):
        korvane.CreateRegisteredObject("Korvane.FormFile", store)
    korvane.UnregisterServer(store)
    text = open(store).read()
    assert "[CLSID]" in text
    assert "Korvane." not in text
    assert os.path.exists(store)
