#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Compares the picture of the rooms, at the head of docs/architecture.md, with the includes."""

import re
import unittest
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
BUILDINGS = {"the product": ("libvexastb/", "utils/"), "the simulator": ("sim/",)}
FOLDERS = ("bench", "libvexastb", "sim", "tests", "utils")
TESTS = ("tests/", "sim/tests", "bench")


def picture():
    """Each room of the picture with the row that it stands in, counted from the top."""
    text = (PROJECT / "docs/architecture.md").read_text(encoding="utf-8")
    block = re.search(r"^```\n(.*?)^```", text, re.MULTILINE | re.DOTALL).group(1)
    return {word: row for row, line in enumerate(block.splitlines())
            for word in re.findall(r"[\w/]+", line) if (PROJECT / word).is_dir()}


def sources():
    return [str(path.relative_to(PROJECT)) for folder in FOLDERS for path in (PROJECT / folder).rglob("*.*")
            if path.suffix in (".cpp", ".h")]


def room(path):
    return str(Path(path).parent)


def includes():
    """Pairs of rooms, the including one first, with the line that says so."""
    files = sources()
    by_name = {Path(path).name: path for path in files if path.startswith(BUILDINGS["the product"])}
    for path in files:
        for name in re.findall(r'^#include "(.+)"', (PROJECT / path).read_text(encoding="utf-8"), re.MULTILINE):
            included = name if name in files else by_name.get(name, "")
            if room(path) != room(included):
                yield room(path), room(included), f'{path} includes "{name}"'


class Rooms(unittest.TestCase):
    def test_every_folder_of_sources_is_in_the_picture(self):
        self.assertEqual({room(path) for path in sources()} - set(picture()), set())

    def test_every_include_points_down(self):
        rows = picture()
        self.assertEqual([line for upper, lower, line in includes()
                          if rows.get(upper, 0) >= rows.get(lower, 0)], [])

    def test_no_building_includes_what_isnt_its_own(self):
        for name, folders in BUILDINGS.items():
            with self.subTest(name):
                self.assertEqual([line for upper, lower, line in includes()
                                  if upper.startswith(folders) and not upper.startswith(TESTS)
                                  and not lower.startswith(folders)], [])


if __name__ == "__main__":
    unittest.main()
