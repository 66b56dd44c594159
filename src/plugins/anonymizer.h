// The "anonymizer": what its parameters become, and the steps of its modes. Built at start-up by
// anonymizer_config, used on the record loop's thread, never changed in between.
#pragma once

#include <gcrypt.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace kestrel {

enum class anonymizer_mode : uint32_t { mask = 1, aes = 2 };

enum anonymizer_field : uint32_t {
    field_source_address = 1,
    field_destination_address = 2,
    field_source_port = 4,
    field_destination_port = 8,
};

struct mask_prefix4 {
    uint32_t address;  // host bits written here show through
    uint32_t keep;     // low-order bits kept of a flow's address, 1..32; 32 keeps none
};

struct mask_prefix6 {
    uint32_t words[4];  // as in records: least significant first
    uint32_t keep;      // 1..128
};

struct close_cipher {
    void operator()(gcry_cipher_hd_t cipher) const { gcry_cipher_close(cipher); }
};
using cipher_handle = std::unique_ptr<gcry_cipher_handle, close_cipher>;

uint32_t masked(uint32_t address, const mask_prefix4& prefix);
void mask_address6(uint8_t (&address)[16], const mask_prefix6& prefix);

}  // namespace kestrel

struct anonymizer_state {
    kestrel::anonymizer_mode mode;

    // MASK. One prefix is drawn for each flow. IPv6 prefixes are read and checked but not put to
    // use: each counts as an IPv4 position that holds nothing, count6 stays 0, and all are written
    // to the same first place.
    std::vector<kestrel::mask_prefix6> prefixes6;
    uint32_t count6 = 0;
    std::vector<std::optional<kestrel::mask_prefix4>> prefixes4;

    // AES
    uint32_t fields = 0;            // sum of anonymizer_field
    kestrel::cipher_handle cipher;  // AES-128, ECB, with its key
};
