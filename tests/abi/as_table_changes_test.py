"""A table of AS numbers that changes while the program runs."""

from addresses import Addresses
from testbed.process import wait_until


class AsTableChanges(Addresses):
    def number_of_last(self):
        lines = [line for line in self.collected() if line.count("=") == 1]
        return int(lines[-1].rpartition("=")[2], 16) if lines else -1

    def wait_for_number(self, number):
        wait_until(lambda: self.number_of_last() == number, f"AS {number}")

    def test_a_changed_file_is_read_while_flows_pass(self):
        path = self.table("1-10.0.0.0/8")
        running = self.start(
            "final collect", f"-v 0 -I final:count=1000000,every_ms=1,since=2000000000 "
            f"-G as_helper:{path} -E collect:file={self.out},fields=SRC_AS32")
        for number in range(2, 12):
            self.wait_for_number(number - 1)
            self.table(f"{number}-10.0.0.0/8")
        self.wait_for_number(11)
        self.table("# nothing")
        message = f"Unable to reinit as helper using: {path}. Leaving old config"
        running.wait_for_line(message)
        self.table("12-10.0.0.0/8", "broken")
        running.wait_for_line("AS Helper found invalid config line: 1")
        self.table("13-10.0.0.0/8")
        self.wait_for_number(13)
        lines = self.interrupt(running)
        self.assertEqual(lines.count(message), 2)
        self.assertEqual(lines.count("VERBOSE: 0:AS-helper OK"), 12)
        numbers = [int(line.rpartition("=")[2], 16) for line in self.collected()
                   if line != "flush"]
        self.assertEqual(numbers, sorted(numbers))
        self.assertEqual(sorted(set(numbers)), [*range(1, 12), 13])
