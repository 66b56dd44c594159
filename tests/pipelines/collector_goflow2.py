"""goflow2 as a collector on loopback of the test's own namespace: what it wrote of what it took."""

import json
import os
import signal
import subprocess

from testbed.network import unread_bytes
from testbed.process import WatchedProcess, wait_until

PROGRAM = os.environ.get("KESTREL_GOFLOW2", "goflow2")
PORT = 2055


def is_bound(port):
    try:
        unread_bytes(port)
    except LookupError:
        return False
    return True


class Goflow2:
    """With the defaults but for its workers: two of them, as it has without the word, take what
    comes side by side, so that flows may overtake their templates."""

    def __init__(self, folder, form="json", port=PORT):
        self._file = folder / f"goflow2-{port}.{form}"
        self._process = WatchedProcess(
            [PROGRAM, "-listen", f"netflow://127.0.0.1:{port}?workers=1", "-addr", "",
             "-format", form, "-transport", "file", "-transport.file", self._file,
             *(("-transport.file.sep", "") if form == "bin" else ())],
            stdout=subprocess.DEVNULL)
        wait_until(lambda: self._file.exists() and is_bound(port), "goflow2 to listen")

    def kill(self):
        self._process.kill()

    def written(self):
        return self._file.read_bytes()

    def lines(self, count):
        """All lines so far, once there are as many."""
        wait_until(lambda: self.written().count(b"\n") >= count, f"{count} lines of goflow2")
        return [json.loads(line) for line in self.written().splitlines()]

    def messages(self, count):
        """All messages so far, each as bytes without its length, once there are as many."""
        wait_until(lambda: len(split_messages(self.written())) >= count,
                   f"{count} messages of goflow2")
        return split_messages(self.written())

    def end(self):
        """In order; returns what it had to complain of."""
        self._process.signal(signal.SIGTERM)
        assert self._process.wait() == 0, self._process.describe()
        return [line for line in self._process.lines if "level=INFO" not in line]


def take_varint(data, at):
    """The number at a place, and the place after it; an IndexError where the data end first."""
    value = shift = 0
    while True:
        byte = data[at]
        value |= (byte & 0x7F) << shift
        at, shift = at + 1, shift + 7
        if byte < 0x80:
            return value, at


def split_messages(data):
    """Whole messages, which have their lengths before them."""
    found, at = [], 0
    while at < len(data):
        try:
            length, start = take_varint(data, at)
        except IndexError:  # the rest is still to come
            break
        if start + length > len(data):
            break
        found.append(data[start:start + length])
        at = start + length
    return found


def read_message(message):
    """{(number, wire type): [values]} of a message in protocol buffers."""
    fields, at = {}, 0
    while at < len(message):
        tag, at = take_varint(message, at)
        value, at = take_varint(message, at)
        if tag & 7 == 2:  # so many bytes
            assert at + value <= len(message)
            value, at = message[at:at + value], at + value
        else:
            assert tag & 7 == 0, f"wire type {tag & 7}"
        fields.setdefault((tag >> 3, tag & 7), []).append(value)
    return fields
