#!/usr/bin/env python3
"""watch.py - a host program: one line for every event, until SIGINT or SIGTERM."""

import contextlib
import signal
import sys

import qnm


def describe(card_id: int) -> str:
    """A card as it is now: its kind, and its paths P0M0, P0M1, P1M0, P1M1, C for connected."""
    for kind, get_card in (("qnsv", qnm.get_qnsv), ("qnio", qnm.get_qnio)):
        with contextlib.suppress(qnm.Error):
            states = get_card(card_id).com_dev.ecd_state
            return f"{kind} " + "".join("DC"[state] for port in states for state in port)
    return "gone"


def main() -> int:
    if len(sys.argv) != 2:
        print("usage: watch.py DIRECTORY", file=sys.stderr)
        return 2
    signal.signal(signal.SIGTERM, signal.default_int_handler)  # as Ctrl-C
    try:
        with contextlib.suppress(KeyboardInterrupt), qnm.Manager(sys.argv[1]) as manager:
            for event in manager.events():
                line = f"0x{event.card_id:012x} {event.type.name} {describe(event.card_id)}"
                print(line, flush=True)
    except qnm.Error as failure:
        print(f"watch.py: {failure}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
