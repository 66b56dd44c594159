"""Links between the pages lead to files and headings that exist."""

import re
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PAGES = [*sorted(ROOT.glob("*.md")), *sorted((ROOT / "docs").glob("*.md")),
         *sorted((ROOT / "extras").glob("*/README.md")), *sorted((ROOT / "bench").glob("*.md"))]
DECISIONS = ROOT / "docs/decisions.md"


def headings(page, marks="#+"):
    text = re.sub(r"(?ms)^ *```.*?^ *```$", "", page.read_text(encoding="utf-8"))
    return re.findall(rf"(?m)^{marks} (.+)$", text)


def anchor(heading):
    """As the usual viewers of Markdown make it."""
    return re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")


class Links(unittest.TestCase):
    def test_each_link_leads_to_a_file_and_a_heading(self):
        seen = 0
        for page in PAGES:
            for target in re.findall(r"\]\(([^)\s]+)\)", page.read_text(encoding="utf-8")):
                if target.startswith("http"):
                    continue
                seen += 1
                name, _, place = target.partition("#")
                path = page.parent / name if name else page
                self.assertTrue(path.exists(), f"{page.name}: {target}")
                if place:
                    self.assertIn(place, map(anchor, headings(path)), f"{page.name}: {target}")
        self.assertGreater(seen, 30)

    def test_the_index_of_the_decisions_has_each_section_once(self):
        index = re.findall(r"(?m)^\|[^|]*\| \[(.+?)\]\(#", DECISIONS.read_text(encoding="utf-8"))
        self.assertEqual(sorted(index), sorted(headings(DECISIONS, "##")))


if __name__ == "__main__":
    unittest.main()
