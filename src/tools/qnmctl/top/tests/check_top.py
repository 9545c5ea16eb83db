#!/usr/bin/python3
"""The full-screen view against simulated cards, in a terminal of its own. To be run in a network
namespace of its own.

  usage: check_top.py QNMCTL CARDSIM

Nothing waits for a time: every step waits until the screen shows what it has to.
"""
import fcntl
import os
import pty
import random
import re
import select
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time

import pyte

# A shell's job control for one command: the command is a job of its own, which is begun in the
# foreground ("f") or in the background ("b"). When it stops, the terminal is taken from it and its
# process is told; "f" and "b" continue it there. Ends as the command does.
JOB = """
import os, signal, sys
told, orders, begun, *command = int(sys.argv[1]), int(sys.argv[2]), *sys.argv[3:]
signal.signal(signal.SIGTTOU, signal.SIG_IGN)
job = os.fork()
if job == 0:
    os.setpgid(0, 0)
    if begun == "f":
        os.tcsetpgrp(0, os.getpid())
    signal.signal(signal.SIGTTOU, signal.SIG_DFL)
    os.execv(command[0], command)
os.write(told, b"%d\\n" % job)
while True:
    status = os.waitpid(job, os.WUNTRACED)[1]
    if not os.WIFSTOPPED(status):
        sys.exit(os.waitstatus_to_exitcode(status))
    os.tcsetpgrp(0, os.getpid())
    os.write(told, b"stopped\\n")
    if os.read(orders, 1) == b"f":
        os.tcsetpgrp(0, job)
    os.kill(-job, signal.SIGCONT)
"""
STATE = tempfile.TemporaryDirectory()  # where the command has its logs
LIMIT = 60  # seconds, which only a failure reaches
HUGE_LIMIT = 1 << 20  # KiB; with what a sanitizer adds
RACK = """ports = ["qsim0", "qsim1"]
[[card]]
name = "sv"
kind = "qnsv"
speed = "1g10g"
id = 0x020000001000
vlan_id = 10
interval_ms = 500
heard = ["P0M0"]
[[card]]
name = "rack"
kind = "qnio"
speed = "1g10g"
id = 0x020000100000
count = 2000
step = 2
interval_ms = 2000
vlan_id = 100
"""
# pyte knows all that the Linux console does, but not all of xterm, which alone has a screen of its
# own for programs.
TERMINAL, TERMINAL_WITH_SCREENS = "linux", "xterm-256color"
UP, DOWN, PAGE_DOWN, END, HOME = "\x1b[A", "\x1b[B", "\x1b[6~", "\x1b[4~", "\x1b[1~"
OWN_SCREEN, FIRST_SCREEN = b"\x1b[?1049h", b"\x1b[?1049l"
HEADING = "ID             KIND TYPE  VLAN P0M0 P0M1 P1M0 P1M1  HEARD  EVENTS   EV/S"
CARD = r"{} QNSV 1/10G   10    C    -    -    -  [ \d]{{3}} s {{1,7}}\d+ {{1,6}}\d+\.\d"
HELP = """\
Keys of qnmctl top
Up/Down, k/j       Move
PgUp/PgDn, b/Space Move by a screen
Home/End, g/G      To the first and stay there, to the end
Enter              The card's detail, and back
/                  Type a filter: words of ID, kind, type
t                  Both kinds, only QNSV, only QNIO
c                  All, only connected, only disconnected
s/S                Sort by the next, the previous order
r                  Reverse the order
?, h               This help; any key closes it
Esc                Back: from detail, filter, view
q, Ctrl-C          End
C connected, D disconnected, - never heard
frames: all that the kernel counts on the interface"""
FIRST, LAST = "0x020000001000", "0x020000100f9e"


def take_terminal():
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)


def take_terminal_and_ignore_stop():
    take_terminal()
    signal.signal(signal.SIGTSTP, signal.SIG_IGN)


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


class Failure(Exception):
    pass


class Top:
    """A running view and the screen that a terminal makes of what it writes."""

    def __init__(self, program, *options, size=(80, 24), told_size=None, env=None, delay="0.2",
                 before=(), preexec_fn=take_terminal, **how):
        self.screen = pyte.Screen(*size)
        self.stream = pyte.ByteStream(self.screen)
        self.raw = b""
        self.master, slave = pty.openpty()
        self.set_size(*(told_size or size))
        self.before = termios.tcgetattr(self.master)
        self.process = subprocess.Popen(
            [*before, program, "--ports", "qnm0,qnm1", "top", "--delay", delay, *options],
            stdin=slave, stdout=slave, stderr=slave, start_new_session=True,
            preexec_fn=preexec_fn,
            env={**os.environ, "TERM": TERMINAL, "XDG_STATE_HOME": STATE.name, **(env or {})},
            **how,
        )
        os.close(slave)

    def set_size(self, columns, lines):
        """As a terminal does when its window changes."""
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", lines, columns, 0, 0))

    def resize(self, columns, lines):
        self.screen.resize(lines, columns)
        self.set_size(columns, lines)

    def text(self):
        return "\n".join(self.screen.display)

    def read(self, seconds):
        """False at the end."""
        if not select.select([self.master], [], [], seconds)[0]:
            return True
        try:
            piece = os.read(self.master, 65536)
        except OSError:  # the other end has been closed
            return False
        self.raw += piece
        self.stream.feed(piece)
        return bool(piece)

    def drop(self):
        """What the view draws, at least something, without the time that the screen takes for it."""
        give_up = time.monotonic() + LIMIT
        drawn = False
        while time.monotonic() < give_up:
            if select.select([self.master], [], [], 0 if drawn else 1)[0]:
                drawn = True
                try:
                    os.read(self.master, 65536)
                except OSError:  # the other end has been closed
                    break
            elif drawn:
                self.stream = pyte.ByteStream(self.screen)  # nothing is begun any more
                return
        raise Failure(f"it draws nothing or without an end, status {self.process.poll()}")

    def until(self, what, *texts):
        """The screen as soon as it has all of these (patterns); they have to come."""
        give_up = time.monotonic() + LIMIT
        while not all(re.search(text, self.text()) for text in texts):
            if time.monotonic() > give_up or not self.read(1):
                raise Failure(f"{what}: no {texts} in\n{self.text()}")
        return self.text()

    def until_lines(self, what, *lines):
        """Until whole lines of the screen are these (patterns), and nothing is beside them."""
        self.until(what, *(rf"(?m)^{line} *$" for line in lines))

    def type(self, keys):
        os.write(self.master, keys.encode())

    def selected(self):
        """The line in reverse below the heading."""
        for number in range(self.screen.lines - 1, 4, -1):
            cell = self.screen.buffer[number][0]
            if cell.reverse and cell.data == "0":
                return self.screen.display[number]
        return ""

    def until_selected(self, text):
        give_up = time.monotonic() + LIMIT
        while text not in self.selected():
            if time.monotonic() > give_up or not self.read(1):
                raise Failure(f"{text} is not selected in\n{self.text()}")

    def until_cleared(self, what, since):
        """Until the screen has been made anew."""
        give_up = time.monotonic() + LIMIT
        while b"\x1b[J" not in self.raw[since:] and b"\x1b[2J" not in self.raw[since:]:
            if time.monotonic() > give_up or not self.read(1):
                raise Failure(f"{what}: the screen is not drawn anew, status "
                              f"{self.process.poll()}\n{self.text()}")

    def until_help(self, what):
        """The whole view is there: the help, each line of it, and nothing else."""
        give_up = time.monotonic() + LIMIT
        wanted = HELP.split("\n")
        wanted += [""] * (self.screen.lines - len(wanted))
        while [line.rstrip() for line in self.screen.display] != wanted:
            if time.monotonic() > give_up or not self.read(1):
                raise Failure(f"{what}: the view is not whole, status {self.process.poll()}\n"
                              f"{self.text()}")

    def ends(self, what, status=0):
        """By itself, and with the terminal as it was."""
        give_up = time.monotonic() + LIMIT
        while self.read(1):
            if time.monotonic() > give_up:
                self.process.kill()
                raise Failure(f"{what}: it does not end\n{self.text()}")
        ended = self.process.wait(LIMIT)
        if ended != status:
            raise Failure(f"{what}: status {ended}\n{self.text()}")
        if termios.tcgetattr(self.master) != self.before:
            raise Failure(f"{what}: the terminal is not as it was")
        if self.raw.rfind(OWN_SCREEN) > self.raw.rfind(FIRST_SCREEN):
            raise Failure(f"{what}: the first screen of the terminal is not back")
        os.close(self.master)


class Job(Top):
    """A running view that a shell with job control has started."""

    def __init__(self, program, begun="f", **how):
        self.told, told = os.pipe()
        orders, self.orders = os.pipe()
        before = (sys.executable, "-c", JOB, str(told), str(orders), begun)
        super().__init__(program, before=before, pass_fds=(told, orders), **how)
        os.close(told)
        os.close(orders)
        self.pid = int(self.next_told("start"))

    def next_told(self, what):
        give_up = time.monotonic() + LIMIT
        while not select.select([self.told], [], [], 0.1)[0]:
            self.read(0.1)
            if time.monotonic() > give_up:
                raise Failure(f"{what}: the command does not stop\n{self.text()}")
        line = b""
        while not line.endswith(b"\n"):
            piece = os.read(self.told, 1)
            if not piece:
                raise Failure(f"{what}: the command has ended\n{self.text()}")
            line += piece
        return line

    def until_stopped(self, what):
        if self.next_told(what) != b"stopped\n":
            raise Failure(f"{what}: it is not told")

    def shell_writes(self):
        """What is on the screen then is not what the view has drawn."""
        while select.select([self.master], [], [], 0)[0]:
            self.read(0)
        self.stream.feed(b"\x1b[2J\x1b[H" + b"$ anything else\r\n" * 7)

    def take_mode(self):
        """As a shell does that takes the terminal from a job."""
        termios.tcsetattr(self.master, termios.TCSANOW, self.before)

    def order(self, what):
        os.write(self.orders, what)

    def ends(self, what, status=0):
        super().ends(what, status)
        os.close(self.told)
        os.close(self.orders)


def check_view(program):
    """Ports, cards, keys, filter, detail, help and sizes."""
    top = Top(program)
    top.until("cards", r"2001 cards: 1 QNSV, 2000 QNIO; 2001 connected", r"port 0 qnm0 +up",
              r"frames/s in +\d*[1-9]", FIRST)
    top.until_lines("whole lines", HEADING, CARD.format(FIRST))
    top.until_selected(FIRST)
    top.type(DOWN)
    top.until_selected("0x020000100000")
    top.type("r")  # the selected card is now the last but one, and on the screen
    top.until("order", r"sort id reversed")
    top.until_selected("0x020000100000")
    top.type("r" + END)
    top.until_selected(LAST)
    top.type(UP + HOME)
    top.until_selected(FIRST)
    top.type("/f9e vlan100")
    top.until("filter", r"/f9e vlan100_", r"1 shown", LAST)
    top.type("\r\r")
    top.until("detail", rf"QNIO card {LAST}", r"path P1M0 +state.P1M0 +connected",
              r"lines 1 to 22 of 3\d")
    top.type(PAGE_DOWN)
    top.until("detail", r"PCI vendor ID")
    top.type("?")
    top.until_help("help")
    top.type("x")
    top.until("back", r"filter \"f9e vlan100\"")
    top.type("\x1b")
    top.until("no filter", r"2001 shown")
    top.type("t")
    top.until("kind", r"1 shown, only QNSV")
    top.type("tt" + HOME)
    for size in (60, 15), (200, 50), (10, 3), (80, 24):
        top.resize(*size)
        top.until(f"size {size}", r"\? help  q")
        if size[1] >= 15:
            top.until(f"size {size}", r"2001 shown", "P1M1", FIRST)
    top.type("q")
    top.ends("q")


def check_options(program):
    """What the view begins with, and the end of its time."""
    top = Top(program, "--sort", "vlan", "--reverse", "--filter", "0x0200001000", "--kind", "qnio",
              "--state", "connected")
    top.until("options", r"sort vlan reversed; 128 shown, only QNIO, only connected, filter")
    top.type("q")
    top.ends("q")
    Top(program, "--for", "0.1").ends("--for")


def check_ends(program):
    """Every way out gives the terminal back."""
    for number in signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT:
        top = Top(program, env={"TERM": TERMINAL_WITH_SCREENS})
        top.until("cards", r"port 0 qnm0 +up")
        if OWN_SCREEN not in top.raw:
            raise Failure("the view does not take the other screen of the terminal")
        top.process.send_signal(number)
        top.ends(number.name)
    for name, key in ("Ctrl-C", "\x03"), ("Esc", "\x1b"):
        top = Top(program)
        top.until("cards", r"port 0 qnm0 +up")
        top.type(key)
        top.ends(name)


def check_stops(program):
    """Ctrl-Z gives the terminal back, and the view is whole when the shell continues it."""
    top = Job(program, env={"TERM": TERMINAL_WITH_SCREENS})
    top.until("cards", r"port 0 qnm0 +up")
    top.type("\x1a")
    top.until_stopped("Ctrl-Z")
    if termios.tcgetattr(top.master) != top.before:
        raise Failure("Ctrl-Z: the terminal is not as it was while the view is stopped")
    while select.select([top.master], [], [], 0)[0]:
        top.read(0)
    if top.raw.rfind(OWN_SCREEN) > top.raw.rfind(FIRST_SCREEN):
        raise Failure("Ctrl-Z: the first screen of the terminal is not back")
    mark = len(top.raw)
    top.order(b"f")
    top.until_cleared("fg", mark)
    if OWN_SCREEN not in top.raw[mark:]:
        raise Failure("fg: the view does not take the other screen of the terminal again")
    top.type("q")
    top.ends("q after Ctrl-Z")


def check_size_while_stopped(program):
    """Nobody tells the view of a size that changes while the shell has the terminal."""
    for number in signal.SIGTSTP, signal.SIGSTOP:
        what = number.name
        top = Job(program)
        top.until("cards", r"port 0 qnm0 +up")
        top.type("?")
        top.until_help(what)
        for size in (100, 30), (90, 26):
            os.kill(top.pid, number)
            top.until_stopped(what)
            top.resize(*size)
            top.shell_writes()
            top.order(b"f")
            top.until_help(f"fg after {what}")
            top.type("x")  # any key closes the help
            top.until_lines(f"size {size} after {what}", r"\? help  q end.*")
            if "? help" not in top.screen.display[size[1] - 1]:
                raise Failure(f"{what}: the view has not the size {size}\n{top.text()}")
            top.type("?")
            top.until_help(what)
        top.type("xq")
        top.ends(f"q after {what}")


def check_background(program):
    """In the background it waits for the terminal, and ends all the same."""
    top = Job(program)
    top.until("cards", r"port 0 qnm0 +up")
    top.type("?")
    top.until_help("help")
    os.kill(top.pid, signal.SIGTSTP)
    top.until_stopped("SIGTSTP")
    top.shell_writes()
    top.order(b"b")
    top.until_stopped("bg")
    if termios.tcgetattr(top.master) != top.before:
        raise Failure("bg: the terminal is not left as it was")
    top.resize(100, 30)
    top.order(b"f")
    top.until_help("fg after bg")
    os.kill(top.pid, signal.SIGTSTP)
    top.until_stopped("SIGTSTP")
    os.kill(top.pid, signal.SIGTERM)
    top.order(b"b")
    top.ends("SIGTERM while it is stopped")


def check_killed_job(program):
    """A shell's kill ends a stopped view, whatever has stopped it: SIGTERM, then SIGCONT in the
    background."""
    for stops in "Z", "S", "Zb", "Sb", "Zbb":
        what = f"killed after {stops}"
        top = Job(program)
        top.until("cards", r"port 0 qnm0 +up")
        for stop in stops:
            if stop == "b":
                top.order(b"b")
            else:
                os.kill(top.pid, signal.SIGTSTP if stop == "Z" else signal.SIGSTOP)
            top.until_stopped(what)
            top.take_mode()
        os.kill(top.pid, signal.SIGTERM)
        top.order(b"b")
        top.ends(what)
    top = Job(program, begun="b")
    top.until_stopped("begun in the background")
    os.kill(top.pid, signal.SIGTERM)
    top.order(b"b")
    top.ends("killed after it was begun in the background")
    top = Job(program, begun="b")
    top.until_stopped("begun in the background")
    top.order(b"f")
    top.until("fg after it was begun in the background", r"port 0 qnm0 +up")
    top.type("q")
    top.ends("q after it was begun in the background")


def check_ignored_stop(program):
    """Whoever has SIGTSTP ignored is not stopped by it."""
    top = Job(program, preexec_fn=take_terminal_and_ignore_stop)
    top.until("cards", r"port 0 qnm0 +up")
    top.type("?")
    top.until_help("help")
    os.kill(top.pid, signal.SIGTSTP)
    top.type("x")
    top.until("after SIGTSTP", r"\? help  q")
    top.type("q")
    top.ends("q after an ignored SIGTSTP")


def check_storm(program):
    """Stops while the size changes. Its process group is one that the system does not stop."""
    sizes = random.Random(5)
    for _ in range(3):
        top = Top(program, delay="1e-9")  # always draws: the stop comes at any place of it
        top.until("cards", r"port 0 qnm0 +up")
        for _ in range(500):
            top.set_size(sizes.randrange(40, 400), sizes.randrange(20, 150))
            top.drop()
            top.process.send_signal(signal.SIGTSTP)
        top.set_size(80, 24)
        top.type("?")
        top.process.send_signal(signal.SIGTSTP)
        top.until_help("stops and sizes")
        for _ in range(20):
            top.process.send_signal(signal.SIGTSTP)
        top.process.send_signal(signal.SIGTERM)
        top.ends("SIGTERM after stops and sizes")


def check_huge(program):
    """Sizes that no terminal has: the view takes a part, and not more memory than that needs."""
    top = Top(program, size=(80, 24))
    top.until("cards", r"port 0 qnm0 +up")
    top.type("?")
    for _ in range(5):
        for size in (65535, 1), (1, 65535), (40000, 40000):
            mark = len(top.raw)
            top.set_size(*size)
            top.until_cleared(f"size {size}", mark)
    top.set_size(80, 24)
    top.until_help("after huge sizes")
    taken = int(re.search(r"VmHWM:\s+(\d+) kB", read(f"/proc/{top.process.pid}/status"))[1])
    print(f"memory after huge sizes: {taken // 1024} MiB at most")
    if taken > HUGE_LIMIT:
        raise Failure(f"huge sizes take {taken} kB")
    top.type("xq")
    top.ends("q after huge sizes")
    huge = "65535", "+65535", " 65535", "0xffff", "0177777"  # all that ncurses reads
    for size, env in (((65535, 65535), {}),
                      *(((80, 24), {"COLUMNS": text, "LINES": text}) for text in huge)):
        top = Top(program, size=(80, 24), told_size=size, env=env)
        top.until("cards", r"port 0 qnm0 +up")
        top.type("q")
        top.ends(f"q at {size}, {env}")


def check_hurry(program):
    """It obeys also when the next look is always due."""
    for name, end in (("q", lambda top: top.type("q")),
                      ("SIGTERM", lambda top: top.process.send_signal(signal.SIGTERM))):
        top = Top(program, delay="1e-9")
        top.until("cards", r"port 0 qnm0 +up")
        end(top)
        top.ends(f"{name} in a hurry")


def check_stops_in_hurry(program):
    """Ctrl-Z is obeyed also when it comes while the view draws."""
    top = Job(program, delay="1e-9")
    top.until("cards", r"port 0 qnm0 +up")
    for count in range(1, 31):
        top.type("\x1a")
        top.until_stopped(f"Ctrl-Z {count} in a hurry")
        top.shell_writes()
        mark = len(top.raw)
        top.order(b"f")
        top.until_cleared(f"fg {count} in a hurry", mark)
    top.type("q")
    top.ends("q after stops in a hurry")


def check_colours(program):
    """Colours only where they are wanted."""
    for env, wanted in ({}, True), ({"NO_COLOR": "1"}, False):
        top = Top(program, env=env)
        top.until("cards", FIRST)
        top.until_selected(FIRST)
        top.type("q")
        top.ends("q")
        if bool(re.search(rb"\x1b\[[0-9;]*3[0-9]m", top.raw)) != wanted:
            raise Failure(f"colours with {env}: {top.raw[:2000]}")


def check_refusals(program):
    """Without a terminal that can be a screen, the message says what can be used instead."""
    for term in "dumb", "":
        top = Top(program, env={"TERM": term})
        top.ends("TERM " + term, 2)
        top.stream.feed(top.raw)
        if "list" not in top.text() or "watch" not in top.text() or b"\x1b" in top.raw:
            raise Failure(f"TERM {term}: {top.raw}")
    told = subprocess.run([program, "--ports", "qnm0", "top"], capture_output=True,
                          stdin=subprocess.DEVNULL, check=False, timeout=LIMIT, text=True)
    if told.returncode != 2 or "list" not in told.stderr or "watch" not in told.stderr:
        raise Failure(f"no terminal: {told}")


def main():
    program, cardsim = sys.argv[1:]
    for port in "01":
        subprocess.run(["ip", "link", "add", "qnm" + port, "type", "veth", "peer", "name",
                        "qsim" + port], check=True)
        for end in "qnm", "qsim":
            subprocess.run(["ip", "link", "set", end + port, "up"], check=True)
    with tempfile.NamedTemporaryFile("w", suffix=".toml") as scenario:
        scenario.write(RACK)
        scenario.flush()
        with subprocess.Popen([cardsim, scenario.name, "--quiet"], stdin=subprocess.PIPE,
                              stdout=subprocess.DEVNULL) as cards:
            try:
                for check in (check_refusals, check_view, check_options, check_ends, check_stops,
                              check_size_while_stopped, check_background, check_killed_job,
                              check_ignored_stop, check_storm, check_huge, check_hurry,
                              check_stops_in_hurry, check_colours):
                    started = time.monotonic()
                    check(program)
                    print(f"{check.__name__}: {time.monotonic() - started:.1f} s")
            except Failure as failure:
                sys.exit(str(failure))
            finally:
                cards.terminate()


if __name__ == "__main__":
    main()
