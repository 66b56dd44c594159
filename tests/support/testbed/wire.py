"""What passes over loopback, as a witness beside probe and collector: it sees what nobody took."""

import socket
import struct
import threading

from testbed.frames import TCP, UDP

_SO_RCVBUFFORCE, _SOL_PACKET, _PACKET_STATISTICS = 33, 263, 6
_ETH_P_IP = 0x0800
_ROOM = 256 << 20  # bytes that may wait


class LoopbackWitness:
    """Keeps the IPv4 packets of loopback from its making on. Each packet is there once."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, _ROOM)
        self._socket.bind(("lo", _ETH_P_IP))
        self._socket.settimeout(0.2)
        self._packets = []
        self._is_over = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while True:
            try:
                self._packets.append(self._socket.recv(65536))
            except TimeoutError:
                if self._is_over.is_set():
                    return

    def finish(self):
        """To be called when all has been sent; fails when the witness has missed a packet."""
        if not self._is_over.is_set():
            self._is_over.set()
            self._thread.join()
            statistics = self._socket.getsockopt(_SOL_PACKET, _PACKET_STATISTICS, 8)
            assert struct.unpack("II", statistics)[1] == 0, "packets that nobody witnessed"
            self._socket.close()

    def count_of(self, protocol, port):
        """Packets so far to a port, whatever is in them."""
        return sum(1 for _ in self._to_port(protocol, port))

    def datagrams(self, port):
        """The payloads of the datagrams to a port."""
        return [data[8:] for data in self._to_port(UDP, port)]

    def streams(self, port):
        """What was sent on each TCP connection to a port, in the order of the connections: the
        bytes that were on the wire without a gap from the first."""
        streams, current = [], {}
        for data in self._to_port(TCP, port):
            source, _, sequence = struct.unpack_from(">HHI", data)
            payload = data[data[12] // 16 * 4:]
            if data[13] & 2:  # SYN; a later connection may come from the same port
                current[source] = (sequence + 1, {})
                streams.append(current[source])
            elif payload and source in current:
                start, parts = current[source]
                parts[(sequence - start) % 2**32] = payload
        return [_joined(parts) for _, parts in streams]

    def _to_port(self, protocol, port):
        for packet in list(self._packets):
            if packet[9] == protocol:
                length = int.from_bytes(packet[2:4], "big") or len(packet)
                data = packet[packet[0] % 16 * 4:length]
                if int.from_bytes(data[2:4], "big") == port:
                    yield data


def _joined(parts):
    whole = b""
    for start, payload in sorted(parts.items()):
        if start > len(whole):
            break
        whole += payload[len(whole) - start:]
    return whole
