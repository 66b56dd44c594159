// The walk over a classic pcap file in memory: any bytes. The model is libpcap, which reads the
// same bytes as a file: the same frames, and where the walk ends libpcap has no more of them.
#include "extras/capture-file/record_walk.h"

#include <pcap/pcap.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kestrelexp/link.h"
#include "tests/fuzz/fuzz_target.h"

namespace {

using capture_file::record_walk;
using capture_file::walk_look;
using capture_file::walk_step;
using capture_file::walked;
using kestrel_fuzz::fail;

pcap_t* open_with_libpcap(std::vector<uint8_t>& bytes) {
    std::FILE* const stream = fmemopen(bytes.data(), bytes.size(), "r");
    char error[PCAP_ERRBUF_SIZE];
    pcap_t* const handle =
        pcap_fopen_offline_with_tstamp_precision(stream, PCAP_TSTAMP_PRECISION_NANO, error);
    if (!handle)
        std::fclose(stream);
    return handle;
}

// The longest frame depends on the link type; it is that of ours which the walk knows.
bool is_ours(int link_type) {
    return link_type == DLT_EN10MB || link_format_find(link_type) != nullptr;
}

void compare(const walked& record, const pcap_pkthdr& header, const uint8_t* frame) {
    // libpcap has the seconds of one byte order with a sign, of the other without.
    if (static_cast<uint32_t>(record.header.ts.tv_sec) != static_cast<uint32_t>(header.ts.tv_sec))
        fail("other seconds");
    if (record.header.ts.tv_usec != header.ts.tv_usec)
        fail("other nanoseconds");
    if (record.header.len != header.len)
        fail("another length on the wire");
    if (record.header.caplen != header.caplen)
        fail("another captured length");
    if (std::memcmp(record.frame, frame, header.caplen) != 0)
        fail("other bytes");
}

void walk_beside_libpcap(record_walk& walk, pcap_t* handle) {
    for (;;) {
        walked record;
        const walk_step step = walk_look(walk, record);
        pcap_pkthdr* header;
        const uint8_t* frame;
        const bool has_frame = pcap_next_ex(handle, &header, &frame) == 1;
        if (has_frame != (step != walk_step::rest))
            fail(has_frame ? "libpcap has a frame more" : "libpcap has no such frame");
        if (!has_frame)
            return;
        compare(record, *header, frame);
        walk.at = record.end;
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A copy of exactly its size, so that a look outside of it is seen.
    std::vector<uint8_t> bytes(data, data + size);
    bytes.shrink_to_fit();
    record_walk walk;
    if (!capture_file::walk_start(bytes.data(), bytes.size(), walk))
        return 0;
    pcap_t* const handle = open_with_libpcap(bytes);
    if (!handle)
        fail("libpcap does not know the file");
    if (is_ours(pcap_datalink(handle))) {
        capture_file::walk_cut_frames(walk, pcap_snapshot(handle));
        walk_beside_libpcap(walk, handle);
    }
    pcap_close(handle);
    return 0;
}
