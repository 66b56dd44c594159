/* The wall clock of a program that has this preloaded: a day ahead while the file that
 * JUMPING_CLOCK names exists. */
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

enum { DAY_S = 86400 };

static time_t ahead_s(void) {
    const char* path = getenv("JUMPING_CLOCK");
    return path != NULL && access(path, F_OK) == 0 ? DAY_S : 0;
}

int clock_gettime(clockid_t clock, struct timespec* now) {
    const int result = (int)syscall(SYS_clock_gettime, clock, now);
    if (result == 0 && clock == CLOCK_REALTIME)
        now->tv_sec += ahead_s();
    return result;
}

int gettimeofday(struct timeval* restrict now, void* restrict zone) {
    struct timespec real;
    (void)zone;
    if (syscall(SYS_clock_gettime, CLOCK_REALTIME, &real) != 0)
        abort();
    now->tv_sec = real.tv_sec + ahead_s();
    now->tv_usec = real.tv_nsec / 1000;
    return 0;
}
