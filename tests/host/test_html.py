"""HTML to plain text and back through Korvane.Message, as a script uses them."""
import pytest

import korvane


@pytest.fixture
def msg(leakcheck):
    m = korvane.CreateObject("Korvane.Message")
    yield m
    korvane.release(m)


@pytest.mark.parametrize("html, text", [
    ("<html><head><title>t</title></head><body>a</body></html>", "a"),
    ("<p>a</p><p>b</p>", "a\r\n\r\nb\r\n\r\n"),
    ("<ul><li>one</li><li>two</li></ul>", "one\r\ntwo\r\n"),
    ("a   <br>  b", "a\r\nb"),
    ("&lt;&Eacute;&#8364;&#128512;&foo;", "<\u00c9\u20ac\uf600?"),  # low 16 bits of 0x1F600
    ("x &amp; y\u00e9\U0001F600", "x & y\u00e9\U0001F600"),
    ("a <b", "a <b"),
    ("<!-- c -->z<script>s()</script>", "zs()"),
    ("<head", ""),
    ("", ""),
])
def test_plain_from_html_with_default_options(msg, html, text):
    assert msg.GetPlainFromHtml(html) == text


@pytest.mark.parametrize("options, suffix, text", [
    (1, "", "see t."),
    (4, "", "see t <u v> ."),
    (8, "", "see t.pic"),
    (12, "", "see t <u v> .pic"),
    (20, "", 'see <a href="u v">t</a>.'),
    (28, "target=_blank", 'see <a href="u v" target=_blank>t</a>.pic'),
    (-1, "", "see t."),  # links and images need options above 0
])
def test_plain_from_html_follows_the_message_options(msg, options, suffix, text):
    msg.AltBodyOptions = options
    msg.AltBodyHRefSuffix = suffix
    html = 'see <a href="u v">t</a>.<img src=a alt="pic">'
    assert msg.GetPlainFromHtml(html) == text


@pytest.mark.parametrize("args, kwargs, html", [
    (("",), {}, "<html>\r\n<head></head>\r\n<body></body></html>"),
    (("a<b", "T", True), {}, "<pre>\r\na&lt;b\r\n</pre>"),
    (("a<b",), {"InnerBodyOnly": True}, "<pre>\r\na&lt;b\r\n</pre>"),
    (("x", "<T>"), {}, "<html>\r\n<head><title><T></title></head>\r\n<body><pre>\r\nx\r\n</pre></body></html>"),
    (("'\"&\u00e9\r\n",), {"InnerBodyOnly": True}, "<pre>\r\n'&quot;&amp;\u00e9\r\n\r\n</pre>"),
    (("",), {"Title": "T", "InnerBodyOnly": True}, ""),
])
def test_html_from_plain(msg, args, kwargs, html):
    assert msg.GetHtmlFromPlain(*args, **kwargs) == html


def test_make_alt_body_only_for_html_bodies(msg):
    msg.BodyText = "<p>a &amp; <a href=\"u v\">b</a></p>"
    msg.AltBodyText = "kept"
    for fmt in (0, 2, 3):
        msg.BodyFormat = fmt
        assert msg.MakeAltBody() is False
        assert msg.AltBodyText == "kept"
    msg.BodyFormat = 1
    assert msg.MakeAltBody() is True
    assert msg.AltBodyText == "a & b\r\n\r\n"
    msg.AltBodyOptions = 4
    assert msg.MakeAltBody() is True
    assert msg.AltBodyText == "a & b <u v> \r\n\r\n"
    assert msg.BodyText == "<p>a &amp; <a href=\"u v\">b</a></p>"
