"""AS numbers and hidden addresses in every protocol, as another program's collector shows them."""

# Not under the address sanitizer: units, models and abi run this code.
# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.

from pathlib import Path

from testbed.case import E2eCase
from testbed.frames import ethernet, icmp, ipv4, ipv6, tcp, udp
from testbed.nfcapd import Nfcapd
from testbed.probe import netflow_v5

TEMPLATES = Path(__file__).resolve().parents[2] / "etc"

A, B = "192.168.1.7", "10.0.0.1"
C, D = "2001:db8::1", "2001:db8::2"
FRAMES = [ethernet(network) for network in (
    ipv4(tcp(4660, 443), A, B), ipv4(icmp(3, 1), A, B), ipv6(udp(4660, 443), C, D))]

# A number of 16 bits, one of 32 (0xFA56EC01), and for IPv6 one of the last 32 bits of D.
TABLE = "65001-192.168.0.0/16\n4200000513-10.0.0.0/8\n64499-::2/32\n"
WHOLE, CUT = "4200000513", "60417"

# Of the block of both IPv4 addresses, the block of each IPv6 address, and the block of both ports,
# each worked out with openssl enc -aes-128-ecb.
AES = "anonymizer:AES:ADDR,PORT:0123456789abcdef"
HIDDEN = {A: "182.48.87.217", B: "132.124.138.225",
          C: "3922:68b2:f7bf:6fba:36bb:c579:5334:127a",
          D: "43fe:bcba:bf8:247c:d600:d24f:f2e9:3d22",
          "4660": "30509", "443": "57096"}
MASK = "anonymizer:MASK:172.16.0.0/12"
MASKED = {A: "172.24.1.7", B: "172.16.0.1"}

FLOWS = [[A, B, "6", "4660", "443"], [A, B, "1", "0", "3.1"], [C, D, "17", "4660", "443"]]
NUMBERS = [["65001", WHOLE], ["65001", WHOLE], ["0", "64499"]]
COLUMNS = ("sa", "da", "pr", "sp", "dp")
AS_COLUMNS = ("sas", "das")


def changed(flows, names):
    return [[names.get(cell, cell) for cell in flow] for flow in flows]


def with_numbers(flows, numbers=NUMBERS):
    return [flow + own for flow, own in zip(flows, numbers)]


def only_ipv4(flows):
    return [flow for flow in flows if ":" not in flow[0]]


class Addresses(E2eCase):
    def collecting(self):
        nfcapd = Nfcapd(self.directory())
        self.addCleanup(nfcapd.kill)
        return nfcapd

    def as_helper(self):
        path = self.directory() / "as.txt"
        path.write_text(TABLE, encoding="ascii")
        return f"as_helper:{path}"

    def edited_templates(self, name, old, new):
        """A copy of templates that are shipped, with the same lines of each changed."""
        text = (TEMPLATES / name).read_text(encoding="ascii")
        self.assertGreaterEqual(text.count(old), 8)
        path = self.directory() / name
        path.write_text(text.replace(old, new), encoding="ascii")
        return path

    AS_LINE = "#SRC_AS32=*SRC_AS32,DST_AS32=*DST_AS32\n"

    def netflow_v9(self, port, line=AS_LINE[1:]):
        templates = self.edited_templates("nf9-template.txt", self.AS_LINE, line)
        return "-E", f"netflow-v9:host=127.0.0.1,port={port},ip=4,template-file={templates}"

    def ipfix(self, port, line=AS_LINE[1:]):
        templates = self.edited_templates("ipfix-template.txt", self.AS_LINE, line)
        return "-E", f"ipfix:host=127.0.0.1,port={port},ip=4,template_file={templates}"

    def run_frames(self, *arguments):
        probe = self.probe(*arguments)
        self.sender.send(*FRAMES)
        self.stop_in_order(probe)

    def check(self, nfcapd, expected, columns=COLUMNS + AS_COLUMNS):
        self.assertEqual(sorted(nfcapd.stop_and_show(*columns)), sorted(expected))

    # ---- AS numbers

    def check_numbers(self, export, numbers, narrow=False):
        nfcapd = self.collecting()
        line = ("SRC_AS=*SRC_AS,DST_AS=*DST_AS\n",) if narrow else ()
        self.run_frames("-G", self.as_helper(), *export(nfcapd.port, *line))
        self.check(nfcapd, with_numbers(FLOWS, numbers))

    def test_netflow_v5_has_the_low_16_bits_of_a_number(self):
        nfcapd = self.collecting()
        self.run_frames("-G", self.as_helper(), *netflow_v5(nfcapd.port))
        self.check(nfcapd, only_ipv4(with_numbers(FLOWS, changed(NUMBERS, {WHOLE: CUT}))))

    def test_netflow_v9_has_whole_numbers_in_the_lines_that_are_shipped_for_them(self):
        self.check_numbers(self.netflow_v9, NUMBERS)

    def test_ipfix_has_whole_numbers_in_the_lines_that_are_shipped_for_them(self):
        self.check_numbers(self.ipfix, NUMBERS)

    def test_netflow_v9_has_16_bits_where_a_template_asks_for_them(self):
        self.check_numbers(self.netflow_v9, changed(NUMBERS, {WHOLE: CUT}), narrow=True)

    def test_ipfix_has_16_bits_where_a_template_asks_for_them(self):
        self.check_numbers(self.ipfix, changed(NUMBERS, {WHOLE: CUT}), narrow=True)

    # ---- Hidden addresses; the numbers beside them are those of the true ones

    def check_hidden(self, export):
        nfcapd = self.collecting()
        self.run_frames("-G", self.as_helper(), "-F", AES, *export(nfcapd.port))
        self.check(nfcapd, with_numbers(changed(FLOWS, HIDDEN)))

    def test_netflow_v5_has_encrypted_addresses_and_ports(self):
        nfcapd = self.collecting()
        self.run_frames("-G", AES, *netflow_v5(nfcapd.port))
        self.check(nfcapd, only_ipv4(changed(FLOWS, HIDDEN)), COLUMNS)

    def test_netflow_v9_has_encrypted_addresses_and_ports(self):
        self.check_hidden(self.netflow_v9)

    def test_ipfix_has_encrypted_addresses_and_ports(self):
        self.check_hidden(self.ipfix)

    def test_a_flow_changed_for_one_protocol_stays_changed_for_those_behind_it(self):
        before, own, after, last = (self.collecting() for _ in range(4))
        self.run_frames(*self.ipfix(before.port), "-F", MASK, *self.netflow_v9(own.port),
                        *netflow_v5(after.port), *self.ipfix(last.port))
        masked = changed(FLOWS, MASKED)
        self.check(before, FLOWS, COLUMNS)
        self.check(own, masked, COLUMNS)
        self.check(after, only_ipv4(masked), COLUMNS)
        self.check(last, masked, COLUMNS)
