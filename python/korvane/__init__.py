"""Korvane for Python: the objects of libkorvane.so, late-bound, as a script uses them.

    import korvane
    msg = korvane.CreateObject("Korvane.Message")
    msg.Subject = "Report"
    print(msg.RawBody)

Attributes are found by name (ignoring case) and invoked by member id. Values
convert both ways: str, bool, int, float, decimal.Decimal (currency), bytes
(byte arrays), datetime (dates), None (empty and null), lists (variant arrays)
and proxies for objects. Methods take positional and keyword arguments by
parameter name; korvane.Missing leaves an optional argument out. A collection
with Count and Item supports len(), iteration and obj[i] (Item counts from 1).

Events go to a handler object whose methods are named after them:

    class Handler:
        def OnReceiveProgress(self, Index, TotalBytesReceived, Proceed):
            Proceed.value = TotalBytesReceived < 10000   # or return False

    korvane.WithEvents(pop3, Handler())

Failures a member reports as results (False, error properties) stay results;
misuse raises: UnknownNameError (also an AttributeError), ArgumentCountError
and TypeMismatchError (also TypeErrors), ObjectError when a member fails.

The library is loaded from $KORVANE_LIBRARY, else from build/ of this
checkout, else wherever the loader finds libkorvane.so.
"""

from ctypes import byref, c_void_p

from ._dispatch import (ArgumentCountError, Dispatch, Error, Events, Missing, ObjectError, Ref,
                        TypeMismatchError, UnknownNameError, Unknown, _check, _Connection)
from ._native import PUMP, lib

__all__ = [
    "CreateObject", "CreateRegisteredObject", "WithEvents", "Missing", "Ref", "Dispatch",
    "Error", "UnknownNameError", "ArgumentCountError", "TypeMismatchError", "ObjectError",
    "live_objects", "release", "set_pump", "register_test_class",
    "RegisterServer", "UnregisterServer",
]


def CreateObject(progid):
    """A new object of the class named progid ("Korvane.Message" or "Korvane.Message.1")."""
    ptr = c_void_p()
    _check(lib.kv_create(progid.encode(), byref(ptr)))
    return Dispatch(ptr.value)


def CreateRegisteredObject(progid, store=None):
    """A new object created through the key store, as the runtime does it."""
    ptr = c_void_p()
    _check(lib.kv_create_registered(store.encode() if store else None, progid.encode(), byref(ptr)))
    return Dispatch(ptr.value)


def WithEvents(obj, handler):
    """Connects handler to obj's events for as long as obj lives (or until close())."""
    connection = _Connection(obj._ptr, handler)
    obj._connections.append(connection)
    return Events(connection)


def release(obj):
    """Drops obj's reference now, as a script's "Set obj = Nothing" does; obj is unusable after."""
    obj._release()


def live_objects():
    """How many objects of the library are alive: 0 after everything was released."""
    return lib.kv_live_objects()


_pump = None


def set_pump(fn):
    """fn() runs after each wait slice of a call in events mode; None removes it."""
    global _pump
    if fn is None:
        _pump = None
        lib.kv_set_pump(PUMP(), None)
        return
    _pump = PUMP(lambda ctx: fn())
    lib.kv_set_pump(_pump, None)


def RegisterServer(store=None):
    """Writes the registration of every class into the key store at store (default: the user's)."""
    _check(lib.kv_register_server(store.encode() if store else None))


def UnregisterServer(store=None):
    """Removes what RegisterServer wrote; the store's top-level CLSID key stays."""
    _check(lib.kv_unregister_server(store.encode() if store else None))


def register_test_class():
    """Registers Korvane.TestObject, a class for tests of this layer. Not for applications."""
    _check(lib.kv_register_test_class())
