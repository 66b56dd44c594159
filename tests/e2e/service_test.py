"""What the probe tells the service manager that has started it, and when it falls silent."""

# Not under the address sanitizer: it is about time, and sends a dozen frames.
# Not under the thread sanitizer: it is about time, and the threads are those of shutdown_test.

import itertools
import os
import signal
import socket

from testbed.case import E2eCase
from testbed.frames import ethernet, ipv4, udp
from testbed.probe import FLUSHED
from testbed.process import settle, status_field, wait_until
from testbed.service_manager import ServiceManager

FRAME = ethernet(ipv4(udp(1000, 53), "10.0.0.1", "10.0.0.2"))
READY_STATUS = "Taking frames, exporting flows"
ALIVE = {"WATCHDOG": "1"}
STOPPING = {"STOPPING": "1", "STATUS": "Interrupted: sending the last flows"}
WATCHDOG = {"WATCHDOG_USEC": "1000000"}  # so a sign of life every half second


class Service(E2eCase):
    def manager(self, address=None):
        manager = ServiceManager(address or self.directory() / "notify")
        self.addCleanup(manager.close)
        return manager

    def service(self, manager, *arguments, variables=None, **options):
        return self.probe(*arguments, env=manager.environment(**(variables or {})), **options)

    def assert_ready(self, manager, pid):
        self.assertEqual(manager.message(), {"READY": "1", "MAINPID": str(pid),
                                             "STATUS": READY_STATUS})

    def hanging_input(self, variable):
        """The options of an input that hangs once the path that is returned too is there."""
        path = self.directory() / "hang"
        return path, ("-X", os.environ[variable], "-I", f"hanging:hang={path}")

    def test_it_is_ready_alive_and_stopping(self):
        manager = self.manager()
        probe = self.service(manager, "-E", "null", variables=WATCHDOG)
        self.assert_ready(manager, probe.pid)
        said = manager.messages(2.2)
        self.assertEqual(said, [ALIVE] * len(said))
        self.assertIn(len(said), (3, 4))  # it looks four times a second
        probe.signal(signal.SIGINT)
        self.assertEqual(probe.wait(), 0, probe.describe())
        self.assertIn(FLUSHED, probe.lines)
        rest = manager.messages(0.3)
        self.assertEqual([message for message in rest if message != ALIVE], [STOPPING])

    def test_frames_that_are_sent_once_it_is_ready_are_taken(self):
        manager = self.manager()
        collector = self.collector()
        probe = self.start_program(
            "-v", "0", "-I", "pcap:device=kb", "-E",
            f"netflow-v5:host=127.0.0.1,port={collector.port},ip=4", env=manager.environment())
        self.assert_ready(manager, probe.pid)
        self.sender.send(FRAME)
        self.stop_in_order(probe, collector)
        self.assertEqual(sum(collector.flows.values()), 1)

    def test_a_manager_that_falls_behind_is_told_later(self):
        manager = self.manager()
        manager.fall_behind()
        probe = self.service(manager, "-E", "null")
        settle(1)  # it has had its say, in vain
        while (message := manager.message()) == {"X_OTHER": "1"}:
            pass
        self.assertEqual(message, {"READY": "1", "MAINPID": str(probe.pid),
                                   "STATUS": READY_STATUS})
        self.assertEqual(manager.messages(0.6), [])

    def test_a_name_in_the_abstract_space_will_do(self):
        manager = self.manager(f"@kestrel-test-{os.getpid()}")
        probe = self.service(manager, "-E", "null")
        self.assert_ready(manager, probe.pid)

    def test_without_a_wish_there_are_no_signs_of_life(self):
        manager = self.manager()
        probe = self.service(manager, "-E", "null")
        self.assert_ready(manager, probe.pid)
        self.assertEqual(manager.messages(1.5), [])

    def test_the_watchdog_of_another_process_is_not_fed(self):
        manager = self.manager()
        probe = self.service(manager, "-E", "null", variables={**WATCHDOG, "WATCHDOG_PID": "1"})
        self.assert_ready(manager, probe.pid)
        self.assertEqual(manager.messages(1.5), [])

    def test_bad_wishes_are_none(self):
        for address in ("", "x", "relative/path", "/" + 200 * "x"):
            probe = self.probe("-E", "null", env={**os.environ, "NOTIFY_SOCKET": address,
                                                  "WATCHDOG_USEC": "soon"})
            self.stop_in_order(probe)

    def test_a_start_that_fails_is_never_ready(self):
        manager = self.manager()
        probe = self.service(manager, "-E", "null", device="none", ready=False)
        self.assertEqual(probe.wait(), 255)
        self.assertEqual(manager.messages(0.2), [])

    def test_the_daemon_tells_which_process_it_is(self):
        manager = self.manager()
        parent = self.start_program("-d", "-I", "pcap:device=kb", "-E", "null",
                                    env=manager.environment(**WATCHDOG))
        message = manager.message()
        daemon = int(message.pop("MAINPID"))
        self.addCleanup(os.kill, daemon, signal.SIGKILL)
        self.assertEqual(message, {"READY": "1", "STATUS": READY_STATUS})
        self.assertEqual(parent.wait(), 0)
        self.assertNotEqual(daemon, parent.pid)
        self.assertEqual(status_field(daemon, "Name"), ["kestrelexp"])
        self.assertEqual(manager.message(), ALIVE)

    def test_plugins_do_not_see_the_managers_wishes(self):
        manager = self.manager()
        _, source = self.hanging_input("KESTREL_HANGING_INPUT")
        probe = self.service(manager, "-E", "null", source=source, variables=WATCHDOG)
        self.assert_ready(manager, probe.pid)
        self.assertIn("hanging: environment none none none", probe.lines)

    def test_a_record_loop_that_hangs_is_no_life(self):
        manager = self.manager()
        probe = self.service(manager, "-t", "180:1", "-X", os.environ["KESTREL_SLOW_EXPORT"],
                             "-E", "slow_export:every=1,pause_ms=100000", variables=WATCHDOG)
        self.assert_ready(manager, probe.pid)
        self.assertEqual(manager.message(), ALIVE)
        self.sender.send(FRAME)
        probe.wait_for_line("slow_export: pause")
        manager.messages(1)
        self.assertEqual(manager.messages(2), [])

    def test_a_reader_that_hangs_is_no_life(self):
        manager = self.manager()
        path, source = self.hanging_input("KESTREL_HANGING_INPUT")
        probe = self.service(manager, "-E", "null", source=source, variables=WATCHDOG)
        self.assert_ready(manager, probe.pid)
        self.assertEqual(manager.message(), ALIVE)
        path.touch()
        probe.wait_for_line("hanging: now")
        manager.messages(1)
        self.assertEqual(manager.messages(2), [])

    def test_an_input_that_has_promised_nothing_may_wait(self):
        manager = self.manager()
        path, source = self.hanging_input("KESTREL_UNBOUND_INPUT")
        probe = self.service(manager, "-E", "null", source=source, variables=WATCHDOG)
        self.assert_ready(manager, probe.pid)
        path.touch()
        probe.wait_for_line("hanging: now")
        manager.messages(1)
        self.assertIn(ALIVE, manager.messages(1.5))

    def test_waiting_for_a_collector_is_life(self):
        manager = self.manager()
        with socket.create_server(("127.0.0.1", 0)) as listener:
            probe = self.service(
                manager, "-t", "180:1", "-E", "ipfix:host=127.0.0.1,protocol=tcp,ip=4,port="
                f"{listener.getsockname()[1]},template_file={self.template()}",
                variables=WATCHDOG)
            connection, _ = listener.accept()
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
        connection.close()  # with a reset, so that the next send fails
        self.assert_ready(manager, probe.pid)

        ports = itertools.count(1)

        def send_until_it_waits():  # flows enough to fill messages
            self.sender.send(*(ethernet(ipv4(udp(next(ports), 53), "10.0.0.1", "10.0.0.2"))
                               for _ in range(1000)))
            settle(1)
            return "Can't reconnect to collector" in probe.lines
        wait_until(send_until_it_waits, "collector missed", timeout=40)
        manager.messages(1)
        self.assertGreaterEqual(len(manager.messages(2.2)), 3)
        self.assertEqual(probe.stop(), 0, probe.describe())

    def template(self):
        path = self.directory() / "template.txt"
        path.write_text("BEGIN-TEMPLATE\nIN_BYTES=BYTES\n")
        return path
