// Fixture for tests of the flow cache: a queue without a remover thread, packets by their few
// fields that matter, and what has come out of it.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "flow/flow_cache.h"
#include "kestrelexp/service.h"
#include "tests/support/lifelong.h"

namespace kestrel_test {

struct packet_buffer {
    alignas(8) uint8_t bytes[128] = {};
    flow_record& record() { return *reinterpret_cast<flow_record*>(bytes); }
};

struct packet_fields {
    uint64_t end = 0;  // and start
    uint32_t bytes = 40;
    uint8_t flags = 0;
    uint32_t source = 0;
};

inline packet_buffer make_packet(const packet_fields& fields) {
    packet_buffer packet;
    flow_record& record = packet.record();
    record.start = fields.end;
    record.end = fields.end;
    record.packets = 1;
    record.bytes = fields.bytes;
    record.tcpflags = fields.flags;
    record.ipv4.srcipv4 = fields.source;
    return packet;
}

// Keys of one bucket (the one that starts at slot), as many as wanted.
inline flow_key key_of(uint64_t n, uint32_t slot = 0) {
    return static_cast<flow_key>(0x8000'0000'0000'0000u | n << 32 | slot);
}

// A process plugin that writes down how it was called: "c " create, "u " update, "rN " release.
struct noting_plugin {
    std::string calls;
    std::vector<int32_t> reasons;
    std::vector<uint32_t> order;  // which entry of the plugin array was asked to create
    flow_record seen{};           // the flow at the last update
    bool exports_on_create = false;
    bool exports_on_update = false;
};

class queue_fixture : public testing::Test {
  protected:
    static constexpr uint64_t active_ns = 10'000'000'000;
    static constexpr uint64_t inactive_ns = 1'000'000'000;

    void TearDown() override { verbose_level = -1; }

    // One more entry of the plugin array; all of them write to plugin_.
    void with_plugin() {
        entries_[plugin_count_] = {this, plugin_count_};
        process_plugin& plugin = plugins_[plugin_count_++];
        plugin.instance = &entries_[plugin_count_ - 1];
        plugin.create = [](void* entry, flow_record* packet) {
            noting_plugin& note = plugin_of(entry);
            note.calls += "c ";
            note.order.push_back(static_cast<plugin_entry*>(entry)->number);
            packet->export_flag = note.exports_on_create;
        };
        plugin.update = [](void* entry, flow_record* flow, flow_record*) {
            noting_plugin& note = plugin_of(entry);
            note.calls += "u ";
            note.seen = *flow;
            flow->export_flag = note.exports_on_update;
        };
        plugin.release = [](void* entry, flow_record*, int32_t reason) {
            noting_plugin& note = plugin_of(entry);
            note.calls += "r" + std::to_string(reason) + " ";
            note.reasons.push_back(reason);
        };
    }

    void make() {
        storage_ = keep(temporal_storage_init(
            storage_count_, static_cast<uint32_t>(FLOW_RECORD_BASE_SIZE + data_size_), nullptr,
            "test"));
        queue_ =
            keep(kestrel::queue_create(size_exponent_, active_ns, inactive_ns, storage_, nullptr,
                                       data_size_, static_cast<int32_t>(plugin_count_), plugins_));
    }

    void update(flow_key key, const packet_fields& fields) {
        packet_buffer packet = make_packet(fields);
        queue_update(queue_, &packet.record(), key);
    }

    void remove_all() {
        for (uint32_t slot = 0; slot < queue_->size; ++slot) {
            if (queue_->keys[slot] < 0)
                queue_remove_record(queue_, slot, REMOVAL_FORCED);
        }
        kestrel::queue_publish(*queue_);
    }

    // All records that have come out so far, in order.
    std::vector<packet_buffer>& taken() {
        while (const void* record = temporal_storage_get(storage_, 0)) {
            packet_buffer& copy = taken_.emplace_back();
            std::memcpy(copy.bytes, record, FLOW_RECORD_BASE_SIZE + data_size_);
        }
        return taken_;
    }
    const flow_record& flow(size_t n) { return taken().at(n).record(); }

    template <typename Body>
    static std::string messages_of(Body body) {
        testing::internal::CaptureStderr();
        body();
        return testing::internal::GetCapturedStderr();
    }

    int32_t size_exponent_ = 5;
    uint32_t storage_count_ = 1024;
    uint64_t data_size_ = 0;
    flow_queue* queue_ = nullptr;
    temporal_storage* storage_ = nullptr;
    noting_plugin plugin_;

  private:
    struct plugin_entry {
        queue_fixture* test;
        uint32_t number;
    };
    static noting_plugin& plugin_of(void* entry) {
        return static_cast<plugin_entry*>(entry)->test->plugin_;
    }

    plugin_entry entries_[2] = {};
    process_plugin plugins_[2] = {};
    uint32_t plugin_count_ = 0;
    std::vector<packet_buffer> taken_;
};

}  // namespace kestrel_test
