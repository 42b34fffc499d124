#!/usr/bin/env python3
"""build.py --version VERSION OUTPUT: the documentation as a folder of pages that need no server.

The guide and the man pages are Markdown, which pandoc reads; the API comes from the headers.
"""

import argparse
import concurrent.futures
import html
import os
import pathlib
import re
import shutil
import string
import subprocess

import api
import man

FOLDER = pathlib.Path(__file__).resolve().parent
ROOT = FOLDER.parents[1]

# What the list of pages shows, in groups. A page of docs/ that has no entry comes last.
NAVIGATION = [
    ("Start", [("The promise", "docs/site/index.md"),
               ("Overview", "README.md")]),
    ("Operators", [("Operating korvexd", "docs/daemon.md"),
                   ("Sending", "docs/send.md"),
                   ("Engines", "docs/exec.md"),
                   ("Recipes", "docs/recipes.md"),
                   ("Configuration", "docs/configuration.md"),
                   ("Debian packages", "docs/packages.md"),
                   ("systemd", "docs/systemd.md"),
                   ("Status", "docs/status.md"),
                   ("Verifying", "docs/verify.md"),
                   ("Inspecting", "docs/inspect.md"),
                   ("Monitoring", "docs/monitoring.md"),
                   ("Logs", "docs/logs.md"),
                   ("Scaling", "docs/scaling.md"),
                   ("Troubleshooting", "docs/troubleshooting.md")]),
    ("Programmers", [("Writing a producer", "docs/producers.md"),
                     ("Writing a daemon", "docs/receiver.md"),
                     ("The platform library", "docs/platform.md"),
                     ("Server settings", "docs/server-info.md"),
                     ("Identifiers", "docs/identifiers.md"),
                     ("Logger", "docs/logger.md")]),
    ("Reference", [("Manual pages", "man/index.html"),
                   ("API", "api/index.html"),
                   ("Wire format", "docs/format.md"),
                   ("Queue object", "docs/queue-object.md")]),
    ("Background", [("Architecture", "docs/architecture.md"),
                    ("Reliability", "docs/reliability.md"),
                    ("Benchmarks", "docs/benchmarks.md"),
                    ("Shapes and rates", "docs/benchmarks-shapes.md"),
                    ("Compatibility", "docs/compatibility.md")]),
    ("Project", [("Changes", "CHANGELOG.md"),
                 ("Quality", "QUALITY.md"),
                 ("Security", "SECURITY.md"),
                 ("Contributing", "CONTRIBUTING.md")]),
]

# Programs and files that pages link to, shown as pages of their own.
LANGUAGES = {".cpp": "cpp", ".h": "cpp", ".toml": "toml", ".yml": "yaml"}

SECTIONS = {"8": "Daemon", "5": "Files", "1": "Commands", "7": "Formats and contracts",
            "3": "Libraries"}


def pandoc(text, form):
    run = subprocess.run(["pandoc", "--from", form, "--to", "html5", "--wrap", "none"],
                         input=text, capture_output=True, encoding="utf-8", check=False)
    if run.returncode != 0:
        raise SystemExit(run.stderr)
    return run.stdout


def plain(markup):
    return html.unescape(re.sub(r"<[^>]+>", "", markup)).strip()


class Page:
    """One page before it has its frame. `source` is its path in the tree, for the links on it."""

    def __init__(self, path, body, source="", kind="guide"):
        self.path = path
        self.body = body
        self.source = source
        self.kind = kind

    def up(self):
        return "../" * self.path.count("/")

    def title(self):
        found = re.search(r"<h1[^>]*>(.*?)</h1>", self.body, re.S)
        return plain(found[1]) if found else self.path


class Site:
    """All pages, and where the files of the tree are found among them."""

    def __init__(self, version):
        self.version = version
        self.template = string.Template((FOLDER / "page.html").read_text(encoding="utf-8"))
        self.pages = {}
        self.files = set()     # that are copied as they are
        self.wanted = []       # files of the tree that pages link to
        self.reference = api.Reference(lambda name: f"/api/{name}.html")
        self.manuals = {}      # "korvexd(8)": path

    # Where things go.

    def path_of(self, source):
        """Of a file of the tree."""
        if source == "docs/site/index.md":
            return "index.html"
        if source.endswith(".md"):
            return pathlib.Path(source).stem.lower() + ".html"
        if source.endswith(".svg"):
            return source.removeprefix("docs/")
        if source.endswith(".html"):
            return source
        return f"files/{source}.html"

    def add(self, page):
        self.pages[page.path] = page

    def link(self, page, target):
        """A link as it is written on a page, as it must be on the site."""
        if re.match(r"[a-z]+:|#", target):
            return target
        target, mark, anchor = target.partition("#")
        if target.startswith("/"):
            path = target[1:]
        else:
            source = os.path.normpath(os.path.join(os.path.dirname(page.source), target))
            if not (ROOT / source).is_file():
                raise SystemExit(f"{page.source}: links to {target}, which does not exist")
            path = self.path_of(source)
            if path.startswith("files/"):
                self.wanted.append(source)
            elif path.endswith(".svg"):
                self.files.add(source)
        return os.path.relpath(path, os.path.dirname(page.path) or ".") + mark + anchor

    # What is on them.

    def read_guide(self):
        listed = [source for _, group in NAVIGATION for _, source in group]
        others = {f"docs/{path.name}" for path in (ROOT / "docs").glob("*.md")} - set(listed)
        NAVIGATION[-2][1].extend((source, source) for source in sorted(others))
        sources = [source for source in [*listed, *sorted(others)]
                   if source.endswith(".md") and (ROOT / source).is_file()
                   and source != "docs/site/index.md"]
        texts = [(ROOT / source).read_text(encoding="utf-8") for source in sources]
        for source, body in zip(sources, in_parallel(lambda text: pandoc(text, "gfm"), texts)):
            self.add(Page(self.path_of(source), body, source))
        start = pandoc((FOLDER / "index.md").read_text(encoding="utf-8"), "markdown")
        picture = "".join((FOLDER / f"promise-{kind}.svg").read_text(encoding="utf-8")
                          for kind in ("wide", "narrow"))
        self.add(Page("index.html", start.replace("<!-- picture -->", picture),
                      "docs/site/index.md", "start"))

    def read_manuals(self):
        sources = sorted((ROOT / "docs" / "man").glob("*.md"))
        bodies = in_parallel(lambda path: pandoc(man.source_of(path), "gfm+definition_lists"),
                             sources)
        summaries = {}
        for path, body in zip(sources, bodies):
            name, section = path.stem.rsplit(".", 1)
            manual = f"{name}({section})"
            first = re.match(r"<h1[^>]*>NAME</h1>\s*<p>.*? - (.*?)</p>", body, re.S)
            # A man page's headings are sections of the page here.
            body = re.sub(r"<(/?)h([123])\b", lambda tag: f"<{tag[1]}h{int(tag[2]) + 1}",
                          body[first.end():])
            summaries[manual] = first[1]
            self.manuals[manual] = f"man/{name}.{section}.html"
            # The sections that it takes from the guide have the guide's links.
            self.add(Page(self.manuals[manual], f"<h1>{manual}</h1>\n<p>{first[1]}</p>\n{body}",
                          "docs/daemon.md"))
        self.add(Page("man/index.html", self.list_of_manuals(summaries)))
        self.manuals.update((f"{page.name}(3)", f"api/{page.name}.html")
                            for page in self.reference.pages)

    def list_of_manuals(self, summaries):
        body = "<h1>Manual pages</h1>\n<p>Installed, they are read with <code>man</code>.</p>\n"
        for section, title in SECTIONS.items():
            items = "".join(entry(f"/{self.manuals[manual]}", manual, summary)
                            for manual, summary in summaries.items() if f"({section})" in manual)
            body += f'<h2 id="section-{section}">{title}</h2>\n<dl>\n{items}</dl>\n'
        return body + ("<p>The classes have man pages, too, with the content of the "
                       '<a href="/api/index.html">API pages</a>: <code>man korvex-ShmWriter</code>.'
                       "</p>\n")

    def read_api(self):
        summaries = man.listed(self.reference)
        for page in self.reference.pages:
            self.add(Page(f"api/{page.name}.html", self.header(page, summaries[page.name])))
        body = "<h1>API</h1>\n<p>One page for each public header.</p>\n"
        places = list(summaries)
        for library, title in zip(api.LIBRARIES, ["For producers", "For daemons", "The platform"]):
            pages = [page for page in self.reference.pages if page.library == library]
            items = "".join(entry(f"/api/{page.name}.html", page.stem, summaries[page.name])
                            for page in sorted(pages, key=lambda page: places.index(page.name)))
            body += f'<h2 id="{library[3]}">{title}</h2>\n<dl>\n{items}</dl>\n'
        self.add(Page("api/index.html", body))

    def header(self, page, summary):
        """What a header declares."""
        _, _, target, package = page.library
        sections = list(self.reference.sections(page))
        described = sections[0][0] == "Description"
        body = (f"<h1>{page.stem}</h1>\n{'' if described else f'<p>{summary}</p>'}\n"
                f"<pre><code>#include &lt;{page.include}&gt;</code></pre>\n"
                f'<p class="uses">CMake <code>{target}</code>, pkg-config '
                f"<code>{package}</code></p>\n{sections[0][1] if described else ''}")
        for title, section in sections[described:]:
            name = re.sub(r"\W+", "-", title.lower()).strip("-")
            body += f'<h2 id="{name}">{title}</h2>\n{section}\n'
        return body

    def read_files(self):
        for source in sorted(set(self.wanted)):
            text = (ROOT / source).read_text(encoding="utf-8")
            language = LANGUAGES.get(pathlib.Path(source).suffix, "")
            body = f"<h1>{source}</h1>\n" + pandoc(f"````{language}\n{text}````\n", "gfm")
            self.add(Page(self.path_of(source), body, source))

    # How they look.

    def navigation(self, page):
        out = ""
        for title, group in NAVIGATION:
            entries = ""
            for name, source in group:
                path = self.path_of(source)
                if path in self.pages or path in ("man/index.html", "api/index.html"):
                    here = " aria-current=\"page\"" if path == page.path else ""
                    entries += f'<li><a href="{page.up()}{path}"{here}>{name}</a></li>\n'
            out += f"<section><h2>{title}</h2>\n<ul>\n{entries}</ul></section>\n"
        return out

    def contents(self, page):
        """The sections of a page, unless there are too few to need a list."""
        found = re.findall(r'<h([23])[^>]* id="([^"]+)"[^>]*>(.*?)</h\1>|'
                           r'<span class="declared" id="([^"]+)"', page.body, re.S)
        found = [("3", place, place) if place else (level, name, title)
                 for level, name, title, place in found]
        if page.kind == "start" or len(found) < 3:
            return ""
        kinds = {"2": "", "3": ' class="deeper"'}
        entries = "".join(f'<li{kinds[level]}><a href="#{name}">{plain(title)}</a></li>\n'
                          for level, name, title in found)
        return ("<nav class=\"contents\" aria-label=\"On this page\">\n<h2>On this page</h2>\n"
                f"<ul>\n{entries}</ul>\n</nav>")

    def finished(self, page):
        body = re.sub(r'\b(href|src)="([^"]*)"',
                      lambda found: f'{found[1]}="{self.link(page, found[2])}"', page.body)
        body = re.sub(r'(<a href="([^"#]+)[^"]*">)[\w./-]+\.md(?=</a>)',
                      lambda found: found[1] + self.title_of(page, found[2]), body)
        body = re.sub(r"<strong>([\w.-]+)</strong>\((\d)\)",
                      lambda found: self.manual_link(page, found), body)
        body = re.sub(r'<h([234])([^>]* id="([^"]+)"[^>]*)>(.*?)</h\1>',
                      r'<h\1\2>\4<a class="anchor" href="#\3" aria-label="Link">#</a></h\1>',
                      body, flags=re.S)
        body = re.sub(r"(?<!<pre>)<code>([^<]*)</code>", unbroken, body)
        body = re.sub(r"<table.*?</table>", in_frame, body, flags=re.S)
        return self.template.substitute(
            title=html.escape(page.title()) + ("" if page.kind == "start" else " · korvex"),
            description=html.escape(page.title()), root=page.up(), version=self.version,
            kind=page.kind, navigation=self.navigation(page), body=body,
            contents=self.contents(page))

    def title_of(self, page, target):
        """What a link says that had a file's name in the tree."""
        path = os.path.normpath(os.path.join(os.path.dirname(page.path), target))
        return self.pages[path].title()

    def manual_link(self, page, found):
        path = self.manuals.get(f"{found[1]}({found[2]})")
        if not path:
            return found[0]
        here = os.path.relpath(path, os.path.dirname(page.path) or ".")
        return f'<a href="{here}">{found[1]}({found[2]})</a>'

    def write(self, output):
        for page in list(self.pages.values()):   # finds the files that are linked to
            self.finished(page)
        self.read_files()
        for page in self.pages.values():
            place = output / page.path
            place.parent.mkdir(parents=True, exist_ok=True)
            place.write_text(self.finished(page), encoding="utf-8")
        for source in sorted(self.files):
            place = output / self.path_of(source)
            place.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(ROOT / source, place)
        shutil.copyfile(FOLDER / "style.css", output / "style.css")


def unbroken(code):
    """Inline code with words that a line's end does not take apart at a hyphen."""
    return "<code>" + re.sub(r"[^ ]{0,24}-[^ ]{0,24}(?= |$)", r'<span class="word">\g<0></span>',
                             code[1]) + "</code>"


def in_frame(table):
    """A table that may be wider than the page."""
    columns = len(re.findall(r"<th[ >]", table[0]))
    pair = ' class="pair"' if columns == 2 else ""
    return f'<div class="scroll"><table{pair}{table[0].removeprefix("<table")}</div>'


def entry(target, name, summary):
    return f'<dt><a href="{target}">{name}</a></dt><dd>{summary}</dd>\n'


def in_parallel(work, items):
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        return list(pool.map(work, items))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--version", required=True)
    parser.add_argument("output", type=pathlib.Path)
    arguments = parser.parse_args()
    site = Site(arguments.version)
    site.read_guide()
    site.read_manuals()
    site.read_api()
    shutil.rmtree(arguments.output, ignore_errors=True)
    site.write(arguments.output)
    print(f"{len(site.pages)} pages in {arguments.output}")


if __name__ == "__main__":
    main()
