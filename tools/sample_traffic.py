"""sample_traffic.py SECONDS: a little traffic of several protocols on loopback, to look at.

Everything stays on 127.0.0.1 and ::1. Needs root for the ICMP packets. Ends with status 0 when all
IPv4 traffic could be sent; a machine without IPv6 goes without it.
"""

import socket
import struct
import sys
import threading
import time

ROUNDS_PER_SECOND = 5


def main():
    rounds = max(1, int(sys.argv[1]) * ROUNDS_PER_SECOND)
    families = [(socket.AF_INET, "127.0.0.1")]
    if has_ipv6():
        families.append((socket.AF_INET6, "::1"))
    talks = [talk for family, address in families
             for talk in (UdpTalk(family, address), TcpTalk(family, address))]
    talks.append(Ping())
    for number in range(rounds):
        for talk in talks:
            talk.round(number)
        time.sleep(1 / ROUNDS_PER_SECOND)


class UdpTalk:
    """Three clients ask one server, which answers with the question twice."""

    def __init__(self, family, address):
        self.server = bound(family, socket.SOCK_DGRAM, address)
        self.clients = [bound(family, socket.SOCK_DGRAM, address) for _ in range(3)]

    def round(self, number):
        for client in self.clients:
            client.sendto(b"question" * (number + 1), self.server.getsockname())
            question, sender = self.server.recvfrom(65536)
            self.server.sendto(question * 2, sender)
            client.recv(65536)


class TcpTalk:
    """A connection for every round: a request, an answer, the end."""

    def __init__(self, family, address):
        self.family, self.address = family, address
        self.server = bound(family, socket.SOCK_STREAM, address)
        self.server.listen()
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            connection, _ = self.server.accept()
            with connection:
                connection.sendall(connection.recv(65536) * 100)

    def round(self, number):
        with socket.create_connection(self.server.getsockname()[:2], timeout=5) as connection:
            connection.sendall(b"request" * (number + 1))
            while connection.recv(65536):
                pass


class Ping:
    """Echo requests; the kernel answers them."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)

    def round(self, number):
        header = struct.pack(">BBHHH", 8, 0, 0, 0x6B78, number)
        checksum = 0xFFFF - sum(struct.unpack(">4H", header)) % 0xFFFF
        self.socket.sendto(header[:2] + struct.pack(">H", checksum) + header[4:], ("127.0.0.1", 0))


def bound(family, kind, address):
    bound_socket = socket.socket(family, kind)
    bound_socket.bind((address, 0))
    bound_socket.settimeout(5 if kind == socket.SOCK_DGRAM else None)
    return bound_socket


def has_ipv6():
    try:
        bound(socket.AF_INET6, socket.SOCK_DGRAM, "::1").close()
    except OSError:
        return False
    return True


main()
