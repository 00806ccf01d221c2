#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Holds server/page/dist against what the page promises. Needs neither Node nor a browser."""
import base64
import gzip
import hashlib
import re
import sys
import tempfile
import unittest
from pathlib import Path

PAGE = Path(__file__).resolve().parents[2] / "server" / "page"
DIST = PAGE / "dist"
sys.dont_write_bytecode = True
sys.path.insert(0, str(PAGE))
import embed  # noqa: E402

LARGEST_PAGE = 60_000  # bytes, compressed


def digest(kind, text):
    return f"{kind}-{base64.b64encode(hashlib.new(kind, text.encode()).digest()).decode()}"


class Dist(unittest.TestCase):
    def setUp(self):
        self.html = (DIST / "index.html").read_text(encoding="utf-8")
        self.policy = (DIST / "policy.txt").read_text(encoding="utf-8").strip()

    def test_is_made_from_these_sources(self):
        names = [str(path.relative_to(PAGE)) for path in (PAGE / "src").rglob("*") if path.is_file()]
        total = hashlib.sha256()
        for name in sorted([*names, "build.mjs", "package-lock.json"]):
            total.update(f"{name}\n".encode() + (PAGE / name).read_bytes())
        recorded = (DIST / "sources.sha256").read_text().strip()
        self.assertEqual(total.hexdigest(), recorded, "the sources changed: run npm ci && node build.mjs in server/page")

    def test_page_is_small(self):
        self.assertLess(len(gzip.compress(self.html.encode(), 9)), LARGEST_PAGE)

    def test_policy_allows_the_inline_blocks_and_no_other(self):
        scripts = re.findall(r"<script[^>]*>(.*?)</script>", self.html, re.DOTALL)
        styles = re.findall(r"<style[^>]*>(.*?)</style>", self.html, re.DOTALL)
        self.assertEqual((len(scripts), len(styles)), (1, 1))
        self.assertIn(f"script-src '{digest('sha256', scripts[0])}' 'strict-dynamic'", self.policy)
        self.assertIn(f"style-src '{digest('sha256', styles[0])}'", self.policy)
        for word in ("default-src 'none'", "frame-ancestors 'none'", "base-uri 'none'", "require-trusted-types-for 'script'"):
            self.assertIn(word, self.policy)
        self.assertNotIn("unsafe", self.policy)

    def test_page_has_no_inline_handlers_or_styles(self):
        markup = re.sub(r"<(script|style)[^>]*>.*?</\1>", "", self.html, flags=re.DOTALL)
        self.assertIsNone(re.search(r"<[^>]+\s(on\w+|style)\s*=", markup))

    def test_page_names_no_other_server(self):
        markup = re.sub(r"<(script|style)[^>]*>.*?</\1>", "", self.html, flags=re.DOTALL)
        addresses = re.findall(r'(?:src|href|action)\s*=\s*"([^"]*)"', markup)
        self.assertTrue(all(re.match(r"#|licenses\.txt$|data:image/svg\+xml,", one) for one in addresses), addresses)
        style = re.search(r"<style>(.*?)</style>", self.html, re.DOTALL).group(1)
        self.assertIsNone(re.search(r"url\(|@import", style))

    def test_highlighter_is_the_one_that_the_page_expects(self):
        self.assertIn(digest("sha384", (DIST / "highlight.js").read_text(encoding="utf-8")), self.html)

    def test_licences_are_there(self):
        text = (DIST / "licenses.txt").read_text(encoding="utf-8")
        for words in ("Christopher Jeffrey", "Apache License", "Ivan Sagalaev"):
            self.assertIn(words, text)


class Embedding(unittest.TestCase):
    def test_arrays_hold_the_files(self):
        text = embed.embedded(DIST)
        arrays = re.findall(r"unsigned char (k\w+)\[\] = \{\n(.*?)\};", text, re.DOTALL)
        self.assertEqual(len(arrays), 2 * len(embed.FILES))
        found = {name: bytes(map(int, numbers.split(","))) for name, numbers in arrays}
        for at, (_, file, _) in enumerate(embed.FILES):
            data = (DIST / file).read_bytes()
            self.assertEqual(found[f"kBytes{at}"], data)
            self.assertEqual(gzip.decompress(found[f"kGzip{at}"]), data)

    def test_same_files_give_the_same_bytes(self):
        self.assertEqual(embed.embedded(DIST), embed.embedded(DIST))

    def test_files_without_a_place_are_an_error(self):
        with tempfile.TemporaryDirectory() as folder, self.assertRaises(FileNotFoundError):
            embed.embedded(Path(folder))


if __name__ == "__main__":
    unittest.main()
