#!/usr/bin/env python3
"""Whether each folder of qnmctl includes headers of those before it only, and none of a later one.

usage: check_rooms.py FOLDER

The order is that of "rooms" in FOLDER/CMakeLists.txt; tests may include anything.
"""

import pathlib
import re
import sys

COMMON = "common"  # what both programs share; below all rooms


def read_rooms(top):
    listed = re.search(r"set\(rooms ([a-z ]+)\)", (top / "CMakeLists.txt").read_text())
    if not listed:
        sys.exit("no list of rooms in " + str(top / "CMakeLists.txt"))
    return listed.group(1).split()


def wrong_includes(top, rooms):
    for place, room in enumerate(rooms):
        allowed = set(rooms[: place + 1]) | {COMMON}
        for source in sorted((top / room).glob("*.[ch]*")):
            for included in re.findall(r'#include "([a-z_]+)/', source.read_text()):
                if included not in allowed:
                    yield f"{source.relative_to(top)} includes a header of {included}"


def main():
    top = pathlib.Path(sys.argv[1])
    rooms = read_rooms(top)
    folders = {entry.name for entry in top.iterdir() if (entry / "CMakeLists.txt").exists()}
    if folders - {"tests"} != set(rooms):
        sys.exit(f"the list has {sorted(rooms)}, the folders are {sorted(folders)}")
    wrong = list(wrong_includes(top, rooms))
    sys.exit("\n".join(wrong) if wrong else 0)


main()
