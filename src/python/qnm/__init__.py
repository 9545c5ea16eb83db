"""Manages Quillnet (QN) adapter cards through the library libqnm.so.1.

    import qnm

    with qnm.Manager("/opt/tarvo/qnm") as manager:
        for event in manager.events():
            print(event)
            if event.type is qnm.EventType.NEWDEVINFO:
                print(hex(qnm.read_register(event.card_id, 0x1000)))

Every call of qnm.h is here under its name without "qnm_", but qnm_free_idlist, which nobody needs
here. All act on the one manager that a process can have. A result code other than success is raised
as an exception: NotFoundError, TimedOutError and so on, all of them an Error. Records are ctypes
structures with the field names of the header.

Rules to know, in full in qnm.h: any thread may call, callbacks run on the library's event thread,
and in a child after os.fork() nothing of this may be used. Opening ports needs CAP_NET_RAW.

The library is found as the loader finds libqnm.so.1, or where the environment variable QNM_LIBRARY
names its file.
"""

from . import calls, codes, manager, records
from ._version import __version__ as __version__
from .calls import *
from .codes import *
from .manager import *
from .records import *

__all__: list[str] = []
__all__ += calls.__all__
__all__ += codes.__all__
__all__ += manager.__all__
__all__ += records.__all__
