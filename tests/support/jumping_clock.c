/* The wall clock of a program that has this preloaded: a day ahead as soon as the file that
 * JUMPING_CLOCK names exists. */
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

enum { DAY_S = 86400 };

int gettimeofday(struct timeval* restrict now, void* restrict zone) {
    const char* path = getenv("JUMPING_CLOCK");
    struct timespec real;
    (void)zone;
    if (syscall(SYS_clock_gettime, CLOCK_REALTIME, &real) != 0)
        abort();
    now->tv_sec = real.tv_sec;
    now->tv_usec = real.tv_nsec / 1000;
    if (path != NULL && access(path, F_OK) == 0)
        now->tv_sec += DAY_S;
    return 0;
}
