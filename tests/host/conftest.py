import gc
import os
import sys

import pytest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "python"))

import korvane  # noqa: E402


@pytest.fixture
def leakcheck():
    """Fails the test if an object of the library outlives it."""
    korvane.register_test_class()
    gc.collect()
    before = korvane.live_objects()
    yield
    gc.collect()
    assert korvane.live_objects() == before, "an object was not released"


@pytest.fixture
def obj(leakcheck):
    """A fresh Korvane.TestObject, released before leakcheck looks (pytest itself
    holds the proxy until the test is over)."""
    o = korvane.CreateObject("Korvane.TestObject")
    yield o
    korvane.release(o)
