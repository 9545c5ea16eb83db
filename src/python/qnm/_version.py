"""The version of the module.

Out of the source tree it is that of the header in the same tree. An installation has in place of this
file one that names the version.
"""

import pathlib
import re

_HEADER = pathlib.Path(__file__).parents[2] / "libs/qnm/src/main/qnm.h"


def _read_version() -> str:
    """The three numbers of the header; "unknown" for a copy of the module alone."""
    try:
        header = _HEADER.read_text(encoding="utf-8")
    except OSError:
        return "unknown"
    numbers = re.findall(r"^#define QNM_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)", header, re.MULTILINE)
    return ".".join(numbers)


__version__ = _read_version()
