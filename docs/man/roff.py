"""Writes texts in the language of man(7): requests and escapes."""


def escaped(text):
    """Escapes hyphens, so that no line breaks there, and line starts that look like requests."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\n".join("\\&" + line if line[:1] in (".", "'") else line for line in text.split("\n"))


def bold(text):
    return "\\fB" + escaped(text) + "\\fP"


def italic(text):
    return "\\fI" + escaped(text) + "\\fP"


def argument(text):
    """An argument of a request, in quotes; the text is already escaped."""
    return '"' + text.replace('"', "\\(dq") + '"'


def title(name, section, date, source, manual):
    """The title request. Turns off hyphenation and justification, because names are long."""
    parts = [name.upper(), section, date, source, manual]
    return ".TH " + " ".join(argument(part) for part in parts) + "\n.nh\n.ad l\n"


def heading(text):
    return ".SH " + argument(text) + "\n"


def subheading(text):
    return ".SS " + argument(text) + "\n"


def tagged(term, text):
    """A term and its meaning; both are already escaped."""
    return ".TP\n" + term + "\n" + text + "\n"


def paragraphs(texts):
    return ".PP\n".join(text + "\n" for text in texts)


def reference(name, section):
    return ".BR " + escaped(name) + f" ({section})"


def references(pages):
    """A list of (name, section), formatted for SEE ALSO."""
    ordered = sorted(set(pages), key=lambda page: (page[1], page[0]))
    return ",\n".join(reference(*page) for page in ordered) + "\n"
