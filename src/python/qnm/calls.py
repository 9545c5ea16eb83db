"""The calls of qnm.h, each under its name without "qnm_"; qnm.h describes them in full.

Output arguments become return values, and result codes other than success become exceptions. Lists
of IDs are copied and freed at once, so qnm_free_idlist() is the one call that has no function here.
While a call waits, other Python threads run.
"""

from __future__ import annotations

import ctypes
import itertools
import os
import threading
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from typing import Any, Union

from ._integers import checked
from ._library import Callback, call, check
from .codes import (
    BusyError,
    Error,
    EventType,
    Flag,
    InvalidArgumentError,
    LogLevel,
    RangeError,
    ResultCode,
)
from .records import Qnio, Qnsv, Retry

__all__ = [
    "Event",
    "Registration",
    "delete_qnio",
    "delete_qnsv",
    "dump_eeprom",
    "dump_register",
    "err2retcode",
    "fini_manager",
    "get_group_qnioids",
    "get_group_qnsvids",
    "get_qnio",
    "get_qnioids",
    "get_qnsv",
    "get_qnsvids",
    "get_update_qnioids",
    "get_update_qnsvids",
    "init_manager",
    "log_debug",
    "log_error",
    "log_fatal",
    "log_info",
    "log_init",
    "log_trace",
    "log_warn",
    "modify_register",
    "rbtree_int32_compare",
    "rbtree_int64_compare",
    "rbtree_uint32_compare",
    "rbtree_uint64_compare",
    "read_eeprom",
    "read_register",
    "register_callback",
    "restart_monitor",
    "send_resetframe",
    "set_loglevel",
    "set_vlanid",
    "start_manager",
    "statslog",
    "stdump",
    "stop_monitor",
    "syslog_debug",
    "syslog_error",
    "syslog_fatal",
    "syslog_info",
    "syslog_trace",
    "syslog_warn",
    "unlock_eeprom",
    "unregister_callback",
    "write_eeprom",
    "write_mmspage",
    "write_register",
]

Path = Union[str, "os.PathLike[str]", None]


def _encoded(path: Path) -> bytes | None:
    return None if path is None else os.fsencode(path)


# ---- Manager -------------------------------------------------------------------------------------

_one_manager = threading.Lock()  # from the claim until the manager ends; any thread may release it


def err2retcode(err: int) -> ResultCode:
    """The result code that an internal errno-style code is mapped to."""
    return ResultCode(call("qnm_err2retcode", err))


def claim_manager() -> threading.Lock:
    """Reserves the next manager for the caller, who then runs it or releases the returned lock."""
    if not _one_manager.acquire(blocking=False):
        raise BusyError("qnm_init_manager")
    return _one_manager


def run_claimed_manager(path: Path, log_level: int) -> None:
    """Runs the manager until it has been stopped, and releases the claim."""
    try:
        check("qnm_init_manager", _encoded(path), log_level)
    finally:
        _callbacks.clear()  # registrations end with the manager
        _one_manager.release()


def init_manager(path: Path = None, log_level: int = LogLevel.NONE) -> None:
    """Runs the manager on the calling thread, and returns when it has been stopped.

    Manager does this on a thread of its own.
    """
    claim_manager()
    run_claimed_manager(path, log_level)


def start_manager() -> None:
    """Lets frames in: until this call every received frame is dropped."""
    check("qnm_start_manager")


def fini_manager() -> None:
    """Requests the stop and returns at once; it is complete when init_manager() returns."""
    check("qnm_fini_manager")


# ---- Cards ---------------------------------------------------------------------------------------


def get_qnsv(card_id: int) -> Qnsv:
    """A copy of the record of a QNSV card."""
    record = Qnsv()
    check("qnm_get_qnsv", card_id, record)
    return record


def get_qnio(card_id: int) -> Qnio:
    """A copy of the record of a QNIO card."""
    record = Qnio()
    check("qnm_get_qnio", card_id, record)
    return record


def _ids(function: str, *arguments: int, limit: int) -> list[int]:
    ids = ctypes.POINTER(ctypes.c_uint64)()
    count = ctypes.c_uint32(checked(ctypes.c_uint32, limit, function))
    try:
        check(function, *arguments, ids, count)
    except RangeError as failure:
        failure.needed = count.value
        raise
    try:
        return ids[: count.value]
    finally:
        call("qnm_free_idlist", ids)


def get_qnsvids(limit: int = 0) -> list[int]:
    """The IDs of all QNSV cards in ascending order.

    If there are more than limit, raises a RangeError whose attribute needed is the number of cards;
    a limit of 0 means the configured id_list_upper_limit. The other lists work the same way.
    """
    return _ids("qnm_get_qnsvids", limit=limit)


def get_qnioids(limit: int = 0) -> list[int]:
    """The IDs of all QNIO cards in ascending order."""
    return _ids("qnm_get_qnioids", limit=limit)


def get_update_qnsvids(time: int, limit: int = 0) -> list[int]:
    """The QNSV cards that have changed at or after a time in milliseconds since the epoch."""
    return _ids("qnm_get_update_qnsvids", time, limit=limit)


def get_update_qnioids(time: int, limit: int = 0) -> list[int]:
    """The QNIO cards that have changed at or after a time in milliseconds since the epoch."""
    return _ids("qnm_get_update_qnioids", time, limit=limit)


def get_group_qnsvids(group_id: int, limit: int = 0) -> list[int]:
    """The QNSV cards with a VLAN ID, 1 to 4094."""
    return _ids("qnm_get_group_qnsvids", group_id, limit=limit)


def get_group_qnioids(group_id: int, limit: int = 0) -> list[int]:
    """The QNIO cards with a VLAN ID, 1 to 4094."""
    return _ids("qnm_get_group_qnioids", group_id, limit=limit)


def delete_qnsv(card_id: int) -> None:
    """Forgets a QNSV card; one that still announces itself is learnt again as new."""
    check("qnm_delete_qnsv", card_id)


def delete_qnio(card_id: int) -> None:
    """Forgets a QNIO card; one that still announces itself is learnt again as new."""
    check("qnm_delete_qnio", card_id)


def stop_monitor(card_id: int) -> None:
    """Stops the monitoring of a card ID: its announcements are dropped."""
    check("qnm_stop_monitor", card_id)


def restart_monitor(card_id: int) -> None:
    """Restarts the monitoring of a card ID."""
    check("qnm_restart_monitor", card_id)


# ---- Events --------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Event:
    """Something happened to a card; its record has the details.

    card_id  the card
    type     what happened
    """

    card_id: int
    type: EventType

    def __repr__(self) -> str:
        return f"Event(0x{self.card_id:012x}, {self.type.name})"


@dataclass(frozen=True)
class Registration:
    """One registration of a callback. It ends by unregister_callback() or with the manager.

    type    the type of the events it gets
    key     identifies it when the library calls back
    handle  the library's handle of it
    """

    type: EventType
    key: int
    handle: int


_keys = itertools.count(1)
_callbacks: dict[int, Callable[[Event], object]] = {}  # by key
_here = threading.local()  # its attribute type: the type of event whose callback is running


def in_callback() -> EventType | None:
    """The type of event if the calling thread is inside a callback, else None."""
    return getattr(_here, "type", None)


def _deliver(card_id: int, event_type: int, key: int) -> None:
    function = _callbacks.get(key)
    if function is None:
        return
    event = Event(card_id, EventType(event_type))
    _here.type = event.type
    try:
        function(event)
    finally:
        del _here.type


_dispatch = Callback(_deliver)  # kept alive for as long as the library may call it


def _refuse_deadlock(function: str, event_type: EventType) -> None:
    if in_callback() is event_type:
        raise RuntimeError(
            f"{function} for {event_type.name} would wait for ever in a callback of that type"
        )


def register_callback(event_type: EventType, function: Callable[[Event], object]) -> Registration:
    """Has a function called for each event of a type, one event at a time.

    It runs on the library's event thread, and further events wait until it returns. It may make any
    call, except that registering or unregistering a callback of its own event type raises a
    RuntimeError. An exception that it does not catch goes to sys.unraisablehook.
    """
    event_type = EventType(event_type)
    _refuse_deadlock("register_callback", event_type)
    key = next(_keys)
    handle = ctypes.c_void_p()
    _callbacks[key] = function
    try:
        check("qnm_register_callback", event_type, _dispatch, key, handle)
    except BaseException:
        del _callbacks[key]
        raise
    return Registration(event_type, key, handle.value or 0)


def unregister_callback(registration: Registration) -> None:
    """Ends a registration. Afterwards the function is not running and will not be called again."""
    _refuse_deadlock("unregister_callback", registration.type)
    # A later registration may have the same handle, so a registration that has ended must not reach
    # the library.
    if _callbacks.pop(registration.key, None) is None:
        raise InvalidArgumentError("qnm_unregister_callback", "not registered, or not any more")
    check("qnm_unregister_callback", registration.handle)


# ---- Device access -------------------------------------------------------------------------------

# retry=None means the configured retry parameters.


def _read(function: str, card_id: int, addr: int, retry: Retry | None, flags: int) -> int:
    value = ctypes.c_uint32()
    check(function, card_id, addr, value, retry, flags)
    return value.value


_REGISTER_SPACE = 1 << 22  # bytes; frames carry 22 bits of an address


def _dump(
    function: str, card_id: int, start: int, end: int, retry: Retry | None, flags: int
) -> list[int]:
    for address in (start, end):
        checked(ctypes.c_uint32, address, function)
    size = max(end - start, 0)
    if size > _REGISTER_SPACE:
        raise InvalidArgumentError(function, f"{size} bytes are more than a card has")
    words = (ctypes.c_uint32 * (size // 4))()
    length = ctypes.c_size_t(ctypes.sizeof(words))
    try:
        check(function, card_id, start, end, words, length, retry, flags)
    except Error as failure:
        failure.words = words[: length.value // 4]
        raise
    return words[:]


def read_register(
    card_id: int, addr: int, retry: Retry | None = None, flags: int = Flag.NONE
) -> int:
    """Reads one 32-bit register; addr is a multiple of 4. Flags: LIVECHECK."""
    return _read("qnm_read_register", card_id, addr, retry, flags)


def write_register(
    card_id: int, addr: int, data: int, retry: Retry | None = None, flags: int = Flag.NONE
) -> None:
    """Writes one 32-bit register; without VERIFY it is only sent. Flags: LIVECHECK, VERIFY."""
    check("qnm_write_register", card_id, addr, data, retry, flags)


def modify_register(
    card_id: int, addr: int, data: int, mask: int, retry: Retry | None = None, flags: int = Flag.NONE
) -> None:
    """Changes the bits of a register that mask names. Flags: LIVECHECK, VERIFY."""
    check("qnm_modify_register", card_id, addr, data, mask, retry, flags)


def dump_register(
    card_id: int, start: int, end: int, retry: Retry | None = None, flags: int = Flag.NONE
) -> list[int]:
    """Reads the registers from start up to, not including, end: at most 4 MiB. Flags: LIVECHECK.

    If a register cannot be read, the exception's attribute words has those before it.
    """
    return _dump("qnm_dump_register", card_id, start, end, retry, flags)


def read_eeprom(card_id: int, addr: int, retry: Retry | None = None, flags: int = Flag.NONE) -> int:
    """Reads one 32-bit word of the EEPROM; addr is a multiple of 4, at most 2044.

    Flags: LIVECHECK, FORCELOCK.
    """
    return _read("qnm_read_eeprom", card_id, addr, retry, flags)


def write_eeprom(
    card_id: int, addr: int, data: int, retry: Retry | None = None, flags: int = Flag.NONE
) -> None:
    """Writes one 32-bit word of the EEPROM. Flags: LIVECHECK, VERIFY, FORCELOCK."""
    check("qnm_write_eeprom", card_id, addr, data, retry, flags)


def dump_eeprom(
    card_id: int, start: int, end: int, retry: Retry | None = None, flags: int = Flag.NONE
) -> list[int]:
    """Reads the EEPROM words from start up to, not including, end; all of it is 0 to 2048.

    Flags: LIVECHECK, FORCELOCK. Exceptions have the words that were read, as in dump_register().
    """
    return _dump("qnm_dump_eeprom", card_id, start, end, retry, flags)


def unlock_eeprom(card_id: int) -> None:
    """Frees a card's EEPROM lock that another party took and did not release."""
    check("qnm_unlock_eeprom", card_id)


def set_vlanid(
    card_id: int, vlan_id: int, retry: Retry | None = None, flags: int = Flag.NONE
) -> None:
    """Sets a card's VLAN ID, 16 to 4094. Flags: LIVECHECK, VERIFY (waits for the new ID)."""
    check("qnm_set_vlanid", card_id, vlan_id, retry, flags)


def send_resetframe(
    card_id: int, status: int, retry: Retry | None = None, flags: int = Flag.NONE
) -> None:
    """Sends a reset frame with a status byte; retry and flags have no effect."""
    check("qnm_send_resetframe", card_id, status, retry, flags)


_PAGE_WORDS = 32


def write_mmspage(card_id: int, page: int, data: Sequence[int], flags: int = Flag.NONE) -> None:
    """Writes one MMS page, 0 to 1023, of a multi-root QNIO card: 32 words. Flags: LIVECHECK."""
    function = "qnm_write_mmspage"
    if len(data) != _PAGE_WORDS:
        raise InvalidArgumentError(function, f"a page has {_PAGE_WORDS} words, not {len(data)}")
    words = [checked(ctypes.c_uint32, word, function) for word in data]
    check(function, card_id, page, (ctypes.c_uint32 * _PAGE_WORDS)(*words), flags)


# ---- Logging and statistics ----------------------------------------------------------------------


def set_loglevel(log_level: int) -> None:
    """Changes the running log level; LogLevel.NONE goes back to the configured one."""
    check("qnm_set_loglevel", log_level)


def stdump(verbose: int = 0) -> None:
    """Writes the status dump to the statistics log; verbose adds every field of every card."""
    check("qnm_stdump", verbose)


def log_init(path: Path = None) -> None:
    """Configures the log, for use before the manager runs."""
    check("qnm_log_init", _encoded(path))


def _logger(name: str, where: str) -> Callable[[str], None]:
    def log(text: str) -> None:
        call(f"qnm_{name}", b"%s", text.encode(errors="backslashreplace"))

    log.__name__ = log.__qualname__ = name
    log.__doc__ = f"Writes a line of at most 511 bytes to the logger {where}."
    return log


log_fatal = _logger("log_fatal", "logfile, at level FATAL")
log_error = _logger("log_error", "logfile, at level ERROR")
log_warn = _logger("log_warn", "logfile, at level WARN")
log_info = _logger("log_info", "logfile, at level INFO")
log_debug = _logger("log_debug", "logfile, at level DEBUG")
log_trace = _logger("log_trace", "logfile, at level TRACE")
syslog_fatal = _logger("syslog_fatal", "syslogfile, at level FATAL")
syslog_error = _logger("syslog_error", "syslogfile, at level ERROR")
syslog_warn = _logger("syslog_warn", "syslogfile, at level WARN")
syslog_info = _logger("syslog_info", "syslogfile, at level INFO")
syslog_debug = _logger("syslog_debug", "syslogfile, at level DEBUG")
syslog_trace = _logger("syslog_trace", "syslogfile, at level TRACE")
statslog = _logger("statslog", "statslogfile, at any level")


# ---- Key comparison ------------------------------------------------------------------------------


def _comparison(name: str, kind: Any, what: str) -> Callable[[int, int], int]:
    def compare(a: int, b: int) -> int:
        function = f"qnm_{name}"
        keys = (checked(kind, key, function) & 0xFFFF_FFFF_FFFF_FFFF for key in (a, b))
        result: int = call(function, *keys)
        return result

    compare.__name__ = compare.__qualname__ = name
    compare.__doc__ = f"-1, 0 or 1: how two {what} compare."
    return compare


rbtree_int32_compare = _comparison("rbtree_int32_compare", ctypes.c_int32, "signed 32-bit keys")
rbtree_uint32_compare = _comparison("rbtree_uint32_compare", ctypes.c_uint32, "32-bit keys")
rbtree_int64_compare = _comparison("rbtree_int64_compare", ctypes.c_int64, "signed 64-bit keys")
rbtree_uint64_compare = _comparison("rbtree_uint64_compare", ctypes.c_uint64, "64-bit keys")
