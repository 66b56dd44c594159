"""./quickstart --file: from a capture file to nfdump's table, as a user without any rights."""

import os
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

from testbed import namespaces

ROOT = Path(__file__).resolve().parents[2]
CAPTURES = ROOT / "tests" / "data" / "captures"
NEEDED = ("CMakeLists.txt", "cmake", "etc", "extras", "include", "quickstart", "src", "tools")
NOBODY = 65534


def shown_compiler_cache():
    """Environment with which a user without rights builds from what this one has compiled. The
    cache is shown in a name space of this process alone, outside of what a test removes."""
    if not shutil.which("ccache"):
        return {}
    asked = subprocess.run(["ccache", "--get-config", "cache_dir"], capture_output=True, text=True,
                           check=True)
    cache = asked.stdout.strip()
    if not os.path.isdir(cache):
        return {}
    namespaces.unshare(namespaces.MOUNTS)
    for command in (["--make-rprivate", "/"], ["-t", "tmpfs", "-o", "mode=755", "none", "/mnt"]):
        subprocess.run(["mount", *command], check=True)
    os.mkdir("/mnt/ccache")
    subprocess.run(["mount", "--bind", cache, "/mnt/ccache"], check=True)
    os.mkdir("/mnt/room")
    os.chmod("/mnt/room", 0o1777)
    return {"CCACHE_DIR": "/mnt/ccache", "CCACHE_READONLY": "1", "CCACHE_TEMPDIR": "/mnt/room"}


class Quickstart(unittest.TestCase):
    def setUp(self):
        """A copy of the sources that belongs to a user who is not root."""
        holder = tempfile.TemporaryDirectory(prefix="kestrel-quickstart-")
        self.addCleanup(holder.cleanup)
        self.directory = Path(holder.name)
        for name in NEEDED:
            source, copy = ROOT / name, self.directory / name
            if source.is_dir():
                shutil.copytree(source, copy)
            elif source.exists():
                shutil.copy(source, copy)
        (self.directory / "tmp").mkdir()
        self.rights, self.cache = {}, {}
        if os.geteuid() == 0:
            self.cache = shown_compiler_cache()
            self.rights = {"user": NOBODY, "group": NOBODY, "extra_groups": []}
            for path in (self.directory, *self.directory.rglob("*")):
                os.chown(path, NOBODY, NOBODY)

    def run_script(self, *words):
        """Status, output, errors; called from another directory than the script's."""
        environment = {**os.environ, **self.cache, "TMPDIR": str(self.directory / "tmp"),
                       "HOME": str(self.directory)}
        done = subprocess.run([self.directory / "quickstart", *words], capture_output=True,
                              text=True, stdin=subprocess.DEVNULL, cwd=self.directory / "etc",
                              env=environment, timeout=280, check=False, **self.rights)
        self.assertEqual(os.listdir(self.directory / "tmp"), [])
        return done.returncode, done.stdout, done.stderr

    def test_a_capture_file_is_shown(self):
        shutil.copy(CAPTURES / "zeek-wikipedia.pcap", self.directory / "odd,name=1.pcap")
        status, out, errors = self.run_script("--file", "../odd,name=1.pcap")
        self.assertEqual((status, errors), (0, ""), out)
        self.assertIn("Input ended: 136 packets read, 126 in ", out)
        self.assertRegex(out, r"==> From the probe to the collector: \d+ flows, 126 packets, "
                              r"22896 bytes\n")
        self.assertRegex(out, r"2011-03-18 \d\d:\d\d:08\.\d+ .* TCP +141\.142\.220\.118:35642 ->")
        self.assert_refusals()

    def assert_refusals(self):
        """With what has been built."""
        text = self.directory / "text.pcap"
        text.write_text("This is a text and no capture at all.\n")
        broken = self.directory / "broken.pcap"
        broken.write_bytes((CAPTURES / "zeek-wikipedia.pcap").read_bytes()[:20_000])
        other = shutil.copy(CAPTURES / "tcpdump-802.1ad_QinQ.pcap", self.directory)
        for name, fault, more in (
                (text, "error: the probe ended with status 255", "unknown file format"),
                (other, "error: no flow was seen in ", "has it IP packets?")):
            status, _, errors = self.run_script("--file", name)
            self.assertEqual(status, 1, errors)
            self.assertIn(fault, errors)
            self.assertIn(more, errors)
        status, out, _ = self.run_script("-f", broken)
        self.assertEqual(status, 0)
        self.assertIn("broken.pcap breaks off at byte 20000, after 92 frames: truncated dump file",
                      out)

    def test_a_file_that_is_not_there_is_said_at_once(self):
        self.assertEqual(self.run_script("--file", "none.pcap"),
                         (1, "", f"error: there is no file {self.directory}/etc/none.pcap\n"))

    def test_a_directory_is_no_file(self):
        self.assertEqual(self.run_script("--file", "."),
                         (1, "", f"error: there is no file {self.directory}/etc\n"))

    def test_a_file_name_is_asked_for(self):
        self.assertEqual(self.run_script("--file"),
                         (1, "", "error: --file takes a capture file\n"))


if __name__ == "__main__":
    unittest.main()
