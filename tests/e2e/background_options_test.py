"""Options records of exports in the background: a worker sends them between the messages of the
record loop, and the sequence numbers count both."""

# Not under the address sanitizer: units run this code.

from testbed import options as told
from testbed.accounts import LOST
from testbed.background import BACKGROUND, SMALL, SOME, TCP, BackgroundCase, flows
from testbed.probe import ipfix, netflow_v9
from testbed.process import wait_until

EVERY_SECOND = ",options-refresh-time=1"
DAY = ",options-refresh-time=86400"


def flow_count(messages):
    return sum(message.flows for message in messages)


class BackgroundOptions(BackgroundCase):
    def collectors(self, count):
        made = [told.Datagrams() for _ in range(count)]
        for collector in made:
            self.addCleanup(collector.close)
        return made

    def test_statistics_and_sequence_are_those_of_what_was_sent(self):
        collectors = self.collectors(2)
        probe = self.probe(*ipfix(collectors[0].port, BACKGROUND + EVERY_SECOND),
                           *netflow_v9(collectors[1].port, BACKGROUND + EVERY_SECOND), source=SMALL)
        for block in (1, 2):
            self.sender.send(*flows(block))
            for collector in collectors:
                wait_until(lambda: flow_count(collector.drain()) >= block * SOME - 100, "flows")
                rounds = len(collector.options(told.FLOWS))
                wait_until(lambda: len(collector.options(told.FLOWS)) > rounds, "a round")
        self.stop_in_order(probe, *collectors)
        found = self.sum_of(probe, 2 * SOME)
        self.assertEqual(found.total(LOST), 0)
        for collector, export in zip(collectors, ('export="ipfix-0"', 'export="netflow-v9-1"')):
            told.check_sequence(collector.messages)
            self.assertEqual([collector.messages[0].templates > 0,
                              collector.messages[1].options_templates], [True, 5])
            self.assertEqual(flow_count(collector.messages), 2 * SOME)
            # The greeting is not among them.
            self.assertEqual(found.total("kestrelexp_export_messages_total", export),
                             len(collector.raw) - 1)
            self.assertEqual(found.total("kestrelexp_export_bytes_total", export),
                             sum(map(len, collector.raw[1:])))
            last = collector.options(told.OBSERVED)[-1]
            self.assertLessEqual(last[told.OBSERVED], 2 * SOME)
            self.assertGreaterEqual(last[told.OBSERVED], SOME)

    def test_a_collector_that_is_back_has_options_before_what_waited(self):
        collectors = self.collectors(2)
        probe = self.probe(*ipfix(collectors[0].port, BACKGROUND + DAY),
                           *netflow_v9(collectors[1].port, BACKGROUND + DAY), source=SMALL)
        for collector in collectors:
            wait_until(lambda: collector.options(told.RATE), "the first options")
            collector.die()
        before = [len(collector.messages) for collector in collectors]
        self.sender.send(*flows(1))
        wait_until(lambda: probe.log.count("no collector (Connection refused), trying again") == 2,
                   "outages")
        for collector in collectors:
            collector.come_back()
        for collector in collectors:
            wait_until(lambda: flow_count(collector.drain()) > SOME // 2, "what waited")
        self.stop_in_order(probe, *collectors)
        self.sum_of(probe, SOME)
        for collector, count in zip(collectors, before):
            first, second, third = collector.messages[count:count + 3]
            self.assertGreater(first.templates, 0)
            self.assertEqual((first.options_templates, first.flows), (0, 0))
            self.assertEqual((second.options_templates, second.flows), (5, 0))
            self.assertGreater(third.flows, 0)

    def test_a_stream_goes_on_with_options_in_between(self):
        collector = self.stream()
        probe = self.probe(*ipfix(collector.port, TCP + EVERY_SECOND), source=SMALL)

        def read():
            return [told.read_stream(bytes(each.stream)) for each in collector.connections]

        wait_until(lambda: len(read()) == 1 and len(read()[0]) > 1, "the first options")
        self.sender.send(*flows(1))
        wait_until(lambda: flow_count(read()[0]) > SOME // 2, "flows")
        collector.die()
        probe.wait_for_line("no collector")
        collector.listen()
        self.sender.send(*flows(2))
        wait_until(lambda: len(read()) == 2 and flow_count(read()[1]) > SOME // 2, "more flows")
        self.stop_in_order(probe)
        collector.drain()
        found = self.sum_of(probe, 2 * SOME)
        first, second = read()
        told.check_sequence(first)
        for connection in (first, second):
            self.assertGreater(connection[0].templates, 0)
            self.assertEqual([message.options_templates for message in connection[:2]], [0, 5])
        lost = found.total("kestrelexp_export_lost_records_total")
        self.assertEqual(flow_count(first) + flow_count(second) + lost, 2 * SOME)
