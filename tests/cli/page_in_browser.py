#!/usr/bin/env python3
"""Looks at the pages of `mireltoken doctor` and `conformance`: they are well-formed, and do not scroll sideways.

usage: page_in_browser.py MIRELTOKEN     exit code 77: there is no browser
"""

import html
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree

WIDTHS = (400, 1200)
BROWSERS = ("chromium", "chromium-browser", "google-chrome")
# The page stands in a frame: the window itself cannot be as narrow as a phone.
FRAME = """<!DOCTYPE html><title>not loaded</title>
<iframe srcdoc="{page}" style="border:0;width:{width}px;height:800px"></iframe>
<script>
addEventListener("load", () => {{
  const page = document.querySelector("iframe").contentDocument;
  const all = [...page.querySelectorAll("body *")].map(e => e.getBoundingClientRect().right);
  const needed = Math.max(page.documentElement.scrollWidth, Math.floor(Math.max(...all)));
  document.title = needed + " of " + page.documentElement.clientWidth;
}});
</script>"""


def page_of(program, command, folder):
    # A name that cannot be broken at a blank.
    module = folder / ("m" * 200 + ".so")
    file = folder / "page.html"
    run = subprocess.run([program, "--module", module, command, "--html", file], capture_output=True, text=True)
    if run.returncode != 20:
        raise SystemExit(f"the examination ended with {run.returncode}: {run.stderr}")
    return file.read_text(encoding="utf-8")


def widths_of(browser, page, width, folder):
    frame = folder / "frame.html"
    frame.write_text(FRAME.format(page=html.escape(page), width=width), encoding="utf-8")
    command = [browser, "--headless", "--no-sandbox", "--disable-gpu", f"--user-data-dir={folder}/profile",
               f"--window-size={max(WIDTHS) + 100},900", "--virtual-time-budget=5000", "--dump-dom", frame.as_uri()]
    document = subprocess.run(command, capture_output=True, text=True, timeout=120).stdout
    found = re.search(r"<title>(\d+) of (\d+)</title>", document)
    if not found:
        raise SystemExit(f"the browser did not load the page: {document[:200]}")
    return int(found[1]), int(found[2])


def main():
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        pages = [page_of(sys.argv[1], command, folder) for command in ("doctor", "conformance")]
        roots = [xml.etree.ElementTree.fromstring(page) for page in pages]
        if not roots[0].findall(".//{*}svg"):
            raise SystemExit("the page of doctor has no picture")
        browser = next(filter(None, map(shutil.which, BROWSERS)), None)
        if not browser:
            print("skipped: there is no browser (Debian: apt-get install chromium)")
            sys.exit(77)
        for page in pages:
            for width in WIDTHS:
                needed, shown = widths_of(browser, page, width, folder)
                print(f"at {width} pixels: {needed} needed, {shown} shown")
                if needed > shown:
                    raise SystemExit("the page scrolls sideways")


if __name__ == "__main__":
    main()
