#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Names what to lint for some sources: a build compiles several sources as one unit, and a unit
reads the headers that they share once.

  lint_units.py BUILD SOURCE ...

Prints each unit of BUILD/compile_commands.json that holds one of the sources, one a line. A source
that the build does not compile is passed over.
"""
import json
import os
import re
import sys

INCLUDED = re.compile(r'^#include "(.*\.(?:cpp|c))"$', re.MULTILINE)


def sources_of(unit):
    """The sources that a unit includes; itself where it is no unity file."""
    if f"{os.sep}Unity{os.sep}" not in unit:
        return [unit]
    with open(unit, encoding="utf-8") as file:
        return INCLUDED.findall(file.read())


def main(build, sources):
    wanted = {os.path.realpath(source) for source in sources}
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        units = {os.path.join(entry["directory"], entry["file"]) for entry in json.load(file)}
    for unit in sorted(units):
        if any(os.path.realpath(source) in wanted for source in sources_of(unit)):
            print(unit)


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2:])
