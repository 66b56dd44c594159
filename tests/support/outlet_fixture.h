// An outlet whose owner is a test.
#pragma once

#include <cstdint>
#include <functional>

#include "kestrelexp/outlet.h"

namespace kestrel {

// An export of which a test says what it answers.
struct scripted {
    std::function<int32_t(bool is_closing, outlet_wait& wait)> tend = [](bool, outlet_wait&) {
        return 1;
    };
    std::function<int32_t(outlet_message& message)> deliver = [](outlet_message&) {
        return OUTLET_DONE;
    };
    std::function<void()> end = [] {};

    outlet_owner owner() {
        return {this,
                [](void* context, outlet*, int32_t is_closing, outlet_wait* wait) {
                    return static_cast<scripted*>(context)->tend(is_closing != 0, *wait);
                },
                [](void* context, outlet*, outlet_message* message) {
                    return static_cast<scripted*>(context)->deliver(*message);
                },
                [](void* context, outlet*) { static_cast<scripted*>(context)->end(); }};
    }
};

// A message of 8 bytes with `records` records of 10 packets each.
inline int32_t offer(outlet* to, uint32_t records = 1, uint64_t number = 0) {
    char data[8] = {'m', 'e', 's', 's', 'a', 'g', 'e', '.'};
    const outlet_message message = {data, sizeof data, records, records * uint64_t{10}, number, 0};
    return outlet_offer(to, &message);
}

inline outlet_counts counts_of(const outlet* of) {
    outlet_counts counts;
    outlet_read_counts(of, &counts);
    return counts;
}

inline uint64_t records_of(const outlet* of, outlet_fate fate) {
    return counts_of(of).fates[fate].records;
}

}  // namespace kestrel
