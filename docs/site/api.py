"""The public headers' comments as pages of HTML, one page for each header. Doxygen reads them."""

import html
import itertools
import pathlib
import re
import subprocess
import tempfile
import xml.etree.ElementTree as xml

FOLDER = pathlib.Path(__file__).resolve().parent
ROOT = FOLDER.parents[1]

# What a name in an #include starts with, the prefix of its page's name, and what to link.
LIBRARIES = [("korvex/", "korvex-", "korvex::korvex", "korvex"),
             ("korvex/receiver/", "korvex-receiver-", "korvex::receiver", "korvex-receiver"),
             ("qmx/", "qmx-", "qmx::qmx", "qmx")]

KINDS = [("define", "Macros"), ("typedef", "Types"), ("enum", "Enumerations"),
         ("variable", "Constants"), ("function", "Functions")]


class Page:
    """What one header declares."""

    def __init__(self, include):
        self.include = include
        self.library = max((library for library in LIBRARIES if include.startswith(library[0])),
                           key=lambda library: len(library[0]))
        self.stem = pathlib.Path(include).stem
        self.name = self.library[1] + self.stem
        self.file = None       # XML elements
        self.compounds = []
        self.members = []


def text_of(element, path):
    found = element.find(path)
    return "".join(found.itertext()).strip() if found is not None else ""


def line_of(element):
    return int(element.find("location").get("line"))


class Reference:
    """Every page, and how to link to what they describe. `href` makes a link of a page's name."""

    def __init__(self, href=None):
        self.href = href
        self.targets = {}
        self.pages = read_headers()
        self.places = {}       # a member's id: its place on its page
        for page in self.pages:
            self.targets[page.file.get("id")] = page.name
            self.targets.update((compound.get("id"), page.name) for compound in page.compounds)
            self.place_members(page)

    def place_members(self, page):
        taken = set()
        members = [member for compound in page.compounds for member in compound.iter("memberdef")]
        for member in members + page.members:
            name = re.sub(r"[^\w~]", "", text_of(member, "name"))
            name = next(place for place in itertools.chain([name], (f"{name}-{number}" for number in
                        itertools.count(2))) if place not in taken)
            taken.add(name)
            self.places[member.get("id")] = name
            self.targets[member.get("id")] = page.name

    def prose(self, element):
        """A comment's XML as HTML."""
        out = html.escape(element.text or "", quote=False)
        for child in element:
            out += self.node(child) + html.escape(child.tail or "", quote=False)
        return out

    def node(self, element):
        inner = self.prose(element)
        tags = {"para": "p", "itemizedlist": "ul", "orderedlist": "ol", "listitem": "li",
                "computeroutput": "code", "verbatim": "pre", "bold": "strong", "emphasis": "em"}
        if element.tag in tags:
            return f"<{tags[element.tag]}>{inner}</{tags[element.tag]}>"
        if element.tag == "ref":
            target = element.get("refid").removesuffix("_source")
            if not self.href or target not in self.targets:
                return inner
            place = "#" + self.places[target] if target in self.places else ""
            return f'<a href="{self.href(self.targets[target])}{place}">{inner}</a>'
        if element.tag in ("ndash", "mdash", "sp"):
            return {"ndash": "–", "mdash": "—", "sp": " "}[element.tag]
        raise ValueError(f"a comment has <{element.tag}>, which has no place on a page: {inner}")

    def comment(self, element):
        return "".join(self.prose(element.find(part)).strip()
                       for part in ("briefdescription", "detaileddescription"))

    def members(self, members):
        """Declarations, each above its comment; neighbours that share a comment share it here."""
        commented = [(member, self.comment(member)) for member in members]
        commented = [(member, comment) for member, comment in commented if comment]
        out = ""
        for comment, group in itertools.groupby(commented, key=lambda pair: pair[1]):
            group = [member for member, _ in group]
            declared = "\n".join(map(self.declaration, group))
            if group[0].get("kind") == "variable":
                out += f"<dl><dt><code>{declared}</code></dt><dd>{comment}</dd></dl>\n"
            else:
                values = "".join(map(self.values, group))
                out += (f'<pre class="signature"><code>{declared}</code></pre>\n'
                        f"<blockquote>{comment}{values}</blockquote>\n")
        return out.replace("</dl>\n<dl>", "\n")

    def declaration(self, member):
        return (f'<span class="declared" id="{self.places[member.get("id")]}">'
                f"{html.escape(signature_of(member), quote=False)}</span>")

    def values(self, enumeration):
        rows = ""
        for value in enumeration.findall("enumvalue"):
            name = f"{text_of(value, 'name')} {text_of(value, 'initializer')}".strip()
            rows += f"<dt><code>{html.escape(name)}</code></dt><dd>{self.comment(value)}</dd>\n"
        return f"<dl>{rows}</dl>" if rows else ""

    def sections(self, page):
        """(title, HTML) of everything on a page, what gave it its name first."""
        main = [compound for compound in page.compounds
                if text_of(compound, "compoundname").split("::")[-1] == page.stem]
        described = main or [page.file]
        description = "".join(self.comment(element) for element in described)
        if description.strip():
            yield "Description", description
        for compound in main:
            yield from self.compound(compound, "Members")
        for compound in page.compounds:
            if compound not in main:
                name = text_of(compound, "compoundname")
                yield from self.compound(compound, name, self.comment(compound))
        for kind, title in KINDS:
            body = self.members([member for member in page.members if member.get("kind") == kind])
            if body:
                yield title, body

    def compound(self, compound, title, introduction=""):
        members = [member for member in compound.iter("memberdef")
                   if member.get("prot") != "private" and member.get("kind") != "friend"]
        body = introduction + self.members(sorted(members, key=line_of))
        if body:
            yield title, body


def signature_of(member):
    """A declaration as the header has it, but for the scope and the body."""
    kind, name, arguments = (member.get("kind"), text_of(member, "name"),
                             text_of(member, "argsstring"))
    if kind == "define":
        parameters = ", ".join(text_of(parameter, "defname") for parameter in
                               member.findall("param"))
        return f"{name}({parameters})"
    if kind == "enum":
        base = text_of(member, "type")
        strong = "class " if member.get("strong") == "yes" else ""
        return f"enum {strong}{name}" + (f" : {base}" if base else "")
    if kind == "typedef":
        return spaced(f"using {name} = {text_of(member, 'type')};")
    words = ["explicit"] if member.get("explicit") == "yes" else []
    words += ["static"] if member.get("static") == "yes" else []
    words += ["virtual"] if (member.get("virt") != "non-virtual" and "override" not in arguments
                             and kind == "function") else []
    words += [text_of(member, "type")] if text_of(member, "type") else []
    initializer = text_of(member, "initializer")
    value = f" {initializer}" if initializer.startswith("=") and len(initializer) < 40 else ""
    return wrapped(spaced(" ".join(words + [name + arguments]) + value + ";"))


def spaced(declaration):
    """With blanks where the headers have them, not where Doxygen puts them."""
    declaration = re.sub(r" ([&*]+) ?(?=\w)", r"\1 ", declaration)
    declaration = re.sub(r" ([&*]+)(?=[),])", r"\1", declaration)
    declaration = re.sub(r"(?<=\w)< ", "<", declaration).replace(" >", ">").replace(",.", ", .")
    return re.sub(r"(?<=\w|\)) ?=(?=\w)", " = ", declaration)


def wrapped(declaration, width=72):
    """Broken between parameters, which stand below each other then."""
    if len(declaration) <= width or ", " not in declaration:
        return declaration
    head, parameters = declaration.split("(", 1)
    lines, indent = [head + "("], " " * (len(head) + 1 if len(head) < 32 else 4)
    for number, parameter in enumerate(parameters.split(", ")):
        last = lines[-1] + ("" if number == 0 else ", ") + parameter
        if len(last) <= width:
            lines[-1] = last
        else:
            lines[-1] += "" if number == 0 else ","
            lines.append(indent + parameter)
    return "\n".join(lines)


def run_doxygen(folder):
    configuration = (FOLDER / "Doxyfile").read_text() + f"OUTPUT_DIRECTORY = {folder}\n"
    run = subprocess.run(["doxygen", "-"], input=configuration, cwd=ROOT, text=True,
                         capture_output=True, check=False)
    if run.returncode != 0:
        raise SystemExit(run.stderr + "doxygen: the public headers are not fully documented")
    return pathlib.Path(folder) / "xml"


def read_headers():
    pages = {}
    with tempfile.TemporaryDirectory() as folder:
        found = [xml.parse(path).getroot().find("compounddef")
                 for path in sorted(run_doxygen(folder).glob("*.xml")) if path.stem != "index"]
    found = [compound for compound in found if compound is not None]
    for compound in found:
        if compound.get("kind") == "file":
            location = compound.find("location").get("file")
            page = Page(location.split("include/", 1)[1])
            page.file = compound
            page.members += [member for member in compound.iter("memberdef")]
            pages[location] = page
    for compound in found:
        if compound.get("kind") in ("class", "struct") and compound.get("prot") == "public":
            pages[compound.find("location").get("file")].compounds.append(compound)
        elif compound.get("kind") == "namespace":
            for member in compound.iter("memberdef"):
                pages[member.find("location").get("file")].members.append(member)
    for page in pages.values():
        page.compounds.sort(key=line_of)
        page.members.sort(key=line_of)
    return sorted(pages.values(), key=lambda page: (LIBRARIES.index(page.library), page.include))
