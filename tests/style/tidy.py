#!/usr/bin/env python3
"""clang-tidy over source files as if they were one: tests/style/tidy.py [-fexceptions] FILE...

Most of clang-tidy's time goes into the headers of the system and of libraries, which the files of a
folder share. So one source with the text of them all is looked at. Where that finds anything, each
file is looked at by itself: those findings hold, so names that meet each other cost time only.
"""

import re
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
# Its own compiler does not know all options of the build's: these are what a source file needs.
OPTIONS = ["-std=c++20", "-fno-exceptions", "-fno-rtti", "-Iinclude", "-Isrc"]
INCLUDE = re.compile(r'^(\s*#\s*include\s+)"([^"]+)"', re.M)


def tidy(source, options):
    """Status and findings for one source file."""
    done = subprocess.run(
        ["clang-tidy", f"--config-file={ROOT / '.clang-tidy'}", "--quiet", source, "--", *OPTIONS,
         *options],
        cwd=ROOT, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        text=True, check=False)
    return done.returncode, done.stdout


def text_of(source):
    """The text, to be compiled in another folder."""
    def at_its_place(match):
        neighbour = source.parent / match[2]
        return f'{match[1]}"{neighbour}"' if neighbour.exists() else match[0]
    return INCLUDE.sub(at_its_place, source.read_text(encoding="utf-8"))


def tidy_together(sources, options):
    """Whether all of them in one source are without findings. They are copied, not included: the
    analyzer follows the paths through functions of the main file only."""
    with tempfile.TemporaryDirectory(prefix="kestrel-tidy-") as directory:
        together = Path(directory) / "together.cpp"
        together.write_text("".join(map(text_of, sources)), encoding="utf-8")
        return tidy(together, options)[0] == 0


def main(words):
    options = [word for word in words if word.startswith("-")]
    sources = [Path(word).resolve() for word in words if not word.startswith("-")]
    if len(sources) > 1 and tidy_together(sources, options):
        return 0
    results = [tidy(source, options) for source in sources]
    print("".join(findings for status, findings in results if status != 0))
    return int(any(status for status, _ in results))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
