#!/usr/bin/python3
"""Both programs where they have to wait: for input that does not come, and for readers that take
nothing. Each signal that ends a program ends every one of these waits. To be run in a network
namespace of its own.

  usage: check_waits.py QNMCTL CARDSIM [ONLY]

Nothing waits for a time: a signal is sent when the program sleeps with the signals blocked. What has
not ended a minute later is killed and counts as a failure. ONLY is a part of the rows' names.
"""
import concurrent.futures
import errno
import fcntl
import os
import pty
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import threading
import time

LIMIT = 60  # seconds, which only a failure reaches
SIGNALS = signal.SIGINT, signal.SIGTERM, signal.SIGHUP
BY_SIGNAL = "ended by a signal"
OF_OUTPUT = "cannot write to standard output"
SECTION = struct.pack("<IIIHHqI", 0x0A0D0D0A, 28, 0x1A2B3C4D, 1, 0, -1, 28)
INTERFACE = struct.pack("<IIHHII", 1, 20, 1, 0, 0, 20)
SCENARIO = """ports = ["lo"]
[[card]]
name = "sv"
kind = "qnsv"
speed = "1g10g"
id = 0x020000001000
"""
UNKNOWN = struct.pack("<III", 0x0BAD, 12, 12)


class Failure(Exception):
    pass


# ---- Files that keep a program waiting -----------------------------------------------------------


class Place:
    """A directory of a run's own, and what has to be closed behind it."""

    def __init__(self, path):
        self.path = path
        self.open = []
        self.orders = None  # the pipe that orders come by

    def keep(self, fd):
        self.open.append(fd)
        return fd

    def close(self):
        for fd in self.open:
            os.close(fd)

    def has_taken_orders(self):
        left = fcntl.ioctl(self.orders, termios.FIONREAD, bytes(4)) if self.orders else bytes(4)
        return left == bytes(4)

    def file(self, name):
        return os.path.join(self.path, name)


def fill(fd):
    """Writes until nothing more is taken. The descriptor blocks again then, as a program expects."""
    flags = fcntl.fcntl(fd, fcntl.F_GETFL)
    fcntl.fcntl(fd, fcntl.F_SETFL, flags | os.O_NONBLOCK)
    for size in 4096, 1:
        try:
            while os.write(fd, b"x" * size):
                pass
        except OSError as failed:
            if failed.errno != errno.EAGAIN:
                raise
    fcntl.fcntl(fd, fcntl.F_SETFL, flags)


def silent_pipe(place):
    reading, writing = os.pipe()
    place.keep(writing)
    return place.keep(reading)


def full_pipe(place):
    reading, writing = os.pipe()
    place.keep(reading)
    fill(writing)
    return place.keep(writing)


def full_socket(place):
    ours, theirs = socket.socketpair()
    place.keep(ours.detach())
    fd = place.keep(theirs.detach())
    fill(fd)
    return fd


def stopped_terminal(place):
    """As by Ctrl-S: it takes nothing until it is told to go on."""
    ours, theirs = pty.openpty()
    place.keep(ours)
    termios.tcflow(theirs, termios.TCOOFF)
    return place.keep(theirs)


def same_terminal(place):
    return place.open[-1]


def ended_input(_):
    return subprocess.DEVNULL


def wanted_file(place):
    return place.keep(os.open(place.file("output"), os.O_RDWR | os.O_CREAT))


def fifo(place):
    os.mkfifo(place.file("fifo"))


def silent_fifo(place):
    fifo(place)
    place.keep(os.open(place.file("fifo"), os.O_RDWR))


def beginning_fifo(place):
    """The beginning of a capture, and nothing more."""
    silent_fifo(place)
    os.write(place.open[-1], SECTION + INTERFACE)


def log_into_fifo(place):
    """An installation whose log nobody reads."""
    fifo(place)
    os.mkdir(place.file("conf"))
    with open(place.file("conf/qnm.conf"), "w", encoding="utf-8") as to:
        to.write("ether_port=lo\n")
    with open(place.file("conf/qnm_log4c.properties"), "w", encoding="utf-8") as to:
        for logger in "logfile", "syslogfile", "statslogfile":
            to.write(f"log4j.logger.{logger}=ALL, FILE\n")
        to.write("log4j.appender.FILE=org.apache.log4j.FileAppender\n"
                 f"log4j.appender.FILE.File={place.file('fifo')}\n"
                 "log4j.appender.FILE.layout=org.apache.log4j.SimpleLayout\n")


def capture(place):
    with open(place.file("frames"), "wb") as to:
        frame = b"\xff" * 6 + b"\2\0\0\0\x10\0" + b"\x88\xb6" + bytes(46)
        packet = struct.pack("<IIIIIII", 6, 32 + len(frame), 0, 0, 0, len(frame), len(frame))
        to.write(SECTION + INTERFACE + packet + frame + struct.pack("<I", 32 + len(frame)))


def endless_blocks(place):
    """A capture that never ends and has no frame."""
    reading, writing = os.pipe()
    place.keep(reading)

    def write():
        try:
            os.write(writing, SECTION + INTERFACE)
            while True:
                os.write(writing, UNKNOWN * 1000)
        except BrokenPipeError:
            os.close(writing)

    threading.Thread(target=write, daemon=True).start()
    return reading


def orders(text):
    def make(place):
        reading, writing = os.pipe()
        place.keep(writing)
        os.write(writing, text)
        place.orders = place.keep(reading)
        return place.orders

    return make


def no_files(_):
    pass


# ---- Rows ----------------------------------------------------------------------------------------


class Wait:
    """What is run, on which standard files, and how it ends when a signal comes."""

    def __init__(self, name, program, words, status, *, files=no_files, given=ended_input,
                 out=wanted_file, told=None, says=None, running=False):
        self.name, self.program, self.words, self.status = name, program, words.split(), status
        self.files, self.given, self.out, self.told, self.says = files, given, out, told, says
        self.running = running  # it does not sleep, or not all the time


MANAGER = "--ports lo "
SHORT = " --for 0.1"
WAITS = [
    # Input that does not come.
    Wait("decode: silent standard input", "qnmctl", "decode -", 0, given=silent_pipe),
    Wait("decode: FIFO that nobody writes", "qnmctl", "decode {fifo}", 0, files=fifo),
    Wait("decode: silent FIFO", "qnmctl", "decode {fifo}", 0, files=silent_fifo),
    Wait("decode: silent behind the beginning", "qnmctl", "decode {fifo}", 0,
         files=beginning_fifo),
    Wait("decode: endless without frames", "qnmctl", "decode -", 0, given=endless_blocks,
         running=True),
    Wait("watch: silent standard input", "qnmctl", MANAGER + "watch", 0, given=silent_pipe),
    Wait("watch: installation with a FIFO as its log", "qnmctl", "--dir {place} watch", 0,
         files=log_into_fifo, given=silent_pipe),
    Wait("capture: no frames", "qnmctl", MANAGER + "capture {file}", 0, given=silent_pipe),
    Wait("cardsim: silent standard input", "cardsim", "{scenario}", 0,
         given=silent_pipe),
    # Output that nobody takes.
    Wait("capture: FIFO that nobody reads", "qnmctl", MANAGER + "capture {fifo}", 0, files=fifo,
         says=BY_SIGNAL, running=True),
    Wait("capture: full pipe", "qnmctl", MANAGER + "capture -", 0, out=full_pipe, says=BY_SIGNAL),
    Wait("decode: full pipe", "qnmctl", "decode {frames}", 0, files=capture, out=full_pipe,
         says=OF_OUTPUT),
    Wait("watch: full pipe", "qnmctl", MANAGER + "watch", 0, given=orders(b"help\n"),
         out=full_pipe, says=OF_OUTPUT),
    Wait("watch: full standard error", "qnmctl", MANAGER + "watch", 0, given=orders(b"frob\n"),
         told=full_pipe),
    Wait("wrong usage: full standard error", "qnmctl", "frob", 2, told=full_pipe),
    Wait("cardsim, answers: full pipe", "cardsim", "{scenario}", 0,
         given=orders(b"list\n"), out=full_pipe, says=OF_OUTPUT),
    Wait("cardsim: full standard error", "cardsim", "{scenario}", 0,
         given=silent_pipe, told=full_pipe),
    Wait("cardsim, wrong usage: full standard error", "cardsim", "--frob", 2, told=full_pipe),
]
for verb in (MANAGER + "topology" + SHORT, MANAGER + "list -o json" + SHORT,
             MANAGER + "topology -o dot" + SHORT, MANAGER + "show 0x1 -o json --for 0.01",
             MANAGER + "stats -v" + SHORT, MANAGER + "doctor", "completion bash", "man-page",
             "--help", "list --help", "--version"):
    status = 13 if "show" in verb else 5 if "list -o" in verb else 1
    WAITS.append(Wait(verb + ": full pipe", "qnmctl", verb, status, out=full_pipe, says=OF_OUTPUT))
for option in "--check {scenario}", "--help", "--man-page", "--version":
    WAITS.append(Wait("cardsim " + option + ": full pipe", "cardsim", option, 1, out=full_pipe,
                      says=OF_OUTPUT))
WAITS.append(Wait("top: stopped terminal", "qnmctl", MANAGER + "top", 0, given=stopped_terminal,
                  out=same_terminal))
for kind, full in ("socket", full_socket), ("terminal", stopped_terminal):
    WAITS.append(Wait("stats: full " + kind, "qnmctl", MANAGER + "stats" + SHORT, 1, out=full,
                      says=OF_OUTPUT))
    WAITS.append(Wait("--help: full " + kind, "qnmctl", "--help", 1, out=full, says=OF_OUTPUT))
    WAITS.append(Wait("cardsim --help: full " + kind, "cardsim", "--help", 1, out=full,
                      says=OF_OUTPUT))


# ---- Running them --------------------------------------------------------------------------------


def field(pid, name):
    with open(f"/proc/{pid}/status", encoding="utf-8") as status:
        return re.search(rf"^{name}:\s*(\S+)", status.read(), re.M).group(1)


def is_waiting(run, row):
    """Whether it sleeps, has been sleeping since the last look, and has the signals blocked."""
    blocked = int(field(run.pid, "SigBlk"), 16)
    wanted = sum(1 << (number - 1) for number in SIGNALS)
    if blocked & wanted != wanted:
        return False
    before = field(run.pid, "voluntary_ctxt_switches")
    time.sleep(0.05)
    after = field(run.pid, "voluntary_ctxt_switches")
    return row.running or (field(run.pid, "State") == "S" and before == after)


def until(condition, run, what):
    deadline = time.monotonic() + LIMIT
    while not condition():
        if run.poll() is not None:
            raise Failure(f"has ended with {run.returncode} before it waited")
        if time.monotonic() > deadline:
            raise Failure(f"{what} has not come")
        time.sleep(0.01)


def run_row(programs, row, number):
    with tempfile.TemporaryDirectory() as path:
        place = Place(path)
        try:
            return signalled(programs, row, number, place)
        finally:
            place.close()


def signalled(programs, row, number, place):
    with open(place.file("scenario"), "w", encoding="utf-8") as to:
        to.write(SCENARIO)
    row.files(place)
    names = {"place": place.path, "fifo": place.file("fifo"), "file": place.file("file"),
             "frames": place.file("frames"), "scenario": place.file("scenario")}
    words = [programs[row.program]] + [word.format(**names) for word in row.words]
    told = open(place.file("told"), "w+b")
    place.keep(os.dup(told.fileno()))
    run = subprocess.Popen(
        words, stdin=row.given(place), stdout=row.out(place),
        stderr=row.told(place) if row.told else told, start_new_session=True,
        env=dict(os.environ, TMPDIR=place.path, XDG_STATE_HOME=place.path, TERM="xterm"))
    try:
        until(lambda: place.has_taken_orders() and is_waiting(run, row), run, "the wait")
        run.send_signal(number)
        status = run.wait(LIMIT)
    except subprocess.TimeoutExpired:
        raise Failure("only kill -9 ends it") from None
    finally:
        run.kill()
        run.wait()
        told.seek(0)
        said = told.read().decode()
        told.close()
    if status != row.status:
        raise Failure(f"ends with {status} instead of {row.status}: {said}")
    if row.says and row.says not in said:
        raise Failure(f"does not say {row.says!r}: {said!r}")
    left = [name for name in os.listdir(place.path) if name.startswith("qnmctl.")]
    if os.path.isdir(place.file("qnmctl")):  # the state of the command, with a folder for each run
        left += os.listdir(place.file("qnmctl"))
    if left:
        raise Failure(f"leaves {left}")


def main():
    programs = dict(zip(("qnmctl", "cardsim"), sys.argv[1:3]))
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    only = sys.argv[3] if len(sys.argv) > 3 else ""
    wanted = [(row, number) for row in WAITS if only in row.name for number in SIGNALS]
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(4) as crew:
        runs = [(row, number, crew.submit(run_row, programs, row, number))
                for row, number in wanted]
        for row, number, run in runs:
            try:
                run.result()
            except Failure as failure:
                failed += 1
                print(f"{row.name}, {number.name}: {failure}", flush=True)
    print(f"{len(wanted) - failed} of {len(wanted)} waits were ended by their signal")
    return 1 if failed or not wanted else 0


if __name__ == "__main__":
    sys.exit(main())
