"""tests/style/tidy.py: what clang-tidy finds in a file or a header, it finds among others too."""

import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

TIDY = Path(__file__).resolve().parent / "tidy.py"
CLEAN = "namespace {\nconstexpr int size = 1;\n}\nint first() { return size; }\n"
MOVED = """
#include <string>
#include <utility>
void take(std::string text);
std::string second(std::string text) {
    take(std::move(text));
    return text;
}
"""
DIVISION = "int third(int by) {\n    return by == 0 ? 1 / by : by;\n}\n"


class Tidy(unittest.TestCase):
    def setUp(self):
        holder = tempfile.TemporaryDirectory(prefix="kestrel-tidy-test-")
        self.addCleanup(holder.cleanup)
        # Findings in headers count below src/ only.
        self.folder = Path(holder.name) / "src"
        self.folder.mkdir()

    def tidy(self, **sources):
        """Status and output for files with these names and texts."""
        files = [self.folder / f"{name}.cpp" for name in sources]
        for file, text in zip(files, sources.values()):
            file.write_text(text, encoding="ascii")
        done = subprocess.run([sys.executable, "-B", TIDY, *files], stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, check=False)
        return done.returncode, done.stdout

    def test_files_without_findings_pass(self):
        self.assertEqual(self.tidy(first=CLEAN, last="int last() { return 2; }\n"), (0, ""))

    def test_a_finding_is_told_with_its_file(self):
        status, told = self.tidy(first=CLEAN, second=MOVED)
        self.assertEqual(status, 1)
        self.assertIn("second.cpp:7:12: error: 'text' used after it was moved", told)

    def test_the_analyzer_looks_into_every_file(self):
        status, told = self.tidy(first=CLEAN, third=DIVISION)
        self.assertEqual(status, 1)
        self.assertIn("third.cpp:2:24: error: Division by zero", told)

    def test_a_finding_in_a_header_counts(self):
        (self.folder / "table.h").write_text("#pragma once\nint shared() { return 3; }\n",
                                             encoding="ascii")
        status, told = self.tidy(first=CLEAN, last='#include "table.h"\n')
        self.assertEqual(status, 1)
        self.assertIn("table.h:2:5: error: function 'shared' defined in a header file", told)

    def test_names_that_meet_are_no_finding(self):
        self.assertEqual(self.tidy(first=CLEAN, last=CLEAN.replace("first", "last"))[0], 0)


if __name__ == "__main__":
    unittest.main()
