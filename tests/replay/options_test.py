"""Options records of a replay: they come by the time of the packets."""

# Not under the thread sanitizer: the threads are those of ends_test, which runs there.
# Not under the address sanitizer: units run this code.

import struct

from testbed import options as told
from testbed.capture import NS, pcap
from testbed.frames import ethernet, ipv4, udp
from testbed.replay import ReplayCase

T = 631_152_000


class Options(ReplayCase):
    def test_rounds_are_as_far_apart_as_the_packets_say(self):
        # A flow a second for an hour: each leaves the cache some seconds later.
        path = self.file(pcap([((T + second) * NS, ethernet(ipv4(udp(1 + second, 53), "10.0.0.1",
                                                                 "10.0.0.2")))
                               for second in range(3600)]))
        for kind, time_at in (("ipfix", 4), ("netflow-v9", 8)):
            with self.subTest(kind=kind):
                datagrams = self.export(path, kind, "-S", "2", "-t", "60:2",
                                        export_options=",options-refresh-time=600",
                                        options=",sampling=3")
                reader = told.OptionsReader()
                messages = [reader.read(datagram) for datagram in datagrams]
                told.check_sequence(messages)
                times = [struct.unpack_from(">I", datagram, time_at)[0] - T
                         for datagram, message in zip(datagrams, messages) if message.options]
                self.assertEqual(len(times), 6)
                # The first round comes with the first flow that has left.
                self.assertLess(times[0], 10)
                for number, time in enumerate(times):
                    self.assertGreaterEqual(time, times[0] + 600 * number)
                    self.assertLess(time, times[0] + 600 * number + 30)
                self.assertEqual({(record[told.RATE], record[told.ALGORITHM])
                                  for message in messages for record in message.of(told.RATE)},
                                 {(6, 1)})
                self.assertEqual(sum(message.flows for message in messages), 600)
