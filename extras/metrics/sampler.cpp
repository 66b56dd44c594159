#include "sampler.h"

#include <chrono>
#include <thread>

#include "losses.h"
#include "names.h"
#include "readings.h"

namespace metrics {

namespace {

constexpr std::chrono::seconds period{1};

counter_reading read_counters(double time) {
    const reading_list list = take_readings();
    return {
        .time = time,
        .packets = sum_of(list, names::capture_packets).value_or(0),
        .bytes = sum_of(list, names::capture_bytes).value_or(0),
        .flows = sum_of(list, names::handed_records).value_or(0),
        .lost_packets = all_lost_packets(list),
        .cache_flows = sum_of(list, names::cache_flows).value_or(0),
    };
}

}  // namespace

void sampler::sample(double time, double seconds) {
    const counter_reading reading = read_counters(time);
    const traffic_bucket& bucket = meter_.take();
    const std::lock_guard guard(lock_);
    history_.add(reading, seconds);
    minute_.add_second(bucket);
}

// The clocks of people and of this machine, not the program's: those are of the packets in a
// replay.
void sampler::run(const std::function<void()>& also) {
    using std::chrono::duration;
    using std::chrono::steady_clock;
    using std::chrono::system_clock;
    steady_clock::time_point due = steady_clock::now();
    steady_clock::time_point last = due;
    for (;;) {
        const steady_clock::time_point now = steady_clock::now();
        sample(duration<double>(system_clock::now().time_since_epoch()).count(),
               duration<double>(now - last).count());
        also();
        last = now;
        due += period;
        if (due < now)  // the machine slept
            due = now + period;
        std::this_thread::sleep_until(due);
    }
}

}  // namespace metrics
