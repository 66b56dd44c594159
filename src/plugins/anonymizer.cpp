// The "anonymizer" filter plugin: rewrites the addresses and ports of finished flows, by putting
// prefixes in front of them (MASK) or by encrypting them (AES). Record loop thread only. It keeps
// every flow, allocates nothing, and changes nothing but the record.
#include "plugins/anonymizer.h"

#include <algorithm>
#include <cstring>

#include "base/log.h"
#include "base/memory.h"
#include "base/wire.h"
#include "kestrelexp/builtin.h"
#include "kestrelexp/record.h"
#include "plugins/anonymizer_config.h"
#include "record/protocols.h"

namespace kestrel {
namespace {

constexpr plugin_description description = {
    "anonymizer",
    // "ALL" is no field: operators name what they mean to hide.
    "Anonymizer hide some flow fields using masking or AES128 cipher to make anonymized flow "
    "data.\n"
    "Parameter is mode with it's parameters.\n"
    "Anonymizer modes are:\n"
    " MASK:addr1/mask[,addr2/mask,...addrN/mask]\n"
    " AES:field1[,field2,...,fieldN][:KEY]\n"
    " (fields:ALL (all fields), SRCADDR, DSTADDR, ADDR (both address), SRCPORT, DSTPORT, PORT "
    "(both ports))",
    0, FILTER_WHOLE_PARAMS};

constexpr uint32_t both_addresses = field_source_address | field_destination_address;
constexpr uint32_t both_ports = field_source_port | field_destination_port;
constexpr size_t block_size = 16;

constexpr uint32_t low_bits(uint32_t count) {
    return (uint32_t{1} << count) - 1;
}

void mask_flow(const anonymizer_state& self, flow_record& flow) {
    if (flow.l3protocol == 4 && !self.prefixes4.empty()) {
        // The same prefix for both addresses. A position that an IPv6 prefix counted holds none.
        const auto& prefix = self.prefixes4[timer_get_rnd() % self.prefixes4.size()];
        if (prefix) {
            flow.ipv4.dstipv4 = masked(flow.ipv4.dstipv4, *prefix);
            flow.ipv4.srcipv4 = masked(flow.ipv4.srcipv4, *prefix);
        }
    } else if (flow.l3protocol == 6 && self.count6 != 0) {
        const mask_prefix6& prefix = self.prefixes6[timer_get_rnd() % self.count6];
        mask_address6(flow.ipv6.dstipv6, prefix);
        mask_address6(flow.ipv6.srcipv6, prefix);
    }
}

void encrypt(const anonymizer_state& self, uint8_t (&block)[block_size]) {
    if (gcry_cipher_encrypt(self.cipher.get(), block, block_size, nullptr, 0) != 0)
        die(exit_cipher, "libgcrypt error. exiting");
}

// Numbers that are encrypted together: value i lies at byte at[i] of one block, least significant
// byte first, when its field is chosen. Each result depends on all chosen values.
template <typename Number>
void encrypt_together(const anonymizer_state& self, Number* const (&values)[2],
                      const uint32_t (&fields)[2], const size_t (&at)[2]) {
    uint8_t block[block_size] = {};
    for (size_t i = 0; i < 2; ++i)
        if ((self.fields & fields[i]) != 0)
            store_native(block + at[i], *values[i]);
    encrypt(self, block);
    for (size_t i = 0; i < 2; ++i)
        if ((self.fields & fields[i]) != 0)
            *values[i] = load_native<Number>(block + at[i]);
}

void encrypt_flow(const anonymizer_state& self, flow_record& flow) {
    if (flow.l3protocol == 4) {
        if ((self.fields & both_addresses) != 0)
            encrypt_together<uint32_t>(self, {&flow.ipv4.srcipv4, &flow.ipv4.dstipv4},
                                       {field_source_address, field_destination_address}, {0, 4});
    } else if (flow.l3protocol == 6) {
        if ((self.fields & field_source_address) != 0)
            encrypt(self, flow.ipv6.srcipv6);
        if ((self.fields & field_destination_address) != 0)
            encrypt(self, flow.ipv6.dstipv6);
    } else {
        return;
    }
    if ((self.fields & both_ports) != 0 && has_ports(flow.l4protocol))
        encrypt_together<uint16_t>(self, {&flow.srcport, &flow.dstport},
                                   {field_source_port, field_destination_port}, {4, 10});
}

}  // namespace

uint32_t masked(uint32_t address, const mask_prefix4& prefix) {
    return (address & low_bits(prefix.keep % 32)) | prefix.address;
}

// One word is mixed of prefix and address, the words above it are replaced, those below it stay.
// The mixed word moves down as more bits are kept: 8 kept bits mix word 3, 127 kept bits word 0.
void mask_address6(uint8_t (&address)[16], const mask_prefix6& prefix) {
    uint32_t words[4];
    std::memcpy(words, address, sizeof words);
    const uint32_t mixed = 3 - std::min(prefix.keep / 32, uint32_t{3});
    words[mixed] = (words[mixed] & low_bits(prefix.keep % 32)) | prefix.words[mixed];
    for (uint32_t i = mixed + 1; i < 4; ++i)
        words[i] = prefix.words[i];
    std::memcpy(address, words, sizeof words);
}

}  // namespace kestrel

using namespace kestrel;

const struct plugin_description* anonymizer_desc(void) {
    return &description;
}

void* anonymizer_init(char* params, struct getter**) {
    std::optional<anonymizer_state> state = read_anonymizer_params(params);
    if (!state)
        return nullptr;
    verbose_msg(0, "Anonymizer OK");
    return make_lifelong<anonymizer_state>(std::move(*state));
}

int32_t anonymizer_process(void* instance, struct flow_record* record) {
    const auto& self = *static_cast<const anonymizer_state*>(instance);
    switch (self.mode) {
        case anonymizer_mode::mask:
            mask_flow(self, *record);
            break;
        case anonymizer_mode::aes:
            encrypt_flow(self, *record);
            break;
        default:
            die(exit_config, "Internal anonymizer error");
    }
    return 0;
}
