"""Tests that need no running manager: results, exceptions, arguments, and finding the library."""

import inspect
import os
import pathlib
import pickle
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest
from collections.abc import Callable
from unittest import mock

import qnm
from qnm.manager import _EventQueue
from rig import LIMIT, Installation

NEED_NO_MANAGER = (
    "Event",
    "Registration",
    "err2retcode",
    "fini_manager",
    "init_manager",
    "log_",
    "rbtree_",
    "statslog",
    "syslog_",
    "unregister_callback",
)


def run_python(program: str, **changed: str | None) -> subprocess.CompletedProcess[str]:
    """Runs a Python program with changed environment variables; None removes one."""
    kept = {name: value for name, value in os.environ.items() if name not in changed}
    added = {name: value for name, value in changed.items() if value is not None}
    return subprocess.run(
        [sys.executable, "-c", program], env=kept | added, capture_output=True, text=True
    )


class WithoutManager(unittest.TestCase):
    def test_calls_that_need_a_manager_say_so(self) -> None:
        page = {"data": [0] * 32}  # all other arguments may be the number 1
        for name in qnm.calls.__all__:
            if name.startswith(NEED_NO_MANAGER):
                continue
            call = getattr(qnm, name)
            special = page if name == "write_mmspage" else {}
            parameters = inspect.signature(call).parameters.values()
            arguments = [special.get(p.name, 1) for p in parameters if p.default is p.empty]
            with self.subTest(name), self.assertRaises(qnm.NotRunningError) as failure:
                call(*arguments)
            self.assertEqual(failure.exception.call, f"qnm_{name}")

    def test_a_callback_that_was_not_registered_cannot_be_unregistered(self) -> None:
        absent = qnm.Registration(qnm.EventType.NEWDEVINFO, 0, 1)
        with self.assertRaises(qnm.InvalidArgumentError):
            qnm.unregister_callback(absent)

    def test_errno_codes_are_mapped(self) -> None:
        self.assertIs(qnm.err2retcode(0), qnm.ResultCode.SUCCESS)
        self.assertIs(qnm.err2retcode(110), qnm.ResultCode.ETIMEDOUT)
        self.assertIs(qnm.err2retcode(-1), qnm.ResultCode.EPROTO)

    def test_keys_are_compared_with_their_sign_and_width(self) -> None:
        self.assertEqual(qnm.rbtree_int32_compare(-1, 1), -1)
        self.assertEqual(qnm.rbtree_uint32_compare(0xFFFFFFFF, 1), 1)
        self.assertEqual(qnm.rbtree_int64_compare(-(2**63), 2**63 - 1), -1)
        self.assertEqual(qnm.rbtree_uint64_compare(2**64 - 1, 2**64 - 1), 0)

    def test_a_number_that_does_not_fit_is_refused_and_not_cut_off(self) -> None:
        calls: list[Callable[[], object]] = [
            lambda: qnm.get_qnsv(2**64),
            lambda: qnm.get_qnsv(-1),
            lambda: qnm.get_group_qnsvids(0x10001),
            lambda: qnm.get_qnioids(limit=2**32),
            lambda: qnm.dump_register(1, 0, 2**32),
            lambda: qnm.dump_register(1, 0, 2**22 + 4),
            lambda: qnm.dump_eeprom(1, 4, 2**22 + 8),
            lambda: qnm.write_mmspage(1, 0, [2**32] * 32),
            lambda: qnm.write_mmspage(1, 0, [0] * 31),
            lambda: qnm.rbtree_int32_compare(2**31, 0),
            lambda: qnm.Retry(2**32 + 1, 5),
            lambda: qnm.Retry(-1, 5),
            lambda: qnm.Retry(er_retry_interval=2**32),
            lambda: setattr(qnm.Retry(1, 5), "er_retry_count", -1),
        ]
        for call in calls:
            with self.assertRaises(qnm.InvalidArgumentError):
                call()
        with self.assertRaises(TypeError):
            qnm.get_qnsv("0x020000001000")  # type: ignore[arg-type]

    def test_a_text_with_a_null_byte_is_refused_and_not_cut_off(self) -> None:
        calls: list[Callable[[str], object]] = [
            qnm.log_info,
            qnm.statslog,
            qnm.log_init,
            qnm.init_manager,
        ]
        for call in calls:
            with self.subTest(call), self.assertRaises(qnm.InvalidArgumentError):
                call("/x\0/y")

    def test_exceptions_are_also_those_that_python_programs_know(self) -> None:
        self.assertTrue(issubclass(qnm.TimedOutError, TimeoutError))
        self.assertTrue(issubclass(qnm.NotFoundError, LookupError))
        self.assertTrue(issubclass(qnm.InvalidArgumentError, ValueError))
        self.assertTrue(issubclass(qnm.OutOfMemoryError, MemoryError))

    def test_exceptions_go_to_other_processes_as_they_are(self) -> None:
        for error in qnm.Error.__subclasses__():
            for detail in ("", "more of it"):
                sent = error("qnm_call", detail)
                sent.words = [1, 2]
                sent.add_note("of the host program")
                got = pickle.loads(pickle.dumps(sent))
                self.assertIs(type(got), error)
                self.assertEqual((str(got), vars(got)), (str(sent), vars(sent)))

    def test_log_lines_are_written_as_given(self) -> None:
        install = Installation()
        self.addCleanup(install.remove)
        qnm.log_init(install.path)
        qnm.log_error("100 %s %n of it")
        qnm.syslog_fatal("fatal")
        qnm.statslog("a line")
        lines = ["logfile ERROR 100 %s %n of it", "syslogfile FATAL fatal", "statslogfile INFO a line"]
        self.assertEqual(install.log()[-3:], lines)
        with self.assertRaises(qnm.ProtocolError):
            qnm.log_init(install.path / "absent")


class Records(unittest.TestCase):
    def test_repr_shows_fields_by_name(self) -> None:
        record = qnm.Qnio(eio_vendor_id=0x1234)
        record.eio_com_dev.ecd_id = 0x02000000ABCD
        record.eio_com_dev.ecd_macaddr[:] = [2, 0, 0, 0, 0xAB, 0xCD]  # type: ignore[index]
        for part in (
            "Qnio(eio_com_dev=ComDev(ecd_id=0x02000000abcd, ecd_recvtime=[[0, 0], [0, 0]], ",
            "ecd_macaddr=02:00:00:00:ab:cd, ",
            "eio_vendor_id=4660, ",
            "eio_pcie_presence=0)",
        ):
            self.assertIn(part, repr(record))
        self.assertNotIn("pad", repr(record))
        self.assertEqual(repr(qnm.Qnsv()), "Qnsv()")

    def test_as_dict_is_plain(self) -> None:
        record = qnm.Qnsv()
        record.esv_down_port[3].edp_port_status[1] = 2  # type: ignore[index]
        values = record.as_dict()
        self.assertEqual(values["esv_down_port"][3]["edp_port_status"], [0, 2])
        self.assertEqual(values["esv_com_dev"]["ecd_state"], [[0, 0], [0, 0]])

    def test_records_are_equal_when_all_fields_are(self) -> None:
        self.assertEqual(qnm.Retry(3, 200), qnm.Retry(3, 200))
        self.assertNotEqual(qnm.Retry(3, 200), qnm.Retry(3, 201))
        self.assertNotEqual(qnm.Qnio(), qnm.Qnsv())


class EventQueue(unittest.TestCase):
    def test_the_oldest_events_are_lost_when_nobody_takes_them(self) -> None:
        queue = _EventQueue(2)
        events = [qnm.Event(n, qnm.EventType.NEWDEVINFO) for n in range(3)]
        for event in events:
            queue.put(event)
        self.assertEqual(queue.lost, 1)
        self.assertEqual([queue.take(None), queue.take(None)], events[1:])

    def test_an_event_gets_in_wherever_a_signal_interrupts_the_taker(self) -> None:
        # The handler may wait for the manager to end, and the manager for this event.
        queue = _EventQueue(2)
        event = qnm.Event(1, qnm.EventType.NEWDEVINFO)
        got_in: list[bool] = []

        def handled() -> float:
            if not got_in:
                putter = threading.Thread(target=queue.put, args=(event,), daemon=True)
                putter.start()
                putter.join(LIMIT)
                got_in.append(not putter.is_alive())
            return 0.0

        with mock.patch("time.monotonic", handled):
            self.assertEqual(queue.take(1.0), event)
        self.assertEqual(got_in, [True])

    def test_every_taker_learns_of_events_and_of_the_end(self) -> None:
        queue = _EventQueue(100)
        events = [qnm.Event(n, qnm.EventType.NEWDEVINFO) for n in range(100)]
        taken: list[qnm.Event] = []

        def take() -> None:
            while (event := queue.take(None)) is not None:
                taken.append(event)

        takers = [threading.Thread(target=take, daemon=True) for _ in range(4)]
        for taker in takers:
            taker.start()
        for event in events:
            queue.put(event)
        queue.close()
        for taker in takers:
            taker.join(LIMIT)
            self.assertFalse(taker.is_alive())
        self.assertEqual(sorted(event.card_id for event in taken), list(range(100)))

    def test_closed_it_gives_what_is_left_and_then_nothing(self) -> None:
        queue = _EventQueue(2)
        event = qnm.Event(1, qnm.EventType.NEWDEVINFO)
        queue.put(event)
        queue.close()
        self.assertEqual([queue.take(None), queue.take(None)], [event, None])


class Library(unittest.TestCase):
    library = pathlib.Path(os.environ["QNM_LIBRARY"])
    which = "import qnm; print(open('/proc/self/maps').read())"

    def test_is_found_as_the_loader_finds_its_soname(self) -> None:
        with tempfile.TemporaryDirectory() as directory:
            shutil.copy(self.library, f"{directory}/libqnm.so.1")
            done = run_python(self.which, QNM_LIBRARY=None, LD_LIBRARY_PATH=directory)
            self.assertIn(f"{directory}/libqnm.so.1", done.stdout, done.stderr)

    def test_is_the_one_that_the_environment_names(self) -> None:
        with tempfile.TemporaryDirectory() as directory:
            shutil.copy(self.library, f"{directory}/other.so")
            done = run_python(self.which, QNM_LIBRARY=f"{directory}/other.so")
            self.assertIn(f"{directory}/other.so", done.stdout, done.stderr)

    def test_that_is_not_there_is_an_import_error_with_advice(self) -> None:
        done = run_python("import qnm", QNM_LIBRARY="/absent/libqnm.so.1")
        self.assertEqual(done.returncode, 1)
        self.assertIn("ImportError: /absent/libqnm.so.1", done.stderr)
        self.assertIn("QNM_LIBRARY", done.stderr)


if __name__ == "__main__":
    unittest.main()
