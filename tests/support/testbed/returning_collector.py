"""A collector of datagrams that goes away and comes back on its port. What it cannot tell, the
witness of the wire can: see testbed.wire."""

import select
import socket

from testbed.network import udp_receiver


class ReturningCollector:
    def __init__(self, host="127.0.0.1", port=0):
        self.host = host
        self._socket = udp_receiver(host=host, port=port)
        self.port = self._socket.getsockname()[1]
        self.datagrams = []

    def drain(self):
        """Takes every datagram that has arrived."""
        while select.select([self._socket], [], [], 0)[0]:
            self.datagrams.append(self._socket.recv(65536, socket.MSG_DONTWAIT))

    def die(self):
        """The port is closed: the system answers that nobody listens."""
        self.drain()
        self.close()

    def come_back(self):
        self._socket = udp_receiver(host=self.host, port=self.port)

    def close(self):
        self._socket.close()
