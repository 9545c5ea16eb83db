"""Tests of queries, device calls and events, on cables to simulated cards.

Run it in a network namespace of its own. All tests share one manager, which knows the three cards
when a test starts.
"""

import json
import queue
import subprocess
import sys
import threading
import unittest
from unittest import mock

import qnm
from qnm import EventType, Flag, Retry
from rig import (
    ALL_PATHS,
    IO,
    LIMIT,
    MULTI_ROOT,
    PATIENT,
    SERVER,
    SILENT,
    Cards,
    Installation,
    lay_cables,
    paths,
    wait_for,
)

install: Installation
cards: Cards
manager: qnm.Manager


def setUpModule() -> None:
    global install, cards, manager
    lay_cables()
    install = Installation()
    unittest.addModuleCleanup(install.remove)
    cards = unittest.enterModuleContext(Cards())
    manager = unittest.enterModuleContext(qnm.Manager(install.path))


class Running(unittest.TestCase):
    def setUp(self) -> None:
        known = wait_for(lambda: paths(SERVER) == ALL_PATHS and len(qnm.get_qnioids()) == 2)
        self.assertTrue(known, install.log()[-20:])


# A second host program on the same ports. It prints whether it learns the server card, and which
# call is refused.
OTHER_PROCESS = """
import sys, qnm, rig
with qnm.Manager(sys.argv[1]):
    print(rig.wait_for(lambda: rig.paths(rig.SERVER) == rig.ALL_PATHS))
    try:
        print(qnm.read_register(rig.SERVER, 0, rig.PATIENT))
    except qnm.BusyError as refused:
        print(refused.call)
"""


class OtherProcess(Running):
    def test_hears_the_cards_that_are_accessed_here_and_is_refused_them(self) -> None:
        qnm.read_register(SERVER, 0, PATIENT)  # takes the port for this process
        other = Installation()
        self.addCleanup(other.remove)
        process = subprocess.run(
            [sys.executable, "-c", OTHER_PROCESS, other.path],
            cwd=sys.path[0],
            capture_output=True,
            text=True,
        )
        self.assertEqual(process.stdout.split(), ["True", "qnm_read_register"], process.stderr)
        qnm.read_register(SERVER, 0, PATIENT)


class Queries(Running):
    def test_cards_are_listed_by_kind_group_and_time(self) -> None:
        self.assertEqual(qnm.get_qnsvids(), [SERVER])
        self.assertEqual(qnm.get_qnioids(), [IO, MULTI_ROOT])
        self.assertEqual(qnm.get_group_qnsvids(20), [SERVER])
        self.assertEqual(qnm.get_group_qnioids(30), [IO, MULTI_ROOT])
        self.assertEqual(qnm.get_group_qnioids(31), [])
        changed = qnm.get_qnsv(SERVER).com_dev.ecd_updatetime
        self.assertEqual(qnm.get_update_qnsvids(changed), [SERVER])
        self.assertEqual(qnm.get_update_qnsvids(2**63), [])
        self.assertEqual(qnm.get_update_qnioids(0), [IO, MULTI_ROOT])

    def test_a_list_longer_than_accepted_tells_the_length_needed(self) -> None:
        with self.assertRaises(qnm.RangeError) as failure:
            qnm.get_qnioids(limit=1)
        self.assertEqual(failure.exception.needed, 2)
        self.assertEqual(qnm.get_qnioids(limit=2), [IO, MULTI_ROOT])

    def test_every_list_is_given_back(self) -> None:
        for _ in range(100):
            qnm.get_qnioids()
        qnm.stdump()
        # The columns end with in use, allocated and freed.
        rows = [line.split() for line in install.log() if " idlist " in line]
        in_use, allocated = rows[-1][-3:-1]
        self.assertEqual(in_use, "0")
        self.assertGreaterEqual(int(allocated), 100)

    def test_a_record_holds_what_the_card_announces(self) -> None:
        server, io = qnm.get_qnsv(SERVER), qnm.get_qnio(IO)
        self.assertEqual((server.com_dev.ecd_id, server.com_dev.ecd_vlan_id), (SERVER, 20))
        self.assertEqual(bytes(server.com_dev.ecd_macaddr), SERVER.to_bytes(6, "big"))
        self.assertEqual(io.eio_vendor_id, 0x1234)
        self.assertIn(f"ecd_id=0x{IO:012x}", repr(io))
        self.assertEqual(json.loads(json.dumps(io.as_dict())), io.as_dict())
        with self.assertRaises(qnm.NotFoundError):
            qnm.get_qnio(SERVER)

    def test_a_card_that_is_deleted_is_learnt_again(self) -> None:
        for card_id, delete in ((SERVER, qnm.delete_qnsv), (IO, qnm.delete_qnio)):
            new = qnm.Event(card_id, EventType.NEWDEVINFO)
            seen: queue.SimpleQueue[qnm.Event] = queue.SimpleQueue()
            registration = qnm.register_callback(EventType.NEWDEVINFO, seen.put)
            delete(card_id)
            self.assertEqual(seen.get(timeout=LIMIT), new)
            qnm.unregister_callback(registration)


class Access(Running):
    def test_a_register_is_read_written_and_changed(self) -> None:
        cards.tell("reg server 0x1000 0x12345678")
        self.assertEqual(qnm.read_register(SERVER, 0x1000, PATIENT), 0x12345678)
        qnm.write_register(SERVER, 0x1000, 0xCAFE0001, PATIENT, Flag.VERIFY)
        qnm.modify_register(SERVER, 0x1000, 0xFFFFFFFF, 0x0000FF00, PATIENT, Flag.VERIFY)
        self.assertEqual(cards.word("reg server 0x1000"), 0xCAFEFF01)
        with self.assertRaises(qnm.InvalidArgumentError):
            qnm.read_register(SERVER, 0x1001)

    def test_a_dump_reads_a_range_or_tells_how_far_it_came(self) -> None:
        for n in range(4):
            cards.tell(f"reg server {SILENT - 16 + 4 * n} {n + 1}")
        self.assertEqual(qnm.dump_register(SERVER, SILENT - 16, SILENT, PATIENT), [1, 2, 3, 4])
        with self.assertRaises(qnm.TimedOutError) as failure:
            qnm.dump_register(SERVER, SILENT - 8, SILENT + 8, Retry(2, 100))
        self.assertEqual(failure.exception.words, [3, 4])
        with self.assertRaises(qnm.InvalidArgumentError):
            qnm.dump_register(SERVER, 8, 4)

    def test_an_eeprom_is_written_read_and_dumped(self) -> None:
        qnm.write_eeprom(IO, 2044, 0x01020304, PATIENT, Flag.VERIFY)
        self.assertEqual(qnm.read_eeprom(IO, 2044, PATIENT), 0x01020304)
        self.assertEqual(cards.word("eeprom io 2044"), 0x01020304)
        self.assertEqual(qnm.dump_eeprom(IO, 2040, 2048, PATIENT), [0xFFFFFFFF, 0x01020304])

    def test_an_eeprom_lock_left_behind_is_taken_away(self) -> None:
        cards.tell("lock io take 8")
        with self.assertRaises(qnm.BusyError):
            qnm.read_eeprom(IO, 0, PATIENT)
        qnm.unlock_eeprom(IO)
        self.assertEqual(cards.word("lock io"), 0)
        cards.tell("lock io take 8")
        qnm.read_eeprom(IO, 0, PATIENT, Flag.FORCELOCK)
        self.assertEqual(cards.word("lock io"), 0)

    def test_a_card_takes_a_vlan_id_a_reset_and_a_page(self) -> None:
        qnm.set_vlanid(MULTI_ROOT, 1234, PATIENT, Flag.VERIFY)
        self.assertEqual(qnm.get_qnio(MULTI_ROOT).com_dev.ecd_vlan_id, 1234)
        qnm.set_vlanid(MULTI_ROOT, 30, PATIENT, Flag.VERIFY)
        qnm.send_resetframe(MULTI_ROOT, 0x5A)
        self.assertTrue(wait_for(lambda: cards.word("resets multi-root") == 0x5A))
        page = [0xA0000000 + n for n in range(32)]
        qnm.write_mmspage(MULTI_ROOT, 1023, page)
        self.assertTrue(wait_for(lambda: cards.tell("mms multi-root 1023") != "not written"))
        answer = cards.tell("mms multi-root 1023")
        self.assertEqual([int(word, 0) for word in answer.split()], page)

    def test_a_card_that_is_not_monitored_has_no_link(self) -> None:
        qnm.stop_monitor(IO)
        with self.assertRaises(qnm.NoLinkError):
            qnm.read_register(IO, 0)
        qnm.read_register(IO, 0, PATIENT, Flag.LIVECHECK)
        qnm.restart_monitor(IO)
        self.assertEqual(qnm.read_register(IO, 0, PATIENT), 0)

    def test_the_log_level_and_a_dump_come_through(self) -> None:
        qnm.set_loglevel(qnm.LogLevel.FATAL)
        qnm.log_error("not to be seen")
        qnm.set_loglevel(qnm.LogLevel.NONE)
        qnm.log_error("to be seen")
        self.assertIn("logfile ERROR to be seen", install.log())
        self.assertNotIn("logfile ERROR not to be seen", install.log())
        with self.assertRaises(qnm.InvalidArgumentError):
            qnm.set_loglevel(6)


class Events(Running):
    def notify(self, error: bool) -> None:
        """Has the I/O card report an error or no error; a new error raises an event."""
        cards.tell(f"set io int_vector {int(error)}")
        cards.tell("notify io")

    def provoke(self) -> None:
        self.notify(False)
        self.assertTrue(wait_for(lambda: qnm.get_qnio(IO).com_dev.ecd_int_vector == 0))
        self.notify(True)

    def test_events_come_in_the_order_in_which_they_arose(self) -> None:
        self.provoke()
        types = {card: list[EventType]() for card in (SERVER, IO, MULTI_ROOT)}
        for event in manager.events(timeout=LIMIT):
            types[event.card_id].append(event.type)
            if event == qnm.Event(IO, EventType.MAJORMINORERROR):
                break
        for seen in types.values():
            self.assertEqual(seen[0], EventType.NEWDEVINFO)
        self.assertIn(EventType.CHANNELSTATECHANGE, types[SERVER])
        self.assertEqual(manager.lost, 0)

    def test_a_callback_is_called_until_it_is_unregistered(self) -> None:
        seen: queue.SimpleQueue[qnm.Event] = queue.SimpleQueue()
        other: queue.SimpleQueue[qnm.Event] = queue.SimpleQueue()
        registration = qnm.register_callback(EventType.MAJORMINORERROR, seen.put)
        last = qnm.register_callback(EventType.MAJORMINORERROR, other.put)
        self.provoke()
        self.assertEqual(seen.get(timeout=LIMIT), qnm.Event(IO, EventType.MAJORMINORERROR))
        other.get(timeout=LIMIT)
        qnm.unregister_callback(registration)
        self.provoke()
        other.get(timeout=LIMIT)
        self.assertTrue(seen.empty())
        with self.assertRaises(qnm.InvalidArgumentError):
            qnm.unregister_callback(registration)
        qnm.unregister_callback(last)

    def test_a_callback_may_call_but_not_register_for_its_own_type(self) -> None:
        results: queue.SimpleQueue[object] = queue.SimpleQueue()
        mine: list[qnm.Registration] = []

        def on_error(event: qnm.Event) -> None:
            results.put(qnm.read_register(event.card_id, 0, PATIENT))
            other = qnm.register_callback(EventType.PATHSTATECHANGE, print)
            qnm.unregister_callback(other)
            for forbidden in (
                lambda: qnm.register_callback(event.type, print),
                lambda: qnm.unregister_callback(mine[0]),
                manager.stop,
            ):
                try:
                    forbidden()
                except RuntimeError as refused:
                    results.put(refused)

        mine.append(qnm.register_callback(EventType.MAJORMINORERROR, on_error))
        self.provoke()
        self.assertEqual(results.get(timeout=LIMIT), 0)
        for _ in range(3):
            self.assertIsInstance(results.get(timeout=LIMIT), RuntimeError)
        qnm.unregister_callback(mine[0])

    def test_an_exception_in_a_callback_is_reported_and_the_next_event_comes(self) -> None:
        called = threading.Semaphore(0)

        def fail(event: qnm.Event) -> None:
            called.release()
            raise ValueError("of the callback")

        with mock.patch("sys.unraisablehook") as hook:
            registration = qnm.register_callback(EventType.MAJORMINORERROR, fail)
            for _ in range(2):
                self.provoke()
                self.assertTrue(called.acquire(timeout=LIMIT))
            qnm.unregister_callback(registration)
        self.assertEqual([str(c.args[0].exc_value) for c in hook.mock_calls], ["of the callback"] * 2)


if __name__ == "__main__":
    unittest.main()
