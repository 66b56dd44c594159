// One pass over the headers, from the EtherType to the ports, without copying or allocating.
//
// Cost of a TCP/IPv4 frame under the default mask: four key steps (a dependent chain of about forty
// cycles), two cache lines of the frame, two of the record, and one bounds check per layer. Hence
// its shape: bounds are checked once where a layer begins, and a frame that is long enough takes a
// road without checks; a short one takes the same code with every load checked, bytes after the
// captured length reading as zero. The default flow mask has an instance of its own, in which the
// tests of mask bits vanish.

#include "flow/parser.h"

#include <algorithm>
#include <cstddef>

#include "base/log.h"
#include "base/wire.h"
#include "flow/flow_key.h"
#include "record/layout.h"
#include "record/protocols.h"

namespace kestrel {
namespace {

thread_local constinit packet_frame last_position{};
uint32_t flow_mask = FLOW_MASK_DEFAULT;

// The flow mask, known when the program is built or only when it runs.
template <uint32_t mask>
struct fixed_mask {
    static constexpr bool has(uint32_t bit) { return (mask & bit) != 0; }
};

struct run_time_mask {
    bool has(uint32_t bit) const { return (mask & bit) != 0; }
    uint32_t mask;
};

// The captured bytes of a frame. Offsets are 64 bits wide, so sums of header lengths cannot wrap.
template <bool bounded>
struct frame_view {
    const uint8_t* data;
    size_t captured;

    template <typename T>
    T load(size_t at) const {
        if constexpr (bounded)
            if (at + sizeof(T) > captured) [[unlikely]]
                return load_padded<T>(at);
        return load_native<T>(data + at);
    }
    uint8_t byte(size_t at) const { return load<uint8_t>(at); }
    uint16_t be16(size_t at) const { return byte_swap(load<uint16_t>(at)); }
    uint32_t be32(size_t at) const { return byte_swap(load<uint32_t>(at)); }

  private:
    template <typename T>
    [[gnu::noinline]] T load_padded(size_t at) const {
        T value = 0;
        if (at < captured)
            std::memcpy(&value, data + at, captured - at);
        return value;
    }
};

using checked_view = frame_view<true>;
using unchecked_view = frame_view<false>;

enum ethertype : uint16_t {
    ethertype_ipv4 = 0x0800,
    ethertype_vlan = 0x8100,  // IEEE 802.1Q
    ethertype_qinq = 0x9100,  // pre-standard stacked tags
    ethertype_qinq2 = 0x9200,
    ethertype_ipv6 = 0x86DD,
    ethertype_mpls = 0x8847,  // RFC 5332, unicast
};

// IPv6 extension headers (RFC 8200 section 4, RFC 4302).
enum ipv6_extension : uint8_t {
    extension_hop_by_hop = 0,
    extension_routing = 43,
    extension_fragment = 44,
    extension_authentication = 51,
    extension_destination_options = 60,
};

bool is_ipv6_extension(uint8_t protocol) {
    return protocol == extension_hop_by_hop || protocol == extension_destination_options ||
           protocol == extension_routing || protocol == extension_fragment ||
           protocol == extension_authentication;
}

// What the headers read so far came to. Out-of-line functions take and return it by value: by
// reference it would live in memory, and the key's dependent chain with it.
struct parse_state {
    uint64_t h;  // hash state of the key
    size_t at;   // offset of the next byte to read
};

constexpr size_t ethertype_offset = 12;

// Of a frame that is no flow, parse_state::at holds the reason: no header begins that early.
constexpr size_t discarded_at(discard_reason reason) {
    return static_cast<size_t>(reason);
}
constexpr bool is_discarded(const parse_state& state) {
    return state.at <= discarded_at(discard_reason::last);
}
static_assert(discarded_at(discard_reason::last) < ethertype_offset);

constexpr size_t vlan_tag_size = 2;
constexpr size_t mpls_entry_size = 4;
constexpr size_t mac_pair_size = 12;
constexpr size_t ipv4_header_min = 20;
constexpr size_t ipv6_header_size = 40;
constexpr size_t sctp_header_size = 12;
constexpr size_t udp_header_size = 8;
constexpr size_t icmp_header_size = 4;
// Bytes of the transport header that are read at most: up to the TCP flags.
constexpr size_t transport_bytes_read = 14;

template <typename Mask>
[[gnu::noinline]] uint64_t mac_addresses(Mask mask, const checked_view& frame, uint64_t h,
                                         flow_record& record) {
    uint8_t addresses[mac_pair_size];
    for (size_t at = 0; at < mac_pair_size; at += 4) {
        const uint32_t word = frame.load<uint32_t>(at);
        store_native(addresses + at, word);
        if (mask.has(FLOW_MASK_MAC))
            h = key_step32(h, word);
    }
    if (auto* mac = block_at<mac_block>(record, kestrel_mac_offset)) {
        std::memcpy(mac->destination, addresses, sizeof mac->destination);
        std::memcpy(mac->source, addresses + sizeof mac->destination, sizeof mac->source);
    }
    return h;
}

// One VLAN tag at state.at (after its EtherType).
template <typename Mask>
void vlan_tag(Mask mask, const checked_view& frame, parse_state& state, flow_record& record) {
    const uint16_t id = frame.be16(state.at) & 0x0FFF;
    state.at += vlan_tag_size;
    if (mask.has(FLOW_MASK_VLAN_ID))
        state.h = key_step16(state.h, id);
    auto* vlan = block_at<vlan_block>(record, kestrel_vlan_offset);
    if (vlan && vlan->count < VLAN_BLOCK_IDS)
        vlan->id[vlan->count++] = id;
}

// A label stack at state.at. False when it runs past the captured bytes.
template <typename Mask>
bool mpls_stack(Mask mask, const checked_view& frame, parse_state& state, flow_record& record) {
    auto* mpls = block_at<mpls_block>(record, kestrel_mpls_offset);
    for (bool bottom = false; !bottom;) {
        if (state.at >= frame.captured)
            return false;
        const uint32_t entry = frame.be32(state.at) >> 8;
        state.at += mpls_entry_size;
        bottom = entry & 1;
        if (mpls && mpls->count < MPLS_BLOCK_ENTRIES)
            mpls->entry[mpls->count++] = entry;
        if (mask.has(FLOW_MASK_MPLS_ID))
            state.h = key_step32(state.h, entry);
    }
    return true;
}

// True when the byte below a label stack begins an IP header. Everything else is taken for an
// Ethernet pseudowire without control word (RFC 4448).
bool begins_ip(uint8_t byte) {
    return (byte >= 0x45 && byte <= 0x4F) || (byte >> 4) == 6;
}

bool is_ip(uint16_t type) {
    return type == ethertype_ipv4 || type == ethertype_ipv6;
}

// Walks tags and label stacks from the EtherType at state.at to the IP header.
template <typename Mask>
[[gnu::noinline]] parse_state tag_walk(Mask mask, const checked_view& frame, parse_state state,
                                       flow_record& record) {
    for (;;) {
        const uint16_t type = frame.be16(state.at);
        state.at += sizeof type;
        if (is_ip(type))
            return state;
        if (type == ethertype_vlan || type == ethertype_qinq || type == ethertype_qinq2) {
            vlan_tag(mask, frame, state, record);
        } else if (type == ethertype_mpls) {
            if (!mpls_stack(mask, frame, state, record))
                return {state.h, discarded_at(discard_reason::truncated)};
            if (begins_ip(frame.byte(state.at)))
                return state;
            state.at += mac_pair_size;
        } else {
            break;
        }
    }
    const bool is_type_whole = state.at <= frame.captured;
    return {state.h,
            discarded_at(is_type_whole ? discard_reason::not_ip : discard_reason::truncated)};
}

template <typename Mask>
[[gnu::always_inline]] inline parse_state link_layer(Mask mask, const checked_view& frame,
                                                     uint64_t h, flow_record& record) {
    if (is_ip(frame.be16(ethertype_offset))) [[likely]]
        return {h, ethertype_offset + sizeof(uint16_t)};
    return tag_walk(mask, frame, {h, ethertype_offset}, record);
}

// Reads one transport header at state.at and moves past it. False when it was an IPv6 extension
// header and the walk goes on.
template <typename Mask, typename View>
[[gnu::always_inline]] inline bool transport_header(Mask mask, const View& frame,
                                                    parse_state& state, flow_record& record) {
    const size_t t = state.at;
    const uint32_t ports = frame.template load<uint32_t>(t);
    record.srcport = byte_swap(static_cast<uint16_t>(ports));
    record.dstport = byte_swap(static_cast<uint16_t>(ports >> 16));
    switch (record.l4protocol) {
        case protocol_tcp:
            record.tcpflags = frame.byte(t + 13);
            state.at = t + 4u * (frame.byte(t + 12) >> 4);
            break;
        case protocol_udp:
            state.at = t + udp_header_size;
            break;
        case protocol_sctp:
            state.at = t + sctp_header_size;
            break;
        case protocol_icmp:
        case protocol_icmpv6:
            record.icmptypecode = record.srcport;
            if (mask.has(FLOW_MASK_ICMP))
                state.h = key_step16(state.h, record.icmptypecode);
            state.at = t + icmp_header_size;
            return true;
        default:
            return record.l3protocol != 6 || !is_ipv6_extension(record.l4protocol);
    }
    if (mask.has(FLOW_MASK_PORTS))
        state.h = key_step32(state.h, ports);
    return true;
}

// Walks IPv6 extension headers from state.at to the transport header.
//
// A header of length byte n is left by 8 * n bytes, not 8 * (n + 1), and a length byte of 0 ends
// the walk where it stands: the ports then hold the first bytes of that extension header. Flow keys
// depend on it, so it stays.
template <typename Mask>
[[gnu::noinline]] parse_state extension_headers(Mask mask, const checked_view& frame,
                                                parse_state state, flow_record& record) {
    do {
        record.l4protocol = frame.byte(state.at);
        const size_t step = size_t{8} * frame.byte(state.at + 1);
        state.at += step;
        if (step == 0 || state.at >= frame.captured)
            break;
    } while (!transport_header(mask, frame, state, record));
    return state;
}

// header_bytes: what its first byte says, which the caller has looked at. It is read once: frames
// may lie where others write.
template <typename Mask, typename View>
[[gnu::always_inline]] inline parse_state ipv4(Mask mask, const View& frame, parse_state state,
                                               flow_record& record, size_t header_bytes) {
    const size_t ip = state.at;
    const uint32_t source = frame.template load<uint32_t>(ip + 12);
    const uint32_t destination = frame.template load<uint32_t>(ip + 16);
    record.ipv4.srcipv4 = byte_swap(source);
    record.ipv4.dstipv4 = byte_swap(destination);
    record.ipv4.tos = frame.byte(ip + 1);
    record.l4protocol = frame.byte(ip + 9);
    record.bytes = frame.be16(ip + 2);
    if (mask.has(FLOW_MASK_IP)) {
        state.h = key_step32(state.h, source);
        state.h = key_step32(state.h, destination);
    }
    state.at = ip + header_bytes;
    if (frame.be16(ip + 6) & 0x3FFF) {  // more fragments, or a fragment offset
        record.srcport = 0;
        record.dstport = 0;
        record.tcpflags = 0;
        return state;
    }
    transport_header(mask, frame, state, record);
    return state;
}

// The 16 wire bytes of an address, reversed, into the record; and into the key as they came.
template <typename Mask, typename View>
[[gnu::always_inline]] inline void ipv6_address(Mask mask, const View& frame, size_t at,
                                                uint64_t& h, uint8_t* to) {
    for (size_t word = 0; word < 16; word += 4) {
        const uint32_t value = frame.template load<uint32_t>(at + word);
        store_native(to + 12 - word, byte_swap(value));
        if (mask.has(FLOW_MASK_IP))
            h = key_step32(h, value);
    }
}

template <typename Mask, typename View>
[[gnu::always_inline]] inline parse_state ipv6(Mask mask, const View& frame, parse_state state,
                                               flow_record& record) {
    const size_t ip = state.at;
    ipv6_address(mask, frame, ip + 8, state.h, record.ipv6.srcipv6);
    ipv6_address(mask, frame, ip + 24, state.h, record.ipv6.dstipv6);
    record.l4protocol = frame.byte(ip + 6);
    record.bytes = uint32_t{frame.be16(ip + 4)} + ipv6_header_size;
    state.at = ip + ipv6_header_size;
    if (!transport_header(mask, frame, state, record))
        state = extension_headers(mask, checked_view{frame.data, frame.captured}, state, record);
    return state;
}

// The IP header and what follows it; discarded when its version is neither 4 nor 6.
template <typename Mask>
[[gnu::always_inline]] inline parse_state network_layer(Mask mask, const checked_view& frame,
                                                        parse_state state, flow_record& record) {
    const unchecked_view whole{frame.data, frame.captured};
    const uint8_t first = frame.byte(state.at);
    const size_t left = frame.captured - std::min(state.at, frame.captured);
    record.l3protocol = first >> 4;
    if (record.l3protocol == 4) [[likely]] {
        const size_t header = size_t{4} * (first & 0x0F);
        if (header >= ipv4_header_min && left >= header + transport_bytes_read) [[likely]]
            return ipv4(mask, whole, state, record, header);
        return ipv4(mask, frame, state, record, header);
    }
    if (record.l3protocol == 6) {
        if (left >= ipv6_header_size + transport_bytes_read) [[likely]]
            return ipv6(mask, whole, state, record);
        return ipv6(mask, frame, state, record);
    }
    return {state.h,
            discarded_at(left == 0 ? discard_reason::truncated : discard_reason::ip_version)};
}

template <typename Mask>
inline uint32_t final_word(Mask mask, const flow_record& record) {
    uint32_t word = 0;
    if (mask.has(FLOW_MASK_INTERFACE))
        word = uint32_t{record.inputsnmp} << 16;
    if (mask.has(FLOW_MASK_L3_ID))
        word = (word + record.l3protocol) << 8;
    if (mask.has(FLOW_MASK_L4_ID))
        word += record.l4protocol;
    return word;
}

template <typename Mask>
inline flow_key parse(Mask mask, const uint8_t* data, uint32_t captured, flow_record& record) {
    last_position = {data, captured, 0};
    const checked_view frame{data, captured};
    uint64_t h = flow_key_start;
    if (mask.has(FLOW_MASK_MAC) || kestrel_mac_offset) [[unlikely]]
        h = mac_addresses(mask, frame, h, record);
    parse_state state = link_layer(mask, frame, h, record);
    if (is_discarded(state)) [[unlikely]]
        return static_cast<flow_key>(state.at);
    state = network_layer(mask, frame, state, record);
    if (is_discarded(state)) [[unlikely]]
        return static_cast<flow_key>(state.at);
    last_position.header_length = static_cast<uint32_t>(state.at);
    return key_finish(key_step32(state.h, final_word(mask, record)));
}

[[gnu::noinline]] flow_key parse_other_mask(const uint8_t* data, uint32_t captured,
                                            flow_record& record) {
    return parse(run_time_mask{flow_mask}, data, captured, record);
}

inline flow_key parse_frame(const uint8_t* data, uint32_t captured, flow_record& record) {
    if (flow_mask == FLOW_MASK_DEFAULT) [[likely]]
        return parse(fixed_mask<FLOW_MASK_DEFAULT>{}, data, captured, record);
    return parse_other_mask(data, captured, record);
}

// The key as plugins know it: why a frame is no flow is the program's own.
flow_key key_or_none(flow_key key) {
    return key < 0 ? key : 0;
}

}  // namespace

void parser_set_flow_mask(uint32_t mask) {
    flow_mask = mask;
}

packet_frame parser_position() {
    return last_position;
}

void parser_forget_position() {
    last_position = {};
}

packet_in_hand::packet_in_hand(const packet_frame& frame) {
    last_position = frame;
}

packet_in_hand::~packet_in_hand() {
    parser_forget_position();
}

flow_key parse_packet(const uint8_t* frame, const packet_header& header, uint32_t sampling,
                      flow_record& record) {
    record.start = header.timestamp;
    record.end = header.timestamp;
    record.inputsnmp = header.input_interface;
    record.outputsnmp = header.output_interface;
    record.sampling = static_cast<uint16_t>(sampling);
    return parse_frame(frame, header.captured_length, record);
}

}  // namespace kestrel

using namespace kestrel;

flow_key packet_to_flow_reader(void* reader, flow_record* record) {
    const auto& input = *static_cast<const packet_reader*>(reader);
    packet_header header{};
    const uint8_t* frame = input.get_packet(input.context, &header);
    return frame ? key_or_none(parse_packet(frame, header, input.sampling, *record)) : 0;
}

flow_key record_process_packet(const uint8_t* data, uint32_t captured_length, flow_record* record) {
    prepare_record(*record);
    record->inputsnmp = 0;
    record->outputsnmp = 0;
    record->sampling = 0;
    return key_or_none(parse_frame(data, captured_length, *record));
}

const uint8_t* get_packet_data(uint32_t* captured_length, uint32_t* header_length) {
    *captured_length = last_position.captured_length;
    *header_length = last_position.header_length;
    if (last_position.header_length > last_position.captured_length) {
        verbose_msg(2, "PACKET ERR");
        return nullptr;
    }
    return last_position.data;
}
