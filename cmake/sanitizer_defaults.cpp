// Linked into builds with the address sanitizer: what its leak checker is told. Called once, by the
// sanitizer's runtime, at the end of the program.
#define RUNTIME_HOOK extern "C" __attribute__((visibility("default"), used))

// Memory from the program's own allocator is meant to live as long as the process: nobody frees it,
// and it need not be reachable at the end (the record loop ends the program from deep inside).
RUNTIME_HOOK const char* __lsan_default_suppressions();
const char* __lsan_default_suppressions() {
    return "leak:malloc_wrapper\n";
}

// Standard error belongs to the program: tests compare it line by line.
RUNTIME_HOOK const char* __lsan_default_options();
const char* __lsan_default_options() {
    return "print_suppressions=0";
}
