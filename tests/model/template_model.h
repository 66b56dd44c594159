// A second, plain encoder of template sets, data sets, IPFIX messages and NetFlow v9 packets, to
// hold the exporters against. Everything is looked up by name, nothing is prepared or cached; it
// shares no code and no table with the program, only the layout of flow records.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kestrelexp/record.h"

namespace template_model {

using bytes = std::vector<uint8_t>;

struct element {
    std::string name;
    unsigned id;
    unsigned length;
    bool is_by_number = false;
    uint32_t enterprise = 0;  // 0: none
};

std::vector<element> ipfix_elements();
std::vector<element> nf9_elements();

// The names of the base vocabulary, those of blocks that are off left out.
std::vector<std::string> getter_names();
bool is_valid(const std::string& getter, const flow_record& record);
// As it lies in memory: numbers least significant byte first.
bytes stored_value(const std::string& getter, const flow_record& record, uint64_t startup_ns);

struct field {
    element to;
    std::string from;
};

// The templates of one exporter and their buffered records.
class collection {
  public:
    collection(std::vector<std::vector<field>> definitions, unsigned set_id);

    int choose(const flow_record& record) const;  // position, or -1
    unsigned record_length(int position) const;   // 0 for -1
    unsigned longest_record() const;
    void add(int position, const flow_record& record, uint64_t startup_ns);
    unsigned estimate() const;  // bytes of data sets, empty ones counted
    bytes template_set() const;
    bytes take_data_sets(unsigned* records);
    unsigned size() const { return static_cast<unsigned>(templates_.size()); }

  private:
    struct one_template {
        std::vector<field> fields;
        bytes area;  // of 1450 bytes and what runs over; keeps what was written into it
        unsigned held = 0;
        unsigned records = 0;
    };
    std::vector<one_template> templates_;
    unsigned set_id_;
};

// What an exporter is told and knows.
struct world {
    uint64_t wall_ns;
    uint64_t uptime_ns;
    uint64_t startup_ns;
};

struct settings {
    uint32_t source_id = 0;
    int64_t refresh_time_s = 600;
    uint64_t refresh_packets = 2048;
};

// Both exporters send into sent.
class exporter {
  public:
    exporter(collection templates, const settings& from, const world& now, unsigned header_length);
    virtual ~exporter() = default;
    virtual bool add(const flow_record& record, const world& now) = 0;  // false: no template
    virtual void flush(const world& now) = 0;

    std::vector<bytes> sent;

  protected:
    bool is_full(unsigned record_length) const;
    void append(const flow_record& record, int position, const world& now);
    // Both return the number of templates written.
    unsigned put_template_set(const world& now);
    unsigned put_due_template_sets(const world& now);

    collection templates_;
    settings settings_;
    unsigned header_length_;
    bytes sets_;          // of the packet under way
    unsigned count_ = 0;  // templates and records in it
    uint64_t last_templates_s_ = 0;
    uint64_t packets_ = 0;
    unsigned estimate_ = 0;
    uint16_t sampling_ = 0;
    unsigned pending_ = 0;
};

class ipfix : public exporter {
  public:
    ipfix(collection templates, const settings& from, const world& now)
        : exporter(std::move(templates), from, now, 16) {}
    bool add(const flow_record& record, const world& now) override;
    void flush(const world& now) override;

  private:
    uint32_t records_ = 0;
    uint32_t sequence_ = 0;
};

class nf9 : public exporter {
  public:
    nf9(collection templates, const settings& from, const world& now)
        : exporter(std::move(templates), from, now, 20) {}
    bool add(const flow_record& record, const world& now) override;
    void flush(const world& now) override;

  private:
    uint32_t uptime_ms_ = 0;
    uint32_t secs_ = 0;
    unsigned last_count_ = 0;
};

}  // namespace template_model
