#include "topic_reader.h"

#include <librdkafka/rdkafka.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>

enum { WAIT_MS = 10000 };

static void refuse(const char* what) {
    (void)fprintf(stderr, "topic reader: %s\n", what);
    exit(1);
}

static rd_kafka_t* open_reader(const char* brokers) {
    const char* const properties[][2] = {{"bootstrap.servers", brokers},
                                         {"group.id", "reader"},
                                         {"enable.auto.commit", "false"},
                                         {"enable.partition.eof", "true"}};
    char words[512];
    rd_kafka_conf_t* const conf = rd_kafka_conf_new();
    rd_kafka_conf_set_log_cb(conf, NULL);  // a broker that is gone is nothing to tell of
    for (size_t n = 0; n < sizeof properties / sizeof *properties; ++n)
        if (rd_kafka_conf_set(conf, properties[n][0], properties[n][1], words, sizeof words) != 0)
            refuse(words);
    rd_kafka_t* const reader = rd_kafka_new(RD_KAFKA_CONSUMER, conf, words, sizeof words);
    if (reader == NULL)
        refuse(words);
    (void)rd_kafka_poll_set_consumer(reader);
    return reader;
}

static void begin(rd_kafka_t* reader, const char* name, int partitions) {
    rd_kafka_topic_partition_list_t* const list = rd_kafka_topic_partition_list_new(partitions);
    for (int n = 0; n < partitions; ++n)
        rd_kafka_topic_partition_list_add(list, name, n)->offset = RD_KAFKA_OFFSET_BEGINNING;
    if (rd_kafka_assign(reader, list) != RD_KAFKA_RESP_ERR_NO_ERROR)
        refuse("no partitions to read");
    rd_kafka_topic_partition_list_destroy(list);
}

static void put_hex(const void* bytes, size_t length) {
    const unsigned char* const data = bytes;
    if (data == NULL)
        (void)printf("none");
    for (size_t n = 0; n < length; ++n)
        (void)printf("%02x", data[n]);
    if (data != NULL && length == 0)
        (void)printf("-");
}

static void put_message(const rd_kafka_message_t* message) {
    (void)printf("%d ", message->partition);
    put_hex(message->key, message->key_len);
    (void)printf(" ");
    put_hex(message->payload, message->len);
    (void)printf("\n");
}

struct part {
    int64_t end;  // the offset after its last message when the first one came; 0: none has
    bool is_over;
};

// In a topic that grows, librdkafka may never come to the end of a partition.
static void take(rd_kafka_t* reader, const rd_kafka_message_t* message, struct part* part) {
    int64_t first;
    if (part->is_over || (message->err != RD_KAFKA_RESP_ERR_NO_ERROR &&
                          message->err != RD_KAFKA_RESP_ERR__PARTITION_EOF))
        return;
    if (message->err == RD_KAFKA_RESP_ERR__PARTITION_EOF) {
        part->is_over = true;
        return;
    }
    if (part->end == 0 &&
        rd_kafka_get_watermark_offsets(reader, rd_kafka_topic_name(message->rkt),
                                       message->partition, &first, &part->end) != 0)
        refuse("a partition without an end");
    put_message(message);
    part->is_over = message->offset + 1 >= part->end;
}

static void read_parts(rd_kafka_t* reader, struct part* parts, int count) {
    for (int over = 0; over < count;) {
        rd_kafka_message_t* const message = rd_kafka_consumer_poll(reader, WAIT_MS);
        if (message == NULL)
            refuse("nothing comes");
        if (message->err == RD_KAFKA_RESP_ERR_UNKNOWN_TOPIC_OR_PART)
            refuse("there is no such topic");
        if (message->partition >= 0 && message->partition < count) {
            const bool was_over = parts[message->partition].is_over;
            take(reader, message, &parts[message->partition]);
            over += parts[message->partition].is_over && !was_over ? 1 : 0;
        }
        rd_kafka_message_destroy(message);
    }
}

void read_topic(const char* brokers, const char* name, int partitions) {
    rd_kafka_t* const reader = open_reader(brokers);
    struct part* const parts = calloc((size_t)partitions, sizeof *parts);
    if (parts == NULL)
        refuse("no memory");
    begin(reader, name, partitions);
    read_parts(reader, parts, partitions);
    free(parts);
    (void)rd_kafka_consumer_close(reader);
    rd_kafka_destroy(reader);
}
