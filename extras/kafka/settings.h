// The parameters of the plugin. While the program starts.
#pragma once

#include <cstdint>
#include <string>

#include "../flow-encoding/flow_encoding.h"
#include "message_key.h"
#include "sampler_address.h"

namespace kafka {

enum class message_format { json, protobuf };

struct settings {
    std::string brokers;  // as librdkafka has them: host:port,host:port; empty: of the file
    std::string topic;
    std::string properties_file;  // empty: none
    message_format format = message_format::json;
    flow_encoding::json_settings json;
    message_key key = message_key::none;
    sampler_address sampler;
    uint64_t queue_bytes = 0;
    uint32_t drain_s = 0;
};

// Returns whether they make sense; stores what is wrong with them.
bool read_settings(char* params, settings& result, std::string& fault);

}  // namespace kafka
