"""Loading libkorvane.so and declaring its C interface for ctypes."""

import ctypes
import os
from ctypes import (CFUNCTYPE, POINTER, Structure, Union, c_char_p, c_double, c_float, c_int,
                    c_int8, c_int16, c_int32, c_int64, c_long, c_size_t, c_uint8, c_uint16,
                    c_uint32, c_uint64, c_void_p)
from pathlib import Path


class _Value(Union):
    _fields_ = [
        ("llVal", c_int64), ("lVal", c_int32), ("bVal", c_uint8), ("iVal", c_int16),
        ("fltVal", c_float), ("dblVal", c_double), ("boolVal", c_int16), ("scode", c_int32),
        ("cVal", c_int8), ("uiVal", c_uint16), ("ulVal", c_uint32), ("ullVal", c_uint64),
        ("ptr", c_void_p), ("record", c_void_p * 2),
    ]


class Variant(Structure):
    """The 24-byte VARIANT of the C interface."""
    _anonymous_ = ("u",)
    _fields_ = [("vt", c_uint16), ("reserved1", c_uint16), ("reserved2", c_uint16),
                ("reserved3", c_uint16), ("u", _Value)]


assert ctypes.sizeof(Variant) == 24


class MemberInfo(Structure):
    _fields_ = [("dispid", c_int32), ("name", c_char_p), ("kinds", c_int), ("vt", c_uint16),
                ("nparams", c_int), ("noptional", c_int)]


class ParamInfo(Structure):
    _fields_ = [("name", c_char_p), ("vt", c_uint16), ("optional", c_int)]


SINK = CFUNCTYPE(c_int, c_void_p, c_int32, POINTER(Variant), c_int)
PUMP = CFUNCTYPE(None, c_void_p)

_NAME = "libkorvane.so"


def _candidates():
    env = os.environ.get("KORVANE_LIBRARY")
    if env:
        yield env
        return
    # python/korvane/_native.py -> the checkout's build directory.
    root = Path(__file__).resolve().parents[2]
    yield str(root / "build" / _NAME)
    yield _NAME  # wherever the loader finds it


def _load():
    errors = []
    for path in _candidates():
        if os.sep in path and not os.path.exists(path):
            errors.append(f"{path}: not found")
            continue
        try:
            return ctypes.CDLL(path)
        except OSError as e:
            errors.append(str(e))
    raise ImportError("cannot load the Korvane library (" + "; ".join(errors) +
                      "); build it first, or set KORVANE_LIBRARY to its path")


lib = _load()


def _declare(name, restype, *argtypes):
    f = getattr(lib, name)
    f.restype = restype
    f.argtypes = list(argtypes)


_obj = c_void_p
_var = POINTER(Variant)
_declare("kv_create", c_int, c_char_p, POINTER(_obj))
_declare("kv_create_registered", c_int, c_char_p, c_char_p, POINTER(_obj))
_declare("kv_addref", None, _obj)
_declare("kv_release", None, _obj)
_declare("kv_live_objects", c_long)
_declare("kv_same_object", c_int, _obj, _obj)
_declare("kv_get_id", c_int, _obj, c_char_p, POINTER(c_int32))
_declare("kv_invoke", c_int, _obj, c_int32, c_int, _var, c_int, _var)
_declare("kv_last_scode", c_int32)
_declare("kv_last_error", c_char_p)
_declare("kv_type_name", c_int, _obj, c_int, POINTER(c_char_p))
_declare("kv_member_count", c_int, _obj, c_int, POINTER(c_int))
_declare("kv_member_at", c_int, _obj, c_int, c_int, POINTER(MemberInfo))
_declare("kv_param_at", c_int, _obj, c_int, c_int, c_int, POINTER(ParamInfo), _var)
_declare("kv_advise", c_int, _obj, SINK, c_void_p, POINTER(c_uint32))
_declare("kv_unadvise", c_int, _obj, c_uint32)
_declare("kv_set_pump", None, PUMP, c_void_p)
_declare("kv_bstr_alloc", c_void_p, c_char_p, c_uint32)
_declare("kv_bstr_len", c_uint32, c_void_p)
_declare("kv_bstr_free", None, c_void_p)
_declare("kv_variant_init", None, _var)
_declare("kv_variant_clear", c_int, _var)
_declare("kv_variant_copy", c_int, _var, _var)
_declare("kv_variant_missing", Variant)
_declare("kv_bytes_to_variant", c_int, c_char_p, c_size_t, _var)
_declare("kv_variant_bytes", c_int, _var, POINTER(c_void_p), POINTER(c_size_t))
_declare("kv_array_to_variant", c_int, _var, c_int, _var)
_declare("kv_variant_array_bounds", c_int, _var, POINTER(c_int32), POINTER(c_int32))
_declare("kv_variant_array_get", c_int, _var, c_int32, _var)
_declare("kv_register_test_class", c_int)
_declare("kv_register_server", c_int, c_char_p)
_declare("kv_unregister_server", c_int, c_char_p)


def last_error():
    text = lib.kv_last_error()
    return text.decode("utf-8", "replace") if text else ""
