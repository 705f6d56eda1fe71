#!/usr/bin/python3
"""Doxygen's filter. For our pages: gives each heading the name that links to it use elsewhere, which this doxygen
does not make by itself, and turns links between pages into references to those. For headers: what comments say of line
ends is not a command."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent


def slug(title):
    """The name of a heading as the web pages of repositories have it."""
    text = re.sub(r"\[([^]]*)\]\([^)]*\)", r"\1", title).replace("`", "").strip().lower()
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


def page_name(path):
    return re.sub(r"\W", "_", str(path.relative_to(ROOT)))


def filtered(path):
    seen = {}
    in_code = False
    for number, line in enumerate(path.read_text().split("\n")):
        if line.startswith("```"):
            in_code = not in_code
        if in_code or line.startswith("    "):
            yield line
            continue
        heading = re.match(r"(#+) (.*)", line)
        if heading:
            name = slug(heading[2])
            count = seen.get(name, 0)
            seen[name] = count + 1
            anchor = page_name(path) + ("" if number == 0 else "-" + name + (f"-{count}" if count else ""))
            yield f"{line} {{#{anchor}}}"
            continue
        line = re.sub(r"`(::[^`]*)`", r"<code>&#58;&#58;\1</code>", line).replace("&#58;&#58;::", "&#58;&#58;")
        yield re.sub(r"(?<!!)\[([^]]*)\]\(([^)\s]+)\)", lambda link: linked(path, link), line)


def linked(path, link):
    """A link into this page or another one becomes a reference; any other file is named, since it is not on the site."""
    text, target = link[1], link[2]
    if "://" in target:
        return link[0]
    file, _, heading = target.partition("#")
    page = (path.parent / file).resolve() if file else path
    if page.suffix == ".md" and page.is_relative_to(ROOT) and page in pages():
        anchor = page_name(page) + ("-" + heading if heading else "")
        return f"@ref {anchor} \"{text}\""
    return text


def pages():
    return {ROOT / "README.md", *(ROOT / "docs").glob("*.md"), *(ROOT / "docs/bench").glob("*.md")}


def header(path):
    for line in path.read_text().split("\n"):
        code, mark, comment = line.partition("///")
        yield code + mark + re.sub(r"\\([rn])\b", r"\\\\\1", comment)


path = pathlib.Path(sys.argv[1]).resolve()
print("\n".join(header(path) if path.suffix == ".h" else filtered(path)), end="")
