"""Cost of one late-bound property get and one method call from Python,
through the script host (ctypes over the C interface).

    /usr/bin/python3 bench/automation_py.py [iterations]
"""

import os
import sys
import timeit

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "python"))

import korvane  # noqa: E402


def main():
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 50000
    korvane.register_test_class()
    o = korvane.CreateObject("Korvane.TestObject")
    o.Long = 7
    o.Text = "a subject line of ordinary length"
    cases = [
        ("property get (long)", lambda: o.Long),
        ("property get (string)", lambda: o.Text),
        ("property put (long)", lambda: setattr(o, "Long", 5)),
        ("method call Add(1, 2)", lambda: o.Add(1, 2)),
        ("method call Add(1) with default", lambda: o.Add(1)),
        ("method call with keyword", lambda: o.Join("a", Sep="+", B="b")),
    ]
    for name, fn in cases:
        best = min(timeit.repeat(fn, number=n, repeat=3))
        print(f"{name:36s} {best / n * 1e6:8.2f} us")


if __name__ == "__main__":
    main()
