#!/usr/bin/env python3
"""Checks what qnmctl report has put in, and that no card shows in what it has masked.

  usage: check_report.py CLEAR MASKED     directories with the members
"""
import json
import pathlib
import sys


def load(folder, name):
    return json.loads((folder / name).read_text(encoding="utf-8"))


def files(folder):
    """Every member's name and bytes."""
    found = [path for path in folder.rglob("*") if path.is_file()]
    return {str(path.relative_to(folder)): path.read_bytes() for path in found}


def addresses(clear):
    """All that the cards have, with both of a card's paths, and those of the ports."""
    ids = [int(card["id"], 16) for card in load(clear, "cards.json")]
    macs = [port["mac"] for port in load(clear, "ports.json")]
    ids += [int(mac.replace(":", ""), 16) for mac in macs]
    return {address ^ path for address in ids for path in (0, 1)}


def spellings(address):
    """As bytes, and as text in lower case."""
    for order in ("big", "little"):
        raw = address.to_bytes(6, order)
        yield raw
        digits = raw.hex()
        yield digits.encode()
        for size in (2, 4):
            groups = [digits[at : at + size] for at in range(0, 12, size)]
            for separator in ":-. ":
                yield separator.join(groups).encode()
    yield f"0x{address:x}".encode()
    yield str(address).encode()


def shown(folder, cards):
    """Where an address shows: (member, spelling)."""
    forms = {form for address in cards for form in spellings(address)}
    found = set()
    for name, contents in files(folder).items():
        for text in (contents, contents.lower(), name.lower().encode()):
            found |= {(name, form) for form in forms if form in text}
    return found


def blocks(capture):
    """The types of a pcapng file's blocks."""
    at = 0
    while at < len(capture):
        length = int.from_bytes(capture[at + 4 : at + 8], sys.byteorder)
        assert length >= 12 and capture[at + 4 : at + 8] == capture[at + length - 4 : at + length]
        yield int.from_bytes(capture[at : at + 4], sys.byteorder)
        at += length


def check_listed(folder, masked):
    manifest = load(folder, "manifest.json")
    listed = {one["name"]: one["bytes"] for one in manifest["members"]}
    there = {name: len(contents) for name, contents in files(folder).items()}
    del there["manifest.json"]
    assert listed == there, (listed, there)
    assert manifest["masked"] == masked
    assert [one["part"] for one in manifest["missing"]] == ["logs"], manifest["missing"]


def check_system(folder):
    versions = load(folder, "versions.json")
    for library in ("libpcap", "log4cxx", "libarchive"):
        assert f"{library.removeprefix('lib')}" in versions[library]["file"], versions
    assert "libqnm.so." in versions["libqnm"]["file"], versions
    for number, port in enumerate(load(folder, "ports.json")):
        assert port["interface"] == f"qnm{number}" and port["link"] and port["mtu"] == 1500, port
        assert port["driver"]["name"] == "veth" and port["counters"]["rx_packets"] > 0, port
    packets = [kind for kind in blocks((folder / "capture.pcapng").read_bytes()) if kind == 6]
    assert len(packets) >= 2, "nothing was captured"


def bindings(folder):
    """Which cards belong together, whatever they are called."""
    ids = [card["id"] for card in load(folder, "cards.json")]
    text = (folder / "topology.txt").read_text(encoding="utf-8")
    return [text.count(one) for one in sorted(ids, key=text.find)]


def main():
    clear, masked = map(pathlib.Path, sys.argv[1:])
    cards = addresses(clear)
    check_listed(clear, False)
    check_listed(masked, True)
    check_system(clear)
    check_system(masked)

    # What the masked one must not have is found where it is.
    found = shown(clear, cards)
    with_cards = {"cards.txt", "cards.json", "topology.txt", "statistics.txt", "events.txt",
                  "capture.pcapng", "logs/qnm-020000001000.log", "ports.json"}
    assert with_cards <= {name for name, _ in found}, with_cards - {name for name, _ in found}
    server = 0x020000001000
    for form in (server.to_bytes(6, "big"), b"0200.0000.1000", b"2199023259648", b"0x20000001000"):
        assert form in {one for _, one in found}, form
    assert not shown(masked, cards), shown(masked, cards)

    ids = [card["id"] for card in load(masked, "cards.json")]
    assert len(set(ids)) == len(load(clear, "cards.json"))
    assert all(one.startswith("0xfafafa") for one in ids), ids
    assert bindings(masked) == bindings(clear), "what belongs together no longer does"
    assert (masked / "logs" / f"qnm-{ids[0][2:]}.log").exists(), files(masked).keys()


if __name__ == "__main__":
    main()
