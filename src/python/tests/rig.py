"""The rig of the tests: installation directories, cables, and simulated cards at their far ends.

    port 0   qnm0 ======== qsim0
    port 1   qnm1 ======== qsim1

The tests wait for conditions; the limit only says when to give up.
"""

import os
import pathlib
import subprocess
import tempfile
import time
from collections.abc import Callable
from types import TracebackType

import qnm

LIMIT = 60.0  # seconds

# The shortest times that can be configured for losing a path, stopping, and giving up a lock.
TWO_PORTS = """
ether_port = qnm0,qnm1
devinfo_expire_time = 1000
devinfo_flag_check_interval = 10
eeprom_retry_interval = 10
eeprom_retry_count = 25
"""

# The cards; all announce themselves ten times a second.
SERVER = 0x020000001000  # QNSV, 40G, two paths
IO = 0x020000002000  # QNIO, 1G/10G, on port 0 only: its frames do not overtake each other
MULTI_ROOT = 0x020000003000  # QNIO that takes MMS pages
SILENT = 0x3000  # a register whose reads are not answered

_SCENARIO = f"""\
[[card]]
name = "server"
kind = "qnsv"
speed = "40g"
id = {SERVER}
vlan_id = 20
interval_ms = 100
silent_registers = [{SILENT}]

[[card]]
name = "io"
kind = "qnio"
speed = "1g10g"
id = {IO}
vlan_id = 30
interval_ms = 100
heard = ["P0M0"]
vendor_id = 0x1234

[[card]]
name = "multi-root"
kind = "qnio"
speed = "40g"
id = {MULTI_ROOT}
version = 1
vlan_id = 30
interval_ms = 100
"""


PATIENT = qnm.Retry(20, 500)

ALL_PATHS = [[1, 1], [1, 1]]


def paths(card_id: int) -> list[list[int]]:
    """The state of a server card's paths; all disconnected if the card is not known."""
    try:
        return [list(port) for port in qnm.get_qnsv(card_id).com_dev.ecd_state]
    except qnm.NotFoundError:
        return [[0, 0], [0, 0]]


def wait_for(condition: Callable[[], bool]) -> bool:
    """Whether the condition came true within the limit."""
    give_up = time.monotonic() + LIMIT
    while not condition():
        if time.monotonic() > give_up:
            return False
        time.sleep(0.005)
    return True


def lay_cables() -> None:
    """Two cables, up, in this network namespace; they vanish with it."""
    for port in "01":
        near, far = f"qnm{port}", f"qsim{port}"
        subprocess.run(["ip", "link", "add", near, "type", "veth", "peer", "name", far], check=True)
        for name in (near, far):
            subprocess.run(["ip", "link", "set", name, "up"], check=True)


class Installation:
    """An installation directory with the given qnm.conf, and the log in a file in it."""

    def __init__(self, conf: str = TWO_PORTS) -> None:
        self._directory = tempfile.TemporaryDirectory(prefix="qnm-python-")
        self.path = pathlib.Path(self._directory.name)
        (self.path / "conf").mkdir()
        (self.path / "conf/qnm.conf").write_text(conf)
        loggers = "".join(
            f"log4j.logger.{name}=ALL, FILE\nlog4j.additivity.{name}=false\n"
            for name in ("logfile", "syslogfile", "statslogfile")
        )
        (self.path / "conf/qnm_log4c.properties").write_text(
            f"{loggers}log4j.appender.FILE=org.apache.log4j.FileAppender\n"
            f"log4j.appender.FILE.File={self.path}/log\n"
            "log4j.appender.FILE.layout=org.apache.log4j.PatternLayout\n"
            "log4j.appender.FILE.layout.ConversionPattern=%c %p %m%n\n"
        )

    def log(self) -> list[str]:
        """The lines logged so far."""
        return (self.path / "log").read_text(errors="replace").splitlines()

    def remove(self) -> None:
        self._directory.cleanup()


class Cards:
    """Simulated cards in a process of their own, which obeys commands."""

    def __init__(self) -> None:
        with tempfile.NamedTemporaryFile("w", suffix=".toml") as scenario:
            scenario.write(_SCENARIO)
            scenario.flush()
            self._process = subprocess.Popen(
                [os.environ["QNM_CARDSIM"], "--quiet", "--ports", "qsim0,qsim1", scenario.name],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                text=True,
                bufsize=1,
            )
            self.tell("counters")  # answered once the scenario has been read

    def __enter__(self) -> "Cards":
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        value: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        self.remove()

    def tell(self, command: str) -> str:
        """Gives a command and returns what follows "ok"."""
        assert self._process.stdin is not None and self._process.stdout is not None
        self._process.stdin.write(command + "\n")
        answer = self._process.stdout.readline().strip()
        if not answer.startswith("ok"):
            raise AssertionError(f"{command}: {answer}")
        return answer.removeprefix("ok").strip()

    def word(self, command: str) -> int:
        """The number after "=" in the answer to a command."""
        return int(self.tell(command).rpartition("=")[2], 0)

    def remove(self) -> None:
        self._process.terminate()
        self._process.communicate()
