"""Command lines and what comes of them, as rows."""

import os

LO = "-I pcap:device=lo"
NO_INPUT = "Input driver not set"
BASE = "Base parameter can't be set here"
UNKNOWN = "Unknown option found: "
CAPTURE_DEFAULTS = "VERBOSE: 0:Temporal storage init: 32768 of 88 (mem: 2816 KiB) final-records"

# Name, arguments (words parted by blanks, or a list), exit status, every line of standard error.
ROWS = [
    # --- what getopt finds
    ("an unknown letter", "-z", 255, ["kestrelexp: invalid option -- 'z'", UNKNOWN + "?"]),
    ("a missing argument", "-q", 255,
     ["kestrelexp: option requires an argument -- 'q'", UNKNOWN + "?"]),
    ("a missing argument of -E", "-I pcap -E", 255,
     ["kestrelexp: option requires an argument -- 'E'", UNKNOWN + "?"]),
    ("a stray word", "pcap:device=lo", 255, [UNKNOWN + "\x01"]),
    ("a stray word after options", "-q 10 lo -E null", 255, [UNKNOWN + "\x01"]),
    ("words after the end of options are not read", "-q 10 -- -z", 255, [NO_INPUT]),

    # --- no input
    ("nothing at all", "", 255, [NO_INPUT]),
    ("an export but no input", "-E null", 255, [NO_INPUT]),
    ("no input is found after the storage was built", "-v 0", 255, [CAPTURE_DEFAULTS, NO_INPUT]),
    ("a refusal stays silent below its level", ["-v", " -2"], 255, []),

    # --- where base options may stand
    ("a base option before the first export", "-q 10 -E null", 255, [NO_INPUT]),
    ("-d after an export", "-E null -d", 255, [BASE]),
    ("-e after an export", "-E null -e vlan", 255, [BASE]),
    ("-m after an export", "-E null -m 1", 255, [BASE]),
    ("-u after an export", "-E null -u root", 255, [BASE]),
    ("-v after an export", "-E null -v 1", 255, [BASE]),
    ("-X after an export", "-E null -X a.so", 255, [BASE]),
    ("-G after an export", "-E null -G a", 255, [BASE]),
    ("-P after an export", "-E null -P a", 255, [BASE]),
    ("-C after an export", "-E null -C 1", 255, [BASE]),
    ("-I after an export", "-E null -I pcap:device=lo", 255, [BASE]),
    ("-q after an export", "-E null -q 10", 255, [BASE]),
    ("-t after an export", "-E null -t 60:10", 255, [BASE]),
    ("a base option after the second export", "-E null -E null -q 10", 255, [BASE]),
    ("a base option after export options", "-E null -n 1 -q 10", 255, [BASE]),
    ("-H after an export is accepted", "-q 5 -E null -H /tmp", 255, [NO_INPUT]),
    ("-h after an export is accepted", "-E null -h", 0, []),
    ("-l after an export is accepted", "-E null -l", 0, []),
    ("-V after an export is accepted", "-E null -V", 0, []),
    ("export options before base options", "-S 1 -n 1 -N 1 -q 10", 255, [NO_INPUT]),

    # --- timeouts
    ("equal timeouts", "-t 100:100", 255, ["Active timeout less or equal inactive timeout"]),
    ("an active timeout below the inactive one", "-t 10:11", 255,
     ["Active timeout less or equal inactive timeout"]),
    ("an active timeout below the kept inactive one", "-t 5", 255,
     ["Active timeout less or equal inactive timeout"]),
    ("an active timeout too short", "-t 3:1", 255, ["Active timeout out of range"]),
    ("an active timeout too long", "-t 6001:10", 255, ["Active timeout out of range"]),
    ("an active timeout that is no number", "-t a:1", 255, ["Active timeout out of range"]),
    ("an inactive timeout too short", "-t 180:0", 255, ["Inactive timeout out of range"]),
    ("an inactive timeout too long", "-t 6000:601", 255, ["Inactive timeout out of range"]),
    ("the inactive timeout is looked at first", "-t 3:0", 255, ["Inactive timeout out of range"]),
    ("timeouts at their limits", "-t 6000:600 -t 4:1", 255, [NO_INPUT]),
    ("timeouts are shown at level 1", "-v 1 -t 60:10 -t 100", 255,
     ["VERBOSE: 1:Active timeout: 60", "VERBOSE: 1:Inactive timeout: 10",
      "VERBOSE: 1:Active timeout: 100", "VERBOSE: 1:Inactive timeout: 10",
      CAPTURE_DEFAULTS, NO_INPUT]),
    ("timeouts are shown before they are refused", "-v 1 -t 1:2", 255,
     ["VERBOSE: 1:Active timeout: 1", "VERBOSE: 1:Inactive timeout: 2",
      "Active timeout out of range"]),

    # --- queue size
    ("a queue too small", "-q 4", 255, ["4 is not valid queue size"]),
    ("a queue too large", "-q 31", 255, ["31 is not valid queue size"]),
    ("a queue size that is no number", "-q x", 255, ["0 is not valid queue size"]),
    ("the smallest queue", "-v 0 -q 5", 255,
     ["VERBOSE: 0:Queue mem = 3584",
      "VERBOSE: 0:Temporal storage init: 2 of 88 (mem: 0 KiB) final-records", NO_INPUT]),
    ("the largest queue", "-v 0 -q 30 -h", 0, ["VERBOSE: 0:Queue mem = 120259084288"]),

    # --- CPU mask, sampling, blocks
    ("no CPU", "-m 0", 255, ["Allowed CPU mask is from 1 to -1"]),
    ("a CPU mask that is no number", "-m x", 255, ["Allowed CPU mask is from 1 to -1"]),
    ("no CPU is refused when the options are read", "-m 0 -q 4", 255,
     ["4 is not valid queue size"]),
    ("the first CPU", "-v 0 -m 1", 255,
     ["VERBOSE: 0:CPU mask set OK", CAPTURE_DEFAULTS, NO_INPUT]),
    ("all 32 CPUs are no mask at all", "-v 0 -m 4294967295", 255, [CAPTURE_DEFAULTS, NO_INPUT]),
    ("no mask after one", "-v 0 -m 1 -m 4294967295", 255, [CAPTURE_DEFAULTS, NO_INPUT]),
    ("-1 is no mask after a blank", ["-v", "0", "-m", " -1"], 255, [CAPTURE_DEFAULTS, NO_INPUT]),
    ("-1 looks like an option", "-m -1", 255, ["Blank or bad parameter for option: -m"]),
    ("a negative sampling rate", "-S -1 -E null", 255,
     ["Blank or bad parameter for option: -S"]),
    ("a negative sampling rate after a blank", ["-S", " -1", "-E", "null"], 255,
     ["Bad sampling rate"]),
    ("no sampling", "-S 0 -E null", 255, [NO_INPUT]),
    ("an unknown block", "-v 1 -e foo -h", 0,
     ["VERBOSE: 1:Record size: 88", "VERBOSE: 1:Fast record size: 24"]),
    ("vlan and mac blocks", "-v 1 -e vlan -e mac -h", 0,
     ["VERBOSE: 1:Record size: 110", "VERBOSE: 1:Fast record size: 24"]),
    ("all blocks", "-v 1 -e vlan -e mpls -e mac -h", 0,
     ["VERBOSE: 1:Record size: 154", "VERBOSE: 1:Fast record size: 24"]),
    ("the sizes are shown above level 0", "-v 0 -h", 0, []),
    ("blocks widen the record", "-v 0 -q 5 -e mpls", 255,
     ["VERBOSE: 0:Queue mem = 3584",
      "VERBOSE: 0:Temporal storage init: 2 of 132 (mem: 0 KiB) final-records", NO_INPUT]),

    # --- names
    ("an unknown input", "-I nope", 255, ["Plugin: nope not found."]),
    ("an input name that goes on", "-I pcapx:device=lo", 255, ["Plugin: pcapx not found."]),
    ("an empty input name", "-I :", 255, ["Plugin:  not found."]),
    ("an unknown process plugin", "-P nope:a=b", 255, ["Plugin: nope not found."]),
    ("an unknown global filter", "-G nope", 255, ["Filter: nope not found."]),
    ("an unknown export filter", "-F nope:x -E null", 255, ["Filter: nope not found."]),
    ("an empty filter name", "-F : -E null", 255, ["Filter:  not found."]),
    ("an input without its device", "-I pcap -E null", 255,
     ["Device parameter is mandatory for pcap input."]),
    ("an input whose device is missing", "-I pcap:device=nosuch0 -E null", 255,
     ["Unable to init plugin", "Driver initialization failed"]),
    ("a rawnetcap input without its device", "-I rawnetcap -E null", 255,
     ["Device parameter is mandatory for rawnetcap input."]),
    ("a rawnetcap input with a faulty parameter", "-I rawnetcap:device=eth0,sampling -E null", 255,
     ["Cfgline problem: sampling", "Parameters decoding problem"]),
    ("no rawnetcap module", "-I rawnetcap:device=eth0 -E null", 255,
     ["Unable to init plugin", "Driver initialization failed"]),
    ("a doubtful sampling of rawnetcap", "-I rawnetcap:device=eth0,sampling=1001 -E null", 255,
     ["Sampling set to unbelievable value: 1001", "Unable to init plugin",
      "Driver initialization failed"]),
    ("the shortest prefix of rawnetcap", "-I r -E null", 255,
     ["Device parameter is mandatory for rawnetcap input."]),
    ("a second input that replaces the first registered one",
     "-I pcap:device=nosuch0 -I rawnetcap -E null", 255,
     ["Device parameter is mandatory for rawnetcap input."]),
    ("a second input after another than the first registered one", "-I rawnetcap:device=eth0 " + LO,
     255, ["Input driver allready defined"]),
    ("the same input twice, when it is not the first registered one", "-I rawnetcap -I rawnetcap",
     255, ["Input driver allready defined"]),

    # --- external plugins
    ("a plugin that is not there", "-X /nonexistent/a.so", 255,
     ["Unable to open plugin: /nonexistent/a.so", NO_INPUT]),
    ("a plugin that is no shared object", "-X /etc/passwd", 255,
     ["Unable to open plugin: /etc/passwd", NO_INPUT]),
    ("several plugins, and why none can be opened",
     "-v 0 -X /nonexistent/a.so,,/etc/passwd -h", 0,
     ["VERBOSE: 0:Plugin to load: /nonexistent/a.so", "Unable to open plugin: /nonexistent/a.so",
      "VERBOSE: 0:/nonexistent/a.so: cannot open shared object file: No such file or directory",
      "VERBOSE: 0:Plugin to load: /etc/passwd", "Unable to open plugin: /etc/passwd",
      "VERBOSE: 0:/etc/passwd: invalid ELF header"]),

    # --- with a device: what is wrong with the exports
    ("no export", LO, 255, ["No export set. Exiting."]),
    ("export options but no export", LO + " -n 1", 255, ["No export set. Exiting."]),
    ("an export without a name", LO + " -E :", 255, ["No export set. Exiting."]),
    ("an unknown export", LO + " -E nope", 253, ["Unknown export type: nope"]),
    ("an export name is no prefix", LO + " -E nul", 253, ["Unknown export type: nul"]),
    ("an unknown export after a known one", "-v 0 " + LO + " -E null -E nope", 253,
     [CAPTURE_DEFAULTS, "VERBOSE: 0:Plugin OK", "VERBOSE: 0:Export: null OK",
      "Unknown export type: nope"]),
    ("-n after the last export", LO + " -E null -n 1", 253, ["Unknown export type: "]),
    ("-N after the last export", LO + " -E null -N 1", 253, ["Unknown export type: "]),
    ("-S after the last export", LO + " -E null -S 1", 253, ["Unknown export type: "]),
    ("a nameless export after the first", LO + " -E null -E :", 253, ["Unknown export type: "]),
    ("a prefix chooses the input", "-I pc:device=lo", 255, ["No export set. Exiting."]),
    ("a second input after the first registered one", "-I pcap:device=nosuch0 " + LO, 255,
     ["No export set. Exiting."]),
    ("an unknown user", LO + " -u no.such.user", 255, ["No export set. Exiting."]),
]

# Every option with an argument refuses an empty one and one that looks like an option.
for letter in "CeEFGHImNnPStuqvX":
    refusal = ["Blank or bad parameter for option: -" + letter]
    ROWS.append((f"-{letter} with an empty argument", ["-" + letter, ""], 255, refusal))
    ROWS.append((f"-{letter} with an option as argument", ["-" + letter, "-V"], 255, refusal))

if (os.cpu_count() or 1) < 32:
    ROWS.append(("a CPU that is not there", "-m 2147483648", 255, ["Unable to set CPU mask"]))
