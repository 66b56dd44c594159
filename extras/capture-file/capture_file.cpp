// The "capture-file" input: frames from a pcap or pcapng file through libpcap, with the packets'
// own clock, so that the file gives the flows that a live capture of it would have given. Frames
// that are not Ethernet are given an Ethernet header, and a provider's tags the type of others.
// Initialised on the main thread, then used by the thread that reads; never parses a frame.

#include <kestrelexp/link.h>
#include <kestrelexp/plugin.h>
#include <kestrelexp/service.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

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
constexpr size_t longest_filter = size_t{1024} * 1024;  // bytes; a file without end is no filter
constexpr int longest_frame = 256 * 1024;  // bytes; libpcap reads no longer ones of our link types

struct input {
    char* path;
    char* filter_path;
    int32_t sampling;        // deliver every N-th frame, 0 = all
    int32_t frames_to_skip;  // up to the next one delivered
    input_counts counts;     // of what the sampling passed over
    pcap_t* handle;
    const link_format* format;  // null: Ethernet frames, handed on where libpcap has them
    uint8_t* changed_frame;     // room for one that was translated, or whose tags were
    uint32_t changed_room;      // bytes
    pcap_pkthdr* captured;      // the frame read last
    const uint8_t* frame;
    bool is_ahead;        // it was read by init and has not been delivered
    bool has_ended;       // no frame follows
    bool has_broken_off;  // and some should have
    uint64_t frames;      // read
    uint64_t clock;       // ns, the latest time seen
};

bool is_standard_input(const input& self) {
    return std::strcmp(self.path, "-") == 0;
}

const char* shown_path(const input& self) {
    return is_standard_input(self) ? "(standard input)" : self.path;
}

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
    const int link_type = pcap_datalink(self.handle);
    self.format = link_format_find(link_type);
    if (!self.format && link_type != DLT_EN10MB) {
        const char* name = pcap_datalink_val_to_name(link_type);
        verbose_msg(-1,
                    "Capture file %s: its frames are not Ethernet but %s, which cannot be "
                    "translated. Capture on an Ethernet, tunnel or PPP device, or on \"any\"",
                    shown_path(self), name ? name : "of an unknown link type");
        return false;
    }
    const int longest = std::min(pcap_snapshot(self.handle), longest_frame);
    self.changed_room = LINK_ETHERNET_HEADER + static_cast<uint32_t>(longest);
    self.changed_frame = static_cast<uint8_t*>(malloc_wrapper(self.changed_room, 1));
    return true;
}

bool open_file(input& self) {
    std::FILE* stream = is_standard_input(self) ? open_standard_input() : open_stream(self.path);
    if (!stream) {
        verbose_msg(-1, "Capture file %s: %s", shown_path(self), std::strerror(errno));
        return false;
    }
    char error[PCAP_ERRBUF_SIZE] = "";
    self.handle =
        pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, error);
    if (!self.handle) {
        if (!was_interrupted())
            verbose_msg(-1, "Capture file %s: %s", shown_path(self), error);
        std::fclose(stream);
        return false;
    }
    return set_link_type(self);
}

enum class reading { whole, failed, too_long };

// The bytes of a file. Who was interrupted has read a part of them.
reading read_text(const char* path, std::string& text) {
    std::FILE* file = open_stream(path);
    if (!file)
        return reading::failed;
    char piece[4096];
    size_t size;
    while (text.size() <= longest_filter && (size = std::fread(piece, 1, sizeof piece, file)) > 0)
        text.append(piece, size);
    const int fault = std::ferror(file) != 0 ? errno : 0;
    std::fclose(file);
    errno = fault;
    if (fault != 0)
        return reading::failed;
    return text.size() <= longest_filter ? reading::whole : reading::too_long;
}

bool set_filter(input& self) {
    if (!self.filter_path)
        return true;
    std::string expression;
    const reading result = read_text(self.filter_path, expression);
    if (was_interrupted())
        return false;
    if (result != reading::whole) {
        verbose_msg(-1, "Filter file %s: %s", self.filter_path,
                    result == reading::failed ? std::strerror(errno) : "longer than 1 MiB");
        return false;
    }
    bpf_program program;
    if (pcap_compile(self.handle, &program, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
        verbose_msg(-1, "Filter file %s: %s", self.filter_path, pcap_geterr(self.handle));
        return false;
    }
    const bool is_set = pcap_setfilter(self.handle, &program) == 0;
    pcap_freecode(&program);
    if (!is_set)
        verbose_msg(-1, "Filter file %s: %s", self.filter_path, pcap_geterr(self.handle));
    return is_set;
}

// libpcap takes the 32 bits of a pcap file as signed, but from 2038 on they go on to 2106.
int64_t seconds_of(const pcap_pkthdr& captured) {
    const int64_t seconds = captured.ts.tv_sec;
    return seconds < 0 && seconds >= INT32_MIN ? seconds + (int64_t{1} << 32) : seconds;
}

uint64_t time_of(const pcap_pkthdr& captured) {
    const auto seconds = std::clamp<int64_t>(seconds_of(captured), 0, last_second);
    // The precision asked for puts nanoseconds into the microseconds' place.
    return static_cast<uint64_t>(seconds) * ns_per_second +
           static_cast<uint64_t>(captured.ts.tv_usec) % ns_per_second;
}

void note_break(input& self) {
    self.has_broken_off = true;
    verbose_msg(-1, "Capture file %s breaks off at byte %ld, after %lu frames: %s",
                shown_path(self), std::ftell(pcap_file(self.handle)), self.frames,
                pcap_geterr(self.handle));
}

// Takes the next frame of the file into self; false when there is none.
bool read_frame(input& self) {
    const int result = pcap_next_ex(self.handle, &self.captured, &self.frame);
    if (result == 1) [[likely]] {
        self.frames += 1;
        self.clock = std::max(self.clock, time_of(*self.captured));
        return true;
    }
    self.has_ended = true;
    self.frame = nullptr;
    if (result == PCAP_ERROR && !was_interrupted())
        note_break(self);
    return false;
}

// Whether the frame in hand is to be delivered; counts it otherwise.
bool is_sampled(input& self) {
    if (self.sampling == 0)
        return true;
    if (--self.frames_to_skip > 0) {
        self.counts.sampled_out_packets += 1;
        self.counts.sampled_out_bytes += self.captured->len;
        return false;
    }
    self.frames_to_skip = self.sampling;
    return true;
}

// The frame in hand as the parser knows frames: it lies in a buffer of ours when it was changed.
const uint8_t* plain_frame(input& self, packet_header& header) {
    const uint8_t* frame = self.frame;
    if (self.format) [[unlikely]]
        frame =
            link_to_ethernet(self.format, frame, &header, self.changed_frame, self.changed_room);
    if (!link_has_service_tags(frame, header.captured_length)) [[likely]]
        return frame;
    header.captured_length = std::min(header.captured_length, self.changed_room);
    if (frame != self.changed_frame)
        std::memcpy(self.changed_frame, frame, header.captured_length);
    link_rewrite_service_tags(self.changed_frame, header.captured_length);
    return self.changed_frame;
}

bool read_first_frame(input& self) {
    self.is_ahead = read_frame(self);
    // A file without any frame is well-formed; one that breaks off in its first frame is not.
    return !self.has_broken_off;
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
    if (self->handle)
        pcap_close(self->handle);
    std::free(self);
    return nullptr;
}

uint32_t plugin_input_sampling(void* instance) {
    return static_cast<uint32_t>(static_cast<input*>(instance)->sampling);
}

const uint8_t* plugin_input_get_packet(void* instance, packet_header* header) {
    auto& self = *static_cast<input*>(instance);
    do {
        if (!self.is_ahead && (self.has_ended || !read_frame(self)))
            return nullptr;
        self.is_ahead = false;
    } while (!is_sampled(self));
    header->timestamp = time_of(*self.captured);
    header->captured_length = self.captured->caplen;
    header->wire_length = self.captured->len;
    header->input_interface = 0;
    header->output_interface = 0;
    return plain_frame(self, *header);
}

int plugin_input_clock(void* instance, uint64_t* now) {
    const auto& self = *static_cast<input*>(instance);
    *now = self.clock;
    if (!self.has_ended)
        return INPUT_CLOCK_RUNS;
    return self.has_broken_off ? INPUT_CLOCK_FAILED : INPUT_CLOCK_ENDED;
}

void plugin_input_counters(void* instance, uint32_t, input_counts* counts) {
    *counts = static_cast<const input*>(instance)->counts;
    counts->is_up = 1;
}
