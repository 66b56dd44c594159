"""House rules that a program can check, over every source file of the tree."""

import os
import re
import subprocess
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FOLDERS = ("bench", "examples", "extras", "include", "src", "tests", "tools")
C_FAMILY = {".c", ".cpp", ".h"}
MOST_LINES = 500
MOST_COLUMNS = 100


def files(*suffixes):
    """Paths of the tree's files with one of the suffixes, data files apart."""
    found = [path for folder in FOLDERS for path in sorted((ROOT / folder).rglob("*"))
             if path.suffix in suffixes and "data" not in path.parts]
    assert found, "the folders have moved"
    return found


class Sources(unittest.TestCase):
    maxDiff = None

    def offenders(self, paths, offence):
        """offence: text -> a message, or nothing. Fails with a line for each file that offends."""
        found = []
        for path in paths:
            message = offence(path.read_text(encoding="utf-8"))
            if message:
                found.append(f"{path.relative_to(ROOT)}: {message}")
        self.assertEqual(found, [])

    def test_the_formatter_changes_nothing(self):
        result = subprocess.run(
            ["clang-format", "--dry-run", "-Werror", "--ferror-limit=3", *files(*C_FAMILY)],
            capture_output=True, text=True, stdin=subprocess.DEVNULL, check=False)
        self.assertEqual((result.returncode, result.stderr), (0, ""))

    def test_no_file_is_too_long(self):
        self.offenders(files(*C_FAMILY, ".py"), lambda text:
                       text.count("\n") > MOST_LINES and f"{text.count(chr(10))} lines")

    def test_no_line_is_too_wide_or_has_loose_ends(self):
        def offence(text):
            for number, line in enumerate(text.split("\n"), 1):
                if len(line) > MOST_COLUMNS or line != line.rstrip() or "\t" in line:
                    return f"line {number}: too wide, a tab, or blanks at its end"
            return None if text.endswith("\n") else "no newline at the end"
        self.offenders(files(*C_FAMILY, ".py", ".cmake", ".sh"), offence)

    def test_nothing_is_left_for_later(self):
        marks = re.compile(r"\b(TO" r"DO|FIX" r"ME|XX" r"X)\b")
        self.offenders(files(*C_FAMILY, ".py", ".cmake", ".sh", ".txt"), lambda text:
                       (found := marks.search(text)) and found.group())

    def test_every_header_opens_with_what_it_owns(self):
        self.offenders(files(".h"), lambda text:
                       None if text.startswith(("//", "/*")) else "no comment at the top")

    def test_every_header_is_guarded(self):
        self.offenders(files(".h"), lambda text:
                       None if re.search(r"^#(pragma once|ifndef \w+_H)$", text, re.M)
                       else "no guard")

    def test_scripts_can_be_run_and_have_no_errors(self):
        for name in ("check", "quickstart", ".ci/run", "tools/package"):
            with self.subTest(script=name):
                self.assertTrue(os.access(ROOT / name, os.X_OK))
                subprocess.run(["bash", "-n", ROOT / name], check=True, stdin=subprocess.DEVNULL)


if __name__ == "__main__":
    unittest.main()
