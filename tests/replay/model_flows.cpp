// Prints the flows that a capture file gives by the model, one a line, in the form of the export
// plugin flow_lines; then the totals.
//
// usage: model_flows FILE QUEUE-EXPONENT ACTIVE-SECONDS INACTIVE-SECONDS

#include <pcap/pcap.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include "tests/model/replay_model.h"

namespace {

using namespace kestrel_model;

uint64_t number(const char* text) {
    return std::strtoull(text, nullptr, 10);
}

// The frame as the parser is to see it: tags of the type 0x88A8 have 0x8100. Tags are four bytes
// each, from the thirteenth on.
std::vector<uint8_t> with_plain_tags(std::vector<uint8_t> frame) {
    for (size_t at = 12; at + 1 < frame.size(); at += 4) {
        const unsigned type = frame[at] * 256u + frame[at + 1];
        if (type == 0x88A8) {
            frame[at] = 0x81;
            frame[at + 1] = 0x00;
        } else if (type != 0x8100 && type != 0x9100 && type != 0x9200) {
            break;
        }
    }
    return frame;
}

void print_flows(const replay_model& model) {
    uint64_t now = 0;  // clocks never run backwards
    for (const finished_flow& flow : model.finished) {
        now = std::max(now, flow.left_at);
        // Programs see their clock in whole nanoseconds, as it was set.
        std::printf("%llu: %s\n", static_cast<unsigned long long>(now),
                    describe(flow.record.fields()).c_str());
    }
    std::printf("read %llu no flow %llu\n", static_cast<unsigned long long>(model.frames),
                static_cast<unsigned long long>(model.no_flow));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5)
        return 2;
    char error[PCAP_ERRBUF_SIZE];
    const std::unique_ptr<pcap_t, void (*)(pcap_t*)> file(
        pcap_open_offline_with_tstamp_precision(argv[1], PCAP_TSTAMP_PRECISION_NANO, error),
        pcap_close);
    if (!file) {
        std::fprintf(stderr, "%s\n", error);
        return 1;
    }
    const replay_settings settings{.exponent = static_cast<int>(number(argv[2])),
                                   .active_s = number(argv[3]),
                                   .inactive_s = number(argv[4])};
    std::optional<replay_model> model;
    pcap_pkthdr* header;
    const u_char* data;
    while (pcap_next_ex(file.get(), &header, &data) == 1) {
        // The seconds of a pcap file have 32 bits without a sign.
        const uint64_t time = uint64_t{static_cast<uint32_t>(header->ts.tv_sec)} * 1'000'000'000 +
                              static_cast<uint64_t>(header->ts.tv_usec);
        if (!model)
            model.emplace(settings, time);
        model->take(with_plain_tags({data, data + header->caplen}), time);
    }
    if (!model)
        model.emplace(settings, 0);
    model->end(0);
    print_flows(*model);
    return 0;
}
