/* Reads a topic from its beginning to its present end. */
#pragma once

/* Writes a line "partition key message" to the standard output for each message of that many
 * partitions, the latter two as hexadecimal digits ("-": empty, "none": no key). brokers:
 * HOST:PORT,HOST:PORT. When nothing comes for 10 s, or the topic is not
 * there, the process ends. */
void read_topic(const char* brokers, const char* name, int partitions);
