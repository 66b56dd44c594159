"""A network of our own: an anonymous namespace with a veth pair on which only our frames appear.

The namespace belongs to this process and the children that it starts, and is gone with the last of
them. Neither end answers or speaks on its own: no addresses, no ARP, no IPv6.
"""

import os
import socket
import subprocess

from testbed import namespaces
from testbed.process import wait_until

SENDER, PROBED = "ka", "kb"  # frames sent on the first end arrive at the second

_SO_RCVBUFFORCE = 33


def enter_quiet_network():
    """Moves this process into a fresh namespace with nothing but loopback."""
    namespaces.unshare(namespaces.NETWORK)
    ip("link set lo up")


def enter_private_network(mtu=1500):
    """Moves this process into a fresh namespace with loopback and the veth pair up."""
    namespaces.unshare(namespaces.NETWORK)
    with open("/proc/sys/net/ipv6/conf/default/disable_ipv6", "w", encoding="ascii") as switch:
        switch.write("1")
    ip("link set lo up")
    ip(f"link add {SENDER} mtu {mtu} type veth peer name {PROBED} mtu {mtu}")
    for end in (SENDER, PROBED):
        ip(f"link set {end} arp off up")


def make_pair(*names):
    ip(f"link add {names[0]} type veth peer name {names[1]}")
    for name in names:
        ip(f"link set {name} arp off up")


def wait_for_carrier(device=SENDER):
    """Until then the kernel throws away what is sent there, and says nothing."""
    wait_until(lambda: " state UP " in subprocess.run(
        ["ip", "-oneline", "link", "show", device], capture_output=True, text=True,
        check=True).stdout, f"carrier of {device}")


class FrameSender:
    """Puts frames on the sender's end exactly as given (14 bytes at least: an Ethernet header)."""

    def __init__(self, device=SENDER):
        self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        self._socket.bind((device, 0))

    def send(self, *frames):
        for frame in frames:
            assert self._socket.send(frame) == len(frame)

    def close(self):
        self._socket.close()


def blaster(flows, frames_per_second):
    """The command that sends one frame for each of so many flows (frame_blaster.c)."""
    return [os.environ["KESTREL_FRAME_BLASTER"], SENDER, str(flows), str(frames_per_second)]


def blast(flows, frames_per_second):
    """Sends one frame for each of so many flows, no faster than that."""
    subprocess.run(blaster(flows, frames_per_second), check=True, stdin=subprocess.DEVNULL)


def limit_send_buffers(size):
    """TCP sockets of this namespace, from now on, take no more bytes than that (the kernel's least
    is 4,096) from who writes faster than the other side reads."""
    with open("/proc/sys/net/ipv4/tcp_wmem", "w", encoding="ascii") as setting:
        setting.write(f"4096 {size} {size}")


def udp_receiver(buffer_bytes=128 << 20, port=0, host="127.0.0.1"):
    """A bound loopback socket whose buffer holds whatever a test sends before it is read."""
    receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    receiver.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, buffer_bytes)
    receiver.bind((host, port))
    return receiver


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def unread_bytes(port):
    """What waits at a bound UDP port of this namespace."""
    with open("/proc/self/net/udp", encoding="ascii") as table:
        for line in table:
            fields = line.split()
            if fields[1].endswith(f":{port:04X}"):
                return int(fields[4].partition(":")[2], 16)
    raise LookupError(port)


def received_frames(interface=PROBED):
    """Frames that the kernel has handed to an interface so far."""
    with open("/proc/self/net/dev", encoding="ascii") as table:
        for line in table:
            name, _, numbers = line.partition(":")
            if name.strip() == interface:
                return int(numbers.split()[1])
    raise LookupError(interface)


def ip(arguments):
    """Runs ip(8) with the words of a text."""
    subprocess.run(["ip", *arguments.split()], check=True, stdin=subprocess.DEVNULL)
