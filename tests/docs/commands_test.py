"""Every command of README.md, docs/*.md and the READMEs of extras is run, or marked as an example
for another machine.

The pages are run on a copy of this machine with the packages installed and systemd running, an
interface eth0, and collectors' addresses 192.0.2.10 to 192.0.2.12 on the machine itself.
"""

import gzip
import os
import re
import shutil
import socket
import threading
import unittest
from pathlib import Path

import commands
from testbed.booted_system import BootedSystem
from testbed.capture import NS, pcap
from testbed.machine_copy import enter_machine_copy
from testbed.network import SENDER, FrameSender, ip

ROOT = Path(__file__).resolve().parents[2]
PACKAGES = Path(os.environ.get("KESTREL_PACKAGES", "."))
PAGES = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md")),
         *sorted((ROOT / "extras").glob("*/README.md"))]
LANGUAGES = {"sh", "console", "", "c", "make", "yaml"}
PROGRAMS = r"(?m)^[$#]? *(\./|apt|cmake|kestrelexp|make |nf\w+|sudo|systemctl|tools/)"

# Files that the commands of the pages read.
PAGE_FILES = {
    "/etc/kestrel/as.txt": "64496-192.0.2.0/24\n",
    "/etc/kestrel/web.txt": "port 80\nany\n",
    "new-table.txt": "64497-198.51.100.0/24\n",
    "routes.txt": "192.0.2.0/24 64496\n198.51.100.0/24 64497\n",
    "at_least.c": (ROOT / "examples/plugin/at_least.c").read_text(encoding="utf-8"),
}
# Run instead of the real programs. The probe reports when it is ready, and stays in the foreground,
# where it can be watched. Packages are looked up but not fetched.
WRAPPERS = {
    "kestrelexp": """
words=()
for word in "$@"; do [[ $word == -d ]] || words+=("$word"); done
exec /usr/sbin/kestrelexp -v 0 "${words[@]}"
""",
    "apt-get": """
[[ $1 == update ]] && exit 0
[[ $1 == install ]] || { echo "install or update"; exit 1; }
for name in "${@:2}"; do
    case $name in
        -*) ;;
        *.deb) dpkg -i $name || exit ;;
        *) dpkg-query -W "$name" || apt-cache show "$name" >/dev/null || exit ;;
    esac
done
""",
}


class Marks(unittest.TestCase):
    """What can be tested of the pages without running them."""

    def test_commands_are_only_in_blocks_that_are_marked(self):
        for page in PAGES:
            for block in commands.blocks(page.read_text(encoding="utf-8")):
                where = f"{page.name}:{block.line}"
                self.assertIn(block.language, LANGUAGES, where)
                if block.language not in ("sh", "console"):
                    self.assertIsNone(re.search(PROGRAMS, block.text), where)
                if block.language == "console":
                    self.assertRegex(block.text, r"\A[$#] ", where)

    def test_blocks_and_commands_are_told_apart(self):
        page = "text\n```sh\na b \\\n  c  # d\n# e\n\ncat > f <<'X'\ng h\nX\ni\n```\n" \
               "1. list\n\n   ```\n   output\n   ```\n```console\n$ j\n```\n"
        found = commands.blocks(page)
        self.assertEqual([(block.language, block.line) for block in found],
                         [("sh", 2), ("", 14), ("console", 17)])
        self.assertEqual(found[1].text, "output\n")
        self.assertEqual(list(commands.commands(found[0].text)),
                         ["a b \\\n  c  # d\n", "cat > f <<'X'\ng h\nX\n", "i\n"])

    def test_every_page_with_commands_is_run(self):
        run = re.findall(r'run_page\("([^"]+)"', Path(__file__).read_text(encoding="utf-8"))
        self.assertEqual(sorted(run), sorted(
            str(page.relative_to(ROOT)) for page in PAGES
            if any(block.language == "sh"
                   for block in commands.blocks(page.read_text(encoding="utf-8")))))


class Commands(unittest.TestCase):
    """One test for each page that has commands to run."""

    def test_readme(self):
        # What it builds and installs comes from the sources.
        self.run_page("README.md", with_packages=False)

    def test_operations(self):
        self.run_page("docs/operations.md")

    def test_collectors(self):
        self.run_page("docs/collectors.md")

    def test_plugin_guide(self):
        self.run_page("docs/plugin-guide.md")

    def test_af_packet(self):
        self.run_page("extras/af-packet/README.md")

    def test_capture_file(self):
        self.run_page("extras/capture-file/README.md")

    def test_end_reason(self):
        self.run_page("extras/end-reason/README.md")

    def test_ipfix_file(self):
        self.run_page("extras/ipfix-file/README.md")

    def test_json(self):
        self.run_page("extras/json/README.md")

    def test_kafka(self):
        self.run_page("extras/kafka/README.md")

    def test_metrics(self):
        self.run_page("extras/metrics/README.md")

    def test_monitoring(self):
        self.run_page("docs/monitoring.md")

    def test_pipelines(self):
        self.run_page("docs/pipelines.md")

    def test_filter_rules(self):
        self.run_page("docs/filter-rules.md")

    def run_page(self, name, with_packages=True):
        self.enter()
        for path, text in PAGE_FILES.items():
            Path(path).parent.mkdir(exist_ok=True)
            Path(path).write_text(text, encoding="ascii")
        trace = pcap((second * NS, frame) for second, frame in enumerate(commands.FRAMES))
        Path("trace.pcap").write_bytes(trace)
        Path("trace.pcap.gz").write_bytes(gzip.compress(trace))
        sender = FrameSender()
        self.addCleanup(sender.close)
        with BootedSystem() as system:
            if with_packages:
                system.run("dpkg", "-i", *PACKAGES.glob("kestrelexp*.deb"))
            runner = commands.Runner(system, sender)
            for block in commands.blocks((ROOT / name).read_text(encoding="utf-8")):
                if block.language == "sh":
                    with self.subTest(line=block.line):
                        runner.run_block(block)

    def enter(self):
        enter_machine_copy([ROOT, PACKAGES])
        os.chdir(ROOT)
        Path("/usr/sbin/policy-rc.d").unlink(missing_ok=True)
        Path("/var/lib/man-db/auto-update").unlink(missing_ok=True)
        ip(f"link add eth0 type veth peer name {SENDER}")
        for end in ("eth0", SENDER):
            ip(f"link set {end} arp off up")
        for host in (10, 11, 12):
            ip(f"address add 192.0.2.{host}/24 dev lo")
        for port in (4739, 4740):  # IPFIX over TCP is accepted
            listener = socket.create_server(("192.0.2.10", port))
            threading.Thread(target=take_all, args=(listener,), daemon=True).start()
        for name, text in WRAPPERS.items():
            path = Path("/usr/local/sbin") / name
            path.write_text(f"#!/bin/bash{text}", encoding="ascii")
            path.chmod(0o755)
        os.environ["PATH"] = "/usr/local/sbin:" + os.environ["PATH"]
        # What is built by the README is what the tests were built from.
        if shutil.which("ccache"):
            os.environ.setdefault("CMAKE_CXX_COMPILER_LAUNCHER", "ccache")


def take_all(listener):
    while True:
        connection, _ = listener.accept()
        with connection:
            while connection.recv(65536):
                pass


if __name__ == "__main__":
    unittest.main()
