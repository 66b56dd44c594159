"""The Debian packages: what is in them, and their life on a machine that is thrown away."""

import os
import re
import shutil
import signal
import socket
import struct
import time
import unittest
import urllib.request
from pathlib import Path

from packages import UNIT, Unit, install, package, run, second_version, state
from testbed.accounts import Sum
from testbed.booted_system import BootedSystem
from testbed.frames import ethernet, ipv4, udp
from testbed.machine_copy import enter_machine_copy
from testbed.netflow_v5 import Collector
from testbed.network import PROBED, FrameSender, enter_private_network, ip, udp_receiver
from testbed.probe import FLUSHED, READY
from testbed.process import WatchedProcess, settle

SOURCE = Path(__file__).resolve().parents[2]
TEMPLATE, FILTER = Path("/etc/kestrel/ipfix-template.txt"), Path("/etc/kestrel/filter-example.txt")
DEFAULTS = Path("/etc/default/kestrelexp")
ALL = ("kestrelexp", "kestrelexp-dev", "kestrelexp-metrics", "kestrelexp-kafka")


PAGES = re.compile(r"/usr/share/(?:doc/)?kestrelexp[a-z-]*/[\w./-]*\w")  # pages, scripts, folders


def files_of_the_system():
    return set(run("find", "/etc", "/usr", "/var/lib/systemd", "-xdev").splitlines())


def page_answers():
    try:
        with urllib.request.urlopen("http://127.0.0.1:9101/healthz", timeout=20) as answer:
            return answer.read() == b"ok\n"
    except OSError:
        return False


class Package(unittest.TestCase):
    maxDiff = None

    def test_lintian_has_no_complaint(self):
        output = run("lintian", "--allow-root", "--fail-on", "error,warning", "--tag-display-limit",
                     "0", *(str(package(name)) for name in ALL))
        self.assertEqual([line for line in output.splitlines() if not line.startswith("N:")], [])

    def test_every_file_of_etc_is_the_operators_to_change(self):
        listed = run("dpkg-deb", "-I", str(package("kestrelexp")), "conffiles").split()
        shipped = {line.split()[-1].removeprefix(".")
                   for line in run("dpkg-deb", "-c", str(package("kestrelexp"))).splitlines()
                   if "./etc/" in line and not line.endswith("/")}
        self.assertEqual(sorted(shipped), sorted(listed))
        self.assertEqual(len(listed), 1 + len(list((SOURCE / "etc").glob("*.txt"))))

    def test_what_the_programs_and_examples_read_comes_with_other_packages(self):
        control = run("dpkg-deb", "-f", str(package("kestrelexp")), "Depends", "Recommends")
        owners = run("dpkg", "-S", "/etc/services", "/etc/protocols").splitlines()
        self.assertEqual({line.split(":")[0] for line in owners}, {"netbase"})
        self.assertRegex(control, r"(?m)^Depends: .*\bnetbase\b")
        self.assertRegex(control, r"(?m)^Recommends: python3$")


class Life(unittest.TestCase):
    """Each test installs the packages on a copy of this machine."""

    maxDiff = None

    def setUp(self):
        enter_machine_copy([SOURCE, package("kestrelexp").parent])
        # Were the probe installed on the real machine, the copy would have it too.
        run("dpkg", "--purge", *ALL, check=False)
        # Machines that build in a container forbid their services to run; this one is anybody's.
        Path("/usr/sbin/policy-rc.d").unlink(missing_ok=True)
        Path("/var/lib/man-db/auto-update").unlink(missing_ok=True)  # takes seconds

    def wait_for(self, condition, seconds=20):
        deadline = time.monotonic() + seconds
        while not condition():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.1)

    def use_systemctl_that_notes(self):
        """Scripts of the packages believe that systemd runs; returns a reader of what they ask."""
        log, systemctl = Path("/run/asked-of-systemctl"), Path("/usr/bin/systemctl")
        log.write_text("")
        Path("/run/systemd/system").mkdir(parents=True, exist_ok=True)
        systemctl.unlink(missing_ok=True)
        systemctl.write_text(f'#!/bin/sh\necho "$@" >> {log}\n')
        systemctl.chmod(0o755)

        def asked():
            lines = log.read_text().splitlines()
            log.write_text("")
            return lines
        return asked

    def test_the_service_captures_and_sends_every_flow_at_its_stop(self):
        install(package("kestrelexp"))
        enter_private_network()
        collector = Collector()
        self.addCleanup(collector.close)
        sender = FrameSender()
        self.addCleanup(sender.close)
        DEFAULTS.write_text('KESTREL_OPTIONS="-v 0 -E netflow-v5:host=127.0.0.1,port='
                            f'{collector.port},ip=4"\n')
        unit = Unit(PROBED)
        probe = WatchedProcess(unit.command())
        self.addCleanup(probe.kill)
        probe.wait_for_line(READY)
        status = Path(f"/proc/{probe.pid}/status").read_text()
        user = int(run("id", "-u", unit.value("User")))
        self.assertNotEqual(user, 0)
        self.assertIn(f"Uid:\t{user}\t{user}\t{user}\t{user}\n", status)
        self.assertEqual(re.findall(r"Cap(?:Prm|Eff|Bnd|Amb):\t(\w+)", status),
                         [f"{1 << 13:016x}"] * 4)  # CAP_NET_RAW is number 13
        sender.send(*(ethernet(ipv4(udp(1000 + n, 53), "10.0.0.1", "10.0.0.2"))
                      for n in range(20)))
        settle()
        probe.signal(signal.Signals[unit.value("KillSignal")])
        self.assertEqual(probe.wait(), 0, probe.describe())
        self.assertIn(FLUSHED, probe.lines)
        self.assertEqual(Sum(probe.lines).total("kestrelexp_capture_packets_total",
                                                'input="af-packet"'), 20)
        collector.drain()
        self.assertEqual(sorted(flow.source_port for flow in collector.flows.elements()),
                         list(range(1000, 1020)))

    def test_systemd_starts_restarts_and_stops_it(self):
        install(package("kestrelexp"))
        enter_private_network()
        receiver = udp_receiver()
        self.addCleanup(receiver.close)
        sender = FrameSender()
        self.addCleanup(sender.close)
        DEFAULTS.write_text("KESTREL_OPTIONS=-v 0 -E netflow-v5:host=127.0.0.1,port="
                            f"{receiver.getsockname()[1]},ip=4\n")
        service = f"kestrelexp@{PROBED}"
        with BootedSystem() as system:
            def send(port):
                sender.send(ethernet(ipv4(udp(port, 53), "10.0.0.1", "10.0.0.2")))
                settle()

            system.run("systemctl", "start", service)
            send(1000)
            active, first, _ = system.state(service)
            self.assertEqual(active, "active")

            upgraded = second_version(package("kestrelexp"), "3.01.02", lambda tree: None)
            system.run("dpkg", "-i", upgraded)
            send(2000)
            active, second, _ = system.state(service)
            self.assertEqual(active, "active")
            self.assertNotIn(second, (0, first))

            system.run("systemctl", "stop", service)
            self.assertEqual(system.state(service), ("inactive", 0, 0))
            system.run("systemctl", "start", service)
            send(3000)
            system.run("dpkg", "--remove", "kestrelexp")
            self.assertEqual(system.state(service)[:2], ("inactive", 0))
        # Each of the three was still in the cache when its probe was told to end.
        ports = [struct.unpack_from(">H", receiver.recv(2048, socket.MSG_DONTWAIT), 24 + 32)[0]
                 for _ in range(3)]
        self.assertEqual(ports, [1000, 2000, 3000])

    def test_the_service_waits_for_an_interface_that_comes_late(self):
        install(package("kestrelexp"))
        enter_private_network()
        DEFAULTS.write_text("KESTREL_OPTIONS=-E null\n")
        service = "kestrelexp@late"
        with BootedSystem() as system:
            system.run("systemctl", "start", "--no-block", service)
            self.wait_for(lambda: system.state(service)[::2] == ("activating", 255))
            ip("link add late up type veth peer name early")

            def stays():
                before = system.state(service)
                time.sleep(1)
                return before[0] == "active" and system.state(service) == before
            self.wait_for(stays)  # it is tried again every 5 s

    def test_a_probe_that_hangs_is_started_again(self):
        install(package("kestrelexp"))
        enter_private_network()
        DEFAULTS.write_text("KESTREL_OPTIONS=-E null\n")
        service = f"kestrelexp@{PROBED}"
        sooner = Path(f"/etc/systemd/system/{service}.service.d/sooner.conf")
        sooner.parent.mkdir(parents=True)
        sooner.write_text("[Service]\nWatchdogSec=2\nRestartSec=100ms\n")
        with BootedSystem() as system:
            system.run("systemctl", "start", service)
            before = system.state(service)
            time.sleep(5)  # more than the watchdog's time, which a probe that lives may take
            self.assertEqual(system.state(service), before)
            system.run("kill", "-STOP", str(before[1]))

            def is_another():
                now = system.state(service)
                return now[0] == "active" and now[1] not in (0, before[1])
            self.wait_for(is_another)

    def test_a_service_without_options_says_what_it_lacks(self):
        install(package("kestrelexp"))
        enter_private_network()
        probe = WatchedProcess(Unit(PROBED).command())
        self.addCleanup(probe.kill)
        self.assertEqual(probe.wait(), 255)
        self.assertEqual(probe.lines[-1], "No export set. Exiting.")

    def test_each_example_of_the_options_file_starts(self):
        install(package("kestrelexp"), package("kestrelexp-metrics"))
        enter_private_network()
        examples = re.findall(r'(?m)^#(KESTREL_OPTIONS=".*")$', DEFAULTS.read_text())
        self.assertEqual(len(examples), 5)
        run("ip", "addr", "add", "192.0.2.10/24", "dev", "lo")
        run("ip", "addr", "add", "192.0.2.11/24", "dev", "lo")
        for example in examples:
            # A file for one interface counts more than the one for all.
            Path(f"{DEFAULTS}-{PROBED}").write_text(example.replace('="', '="-v 0 ') + "\n")
            with WatchedProcess(Unit(PROBED).command()) as probe:
                probe.wait_for_line(READY)
                probe.signal()
                self.assertEqual(probe.wait(), 0, probe.describe())

    def test_each_input_of_the_options_file_replaces_the_units(self):
        install(package("kestrelexp"))
        enter_private_network()
        shipped = DEFAULTS.read_text()
        DEFAULTS.write_text('KESTREL_OPTIONS="-v 0 -E null"\n')
        found = []
        for example in re.findall(r'(?m)^#(KESTREL_INPUT=".*")$', shipped):
            Path(f"{DEFAULTS}-{PROBED}").write_text(example.replace("eth0", PROBED) + "\n")
            with WatchedProcess(Unit(PROBED).command()) as probe:
                probe.wait_for_line(READY)
                settle()
                threads = {path.read_text() for path in
                           Path(f"/proc/{probe.pid}/task").glob("*/comm")}
                found.append(sum(name.startswith("lane ") for name in threads))
                probe.signal()
                self.assertEqual(probe.wait(), 0, probe.describe())
        self.assertEqual(found, [2, 0])  # two lanes of af-packet; libpcap

    def test_an_upgrade_names_options_that_have_an_input_as_well(self):
        install(package("kestrelexp"))
        DEFAULTS.write_text('KESTREL_OPTIONS="-I pcap:device=eth0 -E null"\n')
        Path(f"{DEFAULTS}-eth1").write_text("KESTREL_INPUT=\n" + DEFAULTS.read_text())
        self.use_systemctl_that_notes()
        output = install(second_version(package("kestrelexp"), "3.01.02", lambda tree: None))
        self.assertEqual(re.findall(r"move -I of KESTREL_OPTIONS in (\S+) into", output),
                         [str(DEFAULTS)])

    def test_an_upgrade_keeps_what_the_operator_changed(self):
        asked = self.use_systemctl_that_notes()
        install(package("kestrelexp"))
        self.assertEqual(asked(), ["--system daemon-reload"])
        DEFAULTS.write_text("KESTREL_OPTIONS=-E null\n")
        TEMPLATE.write_text("BEGIN-TEMPLATE\nIN_BYTES=BYTES\n")
        shipped = FILTER.read_text()

        def edit(tree):
            for path in (DEFAULTS, TEMPLATE, FILTER):
                with open(f"{tree}{path}", "a", encoding="utf-8") as file:
                    file.write("# second version\n")

        install(second_version(package("kestrelexp"), "3.01.02", edit))
        self.assertEqual(run("dpkg-query", "-W", "-f=${Version}", "kestrelexp"), "3.01.02")
        self.assertEqual(DEFAULTS.read_text(), "KESTREL_OPTIONS=-E null\n")
        self.assertEqual(TEMPLATE.read_text(), "BEGIN-TEMPLATE\nIN_BYTES=BYTES\n")
        self.assertEqual(FILTER.read_text(), shipped + "# second version\n")
        # Probes that run are restarted once the new files are there, and never stopped before.
        self.assertEqual(asked(), ["--system daemon-reload", "try-restart kestrelexp@*.service"])

    def test_removal_stops_the_probes_and_purging_leaves_nothing_but_the_user(self):
        before = files_of_the_system()
        asked = self.use_systemctl_that_notes()
        install(*map(package, ALL))
        DEFAULTS.write_text("KESTREL_OPTIONS=-E null\n")
        asked()
        run("dpkg", "--remove", *reversed(ALL))
        self.assertEqual(asked(), ["stop kestrelexp@*.service", "--system daemon-reload"])
        self.assertEqual(state("kestrelexp"), "rc")
        self.assertEqual(DEFAULTS.read_text(), "KESTREL_OPTIONS=-E null\n")
        self.assertFalse(Path("/usr/sbin/kestrelexp").exists())
        run("dpkg", "--purge", *ALL)
        self.assertEqual(sorted(files_of_the_system() - before), [])
        self.assertIn("/nonexistent", run("getent", "passwd", "kestrelexp"))
        install(package("kestrelexp"))  # and it can come back

    def test_an_installation_without_a_package_has_the_units_user(self):
        self.assertEqual(run("getent", "passwd", "kestrelexp", check=False), "")
        run("cmake", "--install", str(package("kestrelexp").parent.parent))
        run("systemd-sysusers")
        entry = run("getent", "passwd", Unit(PROBED).value("User")).strip().split(":")
        group = run("getent", "group", Unit(PROBED).value("Group")).strip().split(":")
        self.assertEqual(entry[3:], [group[2], "network flow probe", "/nonexistent",
                                     "/usr/sbin/nologin"])
        self.assertLess(0, int(entry[2]))
        self.assertLess(int(entry[2]), 1000)  # of the system, not a person's

    def test_pages_that_are_named_are_there(self):
        install(*map(package, ALL))
        named = set()
        for path in (DEFAULTS, *Path("/etc/kestrel").iterdir(),
                     *Path("/usr/share/doc").glob("kestrelexp*/*.md")):
            text = path.read_text()
            self.assertNotRegex(text, r"(?m)^#.* docs/", path)  # a folder of the source tree
            named.update(PAGES.findall(text))
        for page in (("8", "kestrelexp"), ("7", "kestrelexp-plugins")):
            shown = run("man", "--nh", *page, env=dict(os.environ, MANWIDTH="200"))
            named.update(PAGES.findall(shown))
        self.assertLessEqual({f"/usr/share/doc/kestrelexp/{name}.md" for name in (
            "filter-rules", "operations", "templates")}, named)
        self.assertEqual(sorted(name for name in named if not Path(name).exists()), [])

    def test_the_script_for_tables_of_as_numbers_runs(self):
        install(package("kestrelexp"))
        output = run("sh", "-c", "echo 192.0.2.0/24 64496 | /usr/share/kestrelexp/as_table.py")
        self.assertEqual(output.splitlines(), ["64496-192.0.2.0/24",
                                               "1 routes, 1 networks, 0 lines left out"])

    def test_links_of_the_installed_pages_lead_to_files(self):
        install(*map(package, ALL))
        pages = sorted(Path("/usr/share/doc").glob("kestrelexp*/*.md"))
        elsewhere = {"plugin-guide": "kestrelexp-dev", "metrics": "kestrelexp-metrics",
                     "monitoring": "kestrelexp-metrics", "kafka": "kestrelexp-kafka",
                     "pipelines": "kestrelexp-kafka"}
        names = [page.stem for page in (SOURCE / "docs").glob("*.md")]
        names += [page.parent.name for page in (SOURCE / "extras").glob("*/README.md")]
        self.assertEqual(sorted(f"{page.parent.name}/{page.name}" for page in pages), sorted(
            f"{elsewhere.get(name, 'kestrelexp')}/{name}.md" for name in names))
        for page in pages:
            for target in re.findall(r"\]\(([^)#]+)", page.read_text()):
                self.assertTrue((page.parent / target).exists(), f"{page}: {target}")

    def test_the_unit_is_sound_and_hardened(self):
        install(package("kestrelexp"))
        self.assertEqual(run("systemd-analyze", "verify", "--man=no", "kestrelexp@eth0.service"),
                         "")
        verdict = run("systemd-analyze", "security", "--offline=true", "--no-pager",
                      UNIT.name.replace("@", "@eth0")).splitlines()[-1]
        exposure = float(re.search(r"exposure level for \S+: ([\d.]+)", verdict).group(1))
        self.assertLess(exposure, 4.0, verdict)  # up to 4.9 is "OK"
        self.assertIn("OK", verdict)

    def test_a_plugin_is_made_from_the_installed_template(self):
        install(package("kestrelexp"), package("kestrelexp-dev"))
        shutil.copytree("/usr/share/kestrelexp/plugin", "/root/plugin")
        run("make", "-C", "/root/plugin", "CFLAGS=-Werror")
        self.assertNotIn("name: at_least", run("kestrelexp", "-l"))
        self.assertIn("name: at_least", run("kestrelexp", "-X", "/root/plugin/at_least.so", "-l"))
        run("make", "-C", "/root/plugin", "install")
        self.assertIn("name: at_least", run("kestrelexp", "-l"))

    def test_the_page_comes_with_a_package_of_its_own(self):
        depends = run("dpkg-deb", "-f", str(package("kestrelexp")), "Depends")
        self.assertEqual(re.findall(r"\blib(?!c6|gcc-s1|stdc\+\+6)[\w.+-]+", depends),
                         ["libgcrypt20", "libpcap0.8", "libzstd1"])
        install(package("kestrelexp"))
        self.assertFalse(Path("/usr/lib/kestrelexp/metrics.so").exists())
        install(package("kestrelexp-metrics"))
        enter_private_network()
        DEFAULTS.write_text("KESTREL_OPTIONS=-v 0 -X metrics.so -E null -E metrics:\n")
        probe = WatchedProcess(Unit(PROBED).command())
        self.addCleanup(probe.kill)
        probe.wait_for_line(READY)
        with urllib.request.urlopen("http://127.0.0.1:9101/readyz", timeout=20) as answer:
            self.assertEqual(answer.read(), b'{"ready":true,"not_ready":[]}\n')
        rules = "/usr/share/kestrelexp/prometheus/kestrelexp-alerts.yml"
        self.assertIn("SUCCESS", run("promtool", "check", "rules", rules))
        probe.signal()
        self.assertEqual(probe.wait(), 0, probe.describe())

    def test_removing_the_page_says_which_probes_will_miss_it(self):
        install(package("kestrelexp"), package("kestrelexp-metrics"))
        self.assertNotIn("metrics.so", run("dpkg", "--remove", "kestrelexp-metrics"))
        install(package("kestrelexp-metrics"))
        DEFAULTS.write_text("KESTREL_OPTIONS=-X metrics.so -E metrics:\n")
        self.assertIn("options in /etc/default name metrics.so; probes with them will not start",
                      run("dpkg", "--remove", "kestrelexp-metrics"))

    def test_an_upgrade_of_the_page_restarts_the_probes_that_show_the_old_one(self):
        install(package("kestrelexp"), package("kestrelexp-metrics"))
        enter_private_network()
        DEFAULTS.write_text("KESTREL_OPTIONS=-v 0 -X metrics.so -E metrics:\n")
        service = f"kestrelexp@{PROBED}"
        with BootedSystem() as system:
            system.run("systemctl", "start", service)
            self.wait_for(page_answers)
            first = system.state(service)[1]
            upgraded = second_version(package("kestrelexp-metrics"), "3.01.02", lambda tree: None)
            system.run("dpkg", "-i", upgraded)
            active, second, _ = system.state(service)
            self.assertEqual(active, "active")
            self.assertNotEqual(second, first)
            self.wait_for(page_answers)

    def test_flows_into_kafka_come_with_a_package_of_its_own(self):
        self.assertIn("librdkafka1", run("dpkg-deb", "-f", str(package("kestrelexp-kafka")),
                                         "Depends"))
        install(package("kestrelexp"))
        self.assertFalse(Path("/usr/lib/kestrelexp/kafka.so").exists())
        install(package("kestrelexp-kafka"))
        self.assertEqual(sorted(os.listdir("/usr/share/kestrelexp/clickhouse")), [
            "flow.proto", "flows.sql", "kafka-json.sql", "kafka-protobuf.sql", "questions.sql"])
        enter_private_network()
        DEFAULTS.write_text("KESTREL_OPTIONS=-v 0 -X kafka.so -E "
                            "kafka:brokers=127.0.0.1:9092,drain=0\n")
        probe = WatchedProcess(Unit(PROBED).command())
        self.addCleanup(probe.kill)
        probe.wait_for_line("kafka: no broker (")
        probe.wait_for_line(READY)
        probe.signal()
        self.assertEqual(probe.wait(), 0, probe.describe())
        self.assertIn("options in /etc/default name kafka.so; probes with them will not start",
                      run("dpkg", "--remove", "kestrelexp-kafka"))

    def test_shipped_plugins_are_loaded_only_when_asked_for(self):
        install(*map(package, ALL))
        shipped = sorted(Path("/usr/lib/kestrelexp").iterdir())
        self.assertEqual([path.name for path in shipped], [
            "af-packet.so", "capture-file.so", "end-reason.so", "ipfix-file.so", "json.so",
            "kafka.so", "metrics.so"])
        before = run("kestrelexp", "-l").count("name: ")
        for path in shipped:
            for name in (path, path.name):
                self.assertEqual(run("kestrelexp", "-X", name, "-l").count("name: "), before + 1)


if __name__ == "__main__":
    unittest.main()
