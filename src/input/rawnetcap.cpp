// The device layer of the "rawnetcap" input: opens /dev/rawnetcap, agrees with the capture module
// about devices and sizes, maps its ring and walks the records in place. Main thread while the
// program starts, the reader thread then. What the module reports is checked before it is used as a
// size or an offset, so no byte outside the mapping is ever read.
//
// Cost of a record: one load from the ring, two comparisons. A batch costs a poll and an ioctl.
#include "input/rawnetcap.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "base/clock.h"
#include "base/memory.h"

namespace kestrel {
namespace {

constexpr char device_path[] = "/dev/rawnetcap";
constexpr int supported_version = 4;
constexpr uint64_t bytes_per_kib = 1024;
constexpr useconds_t pause_after_error_us = 10'000;

// Says what is wrong with the device. Returns false, for the step that failed.
__attribute__((format(printf, 1, 2))) bool fault(const char* format, ...) {
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    (void)fprintf(stderr, "RAWNETCAP: %s\n", text);
    return false;
}

int request(const rawnetcap_context& device, rawnetcap_request number, unsigned long argument = 0) {
    return ioctl(device.descriptor, static_cast<unsigned long>(number), argument);
}

int request(const rawnetcap_context& device, rawnetcap_request number, const void* argument) {
    return ioctl(device.descriptor, static_cast<unsigned long>(number), argument);
}

// A record with its header and its padding.
constexpr uint64_t record_size(uint64_t data_length) {
    return sizeof(rawnetcap_record) + ((data_length + 7) & ~uint64_t{7});
}

// ---- Steps of the start; each returns whether to go on ----

bool open_device(rawnetcap_context& device) {
    device.descriptor = open(device_path, O_RDONLY | O_CLOEXEC);
    return device.descriptor >= 0;
}

bool has_known_version(const rawnetcap_context& device) {
    const int version = request(device, rawnetcap_request::version, &device);
    return version >> 16 == supported_version || fault("bad module version detected");
}

bool add_devices(const rawnetcap_context& device, const char* list) {
    char** const names = char_split(const_cast<char*>(list), ',', 1);  // copies, changes nothing
    bool are_added = true;
    for (char** name = names; *name != nullptr && are_added; ++name)
        if (request(device, rawnetcap_request::add_device, *name) != 0)
            are_added = fault("Unable to add device: %s", *name);
    free(names[0]);
    free(names);
    return are_added;
}

// A module that refuses a setting captures with its own; that is said, and is no reason to stop.
void set(const rawnetcap_context& device, rawnetcap_request number, uint32_t value,
         const char* name) {
    if (value != 0 && request(device, number, value) < 0)
        fault("Unable to set %s: %u", name, value);
}

bool map_ring(rawnetcap_context& device) {
    const int largest = request(device, rawnetcap_request::largest_record);
    const int ring_kib = request(device, rawnetcap_request::ring_size);
    if (ring_kib <= 0)
        return fault("bad ring size: %i KiB", ring_kib);
    device.ring_size = static_cast<uint64_t>(ring_kib) * bytes_per_kib;
    if (largest < 0 || record_size(static_cast<uint64_t>(largest)) > device.ring_size)
        return fault("bad largest record: %i bytes in a ring of %i KiB", largest, ring_kib);
    device.largest_record = static_cast<uint64_t>(largest);

    void* const ring = mmap(nullptr, device.ring_size, PROT_READ, MAP_SHARED, device.descriptor, 0);
    if (ring == nullptr || ring == MAP_FAILED)
        return fault("mmap failed");
    device.ring = static_cast<const uint8_t*>(ring);
    return true;
}

// Has every page of the ring at hand before the first frame comes.
void touch_ring(rawnetcap_context& device) {
    uint8_t sum = 0;
    for (uint64_t i = 0; i < device.ring_size; ++i)
        sum = static_cast<uint8_t>(sum + device.ring[i]);
    device.touched = sum;
}

bool start_capture(rawnetcap_context& device) {
    if (request(device, rawnetcap_request::start) != 0)
        return fault("Unable to start rawnetcap capture process");
    device.readable.fd = device.descriptor;
    return true;
}

// Gives back whatever the context holds of the device. There is nothing to be done about a failure.
void release(rawnetcap_context& device) {
    if (device.ring != nullptr)
        (void)munmap(const_cast<uint8_t*>(device.ring), device.ring_size);
    if (device.descriptor >= 0)
        (void)close(device.descriptor);
    device.ring = nullptr;
    device.descriptor = device.readable.fd = -1;
    device.records_left = 0;
}

// ---- Records ----

// Said once, until the device works again, and once in ten seconds at most; and the reader does not
// spin on it.
void note_error(rawnetcap_context& device) {
    if (!device.failing) {
        const uint64_t times = device.fault_limit.count(system_uptime_ns());
        if (times == 1)
            fault("Unable to get records");
        else if (times > 1)
            fault("Unable to get records (%lu times)", times);
    }
    device.failing = true;
    usleep(pause_after_error_us);
}

// Waits for records and asks how many there are. They are asked for even when poll() saw none: it
// may have given up just before they came.
[[gnu::noinline]] bool next_batch(rawnetcap_context& device, int timeout_ms) {
    const int polled = poll(&device.readable, 1, timeout_ms);
    if (device.descriptor < 0)
        return false;
    const int ready = request(device, rawnetcap_request::records_ready);
    if (ready > 0) {
        device.records_left = static_cast<uint64_t>(ready);
        device.failing = false;
        device.can_read = true;
        return true;
    }
    device.can_read = ready == 0 && polled >= 0 &&
                      (device.readable.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0;
    if (!device.can_read)
        note_error(device);
    return false;
}

// Behind a record of an impossible length there is no telling where the next one begins.
[[gnu::noinline]] const rawnetcap_record* give_up(rawnetcap_context& device) {
    fault("record at offset %lu runs past the ring, capture ended", device.read_offset);
    release(device);
    device.can_read = false;
    return nullptr;
}

}  // namespace
}  // namespace kestrel

using namespace kestrel;

rawnetcap_context* rawnetcap_init(const char* devices, uint32_t sampling, uint32_t snap_length,
                                  uint32_t cache_size) {
    auto& device = *make_lifelong<rawnetcap_context>();
    bool is_started =
        open_device(device) && has_known_version(device) && add_devices(device, devices);
    if (is_started) {
        set(device, rawnetcap_request::set_snap_length, snap_length, "snap length");
        set(device, rawnetcap_request::set_cache_size, cache_size, "cache size");
        is_started = map_ring(device);
    }
    if (is_started) {
        set(device, rawnetcap_request::set_sampling, sampling, "sampling");
        touch_ring(device);
        is_started = start_capture(device);
    }
    if (is_started)
        return &device;
    release(device);
    free(&device);
    return nullptr;
}

const rawnetcap_record* rawnetcap_get_next(rawnetcap_context* context, int timeout_ms) {
    rawnetcap_context& device = *context;
    if (device.records_left == 0 && !next_batch(device, timeout_ms)) [[unlikely]]
        return nullptr;
    const auto* const record =
        reinterpret_cast<const rawnetcap_record*>(device.ring + device.read_offset);
    const uint64_t room = device.ring_size - device.read_offset - sizeof(rawnetcap_record);
    if (record->captured_length > room) [[unlikely]]
        return give_up(device);
    --device.records_left;
    // The module begins no record where the largest one would not fit.
    const uint64_t next = device.read_offset + record_size(record->captured_length);
    device.read_offset = record_size(device.largest_record) + next >= device.ring_size ? 0 : next;
    return record;
}

uint64_t rawnetcap_get_buffer_size(const rawnetcap_context* context) {
    return context != nullptr ? context->ring_size : 0;
}
