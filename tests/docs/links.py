#!/usr/bin/env python3
"""links.py SITE: every link leads somewhere, to a place that exists on its page; every page can be
reached from the first one; nothing is loaded from elsewhere."""

import html.parser
import pathlib
import re
import sys
import urllib.parse

LOADED = {"img": "src", "script": "src", "link": "href", "iframe": "src", "source": "src",
          "video": "src", "audio": "src", "object": "data", "embed": "src"}


class Page(html.parser.HTMLParser):
    """The places on a page, where its links lead, and what it loads."""

    def __init__(self, path):
        super().__init__()
        self.path = path
        self.places, self.twice, self.links, self.loaded = {"", "top"}, [], [], []
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attrs):
        attributes = dict(attrs)
        if "id" in attributes:
            self.twice += [attributes["id"]] if attributes["id"] in self.places else []
            self.places.add(attributes["id"])
        if tag == "a" and "href" in attributes:
            self.links.append(attributes["href"])
        if tag in LOADED and LOADED[tag] in attributes:
            self.loaded.append(attributes[LOADED[tag]])
        self.loaded += re.findall(r"url\(['\"]?([^)'\"#][^)'\"]*)", attributes.get("style", ""))


def target_of(page, link):
    """The file and the place that a link leads to; none for another site."""
    parts = urllib.parse.urlsplit(link)
    if parts.scheme or parts.netloc:
        return None
    path = urllib.parse.unquote(parts.path)
    file = (page.path.parent / path).resolve() if path else page.path
    return file, urllib.parse.unquote(parts.fragment)


def complaints_of(page, pages, site):
    for name in page.twice:
        yield f"the place #{name} is there twice"
    for link in page.links:
        target = target_of(page, link)
        if target is None:
            if not link.startswith("https://"):
                yield f"leads to {link}, expected https"
        elif target[0] in pages:
            if target[1] not in pages[target[0]].places:
                yield f"leads to {link}, but that page has no place #{target[1]}"
        elif not target[0].is_file() or site not in target[0].parents:
            yield f"leads to {link}, which is not part of the site"
    for resource in page.loaded:
        target = target_of(page, resource)
        if target is None and not resource.startswith("data:"):
            yield f"loads {resource} from elsewhere"
        elif target and not target[0].is_file():
            yield f"loads {resource}, which does not exist"


def reached_from(start, pages):
    reached, waiting = {start}, [start]
    while waiting:
        page = pages[waiting.pop()]
        targets = [target_of(page, link) for link in page.links]
        found = {target[0] for target in targets if target and target[0] in pages} - reached
        reached |= found
        waiting += found
    return reached


def main():
    site = pathlib.Path(sys.argv[1]).resolve()
    pages = {path: Page(path) for path in sorted(site.rglob("*.html"))}
    if site / "index.html" not in pages:
        sys.exit(f"{site}: found no index.html")
    found = [f"{page.path.relative_to(site)}: {complaint}"
             for page in pages.values() for complaint in complaints_of(page, pages, site)]
    found += [f"{path.relative_to(site)}: no way leads here from index.html"
              for path in sorted(set(pages) - reached_from(site / "index.html", pages))]
    for sheet in site.rglob("*.css"):
        found += [f"{sheet.relative_to(site)}: loads {resource}" for resource in
                  re.findall(r"@import[^;]*|url\([^)]*\)", sheet.read_text(encoding="utf-8"))]
    print("\n".join(found) if found else
          f"{len(pages)} pages, {sum(len(page.links) for page in pages.values())} links: sound")
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
