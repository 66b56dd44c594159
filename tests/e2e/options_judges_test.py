"""Options records as other programs of the field read them: a dissector, collectors with and
without a use for the rate, a reader of IPFIX streams."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.
# Not under the address sanitizer: it waits for other programs, and its frames are plain.

import re
import signal
import subprocess

from testbed import options as told
from testbed.af_packet import index_of
from testbed.af_packet import words as af_packet
from testbed.case import E2eCase
from testbed.flow_records import dissect
from testbed.frames import ethernet, ipv4, udp
from testbed.network import PROBED, free_udp_port, ip, unread_bytes
from testbed.probe import ipfix, netflow_v9
from testbed.process import WatchedProcess, settle, wait_until
from testbed.stream_collector import StreamCollector

DAY = ",options-refresh-time=86400"
FRAMES = [ethernet(ipv4(udp(1 + n, 53, b"x" * 100), "10.1.0.1", "10.2.0.1")) for n in range(100)]
RENORMALIZE = """
daemonize: false
nfacctd_ip: 127.0.0.1
nfacctd_port: {port}
nfacctd_renormalize: true
plugins: print
aggregate: etype, proto
print_output: csv
print_output_file: {directory}/sums.csv
print_refresh_time: 3600
"""


class Judges(E2eCase):
    def setUp(self):
        super().setUp()
        ip(f"link set {PROBED} alias uplink")

    def options_of(self, export, options=""):
        """The messages of one export, options first."""
        collector = told.Datagrams()
        self.addCleanup(collector.close)
        probe = self.probe("-S", "3", *export(collector.port, DAY + options),
                           source=af_packet(options=",sampling=20"))
        wait_until(lambda: collector.options(told.NAME), "options")
        self.stop_in_order(probe, collector)
        return collector

    def test_a_dissector_knows_every_field(self):
        for export in (ipfix, netflow_v9):
            with self.subTest(export=export.__name__):
                collector = self.options_of(export)
                columns = {
                    "cflow.sampling_interval": ["60"], "cflow.sampling_algorithm": ["2"],
                    "cflow.if_name": [PROBED], "cflow.if_descr": ["uplink"],
                    "cflow.inputint": [str(index_of(PROBED))],
                    "cflow.octetsexp": [str(len(collector.raw[0]))], "cflow.packetsexp": ["1"],
                    "cflow.flowsexp": ["0"], "cflow.flows": ["0"], "cflow.ignore_packets": ["0"],
                    "cflow.notsent_flows": ["0"], "cflow.notsent_packets": ["0"],
                    "cflow.notsent_octets": ["0"]}
                if export is ipfix:
                    # Of two headers and three records.
                    columns["cflow.od_id"] = ["0"] * 5
                    columns["cflow.flow_exporter"] = ["0"]
                else:
                    columns["cflow.scope_system"] = ["00000000"] * 5
                found = dissect(collector.raw, self.directory(), *columns)
                self.assertEqual(dict(zip(columns, found)), columns)

    def test_a_dissector_knows_the_elements_of_psamp(self):
        for export in (ipfix, netflow_v9):
            with self.subTest(export=export.__name__):
                collector = self.options_of(export, ",sampling-elements=psamp")
                self.assertEqual(dissect(collector.raw, self.directory(),
                                         "cflow.sampling_packet_interval",
                                         "cflow.sampling_packet_space"), [["1"], ["59"]])

    def export_sampled(self, export, port):
        """One packet in two, one flow in five: 10 of 100 records of 128 bytes, each for ten. The
        templates are without the rate: nothing but the options tells of it."""
        templates = self.directory() / "templates"
        templates.write_text(
            "BEGIN-TEMPLATE\nIPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,IPV4_DST_ADDR=L3_IPV4_ADDR_DST,"
            "PROTOCOL=L4_PROTO,IN_PKTS=PACKETS,IN_BYTES=BYTES\n", encoding="ascii")
        key = "template_file" if export is ipfix else "template-file"
        name = export.__name__.replace("_", "-")
        probe = self.probe("-S", "5", "-E", f"{name}:host=127.0.0.1,ip=4,port={port},"
                           f"{key}={templates}{DAY}", input_options=",sampling=2")
        wait_until(lambda: unread_bytes(port) == 0, "the options to be read")
        self.sender.send(*FRAMES)
        self.stop_in_order(probe)
        wait_until(lambda: unread_bytes(port) == 0, "the flows to be read")
        settle(0.5)

    def check_renormalized(self, export):
        directory, port = self.directory(), free_udp_port()
        (directory / "conf").write_text(RENORMALIZE.format(port=port, directory=directory),
                                        encoding="ascii")
        nfacctd = WatchedProcess(["nfacctd", "-f", directory / "conf"], stdout=subprocess.DEVNULL)
        self.addCleanup(nfacctd.kill)
        nfacctd.wait_for_line("waiting for NetFlow")
        self.export_sampled(export, port)
        nfacctd.signal(signal.SIGINT)  # writes the file
        nfacctd.wait()
        _, row = (directory / "sums.csv").read_text(encoding="ascii").splitlines()
        self.assertEqual(row, "800,udp,100,12800")

    def test_nfacctd_multiplies_by_the_rate_of_ipfix(self):
        self.check_renormalized(ipfix)

    def test_nfacctd_multiplies_by_the_rate_of_netflow_v9(self):
        self.check_renormalized(netflow_v9)

    def check_nfcapd(self, export):
        directory, port = self.directory(), free_udp_port()
        nfcapd = WatchedProcess(["nfcapd", "-w", directory, "-b", "127.0.0.1", "-p", str(port),
                                 "-t", "600"])
        self.addCleanup(nfcapd.kill)
        nfcapd.wait_for_line("Startup")
        self.export_sampled(export, port)
        nfcapd.signal(signal.SIGTERM)
        nfcapd.wait()
        # One line for each file, and a new file may have begun in between.
        totals = [[int(number) for number in re.findall(r": (\d+)", line)]
                  for line in nfcapd.lines if line.startswith("Ident: 'none'")]
        # It does not multiply in this version; then sequence errors, bad packets.
        self.assertEqual([sum(column) for column in zip(*totals)], [10, 10, 1280, 0, 0])

    def test_nfcapd_takes_the_flows_of_ipfix_all_the_same(self):
        self.check_nfcapd(ipfix)

    def test_nfcapd_takes_the_flows_of_netflow_v9_all_the_same(self):
        self.check_nfcapd(netflow_v9)

    def test_ipfixdump_reads_the_options_of_a_stream(self):
        collector = StreamCollector()
        self.addCleanup(collector.close)
        probe = self.probe("-S", "3", *ipfix(collector.port, ",protocol=tcp" + DAY),
                           source=af_packet(options=",sampling=20"))
        wait_until(lambda: collector.connections and len(told.read_stream(
            bytes(collector.connections[0].stream))) >= 2, "options")
        self.stop_in_order(probe)
        collector.drain()
        stream = self.directory() / "stream"
        stream.write_bytes(bytes(collector.connections[0].stream))
        said = subprocess.run(["ipfixDump", "-d", "-i", stream], check=True, text=True,
                              capture_output=True, stdin=subprocess.DEVNULL).stdout
        values = dict(re.findall(r"^\t\(\d+\)(?: \(S\))?\s+(\w+) : (?:\(len: \d+\) )?(.*)$",
                                 said, re.MULTILINE))
        for name, value in (("samplingInterval", "60"), ("samplingAlgorithm", "2"),
                            ("interfaceName", PROBED), ("interfaceDescription", "uplink"),
                            ("ingressInterface", str(index_of(PROBED))),
                            ("exportedMessageTotalCount", "1"), ("observedFlowTotalCount", "0"),
                            ("ignoredPacketTotalCount", "0"), ("notSentFlowTotalCount", "0"),
                            ("notSentPacketTotalCount", "0"), ("notSentOctetTotalCount", "0")):
            self.assertEqual(values[name], value, name)
