#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Compares what the documents say with what the sources say."""

import re
import unittest
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
DOCUMENTS = PROJECT / "docs"
UPDATE_WORD = re.compile(r'"(rc_fw_update_[a-z_]+)"')


def read(*names):
    return "\n".join((PROJECT / name).read_text(encoding="utf-8") for name in names)


def sources(*folders):
    """Sources and headers with adjacent string literals joined."""
    files = sorted(path for folder in folders for path in (PROJECT / folder).rglob("*.[ch]*")
                   if path.suffix in (".cpp", ".h"))
    return re.sub(r'"\s*\n\s*"', "", "\n".join(path.read_text(encoding="utf-8") for path in files))


def chapter(text, title):
    """The text from the heading that ends in `title` to the next one of the same or a higher rank."""
    found = re.search(rf"^(#+) (?:\d+\. )?{re.escape(title)}$", text, re.MULTILINE)
    if not found:
        raise AssertionError(f"no chapter '{title}'")
    rest = text[found.end():]
    end = re.search(rf"^#{{1,{len(found.group(1))}}} ", rest, re.MULTILINE)
    return rest[:end.start()] if end else rest


def first_cells(text):
    """The texts between backticks in the first column of the tables."""
    rows = [line.split("|")[1] for line in text.splitlines() if line.startswith("| `")]
    return {word for cell in rows for word in re.findall(r"`([^`]+)`", cell)}


DAEMON = sources("utils/vexabluetoohtd")
LIBRARY = sources("libvexastb")
INTERFACE = read("docs/interface.md")
README = read("README.md")
MANUAL = read("docs/man/vexabluetoohtd.8")


def words_of_the_daemon():
    """Every text that goes into the status file, wherever it is written."""
    calls = re.findall(r"writeFile\(([^;]*), kStatusFile\)", DAEMON)
    words = {word for call in calls for word in re.findall(r'"([^"]+)"', call)}
    return words | set(UPDATE_WORD.findall(DAEMON))


class StatusWords(unittest.TestCase):
    def test_the_interface_document_lists_the_words_of_the_daemon(self):
        self.assertEqual(first_cells(chapter(INTERFACE, "Status words")), words_of_the_daemon())

    def test_the_readme_lists_the_words_of_the_daemon(self):
        table = chapter(README, "Files and status words")
        table = table[table.index("| Status word |"):]
        self.assertEqual(first_cells(table), words_of_the_daemon())

    def test_the_manual_lists_the_words_of_the_daemon(self):
        listed = {line[4:].split(" Ns")[0].rstrip(" ,.") for line in MANUAL.splitlines()
                  if line.startswith(".Qq ") and " " not in line[4:].split(" Ns")[0].rstrip(" ,.").strip()
                  or line.startswith((".Qq no device", ".Qq not paired"))}
        self.assertEqual(listed, words_of_the_daemon())


class Files(unittest.TestCase):
    def setUp(self):
        self.files = set(re.findall(r'"(/(?:tmp/bluetooth|sys)[^"]*)"', DAEMON))

    def test_every_file_of_the_daemon_is_in_the_interface_document(self):
        self.assertEqual(self.files, {name for name in first_cells(INTERFACE) | {"/sys/class/saradc/saradc_ch0"}
                                      if name.startswith("/")})
        self.assertIn("`/sys/class/saradc/saradc_ch0`", chapter(INTERFACE, "The button"))

    def test_every_file_of_the_readme_is_one_of_the_daemon(self):
        self.assertEqual({name for name in first_cells(README) if name.startswith("/")},
                         self.files - {"/tmp/bluetooth_rc_rssi"})

    def test_every_file_of_the_daemon_is_in_the_manual(self):
        self.assertEqual(set(re.findall(r"^\.It Pa (\S+)$", MANUAL, re.MULTILINE)), self.files)


class LoggerVariables(unittest.TestCase):
    def setUp(self):
        self.variables = {"VEXA" + suffix for suffix in re.findall(r'"(_LOG_[A-Z_]+)"', LIBRARY)}

    def test_the_interface_document_lists_them(self):
        self.assertEqual(first_cells(chapter(INTERFACE, "Environment variables")), self.variables)

    def test_the_readme_lists_them(self):
        self.assertEqual(first_cells(chapter(README, "Log")), self.variables)

    def test_the_manual_lists_them(self):
        self.assertEqual(set(re.findall(r"\b(VEXA_LOG_[A-Z_]+)\b", MANUAL)), self.variables)


class Uuids(unittest.TestCase):
    def test_the_interface_document_names_the_characteristics_of_the_daemon(self):
        pattern = r"[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}"
        self.assertEqual(set(re.findall(pattern, INTERFACE)), set(re.findall(f'"({pattern})"', DAEMON)))


class LogMessages(unittest.TestCase):
    def test_messages_that_the_interface_document_quotes_are_logged(self):
        """A quoted message is a text in backticks of several words that begins with a capital."""
        logged = DAEMON + LIBRARY
        quoted = {text for text in re.findall(r"`([A-Z][a-z]+ [^`]*)`", INTERFACE)}
        self.assertTrue(quoted)
        for message in quoted:
            # "..." stands for what the message fills in.
            fragments = [part.strip() for part in re.split(r"\.\.\.$|\.\.\. ", message) if part.strip()]
            fragments = [part for text in fragments for part in re.split(r'"VEXA"|DEBUG', text) if part]
            for fragment in fragments:
                with self.subTest(message=message):
                    escaped = fragment.strip(" ()").replace('"', '\\"')
                    self.assertTrue(escaped in logged, f"no source logs '{escaped}'")


class Links(unittest.TestCase):
    def test_links_between_documents_lead_somewhere(self):
        documents = [PROJECT / name for name in ("README.md", "CONTRIBUTING.md", "packaging/README.md")]
        documents += sorted(DOCUMENTS.glob("*.md"))
        for document in documents:
            text = document.read_text(encoding="utf-8")
            headings = {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")
                        for heading in re.findall(r"^#+ (.*)$", text, re.MULTILINE)}
            for target in re.findall(r"\]\((?!https?:)([^)]+)\)", text):
                with self.subTest(document=document.name, target=target):
                    if target.startswith("#"):
                        self.assertIn(target[1:], headings)
                    else:
                        self.assertTrue((document.parent / target.split("#")[0]).exists())

    def test_the_deployment_guide_names_the_cases_on_the_real_stack(self):
        cases = set(re.findall(r'^@(?:cases\.)?case\("(\w+)"',
                               read("tests/realstack/cases.py") + read("tests/realstack/units.py"), re.MULTILINE))
        guide = read("docs/deployment.md")
        one = r"\d{1,2}[a-d]?"
        lists = re.findall(rf"\(({one}(?:, {one})*)\)|\| ({one}(?:, {one})*)\b[^|]*\|$", guide, re.MULTILINE)
        named = {case for pair in lists for part in pair for case in re.findall(one, part)}
        self.assertEqual(named, cases)


if __name__ == "__main__":
    unittest.main(verbosity=2)
