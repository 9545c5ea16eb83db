#!/usr/bin/env python3
"""Draws lines of a terminal as a picture. docs/images/demo.svg are acts of the demonstration.

    usage: scripts/demo.sh | sed -n '/^== Cards change/,/^== A path/p' |
               scripts/terminal-picture.py TITLE > PICTURE.svg
"""

import sys
from html import escape

COLUMNS = 128
ADVANCE, LINE, MARGIN, BAR = 7.83, 18, 14, 30

# By how a line begins; the first that fits.
COLOURS = (("== ", "#ffffff"), ("   ✓", "#8fd694"), ("   >", "#7fc8f8"), ("", "#c8ccd4"))


def main() -> None:
    lines = [line.rstrip() for line in sys.stdin]
    lines = [line if len(line) <= COLUMNS else line[: COLUMNS - 1] + "…" for line in lines]
    width = COLUMNS * ADVANCE + 2 * MARGIN
    height = len(lines) * LINE + BAR + 2 * MARGIN
    print(
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height}" '
        'font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="13">\n'
        f'<rect width="100%" height="100%" rx="8" fill="#1b1f27"/>\n'
        f'<text x="{width / 2:.0f}" y="20" text-anchor="middle" fill="#8a919e">{escape(sys.argv[1])}</text>'
    )
    for number, line in enumerate(lines):
        colour = next(colour for start, colour in COLOURS if line.startswith(start))
        y = BAR + MARGIN + number * LINE + 4
        length = f' textLength="{len(line) * ADVANCE:.0f}"' if line.strip() else ""
        print(
            f'<text x="{MARGIN}" y="{y}" fill="{colour}" xml:space="preserve"{length}>{escape(line)}</text>'
        )
    print("</svg>")


main()
