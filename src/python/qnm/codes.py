"""Result codes, exceptions, and the other enumerations of qnm.h."""

from __future__ import annotations

import enum
from typing import Any

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
    """Result of a call. Every code but SUCCESS has its exception.

    SUCCESS    none
    EINVAL     InvalidArgumentError
    ERANGE     RangeError
    ENOENT     NotFoundError
    ENOLINK    NoLinkError
    ENOMEM     OutOfMemoryError
    EPROTO     ProtocolError
    ETIMEDOUT  TimedOutError
    EBUSY      BusyError
    ENOSYS     NotRunningError
    """

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
    """A line is written when its level is at or below the running level.

    NONE   as an argument: take the level from the configuration file
    FATAL  errors that end the manager
    ERROR  errors
    WARN   unexpected events that the library can handle
    INFO   calls, and changes of cards and ports
    DEBUG  steps within a call
    TRACE  the finest steps, including locks
    """

    NONE = -1
    FATAL = 0
    ERROR = 1
    WARN = 2
    INFO = 3
    DEBUG = 4
    TRACE = 5


class EventType(enum.IntEnum):
    """The types of events, as callbacks get them.

    NEWDEVINFO          a card was learnt
    UPDATEDEVINFO       a card's record changed, a lost path included
    CONNECTIONCHANGE    the binding between QNSV and QNIO cards changed
    MAJORMINORERROR     the card reports a new major or minor error
    PATHSTATECHANGE     a link-fault bit of a QNIO card changed
    CHANNELSTATECHANGE  a path [port][path] was connected or disconnected
    """

    NEWDEVINFO = 0
    UPDATEDEVINFO = 1
    CONNECTIONCHANGE = 2
    MAJORMINORERROR = 3
    PATHSTATECHANGE = 4
    CHANNELSTATECHANGE = 5


class Flag(enum.IntFlag):
    """Flags of the device calls; combine them with |.

    NONE       no flag
    LIVECHECK  also use a card that is stopped or disconnected, on a path where it answers
    VERIFY     writing calls: read back what was written, and write again until it holds
    FORCELOCK  EEPROM calls: take the lock away from another party that keeps it
    """

    NONE = 0
    LIVECHECK = 0x1
    VERIFY = 0x2
    FORCELOCK = 0x4


class Error(Exception):
    """A call failed. Each result code has its own subclass of this.

    call     name of the C function
    code     the result code
    meaning  what the code means
    detail   what was wrong in this call; the meaning if nothing more is known
    words    for dumps: the words that were read before the failure
    """

    code: ResultCode
    meaning: str

    def __init__(self, call: str, detail: str = "") -> None:
        self.call = call
        self.detail = detail or self.meaning
        self.words: list[int] = []
        super().__init__(f"{call}: {self.detail}")

    def __reduce__(self) -> tuple[Any, ...]:
        # Unpickling would otherwise pass only the message to the constructor.
        return type(self), (self.call, self.detail), self.__dict__


class InvalidArgumentError(Error, ValueError):
    """An argument is invalid (EINVAL). Also a ValueError."""

    code = ResultCode.EINVAL
    meaning = "invalid argument"


class RangeError(Error):
    """A value is out of range, or there are more cards than the list may have (ERANGE).

    needed  for lists: the number of cards that there are
    """

    code = ResultCode.ERANGE
    meaning = "value out of range, or a list longer than accepted"
    needed = 0


class NotFoundError(Error, LookupError):
    """The card is not known (ENOENT). Also a LookupError."""

    code = ResultCode.ENOENT
    meaning = "no such card or entry"


class NoLinkError(Error):
    """No path to the card is connected, or its monitoring is stopped (ENOLINK)."""

    code = ResultCode.ENOLINK
    meaning = "no link to the card"


class OutOfMemoryError(Error, MemoryError):
    """The library could not allocate memory (ENOMEM). Also a MemoryError."""

    code = ResultCode.ENOMEM
    meaning = "out of memory"


class ProtocolError(Error):
    """The start failed, a frame was not sent, a card refused, or an internal error (EPROTO)."""

    code = ResultCode.EPROTO
    meaning = "protocol or internal error; the log or a line above tells which"


class TimedOutError(Error, TimeoutError):
    """No answer came in time, or a change did not hold (ETIMEDOUT). Also a TimeoutError."""

    code = ResultCode.ETIMEDOUT
    meaning = "no answer in time"


class BusyError(Error):
    """Something is in use (EBUSY).

    A manager is already running, another process accesses cards through the same port, or another
    party keeps the EEPROM lock.
    """

    code = ResultCode.EBUSY
    meaning = "busy"


class NotRunningError(Error):
    """The manager is not running, or was stopped while the call waited (ENOSYS)."""

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
