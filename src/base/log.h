// Messages of the program's own code: what service.h offers to plugins, and the one way to end the
// process after a start-up fault. Any thread; takes no lock of ours.
#pragma once

#include "kestrelexp/service.h"

namespace kestrel {

// Exit statuses that have a meaning; exit() keeps their low 8 bits.
enum exit_status : int {
    exit_ok = 0,
    exit_input_failed = 1,     // the end in order of an input with a clock that broke off
    exit_config = -1,          // 255: configuration and initialisation errors
    exit_unknown_export = -3,  // 253
    exit_cipher = -11,         // 245: the anonymizer's cipher failed
    exit_huge_memory = -42,    // 214: no hugetlbfs file
    exit_queue_thread = -444,  // 68: no thread for the remover
    exit_memory = -666,        // 102: memory exhausted
    exit_second_interrupt = 42,
};

// Reports at level -1 (shown unless -v is below -1) and ends the process.
[[noreturn]] void die(int status, const char* format, ...) __attribute__((format(printf, 2, 3)));

// True when a message of this level would be shown; test it before building costly arguments.
inline bool verbose(int level) {
    return level <= verbose_level;
}

}  // namespace kestrel
