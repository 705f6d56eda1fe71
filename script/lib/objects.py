"""What the checks know of a build: the objects of the libraries, found by their sources, and their symbols."""

import json
import pathlib
import re
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent


def library_objects(build):
    """{source below the root: object file} for every source of Src and foundation; ends the program if one is not
    there: a folder that was renamed must not hide any."""
    sources = {path for folder in ("Src", "foundation") for path in (ROOT / folder).rglob("*.cpp")}
    objects = {}
    for command in json.loads((ROOT / build / "compile_commands.json").read_text()):
        source = pathlib.Path(command["file"])
        words = shlex.split(command["command"])
        output = words[words.index("-o") + 1]
        # The debug server's door is compiled twice, the second time for a test.
        if source in sources and "r3_open_door" not in output:
            objects[str(source.relative_to(ROOT))] = pathlib.Path(command["directory"]) / output
    missing = [str(path.relative_to(ROOT)) for path in sorted(sources) if str(path.relative_to(ROOT)) not in objects]
    missing += [source for source, path in objects.items() if not path.is_file()]
    if missing or not objects:
        sys.exit(f"{build}: not compiled there: {' '.join(missing) or 'anything'}")
    return objects


def symbols(path, demangle=False):
    """(kind, name) of every symbol of an object, the kind as nm(1) has it."""
    words = ["nm", "--demangle", path] if demangle else ["nm", path]
    text = subprocess.run(words, check=True, capture_output=True, text=True).stdout
    for line in text.splitlines():
        match = re.match(r"(?:[0-9a-f]+)?\s+(\w) (.+)", line)
        if match:
            yield match[1], match[2]
