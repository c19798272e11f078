"""Korvane.Uploader as a web script uses it: a posted body in, fields and files out."""
import base64
from email import policy
from email.message import EmailMessage

import pytest

import korvane

E_INVALIDARG = 0x80070057
P = policy.SMTP.clone(max_line_length=200)  # CR LF line ends, as HTTP wants


def email_form(parts):
    """A multipart/form-data body as Python's email package writes it:
    parts are (name, content, filename or None, cte)."""
    form = EmailMessage(policy=P)
    form.set_type("multipart/form-data")
    for name, content, filename, cte in parts:
        part = EmailMessage(policy=P)
        if isinstance(content, bytes):
            part.set_content(content, maintype="application", subtype="octet-stream", cte=cte)
        else:
            part.set_content(content, cte=cte)
        disposition = f'form-data; name="{name}"'
        if filename is not None:
            disposition += f'; filename="{filename}"'
        part["Content-Disposition"] = disposition
        form.attach(part)
    raw = form.as_bytes()
    return raw[raw.index(b"\r\n\r\n") + 4:]  # the HTTP body: what follows the headers


@pytest.fixture
def uploader(leakcheck):
    up = korvane.CreateObject("Korvane.Uploader")
    yield up
    korvane.release(up)


def test_body_from_the_email_package(uploader):
    body = email_form([
        ("title", "Grüße", None, "8bit"),
        ("tag", "a", None, "8bit"),
        ("tag", "b", None, "8bit"),
        ("data", bytes(range(256)), "bytes.bin", "base64"),
        # the package writes a backslash escaped, as a quoted string: "C:\\dir\\t.txt"
        ("text", "line1\nline2\n", "C:\\\\dir\\\\t.txt", "8bit"),
        ("skipped", "", "", "8bit"),
    ])
    assert uploader.ParseRequest(body) is True
    uploader.Codepage = 65001
    fields = {e.Name: e.Value for e in uploader.FormElements}
    # set_content ends every text with a line break, which is the part's.
    # An empty file name comes out as a bare `filename`, without `="`: the
    # part is then a field.
    assert fields == {"tag": "a\r\n,b\r\n", "title": "Grüße\r\n", "skipped": "\r\n"}
    files = uploader.FormFiles
    assert len(files) == 2
    data = files.Item("data")
    assert (data.Filename, data.ContentType) == ("bytes.bin", "application/octet-stream")
    assert base64.b64decode(data.ValueAsArray) == bytes(range(256))
    text = files.Item("text")
    assert text.Filename == "t.txt"
    assert text.ContentType == 'text/plain; charset="utf-8"'
    assert text.ValueAsArray == b"line1\r\nline2\r\n"
    assert text.Size == 14


def test_item_by_missing_name_and_bad_position(uploader):
    uploader.ParseRequest(email_form([("a", "1", None, "8bit")]))
    elements = uploader.FormElements
    assert elements.Item("missing").Value in ("", None)
    assert elements.Count == 1
    for position in (0, 2):
        with pytest.raises(korvane.ObjectError) as err:
            elements.Item(position)
        assert f"{E_INVALIDARG:#010x}" in str(err.value).lower()
