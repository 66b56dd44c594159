"""A service manager of our own: the socket that sd_notify(3) describes, and what comes to it."""

import os
import socket
import time

from testbed.process import SLOWNESS


class ServiceManager:
    """address: a path, or a name of the abstract space after an '@'."""

    def __init__(self, address):
        self.address = str(address)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(self.address.replace("@", "\0", 1))

    def environment(self, **more):
        return {**os.environ, "NOTIFY_SOCKET": self.address, **more}

    def fall_behind(self):
        """Fills its own queue, so that nobody's word is taken until the next message is read."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other:
            other.setblocking(False)
            other.connect(self.address.replace("@", "\0", 1))
            try:
                while True:
                    other.send(b"X_OTHER=1")
            except BlockingIOError:
                pass

    def message(self, timeout=10):
        """The next one as a dictionary; None when time is up."""
        self._socket.settimeout(timeout * SLOWNESS)
        try:
            text = self._socket.recv(4096).decode()
        except TimeoutError:
            return None
        return dict(line.split("=", 1) for line in text.splitlines())

    def messages(self, seconds):
        """What comes within so many seconds."""
        found, deadline = [], time.monotonic() + seconds
        while (left := deadline - time.monotonic()) > 0:
            if (message := self.message(left / SLOWNESS)) is not None:
                found.append(message)
        return found

    def close(self):
        self._socket.close()
