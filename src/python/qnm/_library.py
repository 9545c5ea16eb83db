"""Loads the shared library, declares the prototypes of its functions, and calls them."""

from __future__ import annotations

import ctypes
import os
from typing import Any

from ._integers import INTEGERS, checked
from .codes import ERRORS, Error, InvalidArgumentError
from .records import Qnio, Qnsv, Retry

SONAME = "libqnm.so.1"
VARIABLE = "QNM_LIBRARY"

Callback = ctypes.CFUNCTYPE(None, ctypes.c_uint64, ctypes.c_int, ctypes.c_void_p)

_u16 = ctypes.c_uint16
_u32 = ctypes.c_uint32
_u64 = ctypes.c_uint64
_text = ctypes.c_char_p
_code = ctypes.c_int
_pointer = ctypes.c_void_p
_u32_out = ctypes.POINTER(ctypes.c_uint32)
_size_out = ctypes.POINTER(ctypes.c_size_t)
_retry = ctypes.POINTER(Retry)
_list_out = ctypes.POINTER(ctypes.POINTER(ctypes.c_uint64))
_access = (_u64, _u32, _u32_out, _retry, _u32)
_change = (_u64, _u32, _u32, _retry, _u32)
_dump = (_u64, _u32, _u32, _u32_out, _size_out, _retry, _u32)
_log = (_text, _text)  # the format, always "%s", and its argument
_compare = (_pointer, _pointer)

# The type of the result, then those of the arguments.
PROTOTYPES: dict[str, tuple[Any, ...]] = {
    "qnm_err2retcode": (_code, ctypes.c_int),
    "qnm_init_manager": (_code, _text, ctypes.c_int),
    "qnm_start_manager": (_code,),
    "qnm_fini_manager": (_code,),
    "qnm_get_qnsv": (_code, _u64, ctypes.POINTER(Qnsv)),
    "qnm_get_qnio": (_code, _u64, ctypes.POINTER(Qnio)),
    "qnm_get_qnsvids": (_code, _list_out, _u32_out),
    "qnm_get_qnioids": (_code, _list_out, _u32_out),
    "qnm_get_update_qnsvids": (_code, _u64, _list_out, _u32_out),
    "qnm_get_update_qnioids": (_code, _u64, _list_out, _u32_out),
    "qnm_get_group_qnsvids": (_code, _u16, _list_out, _u32_out),
    "qnm_get_group_qnioids": (_code, _u16, _list_out, _u32_out),
    "qnm_delete_qnsv": (_code, _u64),
    "qnm_delete_qnio": (_code, _u64),
    "qnm_free_idlist": (_code, ctypes.POINTER(ctypes.c_uint64)),
    "qnm_stop_monitor": (_code, _u64),
    "qnm_restart_monitor": (_code, _u64),
    "qnm_register_callback": (_code, ctypes.c_int, Callback, _pointer, ctypes.POINTER(_pointer)),
    "qnm_unregister_callback": (_code, _pointer),
    "qnm_read_register": (_code, *_access),
    "qnm_write_register": (_code, *_change),
    "qnm_modify_register": (_code, _u64, _u32, _u32, _u32, _retry, _u32),
    "qnm_dump_register": (_code, *_dump),
    "qnm_read_eeprom": (_code, *_access),
    "qnm_write_eeprom": (_code, *_change),
    "qnm_dump_eeprom": (_code, *_dump),
    "qnm_unlock_eeprom": (_code, _u64),
    "qnm_set_vlanid": (_code, _u64, _u16, _retry, _u32),
    "qnm_send_resetframe": (_code, _u64, ctypes.c_ubyte, _retry, _u32),
    "qnm_write_mmspage": (_code, _u64, _u32, _u32_out, _u32),
    "qnm_set_loglevel": (_code, ctypes.c_int),
    "qnm_stdump": (_code, _u32),
    "qnm_log_init": (_code, _text),
    "qnm_log_fatal": (None, *_log),
    "qnm_log_error": (None, *_log),
    "qnm_log_warn": (None, *_log),
    "qnm_log_info": (None, *_log),
    "qnm_log_debug": (None, *_log),
    "qnm_log_trace": (None, *_log),
    "qnm_syslog_fatal": (None, *_log),
    "qnm_syslog_error": (None, *_log),
    "qnm_syslog_warn": (None, *_log),
    "qnm_syslog_info": (None, *_log),
    "qnm_syslog_debug": (None, *_log),
    "qnm_syslog_trace": (None, *_log),
    "qnm_statslog": (None, *_log),
    "qnm_rbtree_int32_compare": (ctypes.c_int, *_compare),
    "qnm_rbtree_uint32_compare": (ctypes.c_int, *_compare),
    "qnm_rbtree_int64_compare": (ctypes.c_int, *_compare),
    "qnm_rbtree_uint64_compare": (ctypes.c_int, *_compare),
}

def _load() -> ctypes.CDLL:
    name = os.environ.get(VARIABLE) or SONAME
    try:
        library = ctypes.CDLL(name)
    except OSError as failure:
        raise ImportError(
            f"{failure}. Install the library where the loader looks, or name its file in the"
            f" environment variable {VARIABLE}."
        ) from failure
    for function, (result, *arguments) in PROTOTYPES.items():
        declared = getattr(library, function)
        declared.restype = result
        declared.argtypes = arguments
    return library


_lib = _load()


def _fitting(kind: Any, value: Any, function: str) -> Any:
    """The argument if it fits the C type. ctypes alone would silently truncate it."""
    if kind in INTEGERS:
        return checked(kind, value, function)
    if kind is _text and value is not None and b"\0" in value:
        raise InvalidArgumentError(function, f"{value!r} has a null byte")
    return value


def call(function: str, *arguments: Any) -> Any:
    """Calls a function of the library and returns its result."""
    kinds = PROTOTYPES[function][1:]
    fitting = (
        _fitting(kind, argument, function)
        for kind, argument in zip(kinds, arguments, strict=True)
    )
    return getattr(_lib, function)(*fitting)


def error_of(function: str, code: int) -> Error:
    """The exception for a result code."""
    return ERRORS[code](function)


def check(function: str, *arguments: Any) -> None:
    """Calls a function of the library and raises an exception for any code but success."""
    code = call(function, *arguments)
    if code != 0:
        raise error_of(function, code)
