/* Messages, clocks, memory, text, parameter strings, configuration files. */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "everything.h"
#include "kestrelexp/service.h"

static void check_messages(void) {
    CHECK(verbose_level == -1);
    CHECK(debug_level == -1);
    CHECK(syslog_on == 0);
    CHECK(started == 0);
    CHECK(strcmp(app_name, "/some/where/probe") == 0);
    CHECK(strcmp(progname, "probe") == 0);
    verbose_msg(-1, "a message %i", 1);
    verbose_msg(0, "not shown");
    debug_msg(0, "not", "shown", "at all");
    debug_level = 3;
    debug_msg(3, "here", "there", "message %i", 2);
    debug_level = -1;
}

static void check_clocks(void) {
    const uint64_t second = 1000000000;
    const uint64_t up = timer_get_uptime();
    struct timespec monotonic;
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    const uint64_t up_now = (uint64_t)monotonic.tv_sec * second + (uint64_t)monotonic.tv_nsec;
    CHECK(up <= up_now && up_now - up < 10 * second);

    const uint64_t wall = (uint64_t)time(NULL);
    CHECK(timer_get_sec() - wall < 10);
    CHECK(timer_get_nsec() / second - wall < 10);
    CHECK(timer_get_nsec() % 1000 == 0);
    CHECK(timer_get_rnd() < 1000000);
    CHECK(timer_is_replay() == 0);

    const uint64_t read = timer_startup_time_update();
    CHECK(read >= up && read - up < 10 * second);
    const uint64_t startup = timer_get_startup_time();
    CHECK(startup == timer_get_startup_time32());
    CHECK(timer_get_nsec() - startup - timer_get_uptime() + second < 2 * second);
}

static int is_zero(const unsigned char* bytes, size_t size) {
    for (size_t i = 0; i < size; ++i)
        if (bytes[i] != 0)
            return 0;
    return 1;
}

static void check_memory(void) {
    unsigned char* plain = malloc_wrapper(1000, 0);
    unsigned char* aligned = malloc_wrapper(1000, 1);
    unsigned char* huge = malloc_huge(1, "/tmp", "everything");
    CHECK(is_zero(plain, 1000));
    CHECK(is_zero(aligned, 1000) && (uintptr_t)aligned % 128 == 0);
    CHECK(is_zero(huge, 2 * 1024 * 1024));
    huge[2 * 1024 * 1024 - 1] = 1;
    free(plain);
    free(aligned);
}

static void check_text(void) {
    const uint8_t bytes[] = {0x00, 0xAB, 0xFF, 0x01};
    char* digits = str2hexa(bytes, 2);
    CHECK(strcmp(digits, "00AB") == 0);
    free(digits);
    CHECK(ones32(0xF0000001) == 5);
    CHECK(count_ones(bytes + 2, 2) == 9);
    CHECK(test_positive_number("007") == 7);
    CHECK(test_positive_number("7a") == -1);
    CHECK(return_zero_func() == 0);
}

static void check_parameters(void) {
    char list[] = "a,,b";
    char** pieces = char_split(list, ',', 1);
    CHECK(strcmp(pieces[0], "a") == 0 && strcmp(pieces[1], "b") == 0 && pieces[2] == NULL);
    CHECK(strcmp(list, "a,,b") == 0);
    free(pieces[0]);
    free(pieces);

    int32_t port = 0;
    char* host = NULL;
    const struct config_setting settings[] = {
        {"host", (void*)&host, CONFIG_STRING}, {"port", &port, CONFIG_INTEGER}, {NULL, NULL, 0}};
    char params[] = "port=4739,other=1,host=x";
    CHECK(config_set_values(params, settings) == 0);
    CHECK(port == 4739 && strcmp(host, "x") == 0);
}

static void check_configuration_files(void) {
    char path[] = "/tmp/kestrel-everything-XXXXXX";
    const int descriptor = mkstemp(path);
    CHECK(write(descriptor, "x=1\n# no\nab\ny=2", 15) == 15);
    close(descriptor);
    char** lines = read_config(path);
    unlink(path);
    CHECK(strcmp(lines[0], "x=1") == 0 && strcmp(lines[1], "y=2") == 0 && lines[2] == NULL);
    for (char** line = lines; *line != NULL; ++line)
        free(*line);
    free(lines);
    CHECK(read_config("/nonexistent/file") == NULL);
}

void check_services(void) {
    check_messages();
    check_clocks();
    check_memory();
    check_text();
    check_parameters();
    check_configuration_files();
}
