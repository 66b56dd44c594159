"""What af-packet refuses at its start, and the words for it."""

# Not under the thread sanitizer: nothing of it runs on a thread.

import ctypes
import socket

from testbed.af_packet import AfPacketCase, words
from testbed.network import PROBED, ip
from testbed.probe import run_to_its_end
from testbed.tunnel import MONITOR_DEVICE, Tunnel

FAILED = ["Unable to init plugin", "Driver initialization failed"]
EXPORT = ("-E", "null")

# linux/if_packet.h
SOL_PACKET, PACKET_FANOUT = 263, 18
BY_HASH, ROUND_ROBIN = 0, 1
ALL_PROTOCOLS = 0x0003


class Refusals(AfPacketCase):
    def refused(self, *said, device=PROBED, options="", **run_options):
        status, _, messages = run_to_its_end(*words(device, options), *EXPORT, **run_options)
        self.assertEqual((status, messages), (255, [*said, *FAILED]))

    def member(self, device, group, mode):
        """A socket of somebody else's in a group."""
        other = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        self.addCleanup(other.close)
        other.bind((device, ALL_PROTOCOLS))
        other.setsockopt(SOL_PACKET, PACKET_FANOUT, group | mode << 16)

    def test_no_device(self):
        mandatory = "Device parameter is mandatory for af-packet input."
        self.refused(mandatory, device="#")
        for params in ("af-packet", "af-packet:lanes=2"):
            status, _, messages = run_to_its_end(*words()[:-1], params, *EXPORT)
            self.assertEqual((status, messages), (255, [mandatory, *FAILED]))

    def test_a_device_that_is_not_there(self):
        for name in ("kz", "a-name-longer-than-any-may-be", "kb/../kb"):
            with self.subTest(name=name):
                self.refused(f"Device {name}: there is no such device", device=name)
        self.refused("Device kz: there is no such device", device="kb#kz")

    def test_a_device_that_is_down(self):
        ip("link set kb down")
        self.refused("Device kb is down")

    def test_a_device_named_twice(self):
        self.refused("Device kb is named twice", device="kb#lo#kb")

    def test_a_device_without_packets_of_ip(self):
        tunnel = Tunnel("kt", hardware=MONITOR_DEVICE)
        self.addCleanup(tunnel.close)
        self.refused("Device kt does not deliver Ethernet frames but IEEE802_11_RADIO, which "
                     "cannot be translated. Use an Ethernet, tunnel or PPP device", device="kt")

    def test_no_right_to_capture(self):
        self.refused("Device kb: the right to capture is missing (CAP_NET_RAW)",
                     preexec_fn=drop_right_to_capture)

    def test_numbers_out_of_range(self):
        for name, value, least, most in (
                ("lanes", 65, 1, 64), ("lanes", 0, 1, 64), ("lanes", -1, 1, 64),
                ("fanout", 65536, -1, 65535), ("ring", 0, 1, 1048576), ("sampling", -1, 0, 65535),
                ("sampling", 65536, 0, 65535), ("promiscuous", 2, 0, 1),
                ("snap", 63, 64, 262144)):
            with self.subTest(name=name, value=value):
                self.refused(f"Parameter {name}: {value} is not between {least} and {most}",
                             options=f",{name}={value}")

    def test_a_ring_larger_than_all_memory(self):
        self.refused("Rings of 1048576 MiB for each lane and device, 2097152 MiB in all, do not "
                     "fit into memory", options=",ring=1048576,lanes=2")

    def test_an_expression_that_is_none(self):
        self.refused("Device kb: filter=ip and: can't parse filter expression: syntax error",
                     options=",filter=ip and")
        self.refused("Device kb: filter=port 99999: illegal port number 99999 > 65535",
                     options=",filter=port 99999")

    def test_an_expression_that_is_too_long(self):
        hosts = " or ".join(f"(ip[8]={number % 256} and ip[2:2]={number})"
                            for number in range(3000))
        status, _, messages = run_to_its_end(*words(options=f",filter={hosts}"), *EXPORT)
        self.assertEqual((status, messages[-2:]), (255, FAILED))
        self.assertRegex(messages[-3], r"^Device kb: the kernel refuses the expression: \w")

    def test_a_group_that_shares_in_another_way(self):
        self.member(PROBED, 7, ROUND_ROBIN)
        self.refused("Device kb: fanout group 7 cannot be joined: Invalid argument. All its "
                     "members have to be on one device and share its frames by flow hash",
                     options=",fanout=7")

    def test_a_group_of_another_device(self):
        self.member("lo", 8, BY_HASH)
        self.refused("Device kb: fanout group 8 cannot be joined: Invalid argument. All its "
                     "members have to be on one device and share its frames by flow hash",
                     device="kb", options=",fanout=8,lanes=2")

    def test_the_group_after_the_last_number_is_the_first_one(self):
        self.member("lo", 0, ROUND_ROBIN)
        self.refused("Device lo: fanout group 0 cannot be joined: Invalid argument. All its "
                     "members have to be on one device and share its frames by flow hash",
                     device="kb#lo", options=",fanout=65535")

    def test_an_unbelievable_sampling_is_doubted_and_used(self):
        probe = self.start_plain(options=",sampling=1001")
        self.stop_in_order(probe)
        self.assertIn("Sampling set to unbelievable value: 1001", probe.lines)


def drop_right_to_capture():
    """Gives up CAP_NET_RAW (13), of the process and of what it executes."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(24, 13, 0, 0, 0) != 0:  # PR_CAPBSET_DROP
        raise OSError(ctypes.get_errno(), "prctl")
