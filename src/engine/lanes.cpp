// Cost per packet, beside reading and parsing: a fetch ahead and the update; the lock of the lane's
// cache once for a batch. A batch is parsed into records that stay in the first-level cache, its
// buckets are fetched meanwhile, and then the cache is updated with all of it.
#include "engine/lanes.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <span>

#include "base/clock.h"
#include "base/log.h"
#include "base/memory.h"
#include "base/thread.h"
#include "engine/engine.h"
#include "flow/ageing.h"
#include "flow/flow_cache_update.h"
#include "flow/flush_request.h"
#include "flow/parser.h"
#include "record/layout.h"

namespace kestrel {
namespace {

constexpr unsigned batch_frames = 64;
constexpr uint32_t smallest_cache = 32;   // slots of a lane
constexpr uint32_t smallest_ring = 1024;  // slots of a lane's ring of finished flows

struct lane {
    flow_switch& sw;
    flow_queue& queue;
    uint32_t sampling;
    uint8_t* records;  // of the batch
    unsigned count = 0;
    flow_key keys[batch_frames] = {};
    uint32_t slots[batch_frames] = {};  // where the flows may be
    input_frame frames[batch_frames] = {};
};

flow_record& record_of(const lane& self, unsigned n) {
    return *reinterpret_cast<flow_record*>(self.records + n * self.queue.stride);
}

// Parses the frame into the next record; whether it is a packet of a flow.
bool parse(lane& self, const input_frame& frame) {
    flow_record& record = record_of(self, self.count);
    prepare_slot(record);
    const flow_key key = parse_packet(frame.data, frame.header, self.sampling, record);
    if (!occupied(key)) [[unlikely]] {
        self.sw.counters.add_discarded(key);
        return false;
    }
    self.keys[self.count] = key;
    return true;
}

// The lane of this thread; null on others, such as the remover.
thread_local flow_switch* own_lane = nullptr;

void count_meanwhile(void*) {
    if (own_lane != nullptr)
        serve_request_to_count(*own_lane);
}

bool count_and_wait_on(void*) {
    count_meanwhile(nullptr);
    return true;
}

// The sink of lanes: queue_put_final, but what the input loses while nobody takes finished flows is
// told meanwhile.
void put_final(flow_queue& queue, const flow_record& record) {
    void* const slot = storage_reserve(*queue.final_storage, count_and_wait_on, nullptr);
    std::memcpy(slot, &record, queue.record_size);
    storage_commit(*queue.final_storage);
}

// The remover may have the lock for as long as it waits for room in the ring of finished flows.
void lock_cache(lane& self) {
    self.queue.lock.lock(count_meanwhile, nullptr);
}

unsigned read_batch(lane& self) {
    std::memset(self.frames, 0, sizeof self.frames);
    const uint32_t given =
        self.sw.get_batch(self.sw.instance, self.sw.lane, self.frames, batch_frames);
    const unsigned frames = std::min(given, batch_frames);
    self.sw.counters.add_frames(std::span(self.frames, frames));
    return frames;
}

// Process plugins see the frame of each packet.
void update_showing_frames(lane& self, unsigned frames) {
    self.count = 0;
    for (unsigned n = 0; n < frames; ++n) {
        if (!parse(self, self.frames[n]))
            continue;
        const packet_in_hand in_hand(parser_position());
        lock_cache(self);
        queue_update_locked(self.queue, record_of(self, 0), self.keys[0]);
        queue_unlock(self.queue);
    }
}

// Buckets are fetched in small groups: a fetch may have to wait for the translation of its address,
// and those that follow each other closely wait together.
void parse_batch(lane& self, unsigned frames) {
    constexpr unsigned group = 8;
    self.count = 0;
    unsigned fetched = 0;
    for (unsigned n = 0; n < frames; ++n) {
        if (!parse(self, self.frames[n])) [[unlikely]]
            continue;
        ++self.count;
        if (self.count % group != 0)
            continue;
        for (; fetched < self.count; ++fetched)
            queue_prefetch_bucket(self.queue, self.keys[fetched]);
    }
    for (; fetched < self.count; ++fetched)
        queue_prefetch_bucket(self.queue, self.keys[fetched]);
}

// All slots are fetched ahead before the first is changed.
void update_batch(lane& self) {
    lock_cache(self);
    for (unsigned n = 0; n < self.count; ++n)
        self.slots[n] = queue_prefetch_slot(self.queue, self.keys[n]);
    for (unsigned n = 0; n < self.count; ++n)
        queue_update_locked(self.queue, record_of(self, n), self.keys[n], self.slots[n]);
    queue_unlock(self.queue);
}

void name_lane(uint32_t number) {
    char name[16];
    (void)snprintf(name, sizeof name, "lane %u", number);
    (void)pthread_setname_np(pthread_self(), name);  // a name for top -H, no more
}

void* run_lane(void* argument) {
    auto& sw = *static_cast<flow_switch*>(argument);
    name_lane(sw.lane);
    own_lane = &sw;
    const size_t record_bytes = batch_frames * sw.queue->stride;
    auto& self = *make_lifelong<lane>(
        lane{.sw = sw,
             .queue = *sw.queue,
             .sampling = sw.sampling,
             .records = static_cast<uint8_t*>(malloc_wrapper(record_bytes, 1))});
    const bool has_plugins = self.queue.plugin_count != 0;
    while (reads_on(sw)) {
        const unsigned frames = read_batch(self);
        if (frames == 0)
            continue;
        if (has_plugins) {
            update_showing_frames(self, frames);
            continue;
        }
        parse_batch(self, frames);
        update_batch(self);
    }
    for (;;)
        pause();  // up to the end of the process
}

std::vector<flow_queue*> caches_of(const flow_switch& first) {
    std::vector<flow_queue*> caches;
    for (const flow_switch* sw = &first; sw; sw = sw->next_lane)
        caches.push_back(sw->queue);
    return caches;
}

// The remover of all lanes.
void* age_lanes(void* argument) {
    (void)pthread_setname_np(pthread_self(), "remover");  // a name for top -H, no more
    const auto caches = caches_of(*static_cast<const flow_switch*>(argument));
    statistics_line& statistics = caches.front()->statistics;
    queue_start_statistics(*caches.front(), timer_get_nsec());
    std::vector<ageing> states;
    states.reserve(caches.size());
    for (const flow_queue* cache : caches)
        states.push_back(queue_start_ageing(*cache));
    for (;;) {
        const uint64_t now = tick(caches);
        if (serve_flush_request(caches))
            statistics.postpone(timer_get_sec());
        bool has_pass_ended = false;
        for (size_t n = 0; n < caches.size(); ++n)
            has_pass_ended |= queue_age(*caches[n], states[n], 1, now);
        if (has_pass_ended)
            statistics.print_if_due(now / ns_per_second);
    }
}

bool is_thread_safe(const run_configuration& run, const process_plugin& plugin) {
    const int32_t* const answer = operations_of(run.registry, plugin.desc).is_thread_safe;
    return answer != nullptr && *answer != 0;
}

// How many lanes the input has and the process plugins allow.
uint32_t lane_count(const flow_switch& first, const run_configuration& run,
                    const plugin_operations& input) {
    if (input.queues == nullptr)
        return 1;
    for (const process_plugin& plugin : run.processes) {
        if (is_thread_safe(run, plugin))
            continue;
        verbose_msg(0, "Process plugin %s is not made for several threads: one lane",
                    plugin.desc()->name);
        return 1;
    }
    const uint32_t count = input.queues(first.instance);
    if (count < 1 || count > INPUT_QUEUES_LIMIT)
        die(exit_config, "The input has %u queues, which is not between 1 and %i", count,
            int{INPUT_QUEUES_LIMIT});
    return count;
}

// The statistics of all lanes are those of the first one's cache.
void share_statistics(flow_queue& first, const std::vector<flow_queue*>& others) {
    auto& all = *make_lifelong<std::vector<cache_counters>>();
    all.push_back(first.counters);
    for (const flow_queue* other : others)
        all.push_back(other->counters);
    first.statistics.watch(all);
}

void make_lanes(flow_switch& first, uint32_t count, const run_configuration& run,
                const plugin_operations& operations) {
    const uint32_t parts = std::bit_ceil(count);
    if (first.queue->size / parts < smallest_cache)
        die(exit_config, "A flow cache of %u slots is too small for %u lanes: -q %i or more",
            first.queue->size, count, std::bit_width(parts * smallest_cache) - 1);
    std::vector<flow_queue*> caches = queue_share_out(*first.queue, parts);
    caches.resize(count - 1);  // what is left over of the slots stays untouched
    share_statistics(*first.queue, caches);
    const temporal_storage& ring = *first.queue->final_storage;
    const auto ring_slots =
        std::max(static_cast<uint32_t>(ring.producer.count / parts), smallest_ring);
    flow_switch* last = &first;
    for (uint32_t number = 1; number < count; ++number) {
        flow_queue& cache = *caches[number - 1];
        cache.final_storage =
            temporal_storage_init(ring_slots, static_cast<uint32_t>(ring.producer.slot_size),
                                  cache.directory, "final-records");
        auto* sw = make_lifelong<flow_switch>();
        switch_connect(*sw, &cache, *chosen_input(run), number);
        switch_take_operations(*sw, operations);
        sw->get_batch = first.get_batch;
        sw->sampling = first.sampling;
        last->next_lane = sw;
        last = sw;
    }
    verbose_msg(0, "%u lanes of %u slots", count, first.queue->size);
}

}  // namespace

flow_switch* lanes_switch_init(flow_queue* queue, uint32_t flow_mask, int needs_packets,
                               input_plugin* input) {
    parser_set_flow_mask(flow_mask);
    verbose_msg(3, "trying to init batch plugin");
    if (!switch_init_input(needs_packets != 0, *input))
        return nullptr;
    auto* sw = make_lifelong<flow_switch>();
    switch_connect(*sw, queue, *input, 0);
    sw->sampling = input->sampling(input->instance);
    return sw;
}

void lanes_prepare(flow_switch& first, const run_configuration& run) {
    const plugin_operations& operations = operations_of(run.registry, chosen_input(run)->desc);
    first.get_batch = operations.get_batch;
    first.queue->sink = put_final;
    if (const uint32_t count = lane_count(first, run, operations); count > 1)
        make_lanes(first, count, run, operations);
}

void* lanes_loop(void* argument) {
    auto& first = *static_cast<flow_switch*>(argument);
    if (!start_thread(age_lanes, &first))
        die(exit_queue_thread, "Unable to create queue thread.");
    for (flow_switch* sw = first.next_lane; sw; sw = sw->next_lane)
        if (!start_thread(run_lane, sw))
            die(exit_config, "Unable to create SW thread");
    return run_lane(&first);
}

}  // namespace kestrel
