"""Test suites are found, not listed: a new one runs under all sanitizers, or says why not."""

import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
MARK = "Not under the {} sanitizer:"
CPP_FOLDERS = ("src/base", "src/flow", "tests/model")
PYTHON_FOLDERS = ("tests/abi", "tests/cli", "tests/e2e", "tests/replay")


def suite(folder, first_line):
    """The text of a suite whose first line is a comment."""
    if folder in CPP_FOLDERS:
        return f"// {first_line}\n#include <gtest/gtest.h>\n\nTEST(New, Suite) {{}}\n"
    return f"# {first_line}\nclass New:\n    def test_suite(self):\n        pass\n"


class Suites(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        holder = tempfile.TemporaryDirectory(prefix="kestrel-suites-")
        self.addCleanup(holder.cleanup)
        self.tree = Path(holder.name) / "tree"
        shutil.copytree(ROOT, self.tree, copy_function=os.symlink,
                        ignore=shutil.ignore_patterns("build", ".*", "captures", "corpus"))

    def add(self, name, first_line):
        """Adds a suite of that name to every folder."""
        for folder in (*CPP_FOLDERS, *PYTHON_FOLDERS):
            suffix = "cpp" if folder in CPP_FOLDERS else "py"
            path = self.tree / folder / f"{name}_test.{suffix}"
            path.write_text(suite(folder, first_line), encoding="ascii")

    def add_case_marks(self, sanitizer, other):
        """Suites of three cases, of which the first is not for the sanitizer."""
        text = (f"class New:\n    # {MARK.format(sanitizer)} it forks.\n"
                "    def test_marked(self):\n        pass\n\n"
                f"    # {MARK.format(other)} it forks.\n"
                "    def test_elsewhere(self):\n        pass\n\n"
                "    def test_suite(self):\n        pass\n")
        for folder in PYTHON_FOLDERS:
            (self.tree / folder / "cases_test.py").write_text(text, encoding="ascii")

    def taken(self, name, sanitizer, case="suite"):
        """The folders whose suite of that name, with that case, belongs to a build with the
        sanitizer."""
        build = self.tree / "build" / sanitizer
        if not build.exists():
            subprocess.run(
                ["cmake", "-S", self.tree, "-B", build, "-G", "Ninja", "-DKESTREL_TESTS=ON",
                 f"-DKESTREL_SANITIZE={sanitizer}"],
                check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        sources = {entry["file"] for entry in json.loads(
            (build / "compile_commands.json").read_text(encoding="utf-8"))}
        listed = subprocess.run(["ctest", "--test-dir", build, "-N"], check=True, text=True,
                                capture_output=True, stdin=subprocess.DEVNULL).stdout
        return {folder for folder in CPP_FOLDERS
                if str(self.tree / folder / f"{name}_test.cpp") in sources} | {
                    f"tests/{label}" for label in re.findall(rf" (\w+)\.{name}\.{case}\n", listed)}

    def check(self, sanitizer, other):
        self.add("plain", "What the suite is about.")
        self.add("marked", MARK.format(sanitizer) + " it forks.")
        self.add("elsewhere", MARK.format(other) + " it forks.")
        self.add("unexplained", MARK.format(sanitizer))
        self.add_case_marks(sanitizer, other)
        everywhere = {*CPP_FOLDERS, *PYTHON_FOLDERS}
        for name, folders in (("plain", everywhere), ("marked", set()), ("elsewhere", everywhere),
                              ("unexplained", everywhere)):
            with self.subTest(suite=name):
                self.assertEqual(self.taken(name, sanitizer), folders)
        with self.subTest(mark="of one case"):
            self.assertEqual(self.taken("cases", sanitizer), set(PYTHON_FOLDERS))
            self.assertEqual(self.taken("cases", sanitizer, "marked"), set())
            self.assertEqual(self.taken("cases", sanitizer, "elsewhere"), set(PYTHON_FOLDERS))

    def test_the_thread_sanitizer_gets_new_suites(self):
        self.check("thread", "address")

    def test_the_address_sanitizer_gets_new_suites(self):
        self.check("address", "thread")


class Marks(unittest.TestCase):
    def test_every_mark_is_one_that_is_read(self):
        form = re.compile(r"(//|(    )?#) Not under the (address|thread) sanitizer: \w.*")
        paths = [path for folder in ("src", "tests") for path in (ROOT / folder).rglob("*_test.*")
                 if path.suffix in (".cpp", ".py") and path != Path(__file__).resolve()]
        self.assertGreater(len(paths), 100)
        found = [f"{path.relative_to(ROOT)}: {line}" for path in paths
                 for line in path.read_text(encoding="utf-8").splitlines()
                 if re.search("not under the", line, re.I) and not form.fullmatch(line)]
        self.assertEqual(found, [])


if __name__ == "__main__":
    unittest.main()
