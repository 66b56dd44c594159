/* The program itself: signals, help texts and the record loop. */
#ifndef KESTRELEXP_PROGRAM_H
#define KESTRELEXP_PROGRAM_H

#include <stdint.h>

#include "kestrelexp/api.h"
#include "kestrelexp/plugin.h"
#include "kestrelexp/storage.h"

#ifdef __cplusplus
extern "C" {
#endif

struct run_configuration;

/* Installs itself for SIGINT, SIGQUIT and SIGALRM and arms a 5-second alarm; call it with 0 to
 * start. */
KX_API void signal_handler(int signal);

/* Print to standard output and end the program with status 0. */
KX_API void print_help(const struct plugin_registry* registry) __attribute__((noreturn));
KX_API void print_version(void) __attribute__((noreturn));
/* Prints the two-line reminder of the mandatory options. */
KX_API void print_noparams(void);

/* Takes finished flows from the storage (slots of record_size bytes), filters and exports them.
 * Returns a global filter's rejection; the orderly shutdown ends the program with status 0. */
KX_API int main_record_loop(struct temporal_storage* storage, unsigned record_size,
                            struct run_configuration* configuration);

#ifdef __cplusplus
}
#endif
#endif
