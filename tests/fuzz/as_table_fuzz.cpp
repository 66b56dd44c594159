// AS tables: any content. Input: the file.
#include <netdb.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "kestrelexp/service.h"
#include "plugins/as_table_file.h"
#include "tests/fuzz/fuzz_target.h"
#include "tests/model/as_model.h"

namespace {

using namespace kestrel;
using kestrel_model::address_words;
using kestrel_model::as_model;
using kestrel_model::as_network;

std::string path_of(const uint8_t* data, size_t size) {
    static const int file = memfd_create("as", MFD_CLOEXEC);
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size))
        kestrel_fuzz::fail("no file");
    return "/proc/self/fd/" + std::to_string(file);
}

std::vector<std::string> lines_of(const char* path) {
    std::vector<std::string> lines;
    char** read = read_config(path);
    for (char** line = read; *line; ++line) {
        lines.emplace_back(*line);
        free(*line);
    }
    free(read);
    return lines;
}

std::optional<address_words> address_of(const std::string& text) {
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    if (getaddrinfo(text.c_str(), nullptr, &hints, &found) != 0)
        return std::nullopt;
    address_words words;
    if (found->ai_family == AF_INET) {
        words.push_back(ntohl(reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_addr.s_addr));
    } else {
        const auto* six = reinterpret_cast<sockaddr_in6*>(found->ai_addr);
        for (size_t i = 4; i-- > 0;) {
            uint32_t word_be;
            std::memcpy(&word_be, six->sin6_addr.s6_addr + 4 * i, sizeof word_be);
            words.push_back(ntohl(word_be));
        }
    }
    freeaddrinfo(found);
    return words;
}

std::optional<as_network> network_of(const std::string& line) {
    const size_t dash = line.find('-');
    const size_t slash = line.find('/');
    if (dash == std::string::npos || slash == std::string::npos)
        return std::nullopt;
    // What begins after a separator ends at the other one, or with the line.
    const auto after = [&line](size_t separator, size_t other) {
        return other > separator ? line.substr(separator + 1, other - separator - 1)
                                 : line.substr(separator + 1);
    };
    const std::optional<address_words> address = address_of(after(dash, slash));
    if (!address)
        return std::nullopt;
    const std::string number = line.substr(0, std::min(dash, slash));
    const std::string prefix = after(slash, dash);
    const long most = static_cast<long>(32 * address->size());
    const long length = std::min(std::strtol(prefix.c_str(), nullptr, 10) & 0xFFFF, most);
    return as_network{static_cast<uint32_t>(std::strtol(number.c_str(), nullptr, 10)), *address,
                      static_cast<unsigned>(length)};
}

uint32_t find(const as_tables& tables, const address_words& address) {
    if (address.size() == 1)
        return find_as4(tables.table4, address[0]);
    uint8_t bytes[16];
    std::memcpy(bytes, address.data(), sizeof bytes);
    return find_as6(tables.table6, bytes);
}

// Each network's own address, and a neighbour of it.
void check_search(const as_tables& tables, const std::vector<as_network>& networks) {
    as_model models[2];
    for (const as_network& network : networks)
        models[network.address.size() == 1 ? 0 : 1].add(network);
    for (const as_network& network : networks) {
        const as_model& model = models[network.address.size() == 1 ? 0 : 1];
        address_words neighbour = network.address;
        neighbour[network.number % neighbour.size()] ^= uint32_t{1} << (network.prefix_length % 32);
        if (find(tables, network.address) != model.find(network.address) ||
            find(tables, neighbour) != model.find(neighbour))
            kestrel_fuzz::fail("another AS number");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    verbose_level = -2;
    const std::string path = path_of(data, size);
    std::vector<as_network> networks;
    bool is_faulty = false;
    for (const std::string& line : lines_of(path.c_str())) {
        const std::optional<as_network> network = network_of(line);
        if (!network) {
            is_faulty = true;
            break;
        }
        networks.push_back(*network);
    }
    as_tables tables;
    const as_file outcome = read_as_tables(path.c_str(), tables);
    if (outcome != (is_faulty ? as_file::faulty : as_file::loaded))
        kestrel_fuzz::fail("another outcome");
    if (is_faulty)
        return 0;
    if (tables.table4.size() + tables.table6.size() != networks.size())
        kestrel_fuzz::fail("another number of networks");
    check_search(tables, networks);
    return 0;
}
