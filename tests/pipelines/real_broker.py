"""A cluster of real Kafka brokers in KRaft mode, on loopback of the test's own namespace."""

import os
import subprocess
from pathlib import Path

from testbed.kafka_messages import read_flow, read_messages
from testbed.process import WatchedProcess, wait_until

LIBRARIES = Path(os.environ.get("KESTREL_KAFKA_LIBRARIES", "."))
CLUSTER = "5L6g3nShT-eMCtK--X86sw"  # any number will do
FIRST_PORT, FIRST_CONTROLLER_PORT = 9092, 9192
PASSWORD_PORT = 9392  # of the first broker, for who has a name and a password
PARTITIONS = 3
STARTED = 120  # seconds that a broker may take until it is ready
ANSWERED = 90  # until a topic can be read
# It says what goes wrong, and when it is ready.
_JAVA = ("java", "-Xmx192m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1", "-XX:-UsePerfData",
         "-Dorg.slf4j.simpleLogger.defaultLogLevel=warn",
         "-Dorg.slf4j.simpleLogger.log.kafka.server.KafkaRaftServer=info",
         "-cp", f"{LIBRARIES}/*")
_ATTRIBUTES = 21  # where they are in a batch; two bytes
_COMMON = """\
process.roles=broker,controller
controller.listener.names=CONTROLLER
listener.security.protocol.map=\
PLAINTEXT:PLAINTEXT,CONTROLLER:PLAINTEXT,SASL_PLAINTEXT:SASL_PLAINTEXT
log.cleaner.enable=false
num.network.threads=1
num.io.threads=2
offsets.topic.num.partitions=1
offsets.topic.replication.factor=1
"""


class Broker:
    """One of several; each is a controller as well. It keeps what it has on the disk."""

    def __init__(self, number, count, folder, settings):
        self._file = folder / f"broker{number}.properties"
        self._store = folder / f"broker{number}"
        self._process = None
        self.address = f"127.0.0.1:{FIRST_PORT + number}"
        listeners = [f"PLAINTEXT://{self.address}",
                     f"CONTROLLER://127.0.0.1:{FIRST_CONTROLLER_PORT + number}"]
        if "sasl." in settings:
            listeners.append(f"SASL_PLAINTEXT://127.0.0.1:{PASSWORD_PORT + number}")
        voters = ",".join(f"{each}@127.0.0.1:{FIRST_CONTROLLER_PORT + each}"
                          for each in range(count))
        self._file.write_text(f"""{_COMMON}\
node.id={number}
controller.quorum.voters={voters}
listeners={",".join(listeners)}
log.dirs={self._store}
num.partitions={PARTITIONS}
default.replication.factor={count}
min.insync.replicas={count // 2 + 1}
{settings}
""", encoding="ascii")

    def begin_to_format(self):
        """Makes its empty store; returns what does that."""
        return WatchedProcess([*_JAVA, "kafka.tools.StorageTool", "format", "-t", CLUSTER, "-c",
                               self._file], stdout=subprocess.DEVNULL)

    def begin_to_start(self):
        self._process = WatchedProcess([*_JAVA, "kafka.Kafka", self._file],
                                       stdout=subprocess.DEVNULL)

    def wait_until_ready(self):
        self._process.wait_for_line("Kafka Server started", STARTED)

    def start(self):
        self.begin_to_start()
        self.wait_until_ready()

    def kill(self):
        """At once. What it has written is there when it is started again."""
        if self._process is not None:
            self._process.kill()

    def codecs(self, topic):
        """Those of the first batch in each partition, as its attributes have them."""
        stores = self._store.glob(f"{topic}-*/00000000000000000000.log")
        starts = [store.read_bytes()[:_ATTRIBUTES + 2] for store in stores]
        return {start[-1] & 7 for start in starts if len(start) == _ATTRIBUTES + 2}


class Cluster:
    """So many brokers, not started yet. settings: lines for the properties of each. A topic that
    is not there is made when it is asked for, with PARTITIONS partitions and all brokers as its
    replicas, more than half of which have to acknowledge."""

    def __init__(self, case, count=1, settings=""):
        folder = case.directory()
        self.brokers = [Broker(number, count, folder, settings) for number in range(count)]
        for broker in self.brokers:
            case.addCleanup(broker.kill)
        tools = [broker.begin_to_format() for broker in self.brokers]
        for tool in tools:
            case.addCleanup(tool.kill)
            case.assertEqual(tool.wait(STARTED), 0, tool.describe())

    @property
    def addresses(self):
        return ",".join(broker.address for broker in self.brokers)

    def start(self):
        for broker in self.brokers:
            broker.begin_to_start()
        for broker in self.brokers:
            broker.wait_until_ready()
        return self

    def messages(self, topic, read=read_flow):
        """All that is in a topic. read: makes a flow of the bytes of a message."""
        done = []
        try:
            wait_until(lambda: self._read(topic, done), f"what is in {topic}", ANSWERED)
        except AssertionError as late:
            raise AssertionError(f"{late}: {done[-1].stderr}") from None
        return read_messages(done[-1].stdout.splitlines(), read)

    def _read(self, topic, done):
        """Fails while the topic is not there or nobody leads a partition."""
        done.append(subprocess.run(
            [os.environ["KESTREL_KAFKA_READER"], self.addresses, topic, str(PARTITIONS)],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False))
        return done[-1].returncode == 0
