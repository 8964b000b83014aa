"""The pages of the tree: each link leads to a file and to a heading in it, and the table in front of the known behaviours
has all of them."""

import re

from BundleFilesSupport import Checks, arguments

TABLED = "docs/known-behaviours.md"


def headings(text):
    """The headings of a page, as links name them."""
    without_code = re.sub(r"^(```|~~~).*?^\1", "", text, flags=re.MULTILINE | re.DOTALL)
    titles = re.findall(r"^#+ (.*)$", without_code, re.MULTILINE)
    return [re.sub(r"[^\w\- ]", "", title.lower()).replace(" ", "-") for title in titles]


def links(text):
    return re.findall(r"\]\(([^)\s]+)\)", text)


def main():
    given = arguments()
    checks = Checks()
    pages = [page for page in given.source.rglob("*.md") if page.relative_to(given.source).parts[0] != "build"]
    checks.true("there are pages", len(pages) > 10)
    for page in pages:
        for link in links(page.read_text(encoding="utf-8")):
            file, _, heading = link.partition("#")
            target = page.parent / file if file else page
            if "://" in link:
                continue
            checks.true(f"{page}: there is {file}", target.exists())
            if heading and target.is_file():
                checks.true(f"{page}: there is {link}", heading in headings(target.read_text(encoding="utf-8")))

    text = (given.source / TABLED).read_text(encoding="utf-8")
    table = text.partition("\n## ")[0]
    checks.equal(f"{TABLED}: entries of the table", sorted(links(table)), sorted(f"#{name}" for name in headings(text)[1:]))
    checks.finish()


if __name__ == "__main__":
    main()
