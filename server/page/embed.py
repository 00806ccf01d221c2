#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the files of the page as C++ arrays.

  embed.py DIST OUTPUT

DIST is the folder dist, OUTPUT the file that page_files.cpp includes: the arrays,
kFiles and kPolicy. The same files give the same bytes.
"""
import gzip
import hashlib
import sys
from pathlib import Path

FILES = [
    ("/", "index.html", "text/html; charset=utf-8"),
    ("/highlight.js", "highlight.js", "text/javascript; charset=utf-8"),
    ("/licenses.txt", "licenses.txt", "text/plain; charset=utf-8"),
]


def array(name, data):
    lines = [",".join(map(str, data[at:at + 48])) for at in range(0, len(data), 48)]
    return f"constexpr unsigned char {name}[] = {{\n" + ",\n".join(lines) + "};\n"


def view(name):
    return f"std::string_view(reinterpret_cast<const char*>({name}), sizeof({name}))"


def embedded(dist):
    arrays, rows = [], []
    for at, (path, file, content_type) in enumerate(FILES):
        data = (dist / file).read_bytes()
        arrays += [array(f"kBytes{at}", data), array(f"kGzip{at}", gzip.compress(data, 9, mtime=0))]
        etag = hashlib.sha256(data).hexdigest()[:16]
        rows.append(f'    {{"{path}", "{content_type}",\n     {view(f"kBytes{at}")},\n'
                    f'     {view(f"kGzip{at}")}, "\\"{etag}\\""}},\n')
    policy = (dist / "policy.txt").read_text(encoding="utf-8").strip()
    arrays.append("const PageFile kFiles[] = {\n" + "".join(rows) + "};\n")
    arrays.append(f'constexpr std::string_view kPolicy = R"({policy})";\n')
    return "\n".join(arrays)


def main():
    dist, output = map(Path, sys.argv[1:])
    output.parent.mkdir(parents=True, exist_ok=True)
    output.write_text(embedded(dist), encoding="utf-8")


if __name__ == "__main__":
    main()
