"""The version of the module.

In the source tree, the version is read from the header in the same tree. An installation has
another _version.py in place of this file, with the version written in it.
"""

import pathlib
import re

_HEADER = pathlib.Path(__file__).parents[2] / "libs/qnm/src/main/qnm.h"


def _read_version() -> str:
    """The three numbers in the header; "unknown" if the module was copied without it."""
    try:
        header = _HEADER.read_text(encoding="utf-8")
    except OSError:
        return "unknown"
    numbers = re.findall(r"^#define QNM_VERSION_(?:MAJOR|MINOR|PATCH) (\d+)", header, re.MULTILINE)
    return ".".join(numbers)


__version__ = _read_version()
