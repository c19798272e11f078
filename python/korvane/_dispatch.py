"""Late-bound proxies over the C interface: conversions, calls, events."""

import ctypes
import datetime
import decimal
import sys
import traceback
from ctypes import byref, c_char_p, c_int, c_int16, c_int32, c_size_t, c_uint32, c_void_p

from ._native import SINK, MemberInfo, ParamInfo, Variant, last_error, lib

# Variant types and invoke kinds, with the Windows numbers.
VT_EMPTY, VT_NULL, VT_I2, VT_I4, VT_R4, VT_R8, VT_CY, VT_DATE, VT_BSTR = range(9)
VT_DISPATCH, VT_ERROR, VT_BOOL, VT_VARIANT, VT_UNKNOWN = 9, 10, 11, 12, 13
VT_I1, VT_UI1, VT_UI2, VT_UI4, VT_I8, VT_UI8, VT_INT, VT_UINT = range(16, 24)
VT_ARRAY, VT_BYREF = 0x2000, 0x4000
METHOD, GET, PUT, PUTREF = 1, 2, 4, 8

DISP_E_MEMBERNOTFOUND = -2147352573
DISP_E_PARAMNOTFOUND = -2147352572
DISP_E_TYPEMISMATCH = -2147352571
DISP_E_UNKNOWNNAME = -2147352570
DISP_E_EXCEPTION = -2147352567
DISP_E_OVERFLOW = -2147352566
DISP_E_BADPARAMCOUNT = -2147352562
DISP_E_PARAMNOTOPTIONAL = -2147352561


class Error(Exception):
    """A call through Korvane failed. hresult is the status, as a signed 32-bit int."""

    def __init__(self, hresult, message):
        super().__init__(message)
        self.hresult = hresult


class UnknownNameError(Error, AttributeError):
    """The object has no member of that name."""


class ArgumentCountError(Error, TypeError):
    """Too many or too few arguments, a required one left out, or an unknown keyword."""


class TypeMismatchError(Error, TypeError):
    """An argument could not be converted to the type the member takes."""


class ObjectError(Error):
    """The member itself reported a failure; scode is its own code."""

    def __init__(self, hresult, message, scode):
        super().__init__(hresult, message)
        self.scode = scode


def _raise(status):
    message = last_error()
    if status in (DISP_E_UNKNOWNNAME, DISP_E_MEMBERNOTFOUND):
        raise UnknownNameError(status, message)
    if status in (DISP_E_BADPARAMCOUNT, DISP_E_PARAMNOTOPTIONAL, DISP_E_PARAMNOTFOUND):
        raise ArgumentCountError(status, message)
    if status in (DISP_E_TYPEMISMATCH, DISP_E_OVERFLOW):
        raise TypeMismatchError(status, message)
    if status == DISP_E_EXCEPTION:
        raise ObjectError(status, message, lib.kv_last_scode())
    raise Error(status, message)


def _check(status):
    if status < 0:
        _raise(status)
    return status


class _MissingType:
    """An argument left out on purpose: the member's default applies."""
    _instance = None

    def __new__(cls):
        if cls._instance is None:
            cls._instance = super().__new__(cls)
        return cls._instance

    def __repr__(self):
        return "korvane.Missing"

    def __bool__(self):
        return False


Missing = _MissingType()


class Ref:
    """A by-reference argument of an event, such as Proceed: set .value to answer."""
    __slots__ = ("value",)

    def __init__(self, value):
        self.value = value

    def __bool__(self):
        return bool(self.value)

    def __repr__(self):
        return f"Ref({self.value!r})"


# ---- dates: days since 1899-12-30; before it the fraction still runs forward ----

_EPOCH = datetime.datetime(1899, 12, 30)


def _from_date(d):
    whole = int(d)  # truncates toward zero
    ms = round(abs(d - whole) * 86400000)
    return _EPOCH + datetime.timedelta(days=whole, milliseconds=ms)


def _to_date(value):
    if not isinstance(value, datetime.datetime):
        value = datetime.datetime(value.year, value.month, value.day)
    if value.tzinfo is not None:
        value = value.astimezone().replace(tzinfo=None)
    delta = value - _EPOCH
    days = delta.days
    frac = (delta.seconds + delta.microseconds / 1e6) / 86400.0
    if days < 0 and frac:
        # -0.75 days is 1899-12-29 06:00, written -1.25.
        return float(days) - frac
    return days + frac


# ---- Python -> VARIANT ----

def _set_bstr(v, text):
    data = text.encode("utf-16-le", "surrogatepass")
    p = lib.kv_bstr_alloc(data, len(data) // 2)
    if not p:
        raise MemoryError("string allocation failed")
    v.vt = VT_BSTR
    v.ptr = p


def to_variant(value, v):
    """Fills v (initialised, empty) from value; v then owns what it holds."""
    if value is None:
        v.vt = VT_EMPTY
    elif value is Missing:
        ctypes.memmove(byref(v), byref(lib.kv_variant_missing()), ctypes.sizeof(Variant))
    elif isinstance(value, bool):
        v.vt = VT_BOOL
        v.boolVal = -1 if value else 0
    elif isinstance(value, int):
        if -2**31 <= value < 2**31:
            v.vt, v.lVal = VT_I4, value
        elif -2**63 <= value < 2**63:
            v.vt, v.llVal = VT_I8, value
        else:
            raise OverflowError(f"{value} does not fit a 64-bit integer")
    elif isinstance(value, float):
        v.vt, v.dblVal = VT_R8, value
    elif isinstance(value, decimal.Decimal):
        v.vt, v.llVal = VT_CY, int((value * 10000).to_integral_value(decimal.ROUND_HALF_EVEN))
    elif isinstance(value, str):
        _set_bstr(v, value)
    elif isinstance(value, (bytes, bytearray, memoryview)):
        data = bytes(value)
        _check(lib.kv_bytes_to_variant(data, len(data), byref(v)))
    elif isinstance(value, (datetime.datetime, datetime.date)):
        v.vt, v.dblVal = VT_DATE, _to_date(value)
    elif isinstance(value, Dispatch):
        lib.kv_addref(value._ptr)
        v.vt, v.ptr = VT_DISPATCH, value._ptr
    elif isinstance(value, (list, tuple)):
        items = (Variant * len(value))()
        try:
            for i, item in enumerate(value):
                to_variant(item, items[i])
            _check(lib.kv_array_to_variant(items, len(value), byref(v)))
        finally:
            for item in items:
                lib.kv_variant_clear(byref(item))
    else:
        raise TypeError(f"cannot pass a {type(value).__name__} to Korvane")


# ---- VARIANT -> Python ----

_BYREF_READ = {
    VT_I2: ctypes.c_int16, VT_I4: ctypes.c_int32, VT_R4: ctypes.c_float, VT_R8: ctypes.c_double,
    VT_CY: ctypes.c_int64, VT_DATE: ctypes.c_double, VT_BSTR: c_void_p, VT_DISPATCH: c_void_p,
    VT_ERROR: ctypes.c_int32, VT_BOOL: ctypes.c_int16, VT_UNKNOWN: c_void_p, VT_I1: ctypes.c_int8,
    VT_UI1: ctypes.c_uint8, VT_UI2: ctypes.c_uint16, VT_UI4: ctypes.c_uint32, VT_I8: ctypes.c_int64,
    VT_UI8: ctypes.c_uint64, VT_INT: ctypes.c_int32, VT_UINT: ctypes.c_uint32,
}


def _deref(v):
    """A borrowed, by-value view of a by-reference variant."""
    vt = v.vt & ~VT_BYREF
    if not v.ptr:
        return Variant()
    if vt == VT_VARIANT:
        return Variant.from_address(v.ptr)
    plain = Variant()
    plain.vt = vt
    kind = c_void_p if vt & VT_ARRAY else _BYREF_READ.get(vt)
    if kind is None:
        raise TypeError(f"cannot read a variant of type {v.vt:#x}")
    ctypes.memmove(byref(plain, 8), v.ptr, ctypes.sizeof(kind))
    return plain


def _bstr_text(p):
    if not p:
        return ""
    n = lib.kv_bstr_len(p)
    return ctypes.string_at(p, 2 * n).decode("utf-16-le", "surrogatepass")


def from_variant(v):
    """The Python value of v, which stays the caller's (references are added)."""
    vt = v.vt
    if vt & VT_BYREF:
        return from_variant(_deref(v))
    if vt & VT_ARRAY:
        if vt == VT_ARRAY | VT_UI1:
            data, size = c_void_p(), c_size_t()
            _check(lib.kv_variant_bytes(byref(v), byref(data), byref(size)))
            return ctypes.string_at(data, size.value) if size.value else b""
        lower, count = c_int32(), c_int32()
        _check(lib.kv_variant_array_bounds(byref(v), byref(lower), byref(count)))
        out = []
        for i in range(lower.value, lower.value + count.value):
            item = Variant()
            _check(lib.kv_variant_array_get(byref(v), i, byref(item)))
            try:
                out.append(from_variant(item))
            finally:
                lib.kv_variant_clear(byref(item))
        return out
    if vt in (VT_EMPTY, VT_NULL):
        return None
    if vt == VT_BSTR:
        return _bstr_text(v.ptr)
    if vt == VT_BOOL:
        return v.boolVal != 0
    if vt in (VT_I4, VT_INT):
        return v.lVal
    if vt == VT_I2:
        return v.iVal
    if vt == VT_R8:
        return v.dblVal
    if vt == VT_R4:
        return v.fltVal
    if vt == VT_DATE:
        return _from_date(v.dblVal)
    if vt == VT_DISPATCH:
        if not v.ptr:
            return None
        lib.kv_addref(v.ptr)
        return Dispatch(v.ptr)
    if vt == VT_UNKNOWN:
        if not v.ptr:
            return None
        lib.kv_addref(v.ptr)
        return Unknown(v.ptr)
    if vt == VT_CY:
        return decimal.Decimal(v.llVal) / 10000
    if vt == VT_ERROR:
        return None if v.scode == DISP_E_PARAMNOTFOUND else v.scode
    simple = {VT_I1: "cVal", VT_UI1: "bVal", VT_UI2: "uiVal", VT_UI4: "ulVal", VT_I8: "llVal",
              VT_UI8: "ullVal", VT_UINT: "ulVal"}
    if vt in simple:
        return getattr(v, simple[vt])
    raise TypeError(f"cannot convert a variant of type {vt:#x}")


# ---- type information ----

class _Member:
    __slots__ = ("dispid", "name", "kinds", "vt", "params", "noptional", "byref")

    def __init__(self, info, params):
        self.dispid = info.dispid
        self.name = info.name.decode()
        self.kinds = info.kinds
        self.vt = info.vt
        self.params = params  # names, lower-cased, in order
        self.noptional = info.noptional
        self.byref = []       # which parameters are by reference (events)


class _Interface:
    def __init__(self, name, members):
        self.name = name
        self.by_name = {m.name.lower(): m for m in members}
        self.by_id = {m.dispid: m for m in members}

    def find(self, name):
        return self.by_name.get(name.lower())


_interfaces = {}


def _interface(ptr, which):
    name = c_char_p()
    if lib.kv_type_name(ptr, which, byref(name)) < 0:
        return None
    key = (name.value, which)
    iface = _interfaces.get(key)
    if iface is None:
        count = c_int()
        _check(lib.kv_member_count(ptr, which, byref(count)))
        members = []
        for i in range(count.value):
            info = MemberInfo()
            _check(lib.kv_member_at(ptr, which, i, byref(info)))
            names, byref_flags = [], []
            for k in range(info.nparams):
                p = ParamInfo()
                _check(lib.kv_param_at(ptr, which, i, k, byref(p), None))
                names.append(p.name.decode())
                byref_flags.append(bool(p.vt & VT_BYREF))
            m = _Member(info, names)
            m.byref = byref_flags
            members.append(m)
        iface = _interfaces[key] = _Interface(name.value.decode(), members)
    return iface


# ---- calls ----

def _invoke(ptr, dispid, kind, args):
    n = len(args)
    argv = (Variant * n)() if n else None
    result = Variant()
    try:
        for i, a in enumerate(args):
            to_variant(a, argv[i])
        status = lib.kv_invoke(ptr, dispid, kind, argv, n, byref(result))
        if status < 0:
            _raise(status)
        return from_variant(result)
    finally:
        for i in range(n):
            lib.kv_variant_clear(byref(argv[i]))
        lib.kv_variant_clear(byref(result))


def _place(member, args, kwargs):
    """Positional and keyword arguments, in parameter order, gaps Missing."""
    if not kwargs:
        return list(args)
    lowered = [p.lower() for p in member.params]
    placed = list(args)
    for key, value in kwargs.items():
        try:
            pos = lowered.index(key.lower())
        except ValueError:
            raise ArgumentCountError(DISP_E_PARAMNOTFOUND,
                                     f"'{member.name}' has no parameter named '{key}'") from None
        if pos < len(args):
            raise ArgumentCountError(DISP_E_PARAMNOTFOUND,
                                     f"argument '{key}' of '{member.name}' given twice")
        while len(placed) <= pos:
            placed.append(Missing)
        placed[pos] = value
    return placed


class _BoundMember:
    """A method, or a property with parameters (such as Item), ready to call."""
    __slots__ = ("_obj", "_member", "_kind")

    def __init__(self, obj, member, kind):
        self._obj = obj
        self._member = member
        self._kind = kind

    def __call__(self, *args, **kwargs):
        return _invoke(self._obj._checked(), self._member.dispid, self._kind,
                       _place(self._member, args, kwargs))

    def __repr__(self):
        return f"<korvane member {self._member.name} of {self._obj!r}>"


class Unknown:
    """An object that offers no dispatch interface (such as an enumerator)."""
    __slots__ = ("_ptr",)

    def __init__(self, ptr):
        self._ptr = ptr

    def __del__(self):
        if self._ptr:
            lib.kv_release(self._ptr)
            self._ptr = None


class Dispatch:
    """A late-bound proxy: attribute access and calls go through the object's members."""
    __slots__ = ("_ptr", "_iface", "_connections", "__weakref__")

    def __init__(self, ptr):
        # Takes over one reference to ptr.
        object.__setattr__(self, "_ptr", ptr)
        object.__setattr__(self, "_iface", _interface(ptr, 0))
        object.__setattr__(self, "_connections", [])

    def _release(self):
        ptr = getattr(self, "_ptr", None)
        if ptr:
            for c in self._connections:
                c.close()
            object.__setattr__(self, "_ptr", None)
            lib.kv_release(ptr)

    def __del__(self):
        self._release()

    def _checked(self):
        if not self._ptr:
            raise Error(-2147467261, "the object was released")  # E_POINTER
        return self._ptr

    def _find(self, name):
        if self._iface is not None:
            m = self._iface.find(name)
            if m is None:
                raise UnknownNameError(DISP_E_UNKNOWNNAME,
                                       f"{self._iface.name} has no member named '{name}'")
            return m
        # No type information: ask by name and let the object decide the kind.
        dispid = c_int32()
        _check(lib.kv_get_id(self._ptr, name.encode(), byref(dispid)))
        info = MemberInfo(dispid.value, name.encode(), METHOD | GET | PUT, VT_VARIANT, 0, 0)
        return _Member(info, [])

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        m = self._find(name)
        if m.kinds & METHOD and (self._iface is not None):
            return _BoundMember(self, m, METHOD)
        if m.kinds & GET:
            if m.params and self._iface is not None:
                return _BoundMember(self, m, GET)
            return _invoke(self._checked(), m.dispid, GET if self._iface else METHOD | GET, [])
        raise AttributeError(f"'{m.name}' can only be written")

    def __setattr__(self, name, value):
        m = self._find(name)
        if isinstance(value, Dispatch) and m.kinds & PUTREF:
            kind = PUTREF
        elif m.kinds & PUT:
            kind = PUT
        elif m.kinds & PUTREF:
            kind = PUTREF
        else:
            raise AttributeError(f"'{m.name}' is read-only")
        _invoke(self._checked(), m.dispid, kind, [value])

    def __dir__(self):
        return sorted(m.name for m in self._iface.by_id.values()) if self._iface else []

    def __repr__(self):
        name = self._iface.name if self._iface else "IDispatch"
        return f"<korvane {name} object>"

    def __eq__(self, other):
        if not isinstance(other, Dispatch):
            return NotImplemented
        return bool(lib.kv_same_object(self._ptr, other._ptr))

    def __hash__(self):
        # Equal objects share their interface; identity would need the object's address.
        return hash(self._iface.name if self._iface else None)

    # Collections: Count and Item(Index), Item counting from 1 as the objects do.
    def _has(self, name):
        return self._iface is not None and self._iface.find(name) is not None

    def __bool__(self):
        # An object is true even when it is an empty collection, as in a script.
        return True

    def __len__(self):
        if not self._has("Count"):
            raise TypeError(f"{self!r} is not a collection")
        return self.Count

    def __iter__(self):
        if not (self._has("Count") and self._has("Item")):
            raise TypeError(f"{self!r} is not a collection")
        for i in range(1, self.Count + 1):
            yield self.Item(i)

    def __getitem__(self, index):
        if not self._has("Item"):
            raise TypeError(f"{self!r} is not a collection")
        return self.Item(index)


# ---- events ----

class _Connection:
    """One advised sink: a handler object whose methods are named after the events."""

    def __init__(self, ptr, handler):
        self._iface = _interface(ptr, 1)
        if self._iface is None:
            raise Error(-2147220992, "the object fires no events")
        self._handler = handler
        self._callback = SINK(self._deliver)  # kept alive as long as the connection
        cookie = c_uint32()
        _check(lib.kv_advise(ptr, self._callback, None, byref(cookie)))
        lib.kv_addref(ptr)
        self._ptr = ptr
        self._cookie = cookie.value

    def _deliver(self, ctx, dispid, args, nargs):
        try:
            m = self._iface.by_id.get(dispid)
            fn = getattr(self._handler, m.name, None) if m else None
            if fn is None:
                return 0
            # Fired in reverse order: the last argument comes first.
            raw = [args[nargs - 1 - i] for i in range(nargs)]
            values, refs = [], []
            for i, v in enumerate(raw):
                if v.vt & VT_BYREF:
                    r = Ref(from_variant(v))
                    refs.append((r, v))
                    values.append(r)
                else:
                    values.append(from_variant(v))
            answer = fn(*values)
            bool_refs = [(r, v) for r, v in refs if v.vt == VT_BYREF | VT_BOOL]
            if answer is not None and len(bool_refs) == 1:
                bool_refs[0][0].value = bool(answer)
            for r, v in bool_refs:
                c_int16.from_address(v.ptr).value = -1 if r.value else 0
        except Exception:  # a handler's failure must not cross into the library
            traceback.print_exc(file=sys.stderr)
        return 0

    def close(self):
        if self._ptr:
            ptr, self._ptr = self._ptr, None
            lib.kv_unadvise(ptr, self._cookie)
            lib.kv_release(ptr)

    def __del__(self):
        self.close()


class Events:
    """What WithEvents returns: close() disconnects; also a context manager."""

    def __init__(self, connection):
        self._connection = connection

    @property
    def handler(self):
        return self._connection._handler

    def close(self):
        self._connection.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
