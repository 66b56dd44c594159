// The process as the system sees it: background, CPUs, user; see daemon.h. Main thread, while the
// program starts.
#include "app/daemon.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <tuple>

#include "base/log.h"

namespace kestrel {

namespace {

constexpr int standard_descriptors[] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};

// Opens /dev/null onto those that are closed; returns whether all of them are open then.
bool open_closed_descriptors() {
    for (const int descriptor : standard_descriptors)
        if (fcntl(descriptor, F_GETFD) < 0 &&
            open("/dev/null", O_RDWR) != descriptor)  // it gets the lowest number that is free
            return false;
    return true;
}

void replace_standard_descriptors() {
    for (const int descriptor : standard_descriptors)
        close(descriptor);
    std::ignore = open_closed_descriptors();  // nowhere to say it, and no reason to end
}

}  // namespace

void keep_standard_descriptors() {
    if (!open_closed_descriptors())
        die(exit_config, "Unable to open /dev/null");
}

void daemonize() {
    for (const int terminal_signal : {SIGTTOU, SIGTTIN, SIGTSTP})
        (void)signal(terminal_signal, SIG_IGN);  // fails for bad numbers only

    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        std::exit(exit_config);
    }
    if (child > 0)
        std::exit(exit_ok);

    verbose_msg(-1, "Backgrounding: %i", getpid());
    std::ignore = setpgid(0, 0);  // a session leader cannot leave its group, which is as good
    replace_standard_descriptors();
    if (chdir("/") != 0)
        verbose_msg(-1, "Unable to chdir to /");
    umask(0);
    verbose_msg(0, "Daemonized OK");
    syslog_on = 1;
}

void set_cpu_affinity(uint32_t mask) {
    if (mask == 0)
        die(exit_config, "Allowed CPU mask is from 1 to %i", -1);  // the upper end as a signed word
    cpu_set_t cpus;                                                // 1024 CPUs
    CPU_ZERO(&cpus);
    for (unsigned cpu = 0; cpu < 32; ++cpu)
        if ((mask >> cpu & 1) != 0)
            CPU_SET(cpu, &cpus);
    if (sched_setaffinity(0, sizeof cpus, &cpus) != 0)
        die(exit_config, "Unable to set CPU mask");
    verbose_msg(0, "CPU mask set OK");
}

void drop_privileges(const char* user) {
    const passwd* const entry = getpwnam(user);
    if (entry == nullptr || geteuid() != 0)
        return;
    if (initgroups(user, entry->pw_gid) != 0)
        std::exit(exit_config);
    // The user goes first, so the group changes after it are refused and the process keeps root's
    // group ids with the user's supplementary groups. What is refused is not an error here.
    std::ignore = setuid(entry->pw_uid);
    std::ignore = seteuid(entry->pw_uid);
    std::ignore = setgid(entry->pw_gid);
    std::ignore = setegid(entry->pw_gid);
}

}  // namespace kestrel
