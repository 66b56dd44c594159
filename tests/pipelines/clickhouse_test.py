"""The tables and questions of etc/clickhouse, in ClickHouse's engine, on flows of captures that
three probes sent through a topic of a real Kafka.

The answers were worked out from what tshark tells of the packets, and hold for both formats.
"""

import json
import os
import re

from clickhouse import ClickHouse, statements
from real_broker import Cluster
from testbed.case import QuietCase
from testbed.probe import run_to_its_end
from testbed.process import wait_until
from testbed.replay import CAPTURES, ROOT

FILES = ROOT / "etc/clickhouse"
ALWAYS = {"since": "2000-01-01 00:00:00", "until": "2100-01-01 00:00:00"}

AS_TABLE = """\
64496-172.16.0.0/12
64497-64.13.134.0/24
64498-141.142.0.0/16
64499-208.80.152.0/24
"""
# Each probe by its address: its capture, its interfaces in and out, its flows.
PROBES = {"192.0.2.1": ("ndpi-synscan.pcap", 3, 7, 2008),
          "192.0.2.2": ("zeek-wikipedia.pcap", 5, 0, 57),
          "2001:db8::3": ("ndpi-http_ipv6.pcap", 0, 0, 32)}
FLOWS = 2097

SCANNER, SCANNED = "::ffff:172.16.0.8", "::ffff:64.13.134.52"
BROWSER, WIKIPEDIA = "::ffff:141.142.220.118", "::ffff:208.80.152.3"
HOST6, GOOGLE, CDN = ("2a00:d40:1:3:7aac:c0ff:fea7:d4c", "2a00:1450:4001:803::1017",
                      "2a03:b0c0:3:d0::70:1001")
ANSWERS = [
    # Who sends the most: address, bytes, packets.
    [(SCANNER, 87736, 1994), (CDN, 28238, 35), (HOST6, 17499, 106), (BROWSER, 11843, 60),
     (GOOGLE, 9085, 36), ("2a02:26f0:ad:197::236", 8242, 9), (WIKIPEDIA, 5698, 24),
     ("::ffff:141.142.2.2", 2205, 14), ("::ffff:208.80.152.2", 978, 4),
     ("::ffff:141.142.220.226", 790, 11)],
    # Services: protocol, port, bytes, packets.
    [(6, 443, 48144, 130), (6, 80, 18207, 83), (17, 443, 15569, 65), (17, 53, 3181, 28),
     (6, 36050, 2904, 66), (6, 36051, 2904, 66), (17, 137, 624, 8), (17, 5355, 568, 8),
     (17, 5353, 536, 4), (6, 22, 220, 5)],
    # Autonomous systems: source, destination, bytes, packets.
    [(64496, 64497, 87736, 1994), (0, 0, 64148, 198), (64498, 64499, 10867, 46),
     (64499, 64498, 7072, 31), (64498, 64498, 3805, 36), (64497, 64496, 728, 17),
     (64498, 0, 581, 7), (0, 64498, 48, 1)],
    # Interfaces: minute, probe, interface, bits per second (of 88,464, 22,896 and 63,625 bytes; of
    # the latter, 10,019 are of flows that were idle for 5 s before the full minute).
    [("2010-07-04 20:24:00", "::ffff:192.0.2.1", 3, 11795),
     ("2011-03-18 19:06:00", "::ffff:192.0.2.2", 5, 3053),
     ("2015-11-23 08:58:00", "2001:db8::3", 0, 1336),
     ("2015-11-23 08:59:00", "2001:db8::3", 0, 7147)],
    # New hosts since 2015-11-23 08:59:00: address, first packet.
    [("2a03:2880:1010:3f20:face:b00c:0:25de", "2015-11-23 08:59:03.539406000"),
     ("2a00:1450:400b:c02::9a", "2015-11-23 08:59:04.348055000"),
     ("2a00:1450:4001:803::1012", "2015-11-23 08:59:05.478561000"),
     ("2a02:26f0:ad:197::236", "2015-11-23 08:59:06.912188000")],
    # Scans: address, hosts, ports of hosts, packets for each.
    [(SCANNER, 1, 1000, 1)],
    # Long flows: source, destination, protocol, milliseconds, bytes.
    [(SCANNED, 22, SCANNER, 36050, 6, 3598, 88), (SCANNED, 53, SCANNER, 36050, 6, 3000, 88),
     (SCANNED, 80, SCANNER, 36050, 6, 2998, 88), (HOST6, 45931, GOOGLE, 443, 17, 2636, 3670),
     ("::ffff:141.142.220.226", 137, "::ffff:141.142.220.255", 137, 17, 2613, 546),
     (GOOGLE, 443, HOST6, 45931, 17, 2564, 4185), (GOOGLE, 443, HOST6, 45931, 17, 2497, 3645),
     (HOST6, 45931, GOOGLE, 443, 17, 2476, 3609), (HOST6, 37506, CDN, 443, 6, 434, 3773),
     (CDN, 443, HOST6, 37506, 6, 409, 11480)],
    # Losses: probe, flows that are here, flows that are not.
    [("::ffff:192.0.2.1", 2008, 0), ("::ffff:192.0.2.2", 57, 0), ("2001:db8::3", 32, 0)],
    # Two hosts: addresses, bytes, packets.
    [(SCANNED, SCANNER, 88464, 2011), (HOST6, CDN, 35281, 80), (HOST6, GOOGLE, 17126, 76),
     (BROWSER, WIKIPEDIA, 14507, 60), (HOST6, "2a02:26f0:ad:197::236", 9894, 22),
     ("::ffff:141.142.2.2", BROWSER, 3181, 28), (BROWSER, "::ffff:208.80.152.2", 2295, 10),
     (BROWSER, "::ffff:208.80.152.118", 1137, 7),
     ("::ffff:141.142.220.226", "::ffff:141.142.220.255", 546, 7),
     (HOST6, "2a00:1450:400b:c02::5f", 460, 3)],
    # Asked for in vain: address, port, attempts, askers.
    [(SCANNED, port, 2, 1) for port in (1, 3, 4, 6, 7, 9, 13, 17, 19, 20)],
]
NEW_HOSTS, LOSSES = 4, 7  # places of questions with times or data of their own


class ClickHouseCase(QuietCase):
    def setUp(self):
        super().setUp()
        self.folder = self.directory()
        self.open_database()

    def open_database(self):
        self.database = ClickHouse(self.folder)
        self.addCleanup(self.database.close)

    def make_tables(self, *names):
        for name in names:
            text = (FILES / name).read_text(encoding="ascii")
            self.database.run(text.replace("'flow.proto:", f"'{FILES}/flow.proto:"))


class TopicCase(ClickHouseCase):
    """Beside the database a broker, at the address that the files name."""

    def setUp(self):
        super().setUp()
        self.brokers = Cluster(self).start().addresses
        self.as_table = self.folder / "as.txt"
        self.as_table.write_text(AS_TABLE, encoding="ascii")

    def send_captures(self, words):
        for address, (capture, ingress, egress, flows) in PROBES.items():
            status, _, lines = run_to_its_end(
                "-v", "0", "-X", os.environ["KESTREL_CAPTURE_FILE"], "-X",
                os.environ["KESTREL_KAFKA"], "-G", f"as_helper:{self.as_table}", "-I",
                f"capture-file:file={CAPTURES / capture}", "-N", str(ingress), "-n", str(egress),
                "-E", f"kafka:brokers={self.brokers},sampler={address},{words}", timeout=60)
            self.assertEqual(status, 0, lines)
            self.assertIn('VERBOSE: 0:kestrelexp_export_records_total{export="kafka-0"} '
                          f"{flows}", lines)

    def wait_for_flows(self, count, table, wanted=FLOWS):
        """count: what counts them in a table."""
        wait_until(lambda: self.database.ask_one(f"SELECT {count} FROM {table}") >= wanted,
                   f"{wanted} flows in {table}", timeout=60)


class Questions(TopicCase):
    def check_answers(self):
        questions = statements((FILES / "questions.sql").read_text(encoding="ascii"))
        self.assertEqual(len(questions), 10)
        for number, (question, answer) in enumerate(zip(questions, ANSWERS)):
            times = dict(ALWAYS)
            if number == NEW_HOSTS:
                times["since"] = "2015-11-23 08:59:00"
            with self.subTest(question=number + 1):
                self.assertEqual(self.database.ask(question, **times), answer)
        self.database.ask("DELETE FROM flows WHERE sampler = toIPv6('192.0.2.1')"
                          " AND sequence_num BETWEEN 1000 AND 1009")
        self.assertEqual(self.database.ask(questions[LOSSES], **ALWAYS),
                         [("::ffff:192.0.2.1", 1998, 10), *ANSWERS[LOSSES][1:]])
        self.assertEqual(self.database.ask(questions[0], since="2016-01-01 00:00:00",
                                           until="2100-01-01 00:00:00"), [])

    def answer_from(self, tables, words):
        self.make_tables("flows.sql")
        # The captures are older than the tables keep flows.
        for table in ("flows", "flows_by_minute"):
            self.database.ask(f"ALTER TABLE {table} REMOVE TTL")
        self.make_tables(tables)
        self.send_captures(words)
        self.wait_for_flows("count()", "flows")
        self.wait_for_flows("sum(flows)", "flows_by_minute")
        self.check_answers()

    def test_flows_of_protocol_buffers_answer_them(self):
        self.answer_from("kafka-protobuf.sql", "format=protobuf")

    def test_flows_of_json_answer_them(self):
        self.answer_from("kafka-json.sql", "format=json")


class Ages(ClickHouseCase):
    def test_flows_leave_after_a_month_and_their_sums_after_a_year(self):
        self.make_tables("flows.sql")
        for days in (1, 29, 31, 364, 366):
            self.database.ask(
                "INSERT INTO flows (time_received, sampling_rate, bytes, packets) VALUES"
                f" (now64(9, 'UTC') - INTERVAL {days} DAY, 10, 100, 1)")
        for table in ("flows", "flows_by_minute"):
            self.database.ask(f"OPTIMIZE TABLE {table} FINAL")
        ages = "SELECT arraySort(groupArray(age('day', {}, now64(9, 'UTC')))) FROM {}"
        self.assertEqual(self.database.ask_one(ages.format("time_received", "flows")), [1, 29])
        self.assertEqual(self.database.ask_one(ages.format("minute", "flows_by_minute")),
                         [1, 29, 31, 364])
        self.assertEqual(
            self.database.ask("SELECT DISTINCT bytes, packets, flows FROM flows_by_minute"),
            [(1000, 10, 1)])


class Interruptions(TopicCase):
    def test_a_database_that_was_away_reads_on_where_it_was(self):
        self.make_tables("flows.sql")
        self.database.ask("ALTER TABLE flows REMOVE TTL")
        self.make_tables("kafka-protobuf.sql")
        self.send_captures("format=protobuf")
        self.wait_for_flows("count()", "flows")
        self.database.close()
        self.send_captures("format=protobuf")
        self.open_database()
        self.wait_for_flows("count()", "flows", 2 * FLOWS)
        self.assertEqual(
            self.database.ask("SELECT times, count() FROM (SELECT sampler, sequence_num, count() AS"
                              " times FROM flows GROUP BY ALL) GROUP BY times"), [(2, FLOWS)])


class Goflow2(TopicCase):
    def test_its_own_tables_and_dashboard_take_the_topic_as_it_is(self):
        example = ROOT / "build/pipelines/goflow2/example"
        script = (example / "clickhouse/create.sh").read_text(encoding="utf-8")
        tables = re.search(r"<<-EOSQL\n(.*)EOSQL", script, re.DOTALL)[1].replace("\\`", "`")
        for there, here in {
                "'kafka:9092'": f"'{self.brokers}'",
                "'flow.proto:": f"'{example}/clickhouse/flow.proto:",
                # An engine without a server reads no file for a dictionary.
                "FILE(path '/var/lib/clickhouse/user_files/protocols.csv' format 'CSVWithNames')":
                "CLICKHOUSE(DB 'kestrel' TABLE 'protocols')"}.items():
            self.assertIn(there, tables)
            tables = tables.replace(there, here)
        self.database.ask("CREATE TABLE protocols (proto UInt8, name String, description String)"
                          " ENGINE = Memory")
        self.database.ask("INSERT INTO protocols FORMAT CSVWithNames\n"
                          + (example / "clickhouse/protocols.csv").read_text(encoding="utf-8"))
        self.database.run(tables)
        self.send_captures("format=protobuf")
        self.wait_for_flows("count()", "flows_raw")
        self.wait_for_flows("sum(count)", "flows_5m")
        panels = self.dashboard(example / "grafana/dashboards/viz-ch.json")
        self.assertEqual(len(panels), 5)
        self.assertEqual(self.database.ask(panels[1])[:3], [
            ("172.16.0.8", 87736), (CDN, 28238), (HOST6, 17499)])
        self.assertEqual(self.database.ask(panels[2])[:3], [
            ("TCP/36050", 44000), ("TCP/36051", 43692), ("TCP/443", 38167)])
        self.assertEqual(self.database.ask(
            "SELECT src_as, dst_as, sum(bytes), sum(packets), sum(count) FROM flows_5m"
            " WHERE src_as = 64496 GROUP BY src_as, dst_as"), [(64496, 64497, 87736, 1994, 1994)])

    @staticmethod
    def dashboard(path):
        """Its queries, with the words that it would put into them."""
        text = path.read_text(encoding="utf-8")
        queries = [json.loads(query) for query in
                   re.findall(r'"query": ("(?:SELECT|WITH)(?:[^"\\]|\\.)*")', text)]
        words = {"$timeSeries": "toUnixTimestamp(time_received_ns)", "$timeFilter": "1 = 1",
                 "$table": "flows_raw", "$from": "0", "$to": "60", "$interval": "60"}
        for there, here in words.items():
            queries = [query.replace(there, here) for query in queries]
        return queries
