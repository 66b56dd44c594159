// A flow as the message FlowMessage of goflow2, in protocol buffers, with its length before it, so
// that a reader finds the next one. What the probe does not know is left out. Knows nothing of
// where the bytes go; on the thread of the record loop.
#pragma once

#include <kestrelexp/getter.h>
#include <kestrelexp/record.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sampler_address.h"

namespace kafka {

class flow_message {
  public:
    // Room that a message with its length takes at most, bytes.
    static constexpr size_t longest = 768;

    // getters: the export's table, borrowed for good.
    flow_message(const getter* getters, const sampler_address& sampler);

    // Writes the record to a place with room for the longest message, and returns its bytes.
    // now_ns: when the flow was received, by the wall clock. number: that of the record.
    size_t write(const flow_record& record, uint64_t now_ns, uint32_t number, uint8_t* to) const;

  private:
    struct bound_row {
        uint32_t number;
        int32_t form;
        const getter* field;
    };

    uint8_t* put_row(const bound_row& row, const flow_record& record, uint8_t* at) const;
    uint8_t* put_labels(const flow_record& record, uint8_t* at) const;

    sampler_address sampler_;
    std::vector<bound_row> rows_;
    std::vector<const getter*> labels_;  // outermost first
};

}  // namespace kafka
