"""Tests of how managers start and end, on cables to simulated cards.

Run it in a network namespace of its own.
"""

import os
import queue
import signal
import subprocess
import sys
import threading
import unittest
from typing import Any
from unittest import mock

import qnm
from qnm import EventType, Retry
from rig import (
    ALL_PATHS,
    IO,
    LIMIT,
    MULTI_ROOT,
    PATIENT,
    SERVER,
    SILENT,
    TWO_PORTS,
    Cards,
    Installation,
    lay_cables,
    paths,
    wait_for,
)


def setUpModule() -> None:
    lay_cables()


class Lifecycle(unittest.TestCase):
    def installation(self, *conf: str) -> Installation:
        install = Installation(*conf)
        self.addCleanup(install.remove)
        return install

    def test_a_start_that_fails_is_raised_and_the_next_may_succeed(self) -> None:
        absent = self.installation("ether_port = absent0\n")
        with self.assertRaises(qnm.ProtocolError), qnm.Manager(absent.path):
            pass
        with self.assertRaises(qnm.InvalidArgumentError), qnm.Manager(absent.path / "absent"):
            pass
        manager = qnm.Manager(self.installation().path)
        with manager:
            self.assertTrue(manager.running)
        self.assertFalse(manager.running)

    def test_a_manager_can_be_started_again_and_its_registrations_are_gone(self) -> None:
        manager = qnm.Manager(self.installation().path)
        with manager:
            registration = qnm.register_callback(EventType.NEWDEVINFO, print)
        with manager, self.assertRaises(qnm.InvalidArgumentError):
            qnm.unregister_callback(registration)

    def test_a_manager_that_ends_by_itself_ends_events_and_says_why(self) -> None:
        original = qnm.calls.run_claimed_manager

        def run_and_fail(*arguments: Any) -> None:
            original(*arguments)
            raise qnm.ProtocolError("qnm_init_manager")

        with mock.patch("qnm.calls.run_claimed_manager", run_and_fail):
            with self.assertRaises(qnm.ProtocolError):
                with qnm.Manager(self.installation().path) as manager:
                    qnm.fini_manager()
                    self.assertEqual(list(manager.events()), [])
            with self.assertRaises(LookupError) as failure:
                with qnm.Manager(self.installation().path):
                    raise LookupError("of the host program")
        self.assertIn("qnm_init_manager: protocol", failure.exception.__notes__[0])

    def test_a_second_manager_is_refused_and_the_first_runs_on(self) -> None:
        install = self.installation()
        with qnm.Manager(install.path) as first:
            with self.assertRaises(qnm.BusyError), qnm.Manager(install.path):
                pass
            with self.assertRaises(qnm.BusyError):
                qnm.init_manager(install.path)
            with self.assertRaises(RuntimeError):
                first.start()
            self.assertEqual(qnm.get_qnsvids(), [])

    def test_a_stop_ends_events_and_calls_that_wait(self) -> None:
        with Cards() as cards, qnm.Manager(self.installation().path) as manager:
            self.assertTrue(wait_for(lambda: paths(SERVER) == ALL_PATHS))
            failures: queue.SimpleQueue[qnm.Error] = queue.SimpleQueue()

            def read() -> None:
                try:
                    qnm.read_register(SERVER, SILENT, Retry(0, 3_600_000))
                except qnm.Error as failure:
                    failures.put(failure)

            reader = threading.Thread(target=read)
            reader.start()
            # While the call waits, other threads run and can make calls.
            self.assertTrue(wait_for(lambda: " silent=1 " in cards.tell("counters")))
            self.assertEqual(qnm.read_register(SERVER, 0, PATIENT), 0)
            stopper = threading.Thread(target=manager.stop)
            stopper.start()
            for _ in manager.events():
                pass
            reader.join()
            self.assertIsInstance(failures.get(timeout=LIMIT), qnm.NotRunningError)
        stopper.join()

    def test_a_stop_may_end_while_another_one_waits(self) -> None:
        fini = qnm.fini_manager

        def stop_meanwhile() -> None:
            with mock.patch("qnm.calls.fini_manager", fini):
                stopper = threading.Thread(target=manager.stop)
                stopper.start()
                stopper.join()

        with qnm.Manager(self.installation().path) as manager:
            with mock.patch("qnm.calls.fini_manager", stop_meanwhile):
                manager.stop()
            self.assertFalse(manager.running)

    def test_a_function_takes_events_of_the_wanted_types(self) -> None:
        seen: queue.SimpleQueue[qnm.Event] = queue.SimpleQueue()
        types = [EventType.NEWDEVINFO]
        with Cards(), qnm.Manager(
            self.installation().path, types=types, on_event=seen.put
        ) as manager:
            events = [seen.get(timeout=LIMIT) for _ in range(3)]
            self.assertEqual(list(manager.events(timeout=0)), [])
        self.assertEqual({event.card_id for event in events}, {SERVER, IO, MULTI_ROOT})
        self.assertEqual({event.type for event in events}, set(types))

    def test_a_child_leaves_the_manager_alone(self) -> None:
        with qnm.Manager(self.installation().path) as manager:
            child = os.fork()
            if child == 0:
                manager.stop()
                os._exit(0)
            self.assertEqual(os.waitpid(child, 0)[1], 0)
            self.assertEqual(qnm.get_qnsvids(), [])


class Programs(unittest.TestCase):
    """Tests of how whole programs end."""

    def run_program(self, *program: str, conf: str = TWO_PORTS) -> subprocess.Popen[str]:
        """Starts a Python program with an installation directory as its argument."""
        self.install = Installation(conf)
        self.addCleanup(self.install.remove)
        command = [sys.executable, "-u", *program, str(self.install.path)]
        process = subprocess.Popen(
            command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
        )
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def test_one_that_forgets_to_stop_stops_at_its_end(self) -> None:
        program = "import qnm, sys; qnm.Manager(sys.argv[1]).start(); print('end')"
        process = self.run_program("-c", program)
        self.assertEqual(process.communicate(timeout=LIMIT), ("end\n", ""))
        self.assertEqual(process.returncode, 0)
        self.assertIn("syslogfile INFO QNM LFI stopped", self.install.log())

    def test_one_that_waits_for_events_ends_by_sigint(self) -> None:
        program = (
            "import qnm, sys\n"
            "with qnm.Manager(sys.argv[1]) as manager:\n"
            "    print('waiting')\n"
            "    for event in manager.events(): pass\n"
        )
        process = self.run_program("-c", program)
        assert process.stdout is not None
        self.assertEqual(process.stdout.readline(), "waiting\n")
        process.send_signal(signal.SIGINT)
        _, errors = process.communicate(timeout=LIMIT)
        self.assertEqual(errors.splitlines()[-1], "KeyboardInterrupt")
        self.assertEqual(process.returncode, -signal.SIGINT)

    def test_the_example_reports_cards_until_a_signal_comes(self) -> None:
        process = self.run_program(os.environ["QNM_EXAMPLE"])
        assert process.stdout is not None
        with Cards():
            wanted = f"0x{SERVER:012x} CHANNELSTATECHANGE qnsv CCCC\n"
            while (line := process.stdout.readline()) not in (wanted, ""):
                pass
            self.assertEqual(line, wanted)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.communicate(timeout=LIMIT)[1], "")
        self.assertEqual(process.returncode, 0)

    def test_the_example_says_why_it_cannot_start(self) -> None:
        process = self.run_program(os.environ["QNM_EXAMPLE"], conf="ether_port = absent0\n")
        wanted = (
            "watch.py: qnm_init_manager: protocol or internal error; "
            "the log or a line above tells which\n"
        )
        self.assertEqual(process.communicate(timeout=LIMIT), ("", wanted))
        self.assertEqual(process.returncode, 1)


if __name__ == "__main__":
    unittest.main()
