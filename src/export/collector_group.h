// Several collectors of one export (host=a#b#c): who gets which record. Each collector has a whole
// exporter of its own, with templates, sequence numbers, connection and queue; the group is the
// thin layer before them. Record loop thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kestrelexp/plugin.h"

namespace kestrel {

// RFC 6728 section 4.4.2 has the words.
enum class sharing {
    alone,           // there is one collector
    parallel,        // each gets all records
    load_balancing,  // each gets those of its flows, and those of others while they are down
    fallback         // the first that is up gets all
};

// What an export with one collector is made of.
struct collector_kind {
    const char* name;  // the export's
    export_init_function* init;
    export_export_function* export_record;
    export_flush_function* flush;
    export_tend_function* tend;
    bool (*is_up)(const void* exporter);
};

// What the parameters say, and the parameters of each collector's exporter.
struct collector_list {
    sharing how = sharing::alone;
    std::vector<std::string> params;  // empty: those of the export, as they are
};

// Settings that make no sense end the program (status 255). params may be NULL.
collector_list read_collectors(const char* params);

// For an export that has no groups: parameters that ask for one in the background end the program
// (status 255). Without reconnect=background the word means nothing, and a host is a name.
void check_alone(const char* name, const char* params);

// Chooses among count collectors for the flow with this identity (record/flow_identity.h); is_up
// tells of each position. While none is up, each flow stays with the collector that is its own.
// A collector that goes moves its flows to the others, and no other flow; it has them back when it
// comes again.
template <typename IsUp>
size_t choose_by_flow(uint64_t identity, size_t count, IsUp is_up);
// The first that is up, else the first.
template <typename IsUp>
size_t choose_first(size_t count, IsUp is_up);

class collector_group {
  public:
    collector_group(const collector_kind& kind, sharing how) : kind_(kind), how_(how) {}
    void add(void* exporter) { exporters_.push_back(exporter); }

    uint32_t export_record(flow_record* record) const;
    uint32_t flush() const;
    int32_t tend() const;

  private:
    bool is_up(size_t position) const { return kind_.is_up(exporters_[position]); }
    size_t choose(const flow_record& record) const;

    const collector_kind& kind_;
    const sharing how_;
    std::vector<void*> exporters_;
};

// The exporters of all collectors that the parameters name, as an instance of the export.
collector_group* open_collectors(const collector_kind& kind, char* params, getter* getters);

// How much a collector is wanted for a flow, more or less at random: the highest one gets it. So no
// table has to be kept of who has which flow.
inline uint64_t preference(uint64_t identity, size_t position) {
    // The finalizer of SplitMix64: each bit of the number has a say in each bit of the result.
    uint64_t mixed = identity + (position + 1) * 0x9E3779B97F4A7C15;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
    return mixed ^ (mixed >> 31);
}

template <typename IsUp>
size_t choose_by_flow(uint64_t identity, size_t count, IsUp is_up) {
    size_t chosen = 0;
    bool is_chosen_up = false;
    uint64_t highest = 0;
    for (size_t position = 0; position < count; ++position) {
        const bool is_this_up = is_up(position);
        const uint64_t wanted = preference(identity, position);
        if (is_this_up < is_chosen_up || (is_this_up == is_chosen_up && wanted < highest))
            continue;
        chosen = position;
        is_chosen_up = is_this_up;
        highest = wanted;
    }
    return chosen;
}

template <typename IsUp>
size_t choose_first(size_t count, IsUp is_up) {
    for (size_t position = 0; position < count; ++position)
        if (is_up(position))
            return position;
    return 0;
}

}  // namespace kestrel
