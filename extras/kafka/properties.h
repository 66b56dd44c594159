// The configuration of librdkafka: what suits a probe, then what a file says, then the parameters.
// While the program starts.
#pragma once

#include <librdkafka/rdkafka.h>

#include <memory>
#include <string>

#include "settings.h"

namespace kafka {

struct conf_deleter {
    void operator()(rd_kafka_conf_t* conf) const { rd_kafka_conf_destroy(conf); }
};
using conf_pointer = std::unique_ptr<rd_kafka_conf_t, conf_deleter>;

// Null when librdkafka does not take it; fault has its words.
conf_pointer make_configuration(const settings& wanted, std::string& fault);

}  // namespace kafka
