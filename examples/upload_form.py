"""A web page that takes files: the WSGI side of a browser's form upload.

    python3 examples/upload_form.py [--port 8080] [--dir /tmp/korvane-uploads]

Serves, on 127.0.0.1 only, a form with two text fields and two file inputs.
A post is handed whole to Korvane.Uploader, which splits it into fields and
files; the fields are shown back and the files saved into the upload
directory. Any WSGI server can run make_app(); the one of the standard
library does here.
"""
import argparse
import html
import os
import sys
from wsgiref.simple_server import WSGIRequestHandler, make_server

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python"))
import korvane  # noqa: E402

MAX_BODY = 64 << 20  # refuse larger posts before reading them

FORM_PAGE = """<!doctype html>
<html><head><meta charset="utf-8"><title>Upload</title></head>
<body>
<form method="post" enctype="multipart/form-data" action="/">
  <p><label>Title <input name="title"></label></p>
  <p><label>Note <textarea name="note"></textarea></label></p>
  <p><input type="file" name="first"> <input type="file" name="second"></p>
  <p><button type="submit">Send</button></p>
</form>
</body></html>
"""


def _page(start_response, status, body):
    data = body.encode("utf-8")
    start_response(status, [("Content-Type", "text/html; charset=utf-8"),
                            ("Content-Length", str(len(data)))])
    return [data]


def handle_post(body, upload_dir):
    """Parses one posted body; returns (fields, files) as lists of tuples:
    (name, value) and (name, file name, content type, size, saved)."""
    uploader = korvane.CreateObject("Korvane.Uploader")
    uploader.Codepage = 65001  # our page is UTF-8, so the browser posts UTF-8
    if not uploader.ParseRequest(body):
        return None
    fields = [(e.Name or "", e.Value or "") for e in uploader.FormElements]
    files = []
    for f in uploader.FormFiles:
        # SaveToDisk keeps to upload_dir: a name with a path in it is refused.
        saved = f.SaveToDisk(upload_dir)
        files.append((f.Name or "", f.Filename or "", f.ContentType or "", f.Size, saved))
    return fields, files


def make_app(upload_dir):
    os.makedirs(upload_dir, exist_ok=True)

    def app(environ, start_response):
        if environ["REQUEST_METHOD"] != "POST":
            return _page(start_response, "200 OK", FORM_PAGE)
        length = int(environ.get("CONTENT_LENGTH") or 0)
        if length > MAX_BODY:
            return _page(start_response, "413 Payload Too Large", "<p>Too large.</p>")
        parsed = handle_post(environ["wsgi.input"].read(length), upload_dir)
        if parsed is None:
            return _page(start_response, "400 Bad Request", "<p>Not a form post.</p>")
        fields, files = parsed
        rows = [f'<li class="field" data-name="{html.escape(n)}">{html.escape(v)}</li>' for n, v in fields]
        rows += [f'<li class="file" data-name="{html.escape(n)}" data-saved="{int(bool(saved))}">'
                 f'{html.escape(fn)} ({html.escape(ct)}, {size} bytes)</li>'
                 for n, fn, ct, size, saved in files]
        return _page(start_response, "200 OK",
                     '<!doctype html><meta charset="utf-8"><ul>' + "".join(rows) + "</ul>")

    return app


class _QuietHandler(WSGIRequestHandler):
    def log_message(self, *args):
        pass


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--port", type=int, default=8080)
    parser.add_argument("--dir", default="/tmp/korvane-uploads")
    args = parser.parse_args()
    with make_server("127.0.0.1", args.port, make_app(args.dir), handler_class=_QuietHandler) as server:
        print(f"http://127.0.0.1:{server.server_port}/  (files go to {args.dir})")
        server.serve_forever()


if __name__ == "__main__":
    main()
