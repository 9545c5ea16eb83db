"""Checks that integers fit the C types they are passed as."""

from __future__ import annotations

import ctypes
import operator
from typing import Any

from .codes import InvalidArgumentError

INTEGERS: dict[Any, tuple[int, int]] = {
    ctypes.c_ubyte: (0, 0xFF),
    ctypes.c_uint16: (0, 0xFFFF),
    ctypes.c_uint32: (0, 0xFFFF_FFFF),
    ctypes.c_uint64: (0, 0xFFFF_FFFF_FFFF_FFFF),
    ctypes.c_int: (-0x8000_0000, 0x7FFF_FFFF),
    ctypes.c_int64: (-0x8000_0000_0000_0000, 0x7FFF_FFFF_FFFF_FFFF),
}


def checked(kind: Any, value: Any, taker: str) -> int:
    """The value as an integer if it fits the C type. ctypes alone would silently truncate it."""
    low, high = INTEGERS[kind]
    number = operator.index(value)
    if not low <= number <= high:
        raise InvalidArgumentError(taker, f"{number} is not between {low} and {high}")
    return number
