"""What the public headers declare, read from their text."""

import glob
import os
import re

DIRECTORY = os.path.join(os.path.dirname(__file__), "..", "..", "include")

# From here on plugin.h declares what plugins define, not what the program exports.
PLUGINS_OWN = "---- What an external plugin defines ----"


def names():
    """The public headers, as they are included."""
    return sorted(
        os.path.relpath(path, DIRECTORY) for path in
        glob.glob(os.path.join(DIRECTORY, "kestrelexp", "*.h")))


def exported(text):
    """The names that one header declares with KX_API."""
    text = re.sub(r"/\*.*?\*/", " ", text.split(PLUGINS_OWN)[0] + " */", flags=re.S)
    found = []
    for declaration in re.findall(r"\bKX_API\b([^;]*);", text):
        head, parenthesis, _ = declaration.partition("(")
        declarators = [head] if parenthesis else declaration.split(",")
        for declarator in declarators:
            declarator = re.sub(r"\[.*", "", declarator, flags=re.S)
            found.append(re.findall(r"\w+", declarator)[-1])
    return found


def all_exported():
    """Every name that the headers promise, with its header."""
    result = {}
    for name in names():
        with open(os.path.join(DIRECTORY, name), encoding="utf-8") as header:
            for symbol in exported(header.read()):
                result[symbol] = name
    return result
