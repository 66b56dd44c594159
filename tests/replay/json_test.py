"""The export json on capture files: each line is an object that says what the traffic was."""

# Not under the thread sanitizer: e2e.json_outputs runs there.

import gzip
import hashlib
import base64
import ipaddress
import json
import os
import struct
import subprocess
import threading
import time
from datetime import datetime, timezone

from testbed.accounts import LOST, SENT, Sum
from testbed.capture import NS, pcap
from testbed.frames import SYN, ethernet, icmp, ipv4, ipv6, other, tcp, udp
from testbed.replay import ReplayCase

PLUGIN = ("-X", os.environ["KESTREL_JSON"])
T = 1_600_000_000
A, B = "192.0.2.1", "198.51.100.7"
C, D = "2001:db8::1", "2001:db8::2"
SAMPLER = "sampler=192.0.2.9"
# (frame, what goflow2's message calls it)
TRAFFIC = (
    (ethernet(ipv4(tcp(40000, 443, SYN), A, B, tos=0x20)),
     {"src_addr": A, "dst_addr": B, "etype": "IPv4", "proto": "TCP", "src_port": 40000,
      "dst_port": 443, "tcp_flags": 2, "ip_tos": 32, "bytes": 40, "icmp_type": 0, "icmp_code": 0}),
    (ethernet(ipv6(udp(5353, 53, b"12345678"), C, D)),
     {"src_addr": C, "dst_addr": D, "etype": "IPv6", "proto": "UDP", "src_port": 5353,
      "dst_port": 53, "tcp_flags": 0, "ip_tos": 0, "bytes": 56, "icmp_type": 0, "icmp_code": 0}),
    (ethernet(ipv4(icmp(3, 1), A, B)),
     {"src_addr": A, "dst_addr": B, "etype": "IPv4", "proto": "ICMP", "src_port": 0, "dst_port": 0,
      "tcp_flags": 0, "ip_tos": 0, "bytes": 36, "icmp_type": 3, "icmp_code": 1}),
    (ethernet(ipv4(other(47, b"0123456789"), B, A)),
     {"src_addr": B, "dst_addr": A, "etype": "IPv4", "proto": "GRE", "src_port": 0, "dst_port": 0,
      "tcp_flags": 0, "ip_tos": 0, "bytes": 30, "icmp_type": 0, "icmp_code": 0}),
)
NUMBERS = {"TCP": 6, "UDP": 17, "ICMP": 1, "GRE": 47}


def packets(*times_and_ports):
    """(seconds, source port)"""
    return [((T + seconds) * NS, ethernet(ipv4(udp(port, 53), A, B)))
            for seconds, port in times_and_ports]


def community_id(flow, seed=0):
    """Community ID version 1 by its published rules, for what TRAFFIC has."""
    ends = [ipaddress.ip_address(flow[name]).packed for name in ("src_addr", "dst_addr")]
    protocol = NUMBERS[flow["proto"]]
    ports = [flow["src_port"], flow["dst_port"]] if protocol in (6, 17) else []
    if protocol == 1:
        ports = [flow["icmp_type"], flow["icmp_code"]]  # types without an answer
    elif ends[0] > ends[1]:
        ends, ports = ends[::-1], ports[::-1]
    text = struct.pack("!H", seed) + b"".join(ends) + bytes([protocol, 0])
    text += b"".join(struct.pack("!H", port) for port in ports)
    return "1:" + base64.b64encode(hashlib.sha1(text).digest()).decode()


def utc(time_ns):
    """As a time with a zone says it."""
    moment = datetime.fromtimestamp(time_ns // NS, timezone.utc)
    return moment.strftime("%Y-%m-%dT%H:%M:%S") + f".{time_ns % NS:09d}Z"


class Json(ReplayCase):
    def lines(self, made, options="", *words):
        """The objects that a file has after a replay."""
        path = self.directory / "flows.json"
        probe = self.replay(self.file(made), *PLUGIN, *words, "-E",
                            f"json:file={path},{SAMPLER}{options}")
        self.check_sum(probe)
        return [json.loads(line) for line in path.read_text(encoding="utf-8").splitlines()]

    def check_sum(self, probe, lost=0):
        found = Sum(probe.lines)
        found.check(self)
        self.assertEqual(found.total(LOST, 'export="json-0"'), lost)
        return found

    def traffic(self):
        return pcap([((T + n) * NS, frame) for n, (frame, _) in enumerate(TRAFFIC)])

    def test_goflow2_says_what_the_traffic_was(self):
        found = sorted(self.lines(self.traffic()), key=lambda flow: flow["time_flow_start_ns"])
        self.assertEqual(len(found), len(TRAFFIC))
        self.assertEqual(sorted(flow["sequence_num"] for flow in found), [0, 1, 2, 3])
        for n, (flow, (_, expected)) in enumerate(zip(found, TRAFFIC)):
            time_ns = (T + n) * NS
            del flow["sequence_num"]
            self.assertGreaterEqual(flow.pop("time_received_ns"), time_ns)
            self.assertEqual(flow, {
                "type": "FLOWUNKNOWN", "sampler_address": "192.0.2.9", "sampling_rate": 1,
                "time_flow_start_ns": time_ns, "time_flow_end_ns": time_ns, "packets": 1,
                "in_if": 0, "out_if": 0, **expected})

    def test_goflow2_has_the_community_id_when_a_seed_asks_for_it(self):
        for words, seed in ((",seed=0", 0), (",seed=3", 3)):
            with self.subTest(words=words):
                (self.directory / "flows.json").unlink(missing_ok=True)
                found = {flow["time_flow_start_ns"]: flow["community_id"]
                         for flow in self.lines(self.traffic(), words)}
                self.assertEqual(found, {(T + n) * NS: community_id(known, seed)
                                         for n, (_, known) in enumerate(TRAFFIC)})

    def test_ecs_says_the_same_in_objects(self):
        found = sorted(self.lines(self.traffic(), ",style=ecs,seed=3"),
                       key=lambda flow: flow["event"]["start"])
        self.assertEqual(len(found), len(TRAFFIC))
        for n, (flow, (_, known)) in enumerate(zip(found, TRAFFIC)):
            self.assertEqual(flow["event"]["start"], utc((T + n) * NS))
            self.assertEqual(flow["event"]["end"], utc((T + n) * NS))
            self.assertEqual(flow["event"]["duration"], 0)
            self.assertEqual(flow["source"]["ip"], known["src_addr"])
            self.assertEqual(flow["destination"]["ip"], known["dst_addr"])
            has_ports = known["proto"] in ("TCP", "UDP")
            self.assertEqual(flow["destination"].get("port"),
                             known["dst_port"] if has_ports else None)
            self.assertEqual(flow["network"], {
                "community_id": community_id(known, seed=3), "bytes": known["bytes"],
                "packets": 1, "type": known["etype"].lower(),
                "transport": known["proto"].lower(),
                "iana_number": str(NUMBERS[known["proto"]])})

    def test_chosen_fields_come_in_their_order(self):
        path = self.directory / "flows.json"
        self.replay(self.file(pcap(packets((0, 7)))), *PLUGIN, "-E",
                    f"json:file={path},fields=L4_PORT_SRC#L3_IPV4_ADDR_DST#BYTES#FLOW_END_SEC")
        self.assertRegex(path.read_text(encoding="ascii"),
                         r'\A\{"src_port":7,"dst_addr":"198\.51\.100\.7","bytes":28,'
                         r'"FLOW_END_SEC":\d+\}\n\Z')

    def test_as_numbers_come_from_the_filter_that_knows_them(self):
        table = self.file("65001-192.0.2.0/24\n4200000000-198.51.100.0/24\n", name="as.txt")
        path = self.directory / "flows.json"
        self.replay(self.file(pcap(packets((0, 7)))), *PLUGIN, "-F", f"as_helper:{table}", "-E",
                    f"json:file={path}")
        flow = json.loads(path.read_text(encoding="ascii"))
        self.assertEqual((flow["src_as"], flow["dst_as"]), (65001, 4200000000))

    def test_a_plugins_field_is_there_by_itself(self):
        flows = self.lines(pcap(packets((0, 7))), ",style=ecs", "-X",
                           os.environ["KESTREL_END_REASON"], "-P", "end-reason")
        self.assertEqual(flows[0]["kestrelexp"]["END_REASON"], 4)

    def test_standard_output_has_the_lines_and_nothing_else(self):
        path = self.directory / "output"
        with open(path, "wb") as output:
            probe = self.replay(self.file(self.traffic()), *PLUGIN, "-E", "json:file=-",
                                stdout=output)
        found = [json.loads(line) for line in path.read_text(encoding="ascii").splitlines()]
        self.assertEqual(sorted(flow["bytes"] for flow in found), [30, 36, 40, 56])
        self.check_sum(probe)

    def test_a_replay_waits_for_a_slow_reader(self):
        # Lines for more than twice the queue and the pipe; the reader has a pause after each 4 KiB.
        count = 6000
        reading, writing = os.pipe()
        pieces = []

        def read():
            while piece := os.read(reading, 4096):
                pieces.append(piece)
                time.sleep(0.001)
        reader = threading.Thread(target=read)
        reader.start()
        try:
            probe = self.replay(self.file(pcap(packets(*((0, 1 + n) for n in range(count))))),
                                *PLUGIN, "-E", f"json:file=-,queue=1,drain=50,{SAMPLER}",
                                stdout=writing)
        finally:
            os.close(writing)
            reader.join()
            os.close(reading)
        found = b"".join(pieces).decode("ascii").splitlines()
        self.assertEqual(sorted(json.loads(line)["src_port"] for line in found),
                         list(range(1, 1 + count)))
        self.check_sum(probe)

    # ---- Files ----

    def test_a_file_is_appended_to(self):
        for _ in range(2):
            found = self.lines(pcap(packets((0, 1), (0, 2))))
        self.assertEqual(sorted(flow["src_port"] for flow in found), [1, 1, 2, 2])

    def test_what_a_crash_tore_is_cut_at_the_next_start(self):
        torn = self.directory / "flows.json"
        torn.write_text('{"src_port":9}\n{"src_po', encoding="ascii")
        found = self.lines(pcap(packets((0, 1))))
        self.assertEqual([flow["src_port"] for flow in found], [9, 1])

    def files(self, made, options):
        """The names and what their files have, and the probe."""
        folder = self.directory / "files"
        folder.mkdir(exist_ok=True)
        probe = self.replay(self.file(made), *PLUGIN, "-t", "10:5", "-E",
                            f"json:file={folder}/{options}")
        readers = {".gz": gzip.open, ".zst": self.open_zstd}
        found = {}
        for path in folder.rglob("*.*"):
            with readers.get(path.suffix, open)(path, "rt", encoding="ascii") as lines:
                found[str(path.relative_to(folder))] = sorted(
                    json.loads(line)["src_port"] for line in lines)
        return found, probe

    @staticmethod
    def open_zstd(path, *_, **__):
        process = subprocess.run(["zstd", "-dc", path], check=True, capture_output=True, text=True)
        return _Lines(process.stdout.splitlines())

    def test_a_file_a_minute_is_named_by_its_time(self):
        # T is 40 s after a minute; flows leave 5 to 10 s after their packets.
        found, probe = self.files(pcap(packets((0, 1), (1, 2), (30, 3), (100, 4), (101, 5))),
                                  "%Y/%m%d-%H%M%S.json,rotate-time=60")
        self.assertEqual(found, {"2020/0913-122600.json": [1, 2], "2020/0913-122700.json": [3],
                                 "2020/0913-122800.json": [4, 5]})
        self.check_sum(probe)

    def test_a_file_of_a_size_is_followed_by_the_next(self):
        found, probe = self.files(pcap(packets(*((0, port) for port in range(1, 1001)))),
                                  "flows.json,rotate-size=100")
        self.assertEqual(sorted(sum(found.values(), [])), list(range(1, 1001)))
        self.assertEqual(list(sorted(found))[:3], ["flows.json", "flows.json.1", "flows.json.2"])
        for path in (self.directory / "files").iterdir():
            self.assertLessEqual(path.stat().st_size, 100 * 1024)
        self.check_sum(probe)

    def test_no_file_is_larger_than_a_size_of_a_few_lines(self):
        found, probe = self.files(pcap(packets(*((0, port) for port in range(1, 21)))),
                                  "flows.json,rotate-size=2")
        self.assertEqual(sorted(sum(found.values(), [])), list(range(1, 21)))
        for path in (self.directory / "files").iterdir():
            self.assertLessEqual(path.stat().st_size, 2 * 1024)
        self.check_sum(probe)

    def test_compressed_files_are_read_by_everybody(self):
        for option, suffix in (("gzip", ".gz"), ("zstd", ".zst")):
            with self.subTest(compression=option):
                found, probe = self.files(
                    pcap(packets(*((0, port) for port in range(1, 2001)))),
                    f"{option}-%H.json,compress={option}")
                self.assertEqual(found[f"{option}-12.json{suffix}"], list(range(1, 2001)))
                self.check_sum(probe)

    def test_a_compressed_file_that_was_left_is_completed(self):
        folder = self.directory / "files"
        folder.mkdir()
        whole = gzip.compress(b'{"src_port":77}\n')
        (folder / "11.json.gz.part").write_bytes(whole + gzip.compress(b'{"src_port":78}\n')[:-9])
        (folder / "10.json.gz.part").write_bytes(whole[:-9])
        found, _ = self.files(pcap(packets((0, 1))), "%H.json,compress=gzip,rotate-time=60")
        self.assertEqual(found, {"11.json.gz": [77], "12.json.gz": [1]})

    def test_what_no_crash_tore_is_left_alone(self):
        folder = self.directory / "files"
        folder.mkdir()
        plain = b'{"src_port":9}\n'
        member = gzip.compress(os.urandom(200_000))
        damaged = member + member[:-5] + bytes(5) + member * 2  # a check sum in the middle
        for options, name, data in (("flows.json", "flows.json.gz", plain),
                                    ("old.json", "old.json.gz", damaged),
                                    ("%H.json", "12.json.gz.part", damaged)):
            with self.subTest(file=name):
                left = folder / name
                left.write_bytes(data)
                ports = self.ports_after_what_was_left(left, f"{options},compress=gzip")
                self.assertEqual(ports, [1])
                self.assertEqual(left.read_bytes(), data)
                left.unlink()

    def ports_after_what_was_left(self, left, options):
        """What a replay writes into the only other file."""
        probe = self.replay(self.file(pcap(packets((0, 1)))), *PLUGIN, "-t", "10:5", "-E",
                            f"json:file={left.parent}/{options}")
        self.assertIn(f"json: {left} has more than a torn line at its end: it is left alone",
                      probe.lines)
        self.check_sum(probe)
        made, = set(left.parent.iterdir()) - {left}
        with gzip.open(made, "rt", encoding="ascii") as lines:
            ports = [json.loads(line)["src_port"] for line in lines]
        self.assertRegex(made.name, r"\A(flows|old)\.json\.1\.gz\Z|\A12\.json\.gz\Z")
        made.unlink()
        return ports

    def test_a_name_that_is_taken_is_left_alone(self):
        for _ in range(2):
            found, _ = self.files(pcap(packets((0, 1))), "%H.json")
        self.assertEqual(found, {"12.json": [1], "12.json.1": [1]})

    # ---- Refusals ----

    def test_what_makes_no_sense_ends_the_start(self):
        path = self.file(pcap(packets((0, 1))))
        for options, words in (
                ("", "json: one of file and socket is mandatory"),
                ("file=a,socket=b", "json: one of file and socket is mandatory"),
                ("file=-,compress=gzip", "json: rotate-time, rotate-size and compress are for "
                                         "files, and standard output is none"),
                ("socket=b,rotate-size=1", "json: rotate-time, rotate-size and compress are for "
                                           "files, and b is none"),
                ("file=a,compress=lzma", "json: compress=lzma is none of gzip and zstd"),
                ("file=a,style=xml", "json: style=xml is none of goflow2 and ecs"),
                ("file=a,fields=BYTES#BITS", "json: there is no field BITS"),
                ("file=a,queue=0", "json: queue is from 1 to 4096"),
                ("file=a,sampler=here", "json: sampler=here is no IPv4 or IPv6 address"),
                ("file=%-H.json", "json: %- in the name of a file is none of the conversions "
                                  "that are taken"),
                ("file=/no/such/a", "json: no file can be made in /no/such: "
                                    "No such file or directory"),
                ("file=/tmp", "json: /tmp is a directory"),
                ("socket=/" + 107 * "a", "json: the name of a socket has 107 bytes at most")):
            with self.subTest(options=options):
                lines = self.refused(path, *PLUGIN, "-E", f"json:{options}")
                self.assertIn(words, lines)


class _Lines(list):
    """Lines that are used like a file."""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        pass
