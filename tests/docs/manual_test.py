#!/usr/bin/env python3
"""The manual pages are well-formed, docs/cli.md has the options and exit statuses of the command, and
ahs-profile(5) the elements, attributes and names of preferences that are read.
Usage: manual_test.py SOURCE-DIRECTORY AHS AHS-DESCRIBE AHS.1"""
import json
import os
import re
import subprocess
import sys
import unittest
import xml.etree.ElementTree

SOURCE, AHS, DESCRIBE, MANUAL = (os.path.abspath(argument) for argument in sys.argv[1:])
del sys.argv[1:]
PAGES = [MANUAL, os.path.join(SOURCE, "docs/man/ahs-profile.5")]
ENVIRONMENT = {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8"}


def run(*command):
    return subprocess.run(command, capture_output=True, text=True, env=ENVIRONMENT, stdin=subprocess.DEVNULL,
                          timeout=60, check=False)


def read(*parts):
    with open(os.path.join(SOURCE, *parts), encoding="utf-8") as file:
        return file.read()


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

    def test_pages_are_well_formed(self):
        for page in PAGES:
            lint = run("/usr/bin/mandoc", "-T", "lint", "-W", "warning", page)
            self.assertEqual((lint.returncode, lint.stdout + lint.stderr), (0, ""), page)
            # What another formatter says.
            shown = run("/usr/bin/man", "--warnings", "-l", page)
            self.assertEqual((shown.returncode, shown.stderr), (0, ""), page)
            self.assertIn("SEE ALSO", shown.stdout)

    def test_cli_md_has_the_options_and_exit_statuses_of_the_command(self):
        described = run(DESCRIBE, os.path.join(SOURCE, "docs/cli.md")).stdout
        self.assertIn("`--cache-dir DIR`", described)
        self.assertEqual(read("docs/cli.md"), described, "make docs writes it anew")

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
