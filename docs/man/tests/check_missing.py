#!/usr/bin/env python3
"""Checks that make_pages.py notices each text that is removed from the header, and names the place.

usage: check_missing.py MAKE_PAGES DOXYGEN DOXYFILE HEADER OVERVIEW
"""

import subprocess
import sys
import tempfile
from pathlib import Path

# The text to remove, the text to put in its place, and the expected complaint.
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


def complaints(arguments, header_text, folder):
    """What make_pages.py complains about in a header; None if it succeeds."""
    make_pages, doxygen, doxyfile, _, overview = arguments
    header = folder / "qnm.h"
    header.write_text(header_text, encoding="utf-8")
    settings = Path(doxyfile).read_text(encoding="utf-8")
    settings += f"\nINPUT = \"{header}\"\nOUTPUT_DIRECTORY = \"{folder}\"\nWARN_AS_ERROR = NO\n"
    subprocess.run([doxygen, "-"], input=settings, text=True, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    process = subprocess.run(
        [sys.executable, "-B", make_pages, "--xml", folder / "xml", "--header", header,
         "--overview", overview, "--version", "1", "--date", "2000-01-01", "--to", folder],
        stderr=subprocess.PIPE, text=True, check=False)
    return process.stderr if process.returncode != 0 else None


def holds(arguments, case, text):
    old, new, expected = case
    if old not in text:
        print(f"not in the header: {old}", file=sys.stderr)
        return False
    with tempfile.TemporaryDirectory() as folder:
        output = complaints(arguments, text.replace(old, new, 1), Path(folder))
    if expected is None and output is None or output and expected and expected in output:
        return True
    print(f"without {old!r}: got {output!r}, expected {expected!r}", file=sys.stderr)
    return False


def main():
    arguments = sys.argv[1:]
    text = Path(arguments[3]).read_text(encoding="utf-8")
    return 0 if all([holds(arguments, case, text) for case in CASES]) else 1


if __name__ == "__main__":
    sys.exit(main())
