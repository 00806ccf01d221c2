#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""How each source would be compiled by itself, for tools that read one source at a time.

    scripts/single_sources.py BUILD FOLDER

Writes FOLDER/compile_commands.json from the one in BUILD, in which a source that CMake made
of several others is an entry of its own.
"""
import json
import pathlib
import re
import sys


def singles(entry):
    """The entries of what `entry` includes, or `entry` where it is no such source."""
    made = pathlib.Path(entry["file"])
    if made.parent.name != "Unity":
        return [entry]
    included = re.findall(r'^#include "(.+)"$', made.read_text(), re.MULTILINE)
    return [
        {**entry, "file": source, "command": entry["command"].replace(str(made), source)}
        for source in included
    ]


def main():
    build, folder = map(pathlib.Path, sys.argv[1:])
    entries = json.loads((build / "compile_commands.json").read_text())
    folder.mkdir(exist_ok=True)
    expanded = [single for entry in entries for single in singles(entry)]
    (folder / "compile_commands.json").write_text(json.dumps(expanded, indent=1))


if __name__ == "__main__":
    main()
