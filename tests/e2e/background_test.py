"""Exports in the background: whatever a collector does, frames sent = packets that it has + losses
that the probe counts, and neither the capture nor another export nor the end is held up."""

import select
import signal
import socket
import threading
import time
from pathlib import Path

from testbed import namespaces
from testbed.accounts import LOST, SENT
from testbed.background import (BACKGROUND, ONE, SMALL, SOME, TCP, BackgroundCase, flows, messages,
                                run_command)
from testbed.flow_sets import Reader
from testbed.netflow_v5 import V5Reader
from testbed.network import received_frames
from testbed.probe import ipfix, netflow_v5, netflow_v9
from testbed.process import SLOWNESS, wait_until
from testbed.returning_collector import ReturningCollector


class ClosingCollector:
    """Accepts, says something, and closes."""

    def __init__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.settimeout(0.1)
        self.port = self._listener.getsockname()[1]
        self.times = []
        self._is_closed = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        while not self._is_closed.is_set():
            try:
                peer = self._listener.accept()[0]
            except TimeoutError:
                continue
            self.times.append(time.monotonic())
            peer.sendall(b"go away")
            peer.close()

    def close(self):
        self._is_closed.set()
        self._thread.join()
        self._listener.close()


class Background(BackgroundCase):
    # ---- UDP ----

    def test_datagrams_wait_while_nobody_listens(self):
        collectors = [self.datagrams() for _ in range(3)]
        ports = [collector.port for collector in collectors]
        readers = (V5Reader, Reader, Reader)
        exports = ('export="netflow-v5-0"', 'export="netflow-v9-1"', 'export="ipfix-2"')
        probe = self.probe(*netflow_v5(ports[0], BACKGROUND), *netflow_v9(ports[1], BACKGROUND),
                           *ipfix(ports[2], BACKGROUND), source=SMALL)

        def have(count):
            for collector in collectors:
                collector.drain()
            return all(sum(message.packets for message in messages(collector, reader)) >= count
                       for collector, reader in zip(collectors, readers))

        self.sender.send(*flows(1))
        wait_until(lambda: have(SOME - 100), "the first flows")
        for collector in collectors:
            collector.die()
        self.sender.send(*flows(2))
        wait_until(lambda: probe.log.count("no collector (Connection refused), trying again") == 3,
                   "outages")
        for collector in collectors:
            collector.come_back()
        wait_until(lambda: have(2 * SOME - 200), "what waited")
        self.sender.send(*flows(3))
        self.stop_in_order(probe, *collectors)

        found = self.sum_of(probe, 3 * SOME)
        for collector, export, reader in zip(collectors, exports, readers):
            with self.subTest(export=export):
                read = messages(collector, reader)
                packets = sum(message.packets for message in read)
                self.assertEqual(3 * SOME, packets + found.kept_from(export))
                self.assertEqual(packets, found.total(SENT, export))
                # The one that found it out.
                self.assertEqual(set(found.reasons(LOST, export)), {"unacknowledged"})
                self.assertLess(found.total(LOST, export), 60)
                self.assertEqual(found.total("kestrelexp_export_reconnects_total", export), 1)
                self.check_sequence(read, found.total("kestrelexp_export_lost_records_total",
                                                      export))

    def check_sequence(self, read, lost_records):
        """The sequence numbers have a gap as large as what was lost, and no other."""
        gap, expected = 0, 0
        for message in read:
            self.assertGreaterEqual(message.sequence, expected)
            gap += message.sequence - expected
            expected = message.sequence + (1 if message.version == 9 else message.records)
        self.assertEqual(gap, 1 if read[0].version == 9 else lost_records)

    def test_a_collector_that_was_never_there_gets_what_waits_for_it(self):
        collector = self.datagrams()
        collector.die()
        probe = self.probe(*netflow_v9(collector.port, BACKGROUND), source=SMALL)
        probe.wait_for_line(f"Export netflow-v9 to 127.0.0.1 port {collector.port}: no collector "
                            "(Connection refused), trying again (1 times)")
        self.sender.send(*flows(1))
        collector.come_back()
        probe.wait_for_line(f"Export netflow-v9 to 127.0.0.1 port {collector.port}: "
                            "connected after ")
        self.stop_in_order(probe, collector)
        found = self.sum_of(probe, SOME)
        read = messages(collector, Reader)
        self.assertEqual(sum(message.packets for message in read), SOME)
        self.assertEqual(found.total(LOST), 0)
        self.assertEqual([message.sequence for message in read], list(range(len(read))))
        self.assertEqual(read[0].records, 0)  # the templates

    def test_a_route_that_goes_and_comes_back_costs_nothing(self):
        far = self.far_machine()
        receivers = [far.socket(self.receive) for _ in range(2)]
        words = [word.replace("127.0.0.1", far.address) for export, receiver in
                 zip((ipfix, netflow_v9), receivers)
                 for word in export(receiver.getsockname()[1], BACKGROUND)]
        probe = self.probe(*words, source=SMALL)
        read = [[], []]

        def have(packets):
            for receiver, taken in zip(receivers, read):
                while select.select([receiver], [], [], 0)[0]:
                    taken.append(receiver.recv(65536))
            return all(self.packets_in(taken) >= packets for taken in read)

        self.sender.send(*flows(1))
        wait_until(lambda: have(SOME - 100), "the first flows")
        time.sleep(0.3)  # what was sent is there
        run_command("ip link set near down")
        self.sender.send(*flows(2))
        wait_until(lambda: probe.log.count("no collector (Network is unreachable)") == 2,
                   "outages")
        run_command("ip link set near up")
        wait_until(lambda: have(2 * SOME - 100), "what waited")
        self.stop_in_order(probe)
        have(0)
        found = self.sum_of(probe, 2 * SOME)
        self.assertEqual(found.total(LOST), 0)
        self.assertEqual([self.packets_in(taken) for taken in read], [2 * SOME] * 2)

    @staticmethod
    def packets_in(datagrams):
        reader = Reader()
        return sum(reader.read(datagram).packets for datagram in datagrams)

    def receive(self, address):
        receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(receiver.close)
        receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        receiver.bind((address, 0))
        return receiver

    # ---- TCP ----

    def test_a_collector_that_is_killed_costs_nothing_that_waits(self):
        collector = self.stream()
        probe = self.probe(*ipfix(collector.port, TCP), source=SMALL)
        self.sender.send(*flows(1))
        wait_until(lambda: collector.packets > SOME - 200, "the first flows")
        collector.drain(0.2)
        collector.die()
        probe.wait_for_line("no collector (Connection reset by peer), trying again (1 times)")
        self.sender.send(*flows(2))
        wait_until(lambda: received_frames() == 2 * SOME, "frames")
        collector.listen()
        wait_until(lambda: collector.packets > 2 * SOME - 200, "what waited")
        self.stop_in_order(probe)
        collector.drain()
        found = self.sum_of(probe, 2 * SOME)
        self.assertEqual(found.total(LOST), 0)
        self.assertEqual(collector.packets, 2 * SOME)
        self.assertEqual(found.total("kestrelexp_export_reconnects_total"), 1)
        read = [message for connection in collector.connections
                for message in connection.messages()[0]]
        self.check_sequence(read, 0)
        for connection in collector.connections:
            self.assertEqual(connection.messages()[0][0].records, 0)  # the templates

    def test_what_was_on_its_way_when_the_collector_was_killed_is_counted(self):
        collector = self.stream(room=4096)
        probe = self.probe(*ipfix(collector.port, TCP), source=SMALL)
        self.sender.send(*flows(1))
        wait_until(lambda: collector.packets > SOME - 200, "the first flows")
        collector.drain(0.2)
        collector.stall()
        self.sender.send(*flows(2, 20_000))
        wait_until(lambda: received_frames() == SOME + 20_000, "frames")
        time.sleep(0.5)
        # All that its system has acknowledged, and no more: nothing comes while the window is shut.
        collector.take_what_is_there()
        collector.die()
        probe.wait_for_line("no collector (")
        collector.listen()
        collector.read_on()
        self.sender.send(*flows(3))
        probe.wait_for_line("connected after ")
        self.stop_in_order(probe)
        collector.drain()
        found = self.sum_of(probe, 2 * SOME + 20_000)
        self.assertEqual(set(found.reasons(LOST, ONE)), {"unacknowledged"})
        self.assertGreater(found.total(LOST, ONE), 100)
        self.assertEqual(collector.packets, found.total(SENT, ONE))
        self.assertEqual(2 * SOME + 20_000, collector.packets + found.kept_from(ONE))

    def test_a_collector_that_accepts_and_closes_gets_nothing(self):
        collector = ClosingCollector()
        self.addCleanup(collector.close)
        probe = self.probe(*ipfix(collector.port, TCP + ",drain=1"), source=SMALL)
        self.sender.send(*flows(1))
        wait_until(lambda: len(collector.times) >= 3, "connections")
        first, second, third = collector.times[:3]
        self.assertGreater(second - first, 0.7)
        self.assertGreater(third - second, 1.4)
        self.end_in_time(probe, 4)
        found = self.sum_of(probe, SOME)
        self.assertEqual(found.reasons(LOST, ONE), {"not_drained": SOME})
        self.assertEqual(probe.log.count("no collector ("), 1, probe.describe())

    def test_what_a_collector_sends_is_read_and_thrown_away(self):
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)
        probe = self.probe(*ipfix(listener.getsockname()[1], TCP), source=SMALL)
        peer, _ = listener.accept()
        self.addCleanup(peer.close)
        peer.settimeout(20 * SLOWNESS)
        peer.sendall(bytes(8 << 20))
        received = bytearray()
        reader = threading.Thread(target=lambda: self.read_all(peer, received))
        reader.start()
        self.sender.send(*flows(1))
        self.stop_in_order(probe)
        reader.join()
        self.assertEqual(self.sum_of(probe, SOME).total(SENT), SOME)
        self.assertGreater(len(received), SOME * 20)

    @staticmethod
    def read_all(peer, received):
        while part := peer.recv(1 << 16):
            received += part

    # ---- Names ----

    def own_etc(self, hosts, resolver):
        """Puts other files in the place of /etc/hosts and /etc/resolv.conf, for this process and
        its children."""
        namespaces.unshare(namespaces.MOUNTS)
        run_command("mount --make-rprivate /")
        folder = self.directory()
        for name, text in (("hosts", hosts), ("resolv.conf", resolver)):
            (folder / name).write_text(text)
            run_command(f"mount --bind {folder / name} /etc/{name}")
            self.addCleanup(run_command, f"umount /etc/{name}")
        return folder / "hosts"

    def test_a_probe_does_not_take_itself_for_its_collector(self):
        # Each socket gets the port that it connects to, as long as there is no other.
        ports = Path("/proc/sys/net/ipv4/ip_local_port_range")
        ports.write_text("40000 40000", encoding="ascii")
        probe = self.probe(*ipfix(40000, TCP), *netflow_v9(40000, BACKGROUND), source=SMALL)
        for name in ("ipfix", "netflow-v9"):
            probe.wait_for_line(f"Export {name} to 127.0.0.1 port 40000: no collector "
                                "(Connection refused), trying again (1 times)")
        ports.write_text("40002 40100", encoding="ascii")
        self.sender.send(*flows(1))
        collector = self.stream(port=40000)
        datagrams = ReturningCollector(port=40000)
        self.addCleanup(datagrams.close)
        for name in ("ipfix", "netflow-v9"):
            probe.wait_for_line(f"Export {name} to 127.0.0.1 port 40000: connected after ")
        self.stop_in_order(probe, collector, datagrams)
        self.sum_of(probe, SOME)
        self.assertEqual([collector.packets, self.packets_in(datagrams.datagrams)], [SOME, SOME])

    def test_a_name_that_comes_and_changes_is_followed(self):
        hosts = self.own_etc("127.0.0.1 localhost\n", "")
        first = self.stream()
        words = [word.replace("127.0.0.1", "collector.test") for word in ipfix(first.port, TCP)]
        probe = self.probe(*words, source=SMALL)
        probe.wait_for_line(f"Export ipfix to collector.test port {first.port}: no collector "
                            "(its name has no address), trying again (1 times)")
        self.sender.send(*flows(1))
        hosts.write_text("127.0.0.1 collector.test\n")
        wait_until(lambda: first.packets > SOME - 200, "what waited")
        first.drain(0.2)
        second = socket.create_server(("127.0.0.7", first.port))
        self.addCleanup(second.close)
        second.settimeout(20 * SLOWNESS)
        hosts.write_text("127.0.0.7 collector.test\n")
        first.die()
        peer, _ = second.accept()
        self.addCleanup(peer.close)
        self.end_in_time(probe, 5)
        found = self.sum_of(probe, SOME)
        self.assertEqual(found.total(SENT), SOME)

    def test_a_dead_name_server_holds_up_neither_traffic_nor_the_end(self):
        server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)  # never answers
        self.addCleanup(server.close)
        server.bind(("127.0.0.1", 53))
        self.own_etc("127.0.0.1 localhost\n", "nameserver 127.0.0.1\n")
        healthy = self.datagrams()
        words = [word.replace("127.0.0.1", "collector.test")
                 for word in ipfix(4739, TCP + ",drain=1")]
        probe = self.probe(*words, *ipfix(healthy.port, BACKGROUND), source=SMALL)
        self.sender.send(*flows(1))
        server.settimeout(20 * SLOWNESS)
        server.recv(512)
        self.wait_for_datagrams(healthy, SOME - 100)
        self.end_in_time(probe, 4)
        healthy.drain()
        found = self.sum_of(probe, SOME)
        self.assertEqual(found.reasons(LOST, ONE), {"not_drained": SOME})
        self.assertEqual(found.total(SENT, 'export="ipfix-1"'), SOME)
        self.assertEqual(sum(message.packets for message in messages(healthy, Reader)), SOME)

    # ---- The end ----

    def test_a_second_interrupt_ends_a_drain_at_once(self):
        collector = self.datagrams()
        collector.die()
        probe = self.probe(*netflow_v5(collector.port, BACKGROUND + ",drain=60"), source=SMALL)
        self.sender.send(*flows(1))
        probe.wait_for_line("no collector (")
        probe.signal(signal.SIGINT)
        time.sleep(1)
        self.assertTrue(probe.running)
        probe.signal(signal.SIGINT)
        self.assertEqual(probe.wait(), 42, probe.describe())

    def test_a_collector_that_comes_back_during_the_drain_gets_all(self):
        collector = self.stream()
        collector.die()
        probe = self.probe(*ipfix(collector.port, TCP), source=SMALL)
        self.sender.send(*flows(1))
        # Not that 127.0.0.1 has no IPv6 address, which is asked for next.
        probe.wait_for_line("no collector (Connection refused), trying again (1 times)")
        wait_until(lambda: received_frames() == SOME, "frames")
        time.sleep(0.5)
        probe.signal(signal.SIGINT)
        time.sleep(0.5)
        collector.listen()
        self.assertEqual(probe.wait(), 0, probe.describe())
        collector.drain(0.2)
        found = self.sum_of(probe, SOME)
        self.assertEqual(found.total(LOST), 0)
        self.assertEqual(collector.packets, SOME)
