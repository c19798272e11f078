"""The form parser on posts made by real clients: curl -F, Python's email
package sent with urllib, and headless Chromium submitting a form. Each posts
to the upload example served on 127.0.0.1; the test reads back the fields the
example saw and the files it saved."""
import base64
import html
import importlib.util
import os
import queue
import re
import shutil
import socketserver
import subprocess
import sys
import threading
import urllib.request
from email import policy
from email.message import EmailMessage
from wsgiref.simple_server import WSGIRequestHandler, WSGIServer

import pytest

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
sys.path.insert(0, os.path.join(ROOT, "python"))
_example = importlib.util.spec_from_file_location("upload_form", os.path.join(ROOT, "examples", "upload_form.py"))
upload_form = importlib.util.module_from_spec(_example)
_example.loader.exec_module(upload_form)

ALL_BYTES = bytes(range(256)) * 4
CLIENT_SECONDS = 60

# Chromium fills the file inputs from script (a page cannot read local files)
# and submits the form, so the body is the browser's own encoding.
AUTO_PAGE = """<!doctype html><meta charset="utf-8">
<form id="f" method="post" enctype="multipart/form-data" action="/">
<input name="title" value="Grüße aus Chromium">
<textarea name="note">line one
line two</textarea>
<input type="file" name="first"><input type="file" name="second">
</form>
<script>
function put(input, name, type, content) {
  const dt = new DataTransfer();
  dt.items.add(new File([content], name, {type: type}));
  input.files = dt.files;
}
const f = document.getElementById("f");
const all = new Uint8Array(1024);
for (let i = 0; i < all.length; i++) all[i] = i % 256;
put(f.first, "notes.txt", "text/plain", "hello from the browser\\r\\n");
put(f.second, "bytes.bin", "application/octet-stream", all);
f.submit();
</script>
"""


class _Server(socketserver.ThreadingMixIn, WSGIServer):
    daemon_threads = True


class _Quiet(WSGIRequestHandler):
    def log_message(self, *args):
        pass


@pytest.fixture
def site(tmp_path):
    """The example app on 127.0.0.1, with the auto-submitting page at /auto;
    each post's response page lands in site.responses."""
    upload_dir = str(tmp_path / "uploads")
    app = upload_form.make_app(upload_dir)
    responses = queue.Queue()

    def wrapper(environ, start_response):
        if environ["REQUEST_METHOD"] == "GET" and environ["PATH_INFO"] == "/auto":
            data = AUTO_PAGE.encode()
            start_response("200 OK", [("Content-Type", "text/html; charset=utf-8")])
            return [data]
        if environ["REQUEST_METHOD"] != "POST":
            start_response("404 Not Found", [("Content-Type", "text/plain")])
            return [b""]
        out = b"".join(app(environ, start_response))
        responses.put(out.decode())
        return [out]

    server = _Server(("127.0.0.1", 0), _Quiet)
    server.set_app(wrapper)
    thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.1}, daemon=True)
    thread.start()

    class Site:
        url = f"http://127.0.0.1:{server.server_port}/"
        dir = upload_dir

        @staticmethod
        def next_response(timeout=CLIENT_SECONDS):
            return responses.get(timeout=timeout)

    yield Site
    server.shutdown()
    server.server_close()


def fields_of(page):
    return [(html.unescape(n), html.unescape(v))
            for n, v in re.findall(r'<li class="field" data-name="([^"]*)">([^<]*)</li>', page)]


def files_of(page):
    return dict(re.findall(r'<li class="file" data-name="([^"]*)" data-saved="(\d)">', page))


def saved(site, name):
    with open(os.path.join(site.dir, name), "rb") as f:
        return f.read()


@pytest.mark.skipif(shutil.which("curl") is None, reason="curl is not installed (Debian package curl)")
def test_curl_form_post(site, tmp_path):
    (tmp_path / "all.bin").write_bytes(ALL_BYTES)
    (tmp_path / "notes.txt").write_bytes("naïve\r\nsecond line\n".encode())
    subprocess.run(
        ["curl", "-sS", "--noproxy", "*", "--max-time", str(CLIENT_SECONDS), "-o", os.devnull,
         "-F", "title=Grüße", "-F", "tag=a", "-F", "tag=b", "-F", "empty=",
         "-F", f"bin=@{tmp_path / 'all.bin'};type=application/octet-stream",
         "-F", f"text=@{tmp_path / 'notes.txt'};filename=C:\\Users\\me\\notes.txt",
         "-F", f"escape=@{tmp_path / 'notes.txt'};filename=../escape.txt",
         site.url],
        check=True, timeout=CLIENT_SECONDS + 10)
    page = site.next_response(timeout=5)
    assert sorted(fields_of(page)) == [("empty", ""), ("tag", "a,b"), ("title", "Grüße")]
    assert files_of(page) == {"bin": "1", "text": "1", "escape": "0"}
    assert saved(site, "all.bin") == ALL_BYTES
    assert saved(site, "notes.txt") == "naïve\r\nsecond line\n".encode()
    assert sorted(os.listdir(site.dir)) == ["all.bin", "notes.txt"]
    assert not os.path.exists(os.path.join(os.path.dirname(site.dir), "escape.txt"))


def test_email_package_posted_with_urllib(site):
    p = policy.SMTP.clone(max_line_length=200)
    form = EmailMessage(policy=p)
    form.set_type("multipart/form-data")
    for name, content, filename in [("title", "plain words", None), ("doc", "text body\n", "doc.txt"),
                                    ("raw", ALL_BYTES, "raw.bin")]:
        part = EmailMessage(policy=p)
        if isinstance(content, bytes):
            # 8-bit bytes would be line-folded by the package: send them as a
            # browser never would, base64, and decode what arrives.
            part.set_content(content, maintype="application", subtype="octet-stream", cte="base64")
        else:
            part.set_content(content, cte="8bit")
        part["Content-Disposition"] = f'form-data; name="{name}"' + (f'; filename="{filename}"' if filename else "")
        form.attach(part)
    raw = form.as_bytes()
    head, body = raw.split(b"\r\n\r\n", 1)
    content_type = re.search(rb"Content-Type: ([^\r\n]+)", head).group(1).decode()
    request = urllib.request.Request(site.url, data=body, headers={"Content-Type": content_type})
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    with opener.open(request, timeout=CLIENT_SECONDS) as response:
        page = response.read().decode()
    assert fields_of(page) == [("title", "plain words\r\n")]
    assert files_of(page) == {"doc": "1", "raw": "1"}
    assert saved(site, "doc.txt") == b"text body\r\n"
    assert base64.b64decode(saved(site, "raw.bin")) == ALL_BYTES


def _chromium():
    for name in ("chromium", "chromium-browser"):
        if shutil.which(name):
            return shutil.which(name)
    return None


@pytest.mark.skipif(_chromium() is None, reason="Chromium is not installed (Debian package chromium)")
def test_chromium_submits_the_form(site, tmp_path):
    command = [_chromium(), "--headless=new", "--disable-gpu", "--no-first-run", "--no-proxy-server",
               f"--user-data-dir={tmp_path / 'profile'}", "--virtual-time-budget=20000",
               "--dump-dom", site.url + "auto"]
    if os.geteuid() == 0:
        command.insert(1, "--no-sandbox")  # the sandbox refuses to run as root
    browser = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    try:
        page = site.next_response(timeout=CLIENT_SECONDS)
    except queue.Empty:
        browser.kill()
        err = browser.communicate(timeout=10)[1].decode(errors="replace")
        pytest.fail("Chromium posted nothing within the time limit:\n" + err[-2000:])
    finally:
        if browser.poll() is None:
            browser.terminate()
            try:
                browser.wait(timeout=10)
            except subprocess.TimeoutExpired:
                browser.kill()
                browser.wait(timeout=10)
    assert sorted(fields_of(page)) == [("note", "line one\r\nline two"), ("title", "Grüße aus Chromium")]
    assert files_of(page) == {"first": "1", "second": "1"}
    assert saved(site, "notes.txt") == b"hello from the browser\r\n"
    assert saved(site, "bytes.bin") == ALL_BYTES
