"""A tunnel device of our own: what is written to it arrives there, as it stands."""

import fcntl
import os
import struct

from testbed.network import ip

# linux/if_tun.h
_TUNSETIFF, _TUNSETLINK = 0x400454CA, 0x400454CD
_IFF_TUN, _IFF_NO_PI = 0x0001, 0x1000

# linux/if_arp.h
PPP_DEVICE, MONITOR_DEVICE = 512, 803


class Tunnel:
    """hardware: the type of device (ARPHRD_*) that it passes for; none: a tunnel."""

    def __init__(self, name, hardware=None):
        self.name = name
        self._descriptor = os.open("/dev/net/tun", os.O_RDWR)
        request = struct.pack("16sH22x", name.encode(), _IFF_TUN | _IFF_NO_PI)
        fcntl.ioctl(self._descriptor, _TUNSETIFF, request)
        if hardware is not None:
            fcntl.ioctl(self._descriptor, _TUNSETLINK, hardware)
        ip(f"link set {name} up")

    def send(self, *networks):
        """Packets (testbed.frames.Network) without any header of a link."""
        for network in networks:
            assert os.write(self._descriptor, network.data) == len(network.data)

    def close(self):
        os.close(self._descriptor)
