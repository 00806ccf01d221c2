#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks that functions of one file have names of their own in their library or program.

    scripts/check_names.py BUILD

Several sources of a target are compiled at once (ZEM_UNITY), so that their unnamed namespaces
are one. A call would take a function of another file where that one's parameters fit better.
"""
import collections
import json
import pathlib
import re
import sys

TARGET = re.compile(r"-o (\S+)/CMakeFiles/([^/]+)\.dir/")
FUNCTION = re.compile(
    r"(?!using|return|class|struct|enum|TEST|INSTANTIATE|MATCHER|namespace|friend|#|//)"
    r"[A-Za-z_][\w:<>,&* ]*?\b(\w+)\("
)
# GoogleTest finds it by the type of its argument.
ALLOWED = {"PrintTo"}


def local_functions(source):
    """The functions at the left margin of the unnamed namespaces of a source."""
    names = set()
    inside = False
    for line in source.read_text().splitlines():
        if line == "namespace {":
            inside = True
        elif line.rstrip() == "}  // namespace":
            inside = False
        elif inside or line.startswith("static "):
            found = FUNCTION.match(line)
            if found:
                names.add(found[1])
    return names - ALLOWED


def sources_by_target(build):
    """The C++ sources of each target, those inside what CMake made of several included."""
    targets = collections.defaultdict(set)
    for entry in json.loads((build / "compile_commands.json").read_text()):
        target = TARGET.search(entry["command"])
        made = pathlib.Path(entry["file"])
        if target is None or made.suffix not in (".cpp", ".cxx"):
            continue
        files = [made]
        if made.parent.name == "Unity":
            files = map(
                pathlib.Path, re.findall(r'^#include "(.+)"$', made.read_text(), re.MULTILINE)
            )
        targets[target[2]].update(file for file in files if file.exists())
    return targets


def main():
    root = pathlib.Path.cwd()
    failures = 0
    for target, sources in sorted(sources_by_target(pathlib.Path(sys.argv[1])).items()):
        owners = collections.defaultdict(list)
        for source in sorted(sources):
            for name in local_functions(source):
                owners[name].append(source.relative_to(root) if root in source.parents else source)
        for name, files in sorted(owners.items()):
            if len(files) > 1:
                failures += 1
                print(f"{target}: {name}() is in {', '.join(map(str, files))}; give each its own name")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
