#include "tests/model/replay_model.h"

#include <algorithm>
#include <cstring>

#include "tests/model/parser_model.h"

namespace kestrel_model {

namespace {

constexpr uint64_t second_ns = 1'000'000'000;
constexpr uint64_t tick_ns = 10'000'000;
constexpr uint64_t long_silence_ticks = 6 * 3'600 * 100;  // six hours

model_settings queue_settings(const replay_settings& settings) {
    return {.exponent = settings.exponent,
            .active_ns = settings.active_s * second_ns,
            .inactive_ns = settings.inactive_s * second_ns,
            .data_size = settings.data_size,
            .plugins = settings.plugins};
}

// What the parser leaves alone is zero here.
void fill(flow_record& record, const parsed_frame& parsed) {
    if (parsed.ipv4) {
        record.ipv4.srcipv4 = parsed.ipv4->source;
        record.ipv4.dstipv4 = parsed.ipv4->destination;
        record.ipv4.tos = parsed.ipv4->tos;
    }
    if (parsed.ipv6) {
        auto* addresses = reinterpret_cast<uint8_t*>(&record.ipv4);
        std::memcpy(addresses, parsed.ipv6->source.data(), 16);
        std::memcpy(addresses + 16, parsed.ipv6->destination.data(), 16);
    }
    record.bytes = parsed.bytes.value_or(0);
    record.l3protocol = parsed.l3protocol.value_or(0);
    record.l4protocol = parsed.l4protocol.value_or(0);
    record.srcport = parsed.srcport.value_or(0);
    record.dstport = parsed.dstport.value_or(0);
    record.tcpflags = parsed.tcpflags.value_or(0);
    record.icmptypecode = parsed.icmptypecode.value_or(0);
}

}  // namespace

std::string describe(const flow_record& flow) {
    const auto* addresses = reinterpret_cast<const uint8_t*>(&flow.ipv4);
    const size_t address_bytes = flow.l3protocol == 4 ? 8 : 32;
    std::string text = std::to_string(flow.start) + " " + std::to_string(flow.end);
    for (const unsigned value :
         {flow.packets, flow.bytes, unsigned{flow.l3protocol},
          flow.l3protocol == 4 ? unsigned{flow.ipv4.tos} : 0u, unsigned{flow.l4protocol},
          unsigned{flow.srcport}, unsigned{flow.dstport}, unsigned{flow.tcpflags},
          unsigned{flow.sampling}})
        text += " " + std::to_string(value);
    text += " ";
    for (size_t n = 0; n < address_bytes; ++n) {
        constexpr char digits[] = "0123456789abcdef";
        text += digits[addresses[n] >> 4];
        text += digits[addresses[n] & 15];
    }
    return text;
}

replay_model::replay_model(const replay_settings& settings, uint64_t first_ns)
    : settings_(settings),
      queue_(queue_settings(settings)),
      // A quarter of the timeout, in ticks, and one more.
      pass_ticks_(settings.inactive_s * second_ns / 4 / tick_ns + 1),
      ticks_left_(pass_ticks_),
      tick_time_(first_ns),
      time_(first_ns) {
    queue_.set_now(first_ns);
}

void replay_model::take(const std::vector<uint8_t>& frame, uint64_t time_ns) {
    frames += 1;
    advance_to(time_ns);
    const parsed_frame parsed = parse_frame(frame, settings_.mask, 0);
    if (parsed.key == 0) {
        no_flow += 1;
        return;
    }
    model_record packet(settings_.data_size);
    flow_record& record = packet.fields();
    fill(record, parsed);
    record.start = record.end = time_ns;
    record.packets = 1;
    record.sampling = settings_.sampling;
    queue_.update(packet, parsed.key);
    collect();
}

void replay_model::end(uint64_t time_ns) {
    advance_to(time_ns);
    queue_.flush();
    collect();
}

void replay_model::advance_to(uint64_t time_ns) {
    time_ = std::max(time_, time_ns);
    for (uint64_t walked = 1; tick_time_ + tick_ns <= time_; ++walked) {
        // By then no flow is left, and three passes over nothing come back to where they began.
        if (walked == long_silence_ticks) {
            const uint64_t left = (time_ - tick_time_) / tick_ns - 1;
            tick_time_ += left / (3 * pass_ticks_) * (3 * pass_ticks_) * tick_ns;
        }
        tick_time_ += tick_ns;
        queue_.set_now(tick_time_);
        end_tick();
    }
}

void replay_model::end_tick() {
    ticks_left_ -= 1;
    if (ticks_left_ != 0)
        return;
    queue_.restart_scan();
    collect();
    ticks_left_ = pass_ticks_;
}

// A flow leaves at the latest tick, but not before its own last packet.
void replay_model::collect() {
    for (model_record& record : queue_.take_output())
        finished.push_back({record, std::max(tick_time_, record.fields().end)});
}

}  // namespace kestrel_model
