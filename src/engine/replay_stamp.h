// What stands after the record in every slot of "final-records" when the input brings its own
// clock (see replay.h): when the flow left, and in the last slot what was read.
#pragma once

#include <cstdint>

namespace kestrel {

// What a replay has read.
struct replay_totals {
    uint64_t frames;   // delivered by the input
    uint64_t no_flow;  // frames among them that are no flow
    bool has_failed;   // the input broke off
};

struct replay_stamp {
    uint64_t now_ns;             // when the record left the queue
    const replay_totals* ended;  // in the last slot, which holds no record; else null
};

}  // namespace kestrel
