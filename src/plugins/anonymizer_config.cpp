// The anonymizer's parameter text, read into its state. Main thread, while the program starts. May
// block: prefixes may be given as host names. Reports every fault itself.
#include "plugins/anonymizer_config.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/address.h"
#include "base/clock.h"
#include "base/log.h"
#include "base/split.h"
#include "base/wire.h"

namespace kestrel {
namespace {

// Where the list of "MASK:list" begins. Empty pieces in front of it are dropped, but for the two
// colons that an IPv6 address begins with.
const char* find_mask_list(const char* text) {
    const char* const mode = text + std::strspn(text, ":");
    const char* const rest = std::strchr(mode, ':') + 1;
    const char* const list = rest + std::strspn(rest, ":");
    if (list - rest < 2)
        return list;
    const std::string address(list, std::strcspn(list, "/,"));
    in_addr ipv4;
    in6_addr ipv6;
    const bool is_ipv6 = inet_pton(AF_INET, address.c_str(), &ipv4) != 1 &&
                         inet_pton(AF_INET6, ("::" + address).c_str(), &ipv6) == 1;
    return is_ipv6 ? list - 2 : list;
}

// The list ends where the next piece begins, at a ':' that is no part of an address: after the '/'
// of an item, or in front of an item on its own.
std::string mask_list(const char* text) {
    const char* const list = find_mask_list(text);
    bool is_address = true;
    const char* end = list;
    for (; *end != '\0'; ++end) {
        const bool is_address_start = end > list && end[-1] == ',';
        if (*end == ':' && (!is_address || (is_address_start && end[1] != ':')))
            break;
        if (*end == '/' || *end == ',')
            is_address = *end == ',';
    }
    return {list, end};
}

// A prefix length below the address's own; nothing is left of an address otherwise.
std::optional<uint32_t> prefix_length(const char* text, long limit) {
    const long bits = std::strtol(text, nullptr, 10);
    if (bits < 0 || bits >= limit) {
        verbose_msg(-1, "Bad bits number: %s", text);
        return std::nullopt;
    }
    return static_cast<uint32_t>(bits);
}

bool add_prefix4(anonymizer_state& to, const ip_address& address, const char* bits) {
    const std::optional<uint32_t> length = prefix_length(bits, 32);
    if (length)
        to.prefixes4.push_back(mask_prefix4{address.words[0], 32 - *length});
    return length.has_value();
}

// Every IPv6 prefix is written to the same place and counts as an IPv4 position without a prefix.
bool add_prefix6(anonymizer_state& to, const ip_address& address, const char* bits) {
    const std::optional<uint32_t> length = prefix_length(bits, 128);
    if (!length)
        return false;
    mask_prefix6 prefix = {{}, 128 - *length};
    std::memcpy(prefix.words, address.words, sizeof prefix.words);
    to.prefixes6.assign(1, prefix);
    to.prefixes4.push_back(std::nullopt);
    return true;
}

bool add_prefix(anonymizer_state& to, const char* item) {
    const split parts(item, '/');
    if (parts.size() < 2) {
        verbose_msg(-1, "Bad address format");
        return false;
    }
    const auto address = resolve_address(parts[0]);
    if (!address) {
        verbose_msg(-1, "bad address: %s", parts[0]);
        return false;
    }
    switch (address->family) {
        case AF_INET:
            return add_prefix4(to, *address, parts[1]);
        case AF_INET6:
            return add_prefix6(to, *address, parts[1]);
        default:
            verbose_msg(-1, "Unable to use addr: %s", parts[0]);
            return false;
    }
}

bool read_mask(anonymizer_state& to, const char* text) {
    const split list(mask_list(text).c_str(), ',');
    if (list.size() == 0) {
        verbose_msg(-1, "Bad formated address list");
        return false;
    }
    for (const char* item : list)
        if (!add_prefix(to, item))
            return false;
    return true;
}

bool open_cipher(anonymizer_state& to) {
    gcry_cipher_hd_t cipher = nullptr;
    if (gcry_check_version(nullptr) == nullptr ||
        gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0) != 0 ||
        gcry_cipher_open(&cipher, GCRY_CIPHER_AES128, GCRY_CIPHER_MODE_ECB, 0) != 0) {
        verbose_msg(-1, "Unable to init AES");
        return false;
    }
    to.cipher.reset(cipher);
    return true;
}

bool set_key(anonymizer_state& to, const char* text) {
    uint8_t key[anonymizer_key_size];
    if (text != nullptr) {
        if (std::strlen(text) != sizeof key) {
            verbose_msg(-1, "AES key must be exactly 16 characters length");
            return false;
        }
        std::memcpy(key, text, sizeof key);
    }
    const bool is_set = (text != nullptr || make_anonymizer_key(key)) &&
                        gcry_cipher_setkey(to.cipher.get(), key, sizeof key) == 0;
    explicit_bzero(key, sizeof key);
    if (!is_set)
        verbose_msg(-1, "Unable to set AES key");
    return is_set;
}

bool add_field(anonymizer_state& to, const char* name) {
    struct field_row {
        const char* name;
        uint32_t fields;
    };
    static constexpr field_row rows[] = {
        {"ADDR", field_source_address | field_destination_address},
        {"SRCADDR", field_source_address},
        {"DSTADDR", field_destination_address},
        {"PORT", field_source_port | field_destination_port},
        {"SRCPORT", field_source_port},
        {"DSTPORT", field_destination_port},
    };
    for (const field_row& row : rows) {
        if (std::strcmp(row.name, name) == 0) {
            to.fields |= row.fields;
            return true;
        }
    }
    verbose_msg(-1, "Unknown field: %s", name);
    return false;
}

bool read_aes(anonymizer_state& to, const char* list, const char* key) {
    const split fields(list, ',');
    if (!open_cipher(to) || !set_key(to, key))
        return false;
    if (fields.size() == 0) {
        verbose_msg(-1, "Blank or bad fields format");
        return false;
    }
    for (const char* field : fields)
        if (!add_field(to, field))
            return false;
    return true;
}

}  // namespace

std::optional<anonymizer_state> read_anonymizer_params(const char* text) {
    const split pieces(text, ':');
    if (pieces.size() < 2) {
        verbose_msg(-1, "Invalid anonymizer parameter: %s", text != nullptr ? text : "(null)");
        return std::nullopt;
    }
    std::optional<anonymizer_state> state(std::in_place);
    bool is_read = false;
    if (std::strcmp(pieces[0], "MASK") == 0) {
        state->mode = anonymizer_mode::mask;
        is_read = read_mask(*state, text);
    } else if (std::strcmp(pieces[0], "AES") == 0) {
        state->mode = anonymizer_mode::aes;
        is_read = read_aes(*state, pieces[1], pieces.at(2));
    } else {
        verbose_msg(-1, "Unknown anonymizer mode: %s", pieces[0]);
    }
    if (!is_read)
        state.reset();
    return state;
}

bool make_anonymizer_key(uint8_t (&key)[anonymizer_key_size]) {
    if (getrandom(key, sizeof key, 0) != static_cast<ssize_t>(sizeof key))
        return false;
    store_native(key, timer_get_nsec());
    store_native(key + 10, static_cast<uint32_t>(getpid()));
    return true;
}

}  // namespace kestrel
