"""Manual pages and completions agree with the program, and are well formed."""

import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
PROGRAM = os.environ.get("KESTREL_PROBE", "kestrelexp")
PAGES = [ROOT / "docs/man" / name for name in ("kestrelexp.8", "kestrelexp-plugins.7")]
BASH = ROOT / "packaging/completions/kestrelexp.bash"
ZSH = ROOT / "packaging/completions/_kestrelexp"


def run(*command, **options):
    return subprocess.run(list(map(str, command)), stdin=subprocess.DEVNULL, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False, **options)


def check(program):
    return run(sys.executable, ROOT / "tools/reference.py", "--check", program)


def output_of(option):
    return subprocess.run([PROGRAM, option], stdin=subprocess.DEVNULL, check=True,
                          stdout=subprocess.PIPE, text=True).stdout


class Reference(unittest.TestCase):
    maxDiff = None

    def other_program(self, **texts):
        """A program that says something else for one of its options."""
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        program = Path(directory.name) / "other"
        for option in ("h", "l"):
            program.with_name(option).write_text(texts.get(option) or output_of(f"-{option}"))
        for name in ("extras", "field_tables"):
            program.with_name(name).symlink_to(Path(PROGRAM).parent / name)
        program.write_text('#!/bin/sh\n'
                           f'if [ "$1" = -X ]; then exec {PROGRAM} "$@"; fi\n'
                           'cat "$(dirname "$0")/${1#-}"\n')
        program.chmod(0o755)
        return program

    def test_pages_and_completions_say_what_the_program_says(self):
        done = check(PROGRAM)
        self.assertEqual((done.returncode, done.stdout), (0, ""))

    def test_a_new_option_is_missed_everywhere_but_in_the_plugins_page(self):
        text = output_of("-h").replace(" -q size ", " -z colour        a new one\n -q size ")
        done = check(self.other_program(h=text))
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stdout.splitlines()[:-1], [
            "docs/man/kestrelexp.8", "packaging/completions/kestrelexp.bash",
            "packaging/completions/_kestrelexp"])

    def test_a_new_plugin_is_missed_in_its_page_and_the_completions(self):
        text = output_of("-l").replace("name: null\n", "name: paper\nPrints.\n\n\nname: null\n")
        done = check(self.other_program(l=text))
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stdout.splitlines()[:-1], [
            "docs/man/kestrelexp-plugins.7", "packaging/completions/kestrelexp.bash",
            "packaging/completions/_kestrelexp"])

    def test_a_new_plugin_beside_the_program_is_missed_too(self):
        program = self.other_program()
        program.with_name("extras").unlink()
        program.with_name("extras").mkdir()
        program.with_name("extras").joinpath("paper.so").write_text("")
        program.with_name("l").write_text(output_of("-l"))
        program.write_text('#!/bin/sh\nif [ "$1" = -X ]; then\n'
                           '    printf "EXPORT Plugin(s)\\nname: paper\\nPrints.\\n"\n'
                           'else\n    cat "$(dirname "$0")/${1#-}"\nfi\n')
        done = check(program)
        self.assertEqual(done.returncode, 1)
        self.assertIn("docs/man/kestrelexp-plugins.7\n", done.stdout)

    def test_a_changed_text_is_noticed(self):
        done = check(self.other_program(h=output_of("-h").replace("daemonize", "daemonise")))
        self.assertEqual(done.returncode, 1)
        self.assertIn("docs/man/kestrelexp.8\n", done.stdout)

    def test_a_new_field_is_missed_in_the_pages_with_tables(self):
        program = self.other_program()
        tables = program.with_name("field_tables")
        tables.unlink()
        tables.write_text(f'#!/bin/sh\n{Path(PROGRAM).parent}/field_tables "$@"\n'
                          '[ "$1" = elements ] || echo "| \\`COLOUR\\` | 1 | IPv4 | paint |"\n')
        tables.chmod(0o755)
        done = check(program)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stdout.splitlines()[:-1],
                         ["docs/templates.md", "extras/json/README.md"])

    def test_readers_of_manuals_find_nothing_to_complain_about(self):
        for page in PAGES:
            with self.subTest(page=page.name):
                lint = run("mandoc", "-T", "lint", "-W", "warning", page)
                self.assertEqual((lint.returncode, lint.stdout), (0, ""))
                shown = run("man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page,
                            env={**os.environ, "LC_ALL": "C.UTF-8", "MANROFFSEQ": "",
                                 "MANWIDTH": "80"})
                self.assertEqual(shown.returncode, 0)
                self.assertNotIn("warning", shown.stdout)
                self.assertNotIn("error", [line.split(":")[0]
                                           for line in shown.stdout.splitlines()])

    def test_every_option_heads_a_paragraph_of_the_rendered_page(self):
        text = re.sub(".\x08", "", run("mandoc", "-T", "ascii", PAGES[0]).stdout)
        heads = re.findall(r"(?m)^ {7}(-\w)(?: |$)", text)
        self.assertEqual(heads, [line.split()[0] for line in output_of("-h").splitlines()
                                 if line.startswith(" -")])


class Bash(unittest.TestCase):
    maxDiff = None

    def completed(self, line, **options):
        """What bash would offer for the last word of a line."""
        script = (f'source {BASH}; COMP_LINE="$1"; COMP_POINT=${{#1}}; _kestrelexp; '
                  '((${#COMPREPLY[@]} == 0)) || printf "%s\\n" "${COMPREPLY[@]}"')
        done = run("bash", "-u", "-c", script, "bash", line, **options)
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout.splitlines()

    def test_every_option_is_offered(self):
        offered = self.completed("kestrelexp -")
        self.assertEqual(offered, [line.split()[0] for line in output_of("-h").splitlines()
                                   if line.startswith(" -")])
        self.assertEqual(self.completed("kestrelexp -I pcap:device=lo -E"), ["-E"])

    def test_plugins_are_offered_by_kind(self):
        self.assertEqual(self.completed("kestrelexp -E "),
                         ["null", "netflow-v5:", "netflow-v9:", "ipfix:", "ipfix-file:", "json:",
                          "kafka:", "metrics:"])
        self.assertEqual(self.completed("kestrelexp -I p"), ["pcap:"])
        self.assertEqual(self.completed("kestrelexp -F an"), ["anonymizer:"])
        self.assertEqual(self.completed("kestrelexp -G as"), ["as_helper:"])

    def test_keys_follow_what_readline_takes_for_the_word(self):
        self.assertEqual(self.completed("kestrelexp -E ipfix:pr"), ["protocol="])
        self.assertEqual(self.completed("kestrelexp -E ipfix:host=192.0.2.1,pr"),
                         ["192.0.2.1,protocol="])
        self.assertEqual(self.completed("kestrelexp -E ipfix:template"), [
            "template_file=", "template-refresh-time=", "template-refresh-packets="])
        self.assertEqual(self.completed("kestrelexp -E netflow-v9:template-f"),
                         ["template-file="])
        self.assertEqual(self.completed("kestrelexp -E null:"), [])

    def test_values_are_offered_where_they_are_known(self):
        self.assertIn("lo", self.completed("kestrelexp -I pcap:device="))
        self.assertEqual(self.completed("kestrelexp -E ipfix:host=h,protocol="),
                         ["udp", "tcp", "sctp"])
        self.assertEqual(self.completed("kestrelexp -e m"), ["mpls", "mac"])
        self.assertEqual(self.completed("kestrelexp -F anonymizer:A"), ["AES:"])
        self.assertIn("root", self.completed("kestrelexp -u ro"))
        self.assertEqual(self.completed("kestrelexp -q 1"), [])

    def test_files_are_offered(self):
        with tempfile.TemporaryDirectory() as directory:
            for name in ("one.so", "two.so", "rules.txt"):
                Path(directory, name).write_text("")
            self.assertEqual(self.completed("kestrelexp -F filter:ru", cwd=directory),
                             ["rules.txt"])
            self.assertEqual(self.completed("kestrelexp -X one.so,tw", cwd=directory),
                             ["one.so,two.so"])
            self.assertEqual(
                self.completed("kestrelexp -E ipfix:template_file=ru", cwd=directory),
                ["rules.txt"])
            self.assertEqual(
                self.completed("kestrelexp -I capture-file:file=o", cwd=directory), ["one.so"])


class Zsh(unittest.TestCase):
    def specs(self):
        """What the file asks _arguments for, one line each."""
        self.assertEqual(run("zsh", "-n", ZSH).stdout, "")
        done = run("zsh", "-f", "-c", f"_arguments() {{ print -rl -- $@ }}; source {ZSH}")
        self.assertEqual(done.returncode, 0, done.stdout)
        return done.stdout.splitlines()

    def test_every_option_has_a_specification(self):
        letters = [line[:3] for line in self.specs()]
        self.assertEqual(letters, [f"*{line.split()[0]}" for line in output_of("-h").splitlines()
                                   if line.startswith(" -")])

    def test_options_with_arguments_say_what_follows(self):
        specs = {spec[2]: spec for spec in self.specs()}
        self.assertTrue(specs["e"].endswith(":block:(vlan mpls mac)"))
        self.assertTrue(specs["E"].endswith(":name\\:params: _kestrelexp_named export"))
        self.assertTrue(specs["u"].endswith(":user:_users"))
        self.assertTrue(specs["d"].endswith("]"))


if __name__ == "__main__":
    unittest.main()
