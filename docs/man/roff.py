"""The man(7) language: what makes requests and escapes of texts."""


def escaped(text):
    """A hyphen that is typed is no place to break a text at, and no line begins a request."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\n".join("\\&" + line if line[:1] in (".", "'") else line for line in text.split("\n"))


def bold(text):
    return "\\fB" + escaped(text) + "\\fP"


def italic(text):
    return "\\fI" + escaped(text) + "\\fP"


def argument(text):
    """Of a request; the text is escaped already."""
    return '"' + text.replace('"', "\\(dq") + '"'


def title(name, section, date, source, manual):
    """Names are long and have no place to be broken at, so lines are ragged and words whole."""
    parts = [name.upper(), section, date, source, manual]
    return ".TH " + " ".join(argument(part) for part in parts) + "\n.nh\n.ad l\n"


def heading(text):
    return ".SH " + argument(text) + "\n"


def subheading(text):
    return ".SS " + argument(text) + "\n"


def tagged(term, text):
    """A term with its meaning; both are escaped already."""
    return ".TP\n" + term + "\n" + text + "\n"


def paragraphs(texts):
    return ".PP\n".join(text + "\n" for text in texts)


def reference(name, section):
    return ".BR " + escaped(name) + f" ({section})"


def references(pages):
    """A list of (name, section), as it stands under SEE ALSO."""
    ordered = sorted(set(pages), key=lambda page: (page[1], page[0]))
    return ",\n".join(reference(*page) for page in ordered) + "\n"
