#!/usr/bin/env python3
"""A text that is taken out of the header is missed, and the line that tells it names the place.

usage: check_missing.py MAKE_PAGES DOXYGEN DOXYFILE HEADER OVERVIEW
"""

import subprocess
import sys
import tempfile
from pathlib import Path

# What is taken out, what comes in its place, and what is then missed.
CASES = [
    ("", "", None),
    ("/** A QNSV card: the server side. */", "", "qnm_qnsv_t: has no text"),
    ("/**< invalid argument */", "", "qnm_api_code_t: QNM_API_EINVAL has no text"),
    ("/**< flow ID of the card */", "", "qnm_com_dev_t: ecd_flowid has no text"),
    (" * @param[in] mask         the bits to change\n", "",
     "qnm_modify_register: parameter mask is not described"),
    ("@param[in] verbose ", "@param[in] wordy ", "qnm_stdump: parameter verbose is not described"),
    ("@param[in] verbose ", "@param verbose ",
     "qnm_stdump: parameter verbose does not say whether it is in or out"),
    (" * @retval QNM_API_SUCCESS  the dump was written\n", "",
     "qnm_stdump: the results are not listed"),
    (" * @return -1, 0 or 1 when the first key", " * -1, 0 or 1 when the first key",
     "qnm_rbtree_int32_compare: what it returns is not told"),
    (" *   qnm_stdump               running", " *   qnm_std                  running",
     "qnm_stdump: has no row in the table of promises"),
    ("#endif\n\n/* ---- Version", "#endif\n#define QNM_NEW 1\n\n/* ---- Version",
     "QNM_NEW: has no text"),
    ("qnm_api_code_t qnm_start_manager(void);",
     "qnm_api_code_t qnm_start_manager(void);\nqnm_api_code_t qnm_new(int a);",
     "qnm_new: has no text"),
]


def complaints(given, header_text, folder):
    """What making the pages of a header says, or None when there is nothing to say."""
    make_pages, doxygen, doxyfile, _, overview = given
    header = folder / "qnm.h"
    header.write_text(header_text, encoding="utf-8")
    settings = Path(doxyfile).read_text(encoding="utf-8")
    settings += f"\nINPUT = \"{header}\"\nOUTPUT_DIRECTORY = \"{folder}\"\nWARN_AS_ERROR = NO\n"
    subprocess.run([doxygen, "-"], input=settings, text=True, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    made = subprocess.run(
        [sys.executable, "-B", make_pages, "--xml", folder / "xml", "--header", header,
         "--overview", overview, "--version", "1", "--date", "2000-01-01", "--to", folder],
        stderr=subprocess.PIPE, text=True, check=False)
    return made.stderr if made.returncode != 0 else None


def holds(given, case, text):
    old, new, expected = case
    if old not in text:
        print(f"not in the header: {old}", file=sys.stderr)
        return False
    with tempfile.TemporaryDirectory() as folder:
        told = complaints(given, text.replace(old, new, 1), Path(folder))
    if expected is None and told is None or told and expected and expected in told:
        return True
    print(f"without {old!r}: told {told!r} and not {expected!r}", file=sys.stderr)
    return False


def main():
    given = sys.argv[1:]
    text = Path(given[3]).read_text(encoding="utf-8")
    return 0 if all([holds(given, case, text) for case in CASES]) else 1


if __name__ == "__main__":
    sys.exit(main())
