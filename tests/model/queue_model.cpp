#include "tests/model/queue_model.h"

#include <utility>

namespace kestrel_model {

namespace {

bool more_than(uint64_t from, uint64_t to, uint64_t limit) {
    return to >= from && to - from > limit;
}

bool at_least(uint64_t from, uint64_t to, uint64_t limit) {
    return to >= from && to - from >= limit;
}

}  // namespace

queue_model::queue_model(const model_settings& settings)
    : settings_(settings),
      slots_(size_t{1} << settings.exponent,
             model_slot{0, 0, 0, 0, 0, 0, model_record(settings.data_size)}),
      cursor_(static_cast<int64_t>(slots_.size()) - 1) {}

void queue_model::update(model_record& packet, int64_t key) {
    flow_record& r = packet.fields();
    try_to_remove();
    if (forced_checks_ != 0) {
        ++happened.scans_caught_up;
        finish_scan();
        forced_checks_ = 0;
    }
    statistics.packets += 1;
    statistics.bytes += r.bytes;
    if (r.export_flag != 0) {
        ++happened.exported_at_once;
        output(packet, 3);
        return;
    }
    const auto start =
        static_cast<uint32_t>((static_cast<uint64_t>(key) & 0xFFFF'FFFF) % slots_.size() / 8 * 8);
    for (uint32_t slot = start; slot < start + 8; ++slot) {
        if (slots_[slot].key != key)
            continue;
        int32_t reason;
        if (!ends_the_flow(slots_[slot], r, &reason)) {
            join(slot, packet);
            return;
        }
        if (reason == 2)
            statistics.collisions += 1;
        remove(slot, reason);
        start_flow(slot, packet, key);
        return;
    }
    start_flow(make_room(start), packet, key);
}

bool queue_model::ends_the_flow(const model_slot& slot, const flow_record& packet,
                                int32_t* reason) const {
    if (at_least(slot.start, packet.end, settings_.active_ns) ||
        uint64_t{slot.bytes} + packet.bytes > 0xFFFF'FFF0 ||
        uint64_t{slot.packets} + packet.packets >= 16'777'201) {
        *reason = 0;
        return true;
    }
    *reason = 2;
    return packet.end < slot.end;
}

void queue_model::join(uint32_t index, model_record& packet) {
    ++happened.joined;
    model_slot& slot = slots_[index];
    slot.packets += packet.fields().packets;
    slot.end = packet.fields().end;
    slot.bytes += packet.fields().bytes;
    slot.tcp_flags |= packet.fields().tcpflags;
    if (settings_.plugins.empty())
        return;
    refresh_record(slot);
    for (const process_plugin& plugin : settings_.plugins)
        plugin.update(plugin.instance, &slot.record.fields(), &packet.fields());
    if (slot.record.fields().export_flag != 0)
        remove(index, 3);
}

uint32_t queue_model::make_room(uint32_t start) {
    for (uint32_t slot = start; slot < start + 8; ++slot) {
        if (slots_[slot].key >= 0)
            return slot;
    }
    ++happened.victims;
    const uint32_t victim = start + static_cast<uint32_t>(victim_counter_ % 8);
    victim_counter_ += 1;
    statistics.collisions += 1;
    remove(victim, 2);
    return victim;
}

void queue_model::start_flow(uint32_t index, model_record& packet, int64_t key) {
    for (const process_plugin& plugin : settings_.plugins)
        plugin.create(plugin.instance, &packet.fields());
    const flow_record& r = packet.fields();
    if (!settings_.plugins.empty() && r.export_flag != 0) {
        ++happened.exported_at_once;
        output(packet, 3);
        return;
    }
    slots_[index] =
        model_slot{key, r.start, r.end, r.packets % (1u << 24), r.bytes, r.tcpflags, packet};
}

void queue_model::refresh_record(model_slot& slot) {
    flow_record& record = slot.record.fields();
    record.end = slot.end;
    record.packets = slot.packets;
    record.bytes = slot.bytes;
    record.tcpflags = slot.tcp_flags;
}

void queue_model::remove(uint32_t index, int32_t reason) {
    model_slot& slot = slots_[index];
    if (slot.key >= 0) {
        ++happened.invalid;
        return;
    }
    refresh_record(slot);
    output(slot.record, reason);
    slot.packets = 0;
    slot.bytes = 0;
    slot.key = 0;
}

void queue_model::output(model_record& record, int32_t reason) {
    ++happened.ended[reason];
    statistics.flows += 1;
    for (const process_plugin& plugin : settings_.plugins)
        plugin.release(plugin.instance, &record.fields(), reason);
    out_.push_back(record);
}

bool queue_model::is_idle(const model_slot& slot) const {
    return slot.packets != 0 && more_than(slot.end, now_, settings_.inactive_ns);
}

void queue_model::try_to_remove() {
    const int64_t slot = cursor_;
    cursor_ -= 1;
    // The slot that the cursor leaves is looked at while the cursor is still in the table, so slot
    // 0 never is.
    if (cursor_ >= 0 && is_idle(slots_[static_cast<size_t>(slot)]))
        remove(static_cast<uint32_t>(slot), 1);
}

void queue_model::finish_scan() {
    while (cursor_ >= 0)
        try_to_remove();
}

void queue_model::restart_scan() {
    if (cursor_ >= 0) {
        forced_checks_ += 1;
        if (forced_checks_ == 3) {
            ++happened.scans_forced;
            finish_scan();
            forced_checks_ = 0;
        }
    }
    cursor_ = static_cast<int64_t>(slots_.size()) - 1;
}

void queue_model::flush() {
    for (uint32_t slot = 0; slot < slots_.size(); ++slot) {
        if (slots_[slot].key < 0)
            remove(slot, 3);
    }
}

std::vector<model_record> queue_model::take_output() {
    return std::exchange(out_, {});
}

uint32_t queue_model::record_count() const {
    uint32_t count = 0;
    for (const model_slot& slot : slots_)
        count += slot.key < 0;
    return count;
}

}  // namespace kestrel_model
