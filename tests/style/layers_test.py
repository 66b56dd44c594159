"""The floor plan of src/: a folder includes only what stands below it, and nothing goes round."""

import re
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SRC = ROOT / "src"

# From the top to the ground. Folders of one row do not know each other.
LAYERS = (
    {"app"},
    {"engine"},
    {"contract", "input", "filter", "export", "plugins", "flow"},
    {"record"},
    {"base"},
    {"kestrelexp"},  # the public headers
)
HEIGHT = {folder: -row for row, folders in enumerate(LAYERS) for folder in folders}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def includes(path):
    return INCLUDE.findall(path.read_text(encoding="utf-8"))


def sources(folder):
    return sorted(path for path in folder.rglob("*") if path.suffix in {".cpp", ".h", ".c"})


def offence(folder, included):
    """Why a file of the folder may not include that, or None."""
    target = included.split("/")[0]
    if "/" not in included or target not in HEIGHT:
        return "is in no folder of the plan"
    if target == folder or HEIGHT[target] < HEIGHT[folder]:
        return None
    return "points sideways" if HEIGHT[target] == HEIGHT[folder] else "points up"


class Layers(unittest.TestCase):
    maxDiff = None

    def test_every_folder_has_its_place_in_the_plan(self):
        folders = {path.name for path in SRC.iterdir() if path.is_dir()}
        self.assertEqual(folders, HEIGHT.keys() - {"kestrelexp"})

    def test_no_include_points_up_or_sideways(self):
        found = []
        for path in sources(SRC):
            folder = path.relative_to(SRC).parts[0]
            for included in includes(path):
                # Tests beside the code also use what tests share.
                if path.stem.endswith("_test") and included.startswith("tests/support/"):
                    continue
                why = offence(folder, included)
                if why:
                    found.append(f"{path.relative_to(ROOT)}: {included} {why}")
        self.assertEqual(found, [])

    def test_extras_and_examples_stand_on_the_public_headers_alone(self):
        found = []
        for tree in ("extras", "examples"):
            for path in sources(ROOT / tree):
                found += [f"{path.relative_to(ROOT)}: {included}" for included in includes(path)
                          if not included.startswith("kestrelexp/")
                          and not (path.parent / included).exists()]
        self.assertEqual(found, [])

    def test_no_headers_include_each_other_in_a_circle(self):
        headers = {str(path.relative_to(SRC)): includes(path) for path in sources(SRC)
                   if path.suffix == ".h"}
        done = set()

        def walk(name, road):
            self.assertNotIn(name, road, "a circle of includes")
            if name in done:
                return
            for included in headers.get(name, ()):
                walk(included, (*road, name))
            done.add(name)
        for name in headers:
            walk(name, ())

    def test_an_include_that_points_up_or_sideways_is_seen(self):
        self.assertEqual(offence("flow", "engine/replay.h"), "points up")
        self.assertEqual(offence("flow", "contract/plugin_registry.h"), "points sideways")
        self.assertIsNone(offence("flow", "record/layout.h"))
        self.assertIsNone(offence("engine", "engine/switch.h"))
        self.assertEqual(offence("base", "log.h"), "is in no folder of the plan")


if __name__ == "__main__":
    unittest.main()
