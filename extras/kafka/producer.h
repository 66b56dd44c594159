// The worker's side of the export: hands the messages of an outlet to librdkafka and settles each
// when its delivery report comes. A message stays in the outlet's ring meanwhile, and librdkafka
// reads it there. All callbacks of librdkafka come while we poll it, so that everything here
// happens on the worker; threads of librdkafka itself only log.
//
//   waiting ──deliver──> held ──report──> marked ──settle, oldest first──> sent or lost
//      ^                                    │
//      └──── the producer was given up ─────┘  not known to any broker: once more, by a new
//      producer
#pragma once

#include <kestrelexp/metrics.h>
#include <kestrelexp/outlet.h>
#include <librdkafka/rdkafka.h>

#include <cstdint>
#include <string>

#include "properties.h"
#include "statistics.h"

namespace kafka {

class producer {
  public:
    // While the export is initialised. topic: its name.
    producer(conf_pointer conf, std::string topic);

    // Starts librdkafka. Returns whether it takes the configuration; fault has its words.
    bool open(std::string& fault);

    // See outlet_tend_function, outlet_deliver_function, outlet_end_function. The number of a
    // message is the length of its key, which comes first in its bytes.
    bool tend(outlet* queue, bool is_closing, outlet_wait& wait);
    outlet_answer deliver(outlet_message& message);
    void end(outlet* queue);

  private:
    static void take_report(rd_kafka_t*, const rd_kafka_message_t* report, void* self);
    static void take_fault(rd_kafka_t*, int code, const char* words, void* self);
    static int take_statistics(rd_kafka_t*, char* text, size_t length, void* self);

    void close();
    void retire();
    void put_off();
    bool reopen(outlet* queue, bool is_closing, outlet_wait& wait);
    void purge();
    void poll(bool is_closing);
    void settle(outlet* queue);
    void note_loss(rd_kafka_resp_err_t error);
    void come_up();
    void go_down();

    const conf_pointer conf_;  // of which each producer gets a copy
    const std::string topic_name_;
    const int news_;  // eventfd: librdkafka has something to tell
    rd_kafka_t* client_ = nullptr;
    rd_kafka_topic_t* topic_ = nullptr;

    statistics statistics_;
    metric_cell* cells_;  // of the export's state
    std::string last_fault_;
    bool is_full_ = false;      // librdkafka takes no more for now
    bool is_given_up_ = false;  // librdkafka has, for good
    uint64_t pause_ns_ = 0;     // before the next producer; 0: a message arrived since the last one
    uint64_t next_open_ns_ = 0;
    bool was_last_tried_ = false;  // to begin anew at the end of the program
    bool is_ending_ = false;
    bool is_last_ = false;  // the program ends, and librdkafka has all that waited
    bool is_down_ = false;  // and that was said
    uint64_t down_since_ns_ = 0;
    uint64_t next_loss_line_ns_ = 0;
    uint64_t untold_losses_ = 0;
};

}  // namespace kafka
