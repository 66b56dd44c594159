"""The export json live: a pipe that is not read, a reader who goes away, a crash, a full disk.
Frames sent = lines that somebody has + losses that the probe counts, to the packet."""

# Not under the address sanitizer: replay.json runs there.

import json
import os
import resource
import signal
import socket
import threading

from testbed.accounts import LOST, SENT
from testbed.background import SMALL, SOME, BackgroundCase, flows
from testbed.network import received_frames
from testbed.process import SLOWNESS, wait_until

PLUGIN = ("-X", os.environ["KESTREL_JSON"])
JSON = 'export="json-0"'
CHOSEN = "fields=L3_IPV4_ADDR_SRC#L4_PORT_SRC#PACKETS#FLOW_START_NSEC#FLOW_END_NSEC#COMMUNITY_ID"


def flows_in(data):
    """(source, port) of each line; the last one has to be whole as well."""
    text = data.decode("ascii")
    assert text == "" or text.endswith("\n"), text[-100:]
    found = [json.loads(line) for line in text.splitlines()]
    return sorted((flow["src_addr"], flow["src_port"]) for flow in found)


def known(*blocks):
    """The same of the frames of blocks."""
    return sorted((f"10.1.0.{block}", 1 + n) for block in blocks for n in range(SOME))


class Reader:
    """Reads a descriptor, or what can be opened at a path, to its end, on a thread of its own."""

    def __init__(self, source):
        self.data = bytearray()
        self._source = source
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        with open(self._source, "rb", buffering=0) as stream:
            while piece := stream.read(65536):
                self.data += piece

    def lines(self):
        return self.data.count(b"\n")

    def finish(self):
        self._thread.join(20 * SLOWNESS)
        assert not self._thread.is_alive(), "the writer has not closed"
        return bytes(self.data)


class SocketReader:
    """Listens at a path, and takes one connection after the other."""

    def __init__(self, path):
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(path))
        self._listener.listen()
        self._listener.settimeout(20 * SLOWNESS)
        self._path = path

    def accept(self):
        self.connection = self._listener.accept()[0]
        self.reader = Reader(os.dup(self.connection.fileno()))

    def go_away(self):
        """Nothing that was written is left unread, and nothing more can be written."""
        self._listener.close()
        self._path.unlink()
        self.connection.shutdown(socket.SHUT_RD)
        data = self.reader.finish()
        self.connection.close()
        return data


class JsonOutputs(BackgroundCase):
    def export(self, where, options=""):
        return (*PLUGIN, "-E", f"json:{where},{CHOSEN}{options}")

    def send(self, *blocks):
        for block in blocks:
            self.sender.send(*flows(block))

    def start_with_pipe(self, options):
        """A probe whose standard output is a pipe, and the end to read."""
        reading, writing = os.pipe()
        probe = self.probe(*self.export("file=-", options), source=SMALL, stdout=writing)
        os.close(writing)
        return probe, reading

    def check_read(self, probe, data, *blocks, lost=0, sent_before=0):
        """Each flow that was sent has a line, or is counted as what it was not: lost by the export,
        or, on a machine that is busy, not captured. Returns the sum."""
        read = flows_in(data)
        found = self.sum_of(probe, sent_before + len(blocks) * SOME)
        self.assertEqual(len(read), len(set(read)))
        self.assertEqual(set(read) - set(known(*blocks)), set())
        self.assertEqual(len(read), found.total(SENT, JSON))
        self.assertEqual(len(read) + found.kept_from(JSON), len(blocks) * SOME)
        if lost is not None:
            self.assertEqual(found.total(LOST, JSON), lost)
        return found

    # ---- Pipes ----

    def test_a_pipe_that_is_not_read_holds_nothing_up(self):
        probe, reading = self.start_with_pipe(",queue=1,drain=1")
        blocks = range(1, 8)
        self.send(*blocks)
        wait_until(lambda: received_frames() == len(blocks) * SOME, "frames")
        self.stop_in_order(probe)
        found = self.check_read(probe, Reader(reading).finish(), *blocks, lost=None)
        self.assertEqual(set(found.reasons(LOST, JSON)), {"queue_full", "not_drained"})

    def test_a_pipe_that_is_read_late_has_everything(self):
        probe, reading = self.start_with_pipe("")
        self.send(1, 2)
        wait_until(lambda: received_frames() == 2 * SOME, "frames")
        reader = Reader(reading)
        self.stop_in_order(probe)
        self.check_read(probe, reader.finish(), 1, 2)

    def test_a_pipe_that_is_closed_is_said_and_counted(self):
        probe, reading = self.start_with_pipe(",drain=1")
        os.close(reading)
        self.send(1)
        probe.wait_for_line("json: nobody reads standard output (Broken pipe)")
        self.stop_in_order(probe)
        found = self.check_read(probe, b"", 1, lost=None)
        self.assertEqual(set(found.reasons(LOST, JSON)), {"send"})

    def test_a_pipe_with_a_name_waits_for_its_reader(self):
        path = self.directory() / "fifo"
        os.mkfifo(path)
        probe = self.probe(*self.export(f"file={path}"), source=SMALL)
        self.send(1)
        probe.wait_for_line(f"json: nobody reads {path} (No such device or address), trying again")
        reader = Reader(path)
        self.stop_in_order(probe)
        self.check_read(probe, reader.finish(), 1)

    # ---- Sockets ----

    def test_a_reader_who_goes_away_and_comes_back_misses_nothing(self):
        path = self.directory() / "socket"
        first = SocketReader(path)
        probe = self.probe(*self.export(f"socket={path}"), source=SMALL)
        first.accept()
        self.send(1)
        wait_until(lambda: first.reader.lines() > SOME // 2, "the first lines")
        read = first.go_away()
        self.send(2)
        probe.wait_for_line(f"json: nobody reads {path} (")
        second = SocketReader(path)
        second.accept()
        probe.wait_for_line(f"json: {path} is read")
        self.send(3)
        self.stop_in_order(probe)
        found = self.check_read(probe, read + second.reader.finish(), 1, 2, 3)
        self.assertEqual(found.total("kestrelexp_export_reconnects_total", JSON), 1)

    def test_a_reader_who_was_never_there_is_waited_for_no_longer_than_the_drain(self):
        path = self.directory() / "socket"
        probe = self.probe(*self.export(f"socket={path}", ",drain=1"), source=SMALL)
        probe.wait_for_line(f"json: nobody reads {path} (No such file or directory), trying again")
        self.send(1)
        wait_until(lambda: received_frames() == SOME, "frames")
        self.stop_in_order(probe)
        found = self.check_read(probe, b"", 1, lost=None)
        self.assertEqual(set(found.reasons(LOST, JSON)), {"not_drained"})

    # ---- Files ----

    def test_a_crash_leaves_whole_lines_to_the_next_start(self):
        folder = self.directory()
        export = self.export(f"file={folder}/%Y.json,rotate-time=604800")
        probe = self.probe(*export, source=SMALL)
        self.send(1)
        wait_until(lambda: any(path.stat().st_size for path in folder.iterdir()), "a file")
        probe.signal(signal.SIGKILL)
        probe.wait()
        left, = folder.iterdir()
        self.assertTrue(left.name.endswith(".json.part"))
        with open(left, "ab") as torn:
            torn.write(b'{"src_addr":"10.')
        whole, _, rest = left.read_bytes().rpartition(b"\n")
        probe = self.probe(*export, source=SMALL)
        probe.wait_for_line(f"json: {left} ended within a line: {len(rest)} bytes are cut")
        self.send(2)
        self.stop_in_order(probe)
        first, second = sorted(folder.iterdir())
        self.assertEqual([first.name + ".part", second.name], [left.name, first.name + ".1"])
        self.assertEqual(first.read_bytes(), whole + b"\n")
        self.assertNotEqual(flows_in(first.read_bytes()), [])
        self.check_read(probe, second.read_bytes(), 2, sent_before=SOME)

    def test_a_full_disk_is_said_and_what_waits_is_written_later(self):
        path = self.directory() / "flows.json"
        probe = self.probe(
            *self.export(f"file={path}"), source=SMALL,
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE,
                                                  (100_000, resource.RLIM_INFINITY)))
        self.send(1, 2)
        probe.wait_for_line(f"json: {path}: File too large, trying again")
        resource.prlimit(probe.pid, resource.RLIMIT_FSIZE,
                         (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        probe.wait_for_line(f"json: {path} is written")
        self.stop_in_order(probe)
        self.check_read(probe, path.read_bytes(), 1, 2)

    def test_a_full_disk_under_standard_output_is_said_once(self):
        path = self.directory() / "flows.json"
        with open(path, "wb") as output:
            probe = self.probe(
                *self.export("file=-"), source=SMALL, stdout=output, restore_signals=False,
                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE,
                                                      (100_000, resource.RLIM_INFINITY)))
        self.send(1, 2)
        probe.wait_for_line("json: standard output: File too large, trying again")
        resource.prlimit(probe.pid, resource.RLIMIT_FSIZE,
                         (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
        probe.wait_for_line("json: standard output is written")
        self.stop_in_order(probe)
        self.assertEqual(sum("json: standard output" in line for line in probe.lines), 2)
        self.check_read(probe, path.read_bytes(), 1, 2)

    def test_a_file_that_is_moved_away_is_made_anew(self):
        path = self.directory() / "flows.json"
        probe = self.probe(*self.export(f"file={path}"), source=SMALL)
        self.send(1)
        wait_until(lambda: path.exists() and path.stat().st_size > 0, "lines")
        path.rename(path.with_suffix(".old"))

        def is_new():
            self.send(2)
            return path.exists() and path.stat().st_size > 0
        wait_until(is_new, "a new file")
        self.stop_in_order(probe)
        flows_in(path.read_bytes())
        lines = path.read_bytes().count(b"\n") + path.with_suffix(".old").read_bytes().count(b"\n")
        found = self.sum_of(probe, received_frames())
        self.assertEqual(found.total("kestrelexp_export_records_total", JSON), lines)
        self.assertEqual(found.total(LOST, JSON), 0)
