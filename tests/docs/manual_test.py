#!/usr/bin/env python3
"""The manual pages, docs/cli.md and the program say the same: options, exit statuses, elements, attributes
and names of preferences. And the pages are well-formed.
Usage: manual_test.py SOURCE-DIRECTORY AHS"""
import json
import os
import re
import subprocess
import sys
import unittest
import xml.etree.ElementTree

AHS = os.path.abspath(sys.argv.pop())
SOURCE = os.path.abspath(sys.argv.pop())
MAN = os.path.join(SOURCE, "docs/man")
PAGES = [os.path.join(MAN, "ahs.1"), os.path.join(MAN, "ahs-profile.5")]
ENVIRONMENT = {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8"}
# Every command has these.
COMMON = {"-h", "--help"}


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, env=ENVIRONMENT, stdin=subprocess.DEVNULL,
                          timeout=60, check=False)


def read(*parts):
    with open(os.path.join(SOURCE, *parts), encoding="utf-8") as file:
        return file.read()


def help_of(words):
    return run(AHS, *words, "--help").stdout


def section(text, title):
    """The lines of a help text below a title, up to the next blank line."""
    found = re.search(r"^%s:\n((?:.+\n)+)" % title, text, re.MULTILINE)
    return found.group(1) if found else ""


def commands():
    """Every command that can be run, as its words, with its options."""
    found = {}

    def walk(words):
        text = help_of(words)
        below = re.findall(r"^  ([a-z]+) ", section(text, "Subcommands"), re.MULTILINE)
        if not below or not words:
            options = re.findall(r"^  (-\S*)", section(text, "Options"), re.MULTILINE)
            found[" ".join(["ahs"] + words)] = {name for option in options for name in option.split(",")} - COMMON
        for name in below:
            walk(words + [name])

    walk([])
    return found


def without_macros(line):
    """The words of a line of mdoc, an option as it is typed."""
    line = line.replace(r"\-", "-")
    line = re.sub(r"\bFl Fl ", "--", line)
    return re.sub(r"\bFl ", "-", line)


def options_in(lines):
    names = set()
    for line in lines:
        # In another command's section of options, and outside, a name of one is no promise.
        if line.startswith((".It ", "Fl ")):
            names |= set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", without_macros(line)))
    return names


def manual_sections():
    """The subsections of ahs(1), each with the options it lists."""
    text = read("docs/man/ahs.1").split(".Sh ENVIRONMENT")[0]
    parts = re.split(r"^\.Ss (.*)$", text, flags=re.MULTILINE)[1:]
    return {title: options_in(body.splitlines()) - COMMON for title, body in zip(parts[::2], parts[1::2])}


def markdown_rows(text, columns):
    rows = []
    for line in text.splitlines():
        if line.startswith("|") and not re.match(r"^\|[-| ]*\|$", line):
            cells = [cell.strip().replace("`", "") for cell in line.strip("|").split("|")]
            if len(cells) == columns:
                rows.append(tuple(cells))
    return rows


class Manual(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.commands = commands()

    def test_the_help_is_understood(self):
        self.assertIn("--cache-dir", self.commands["ahs cache show"])
        self.assertIn("-c", self.commands["ahs probe"])

    def test_pages_are_well_formed(self):
        for page in PAGES:
            lint = run("/usr/bin/mandoc", "-T", "lint", "-W", "warning", page)
            self.assertEqual((lint.returncode, lint.stdout + lint.stderr), (0, ""), page)
            # What another formatter says.
            shown = run("/usr/bin/man", "--warnings", "-l", page)
            self.assertEqual((shown.returncode, shown.stderr), (0, ""), page)
            self.assertIn("SEE ALSO", shown.stdout)

    def test_ahs_1_lists_each_commands_options_and_no_other(self):
        sections = manual_sections()
        sections.pop("JSON")
        self.assertEqual(sections, self.commands)

    def test_cli_md_names_every_option_and_command(self):
        text = read("docs/cli.md")
        for command, options in self.commands.items():
            # The first line of the page has the commands of one kind in one line.
            self.assertTrue(command in text or command.rsplit(" ", 1)[0] + " show | clear | path" in text, command)
            for option in options:
                named = re.search(r"(?<![\w-])%s(?![\w-])" % re.escape(option), text)
                self.assertTrue(named, command + " " + option)

    def test_cli_md_names_no_option_that_there_is_not(self):
        known = COMMON | {option for options in self.commands.values() for option in options}
        text = read("docs/cli.md")
        # Other programs are called in the examples.
        text = re.sub(r"(?:\| jq|pass show|vpn-client|logger|install|apt|dpkg|cmake).*", "", text)
        named = set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", text))
        self.assertEqual(named - known, set())

    def test_exit_statuses_agree(self):
        table = section(help_of([]), "Exit status")
        told = [tuple(re.split(r"  +", line.strip(), maxsplit=2)) for line in table.splitlines()]
        manual = [tuple(row.split(" Ta ")) for row in re.findall(r"^\.It (.* Ta .*)$", read("docs/man/ahs.1"), re.MULTILINE)]
        page = read("docs/cli.md").split("## Exit status\n")[1].split("\n## ")[0]
        self.assertGreater(len(told), 8)
        self.assertEqual(manual[1:], told)
        self.assertEqual(markdown_rows(page, 3)[1:], told)

    def test_the_commands_of_the_table_exist(self):
        table = section(help_of([]), "Exit status")
        for line in table.splitlines():
            for command in re.split(r"  +", line.strip())[1].split(", "):
                self.assertTrue(command in ("all", "all others") or "ahs " + command in self.commands, command)

    def test_every_name_of_the_schemas_stands_in_ahs_profile_5(self):
        page = read("docs/man/ahs-profile.5")
        names = set()
        for schema in ("profile.xsd", "preferences.xsd"):
            for node in xml.etree.ElementTree.parse(os.path.join(SOURCE, "vpn/Api/schema", schema)).iter():
                kind = node.tag.split("}")[1]
                if kind in ("element", "attribute"):
                    names.add(node.get("name"))
                elif kind == "enumeration":
                    names.add(node.get("value"))
        self.assertIn("user-controllable", names)
        self.assertIn("SelectionImprovement", names)
        for name in names:
            self.assertRegex(page, r"(?<![\w-])%s(?![\w-])" % re.escape(name))

    def test_defaults_and_limits_are_those_of_the_program(self):
        page = read("docs/man/ahs-profile.5")
        for name, _, _, allowed, default, _ in markdown_rows(read("docs/profiles.md"), 6):
            found = re.search(r"^(\d+) to (\d+)(?: or nothing)?$", allowed)
            if not found:
                continue
            text = re.search(r"^\.It Li %s\b.*\n((?:[^.].*\n)+)" % name, page, re.MULTILINE).group(1).replace("\n", " ")
            self.assertIn("%s to %s" % found.groups(), text, name)
            if default.isdigit():
                self.assertIn("; %s unless set" % default, text, name)

    def test_the_examples_are_those_that_are_tried(self):
        page = read("docs/man/ahs-profile.5").replace(r"\(:u", "\u00fc")
        for example in ("profiles/europe.xml", "preferences.xml"):
            self.assertIn(read("examples", example).strip(), page)

    def test_the_version_tells_the_formats_that_the_schemas_have(self):
        facts = json.loads(run(AHS, "--version", "--json").stdout)
        self.assertIn('<xs:enumeration value="%d"/>' % facts["formats"]["profile"], read("vpn/Api/schema/profile.xsd"))


if __name__ == "__main__":
    unittest.main()
