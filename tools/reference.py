#!/usr/bin/env python3
"""Keeps the manual pages, the shell completions and the tables of fields in docs/templates.md and
extras/json/README.md in step with the program.

Usage: tools/reference.py [--check] PROGRAM

Asks the program for its options (-h) and plugins (-l), the extras that were built beside it
included, and field_tables, which is built beside it with the tests, for its fields and elements.
Writes what follows from them into the blocks that are marked "generated" in docs/man,
docs/templates.md, extras/json/README.md and packaging/completions; text outside these blocks is
written by hand. An option or plugin without a block gets one at the end of its group. With --check
nothing is written: status 1, and the names of the files that would change.
"""

import re
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
EXTRAS = "/usr/lib/kestrelexp"  # where they are installed
KINDS = ("INPUT", "PROCESS", "FILTER", "EXPORT")
# Parameters that are told by the manual and not by the plugins' own texts, which have been what
# they are for a long time.
BACKGROUND = ["reconnect", "queue", "drain"]
OPTIONS = ["options-refresh-time", "sampling-elements"]
GROUP = ["group"]
UNLISTED = {"netflow-v5": BACKGROUND, "netflow-v9": BACKGROUND + OPTIONS + GROUP,
            "ipfix": BACKGROUND + OPTIONS + GROUP}
# Keys that the descriptions spell in another way than the plugin reads them.
READ_AS = {("ipfix", "template-file"): "template_file"}


@dataclass(frozen=True)
class Option:
    section: str
    letter: str
    argument: str  # "" for none
    text: tuple


@dataclass(frozen=True)
class Plugin:
    kind: str
    name: str
    text: tuple
    object: str = ""  # the file to load with -X; "" for plugins of the program

    def keys(self):
        """Its settings, where they are "key=value" items."""
        found = (re.match(r" ([a-z_-]+)=", line) for line in self.text)
        return [READ_AS.get((self.name, match[1]), match[1]) for match in found if match
                ] + UNLISTED.get(self.name, [])


@dataclass(frozen=True)
class Program:
    """What a program says of itself."""
    options: list
    plugins: list
    tables: dict  # of fields and elements, as Markdown, by name


def parse_help(text):
    """The options of -h, in order."""
    section, rows = "", []
    for line in text.splitlines():
        if match := re.fullmatch(r"(\w+) options:", line):
            section = match[1]
        elif match := re.fullmatch(r" -(\w)(?: (\S+))? +(\S.*)", line):
            rows.append([section, match[1], match[2] or "", [match[3]]])
        elif section and rows and re.match(r" {18}\S", line):
            rows[-1][3].append(line.strip())
    return [Option(*row[:3], tuple(row[3])) for row in rows]


def parse_plugins(text):
    """The plugins of -l, in order."""
    kind, rows = "", []
    for line in text.splitlines():
        if match := re.fullmatch(r"(\w+) Plugin\(s\)", line):
            kind = match[1]
        elif line.startswith("name: "):
            rows.append([kind, line.removeprefix("name: "), []])
        elif rows:
            rows[-1][2].append(line)
    return [Plugin(row[0], row[1], tuple("\n".join(row[2]).strip("\n").split("\n")))
            for row in rows]


# ---- blocks ----

def replace_blocks(text, comment, wanted, group_ends=None, comment_end=""):
    """text with the body of each block "COMMENT generated: NAME" ... "COMMENT end" made what wanted
    says. Blocks that are missing go in front of the line group_ends[NAME]; others are dropped."""
    close = re.escape(comment_end)
    pattern = re.compile(rf"(?m)^{re.escape(comment)} generated: (.+){close}\n(?:.*\n)*?"
                         rf"{re.escape(comment)} end{close}\n")

    def block(name):
        return (f"{comment} generated: {name}{comment_end}\n{wanted[name]}"
                f"{comment} end{comment_end}\n")

    present = set(pattern.findall(text))
    text = pattern.sub(lambda match: block(match[1]) if match[1] in wanted else "", text)
    for name in wanted:
        if name not in present:
            end = f"{comment} {(group_ends or {})[name]}\n"
            assert end in text, f"no line {end!r}"
            text = text.replace(end, block(name) + end)
    return text


# ---- manual pages ----

def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq")
    return "\\&" + text if text.startswith(".") else text


def option_block(option):
    head = (f'.BI \\-{option.letter} " {option.argument}"' if option.argument
            else f".B \\-{option.letter}")
    first = option.text[0]
    if len(option.text) > 1:
        lines = [".TP", head, roff(first), ".nf", *map(roff, option.text[1:]), ".fi"]
    else:
        lines = [".TP", head, roff(first if first.endswith(".") else first + ".")]
    return "\n".join(lines) + "\n"


def plugin_block(plugin):
    lines = [f".SS {roff(plugin.name)}", ".nf", *map(roff, plugin.text), ".fi"]
    if plugin.object:
        lines += [".PP", f"Loaded with \\-X {roff(f'{EXTRAS}/{plugin.object}')}."]
    return "\n".join(lines) + "\n"


def options_page(text, program):
    return replace_blocks(
        text, '.\\"', {f"-{option.letter}": option_block(option) for option in program.options},
        {f"-{option.letter}": f"end of {option.section} options" for option in program.options})


def plugins_page(text, program):
    def name(plugin):
        return f"{plugin.kind.lower()} {plugin.name}"
    return replace_blocks(
        text, '.\\"', {name(plugin): plugin_block(plugin) for plugin in program.plugins},
        {name(plugin): f"end of {plugin.kind.lower()} plugins" for plugin in program.plugins})


# ---- completions ----

def names_of(plugins, kind):
    return " ".join(plugin.name for plugin in plugins if plugin.kind == kind)


def shell_tables(program, array):
    lines = [f"{array}_options='{' '.join('-' + option.letter for option in program.options)}'"]
    for kind in KINDS:
        lines.append(f"{array}_{kind.lower()}='{names_of(program.plugins, kind)}'")
    lines.append(f"typeset -gA {array}_keys=(" if array.startswith("_kx_z")
                 else f"declare -gA {array}_keys=(")
    lines += [f"    [{plugin.name}]='{' '.join(plugin.keys())}'"
              for plugin in program.plugins if plugin.keys()]
    return "\n".join(lines) + "\n)\n"


def bash_file(text, program):
    return replace_blocks(text, "#", {"tables": shell_tables(program, "_kx")})


ZSH_ACTIONS = {"block": "(vlan mpls mac)", "user": "_users", "dir": "_directories",
               "file": "_files"}
ZSH_KINDS = {"I": "input", "P": "process", "G": "filter", "F": "filter", "E": "export"}


def zsh_spec(option):
    text = option.text[0].replace("'", "'\\''").replace("[", "\\[").replace("]", "\\]")
    spec = f"*-{option.letter}[{text}]"
    if option.argument:
        action = ZSH_ACTIONS.get(option.argument, " ")
        if option.letter in ZSH_KINDS:
            # The blank keeps _arguments from adding options of its own after the first word.
            action = f" _kestrelexp_named {ZSH_KINDS[option.letter]}"
        spec += f":{option.argument.replace(':', chr(92) + ':')}:{action}"
    return f"    '{spec}'"


def zsh_file(text, program):
    specs = ["_kx_z_specs=(", *map(zsh_spec, program.options), ")"]
    return replace_blocks(text, "#", {
        "tables": "\n".join(specs) + "\n" + shell_tables(program, "_kx_z")})


# ---- fields and elements ----

def page_of_tables(*names):
    """A page with these tables."""
    return lambda text, program: replace_blocks(
        text, "<!--", {name: program.tables[name] for name in names}, comment_end=" -->")


FILES = {
    "docs/man/kestrelexp.8": options_page,
    "docs/man/kestrelexp-plugins.7": plugins_page,
    "docs/templates.md": page_of_tables("elements", "values"),
    "extras/json/README.md": page_of_tables("names"),
    "packaging/completions/kestrelexp.bash": bash_file,
    "packaging/completions/_kestrelexp": zsh_file,
}


def said_by(program, *options):
    return subprocess.run([program, *options], check=True, stdout=subprocess.PIPE, text=True,
                          stdin=subprocess.DEVNULL).stdout


def all_plugins(program):
    """Those of the program, then those of the extras, each with its file."""
    plugins = parse_plugins(said_by(program, "-l"))
    assert plugins, "the program's texts have another form"
    names = {(plugin.kind, plugin.name) for plugin in plugins}
    for file in sorted((Path(program).parent / "extras").glob("*.so")):
        plugins += [Plugin(plugin.kind, plugin.name, plugin.text, file.name)
                    for plugin in parse_plugins(said_by(program, "-X", str(file), "-l"))
                    if (plugin.kind, plugin.name) not in names]
    return plugins


def look_at(program):
    options = parse_help(said_by(program, "-h"))
    assert options, "the program's texts have another form"
    field_tables = Path(program).parent / "field_tables"
    tables = {name: said_by(field_tables, name) for name in ("elements", "names", "values")}
    return Program(options, all_plugins(program), tables)


def main():
    words = sys.argv[1:]
    checking = "--check" in words
    programs = [word for word in words if word != "--check"]
    if len(programs) != 1:
        sys.exit(__doc__)
    program = look_at(programs[0])
    changed = []
    for name, made_from in FILES.items():
        path = ROOT / name
        text = path.read_text(encoding="utf-8")
        new = made_from(text, program)
        if new != text:
            changed.append(name)
            if not checking:
                path.write_text(new, encoding="utf-8")
    for name in changed:
        print(name)
    if checking and changed:
        sys.exit("these differ from what the program says: run tools/reference.py PROGRAM")


if __name__ == "__main__":
    main()
