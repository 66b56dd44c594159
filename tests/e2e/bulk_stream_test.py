"""The flows of bulk_collectors_test over TCP, which loses nothing however busy the machine is."""

# Not under the thread sanitizer: the threads are those of shutdown_test, which runs there.
# Not under the address sanitizer: it waits for other programs, and its frames are plain.

import ipaddress
import re
import socket
import threading

from bulk_collectors_test import COUNT, REFRESH_PACKETS, BulkCase, ipfix, output


class BulkStream(BulkCase):
    def test_ipfixdump_reads_all_flows_from_a_tcp_stream(self):
        stream = self.directory() / "stream"
        with socket.create_server(("127.0.0.1", 0)) as listener:
            sink = threading.Thread(target=take_stream, args=(listener, stream), daemon=True)
            sink.start()
            self.export(ipfix(listener.getsockname()[1], ",protocol=tcp"))
            sink.join(10)
        statistics = output("ipfixDump", "-s", "-i", stream)
        messages, records, templates = map(int, re.search(
            r"(\d+) Messages, (\d+) Data Records, (\d+) Template Records", statistics).groups())
        self.assertEqual(records, COUNT)
        # Eight templates in the first message and in each refresh.
        self.assertEqual(templates % 8, 0)
        self.assertGreater(templates // 8, messages // REFRESH_PACKETS)
        self.check_flows(dumped_flows(output("ipfixDump", "-d", "-i", stream)))


def take_stream(listener, path):
    connection, _ = listener.accept()
    with connection, path.open("wb") as file:
        while part := connection.recv(1 << 20):
            file.write(part)


def dumped_flows(text):
    """The flows of ipfixDump's listing, one field a line."""
    field = re.compile(r"^\t\((?:8|27|4|2|1)\)\s+(\w+) : (\S+)$", re.MULTILINE)
    for record in text.split("--- data record ")[1:]:
        values = dict(field.findall(record))
        source = values.get("sourceIPv4Address") or values["sourceIPv6Address"]
        yield (str(ipaddress.ip_address(source)), int(values["protocolIdentifier"]),
               int(values["packetDeltaCount"]), int(values["octetDeltaCount"]))
