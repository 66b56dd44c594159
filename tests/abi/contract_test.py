"""The public headers, alone and against the program: what they promise is there."""

# Not under the thread sanitizer: it looks at what the main thread does while the program starts.

import glob
import os
import re
import shutil
import subprocess
import tempfile
import unittest

from abi import plugin
import headers
from testbed.case import QuietCase
from testbed.probe import run_to_its_end
from testbed.rawnetcap import with_capture_module, write_pcap


class Headers(unittest.TestCase):
    """Each public header stands alone."""

    def compile(self, language, standard, candidates):
        compilers = [name for name in candidates if shutil.which(name)]
        self.assertTrue(compilers)
        self.assertGreater(len(headers.names()), 8)
        for compiler in compilers:
            for name in headers.names():
                with self.subTest(compiler=compiler, header=name):
                    done = subprocess.run(
                        [compiler, "-x", language, f"-std={standard}", "-fsyntax-only", "-Wall",
                         "-Wextra", "-Werror", "-pedantic", "-I", headers.DIRECTORY, "-"],
                        input=f'#include "{name}"\nint unit;\n', text=True, capture_output=True)
                    self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_as_c11(self):
        self.compile("c", "c11", ["gcc", "clang", "clang-14"])

    def test_as_cpp20(self):
        self.compile("c++", "c++20", ["g++", "clang++", "clang++-14"])


class Symbols(unittest.TestCase):
    """The program exports what the headers promise."""

    def test_names_are_read_from_declarations_of_each_form(self):
        self.assertEqual(headers.exported(
            "/* KX_API int no(void); */ extern KX_API const uint64_t table[4][256];\n"
            "KX_API struct a* f(int (*x)(void), int y)\n __attribute__((noreturn));\n"
            "KX_API some_function g, h,\n i; #define KX_API_LESS 1\n"
            "/* ---- What an external plugin defines ---- */ KX_API int own(void);"),
            ["table", "f", "g", "h", "i"])

    def test_every_declared_name_is_exported(self):
        listed = subprocess.run(["nm", "-D", "--defined-only", os.environ["KESTREL_PROBE"]],
                                text=True, capture_output=True, check=True).stdout
        defined = {line.split()[-1] for line in listed.splitlines()}
        promised = headers.all_exported()
        self.assertGreater(len(promised), 150)
        self.assertEqual(sorted(set(promised) - defined), [])

    def test_every_declared_name_is_used_by_a_plugin(self):
        text = ""
        for path in glob.glob(os.path.join(os.path.dirname(__file__), "plugins", "everything*.c")):
            with open(path, encoding="utf-8") as source:
                text += source.read()
        used = set(re.findall(r"\w+", text))
        self.assertEqual(sorted(set(headers.all_exported()) - used), [])


class Everything(QuietCase):
    """A plugin that uses all that the headers declare."""

    def test_everything(self):
        with tempfile.NamedTemporaryFile() as frames:
            write_pcap(frames.name, [bytes(60)] * 3)
            status, output, lines = run_to_its_end(
                "-X", plugin("everything"), "-e", "vlan", "-e", "mpls", "-e", "mac",
                "-I", "pcap:device=lo", "-E", "everything", name="/some/where/probe",
                env=with_capture_module(FRAMES=frames.name))
        printed = [line for line in lines if line.startswith("flow: FLOW:")]
        self.assertEqual(len(printed), 1)
        self.assertRegex(printed[0], r"^flow: FLOW: *\d+, *\d+,16909060,84281096,IPV4,192\.0\.2\.1,"
                                     r"192\.0\.2\.2,TCP,5398,5912,---AP--F$")
        self.assertEqual([line for line in lines if line not in printed], [
            "a message 1",
            "DEBUG: 3:,here there: message 2",
            "Invalid record: 0",
            "Flushing queue",
            "Queue flushed. 1 records out.",
            "Unable to open plugin: /nonexistent/plugin.so",
            "everything: 0 failures",
            "Export: everything ERROR"])
        self.assertEqual(output, "Name,Length\nONE,2\n"
                                 "probe: You must specify input and at least one export.\n"
                                 "Try probe '-h' for more information.\n")
        self.assertEqual(status, 255)
