"""systemd as it would run on a machine, in the process name space of a copy of this one.

To be used after enter_machine_copy(). Nothing but the units that a test starts runs in it. The
network is the caller's, so the caller's sockets and interfaces meet those of the services.
"""

import os
import subprocess
import time
from pathlib import Path

from testbed.allowed import asked_of_the_machine

# A /dev without the machine's devices, a /run without its sockets, a process table and a tree of
# control groups of its own.
_BOOT = r"""
set -e
find /etc/systemd/system /usr/lib/systemd/system -name '*.wants' -prune -exec rm -rf {} +
mount -t proc proc /proc
mount -t tmpfs none /run
mount -t tmpfs -o mode=755 none /dev
mknod -m 666 /dev/null c 1 3
mknod -m 666 /dev/zero c 1 5
mknod -m 666 /dev/full c 1 7
mknod -m 666 /dev/random c 1 8
mknod -m 666 /dev/urandom c 1 9
mknod -m 666 /dev/tty c 5 0
mkdir /dev/shm /dev/pts
mount -t tmpfs none /dev/shm
mount -t devpts -o newinstance,ptmxmode=0666 none /dev/pts
ln -s pts/ptmx /dev/ptmx
ln -s /proc/self/fd /dev/fd
: > /dev/console
umount -R /sys/fs/cgroup
mount -t cgroup2 none /sys/fs/cgroup
exec env container=other /usr/lib/systemd/systemd --unit=sysinit.target --log-target=null
"""
_SPACES = ("--pid", "--mount", "--cgroup", "--uts", "--ipc")
_SECONDS_TO_WAIT = 30


class BootedSystem:
    """Used as a context; whatever runs in it ends with it."""

    def __init__(self):
        with asked_of_the_machine("systemd in name spaces of its own"):
            self._boot()

    def _boot(self):
        self._group = _own_control_group() / f"kestrel-test-{os.getpid()}"
        self._group.mkdir()
        # Who boots it enters the group first, so that no group of the machine is touched.
        self._shell = subprocess.Popen(
            ["sh", "-c", 'echo $$ > "$0/cgroup.procs" && exec unshare "$@"', self._group, *_SPACES,
             "--fork", "--kill-child", "sh", "-c", _BOOT], stdin=subprocess.DEVNULL)
        try:
            self._wait_until_up()
        except BaseException:
            self.__exit__()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._shell.kill()
        self._shell.wait()
        deadline = time.monotonic() + _SECONDS_TO_WAIT
        while not _removed(self._group):  # the last processes are on their way out
            assert time.monotonic() < deadline, f"{self._group} is not empty"
            time.sleep(0.05)

    def run(self, *command, check=True):
        """Runs a command in the system, to its end; returns its output."""
        done = subprocess.run(
            self.command(*command), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, timeout=_SECONDS_TO_WAIT, check=False)
        assert done.returncode == 0 or not check, f"{command}: {done.returncode}\n{done.stdout}"
        return done.stdout

    def command(self, *words):
        """The words that run a command in the system, in the caller's directory."""
        return ["nsenter", "--target", self._init(), "--root", f"--wd={os.getcwd()}", *_SPACES,
                *map(str, words)]

    @staticmethod
    def signal(process, number):
        """To a process started with command(): what was started is its child."""
        os.kill(int(_first_child(process.pid)), number)

    def state(self, unit):
        """Its state, its process (0: none) and the status it ended with."""
        text = self.run("systemctl", "show", "-p", "ActiveState,MainPID,ExecMainStatus", unit)
        values = dict(line.split("=", 1) for line in text.splitlines())
        return values["ActiveState"], int(values["MainPID"]), int(values["ExecMainStatus"])

    def _init(self):
        return _first_child(self._shell.pid)

    def _wait_until_up(self):
        deadline = time.monotonic() + _SECONDS_TO_WAIT
        while self._shell.poll() is None and time.monotonic() < deadline:
            time.sleep(0.2)
            try:
                if self.run("systemctl", "is-system-running", check=False).strip() == "running":
                    return
            except IndexError:
                pass  # the first process is not there yet
        raise AssertionError("systemd does not come up")


def _own_control_group():
    """The directory of this process's group, of the hierarchy that systemd wants."""
    mounts = Path("/proc/self/mountinfo").read_text(encoding="ascii").splitlines()
    mounted = next(line.split()[4] for line in mounts if " - cgroup2 " in line)
    groups = Path("/proc/self/cgroup").read_text(encoding="ascii").splitlines()
    name = next(line for line in groups if line.startswith("0::")).removeprefix("0::")
    return Path(mounted + name)


def _removed(group):
    try:
        for path, _, _ in os.walk(group, topdown=False):
            os.rmdir(path)
    except OSError:
        return False
    return True


def _first_child(pid):
    with open(f"/proc/{pid}/task/{pid}/children", encoding="ascii") as children:
        return children.read().split()[0]
