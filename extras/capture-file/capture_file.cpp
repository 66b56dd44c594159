// The "capture-file" input: frames of a pcap or pcapng file with the packets' own clock, so that
// the file gives the flows that a live capture of it would have given. Frames that are not Ethernet
// are given an Ethernet header, and a provider's tags the type of others. Initialised on the main
// thread, then used by the thread that reads; never parses a frame.

#include <kestrelexp/link.h>
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "capture_reader.h"
#include "capture_stream.h"

namespace capture_file {
namespace {

constexpr plugin_description description{
    "capture-file",
    "Capture file input driver, reads pcap and pcapng files on the clock of their packets.\n"
    "Parameters (delimited by ','):\n"
    " file=path (mandatory, - is standard input)\n"
    " filter-file=path (a file with a pcap-filter(7) expression)\n"
    " sampling=value",
    0, PLUGIN_WHOLE_PARAMS};  // names of files hold ':'

constexpr uint64_t ns_per_second = 1'000'000'000;
// Times of the packets have 63 bits for their nanoseconds.
constexpr int64_t last_second = INT64_MAX / 1'000'000'000 - 1;
constexpr int32_t sampling_believable = 1000;

struct input {
    char* path;
    char* filter_path;
    int32_t sampling;        // deliver every N-th frame, 0 = all
    int32_t frames_to_skip;  // up to the next one delivered
    input_counts counts;     // of what the sampling passed over
    capture_reader reader;
    const link_format* format;  // null: Ethernet frames, handed on where the reader has them
    uint8_t* changed_frame;     // room for one that was translated, or whose tags were
    uint32_t changed_room;      // bytes
    captured_frame first;       // read by init
    bool is_ahead;              // it has not been delivered
    bool has_ended;             // no frame follows
    uint64_t clock;             // ns, the latest time seen
};

bool read_parameters(char* params, input& self) {
    const config_setting settings[] = {
        {"filter-file", static_cast<void*>(&self.filter_path), CONFIG_STRING},
        {"file", static_cast<void*>(&self.path), CONFIG_STRING},
        {"sampling", &self.sampling, CONFIG_INTEGER},
        {nullptr, nullptr, 0},
    };
    if (config_set_values(params, settings) != 0)
        return false;
    if (!self.path) {
        verbose_msg(-1, "File parameter is mandatory for capture-file input.");
        return false;
    }
    if (self.sampling < 0 || self.sampling > sampling_believable)
        verbose_msg(-1, "Sampling set to unbelievable value: %i", self.sampling);
    self.sampling = std::max(self.sampling, 0);
    return true;
}

// Says whether frames of the file can be handed on, and gets ready to translate them.
bool set_link_type(input& self) {
    const int link_type = pcap_datalink(self.reader.handle);
    self.format = link_format_find(link_type);
    if (!self.format && link_type != DLT_EN10MB) {
        const char* name = pcap_datalink_val_to_name(link_type);
        verbose_msg(-1,
                    "Capture file %s: its frames are not Ethernet but %s, which cannot be "
                    "translated. Capture on an Ethernet, tunnel or PPP device, or on \"any\"",
                    reader_path(self.reader), name ? name : "of an unknown link type");
        return false;
    }
    const auto longest =
        std::min(static_cast<uint32_t>(pcap_snapshot(self.reader.handle)), walk_longest_frame);
    self.changed_room = LINK_ETHERNET_HEADER + longest;
    self.changed_frame = static_cast<uint8_t*>(malloc_wrapper(self.changed_room, 1));
    return true;
}

bool open_file(input& self) {
    return reader_open(self.reader, self.path) && set_link_type(self);
}

bool set_filter(input& self) {
    return !self.filter_path || reader_set_filter(self.reader, self.filter_path);
}

// libpcap takes the 32 bits of a pcap file as signed, but from 2038 on they go on to 2106.
int64_t seconds_of(const pcap_pkthdr& captured) {
    const int64_t seconds = captured.ts.tv_sec;
    return seconds < 0 && seconds >= INT32_MIN ? seconds + (int64_t{1} << 32) : seconds;
}

uint64_t time_of(const pcap_pkthdr& captured) {
    const auto seconds = std::clamp<int64_t>(seconds_of(captured), 0, last_second);
    // The precision asked for puts nanoseconds into the microseconds' place.
    auto fraction = static_cast<uint64_t>(captured.ts.tv_usec);
    if (fraction >= ns_per_second) [[unlikely]]
        fraction %= ns_per_second;
    return static_cast<uint64_t>(seconds) * ns_per_second + fraction;
}

// Reads the next frame of the file; false when there is none, for now or for ever.
inline bool read_frame(input& self, captured_frame& frame) {
    const reading result = reader_next(self.reader, frame);
    if (result == reading::frame) [[likely]] {
        self.clock = std::max(self.clock, time_of(frame.header));
        return true;
    }
    self.has_ended = result == reading::end;
    return false;
}

// Whether the frame is to be delivered; counts it otherwise.
inline bool is_sampled(input& self, const captured_frame& frame) {
    if (self.sampling == 0) [[likely]]
        return true;
    if (--self.frames_to_skip > 0) {
        self.counts.sampled_out_packets += 1;
        self.counts.sampled_out_bytes += frame.header.len;
        return false;
    }
    self.frames_to_skip = self.sampling;
    return true;
}

// The next frame that is to be delivered; false: as above.
inline bool take_frame(input& self, captured_frame& frame) {
    do {
        if (self.is_ahead) [[unlikely]]
            frame = self.first;
        else if (self.has_ended || !read_frame(self, frame)) [[unlikely]]
            return false;
        self.is_ahead = false;
    } while (!is_sampled(self, frame));
    return true;
}

// Whether the type at this place of the frame is that of IPv4 or IPv6, so that no tag follows.
inline bool is_ip_at(const uint8_t* frame, uint32_t at) {
    uint16_t type;
    std::memcpy(&type, frame + at, sizeof type);
    return type == __builtin_bswap16(0x0800) || type == __builtin_bswap16(0x86DD);
}

// Most frames go by this alone: IP comes first, or after one plain tag.
inline bool may_have_service_tags(const uint8_t* frame, uint32_t captured) {
    constexpr uint32_t type_at = 12;
    constexpr uint32_t tag_size = 4;
    if (captured < type_at + tag_size + sizeof(uint16_t))
        return true;
    const bool is_tagged = frame[type_at] == 0x81 && frame[type_at + 1] == 0x00;
    return !is_ip_at(frame, is_tagged ? type_at + tag_size : type_at);
}

// One whose tags the parser would not know; it may lie in the buffer already.
const uint8_t* retagged_frame(input& self, const uint8_t* frame, packet_header& header) {
    header.captured_length = std::min(header.captured_length, self.changed_room);
    if (frame != self.changed_frame)
        std::memcpy(self.changed_frame, frame, header.captured_length);
    link_rewrite_service_tags(self.changed_frame, header.captured_length);
    return self.changed_frame;
}

// Fills in the frame as the parser knows frames. Returns whether it stays valid while others
// follow: it lies neither in our buffer nor in libpcap's.
inline bool fill_in(input& self, const captured_frame& captured, input_frame& frame) {
    packet_header& header = frame.header;
    header.timestamp = time_of(captured.header);
    header.captured_length = captured.header.caplen;
    header.wire_length = captured.header.len;
    frame.data = captured.data;
    if (self.format) [[unlikely]]
        frame.data = link_to_ethernet(self.format, captured.data, &header, self.changed_frame,
                                      self.changed_room);
    if (may_have_service_tags(frame.data, header.captured_length) &&
        link_has_service_tags(frame.data, header.captured_length)) [[unlikely]]
        frame.data = retagged_frame(self, frame.data, header);
    return self.reader.is_walking && frame.data != self.changed_frame;
}

bool read_first_frame(input& self) {
    self.is_ahead = read_frame(self, self.first);
    // Also when an interrupt waits: an input without frames.
    if (!self.is_ahead)
        self.has_ended = true;
    // A file without any frame is well-formed; one that breaks off in its first frame is not.
    return !self.reader.has_broken_off;
}

}  // namespace
}  // namespace capture_file

using namespace capture_file;

int32_t plugin_type = PLUGIN_KIND_INPUT;

const plugin_description* plugin_input_desc(void) {
    return &description;
}

// What it opens lives as long as the program, or until the program ends for want of it.
void* plugin_input_init(char* params, int, uint16_t) {
    auto* self = static_cast<input*>(malloc_wrapper(sizeof(input), 1));
    const bool is_ready = read_parameters(params, *self) && open_file(*self) && set_filter(*self) &&
                          read_first_frame(*self);
    self->frames_to_skip = self->sampling;
    if (is_ready)
        return self;
    if (was_interrupted()) {
        // While it waited for a writer or for the first bytes of a pipe: an input without frames.
        self->has_ended = true;
        return self;
    }
    reader_close(self->reader);
    std::free(self);
    return nullptr;
}

uint32_t plugin_input_sampling(void* instance) {
    return static_cast<uint32_t>(static_cast<input*>(instance)->sampling);
}

uint32_t plugin_input_get_batch(void* instance, uint32_t, input_frame* frames, uint32_t limit) {
    auto& self = *static_cast<input*>(instance);
    uint32_t count = 0;
    bool has_room = limit > 0;
    captured_frame captured;
    while (has_room && take_frame(self, captured))
        has_room = fill_in(self, captured, frames[count++]) && count < limit;
    return count;
}

int plugin_input_clock(void* instance, uint64_t* now) {
    const auto& self = *static_cast<input*>(instance);
    *now = self.clock;
    if (!self.has_ended)
        return INPUT_CLOCK_RUNS;
    return self.reader.has_broken_off ? INPUT_CLOCK_FAILED : INPUT_CLOCK_ENDED;
}

void plugin_input_counters(void* instance, uint32_t, input_counts* counts) {
    *counts = static_cast<const input*>(instance)->counts;
    counts->is_up = 1;
}
