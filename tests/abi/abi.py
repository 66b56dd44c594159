"""What the tests with plugins share: how they are started, and where the plugins are.

Usage of each: NAME_test.py PROGRAM PLUGIN-DIRECTORY GROUP [TEST]
"""

import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
import probe  # noqa: E402

PROGRAM = os.path.abspath(sys.argv[1])
PLUGINS = os.path.abspath(sys.argv[2])


def plugin(name):
    return f"{PLUGINS}/{name}.so"


def main():
    probe.enter_quiet_network()
    group, *tests = sys.argv[3:]
    unittest.main(module="__main__",
                  argv=[sys.argv[0], *([f"{group}.{test}" for test in tests] or [group])])
