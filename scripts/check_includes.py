#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds every include of the project against the arrows in docs/architecture.md.

  scripts/check_includes.py          names each include that no arrow allows

The document's first code block has a line a room, "room -> room room". A room is a
folder, the files that a pattern matches, or one file; {a,b} stands for both names. A
file belongs to the most specific room. It may include files of its own room and of all
rooms that the arrows reach from there. The arrows must not lead in a circle.
"""
import itertools
import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
DOCUMENT = "docs/architecture.md"
# Where the compiler looks for a quoted name, after the folder of the file itself.
INCLUDE_FOLDERS = ["src", "include", "plugins/runtime_qwen35", "plugins/runtime_qwen35_vulkan",
                   "tools/zem", "."]
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+\.h)"', re.MULTILINE)


def expanded(name):
    """'a/{b,c}' as ['a/b', 'a/c']."""
    found = re.fullmatch(r"(.*)\{(.*)\}(.*)", name)
    if not found:
        return [name]
    before, names, after = found.groups()
    return [before + one + after for one in names.split(",")]


def arrows_of(document):
    """The rooms of the first code block, each with the set of rooms beside it."""
    block = re.search(r"^```\n(.*?)^```", document, re.DOTALL | re.MULTILINE)
    if not block:
        raise ValueError(f"{DOCUMENT} has no code block with arrows")
    arrows = {}
    for line in block.group(1).splitlines():
        left, arrow, right = line.partition("->")
        if not arrow:
            raise ValueError(f"{DOCUMENT}: no arrow in the line '{line}'")
        targets = set(itertools.chain.from_iterable(map(expanded, right.split())))
        for room in itertools.chain.from_iterable(map(expanded, left.split())):
            if room in arrows:
                raise ValueError(f"{DOCUMENT}: the room {room} has two lines")
            arrows[room] = targets - {"nothing"}
    for room, targets in arrows.items():
        for target in targets - arrows.keys():
            raise ValueError(f"{DOCUMENT}: {room} points to {target}, which has no line")
    return arrows


def reach_of(arrows, room, path=()):
    """All rooms that the arrows lead to from `room`."""
    if room in path:
        raise ValueError(f"{DOCUMENT}: a circle of arrows: {' -> '.join((*path, room))}")
    found = set(arrows[room])
    for target in arrows[room]:
        found |= reach_of(arrows, target, (*path, room))
    return found


def matches(room, file):
    if "*" in room:
        return re.fullmatch(re.escape(room).replace(r"\*", "[^/]*"), file) is not None
    return file == room or file.startswith(room + "/")


def room_of(arrows, file):
    """The most specific room of the file, or None."""
    rooms = [room for room in arrows if matches(room, file)]
    return max(rooms, key=lambda room: (room == file, "*" in room, len(room)), default=None)


def resolved(files, file, name):
    """The file that `file` includes by that name, or None when it is not the project's."""
    folders = [file.rpartition("/")[0], *INCLUDE_FOLDERS]
    candidates = (name if folder == "." else f"{folder}/{name}" for folder in folders)
    return next((path for path in candidates if path in files), None)


def violations(document, files):
    """A message for each include without an arrow; `files` has the texts by path."""
    arrows = arrows_of(document)
    reach = {room: reach_of(arrows, room) for room in arrows}
    messages = []
    for file, text in files.items():
        room = room_of(arrows, file)
        if room is None:
            messages.append(f"{file}: belongs to no room of {DOCUMENT}")
            continue
        for name in INCLUDE.findall(text):
            included = resolved(files, file, name)
            if included is None:
                continue
            target = room_of(arrows, included)
            if target != room and target not in reach[room]:
                messages.append(f"{file}: includes {included}; "
                                f"{DOCUMENT} has no arrow from {room} to {target}")
    return messages


def check_itself():
    """A wrong include is found, and a right one is not."""
    document = "```\ntop -> mid/*.h\nmid -> mid/*.h low\nmid/*.h -> low\nlow -> nothing\n```\n"
    files = {"top/a.cpp": '#include "mid/b.h"\n#include "low/d.h"\n', "mid/b.h": "",
             "mid/sub/c.h": '#include "mid/b.h"\n', "low/d.h": "#include <vector>\n"}
    assert violations(document, files) == []
    for wrong in [{"low/e.cpp": '#  include "mid/b.h"\n'},
                  {"top/e.cpp": '#include "mid/sub/c.h"\n'},
                  {"mid/e.h": '#include "sub/c.h"\n'},
                  {"elsewhere/e.h": ""}]:
        assert len(violations(document, files | wrong)) == 1, wrong
    for bad in ["```\na -> b\nb -> a\n```\n", "```\na -> c\n```\n", "no block"]:
        try:
            violations(bad, {})
        except ValueError:
            continue
        raise AssertionError(bad)


def main():
    check_itself()
    listed = subprocess.run(
        ["git", "ls-files", "--cached", "--others", "--exclude-standard", "src", "include",
         "plugins", "tools", "engine", "libzem", "server"],
        cwd=ROOT, check=True, capture_output=True, text=True).stdout.split("\n")
    files = {name: (ROOT / name).read_text(encoding="utf-8", errors="replace")
             for name in listed if name.endswith((".h", ".c", ".cpp")) and (ROOT / name).exists()}
    try:
        messages = violations((ROOT / DOCUMENT).read_text(encoding="utf-8"), files)
    except ValueError as error:
        messages = [str(error)]
    for message in messages:
        print(f"check_includes.py: {message}", file=sys.stderr)
    return 1 if messages else 0


if __name__ == "__main__":
    sys.exit(main())
