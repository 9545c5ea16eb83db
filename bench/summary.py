#!/usr/bin/env python3
"""The figures that users ask about, out of all that were measured: as a table and as a picture.

    usage: summary.py table RESULTS                   what the README shows
           summary.py picture RESULTS                 results.svg
           summary.py check RESULTS README PICTURE    fails where one shows other figures

Each figure stands beside its floor: the least that the same machine could do in the same run.
"""

import sys
from html import escape
from pathlib import Path
from typing import NamedTuple


class Question(NamedTuple):
    """What is asked, the row of results.md that answers it, and what its floor is."""

    row: str
    title: str
    floor: str
    cards: int = 0  # the row tells a rate of cards, and the time for so many is asked


QUESTIONS = (
    Question(
        "Learning 100,000 cards",
        "Learning 100,000 cards",
        "bare libpcap takes as many announcements, one for each poll, and forgets them",
        cards=100_000,
    ),
    Question(
        "Read, default level, p50",
        "Reading a register, median, default log level",
        "the same frames by bare libpcap, with one thread that asks and one that receives",
    ),
    Question(
        "EEPROM dump beside the waits it has to make",
        "Dumping an EEPROM of {bytes}",
        "the waits alone that the card's lock and each read demand, to the millisecond",
    ),
    Question(
        "Intake, 272 B, 100,000 known cards, processor time a frame",
        "Taking an announcement, processor time, 100,000 known cards",
        "bare libpcap takes the same frame, one for each poll, and forgets it",
    ),
    Question(
        "Memory per card beyond its record",
        "Memory of a card beyond its record",
        "the record that `qnm_get_qnsv()` hands out, which every table of cards has to keep",
    ),
)

# A short run dumps an eighth.
EEPROM_BYTES = {True: "256 bytes", False: "2048 bytes"}


class Answer(NamedTuple):
    title: str
    value: str
    floor: str  # empty: nothing was measured beside it
    ratio: float
    floor_is: str


class Results(NamedTuple):
    origin: str  # on which machine, and when
    answers: list[Answer]


def milliseconds(cards: int, cell: str) -> float:
    return cards / float(cell.removesuffix(" 1/s")) * 1000


def answer_of(asked: Question, cells: list[str], quick: bool) -> Answer:
    value, floor, ratio = cells[1:4]
    title = asked.title.format(bytes=EEPROM_BYTES[quick])
    if asked.cards == 0:
        return Answer(title, value, floor, float(ratio or 0), asked.floor)
    took, least = milliseconds(asked.cards, value), milliseconds(asked.cards, floor)
    return Answer(title, f"{took:.0f} ms", f"{least:.0f} ms", took / least, asked.floor)


def read_results(file: str) -> Results:
    """Rows that a run of few stories has left out are left out here."""
    text = Path(file).read_text(encoding="utf-8")
    origin = text.splitlines()[0]
    rows = {}
    for line in text.splitlines():
        cells = [cell.strip() for cell in line.strip("|").split("|")]
        rows[cells[0]] = cells
    quick = "--quick" in origin
    return Results(
        origin, [answer_of(asked, rows[asked.row], quick) for asked in QUESTIONS if asked.row in rows]
    )


def table(of: Results) -> str:
    lines = [
        of.origin,
        "",
        "| Figure | libqnm | floor | ratio | what the floor is |",
        "|---|--:|--:|--:|---|",
    ]
    for one in of.answers:
        ratio = f"{one.ratio:.2f}" if one.floor else ""
        lines.append(f"| {one.title} | {one.value} | {one.floor} | {ratio} | {one.floor_is} |")
    return "\n".join(lines) + "\n"


# ---- The picture: a bar for each figure, as long as its ratio; the floor is a line ---------------

WIDTH, LEFT, TOP, ROW, BAR, RIGHT = 880, 270, 64, 46, 22, 230

STYLE = """
  text { fill: #1f2328; font: 14px sans-serif }
  .note { fill: #59636e; font-size: 13px }
  .paper { fill: #ffffff }
  .bar { fill: #0969da }
  .floor { stroke: #cf222e; stroke-width: 2 }
  .grid { stroke: #d1d9e0 }
  @media (prefers-color-scheme: dark) {
    text { fill: #f0f6fc }
    .note { fill: #9198a1 }
    .paper { fill: #0d1117 }
    .bar { fill: #4493f8 }
    .floor { stroke: #ff7b72 }
    .grid { stroke: #3d444d }
  }
"""


def drawn_line(kind: str, x: float, top: int, bottom: int) -> str:
    return f'<line class="{kind}" x1="{x:.1f}" y1="{top}" x2="{x:.1f}" y2="{bottom}"/>'


def drawn_text(text: str, x: float, y: float, more: str = "") -> str:
    return f'<text x="{x:.1f}" y="{y:.1f}"{more}>{escape(text)}</text>'


def bar_of(one: Answer, y: int, scale: float) -> list[str]:
    title, _, detail = one.title.partition(", ")
    middle = y + BAR / 2 + 5
    end = LEFT + one.ratio * scale
    return [
        drawn_text(title, LEFT - 12, middle - (8 if detail else 0), ' text-anchor="end"'),
        drawn_text(detail, LEFT - 12, middle + 9, ' class="note" text-anchor="end"') if detail else "",
        f'<rect class="bar" x="{LEFT}" y="{y}" width="{end - LEFT:.1f}" height="{BAR}"/>',
        drawn_text(f"{one.ratio:.2f} ×", max(end, LEFT + scale) + 10, middle),
        drawn_text(
            f"{one.value}, floor {one.floor}", WIDTH - 14, middle, ' class="note" text-anchor="end"'
        ),
    ]


def picture(of: Results) -> str:
    shown = [one for one in of.answers if one.floor]
    most = max([one.ratio for one in shown] + [1.0])
    scale = (WIDTH - LEFT - RIGHT) / most
    bottom = TOP + ROW * len(shown)
    height = bottom + 34
    lines = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}">',
        f"<style>{STYLE}</style>",
        f'<rect class="paper" width="{WIDTH}" height="{height}"/>',
        drawn_text("libqnm beside the floor: how many times as long it takes. Shorter is better.", 14, 26),
        drawn_text("the floor", LEFT + scale, TOP - 10, ' class="note" text-anchor="middle"'),
    ]
    for mark in range(int(most) + 1):
        x = LEFT + mark * scale
        lines.append(drawn_line("grid", x, TOP, bottom))
        lines.append(drawn_text(f"{mark} ×", x, bottom + 20, ' class="note" text-anchor="middle"'))
    for number, one in enumerate(shown):
        lines += bar_of(one, TOP + ROW * number + (ROW - BAR) // 2, scale)
    lines.append(drawn_line("floor", LEFT + scale, TOP - 4, bottom))
    return "\n".join(line for line in lines if line) + "\n</svg>\n"


# ---- What is shown elsewhere ---------------------------------------------------------------------


def unlike(of: Results, readme: Path, drawing: Path) -> list[str]:
    wrong = []
    if table(of) not in readme.read_text(encoding="utf-8"):
        wrong.append(f"{readme} lacks this table:\n\n{table(of)}")
    if picture(of) != drawing.read_text(encoding="utf-8"):
        wrong.append(f"{drawing} is not what `summary.py picture` draws")
    return wrong


def main(words: list[str]) -> int:
    match words:
        case ["table", results]:
            sys.stdout.write(table(read_results(results)))
        case ["picture", results]:
            sys.stdout.write(picture(read_results(results)))
        case ["check", results, readme, drawing]:
            wrong = unlike(read_results(results), Path(readme), Path(drawing))
            print("\n".join(wrong), file=sys.stderr)
            return 1 if wrong else 0
        case _:
            print(__doc__, file=sys.stderr)
            return 2
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
