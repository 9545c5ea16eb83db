#!/usr/bin/python3
"""Both programs among files that are none, outputs that are closed, and names that are orders to a
terminal. To be run in a network namespace of its own.

  usage: check_surroundings.py QNMCTL CARDSIM [ONLY]

Every run ends by itself; after a minute it is killed and counts as a failure. ONLY is a part of the
names of what is looked at.
"""
import concurrent.futures
import json
import os
import pty
import re
import resource
import select
import signal
import socket
import subprocess
import sys
import tarfile
import tempfile
import termios
import time
from functools import partial

LIMIT = 60  # seconds, which only a failure reaches
HUGE = 300_000_000
EXIT_OUTPUT = 4

# Of the operating system command that changes a terminal's title, of both forms of CSI, and no UTF-8.
EVIL = b"a\x1b]0;evil\x07b\xc2\x9b7mc\x9bd\x7fe\xc3\xa4"
SHOWN = r"a\x1b]0;evil\x07b\xc2\x9b7mc\x9bd\x7fe" + "\u00e4"
EVIL_PORT = b"\x1b[7mev\xc2\x9bl"  # an interface may be called so
SHOWN_PORT = r"\x1b[7mev\xc2\x9bl"
LOGGED, LOGGED_PORT = r"a\x1b]0;evil\x07b", r"\x1b[7mev"  # a log has no other characters

SCENARIO = b"""ports = ["lo"]
[[card]]
name = "%s"
kind = "qnsv"
speed = "1g10g"
id = 0x020000001000
"""
PROPERTIES = b"""log4j.rootLogger=ERROR, LOG
log4j.appender.LOG=org.apache.log4j.FileAppender
log4j.appender.LOG.File=/dev/null
log4j.appender.LOG.layout=org.apache.log4j.PatternLayout
log4j.appender.LOG.layout.ConversionPattern=%m%n
log4j.logger.logfile=ERROR, LOG
log4j.logger.statslogfile=ERROR, LOG
"""


class Failure(Exception):
    pass


def require(condition, text):
    if not condition:
        raise Failure(text)


def at_once(jobs):
    """Calls them, several at a time: they mostly wait until the kernel has closed a port, or until doctor
    has looked at the clock."""
    with concurrent.futures.ThreadPoolExecutor(4) as crew:
        for run in [crew.submit(job) for job in jobs]:
            run.result()


class Ended:
    def __init__(self, status, out, errors):
        self.status, self.out, self.errors = status, out, errors


class Site:
    """The programs, and a directory of this run's own."""

    def __init__(self, qnmctl, cardsim, path):
        self.programs = {"qnmctl": qnmctl, "cardsim": cardsim}
        self.path = path

    def file(self, name):
        return os.path.join(self.path, name)

    def store(self, name, contents):
        os.makedirs(os.path.dirname(self.file(name)), exist_ok=True)
        with open(self.file(name), "wb") as to:
            to.write(contents)
        return self.file(name)

    def run(self, program, *words, given=b"", out=subprocess.PIPE, by=(), before=None, **more):
        """Ends by itself, or has hung. Another program can start it. What else is given is of its
        environment."""
        command = [*by, self.programs[program], *words]
        environment = dict(os.environ, TMPDIR=self.path, XDG_STATE_HOME=self.path) | more
        started = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=out,
                                   stderr=subprocess.PIPE, preexec_fn=before, env=environment)
        try:
            said, errors = started.communicate(given, LIMIT)
        except subprocess.TimeoutExpired:
            raise Failure(f"{command}: only kill -9 ends it") from None
        finally:
            started.kill()
            started.wait()
        return Ended(started.returncode, said, errors)

    def run_on_terminal(self, program, *words, given=None):
        """Its standard output and error are a terminal, which is read to the end. What is given
        is typed when the first text has come."""
        ours, theirs = pty.openpty()
        modes = termios.tcgetattr(theirs)
        modes[3] &= ~termios.ECHO  # the terminal itself would show what is typed
        termios.tcsetattr(theirs, termios.TCSANOW, modes)
        started = subprocess.Popen([self.programs[program], *words], stdin=theirs, stdout=theirs,
                                   stderr=theirs,
                                   env=dict(os.environ, TERM="xterm", TMPDIR=self.path,
                                            XDG_STATE_HOME=self.path))
        os.close(theirs)
        said = b""
        deadline = time.monotonic() + LIMIT
        try:
            while time.monotonic() < deadline:
                if not select.select([ours], [], [], 1)[0]:
                    continue
                try:
                    piece = os.read(ours, 65536)
                except OSError:  # as a terminal tells its end
                    return Ended(started.wait(LIMIT), said, said)
                said += piece
                if given:
                    os.write(ours, given)
                    given = None
        finally:
            started.kill()
            started.wait()
            os.close(ours)
        raise Failure(f"{words}: only kill -9 ends it")


# ---- Files that are none -------------------------------------------------------------------------


def make_directory(path):
    os.mkdir(path)


def make_fifo(path):
    os.mkfifo(path)


def make_device(path):
    os.symlink("/dev/zero", path)


def make_socket(path):
    place = socket.socket(socket.AF_UNIX)
    os.chdir(os.path.dirname(path))  # a socket's name has to be short
    place.bind(os.path.basename(path))
    place.close()


def make_long(path):
    with open(path, "wb") as to:
        to.truncate(HUGE)


KINDS = (
    (make_directory, "it is a directory, not a regular file"),
    (make_fifo, "it is a FIFO, not a regular file"),
    (make_device, "it is a device, not a regular file"),
    (make_socket, "it is a socket, not a regular file"),
    (make_long, f"it has {HUGE} bytes and may have "),
)
VERBS = ("list --for 0.1", "watch", "decode {other}", "capture {other}", "stats", "list -o json",
         "reg read 0x1 0x100", "topology", "eeprom dump 0x1")


def refused(ended, start, reason):
    wanted = start + reason
    require(ended.status == 1, f"ends with {ended.status}: {ended.errors}")
    told = ended.errors.decode()
    require(wanted in told, f"says {told!r} instead of {wanted!r}")
    require(told.count("\n") == 1, f"says more than a sentence: {told!r}")


def check_configuration(site):
    jobs = []
    for make, reason in KINDS:
        for name in "qnm.conf", "qnm_log4c.properties":
            path = tempfile.mkdtemp(dir=site.path)
            os.mkdir(path + "/conf")
            if name != "qnm_log4c.properties":
                site.store(path + "/conf/qnm_log4c.properties", PROPERTIES)
            make(f"{path}/conf/{name}")
            jobs.append(partial(look_at_configuration, site, path, name, make, reason))
    at_once(jobs)


def look_at_configuration(site, path, name, make, reason):
    start = f"qnmctl: cannot use {path}/conf/{name}: "
    for verb in VERBS if name == "qnm.conf" else VERBS[:2]:
        words = verb.format(other=site.file("other")).split()
        refused(site.run("qnmctl", "--dir", path, *words), start, reason)
    # Neither doctor nor a report follows the link to a device; doctor only warns of it.
    linked = make is make_device
    why = b"is a symbolic link, which is not followed" if linked else b"regular file"
    ended = site.run("qnmctl", "--dir", path, "doctor")
    require((ended.status == 3 or linked) and (why in ended.out or make is make_long),
            f"doctor: {ended.status} {ended.out}")
    archive = site.file(os.path.basename(path) + ".tar.gz")
    if make is make_long:
        return  # which a report has a bound of its own for
    ended = site.run("qnmctl", "--dir", path, "report", archive, "--for", "0.1")
    require(ended.status == 0 and why in ended.out + ended.errors,
            f"report: {ended.status} {ended.out} {ended.errors}")


def check_images(site):
    for number, (make, reason) in enumerate(KINDS):
        image = site.file(f"image{number}")
        make(image)
        for words in (("eeprom", "restore", "0x1", image, "--yes"), ("mms", "0x1", "0", image)):
            ended = site.run("qnmctl", "--ports", "lo", *words)
            refused(ended, f"qnmctl: cannot read {image}: ", reason)
        ended = site.run("cardsim", image)
        refused(ended, f'qnm-cardsim: cannot read the scenario "{image}": ', reason)
        scenario = SCENARIO % b"sv" + b'eeprom_file = "%s"\n' % image.encode()
        ended = site.run("cardsim", site.store("scenario", scenario), "--quiet")
        refused(ended, f'qnm-cardsim: cannot use the EEPROM file "{image}": ', reason)
        orders = f"eeprom sv load {image}\neeprom sv save {image}\nquit\n".encode()
        ended = site.run("cardsim", site.store("scenario", SCENARIO % b"sv"), "--quiet",
                         given=orders)
        answers = ended.out.decode().splitlines()
        require(ended.status == 0, f"ends with {ended.status}: {ended.errors}")
        require(answers[0].startswith("error: cannot use ") and reason in answers[0], answers[0])
        kept = answers[1].startswith("error: cannot write ") and reason in answers[1]
        require(kept or make is make_long, answers[1])


def check_log(site):
    make_fifo(site.file("log"))
    ended = site.run("qnmctl", "--ports", "lo", "--log", site.file("log"), "list")
    refused(ended, f"qnmctl: cannot write the log {site.file('log')}: ", "it is a FIFO")
    for number, name in enumerate(("${HOME}.log", "a\nb", "a\tb", "j\u00fcrgen")):
        folder = site.file(f"logs.{number}")
        os.mkdir(folder)
        log = os.path.join(folder, name)
        site.run("qnmctl", "--ports", "lo", "--log", log, "list", "--for", "0.1")
        require(os.listdir(folder) == [name], f"there is {os.listdir(folder)}")
        require(os.path.getsize(log) > 0, f"nothing was written to {name}")


def check_nesting(site):
    key = b".".join([b"a"] * 40_000)
    for text in key + b" = 1\n", b"[" + key + b"]\n", b"[[" + key + b"]]\n":
        ended = site.run("cardsim", site.store("scenario", b"\n" + text), "--check")
        refused(ended, f"qnm-cardsim: {site.file('scenario')}:2: ", "tables lie within each other")


# ---- Outputs that are closed ---------------------------------------------------------------------


CLOSING = "sh", "-c", 'exec "$@" >&-', "sh"


def check_outputs(site):
    site.store("frames", b"\xd4\xc3\xb2\xa1\2\0\4\0" + bytes(8) + b"\0\0\1\0\1\0\0\0" +
               bytes(8) + b"\x0e\0\0\0\x0e\0\0\0" + bytes(12) + b"\x88\xb6")
    scenario = site.store("scenario", SCENARIO % b"sv")
    lo = ("--ports", "lo")
    rows = [("qnmctl", words, b"") for words in (
        ("--help",), ("list", "--help"), ("--version",), ("man-page",), ("completion", "zsh"),
        (*lo, "topology", "--for", "0.1"), (*lo, "stats", "--for", "0.1", "-o", "json"),
        (*lo, "topology", "--for", "0.1", "-o", "dot"), (*lo, "stats", "--for", "0.1"),
        (*lo, "doctor"), (*lo, "capture", "-", "--for", "0.1"), ("decode", site.file("frames")))]
    rows += [("qnmctl", (*lo, "watch"), b"help\nquit\n")]
    rows += [("cardsim", words, given) for words, given in (
        (("--help",), b""), (("--version",), b""), (("--man-page",), b""),
        (("--check", scenario), b""), (("--quiet", scenario), b"list\nquit\n"))]
    at_once(partial(look_at_outputs, site, *row) for row in rows)


def look_at_outputs(site, program, words, given):
    for reason, ended in outputs(site, program, words, given):
        told = ended.errors.decode()
        place = f"{program} {words} to {reason}: "
        require(ended.status == EXIT_OUTPUT, f"{place} {ended.status} {told}")
        require(re.search(f"^{site_name(program)}: cannot write to standard output: {reason}$",
                          told, re.M), place + told)


def site_name(program):
    return {"qnmctl": "qnmctl", "cardsim": "qnm-cardsim"}[program]


def check_limited_files(site):
    """A file that may grow no further is told like a full disk."""
    def limited():
        resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0))

    # ThreadSanitizer writes a file of its own there, before the program can ignore the signal.
    nowhere = site.file("nowhere")
    for program, words in (("qnmctl", ("man-page",)), ("cardsim", ("--man-page",))):
        with open(site.file("limited"), "wb") as out:
            ended = site.run(program, *words, out=out, before=limited, TMPDIR=nowhere)
        require(ended.status == EXIT_OUTPUT, f"{program}: {ended.status} {ended.errors}")
        require(b"standard output: File too large" in ended.errors, f"{program}: {ended.errors}")
    ended = site.run("qnmctl", "--ports", "lo", "list", before=limited, TMPDIR=nowhere)
    require(ended.status == 1 and b"conf/qnm.conf: File too large\n" in ended.errors,
            f"list: {ended.status} {ended.errors}")
    left = os.listdir(site.file("qnmctl"))
    require(not left, f"left: {left}")


def outputs(site, program, words, given):
    """The ways in which standard output can be closed."""
    yield "it is closed", site.run(program, *words, given=given, by=CLOSING)
    with open("/dev/full", "wb") as full:
        yield "No space left on device", site.run(program, *words, given=given, out=full)
    reading, writing = os.pipe()
    os.close(reading)
    try:
        # Python's children ignore no signals, so the program itself has to.
        yield "its reader has gone", site.run(program, *words, given=given, out=writing)
    finally:
        os.close(writing)


# ---- Names that are orders to a terminal ---------------------------------------------------------


def is_quiet(text, place):
    """Of what is no terminal: no control characters but ends of lines and tabs."""
    shown = text.decode(errors="surrogateescape")
    left = [c for c in shown if (c < " " and c not in "\n\t") or "\x7f" <= c < "\xa0" or
            "\udc80" <= c <= "\udcff"]
    require(not left, f"{place}: {left} in {text!r}")


def is_clean(text, place):
    for order in b"\x1b]", b"\x1b[7m", b"\xc2\x9b", b"\x9b", b"\x7f", b"\x07":
        require(order not in text, f"{place}: {order} in {text!r}")


def look_at(site, program, *words, given=b"", shown=SHOWN, json_too=False):
    """What is told holds the name, and neither a pipe nor a terminal gets its orders."""
    ended = site.run(program, *words, given=given)
    everything = ended.out + ended.errors
    place = f"{program} {words}"
    is_quiet(ended.out, place)
    is_quiet(ended.errors, place)
    require(shown in everything.decode(errors="replace"), f"{place}: no {shown} in {everything}")
    told = site.run_on_terminal(program, *words, given=given or None)
    is_clean(told.out, place + " on a terminal")
    if json_too:
        ended = site.run(program, *words, "-o", "json")
        is_quiet(ended.out, place + " as JSON")
        json.loads(ended.out)


def check_words_of_qnmctl(site):
    look_at(site, "qnmctl", EVIL)
    look_at(site, "qnmctl", "list", EVIL)
    look_at(site, "qnmctl", "list", b"--" + EVIL)
    look_at(site, "qnmctl", "show", EVIL)
    look_at(site, "qnmctl", "--ports", b"lo", "--set", EVIL, "list")
    look_at(site, "qnmctl", "--dir", b"/nowhere/" + EVIL, "list", json_too=True)
    look_at(site, "qnmctl", "decode", EVIL, json_too=True)
    look_at(site, "qnmctl", "--ports", "lo", "mms", "0x1", "0", EVIL)
    look_at(site, "qnmctl", "--ports", "lo", "watch", given=EVIL + b"\nquit\n")


def check_configured_words(site):
    dirs = {}
    for name, text in (("key", EVIL + b" = 1\n"), ("port", b"ether_port = " + EVIL_PORT + b"\n"),
                       ("value", b"log_level = " + EVIL + b"\n")):
        dirs[name] = site.file(name)
        site.store(name + "/conf/qnm.conf", text)
        site.store(name + "/conf/qnm_log4c.properties", PROPERTIES)
    at_once(partial(look_at, site, "qnmctl", "--dir", dirs[name], verb, shown=shown, json_too=True)
            for name, verb, shown in (
                ("key", "list", LOGGED), ("port", "list", SHOWN_PORT), ("key", "doctor", SHOWN),
                ("port", "doctor", SHOWN_PORT), ("value", "doctor", SHOWN)))


def check_reports(site):
    """What the command itself has made for an archive is read on terminals, too."""
    log = b"/nowhere/" + EVIL
    properties = PROPERTIES.replace(b"/dev/null", log)
    site.store("named/conf/qnm.conf", b"ether_port = " + EVIL_PORT + b",lo\n" + EVIL + b" = 1\n")
    site.store("named/conf/qnm_log4c.properties", properties)
    archive = site.file("named.tar.gz")
    ended = site.run("qnmctl", "--dir", site.file("named"), "report", archive, "--for", "0.1")
    require(ended.status == 0, f"report: {ended.status} {ended.errors}")
    texts = {}
    with tarfile.open(archive) as members:
        for member in members:
            is_quiet(member.name.encode(errors="surrogateescape"), "a member's name")
            texts[os.path.basename(member.name)] = members.extractfile(member).read()
    for name, text in texts.items():
        if name not in ("qnm.conf", "qnm_log4c.properties", "capture.pcapng"):  # as they are
            is_quiet(text, name)
    for name in "doctor.txt", "problems.txt":
        require(SHOWN_PORT in texts[name].decode(), f"{name}: {texts[name]}")
    require(json.loads(texts["manifest.json"])["missing"], "the manifest misses nothing")


def check_names_of_interfaces(site):
    subprocess.run([b"ip", b"link", b"add", EVIL_PORT, b"type", b"veth", b"peer", b"name", b"ev1"],
                   check=True)
    for name in EVIL_PORT, b"ev1":
        subprocess.run([b"ip", b"link", b"set", name, b"up"], check=True)
    evil = partial(look_at, site, "qnmctl", "--ports", EVIL_PORT)
    at_once((partial(evil, "stats", "-v", "--for", "0.1", shown=LOGGED_PORT, json_too=True),
             partial(evil, "doctor", shown=SHOWN_PORT, json_too=True),
             partial(evil, "capture", site.file("frames"), "--for", "0.1", shown=SHOWN_PORT)))
    subprocess.run([b"ip", b"link", b"set", EVIL_PORT, b"down"], check=True)
    evil("list", shown=SHOWN_PORT, json_too=True)
    view = site.run_on_terminal("qnmctl", "--ports", b"lo," + EVIL_PORT, "top", given=b"q")
    is_clean(view.out.replace(b"\x1b[7m\x1b", b""), "top")
    require(SHOWN_PORT[:7].encode() in view.out, f"top does not show {SHOWN_PORT}: {view.out}")


def check_words_of_cardsim(site):
    look_at(site, "cardsim", EVIL)
    look_at(site, "cardsim", "scenario", b"--" + EVIL)
    look_at(site, "cardsim", site.store("scenario", SCENARIO % b"sv"), "--ports", EVIL)
    escaped = rb"a\u001b]0;evil\u0007b\u009b7mcd\u007fe\u00e4"
    shown = r"a\x1b]0;evil\x07b\xc2\x9b7mcd\x7fe" + "\u00e4"
    for text in (b'"%s" = 1\n' % escaped, SCENARIO % b"sv" + b'"%s" = 1\n' % escaped,
                 SCENARIO % b"sv" + b'vlan_id = "%s"\n' % escaped,
                 (SCENARIO % escaped) + (SCENARIO % escaped).split(b"\n", 1)[1]):
        look_at(site, "cardsim", site.store("scenario", text), shown=shown)
    scenario = site.store("scenario", SCENARIO % escaped)
    ended = site.run("cardsim", scenario, "--quiet", given=b"list\nreg " + EVIL + b" 0\nquit\n")
    is_quiet(ended.out, "answers")
    answers = ended.out.decode().splitlines()
    require(len(answers) > 2 and shown in answers[0] and SHOWN in answers[1] and
            answers[2] == "ok bye", answers)


CHECKS = (check_configuration, check_images, check_log, check_nesting, check_outputs,
          check_limited_files,
          check_words_of_qnmctl, check_configured_words, check_reports, check_names_of_interfaces,
          check_words_of_cardsim)


def main():
    only = sys.argv[3] if len(sys.argv) > 3 else ""
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    failed = 0
    for check in CHECKS:
        if only not in check.__name__:
            continue
        with tempfile.TemporaryDirectory() as path:
            os.chdir(path)
            try:
                check(Site(*sys.argv[1:3], path))
            except Failure as failure:
                failed += 1
                print(f"{check.__name__}: {failure}", flush=True)
            os.chdir("/")
    print(f"{failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
