#include "capture_reader.h"

#include <kestrelexp/service.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "capture_stream.h"

namespace capture_file {
namespace {

constexpr size_t longest_filter = size_t{1024} * 1024;  // bytes; a file without end is no filter

bool is_standard_input(const capture_reader& self) {
    return std::strcmp(self.path, "-") == 0;
}

// The bytes of a file. Who was interrupted has read a part of them.
enum class text { whole, failed, too_long };

text read_text(const char* path, std::string& content) {
    std::FILE* file = make_stream(open_bytes(path));
    if (!file)
        return text::failed;
    char piece[4096];
    size_t size;
    while (content.size() <= longest_filter &&
           (size = std::fread(piece, 1, sizeof piece, file)) > 0)
        content.append(piece, size);
    const int fault = std::ferror(file) != 0 ? errno : 0;
    std::fclose(file);
    errno = fault;
    if (fault != 0)
        return text::failed;
    return content.size() <= longest_filter ? text::whole : text::too_long;
}

void start_walk(capture_reader& self, int descriptor) {
    if (is_standard_input(self) || self.source.kind ||
        !map_file(descriptor, walk_file_header, self.file))
        return;
    self.is_walking = walk_start(self.file.data, self.file.size, self.walk);
    if (!self.is_walking)
        unmap_file(self.file);
    walk_cut_frames(self.walk, pcap_snapshot(self.handle));
}

// The bytes of the capture, decompressed where they are not.
std::FILE* open_stream(capture_reader& self, int descriptor) {
    if (descriptor < 0)
        return nullptr;
    const stream_head head = read_head(descriptor);
    const compression* const kind = compression_of(head);
    if (!kind)
        return make_stream(descriptor, head);
    return make_stream(decompression_start(self.source, *kind, descriptor, head));
}

// Why no more comes: what libpcap says (or null), but for what is wrong with compressed bytes,
// which is the reason then.
const char* words_of_end(capture_reader& self, const char* libpcap, std::string& words) {
    const char* const fault = decompression_end(self.source);
    if (!fault)
        return libpcap;
    words = std::string(compression_name(*self.source.kind)) + ": " + fault;
    return words.c_str();
}

void note_break(capture_reader& self, uint64_t position, const char* words) {
    self.has_broken_off = true;
    verbose_msg(-1, "Capture file %s breaks off at byte %lu, after %lu frames: %s",
                reader_path(self), position, self.frames, words);
}

}  // namespace

const char* reader_path(const capture_reader& self) {
    return is_standard_input(self) ? "(standard input)" : self.path;
}

bool reader_open(capture_reader& self, const char* path) {
    self.path = path;
    const int descriptor = is_standard_input(self) ? open_standard_input() : open_bytes(path);
    std::FILE* stream = open_stream(self, descriptor);
    if (!stream) {
        verbose_msg(-1, "Capture file %s: %s", reader_path(self), std::strerror(errno));
        return false;
    }
    char error[PCAP_ERRBUF_SIZE] = "";
    self.handle =
        pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, error);
    if (!self.handle) {
        std::string words;
        if (!was_interrupted())
            verbose_msg(-1, "Capture file %s: %s", reader_path(self),
                        words_of_end(self, error, words));
        std::fclose(stream);
        return false;
    }
    start_walk(self, descriptor);
    return true;
}

void reader_close(capture_reader& self) {
    unmap_file(self.file);
    if (self.handle)
        pcap_close(self.handle);
    (void)decompression_end(self.source);  // it was told
}

bool reader_set_filter(capture_reader& self, const char* path) {
    std::string expression;
    const text result = read_text(path, expression);
    if (was_interrupted())
        return false;
    if (result != text::whole) {
        verbose_msg(-1, "Filter file %s: %s", path,
                    result == text::failed ? std::strerror(errno) : "longer than 1 MiB");
        return false;
    }
    // The program is kept for the walk, libpcap has its own copy.
    self.has_filter =
        pcap_compile(self.handle, &self.filter, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0 &&
        pcap_setfilter(self.handle, &self.filter) == 0;
    if (!self.has_filter)
        verbose_msg(-1, "Filter file %s: %s", path, pcap_geterr(self.handle));
    return self.has_filter;
}

bool reader_look_around(capture_reader& self) {
    self.look_around_at = mapping_advance(self.file, self.walk.at);
    return !is_interrupt_pending();
}

// libpcap's words and its place in the file are those that it has without the walk.
reading reader_next_of_libpcap(capture_reader& self, captured_frame& frame) {
    pcap_pkthdr* header;
    const int result = pcap_next_ex(self.handle, &header, &frame.data);
    if (result == 1) {
        frame.header = *header;
        self.frames += 1;
        return reading::frame;
    }
    std::string buffer;
    const char* const words =
        words_of_end(self, result == PCAP_ERROR ? pcap_geterr(self.handle) : nullptr, buffer);
    if (words && !was_interrupted())
        note_break(self, static_cast<uint64_t>(std::ftell(pcap_file(self.handle))), words);
    return reading::end;
}

reading reader_leave_walk(capture_reader& self, captured_frame& frame) {
    self.is_walking = false;
    std::FILE* const stream = pcap_file(self.handle);
    if (self.walk.at < self.file.size && mapping_was_cut(self.file)) {
        note_break(self, self.walk.at, "it was cut while it was read");
        return reading::end;
    }
    if (fseeko(stream, static_cast<off_t>(self.walk.at), SEEK_SET) != 0) {
        note_break(self, self.walk.at, std::strerror(errno));
        return reading::end;
    }
    return reader_next_of_libpcap(self, frame);
}

}  // namespace capture_file
