/* A cluster of three brokers, librdkafka's own mock, that does what the lines of its standard input
 * say. It writes the brokers' addresses first, and a line "done" after each command:
 *
 *   down N                 broker N takes no connection and loses those that it has
 *   up N                   it is there again
 *   slow N MS              it answers MS milliseconds later
 *   fail CODE COUNT        the next COUNT requests to produce are answered with the error CODE
 *   topic NAME PARTITIONS  makes a topic, whose partitions the brokers lead in turn
 *   read NAME PARTITIONS   writes all that is in the topic, see topic_reader.h */
#include <librdkafka/rdkafka.h>
#include <librdkafka/rdkafka_mock.h>
#include <stdio.h>
#include <stdlib.h>

#include "topic_reader.h"

enum { BROKERS = 3, PRODUCE = 0, REPEATS_MOST = 100 };

static void refuse(const char* what) {
    (void)fprintf(stderr, "cluster: %s\n", what);
    exit(1);
}

static rd_kafka_t* make_owner(void) {
    char words[512];
    rd_kafka_conf_t* const conf = rd_kafka_conf_new();
    rd_kafka_conf_set_log_cb(conf, NULL);  // it goes without brokers of its own
    rd_kafka_t* const made = rd_kafka_new(RD_KAFKA_PRODUCER, conf, words, sizeof words);
    if (made == NULL)
        refuse(words);
    return made;
}

static void make_topic(rd_kafka_mock_cluster_t* cluster, const char* name, int partitions) {
    if (rd_kafka_mock_topic_create(cluster, name, partitions, BROKERS) != 0)
        refuse("no topic");
    for (int n = 0; n < partitions; ++n)
        (void)rd_kafka_mock_partition_set_leader(cluster, name, n, n % BROKERS + 1);
}

static void fail_requests(rd_kafka_mock_cluster_t* cluster, int code, int count) {
    rd_kafka_resp_err_t codes[REPEATS_MOST];
    if (count > REPEATS_MOST)
        refuse("too many");
    for (int n = 0; n < count; ++n)
        codes[n] = (rd_kafka_resp_err_t)code;
    rd_kafka_mock_push_request_errors_array(cluster, PRODUCE, (size_t)count, codes);
}

static void obey(rd_kafka_mock_cluster_t* cluster, const char* line) {
    char name[64];
    int one;
    int other;
    if (sscanf(line, "down %d", &one) == 1)
        (void)rd_kafka_mock_broker_set_down(cluster, one);
    else if (sscanf(line, "up %d", &one) == 1)
        (void)rd_kafka_mock_broker_set_up(cluster, one);
    else if (sscanf(line, "slow %d %d", &one, &other) == 2)
        (void)rd_kafka_mock_broker_set_rtt(cluster, one, other);
    else if (sscanf(line, "fail %d %d", &one, &other) == 2)
        fail_requests(cluster, one, other);
    else if (sscanf(line, "topic %63s %d", name, &one) == 2)
        make_topic(cluster, name, one);
    else if (sscanf(line, "read %63s %d", name, &one) == 2)
        read_topic(rd_kafka_mock_cluster_bootstraps(cluster), name, one);
    else
        refuse(line);
}

int main(void) {
    rd_kafka_t* const owner = make_owner();
    rd_kafka_mock_cluster_t* const cluster = rd_kafka_mock_cluster_new(owner, BROKERS);
    char line[128];
    if (cluster == NULL)
        refuse("no cluster");
    (void)printf("%s\n", rd_kafka_mock_cluster_bootstraps(cluster));
    (void)fflush(stdout);
    while (fgets(line, sizeof line, stdin) != NULL) {
        obey(cluster, line);
        (void)printf("done\n");
        (void)fflush(stdout);
    }
    rd_kafka_mock_cluster_destroy(cluster);
    rd_kafka_destroy(owner);
    return 0;
}
