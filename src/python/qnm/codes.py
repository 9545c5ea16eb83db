"""Result codes, exceptions, and the other enumerations of qnm.h."""

from __future__ import annotations

import enum

__all__ = [
    "BusyError",
    "Error",
    "EventType",
    "Flag",
    "InvalidArgumentError",
    "LogLevel",
    "NoLinkError",
    "NotFoundError",
    "NotRunningError",
    "OutOfMemoryError",
    "ProtocolError",
    "RangeError",
    "ResultCode",
    "TimedOutError",
]


class ResultCode(enum.IntEnum):
    """Result of a call. Every code but SUCCESS has its exception."""

    SUCCESS = 0
    EINVAL = 1
    ERANGE = 2
    ENOENT = 3
    ENOLINK = 4
    ENOMEM = 5
    EPROTO = 6
    ETIMEDOUT = 7
    EBUSY = 8
    ENOSYS = 9


class LogLevel(enum.IntEnum):
    """A line is written when its level is at or below the running level."""

    NONE = -1  #: as an argument: take the level from the configuration file
    FATAL = 0
    ERROR = 1
    WARN = 2
    INFO = 3
    DEBUG = 4
    TRACE = 5


class EventType(enum.IntEnum):
    """What a callback is told."""

    NEWDEVINFO = 0  #: a card was learnt
    UPDATEDEVINFO = 1  #: a card's record changed, a lost path included
    CONNECTIONCHANGE = 2  #: the binding between QNSV and QNIO cards changed
    MAJORMINORERROR = 3  #: the card reports a new major or minor error
    PATHSTATECHANGE = 4  #: a link-fault bit of a QNIO card changed
    CHANNELSTATECHANGE = 5  #: a path [port][path] was connected or disconnected


class Flag(enum.IntFlag):
    """Flags of the device calls, to be combined by |."""

    NONE = 0
    LIVECHECK = 0x1  #: use a card that is stopped or disconnected, too, on a path where it answers
    VERIFY = 0x2  #: writing calls: read back what was written, and write again until it holds
    FORCELOCK = 0x4  #: EEPROM calls: take the lock away from another party that keeps it


class Error(Exception):
    """A call that did not return SUCCESS. Each code has a class of its own, derived from this."""

    code: ResultCode
    meaning: str

    def __init__(self, call: str, detail: str = "") -> None:
        super().__init__(f"{call}: {detail or self.meaning}")
        self.call = call  #: name of the C function
        self.words: list[int] = []  #: of a dump: what had been read before


class InvalidArgumentError(Error, ValueError):
    code = ResultCode.EINVAL
    meaning = "invalid argument"


class RangeError(Error):
    """A value out of range, or more cards than a list may have."""

    code = ResultCode.ERANGE
    meaning = "value out of range, or a list longer than accepted"
    needed = 0  #: length of the list that was not made, where a list was asked for


class NotFoundError(Error, LookupError):
    code = ResultCode.ENOENT
    meaning = "no such card or entry"


class NoLinkError(Error):
    code = ResultCode.ENOLINK
    meaning = "no link to the card"


class OutOfMemoryError(Error, MemoryError):
    code = ResultCode.ENOMEM
    meaning = "out of memory"


class ProtocolError(Error):
    code = ResultCode.EPROTO
    meaning = "protocol or internal error; the log tells which"


class TimedOutError(Error, TimeoutError):
    code = ResultCode.ETIMEDOUT
    meaning = "no answer in time"


class BusyError(Error):
    code = ResultCode.EBUSY
    meaning = "busy"


class NotRunningError(Error):
    code = ResultCode.ENOSYS
    meaning = "the manager is not running"


ERRORS: dict[int, type[Error]] = {
    error.code: error
    for error in (
        InvalidArgumentError,
        RangeError,
        NotFoundError,
        NoLinkError,
        OutOfMemoryError,
        ProtocolError,
        TimedOutError,
        BusyError,
        NotRunningError,
    )
}
