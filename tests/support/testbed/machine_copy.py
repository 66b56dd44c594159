"""A copy of this machine to throw away: the same files, its own changes, its own network.

What this process and its children write behind enter_machine_copy() lies in memory, over the real
root file system, in name spaces that are gone with the last of them. Packages can be installed and
purged there, users made, files of /etc written.
"""

import ctypes
import os
import subprocess

_CLONE_NEWNS, _CLONE_NEWNET = 0x00020000, 0x40000000
_ROOM = "/mnt"  # stands on every Debian system; covered in our name space only
_KERNEL_MOUNTS = ("/proc", "/sys", "/dev")


def enter_machine_copy(kept=()):
    """Moves this process into the copy. What it needs of other mounts than the root file system
    (a source or build tree, say) is named in kept and stays the real thing."""
    assert os.geteuid() == 0, "this test makes name spaces and mounts: run it as root"
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(_CLONE_NEWNS | _CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "unshare failed")
    directory = os.getcwd()
    _run("mount", "--make-rprivate", "/")
    _run("mount", "-t", "tmpfs", "-o", "mode=755", "none", _ROOM)
    for name in ("changes", "work", "root"):
        os.mkdir(f"{_ROOM}/{name}")
    _run("mount", "-t", "overlay", "-o",
         f"lowerdir=/,upperdir={_ROOM}/changes,workdir={_ROOM}/work", "none", f"{_ROOM}/root")
    for mounted in _KERNEL_MOUNTS:
        _run("mount", "--rbind", mounted, f"{_ROOM}/root{mounted}")
    root_device = os.stat("/").st_dev
    for path in map(os.path.realpath, kept):
        if os.stat(path).st_dev != root_device:
            os.makedirs(f"{_ROOM}/root{path}", exist_ok=True)
            _run("mount", "--rbind", path, f"{_ROOM}/root{path}")
    os.chroot(f"{_ROOM}/root")
    os.chdir(directory)
    _run("ip", "link", "set", "lo", "up")


def _run(*command):
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL)
