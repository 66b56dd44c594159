/* kafka_reader BROKERS TOPIC PARTITIONS: writes what is in a topic, see topic_reader.h. */
#include <stdio.h>
#include <stdlib.h>

#include "topic_reader.h"

enum { BASE = 10, WORDS = 4 };

int main(int count, char** words) {
    if (count != WORDS) {
        (void)fprintf(stderr, "usage: kafka_reader BROKERS TOPIC PARTITIONS\n");
        return 1;
    }
    read_topic(words[1], words[2], (int)strtol(words[3], NULL, BASE));
    return 0;
}
