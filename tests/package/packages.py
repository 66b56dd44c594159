"""The packages under test, a second version of them, and the unit as a command to run."""

import os
import re
import shlex
import shutil
import subprocess
import tempfile
from pathlib import Path

PACKAGES = Path(os.environ.get("KESTREL_PACKAGES", "."))
UNIT = Path("/usr/lib/systemd/system/kestrelexp@.service")


def package(name):
    found, = PACKAGES.glob(f"{name}_*.deb")
    return found


def run(*command, check=True, **options):
    """Runs to the end; returns standard output, and fails with everything that was printed."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False, **options)
    assert done.returncode == 0 or not check, f"{command}: {done.returncode}\n{done.stdout}"
    return done.stdout


def install(*files):
    """As apt does it without anybody to ask: changed configuration files are kept."""
    return run("dpkg", "--force-confdef", "--force-confold", "-i", *map(str, files))


def state(name):
    """What dpkg knows of a package: "ii" installed, "rc" removed but for its configuration."""
    return run("dpkg-query", "-W", "-f=${db:Status-Abbrev}", name, check=False).strip()


def second_version(first, version, edit):
    """The same package with another version; edit(tree) changes what is in it."""
    with tempfile.TemporaryDirectory() as directory:
        tree = Path(directory) / "tree"
        run("dpkg-deb", "-R", str(first), str(tree))
        control = tree / "DEBIAN" / "control"
        control.write_text(re.sub("(?m)^Version: .*", f"Version: {version}", control.read_text()))
        edit(tree)
        made = first.with_name(f"second_{first.name}")
        run("dpkg-deb", "-b", str(tree), str(made))
        return made


class Unit:
    """The installed unit, as far as one needs it to start what systemd would start."""

    def __init__(self, instance):
        self._lines = UNIT.read_text(encoding="utf-8").replace("%i", instance).splitlines()

    def values(self, name):
        return [line.partition("=")[2] for line in self._lines if line.startswith(f"{name}=")]

    def value(self, name):
        value, = self.values(name)
        return value

    def command(self):
        """ExecStart with its variables, as the unit's user with its capabilities and no others."""
        assert self.values("AmbientCapabilities") == self.values("CapabilityBoundingSet")
        capabilities = "-all,+" + self.value("AmbientCapabilities").removeprefix("CAP_").lower()
        options = ["--reuid", self.value("User"), "--regid", self.value("Group"), "--init-groups",
                   "--no-new-privs", "--inh-caps", capabilities, "--ambient-caps", capabilities,
                   "--bounding-set", capabilities]
        return [shutil.which("setpriv"), *options, "--", *self._words()]

    def _words(self):
        variables = self._environment()
        for word in shlex.split(self.value("ExecStart")):
            if word.startswith("$"):
                yield from variables.get(word[1:], "").split()
            else:
                yield word

    def _environment(self):
        found = {}
        for setting in self.values("Environment"):
            (word,) = shlex.split(setting)
            name, _, found[name] = word.partition("=")
        for name in self.values("EnvironmentFile"):
            path = Path(name.removeprefix("-"))
            if name.startswith("-") and not path.exists():
                continue
            for line in path.read_text(encoding="utf-8").splitlines():
                name, is_setting, value = line.partition("=")
                if is_setting and not line.startswith("#"):
                    found[name] = " ".join(shlex.split(value))
        return found
