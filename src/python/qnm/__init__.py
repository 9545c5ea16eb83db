"""Manages Quillnet (QN) adapter cards through the library libqnm.so.1.

    import qnm

    with qnm.Manager("/opt/tarvo/qnm") as manager:
        for event in manager.events():
            print(event)
            if event.type is qnm.EventType.NEWDEVINFO:
                print(hex(qnm.read_register(event.card_id, 0x1000)))

Every call of qnm.h is here under its name without "qnm_", except qnm_free_idlist, which Python
programs do not need. All calls act on the one manager that a process can have. Result codes other
than success are raised as exceptions: NotFoundError, TimedOutError and so on, all subclasses of
Error. Records are ctypes structures with the field names of the header.

The most important rules, which qnm.h gives in full: calls may be made from any thread, callbacks
run on the library's event thread, and a child of os.fork() must not use the module. Opening ports
needs CAP_NET_RAW.

The loader searches for libqnm.so.1 as for any library. To load another file, name it in the
environment variable QNM_LIBRARY.
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
