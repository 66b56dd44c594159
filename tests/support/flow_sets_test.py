"""The reader of IPFIX and NetFlow v9 against messages written by hand."""

import unittest

from testbed.flow_sets import Malformed, Message, Reader, split_stream

# Template 256: source address, 4 bytes; packets, 4 bytes; protocol, 1 byte.
TEMPLATE = "0100 0003 0008 0004 0002 0004 0004 0001"
# Two records of nine bytes, with 3 and 258 packets, and two bytes of padding.
RECORDS = "0100 0018  0a000001 00000003 11  0a000002 00000102 06  0000"


def message(text):
    return bytes.fromhex(text.replace(" ", ""))


IPFIX = message(f"000a 003c 5f5e1000 00000007 00000009 0002 0014 {TEMPLATE} {RECORDS}")
IPFIX_DATA = message(f"000a 0028 5f5e1000 00000009 00000009 {RECORDS}")
V9 = message(f"0009 0003 000003e8 5f5e1000 00000005 00000006 0000 0014 {TEMPLATE} {RECORDS}")


class Reading(unittest.TestCase):
    def test_packets_are_counted_by_the_template(self):
        self.assertEqual(Reader().read(IPFIX), Message(10, 9, 7, records=2, packets=261))
        self.assertEqual(Reader().read(V9), Message(9, 6, 5, records=2, packets=261))

    def test_a_template_serves_the_messages_after_it(self):
        reader = Reader()
        reader.read(IPFIX)
        self.assertEqual(reader.read(IPFIX_DATA), Message(10, 9, 9, records=2, packets=261))

    def test_records_without_a_template_are_refused(self):
        with self.assertRaises(Malformed):
            Reader().read(IPFIX_DATA)

    def test_wrong_lengths_and_versions_are_refused(self):
        for name, wrong in (("cut", IPFIX[:-1]), ("version", b"\x00\x05" + IPFIX[2:]),
                            ("set", IPFIX[:-26] + b"\x01\x00\x00\x19" + IPFIX[-22:]),
                            ("no record", message("000a 0018 5f5e1000 00000000 00000000 "
                                                  "0100 0008 00000000"))):
            with self.subTest(name), self.assertRaises(Malformed):
                reader = Reader()
                reader.read(IPFIX)
                reader.read(wrong)

    def test_a_stream_is_cut_into_messages(self):
        self.assertEqual(split_stream(IPFIX + IPFIX_DATA + IPFIX[:20]),
                         ([IPFIX, IPFIX_DATA], IPFIX[:20]))
        self.assertEqual(split_stream(b""), ([], b""))
        with self.assertRaises(Malformed):
            split_stream(b"\x00\x09" + IPFIX[2:])
