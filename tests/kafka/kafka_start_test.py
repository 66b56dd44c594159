"""What the kafka plugin says to a configuration that makes no sense."""

# Not under the address sanitizer: the units read the same.
# Not under the thread sanitizer: there is one thread.

from broker import PLUGIN
from testbed.case import QuietCase
from testbed.probe import run_to_its_end


class Start(QuietCase):
    def words(self, parameters):
        """The last but one message of a start that fails: the program's own comes after it."""
        status, _, lines = run_to_its_end("-X", PLUGIN, "-I", "pcap:device=lo", "-E",
                                          f"kafka:{parameters}")
        self.assertEqual(status, 255, lines)
        found = [line for line in lines if line.startswith("kafka: ")]
        self.assertEqual(len(found), 1, lines)
        return found[0]

    def test_a_start_without_brokers_ends(self):
        for parameters in ("topic=flows", "brokers=##"):
            with self.subTest(parameters=parameters):
                self.assertEqual(self.words(parameters), "kafka: brokers=HOST:PORT is missing")

    def test_a_property_that_is_not_known_ends_it_with_its_line(self):
        properties = self.directory() / "properties"
        properties.write_text("# TLS\nsecurity.protocol=ssl\nssl.no.such=1\n", encoding="ascii")
        self.assertEqual(self.words(f"brokers=127.0.0.1:9092,config={properties}"),
                         f'kafka: {properties}:3: No such configuration property: "ssl.no.such"')

    def test_properties_that_do_not_go_together_end_it_with_the_words_of_librdkafka(self):
        properties = self.directory() / "properties"
        properties.write_text("acks=1\n", encoding="ascii")
        self.assertEqual(self.words(f"brokers=127.0.0.1:9092,config={properties}"),
                         "kafka: `acks` must be set to `all` when `enable.idempotence` is true")
