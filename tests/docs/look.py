#!/usr/bin/env python3
"""look.py SITE PICTURES: opens every page in Chromium at three widths, light and dark, and
complains of anything wider than the window, text with too little contrast, errors on the console,
and requests that leave the folder. Pictures of some pages go to PICTURES.

Exits with 77 where there is no Chromium.
"""

import base64
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

WIDTHS = [360, 820, 1440]
SCHEMES = ["light", "dark"]
PHOTOGRAPHED = ["index.html", "daemon.html", "benchmarks.html", "recipes.html",
                "man/korvex-send.1.html", "api/korvex-ShmWriter.html"]

# WCAG 2.1, 1.4.3: 4.5, or 3 for large text. Text in front of a picture counts against the shapes
# below it. Hidden text does not count.
MEASURE = r"""
(() => {
  const channels = text => (text.match(/[\d.]+/g) || []).map(Number);
  const light = ([r, g, b]) => [r, g, b].map(c => c / 255)
      .map(c => c <= 0.03928 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4)
      .reduce((sum, c, i) => sum + c * [0.2126, 0.7152, 0.0722][i], 0);
  const opaque = c => c.length >= 3 && (c.length < 4 || c[3] === 1);
  const painted = element => {
    const style = getComputedStyle(element);
    const shape = element.ownerSVGElement && !['g', 'text', 'tspan'].includes(element.tagName);
    return channels(shape ? style.fill : style.backgroundColor);
  };
  const behind = (element, box) => {
    if (element.ownerSVGElement) {
      const stack = document.elementsFromPoint(box.left + box.width / 2, box.top + box.height / 2);
      const shape = stack.find(e => opaque(painted(e)));
      if (shape) return painted(shape);
    }
    for (let e = element; e; e = e.parentElement) {
      if (!e.ownerSVGElement && opaque(painted(e))) return painted(e);
    }
    return [255, 255, 255];
  };
  const faint = [];
  const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  let texts = 0, least = 21;
  for (let node = walker.nextNode(); node; node = walker.nextNode()) {
    if (!node.data.trim()) continue;
    const element = node.parentElement;
    if (!element.checkVisibility({checkOpacity: true, checkVisibilityCSS: true})) continue;
    const range = document.createRange();
    range.selectNodeContents(node);
    const box = range.getBoundingClientRect();
    if (box.width === 0 || box.height === 0 || box.right < 0) continue;
    const style = getComputedStyle(element);
    const ink = channels(element.ownerSVGElement ? style.fill : style.color);
    const [high, low] = [light(ink), light(behind(element, box))].sort((a, b) => b - a);
    const ratio = (high + 0.05) / (low + 0.05);
    const size = parseFloat(style.fontSize);
    const large = size >= 24 || (size >= 18.66 && Number(style.fontWeight) >= 700);
    texts += 1;
    least = Math.min(least, ratio);
    if (ratio < (large ? 3 : 4.5)) {
      faint.push(`contrast ${ratio.toFixed(2)} of '${node.data.trim().slice(0, 40)}'`);
    }
  }
  const root = document.documentElement;
  const wide = root.scrollWidth > root.clientWidth ? [...document.body.querySelectorAll('*')]
      .filter(e => e.getBoundingClientRect().right > root.clientWidth + 1).slice(0, 3)
      .map(e => `<${e.tagName.toLowerCase()} class="${e.getAttribute('class') || ''}">`) : null;
  return JSON.stringify({faint, wide, texts, least, height: root.scrollHeight});
})()
"""


class Browser:
    """Chromium, spoken to through a pair of pipes: messages end with a NUL."""

    def __init__(self, profile):
        to_browser, self.out = os.pipe()
        self.inp, from_browser = os.pipe()

        def descriptors():   # it reads 3 and writes 4
            saved = os.dup(to_browser), os.dup(from_browser)
            os.dup2(saved[0], 3)
            os.dup2(saved[1], 4)

        self.process = subprocess.Popen(
            [shutil.which("chromium"), "--headless=new", "--no-sandbox", "--disable-gpu",
             "--hide-scrollbars", "--remote-debugging-pipe", "--no-first-run",
             "--disable-background-networking", "--disable-dev-shm-usage",
             f"--user-data-dir={profile}", "about:blank"],
            preexec_fn=descriptors, close_fds=False, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self.number, self.rest, self.events, self.session = 0, b"", [], None
        target = self.ask("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.ask("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network"):
            self.ask(f"{domain}.enable")

    def message(self):
        while b"\0" not in self.rest:
            more = os.read(self.inp, 1 << 20)
            if not more:
                sys.exit("Chromium ended")
            self.rest += more
        text, _, self.rest = self.rest.partition(b"\0")
        return json.loads(text)

    def ask(self, method, **parameters):
        self.number += 1
        request = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            request["sessionId"] = self.session
        os.write(self.out, json.dumps(request).encode() + b"\0")
        while True:
            answer = self.message()
            if answer.get("id") == self.number:
                if "error" in answer:
                    sys.exit(f"{method}: {answer['error']['message']}")
                return answer["result"]
            self.events.append(answer)

    def open(self, path):
        self.events.clear()
        self.ask("Page.navigate", url=path.as_uri())
        while not any(event.get("method") == "Page.loadEventFired" for event in self.events):
            self.events.append(self.message())

    def measure(self, width, scheme):
        self.ask("Emulation.setEmulatedMedia",
                 features=[{"name": "prefers-color-scheme", "value": scheme}])
        height = 900
        for _ in range(2):   # the second time with all of the page in view
            self.ask("Emulation.setDeviceMetricsOverride", width=width, height=height,
                     deviceScaleFactor=1, mobile=False)
            text = self.ask("Runtime.evaluate", expression=MEASURE)["result"]["value"]
            found = json.loads(text)
            if height >= min(found["height"], 16000):
                break
            height = min(found["height"], 16000)
        return found

    def picture(self, width, file):
        self.ask("Emulation.setDeviceMetricsOverride", width=width, height=1000,
                 deviceScaleFactor=1, mobile=False)
        data = self.ask("Page.captureScreenshot", format="png")["data"]
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(base64.b64decode(data))

    def complaints(self):
        """What came with the last page."""
        for event in self.events:
            method, found = event.get("method"), event.get("params", {})
            if method == "Runtime.exceptionThrown":
                yield f"exception: {found['exceptionDetails']['text']}"
            elif method == "Runtime.consoleAPICalled" and found["type"] in ("error", "warning"):
                yield f"console: {found['args']}"
            elif method == "Log.entryAdded" and found["entry"]["level"] in ("error", "warning"):
                yield f"log: {found['entry']['text']} {found['entry'].get('url', '')}"
            elif method == "Network.requestWillBeSent":
                address = found["request"]["url"]
                if not address.startswith(("file:", "data:")):
                    yield f"asks for {address}"

    def close(self):
        self.session = None
        self.ask("Browser.close")
        self.process.wait()


def look_at(browser, path, site, pictures):
    """(complaint for people, texts measured, least contrast) of each look at one page."""
    name = str(path.relative_to(site))
    browser.open(path)
    for width in WIDTHS:
        for scheme in SCHEMES:
            found = browser.measure(width, scheme)
            if name in PHOTOGRAPHED:
                plain = name.removesuffix(".html").replace("/", "-")
                browser.picture(width, pictures / f"{plain}-{width}-{scheme}.png")
            wrong = sorted(set(found["faint"]))[:5]
            if found["wide"] is not None:
                wrong.append(f"wider than the window: {', '.join(found['wide'])}")
            yield ([f"{name}, {width} pixels, {scheme}: {what}" for what in wrong],
                   found["texts"], found["least"])
    yield [f"{name}: {what}" for what in browser.complaints()], 0, 21


def main():
    site, pictures = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2])
    if not shutil.which("chromium"):
        print("skipped: chromium is not installed")
        sys.exit(77)
    paths = sorted(site.rglob("*.html"))
    wrong, texts, least = [], 0, 21
    with tempfile.TemporaryDirectory() as profile:
        browser = Browser(profile)
        for path in paths:
            for complaints, measured, ratio in look_at(browser, path, site, pictures):
                wrong += complaints
                texts += measured
                least = min(least, ratio)
        browser.close()
    print("\n".join(wrong) if wrong else
          f"{len(paths)} pages at {WIDTHS} pixels, light and dark: {texts} texts, least contrast "
          f"{least:.2f}")
    sys.exit(1 if wrong or not paths else 0)


if __name__ == "__main__":
    main()
