"""A cluster of real Kafka brokers in KRaft mode, on loopback of the test's own namespace."""

import os
import subprocess
from pathlib import Path

from testbed.process import WatchedProcess, wait_until

LIBRARIES = Path(os.environ.get("KESTREL_KAFKA_LIBRARIES", "."))
CLUSTER = "5L6g3nShT-eMCtK--X86sw"  # any number will do
FIRST_PORT, FIRST_CONTROLLER_PORT = 9092, 9192
STARTED = 90  # seconds that a broker may take


class Broker:
    """One of count; each is a controller as well."""

    def __init__(self, number, count, folder):
        self.address = f"127.0.0.1:{FIRST_PORT + number}"
        self._settings = folder / f"broker{number}.properties"
        voters = ",".join(f"{each}@127.0.0.1:{FIRST_CONTROLLER_PORT + each}"
                          for each in range(count))
        self._settings.write_text(f"""\
process.roles=broker,controller
node.id={number}
controller.quorum.voters={voters}
listeners=PLAINTEXT://{self.address},CONTROLLER://127.0.0.1:{FIRST_CONTROLLER_PORT + number}
controller.listener.names=CONTROLLER
listener.security.protocol.map=PLAINTEXT:PLAINTEXT,CONTROLLER:PLAINTEXT
log.dirs={folder}/broker{number}
num.partitions=3
default.replication.factor={count}
min.insync.replicas={count // 2 + 1}
offsets.topic.replication.factor={count}
""", encoding="ascii")
        self._run_to_its_end("kafka.tools.StorageTool", "format", "-t", CLUSTER, "-c",
                             self._settings)
        self._process = None

    @staticmethod
    def _command(*words):
        return ["java", "-Xmx256m", "-XX:TieredStopAtLevel=1", "-cp", f"{LIBRARIES}/*", *words]

    def _run_to_its_end(self, *words):
        subprocess.run(self._command(*words), check=True, capture_output=True,
                       stdin=subprocess.DEVNULL)

    def start(self):
        self._process = WatchedProcess(self._command("kafka.Kafka", self._settings),
                                       stdout=subprocess.DEVNULL)

    def kill(self):
        """As a machine that loses its power."""
        if self._process is not None:
            self._process.kill()
