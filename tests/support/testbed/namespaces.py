"""Name spaces of this process and the children that it starts; gone with the last of them."""

import ctypes

NETWORK, MOUNTS = 0x40000000, 0x00020000


def unshare(spaces):
    """Moves this process into fresh ones (a sum of the values above)."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(spaces) != 0:
        raise OSError(ctypes.get_errno(), "name spaces of its own are not allowed to this user")


def enter(pid, space):
    """Moves this thread into the name space of another process (one of the values above)."""
    names = {NETWORK: "net", MOUNTS: "mnt"}
    libc = ctypes.CDLL(None, use_errno=True)
    with open(f"/proc/{pid}/ns/{names[space]}", "rb") as opened:
        if libc.setns(opened.fileno(), space) != 0:
            raise OSError(ctypes.get_errno(), "the name spaces of others are not open to this user")
