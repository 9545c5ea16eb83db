#!/usr/bin/env python3
"""Writes the manual pages of section 3, one for each call, type and macro of the public header, and
the overview qnm(7). If texts are missing in the header, it names each and fails.

usage: make_pages.py --xml FOLDER --header FILE --overview TEMPLATE --version V --date D --to FOLDER
"""

import argparse
import re
import shutil
import sys
from pathlib import Path

import header
import roff

LIBRARY = "Manager library for Quillnet adapter cards"
LINE = 76  # maximum width of a declaration


# ---- Missing texts ------------------------------------------------------------------------------


def missing_in_function(item):
    names = [name for _, name in item.parameters if name]
    for name in names:
        if not item.described.get(name, ("", ""))[1]:
            yield f"parameter {name} is not described"
    for name in set(item.described) - set(names):
        yield f"there is no parameter {name}"
    for name, (direction, _) in item.described.items():
        if not direction:
            yield f"parameter {name} does not say whether it is in or out"
    if item.result == "qnm_api_code_t" and "QNM_API_SUCCESS" not in item.retvals:
        yield "the results are not listed"
    if item.result not in ("void", "qnm_api_code_t") and not item.returns:
        yield "what it returns is not told"
    for code, texts in item.retvals.items():
        if not all(texts):
            yield f"result {code} is not explained"


def promise_of(interface, name):
    """The row of the table of promises for a call; "*" in a pattern matches any letters."""
    for pattern, row in interface.promises.items():
        if re.fullmatch(pattern.replace("*", r"\w+"), name):
            return row
    return None


def missing(interface):
    """Yields a line for each text that the header lacks."""
    for item in interface.items:
        if not item.text:
            yield f"{item.name}: has no text"
        for name, text in item.members:
            if not text:
                yield f"{item.name}: {name} has no text"
        if item.kind == "function":
            for function in [item] + item.aliases:
                if promise_of(interface, function.name) is None:
                    yield f"{function.name}: has no row in the table of promises"
            for line in missing_in_function(item):
                yield f"{item.name}: {line}"


# ---- Texts --------------------------------------------------------------------------------------


def imperative(text):
    """Turns "Copies the record" into "copy the record"."""
    verb, _, rest = text.partition(" ")
    verb = verb[:-3] + "y" if verb.endswith("ies") else verb.removesuffix("s")
    return verb + " " + rest


def brief(item):
    """The first sentence up to its first comma, colon, semicolon or parenthesis."""
    text = re.split(r"[,:;(]|\.(?: |$)", item.text[0])[0].strip()
    if item.kind == "function" and item.result == "qnm_api_code_t" or item.returns:
        text = imperative(text)
    if text[1].isupper():
        return text  # a name
    return text[0].lower() + text[1:]


class Names:
    """Names to highlight in texts: other pages, constants, members and parameters."""

    def __init__(self, interface):
        self.pages = {}
        self.words = set()
        for item in interface.items:
            for entry in [item] + item.aliases:
                self.pages[entry.name] = item.name
            self.words |= {name for name, _ in item.members}
        self.words |= set(self.pages)

    def marked(self, text, own_parameters=()):
        parts = re.split(r"(\w+)", text)
        result = ""
        for part in parts:
            if part in self.words:
                result += roff.bold(part)
            elif part in own_parameters and "_" in part:
                result += roff.italic(part)
            else:
                result += roff.escaped(part)
        return result

    def mentioned(self, texts):
        """The pages of the names that occur in texts."""
        words = {word for text in texts for word in re.findall(r"\w+", text)}
        return {self.pages[word] for word in words if word in self.pages}


def prototype(item):
    """The declaration of a function as escaped lines, with its parameters in italics."""
    begin = f"{item.result} {item.name}(".replace("* ", "*")
    if not item.parameters:
        return [roff.bold(begin + "void);")]
    lines, width = [roff.bold(begin)], len(begin)
    for at, (kind, name) in enumerate(item.parameters):
        last = at + 1 == len(item.parameters)
        end = ");" if last else ","
        space = "" if kind.endswith("*") or not name else " "
        length = len(kind + space + name + end) + (0 if last else 1)
        if width + length > LINE and width > len(begin):
            lines.append(roff.escaped(" " * len(begin)))
            width = len(begin)
        lines[-1] += roff.bold(kind + space) + (roff.italic(name) if name else "") + roff.bold(
            end) + ("" if last else " ")
        width += length
    return [line.rstrip() for line in lines]


# ---- Sections of a page -------------------------------------------------------------------------


def name_section(item):
    names = ", ".join(roff.escaped(entry.name) for entry in [item] + item.aliases)
    return roff.heading("NAME") + names + " \\- " + roff.escaped(brief(item)) + "\n"


def synopsis(item):
    lines = [roff.bold("#include <qnm.h>"), ""]
    if item.kind == "function":
        for entry_lines in map(prototype, [item] + item.aliases):
            lines += entry_lines
            lines += [""] if len(entry_lines) > 1 else []
    else:
        lines += [roff.escaped(line) for line in item.declaration]
        for entry in item.aliases:
            lines += [roff.escaped(line) for line in entry.declaration]
    text = ".nf\n" + "\n".join(lines).rstrip().replace("\n\n", "\n.sp\n") + "\n.fi\n"
    return roff.heading("SYNOPSIS") + text


def library_section():
    link = "pkg-config --cflags --libs qnm"
    return (roff.heading("LIBRARY") + roff.escaped(LIBRARY) + " (" + roff.italic("libqnm") + ", " +
            roff.italic("-lqnm") + ", " + roff.italic(link) + ")\n")


def description(item, names):
    own = [name for _, name in item.parameters]
    return roff.heading("DESCRIPTION") + roff.paragraphs(
        [names.marked(text, own) for text in item.text])


def members(item, names):
    if not item.members:
        return ""
    title = "MEMBERS" if item.kind == "struct" else "VALUES"
    return roff.heading(title) + "".join(
        roff.tagged(roff.bold(name), names.marked(text)) for name, text in item.members)


def parameters(item, names):
    if not item.described:
        return ""
    direction = {"in": "", "out": " (out)", "in,out": " (in, out)", "inout": " (in, out)"}
    own = list(item.described)
    return roff.heading("PARAMETERS") + "".join(
        roff.tagged(roff.italic(name) + direction[way], names.marked(text, own))
        for name, (way, text) in item.described.items())


def return_value(item, codes, names):
    if item.returns:
        return roff.heading("RETURN VALUE") + names.marked(item.returns) + "\n"
    if not item.retvals:
        return ""
    text = roff.heading("RETURN VALUE")
    for code in sorted(item.retvals, key=codes.index):
        text += roff.tagged(roff.bold(code), names.marked("; or ".join(item.retvals[code])))
    return text


def attribute_text(word, words):
    """A cell of the table with its meaning; a cell may have several words, with commas."""
    meanings = [words[part] for part in word.split(", ") if part in words]
    return word + (": " + ", then ".join(meanings) if meanings else "")


def attributes(item, interface, names):
    row = promise_of(interface, item.name)
    text = roff.heading("ATTRIBUTES") + roff.tagged(
        roff.bold("Threads"), "any thread may call, also several at once")
    for column, word in row.items():
        if word != "-":
            text += roff.tagged(roff.bold(column[0].upper() + column[1:]),
                                names.marked(attribute_text(word, interface.words)))
    return text


def see_also(item, interface, names):
    texts = item.text + [text for _, text in item.described.values()] + item.declaration
    texts += [kind for kind, _ in item.parameters] + [item.result, item.returns]
    texts += list(item.retvals)
    for entry in interface.items:
        if item.kind != "function" and entry.kind == "function":  # calls that take the type
            takes = [kind for call in [entry] + entry.aliases for kind, _ in call.parameters]
            takes += [text for _, text in entry.described.values()]
            if item.name in names.mentioned(takes):
                texts.append(entry.name)
        if item.kind == entry.kind == "function" and item.section == entry.section:
            texts.append(entry.name)
    pages = names.mentioned(texts) - {item.name}
    return roff.heading("SEE ALSO") + roff.references(
        [(page, 3) for page in pages] + [("qnm", 7)])


def page(item, interface, names, stamp):
    codes = [name for entry in interface.items if entry.name == "qnm_api_code_t"
             for name, _ in entry.members]
    text = '.\\" Made from the comments of qnm.h; not to be edited.\n'
    text += roff.title(item.name, "3", stamp["date"], "libqnm " + stamp["version"],
                       "libqnm Library Functions")
    text += name_section(item) + library_section() + synopsis(item) + description(item, names)
    text += members(item, names) + parameters(item, names) + return_value(item, codes, names)
    if item.kind == "function":
        text += attributes(item, interface, names)
    return text + see_also(item, interface, names)


# ---- The overview -------------------------------------------------------------------------------


def list_of_pages(interface, kinds):
    """A list of pages with their briefs, grouped by the headings of the header."""
    text, section = "", None
    for item in interface.items:
        if (item.kind == "function") != (kinds == "function"):
            continue
        if item.section != section:
            section = item.section
            text += roff.subheading(section)
        names = ", ".join(roff.bold(entry.name) + "(3)" for entry in [item] + item.aliases)
        text += roff.tagged(names, roff.escaped(brief(item)))
    return text


def overview(template, interface, names, stamp):
    rules = "".join(
        roff.tagged(roff.bold(rule.partition(":")[0]), names.marked(rule.partition(":")[2].strip()))
        if re.match(r"[^.]{1,20}: ", rule) else ".TP\n\\(bu\n" + names.marked(rule) + "\n"
        for rule in interface.rules)
    columns = "".join(roff.tagged(roff.bold(name.capitalize()), roff.escaped(text))
                      for name, text in interface.columns.items())
    for mark, text in (("VERSION", stamp["version"]), ("DATE", stamp["date"]), ("RULES", rules),
                       ("CALLS", list_of_pages(interface, "function")), ("COLUMNS", columns),
                       ("TYPES", list_of_pages(interface, "type"))):
        template = template.replace(f"@{mark}@", text.rstrip("\n"))
    return template


def write(file, text):
    file.write_text(text, encoding="utf-8")


def write_pages(interface, options):
    names = Names(interface)
    stamp = {"version": options.version, "date": options.date}
    calls, concepts = (Path(options.to) / name for name in ("man3", "man7"))
    shutil.rmtree(calls, ignore_errors=True)  # removes the pages of names that are gone, too
    for folder in (calls, concepts):
        folder.mkdir(parents=True, exist_ok=True)
    for item in interface.items:
        write(calls / f"{item.name}.3", page(item, interface, names, stamp))
        others = {entry.name for entry in item.aliases}
        others |= {name for name, _ in item.members if item.kind == "enum"} - {item.name}
        for other in others:
            write(calls / f"{other}.3", f".so man3/{item.name}.3\n")
    template = Path(options.overview).read_text(encoding="utf-8")
    write(concepts / "qnm.7", overview(template, interface, names, stamp))


def main():
    parser = argparse.ArgumentParser()
    for option in ("xml", "header", "overview", "version", "date", "to"):
        parser.add_argument("--" + option, required=True)
    options = parser.parse_args()
    interface = header.read(options.xml, options.header)
    lines = list(missing(interface))
    for line in lines:
        print(f"{options.header}: {line}", file=sys.stderr)
    if lines:
        return 1
    write_pages(interface, options)
    return 0


if __name__ == "__main__":
    sys.exit(main())
