"""Reads the public header: its declarations from doxygen's XML, and its opening comment."""

import re
import xml.etree.ElementTree
from dataclasses import dataclass, field
from pathlib import Path


# Macros that only the header uses.
OWN_MACROS = {"QNM_ANY_INT", "QNM_PRINTF_FORMAT", "QNM_VERSION_TEXT", "QNM_QUOTED_VERSION"}


@dataclass
class Item:
    """A function or a type with its text. Texts are lists of paragraphs."""

    kind: str  # "function", "struct", "enum", "typedef" or "macro"
    name: str
    declaration: list  # the lines of a type's declaration
    line: int  # number of the line in the header
    text: list
    result: str = ""  # type of the return value
    parameters: list = field(default_factory=list)  # (type, name)
    described: dict = field(default_factory=dict)  # {parameter: (direction, text)}
    retvals: dict = field(default_factory=dict)  # {result code: list of texts}
    returns: str = ""
    members: list = field(default_factory=list)  # (name, text)
    aliases: list = field(default_factory=list)  # items that are described on the same page
    section: str = ""  # heading in the header


@dataclass
class Header:
    items: list
    promises: dict  # {pattern of a call's name: {column: word}}
    columns: dict  # {heading of a column: what the column says}
    words: dict  # {word in a row: what it means}
    rules: list  # the rules for every call


def flat(node):
    return " ".join("".join(node.itertext()).split()) if node is not None else ""


def without_lists(paragraph):
    """The text of a paragraph without the parameter lists that doxygen puts inside it."""
    parts = [paragraph.text or ""]
    for child in paragraph:
        if child.tag not in ("parameterlist", "simplesect"):
            parts.append("".join(child.itertext()))
        parts.append(child.tail or "")
    return " ".join("".join(parts).split())


def read_text(node, item):
    """Fills in an item's text, parameters and results from its description."""
    description = node.find("detaileddescription")
    paragraphs = [without_lists(para) for para in description.findall("para")]
    item.text = [text for text in paragraphs if text and not text.endswith(":")]
    for row in description.iterfind(".//parameterlist[@kind='param']/parameteritem"):
        name = row.find(".//parametername")
        meaning = flat(row.find("parameterdescription"))
        item.described[name.text] = (name.get("direction", ""), meaning)
    for row in description.iterfind(".//parameterlist[@kind='retval']/parameteritem"):
        code = flat(row.find(".//parametername"))
        item.retvals.setdefault(code, []).append(flat(row.find("parameterdescription")))
    item.returns = flat(description.find(".//simplesect[@kind='return']"))


def declaration_at(lines, first, last):
    """The lines of a declaration without their comments."""
    code = re.sub(r"/\*.*?\*/", "", "\n".join(lines[first - 1 : last]), flags=re.DOTALL)
    code = code.replace(" QNM_ANY_INT", "")
    return [line.rstrip() for line in code.split("\n") if line.strip()]


def read_type(node, kind, lines):
    place = node.find("location")
    first = int(place.get("bodystart") or place.get("line"))
    last = max(first, int(place.get("bodyend") or first))
    item = Item(kind, node.findtext("name") or node.findtext("compoundname"),
                declaration_at(lines, first, last), first, [])
    read_text(node, item)
    members = node.findall(".//memberdef") + node.findall("enumvalue")
    item.members = [(m.findtext("name"), flat(m.find("detaileddescription"))) for m in members]
    return item


def read_function(node):
    item = Item("function", node.findtext("name"), [], int(node.find("location").get("line")), [],
                result=flat(node.find("type")))
    read_text(node, item)
    for param in node.findall("param"):
        kind = flat(param.find("type"))
        item.parameters.append((kind, param.findtext("declname") or ""))
    return item


def read_macro(node):
    name = node.findtext("name")
    item = Item("macro", name, [name], int(node.find("location").get("line")), [])
    read_text(node, item)
    return item


def read_member(node, lines):
    kind = node.get("kind")
    if kind == "function":
        return read_function(node)
    return read_macro(node) if kind == "define" else read_type(node, kind, lines)


def add_group(groups, name, item):
    """Adds the texts and results of a group and of the groups around it to one of its functions."""
    while name:
        group = groups[name]
        for code, texts in group["item"].retvals.items():
            item.retvals.setdefault(code, []).extend(texts)
        item.text += group["item"].text
        name = group["parent"]


def read_groups(compounds):
    groups = {}
    for node in compounds:
        if node.get("kind") == "group":
            item = Item("group", node.findtext("compoundname"), [], 0, [])
            read_text(node, item)
            groups[node.get("id")] = {"item": item, "parent": None}
    for node in compounds:
        for inner in node.findall("innergroup"):
            groups[inner.get("refid")]["parent"] = node.get("id")
    return groups


def read_items(compounds, lines):
    """Every function, type and macro once, in the order of the header."""
    groups = read_groups(compounds)
    items = {}
    for node in compounds:
        if node.get("kind") == "struct":
            items[node.get("id")] = read_type(node, "struct", lines)
    for node in sorted(compounds, key=lambda compound: compound.get("kind") != "group"):
        for member in node.findall("sectiondef/memberdef"):
            if node.get("kind") == "struct" or member.findtext("name") in OWN_MACROS:
                continue
            if member.get("id") in items:
                continue
            item = read_member(member, lines)
            items[member.get("id")] = item
            if item.kind == "function" and node.get("kind") == "group":
                add_group(groups, node.get("id"), item)
    return sorted(items.values(), key=lambda item: item.line)


def name_types(items):
    """Names records and enumerations after the first of their typedefs, and an enumeration that has
    none after its first constant."""
    kept = []
    for item in items:
        end = item.declaration[-1] if item.declaration else ""
        if item.kind == "typedef" and end.startswith("}"):
            continue  # it is named at the end of the record or enumeration itself
        if item.kind in ("struct", "enum"):
            names = re.findall(r"\w+", end) or [member for member, _ in item.members]
            item.name = names[0]
            item.aliases = [Item("typedef", name, [], item.line, []) for name in names[1:]]
        kept.append(item)
    return kept


def join_aliases(items):
    """Moves items with the text "as X()" to the page of X."""
    by_name = {item.name: item for item in items}
    alone = []
    for item in items:
        as_other = re.fullmatch(r"as (\w+)(\(\))?", item.text[0]) if item.text else None
        if as_other:
            by_name[as_other.group(1)].aliases.append(item)
        else:
            alone.append(item)
    return alone


# ---- The opening comment ------------------------------------------------------------------------


def cells(line):
    return [cell for cell in re.split(r"  +", line.strip()) if cell]


def read_promises(comment):
    start = next(k for k, line in enumerate(comment) if cells(line)[:2] == ["call", "manager"])
    columns = cells(comment[start])
    rows = {}
    words = {}
    for line in comment[start + 1 :]:
        row = cells(line)
        if len(row) == len(columns):
            rows[row[0]] = dict(zip(columns[1:], row[1:]))
        elif len(row) == 2:
            words[row[0]] = row[1]
        elif row:
            break
    intro = next(k for k in range(start, 0, -1) if "one by one." in comment[k])
    text = " ".join(" ".join(comment[intro:start]).split()).split("one by one. ")[1]
    meanings = {}
    for heading, meaning in re.findall(r"([A-Z][^.:]*): ([^.]*)\.", text):
        meanings[heading.lower()] = meaning
    return rows, meanings, words


def read_rules(comment):
    start = next(k for k, line in enumerate(comment) if "Rules that hold for every call" in line)
    rules = []
    for line in comment[start + 1 :]:
        if line.startswith("  - "):
            rules.append(line[4:].strip())
        elif rules and line.startswith("    "):
            rules[-1] += " " + line.strip()
        elif rules:
            break
    return rules


def set_sections(items, lines):
    """Sets each item's section from the headings, such as "/* ---- Events ---- */"."""
    headings = [(k + 1, found.group(1)) for k, line in enumerate(lines)
                if (found := re.match(r"/\* ---- (.*?) -+ \*/", line))]
    for item in items:
        above = [text for at, text in headings if at < item.line]
        item.section = above[-1] if above else ""


def read(xml_folder, path):
    lines = Path(path).read_text(encoding="utf-8").split("\n")
    comment = [line[2:] for line in lines[: lines.index(" */")]]
    files = [file for file in sorted(Path(xml_folder).glob("*.xml"))
             if file.name not in ("index.xml", "Doxyfile.xml")]
    roots = [xml.etree.ElementTree.parse(file).getroot() for file in files]
    compounds = [node for root in roots for node in root.iter("compounddef")
                 if node.get("kind") in ("struct", "group", "file")]
    items = join_aliases(name_types(read_items(compounds, lines)))
    set_sections(items, lines)
    promises, columns, words = read_promises(comment)
    return Header(items, promises, columns, words, read_rules(comment))
