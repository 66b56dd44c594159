// What an outlet costs the record loop: an offer, with a worker that takes messages at once, and
// one that cannot deliver, so that the ring is full.

#include <benchmark/benchmark.h>

#include "kestrelexp/outlet.h"

namespace {

constexpr uint32_t message_bytes = 1450;
constexpr uint64_t queue_bytes = 16 << 20;

int32_t take(void*, outlet*, outlet_message*) {
    return OUTLET_DONE;
}

int32_t refuse_to_tend(void*, outlet*, int32_t, outlet_wait*) {
    return 0;
}

void offer_on(benchmark::State& state, const outlet_owner& owner) {
    outlet* const queue = outlet_open(&owner, queue_bytes, 0);
    static uint8_t bytes[message_bytes];
    const outlet_message message = {bytes, message_bytes, 28, 280, 0, 0};
    for (auto _ : state)
        benchmark::DoNotOptimize(outlet_offer(queue, &message));
    outlet_counts counts;
    outlet_read_counts(queue, &counts);
    state.counters["dropped"] =
        benchmark::Counter(static_cast<double>(counts.fates[OUTLET_QUEUE_FULL].messages) /
                           static_cast<double>(state.iterations()));
}

void outlet_offer_taken(benchmark::State& state) {
    offer_on(state, {nullptr, nullptr, take, nullptr});
}
BENCHMARK(outlet_offer_taken);

void outlet_offer_full(benchmark::State& state) {
    offer_on(state, {nullptr, refuse_to_tend, take, nullptr});
}
BENCHMARK(outlet_offer_full);

}  // namespace
