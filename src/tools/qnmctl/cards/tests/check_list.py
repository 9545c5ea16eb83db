#!/usr/bin/python3
"""list on a terminal, among simulated cards: its colours, the pager, filters and sorting. To be run
in a network namespace of its own.

  usage: check_list.py QNMCTL CARDSIM

Nothing waits for a time: what has not ended a minute later is killed and counts as a failure.
"""
import fcntl
import os
import pty
import re
import signal
import struct
import subprocess
import sys
import tempfile
import termios

LIMIT = 60  # seconds, which only a failure reaches
ROWS = 24
SCENARIO = """ports = ["qsim0"]
[[card]]
name = "sv"
kind = "qnsv"
speed = "1g10g"
id = 0x020000001000
vlan_id = 10
interval_ms = 200
power = true
[[card]]
name = "faulty"
kind = "qnio"
speed = "1g10g"
id = 0x020000002000
vlan_id = 20
interval_ms = 200
int_vector = 0x12
[[card]]
name = "rack"
kind = "qnio"
speed = "1g10g"
id = 0x020000100000
count = 40
step = 2
vlan_id = 30
interval_ms = 200
"""


class Failure(Exception):
    pass


def require(holds, what):
    if not holds:
        raise Failure(what)


class Site:
    """The programs, a cable between them, and a folder for what they make."""

    def __init__(self, qnmctl, cardsim, folder):
        self.qnmctl, self.cardsim, self.folder = qnmctl, cardsim, folder
        subprocess.run("ip link add qnm0 type veth peer name qsim0; ip link set qnm0 up; "
                       "ip link set qsim0 up; ip link set lo up", shell=True, check=True)
        self.scenario = os.path.join(folder, "scenario.toml")
        with open(self.scenario, "w", encoding="utf-8") as file:
            file.write(SCENARIO)

    def list(self, *options, when_ready=None, **environment):
        """What a terminal of 24 lines by 100 columns gets, and the exit status. When the pager says
        that it is ready, when_ready gets the process and the terminal."""
        ours, theirs = pty.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, 100, 0, 0))
        run = subprocess.Popen(
            [self.qnmctl, "--ports", "qnm0", "list", "--for", "1.5", *options],
            stdin=theirs, stdout=theirs, stderr=theirs, start_new_session=True,
            env={**os.environ, "XDG_STATE_HOME": self.folder, "LC_ALL": "C.UTF-8", **environment})
        os.close(theirs)
        signal.alarm(LIMIT)
        shown = b""
        while True:
            try:
                part = os.read(ours, 65536)
            except OSError:  # as a terminal ends
                break
            if not part:
                break
            shown += part
            if when_ready and b"ready" in shown:
                when_ready(run, ours)
                when_ready = None
        status = run.wait()
        signal.alarm(0)
        os.close(ours)
        return status, shown.decode().replace("\r\n", "\n")


def card_lines(text):
    return re.findall(r"^.*QN(?:SV|IO) 0x.*$", text, re.M)


def check_short_table(site):
    status, text = site.list("--kind", "qnsv", PAGER="sed s/^/paged:/")
    require(status == 0, text)
    require("paged:" not in text, "a table that fits goes through the pager: " + text)
    require(len(card_lines(text)) == 1, text)
    require(re.search(r"1 QNSV, 0 QNIO, of 42 cards, heard within [\d.]+ s; slower", text), text)


def check_pager(site):
    status, text = site.list(PAGER="sed s/^/paged:/")
    require(status == 0, text)
    require(len(re.findall("^paged:", text, re.M)) == 44, "not all lines were paged: " + text)
    require("\033[1mKIND" in text, "the pager gets no colours: " + text)
    without_colours = re.sub("\033\\[[0-9;]*m", "", text)
    require("\033" not in without_colours, "the pager gets more than colours: " + repr(text))
    for pager in "cat", "", "/nowhere/pager":
        status, text = site.list(PAGER=pager)
        require(status == 0 and len(card_lines(text)) == 42, f"{pager!r}: {text}")
    status, text = site.list(PAGER="head -n 3")
    require(status == 0, "a pager that ends early is no fault: " + text)


def check_pager_at_signals(site):
    def interrupt(run, terminal):
        run.send_signal(signal.SIGINT)
        os.write(terminal, b"a line\n")

    status, text = site.list(PAGER="cat >/dev/null; echo ready; read line <&1; echo got $line",
                             when_ready=interrupt)
    require(status == 0 and "got a line" in text, f"Ctrl-C is for the pager: {status} {text}")

    def terminate(run, terminal):
        run.send_signal(signal.SIGTERM)
        run.wait()
        modes = termios.tcgetattr(terminal)[3]
        require(modes & termios.ICANON and modes & termios.ECHO, "the terminal is left raw")

    # What the shell has started holds the terminal open until it is ended, too.
    raw = "stty -icanon -echo <&1; cat >/dev/null; echo ready; exec sleep 600"
    site.list(PAGER=f"sh -c '{raw}'; true", when_ready=terminate)


def check_colours(site):
    text = site.list("--group", "20")[1]
    require("\x1b[33mQNIO 0x020000002000" in text and "vector 0x12" in text, repr(text))
    text = site.list("--group", "20", NO_COLOR="1")[1]
    require("\x1b" not in text, repr(text))


def check_order(site):
    text = site.list("--sort", "vlan", "--reverse", PAGER="cat", NO_COLOR="1")[1]
    lines = card_lines(text)
    require("0x020000001000" in lines[-1] and "0x020000002000" in lines[-2], text)
    text = site.list("--state", "disconnected")[1]
    require("0 QNSV, 0 QNIO, of 42 cards" in text, text)


def check_silence(site):
    subprocess.run("ip link set qsim0 down", shell=True, check=True)
    status, text = site.list()
    require(status == 5, f"{status}: {text}")
    require("no card was heard within" in text, text)
    require("qnm0 has no link, so no card can be heard on it" in text, text)
    require("Check the cable and the far end" in text, text)


def main():
    with tempfile.TemporaryDirectory() as folder:
        site = Site(sys.argv[1], sys.argv[2], folder)
        with subprocess.Popen([site.cardsim, "--quiet", site.scenario],
                              stdin=subprocess.PIPE) as cards:
            try:
                for check in (check_short_table, check_pager, check_pager_at_signals,
                              check_colours, check_order):
                    check(site)
            finally:
                cards.terminate()
        check_silence(site)


try:
    main()
except Failure as failure:
    sys.exit(str(failure))
