"""The filters that look at addresses, through the whole program: AS numbers and anonymized records
as exports and collectors see them."""

# Not under the thread sanitizer: it is all on the main thread, but for as_table_changes_test.

import re
import socket
from pathlib import Path

from abi import FINAL
from addresses import Addresses

KEY = "0123456789abcdef"


def dotted(text):
    return socket.inet_aton(text)


class AsNumbers(Addresses):
    """The AS helper: numbers at a collector and in getters."""

    TABLE = ["# test", "65001-10.0.0.1/32", "4200000513-192.0.2.0/24"]  # the latter 0xFA56EC01

    def numbers(self, records):
        return [record[4:6] for record in records]

    def test_numbers_reach_a_collector(self):
        receiver = self.collector()
        got, = self.collected_by(f" -F as_helper:{self.table(*self.TABLE)} "
                              f"-E {self.to(receiver)}", receiver)
        # Of a number of 32 bits the field holds the low 16.
        self.assertEqual(self.numbers(got), [(0, 0xEC01), (65001, 0xEC01), (0, 0xEC01)])

    def test_a_global_helper_serves_every_export(self):
        one, two = self.collector(), self.collector()
        got = self.collected_by(f" -G as_helper:{self.table(*self.TABLE)} -E {self.to(one)} "
                             f"-E {self.to(two)}", one, two)
        for records in got:
            self.assertEqual(self.numbers(records), [(0, 0xEC01), (65001, 0xEC01), (0, 0xEC01)])

    def test_a_helper_of_one_export_serves_no_other(self):
        one, two, three = self.collector(), self.collector(), self.collector()
        got = self.collected_by(
            f" -E {self.to(one)} -F as_helper:{self.table(*self.TABLE)} -E {self.to(two)} "
            f"-E {self.to(three)}", one, two, three)
        self.assertEqual(self.numbers(got[0]), [(0, 0)] * 3)
        self.assertEqual(self.numbers(got[1]), [(0, 0xEC01), (65001, 0xEC01), (0, 0xEC01)])
        self.assertEqual(self.numbers(got[2]), [(0, 0)] * 3)

    def test_two_exports_may_have_tables_of_their_own(self):
        one, two = self.collector(), self.collector()
        first = self.table("1-10.0.0.0/24", name="one")
        second = self.table("2-10.0.0.0/24", name="two")
        got = self.collected_by(f" -F as_helper:{first} -E {self.to(one)} "
                             f"-F as_helper:{second} -E {self.to(two)}", one, two)
        self.assertEqual(self.numbers(got[0]), [(1, 0)] * 3)
        self.assertEqual(self.numbers(got[1]), [(2, 0)] * 3)

    def test_getters_give_both_widths(self):
        lines = self.collected_lines(
            f" -F as_helper:{self.table(*self.TABLE)} -E collect:file={self.out},"
            "fields=SRC_AS/DST_AS/SRC_AS32/DST_AS32")
        self.assertEqual(lines, [
            FINAL[0] + " SRC_AS=0000 DST_AS=EC01 SRC_AS32=00000000 DST_AS32=FA56EC01",
            FINAL[1] + " SRC_AS=FDE9 DST_AS=EC01 SRC_AS32=0000FDE9 DST_AS32=FA56EC01",
            FINAL[2] + " SRC_AS=0000 DST_AS=EC01 SRC_AS32=00000000 DST_AS32=FA56EC01"])

    def test_an_ipv6_prefix_covers_the_last_bits(self):
        table = self.table("7-2001:db8::2/32", "65002-2001:db8::/32")
        lines = self.collected_lines(f":ipv6=1 -G as_helper:{table} "
                               f"-E collect:file={self.out},fields=SRC_AS32/DST_AS32")
        self.assertEqual([line.split()[-2:] for line in lines], [
            ["SRC_AS32=0000FDEA", "DST_AS32=00000000"],
            ["SRC_AS32=00000000", "DST_AS32=00000000"],
            ["SRC_AS32=00000007", "DST_AS32=00000000"]])

    def test_the_fields_join_the_chain_that_the_helper_stands_in(self):
        running = self.start("final", f"-v 1 -I final -G as_helper:{self.table(*self.TABLE)} "
                                      "-E null")
        running.wait_for_line("VERBOSE: 0:Kestrel OK")
        fields = [re.sub("^VERBOSE: 1:", "", line) for line in self.interrupt(running)
                  if "_AS" in line]
        own = ["SRC_AS - 2", "DST_AS - 2", "SRC_AS32 - 4", "DST_AS32 - 4"]
        self.assertEqual(fields, [f"Base Getter: {field}" for field in own] +
                         [f"Getter: {field}" for field in own])

    def test_the_example_is_a_table(self):
        example = Path(__file__).resolve().parents[2] / "etc/as-example.txt"
        lines = self.collected_lines(f" -G as_helper:{example} -E collect:file={self.out},"
                                     "fields=DST_AS32")
        self.assertEqual([line.split()[-1] for line in lines], ["DST_AS32=0000FBF0"] * 3)

    def test_a_chain_has_one_helper_at_most(self):
        path = self.table(*self.TABLE)
        self.expect_refusal(f"-G as_helper:{path} -F as_helper:{path}",
                            "Duplicate getter found: SRC_AS")

    def test_a_table_that_is_none_ends_the_start(self):
        args = "Unable to filter plugin: as_helper with args: "
        self.expect_refusal("-G as_helper", args + "(null)")
        self.expect_refusal("-G as_helper:/nonexistent", args + "/nonexistent")
        path = self.table("65001-10.0.0.0/8", "65001 11.0.0.0/8")
        self.expect_refusal(f"-F as_helper:{path}", "AS Helper found invalid config line: 1",
                            args + path)
        path = self.table("65001-localhost/8")
        self.expect_refusal(f"-F as_helper:{path}", "Unable to get addr: localhost", args + path)

    def test_a_prefix_out_of_range_is_a_warning(self):
        path = self.table("65001-10.0.0.1/40")
        running = self.start("final", f"-I final -G as_helper:{path} -E null")
        running.wait_for_line("Network mask out of range: 40")
        self.interrupt(running)



class Anonymized(Addresses):
    """The anonymizer: addresses and ports at a collector, and what later exports see."""

    PLAIN = [(dotted(f"10.0.0.{i}"), dotted("192.0.2.1"), 1000 + i, 53) for i in range(3)]
    MASKED = [(dotted(f"172.16.0.{i}"), dotted("172.16.2.1"), 1000 + i, 53) for i in range(3)]
    # Worked out with openssl enc -aes-128-ecb.
    ENCRYPTED = [(bytes.fromhex(source), bytes.fromhex(destination), *ports)
                 for source, destination, *ports in (
                     ("03bfa181", "8aec2e72", 0xC5F1, 0x1BFC),
                     ("bf27c8cc", "aaa8f5e3", 0xB0D8, 0x6BDD),
                     ("eec0570d", "976c8656", 0x063F, 0x717A))]

    def exported(self, arguments, *receivers):
        return [[record[:4] for record in records]
                for records in self.collected_by(arguments, *receivers)]

    def test_masked_addresses_reach_a_collector(self):
        for place in "GF":
            receiver = self.collector()
            self.assertEqual(
                self.exported(f" -{place} anonymizer:MASK:172.16.0.0/16 "
                              f"-E {self.to(receiver)}", receiver), [self.MASKED])

    def test_encrypted_addresses_and_ports_reach_a_collector(self):
        for place in "GF":
            receiver = self.collector()
            self.assertEqual(
                self.exported(f" -{place} anonymizer:AES:ADDR,PORT:{KEY} "
                              f"-E {self.to(receiver)}", receiver), [self.ENCRYPTED])

    def test_a_record_changed_for_one_export_stays_changed_for_those_behind_it(self):
        one, two, three = self.collector(), self.collector(), self.collector()
        self.assertEqual(
            self.exported(f" -E {self.to(one)} -F anonymizer:MASK:172.16.0.0/16 "
                          f"-E {self.to(two)} -E {self.to(three)}", one, two, three),
            [self.PLAIN, self.MASKED, self.MASKED])

    def test_numbers_are_those_of_the_addresses_that_the_helper_sees(self):
        table = self.table("1-10.0.0.0/8", "2-172.16.0.0/16")
        mask = "anonymizer:MASK:172.16.0.0/16"
        for filters, number in ((f"-G as_helper:{table} -G {mask}", 1),
                                (f"-G {mask} -G as_helper:{table}", 2)):
            receiver = self.collector()
            got, = self.collected_by(f" {filters} -E {self.to(receiver)}", receiver)
            self.assertEqual([record[:4] for record in got], self.MASKED)
            self.assertEqual([record[4] for record in got], [number] * 3)

    def test_ipv6_addresses_are_encrypted_one_by_one(self):
        lines = self.collected_lines(f":ipv6=1 -F anonymizer:AES:ADDR:{KEY} "
                               f"-E collect:file={self.out},offset=32,length=32")
        destination = "E12D9D13DB4F0E5AC01B84ED733215D0"
        self.assertEqual([line.split()[-1] for line in lines], [
            "+A9FD9F6028EB2A7B0DE372FDB844EDB9" + destination,
            "+7A12345379C5BB36BA6FBFF7B2682239" + destination,
            "+223DE9F24FD200D67C24F80BBABCFE43" + destination])

    def test_ipv6_flows_pass_a_mask_unchanged(self):
        for place in "GF":
            lines = self.collected_lines(f":ipv6=1 -{place} anonymizer:MASK:2001:db8::/32 "
                                   f"-E collect:file={self.out},offset=32,length=32")
            self.assertEqual([line.split()[-1] for line in lines], [
                f"+0{i}0000000000000000000000B80D0120FFFF00000000000000000000B80D0120"
                for i in range(3)])

    def test_a_key_of_the_run_is_made_where_none_is_given(self):
        receiver = self.collector()
        got, = self.exported(f" -G anonymizer:AES:PORT -E {self.to(receiver)}",
                             receiver)
        self.assertEqual([record[:2] for record in got], [record[:2] for record in self.PLAIN])
        self.assertNotEqual([record[2:] for record in got],
                            [record[2:] for record in self.PLAIN])

    def test_parameters_that_are_refused(self):
        for params, *lines in (
                ("", "Invalid anonymizer parameter: (null)"),
                (":MASK", "Invalid anonymizer parameter: MASK"),
                (":mask:10.0.0.0/8", "Unknown anonymizer mode: mask"),
                (":MASK:10.0.0.0/32", "Bad bits number: 32"),
                (":MASK:2001:db8::/128", "Bad bits number: 128"),
                (":MASK:10.0.0.0", "Bad address format"),
                (":MASK:,", "Bad formated address list"),
                (":MASK:2001:db8:::/32", "bad address: 2001:db8:::"),
                (":AES:ALL", "Unknown field: ALL"),
                (":AES:,", "Blank or bad fields format"),
                (":AES:ADDR:short", "AES key must be exactly 16 characters length")):
            for place in "GF":
                self.expect_refusal(
                    f"-{place} anonymizer{params}", *lines,
                    f"Unable to filter plugin: anonymizer with args: {params[1:] or '(null)'}")

    def test_a_prefix_of_its_name_chooses_it(self):
        receiver = self.collector()
        self.assertEqual(
            self.exported(f" -F anon:MASK:172.16.0.0/16 -E {self.to(receiver)}", receiver),
            [self.MASKED])
