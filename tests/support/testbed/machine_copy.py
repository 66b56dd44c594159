"""A copy of this machine to throw away: the same files, its own changes, its own network.

What this process and its children write after enter_machine_copy() lies in memory, over the real
root file system, in name spaces that are gone with the last of them. Packages can be installed and
purged there, users made, files of /etc written.
"""

import os
import subprocess
import tempfile

from testbed import namespaces
from testbed.allowed import asked_of_the_machine

_ROOM = "/mnt"  # stands on every Debian system; covered in our name space only
_ROOT = f"{_ROOM}/root"
_KERNEL_MOUNTS = ("/proc", "/sys", "/dev")


def enter_machine_copy(other_mounts=()):
    """Moves this process into the copy. Directories that the caller needs and that may lie on other
    mounts than the root file system (a source or build tree, say) are copied with it."""
    assert os.geteuid() == 0, "this test makes name spaces and mounts: run it as root"
    with asked_of_the_machine("a copy of itself in name spaces and overlays"):
        _enter(other_mounts)


def _enter(other_mounts):
    namespaces.unshare(namespaces.MOUNTS | namespaces.NETWORK)
    directory = os.getcwd()
    _run("mount", "--make-rprivate", "/")
    _run("mount", "-t", "tmpfs", "-o", "mode=755", "none", _ROOM)
    os.mkdir(_ROOT)
    _cover("/", _ROOT)
    for mounted in _KERNEL_MOUNTS:
        _run("mount", "--rbind", mounted, f"{_ROOT}{mounted}")
    root_device = os.stat("/").st_dev
    for path in sorted(set(map(os.path.realpath, other_mounts))):
        if os.stat(path).st_dev != root_device:
            os.makedirs(f"{_ROOT}{path}", exist_ok=True)
            _cover(path, f"{_ROOT}{path}")
    os.chroot(_ROOT)
    os.chdir(directory)
    _run("ip", "link", "set", "lo", "up")


def _cover(real, shown):
    """Shows the real directory at another place; what is written there stays in memory."""
    changes = tempfile.mkdtemp(dir=_ROOM)
    for name in ("upper", "work"):
        os.mkdir(f"{changes}/{name}")
    os.chmod(f"{changes}/upper", 0o755)
    _run("mount", "-t", "overlay", "-o",
         f"lowerdir={real},upperdir={changes}/upper,workdir={changes}/work", "none", shown)


def _run(*command):
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL)
