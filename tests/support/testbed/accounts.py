"""The sum of packets that the probe prints at its end, and the rules that it has to obey."""

import re

LINE = re.compile(r"VERBOSE: 0:(kestrelexp_\w+)(?:\{(.*)\})? (-?\d+)$")

RECEIVED = "kestrelexp_capture_packets_total"
DROPPED = "kestrelexp_capture_dropped_packets_total"
UNREAD = "kestrelexp_capture_unread_packets"
SAMPLED_OUT = "kestrelexp_capture_sampled_out_packets_total"
REJECTED = "kestrelexp_rejected_packets_total"
DISCARDED = "kestrelexp_parser_discarded_packets_total"
HANDED = "kestrelexp_handed_packets_total"
SENT = "kestrelexp_export_packets_total"
LOST = "kestrelexp_export_lost_packets_total"
IN_CACHE = "kestrelexp_cache_packets"
IN_RINGS = "kestrelexp_ring_packets"
UNACCOUNTED = "kestrelexp_unaccounted_packets"


def without_sum(lines):
    """The lines but those of the sum."""
    return [line for line in lines if not LINE.match(line)]


class Sum:
    """The values by (name, labels)."""

    def __init__(self, lines):
        found = [match.groups() for line in lines if (match := LINE.match(line))]
        self.values = {(name, labels or ""): int(value) for name, labels, value in found}
        assert len(self.values) == len(found), "a metric has two lines"

    def total(self, name, *labels):
        """The sum of the metrics of a name that have these labels (key="value")."""
        return sum(value for (known, texts), value in self.values.items()
                   if known == name and all(label in texts.split(",") for label in labels))

    def reasons(self, name, *labels):
        """The values of a name by reason."""
        return {re.search(r'reason="(\w+)"', texts)[1]: value
                for (known, texts), value in self.values.items()
                if known == name and all(label in texts.split(",") for label in labels)}

    def exports(self):
        return sorted({match[1] for _, texts in self.values
                       if (match := re.search(r'(export="[^"]*")', texts))})

    def kept_from(self, export):
        """Frames that an export has not sent, for any reason that is told, that of the kernel too:
        what is missing in frames sent = packets exported + this."""
        return self.total(LOST, export) + sum(map(self.total, (
            DROPPED, UNREAD, SAMPLED_OUT, DISCARDED, IN_CACHE, IN_RINGS, REJECTED)))

    def check(self, case, parallel=()):
        """Received = sampled out + no flow + inside + handed, save what global filters rejected,
        and for each export handed = sent + lost; of those in parallel for each collector."""
        case.assertEqual([key for key in self.values if key[0] == UNACCOUNTED], [])
        case.assertEqual(self.total(RECEIVED), sum(map(self.total, (
            SAMPLED_OUT, DISCARDED, IN_CACHE, IN_RINGS, HANDED, REJECTED))))
        case.assertNotEqual(self.exports(), [])
        for export in self.exports():
            if export in parallel:
                self._check_collectors(case, export)
                continue
            case.assertEqual(self.total(HANDED),
                             self.total(SENT, export) + self.total(LOST, export), export)

    def collectors(self, export):
        return sorted({match[1] for _, texts in self.values if export in texts
                       and (match := re.search(r'(collector="[^"]*")', texts))})

    def _check_collectors(self, case, export):
        case.assertGreater(len(self.collectors(export)), 1)
        kept_back = sum(self.total(LOST, export, reason)
                        for reason in ('reason="filter"', 'reason="sampling"'))
        for collector in self.collectors(export):
            case.assertEqual(self.total(HANDED), kept_back + self.total(SENT, export, collector)
                             + self.total(LOST, export, collector), collector)
