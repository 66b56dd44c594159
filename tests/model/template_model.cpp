#include "tests/model/template_model.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <sstream>
#include <utility>

namespace template_model {
namespace {

// "NAME id length" each.
constexpr const char* ipfix_rows =
    "IN_BYTES 1 4 IN_PKTS 2 4 FLOWS 3 4 PROTOCOL 4 1 TOS 5 1 TCP_FLAGS 6 1 L4_SRC_PORT 7 2 "
    "IPV4_SRC_ADDR 8 4 L4_DST_PORT 11 2 IPV4_DST_ADDR 12 4 LAST_SWITCHED 21 4 "
    "FIRST_SWITCHED 22 4 OUT_BYTES 23 4 OUT_PKTS 24 4 IPV6_SRC_ADDR 27 16 IPV6_DST_ADDR 28 16 "
    "ICMP_TYPE_CODE 32 2 SAMPLING_INTERVAL 34 4 SAMPLING_ALGORITHM 35 1 FLOW_ACTIVE_TIMEOUT 36 4 "
    "FLOW_INACTIVE_TIMEOUT 37 4 ENGINE_TYPE 38 4 ENGINE_ID 39 4 IP_PROTOCOL_VERSION 60 1 "
    "INPUT_SNMP 10 2 OUTPUT_SNMP 14 2 SRC_AS32 16 4 DST_AS32 17 4 SRC_AS 16 2 DST_AS 17 2 "
    "MPLS_LABEL_1 70 3 MPLS_LABEL_2 71 3 MPLS_LABEL_3 72 3 MPLS_LABEL_4 73 3 MPLS_LABEL_5 74 3 "
    "MPLS_LABEL_6 75 3 MPLS_LABEL_7 76 3 MPLS_LABEL_8 77 3 VLAN_ID 58 2 STARTUP_TIME 160 8 "
    "FLOW_START_MILLISECONDS 152 8 FLOW_END_MILLISECONDS 153 8";
constexpr const char* nf9_rows =
    "IN_BYTES 1 4 IN_PKTS 2 4 FLOWS 3 4 PROTOCOL 4 1 TOS 5 1 TCP_FLAGS 6 1 L4_SRC_PORT 7 2 "
    "IPV4_SRC_ADDR 8 4 SRC_MASK 9 1 INPUT_SNMP 10 2 L4_DST_PORT 11 2 IPV4_DST_ADDR 12 4 "
    "DST_MASK 13 1 OUTPUT_SNMP 14 2 IPV4_NEXT_HOP 18 4 SRC_AS32 16 4 DST_AS32 17 4 SRC_AS 16 2 "
    "DST_AS 17 2 LAST_SWITCHED 21 4 FIRST_SWITCHED 22 4 OUT_BYTES 23 4 OUT_PKTS 24 4 "
    "IPV6_SRC_ADDR 27 16 IPV6_DST_ADDR 28 16 IPV6_FLOW_LABEL 31 3 ICMP_TYPE_CODE 32 2 "
    "SAMPLING_INTERVAL 34 4 SAMPLING_ALGORITHM 35 1 FLOW_ACTIVE_TIMEOUT 36 4 "
    "FLOW_INACTIVE_TIMEOUT 37 4 ENGINE_TYPE 38 4 ENGINE_ID 39 4 SRC_MAC 56 6 DST_MAC 57 6 "
    "IP_PROTOCOL_VERSION 60 1 MPLS_LABEL_1 70 3 MPLS_LABEL_2 71 3 MPLS_LABEL_3 72 3 "
    "MPLS_LABEL_4 73 3 MPLS_LABEL_5 74 3 MPLS_LABEL_6 75 3 MPLS_LABEL_7 76 3 MPLS_LABEL_8 77 3 "
    "VLAN_ID 58 2";

std::vector<element> read_rows(const char* text) {
    std::istringstream in(text);
    std::vector<element> rows;
    for (element row; in >> row.name >> row.id >> row.length;)
        rows.push_back(row);
    return rows;
}

void put(bytes& to, uint64_t value, unsigned width) {
    while (width-- > 0)
        to.push_back(static_cast<uint8_t>(value >> (8 * width)));
}

bytes number(uint64_t value, unsigned width) {
    bytes result;
    for (unsigned i = 0; i < width; ++i)
        result.push_back(static_cast<uint8_t>(value >> (8 * i)));
    return result;
}

bytes at(const flow_record& record, uint64_t offset, size_t size) {
    const auto* from = reinterpret_cast<const uint8_t*>(&record) + offset;
    return {from, from + size};
}

unsigned count_at(const flow_record& record, uint64_t offset) {
    const bytes two = at(record, offset, 2);
    return two[0] + 256u * two[1];
}

bool begins(const std::string& text, const char* with) {
    return text.rfind(with, 0) == 0;
}

unsigned last_digit(const std::string& name) {
    return static_cast<unsigned>(name.back() - '0');
}

constexpr const char* unit_names[] = {"SEC", "MSEC", "USEC", "NSEC"};
constexpr uint64_t unit_ns[] = {1'000'000'000, 1'000'000, 1'000, 1};

// FLOW_END_SEC alone of the absolute times counts from the start-up.
uint64_t time_value(const std::string& name, const flow_record& record, uint64_t startup_ns) {
    const uint64_t time = begins(name, "STARTUP")      ? startup_ns
                          : begins(name, "FLOW_START") ? record.start
                                                       : record.end;
    const bool relative = name.find("RELATIVE") != std::string::npos || name == "FLOW_END_SEC";
    const std::string unit = name.substr(name.rfind('_') + 1);
    const auto* found = std::find(std::begin(unit_names), std::end(unit_names), unit);
    return (relative ? time - startup_ns : time) / unit_ns[found - unit_names];
}

// An element by number takes numbers and labels at any width, low-order bytes last.
void write_any_width(bytes& area, unsigned place, unsigned length, const bytes& value) {
    for (unsigned i = 0; i < length; ++i)
        area[place + length - 1 - i] = i < value.size() ? value[i] : uint8_t{0};
}

// The value as the wire has it, at the place of its element and possibly beyond.
void write_field(bytes& area, unsigned place, const field& of, const bytes& value) {
    const auto length = static_cast<size_t>(of.to.length);
    const size_t widths_by_number[] = {1, 2, 3, 4, 8};
    if (of.to.is_by_number &&
        std::count(std::begin(widths_by_number), std::end(widths_by_number), value.size()) > 0) {
        write_any_width(area, place, of.to.length, value);
        return;
    }
    const size_t effective = std::min(length, value.size());
    const bool is_number =
        effective == 1 || effective == 2 || effective == 4 || effective == 8 || effective == 16;
    bytes written(length - effective, 0);
    if (of.from == "ZERO")
        written.assign(length, 0);
    else if (is_number)
        written.insert(written.end(), value.rend() - static_cast<long>(effective), value.rend());
    else
        written.insert(written.end(), value.begin(), value.end());
    std::copy(written.begin(), written.end(), area.begin() + place);
}

}  // namespace

std::vector<element> ipfix_elements() {
    return read_rows(ipfix_rows);
}

std::vector<element> nf9_elements() {
    return read_rows(nf9_rows);
}

std::vector<std::string> getter_names() {
    std::vector<std::string> names = {"ZERO", "BYTES", "PACKETS"};
    for (const char* base : {"STARTUP_TIME_", "FLOW_START_", "FLOW_END_", "FLOW_START_RELATIVE_",
                             "FLOW_END_RELATIVE_"})
        for (const char* unit : unit_names)
            names.push_back(std::string(base) + unit);
    for (const char* name : {"SAMPLING_RATE", "SAMPLING_ALGORITHM", "INPUT_INTERFACE",
                             "OUTPUT_INTERFACE", "L3_PROTO", "L3_IPV4_ADDR_SRC", "L3_IPV4_ADDR_DST",
                             "L3_IPV4_TOS", "L3_IPV6_ADDR_SRC", "L3_IPV6_ADDR_DST", "L4_PROTO",
                             "L4_TCP_FLAGS", "L4_PORT_SRC", "L4_PORT_DST", "L4_ICMP_TYPE_CODE"})
        names.push_back(name);
    if (kestrel_vlan_offset != 0) {
        for (unsigned i = 0; i < 4; ++i)
            names.push_back("L2_VLAN_" + std::to_string(i));
        for (unsigned i = 0; i < 10; ++i)
            names.push_back("L2_MPLS_" + std::to_string(i));
    }
    if (kestrel_mac_offset != 0) {
        names.push_back("L2_SRC_MAC");
        names.push_back("L2_DST_MAC");
    }
    return names;
}

bool is_valid(const std::string& getter, const flow_record& record) {
    const unsigned l4 = record.l4protocol;
    if (begins(getter, "L3_IPV4"))
        return record.l3protocol == 4;
    if (begins(getter, "L3_IPV6"))
        return record.l3protocol == 6;
    if (begins(getter, "L4_PORT"))
        return l4 == 6 || l4 == 17 || l4 == 132;
    if (getter == "L4_TCP_FLAGS")
        return l4 == 6;
    if (getter == "L4_ICMP_TYPE_CODE")
        return l4 == 1 || l4 == 58;
    if (begins(getter, "L2_VLAN"))
        return count_at(record, kestrel_vlan_offset + 8) > last_digit(getter);
    if (begins(getter, "L2_MPLS"))
        return kestrel_mpls_offset != 0 &&
               count_at(record, kestrel_mpls_offset + 40) > last_digit(getter);
    return true;
}

bytes stored_value(const std::string& getter, const flow_record& record, uint64_t startup_ns) {
    struct place {
        const char* name;
        uint64_t offset;
        size_t size;
    };
    constexpr place places[] = {{"BYTES", 20, 4},
                                {"PACKETS", 16, 4},
                                {"SAMPLING_RATE", 84, 2},
                                {"INPUT_INTERFACE", 24, 2},
                                {"OUTPUT_INTERFACE", 26, 2},
                                {"L3_PROTO", 64, 1},
                                {"L3_IPV4_ADDR_SRC", 32, 4},
                                {"L3_IPV4_ADDR_DST", 36, 4},
                                {"L3_IPV4_TOS", 40, 1},
                                {"L3_IPV6_ADDR_SRC", 32, 16},
                                {"L3_IPV6_ADDR_DST", 48, 16},
                                {"L4_PROTO", 72, 1},
                                {"L4_TCP_FLAGS", 78, 1},
                                {"L4_PORT_SRC", 74, 2},
                                {"L4_PORT_DST", 76, 2},
                                {"L4_ICMP_TYPE_CODE", 80, 2}};
    for (const place& one : places)
        if (getter == one.name)
            return at(record, one.offset, one.size);
    if (getter == "SAMPLING_ALGORITHM")
        return {static_cast<uint8_t>(record.sampling != 0)};
    if (begins(getter, "L2_VLAN"))
        return at(record, kestrel_vlan_offset + 2 * last_digit(getter), 2);
    if (begins(getter, "L2_MPLS"))
        return at(record, kestrel_mpls_offset + 4 * last_digit(getter), 3);
    if (getter == "L2_SRC_MAC")
        return at(record, kestrel_mac_offset, 6);
    if (getter == "L2_DST_MAC")
        return at(record, kestrel_mac_offset + 6, 6);
    return number(getter == "ZERO" ? 0 : time_value(getter, record, startup_ns), 8);
}

// ---- Templates ----

collection::collection(std::vector<std::vector<field>> definitions, unsigned set_id)
    : set_id_(set_id) {
    const auto getters = [](const std::vector<field>& fields) {
        std::set<std::string> names;
        for (const field& one : fields)
            names.insert(one.from);
        return names.size();
    };
    std::stable_sort(definitions.begin(), definitions.end(),
                     [&](const auto& a, const auto& b) { return getters(a) > getters(b); });
    for (auto& fields : definitions)
        templates_.push_back({std::move(fields), bytes(1600), 0, 0});
}

int collection::choose(const flow_record& record) const {
    for (size_t i = 0; i < templates_.size(); ++i) {
        const auto& fields = templates_[i].fields;
        if (std::all_of(fields.begin(), fields.end(),
                        [&](const field& one) { return is_valid(one.from, record); }))
            return static_cast<int>(i);
    }
    return -1;
}

unsigned collection::record_length(int position) const {
    unsigned length = 0;
    if (position >= 0)
        for (const field& one : templates_[static_cast<size_t>(position)].fields)
            length += one.to.length;
    return length;
}

unsigned collection::longest_record() const {
    unsigned longest = 0;
    for (unsigned i = 0; i < size(); ++i)
        longest = std::max(longest, record_length(static_cast<int>(i)));
    return longest;
}

void collection::add(int position, const flow_record& record, uint64_t startup_ns) {
    one_template& to = templates_[static_cast<size_t>(position)];
    for (const field& one : to.fields) {
        write_field(to.area, to.held, one, stored_value(one.from, record, startup_ns));
        to.held += one.to.length;
    }
    ++to.records;
}

unsigned collection::estimate() const {
    unsigned sum = 0;
    for (const one_template& one : templates_)
        sum += (one.held + 4 + 3) / 4 * 4;
    return sum;
}

bytes collection::template_set() const {
    bytes body;
    unsigned id = 256;
    for (const one_template& one : templates_) {
        put(body, id++, 2);
        put(body, one.fields.size(), 2);
        for (const field& of : one.fields) {
            put(body, of.to.id + (of.to.enterprise != 0 ? 0x8000 : 0), 2);
            put(body, of.to.length, 2);
            if (of.to.enterprise != 0)
                put(body, of.to.enterprise, 4);
        }
    }
    bytes set;
    put(set, set_id_, 2);
    put(set, body.size() + 4, 2);
    for (const uint8_t byte : body)
        set.push_back(byte);
    return set;
}

bytes collection::take_data_sets(unsigned* records) {
    bytes sets;
    unsigned id = 256;
    for (one_template& one : templates_) {
        if (one.held > 0) {
            const unsigned padded = (one.held + 3) / 4 * 4;
            put(sets, id, 2);
            put(sets, padded + 4, 2);
            sets.insert(sets.end(), one.area.begin(), one.area.begin() + padded);
            *records += one.records;
            one.held = one.records = 0;
        }
        ++id;
    }
    return sets;
}

// ---- Exporters ----

exporter::exporter(collection templates, const settings& from, const world& now,
                   unsigned header_length)
    : templates_(std::move(templates)), settings_(from), header_length_(header_length) {
    put_template_set(now);
}

bool exporter::is_full(unsigned record_length) const {
    return estimate_ + sets_.size() + header_length_ + record_length > 1450;
}

void exporter::append(const flow_record& record, int position, const world& now) {
    templates_.add(position, record, now.startup_ns);
    estimate_ = templates_.estimate();
    ++pending_;
}

unsigned exporter::put_template_set(const world& now) {
    const bytes set = templates_.template_set();
    last_templates_s_ = now.wall_ns / 1'000'000'000;
    const size_t record_set = 4 + (templates_.longest_record() + 3) / 4 * 4;
    if (!sets_.empty() && sets_.size() + set.size() + record_set > 1450)
        return 0;
    sets_.insert(sets_.end(), set.begin(), set.end());
    count_ += templates_.size();
    return templates_.size();
}

unsigned exporter::put_due_template_sets(const world& now) {
    unsigned written = 0;
    if (packets_ % settings_.refresh_packets == 0)
        written += put_template_set(now);
    const auto now_s = static_cast<int64_t>(now.wall_ns / 1'000'000'000);
    if (now_s > static_cast<int64_t>(last_templates_s_) + settings_.refresh_time_s)
        written += put_template_set(now);
    return written;
}

bool ipfix::add(const flow_record& record, const world& now) {
    const int position = templates_.choose(record);
    if (is_full(templates_.record_length(position)))
        flush(now);
    if (record.sampling != sampling_ && estimate_ > 0) {
        flush(now);
        sampling_ = record.sampling;
    }
    if (position < 0)
        return false;
    append(record, position, now);
    ++records_;
    return true;
}

void ipfix::flush(const world& now) {
    if (pending_ == 0)
        return;
    const bytes data = templates_.take_data_sets(&count_);
    ++packets_;
    sets_.insert(sets_.end(), data.begin(), data.end());
    bytes message;
    put(message, 10, 2);
    put(message, 16 + sets_.size(), 2);
    put(message, now.wall_ns / 1'000'000'000, 4);
    put(message, sequence_, 4);
    put(message, settings_.source_id, 4);
    message.insert(message.end(), sets_.begin(), sets_.end());
    sent.push_back(message);
    sets_.clear();
    count_ = 0;
    pending_ = put_due_template_sets(now);
    sequence_ = records_;
}

bool nf9::add(const flow_record& record, const world& now) {
    const auto now_s = static_cast<uint32_t>(now.wall_ns / 1'000'000'000);
    const auto uptime_ms = static_cast<uint32_t>(now.uptime_ns / 1'000'000);
    if (pending_ > 0 && (now_s < secs_ || uptime_ms < uptime_ms_))
        flush(now);
    const bool alone = record.end > now.wall_ns;
    if (alone)
        flush(now);
    const int position = templates_.choose(record);
    if (is_full(templates_.record_length(position)))
        flush(now);
    if (record.sampling != sampling_ && last_count_ != 0) {
        flush(now);
        sampling_ = record.sampling;
    }
    uptime_ms_ = uptime_ms;
    secs_ = now_s;
    if (position < 0)
        return false;
    append(record, position, now);
    if (alone)
        flush(now);
    return true;
}

void nf9::flush(const world& now) {
    if (pending_ == 0)
        return;
    const bytes data = templates_.take_data_sets(&count_);
    ++packets_;
    sets_.insert(sets_.end(), data.begin(), data.end());
    last_count_ = count_;
    bytes packet;
    put(packet, 9, 2);
    put(packet, count_, 2);
    put(packet, uptime_ms_, 4);
    put(packet, secs_, 4);
    put(packet, sent.size(), 4);
    put(packet, settings_.source_id, 4);
    packet.insert(packet.end(), sets_.begin(), sets_.end());
    sent.push_back(packet);
    sets_.clear();
    count_ = pending_ = 0;
    put_due_template_sets(now);
}

}  // namespace template_model
