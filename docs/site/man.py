#!/usr/bin/env python3
"""man.py --version VERSION OUTPUT: the man pages, from docs/man, the guide and the public headers.

A page of docs/man takes a section of the guide by a line `<!-- from PAGE.md#section -->`: what
stands between that heading and the next one, or with `and below` the sections in it, too. Without a
section it takes what stands above the first one. So each fact is written once.
"""

import argparse
import concurrent.futures
import os
import pathlib
import re
import subprocess

import api

FOLDER = pathlib.Path(__file__).resolve().parent
DOCS = FOLDER.parent
INCLUDE = re.compile(r"^<!-- from (\S+\.md)(?:#(\S+))?( and below)? -->$", re.M)
HEADING = re.compile(r"^(#+) (.*)$")
LISTED = re.compile(r"^\*\*(\S+)\*\*\((\d)\)\n:   (.*(?:\n    .*)*)$", re.M)

# Where the guide names one of its own pages by its file name, the man page with the same content.
MANUALS = {"daemon.md": "korvexd(8)", "configuration.md": "korvexd.toml(5)",
           "exec.md": "korvex-exec(7)", "format.md": "korvex-format(7)",
           "send.md": "korvex-send(1)", "status.md": "korvex-status(1)",
           "inspect.md": "korvex-inspect(1)", "verify.md": "korvex-verify(1)",
           "monitoring.md": "METRICS of korvexd(8)", "logs.md": "LOG of korvexd(8)"}


def anchor(heading):
    """As the places where Markdown is usually shown make it of a heading."""
    words = re.sub(r"[^\w\- ]", "", heading.lower())
    return words.strip().replace(" ", "-")


def headings(lines):
    """(line, level, title) of each, but for what looks like one in a fenced block."""
    fenced = False
    for number, line in enumerate(lines):
        fenced ^= line.startswith("```")
        found = None if fenced else HEADING.match(line)
        if found:
            yield number, len(found[1]), found[2]


def section(page, wanted, and_below):
    """The text of one section of a guide's page. Sections in it begin at a man page's level 2."""
    lines = (DOCS / page).read_text(encoding="utf-8").splitlines()
    found = list(headings(lines)) + [(len(lines), 0, "")]
    starts = [place for place, (_, level, title) in enumerate(found)
              if (level == 1 if wanted is None else anchor(title) == wanted)]
    if not starts:
        raise SystemExit(f"docs/{page} has no section '{wanted}'")
    start, level, _ = found[starts[0]]
    later = found[starts[0] + 1:]
    end = next(line for line, other, _ in later if other <= level or not and_below)
    for line, other, title in later:
        if line < end:
            lines[line] = "#" * (other - level + 1) + " " + title
    text = "\n".join(lines[start + 1:end])
    # A page may begin with what is the synopsis of a man page.
    return text if wanted else re.sub(r"^\n(    korvex .*\n)+", "", text)


def source_of(path):
    """A page of docs/man with what it takes from the guide."""
    return INCLUDE.sub(lambda found: section(found[1], found[2], found[3]),
                       path.read_text(encoding="utf-8"))


def listed(reference):
    """What korvex(3) says of each page that is made of a header."""
    text = (DOCS / "man" / "korvex.3.md").read_text(encoding="utf-8")
    summaries = {name: " ".join(summary.split()) for name, _, summary in LISTED.findall(text)}
    headers = {page.name for page in reference.pages}
    if headers != set(summaries):
        raise SystemExit(f"docs/man/korvex.3.md lacks {sorted(headers - set(summaries))}, "
                         f"and lists {sorted(set(summaries) - headers)}, which no header is for")
    return summaries


def class_page(reference, page, summaries):
    """HTML of a header's man page."""
    _, _, target, package = page.library
    out = (f"<h1>NAME</h1><p>{page.name} - {summaries[page.name]}</p>"
           f"<h1>SYNOPSIS</h1><pre><code>#include &lt;{page.include}&gt;</code></pre>"
           f"<p>CMake: <code>{target}</code>, pkg-config: <code>{package}</code></p>")
    for title, body in reference.sections(page):
        out += f"<h1>{title.upper() if ':' not in title else title}</h1>{body}"
    return out + "<h1>SEE ALSO</h1><p><strong>korvex</strong>(3)</p>"


def sources():
    """(name, section, format, text) of every man page."""
    for path in sorted((DOCS / "man").glob("*.md")):
        name, number = path.stem.rsplit(".", 1)
        yield name, number, "gfm+definition_lists", source_of(path)
    reference = api.Reference()
    summaries = listed(reference)
    for page in reference.pages:
        yield page.name, "3", "html", class_page(reference, page, summaries)


def as_roff(source, version):
    name, number, form, text = source
    command = ["pandoc", "--from", form, "--to", "man", "--standalone",
               "--lua-filter", FOLDER / "man.lua", "--metadata", f"title={name.upper()}",
               "--variable", f"section={number}", "--variable", f"footer=korvex {version}",
               "--variable", f"date={date_of_pages()}"]
    for page, manual in MANUALS.items():
        place = manual.replace(f" of {name}({number})", " below")
        place = "see above" if place == f"{name}({number})" else place
        command += ["--variable", f"{page}={place}"]
    run = subprocess.run(command, input=text, capture_output=True, encoding="utf-8", check=False)
    if run.returncode != 0:
        raise SystemExit(f"{name}({number}): {run.stderr}")
    return tidied(run.stdout)


def tidied(roff):
    """What pandoc writes, in the dialect that every formatter of man pages knows."""
    # Terminals have no typewriter font: words stand out in bold, blocks by their indentation.
    roff = re.sub(r"^\\f\[C\]\n", "", roff, flags=re.M)
    roff = re.sub(r"^\\f\[R\]\n(?=\.fi)", "", roff, flags=re.M)
    roff = re.sub(r"\\f\[VB?\]", r"\\f[B]", roff)
    roff = roff.replace("\n.hy\n", "\n.nh\n.ad l\n", 1)
    # A line break that keeps the indentation.
    roff = roff.replace("\n.PD 0\n.P\n.PD\n", "\n.br\n")
    # A text block is for cells that are to be broken.
    roff = re.sub(r"^\.TS.*?^\.TE", lambda table: table[0] if "w(" in table[0] else
                  re.sub(r"T\{\n(.*)\nT\}", r"\1", table[0]), roff, flags=re.M | re.S)
    # A heading starts a paragraph; mandoc complains of a second one.
    return re.sub(r"^(\.S[HS] .*)\n\.PP$", r"\1", roff, flags=re.M)


def date_of_pages():
    """One date for all pages, or two builds of the same sources would differ."""
    return (FOLDER / "date").read_text().strip()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--version", required=True)
    parser.add_argument("output", type=pathlib.Path)
    arguments = parser.parse_args()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        pages = list(sources())
        texts = pool.map(lambda source: as_roff(source, arguments.version), pages)
        for (name, number, _, _), text in zip(pages, texts):
            folder = arguments.output / f"man{number}"
            folder.mkdir(parents=True, exist_ok=True)
            (folder / f"{name}.{number}").write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
