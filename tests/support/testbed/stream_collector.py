"""A collector of IPFIX over TCP that can stop reading, break off, go away and come back."""

import select
import socket
import struct
import threading
import time

from testbed.flow_sets import Reader, split_stream


class Connection:
    """What came on one connection. Its messages stand by themselves: the templates come first."""

    def __init__(self):
        self.stream = bytearray()

    def messages(self):
        """The whole messages, read, and the bytes of the one that broke off."""
        whole, rest = split_stream(bytes(self.stream))
        reader = Reader()
        return [reader.read(message) for message in whole], rest


class StreamCollector:
    """Listens on a loopback port, of its own unless one is given. One thread reads whatever comes
    until it is told otherwise. room: bytes of the receive buffer."""

    def __init__(self, room=1 << 20, host="127.0.0.1", port=0):
        self.host = host
        self._room = room
        self._listener = None
        self._peer = None
        self._is_reading = threading.Event()
        self._is_closed = threading.Event()
        self._lock = threading.Lock()
        self.port = port
        self.connections = []
        self.listen()
        self._is_reading.set()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def listen(self):
        """Takes connections, again on the same port after it went away."""
        listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, self._room)
        listener.bind((self.host, self.port))
        listener.listen()
        self.port = listener.getsockname()[1]
        with self._lock:
            self._listener = listener

    def stall(self):
        """Reads no more: its window shuts."""
        self._is_reading.clear()

    def read_on(self):
        self._is_reading.set()

    def take_what_is_there(self):
        """Takes what its system has for a stalled collector, down to the last byte."""
        with self._lock:
            part = self._peer.recv(1 << 24, socket.MSG_DONTWAIT)
            self.connections[-1].stream += part

    def die(self, after_bytes=0):
        """Goes away as a killed process does: nobody listens, what it has not read is gone. Before
        that a stalled one takes so many bytes more."""
        with self._lock:
            while after_bytes > 0:
                part = self._peer.recv(after_bytes)
                self.connections[-1].stream += part
                after_bytes -= len(part)
            self._listener.close()
            self._listener = None
            if self._peer:
                self._peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                self._peer.close()
                self._peer = None

    def drain(self, wait_s=0.5):
        """Returns when nothing has come for so long."""
        before = None
        while before != (before := self._size()):
            time.sleep(wait_s)

    def close(self):
        self._is_closed.set()
        self._thread.join()
        for opened in (self._listener, self._peer):
            if opened:
                opened.close()

    @property
    def packets(self):
        """Packets in the whole messages that have come."""
        return sum(message.packets for connection in self.connections
                   for message in connection.messages()[0])

    def _size(self):
        return sum(len(connection.stream) for connection in self.connections)

    def _run(self):
        while not self._is_closed.is_set():
            if not self._is_reading.wait(0.05):
                continue
            with self._lock:
                awaited = self._peer or self._listener
                if awaited and select.select([awaited], [], [], 0)[0]:
                    self._take()
                    continue
            time.sleep(0.002)

    def _take(self):
        if not self._peer:
            self._peer, _ = self._listener.accept()
            self.connections.append(Connection())
            return
        try:
            part = self._peer.recv(1 << 16)
        except ConnectionResetError:
            part = b""
        if part:
            self.connections[-1].stream += part
        else:
            self._peer.close()
            self._peer = None
