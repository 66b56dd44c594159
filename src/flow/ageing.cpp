#include "flow/ageing.h"

#include <pthread.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/log.h"
#include "flow/flow_cache_update.h"
#include "flow/flush_request.h"

namespace kestrel {
namespace {

constexpr uint64_t ticks_divisor_ns = 4 * tick_ns;  // four passes per timeout
constexpr uint32_t forced_checks_limit = 3;
static_assert(forced_checks_limit == idle_passes_cycle);

// The lock, asked for so that the switch thread lets go of it soon.
class remover_lock {
  public:
    explicit remover_lock(flow_queue& queue) : queue_(queue) {
        queue_.yield_wanted.store(yield_once, std::memory_order_relaxed);
        queue_.lock.lock(ask_for_way, &queue_);
        queue_.yield_wanted.store(no_yield, std::memory_order_relaxed);
    }
    ~remover_lock() {
        queue_publish(queue_);
        queue_.lock.unlock();
    }
    remover_lock(const remover_lock&) = delete;
    remover_lock& operator=(const remover_lock&) = delete;

  private:
    static void ask_for_way(void* queue) {
        static_cast<flow_queue*>(queue)->yield_wanted.store(give_way, std::memory_order_relaxed);
    }

    flow_queue& queue_;
};

int remove_all(flow_queue& queue) {
    int removed = 0;
    for (uint32_t slot = 0; slot < queue.size; ++slot) {
        if (!occupied(queue.keys[slot]))
            continue;
        queue_remove_record(&queue, slot, REMOVAL_FORCED);
        ++removed;
    }
    queue_publish(queue);
    return removed;
}

// Queues of live inputs have their locks; who has none to share (a replay) takes them all the same.
int flush_locked(flow_queue& queue) {
    const remover_lock locked(queue);
    const int removed = remove_all(queue);
    queue.final_storage->flushed.store(storage_committed(*queue.final_storage),
                                       std::memory_order_relaxed);
    return removed;
}

void end_pass(flow_queue& queue, ageing& state, uint64_t now) {
    if (verbose(3))
        verbose_msg(3, "queue check start %lu", timer_get_nsec());
    {
        const remover_lock locked(queue);
        queue_restart_scan(queue, now);
    }
    if (verbose(3))
        verbose_msg(3, "queue check end %lu", timer_get_nsec());
    state.ticks_left = queue_pass_ticks(queue);
}

}  // namespace

uint64_t queue_pass_ticks(const flow_queue& queue) {
    return queue.inactive_timeout / ticks_divisor_ns + 1;
}

void queue_restart_scan(flow_queue& queue, uint64_t now) {
    if (queue.scan_cursor >= 0) {
        queue.forced_checks += 1;
        if (queue.forced_checks == forced_checks_limit) {
            verbose_msg(0, "Force queue check (maybe input driver is blocking)");
            queue_finish_scan(queue, now);
        }
    }
    queue.scan_cursor = static_cast<int32_t>(queue.size) - 1;
}

void queue_start_statistics(flow_queue& queue, uint64_t now) {
    verbose_msg(0, "timeouts: %lu %lu", queue.active_timeout, queue.inactive_timeout);
    queue.statistics.start(now / ns_per_second);
}

bool queue_age(flow_queue& queue, ageing& state, uint64_t ticks, uint64_t now) {
    state.ticks_left -= ticks;
    if (state.ticks_left != 0)
        return false;
    end_pass(queue, state, now);
    return true;
}

bool serve_flush_request(std::span<flow_queue* const> queues) {
    if (!is_flush_pending())
        return false;
    do {
        const uint32_t request = begin_flush();
        verbose_msg(-1, "Flushing queue");
        int removed = 0;
        for (flow_queue* queue : queues)
            removed += flush_locked(*queue);
        verbose_msg(-1, "Queue flushed. %i records out.", removed);
        end_flush(request);
    } while (is_flush_pending());
    return true;
}

uint64_t tick(std::span<flow_queue* const> queues) {
    usleep(tick_ns / ns_per_us);
    const uint64_t now = timer_get_nsec();
    for (flow_queue* queue : queues)
        queue->now.store(now, std::memory_order_relaxed);
    return now;
}

}  // namespace kestrel

using namespace kestrel;

void queue_flush(flow_queue* queue) {
    int removed = 0;
    if (queue->size >= 1) {
        verbose_msg(-1, "Flushing queue");
        removed = remove_all(*queue);
    }
    verbose_msg(-1, "Queue flushed. %i records out.", removed);
}

void* queue_remover(void* argument) {
    auto& queue = *static_cast<flow_queue*>(argument);
    flow_queue* const queues[] = {&queue};
    (void)pthread_setname_np(pthread_self(), "remover");  // a name for top -H, no more
    queue_start_statistics(queue, timer_get_nsec());
    ageing state = queue_start_ageing(queue);
    for (;;) {
        const uint64_t now = tick(queues);
        if (serve_flush_request(queues))
            queue.statistics.postpone(timer_get_sec());
        if (queue_age(queue, state, 1, now))
            queue.statistics.print_if_due(now / ns_per_second);
    }
}
