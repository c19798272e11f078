"""Python's email package on the parse benchmark's corpus, the peer that
bench_parse starts beside Korvane and GMime.

    /usr/bin/python3 bench/parse_py.py rate PASSES FILE_OR_DIR...
        prints "bytes seconds" for parsing every message (read into memory
        first, not timed) and decoding every leaf: the CPU seconds of the
        best of PASSES passes
    /usr/bin/python3 bench/parse_py.py peak FILE
        prints "rss_before_kb hwm_after_kb bytes" around reading, parsing
        and decoding FILE
"""

import email
import email.policy
import os
import sys
import time


def decode_all(raw):
    msg = email.message_from_bytes(raw, policy=email.policy.default)
    n = 0
    # walk() enters message/rfc822 parts too, so forwarded messages are
    # decoded leaf by leaf.
    for part in msg.walk():
        if part.is_multipart():
            continue
        if part.get_content_maintype() == "text":
            n += len(part.get_content())
        else:
            payload = part.get_payload(decode=True)
            n += len(payload) if payload else 0
    return n


def status_kb(field):
    with open("/proc/self/status", encoding="ascii") as f:
        for line in f:
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return 0


def files_of(paths):
    out = []
    for p in paths:
        if os.path.isdir(p):
            out += [os.path.join(p, n) for n in sorted(os.listdir(p)) if n.endswith(".eml")]
        else:
            out.append(p)
    return out


def main():
    mode, paths = sys.argv[1], sys.argv[2:]
    if mode == "rate":
        passes, paths = int(paths[0]), paths[1:]
        raws = []
        for name in files_of(paths):
            with open(name, "rb") as f:
                raws.append(f.read())
        best = None
        for _ in range(passes):
            start = time.process_time()
            for raw in raws:
                decode_all(raw)
            seconds = time.process_time() - start
            best = seconds if best is None else min(best, seconds)
        print(sum(len(r) for r in raws), best)
    elif mode == "peak":
        before = status_kb("VmRSS")
        with open(paths[0], "rb") as f:
            raw = f.read()
        decode_all(raw)
        print(before, status_kb("VmHWM"), len(raw))
    else:
        sys.exit("usage: parse_py.py rate|peak PATH...")


if __name__ == "__main__":
    main()
