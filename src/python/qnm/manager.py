"""The class Manager: runs the manager on a thread of its own and iterates over its events."""

from __future__ import annotations

import atexit
import collections
import contextlib
import queue
import signal
import threading
import time
from collections.abc import Callable, Iterable, Iterator
from types import TracebackType

from . import calls
from .calls import Event, Path
from .codes import Error, EventType, LogLevel, NotFoundError, NotRunningError

__all__ = ["Manager"]


class _EventQueue:
    """Hands events from the library's event thread to any thread. When full, it loses the oldest.

    A signal handler can interrupt take() on the main thread at any step and stop the manager, which
    then waits until put() returns. With a lock held by take() that would deadlock, so Python code
    holds none here: the operations of both queues are atomic by themselves.
    """

    def __init__(self, limit: int) -> None:
        self._events: collections.deque[Event] = collections.deque(maxlen=limit)
        self._wakes: queue.SimpleQueue[None] = queue.SimpleQueue()  # an item wakes one taker
        self._closed = False
        self.lost = 0

    def put(self, event: Event) -> None:
        self.lost += len(self._events) == self._events.maxlen
        self._events.append(event)
        self._wake()

    def close(self) -> None:
        """Says that no more events will come; those in the queue can still be taken."""
        self._closed = True
        self._wake()

    def take(self, deadline: float | None) -> Event | None:
        """The next event; None if none came in time or the queue is closed and empty."""
        while True:
            closed = self._closed  # read first: if it is set, no event is added after this
            try:
                event = self._events.popleft()
            except IndexError:
                if closed:
                    self._wake()
                    return None
            else:
                self._wake()  # lets another taker look for more
                return event
            left = None if deadline is None else deadline - time.monotonic()
            if left is not None and left <= 0:
                return None
            with contextlib.suppress(queue.Empty):
                self._wakes.get(timeout=left)

    def _wake(self) -> None:
        if self._wakes.empty():
            self._wakes.put(None)


class Manager:
    """Runs the manager of the library on a thread of its own, for the length of a with statement:

        with qnm.Manager("/opt/tarvo/qnm") as manager:
            for event in manager.events():
                print(event)

    A process can have one at a time. Once the with statement is entered, the ports are open and
    frames are received. If the manager cannot start, or ends by itself, an exception is raised; the
    log has the details.

    path       installation directory; None means /opt/tarvo/qnm
    log_level  running log level; NONE means the configured one
    types      the types of events to receive
    on_event   called for every event on the library's event thread, as with register_callback();
               without it, events() returns them. In an asyncio program, pass a function that hands
               the event on with loop.call_soon_threadsafe().
    backlog    how many events are kept for events(); beyond that the oldest are lost
    """

    def __init__(
        self,
        path: Path = None,
        log_level: int = LogLevel.NONE,
        *,
        types: Iterable[EventType] = EventType,
        on_event: Callable[[Event], object] | None = None,
        backlog: int = 100_000,
    ) -> None:
        self._path = path
        self._log_level = log_level
        self._types = tuple(types)
        self._on_event = on_event
        self._backlog = backlog
        self._events = _EventQueue(backlog)
        self._thread: threading.Thread | None = None
        self._failure: Error | None = None

    def __enter__(self) -> Manager:
        self.start()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        value: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        try:
            self.stop()
        except Error as failure:
            if value is None:
                raise
            value.add_note(f"The manager has ended: {failure}")

    @property
    def running(self) -> bool:
        """Whether the manager is running; false also if it has ended by itself."""
        return self._thread is not None and self._thread.is_alive()

    @property
    def lost(self) -> int:
        """How many events were lost because nothing took them from events()."""
        return self._events.lost

    def start(self) -> None:
        """Starts the manager; the with statement does this."""
        if self._thread is not None:
            raise RuntimeError("this manager has been started and not been stopped")
        self._start_thread()
        atexit.register(self._stop_quietly)
        try:
            self._open()
        except BaseException as failure:
            self._stop_quietly()
            if isinstance(failure, NotRunningError) and self._failure is not None:
                raise self._failure from None
            raise

    def stop(self) -> None:
        """Stops the manager and waits for its end; the with statement does this."""
        if calls.in_callback() is not None:
            raise RuntimeError("a callback cannot wait for the stop; it may call fini_manager()")
        thread = self._thread
        if thread is None:
            return
        while thread.is_alive():  # never true in a child of os.fork()
            calls.fini_manager()  # repeated, because a stop has no effect before the start
            thread.join(0.1)
        if self._thread is thread:  # another thread may have stopped it and started a new one
            self._thread = None
            atexit.unregister(self._stop_quietly)
        if self._failure is not None:
            raise self._failure

    def events(self, timeout: float | None = None) -> Iterator[Event]:
        """Yields events in the order in which they arose, until the manager ends.

        timeout  also end when no event has come for this many seconds
        """
        while True:
            deadline = None if timeout is None else time.monotonic() + timeout
            event = self._events.take(deadline)
            if event is None:
                return
            yield event

    def _start_thread(self) -> None:
        claim = calls.claim_manager()
        with contextlib.suppress(Error):  # if this fails, so does the start, with a better error
            calls.log_init(self._path)
        self._events = _EventQueue(self._backlog)
        self._failure = None
        # A daemon thread: at exit, Python would wait for any other before the atexit handler stops
        # the manager.
        thread = threading.Thread(target=self._run, name="qnm-manager", daemon=True)
        try:
            thread.start()
        except RuntimeError:
            claim.release()
            raise
        self._thread = thread

    def _run(self) -> None:
        # Signals go to the main thread, which runs Python's handlers.
        signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())
        try:
            calls.run_claimed_manager(self._path, self._log_level)
        except Error as failure:
            self._failure = failure
        finally:
            self._events.close()

    def _open(self) -> None:
        self._await_start()
        for event_type in self._types:
            calls.register_callback(event_type, self._on_event or self._events.put)
        calls.start_manager()

    def _await_start(self) -> None:
        thread = self._thread
        while True:
            try:
                calls.get_qnsv(0)
            except NotFoundError:
                return
            except NotRunningError:
                if thread is None or not thread.is_alive():
                    raise
            time.sleep(0.005)

    def _stop_quietly(self) -> None:
        with contextlib.suppress(Error):
            self.stop()
