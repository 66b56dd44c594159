// The anonymizer's parameters: any text. Input: the text up to its first NUL. Texts with host names
// are left out: they would be looked up.
#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "kestrelexp/builtin.h"
#include "kestrelexp/record.h"
#include "kestrelexp/service.h"
#include "plugins/anonymizer_config.h"
#include "tests/fuzz/fuzz_target.h"

namespace {

using namespace kestrel;
using pieces = std::vector<std::string>;

// What stands between separators, without what is empty.
pieces split_plainly(const std::string& text, char separator) {
    pieces result(1);
    for (const char c : text) {
        if (c == separator)
            result.emplace_back();
        else
            result.back() += c;
    }
    std::erase(result, "");
    return result;
}

// 4 or 6; 0: neither, or a name.
int family_of(const std::string& address) {
    addrinfo hints = {};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), nullptr, &hints, &found) != 0)
        return 0;
    const int family = found->ai_family == AF_INET ? 4 : 6;
    freeaddrinfo(found);
    return family;
}

struct verdict {
    bool has_name = false;
    bool is_accepted = false;
    std::vector<bool> is_ipv4;  // by position
    uint32_t fields = 0;
};

// The items of a MASK text, as users write them: colons belong to an address, so to what stands in
// front of a '/'; any other colon ends the list, or is an empty piece in front of it.
pieces mask_items(const std::string& text) {
    std::string rest = text.substr(text.find("MASK:") + 5);
    const size_t colons = rest.find_first_not_of(':');
    rest.erase(0, colons);
    const std::string first = rest.substr(0, rest.find_first_of("/,"));
    const bool is_ipv4 =
        first.find('.') != std::string::npos && first.find(':') == std::string::npos;
    in6_addr ipv6;
    if (colons >= 2 && !is_ipv4 && inet_pton(AF_INET6, ("::" + first).c_str(), &ipv6) == 1)
        rest.insert(0, "::");

    pieces items;
    for (const std::string& item : split_plainly(rest, ',')) {
        if (!items.empty() && item.front() == ':' && !item.starts_with("::"))
            break;
        const size_t slash = item.find('/');
        const size_t colon = slash == std::string::npos ? slash : item.find(':', slash);
        items.push_back(item.substr(0, colon));
        if (colon != std::string::npos)
            break;
    }
    return items;
}

verdict judge_mask(const std::string& text) {
    verdict v;
    const pieces items = mask_items(text);
    for (const std::string& item : items) {
        const pieces parts = split_plainly(item, '/');
        if (parts.size() < 2)
            return v;
        const int family = family_of(parts[0]);
        if (family == 0) {
            v.has_name = true;
            return v;
        }
        const long bits = std::strtol(parts[1].c_str(), nullptr, 10);
        if (bits < 0 || bits > (family == 4 ? 31 : 127))
            return v;
        v.is_ipv4.push_back(family == 4);
    }
    v.is_accepted = !items.empty();
    return v;
}

verdict judge_aes(const pieces& parts) {
    verdict v;
    const pieces fields = split_plainly(parts[1], ',');
    if ((parts.size() > 2 && parts[2].size() != 16) || fields.empty())
        return v;
    for (const std::string& field : fields) {
        const bool is_addr = field == "ADDR", is_port = field == "PORT";
        v.fields |= is_addr || field == "SRCADDR" ? 1u : 0u;
        v.fields |= is_addr || field == "DSTADDR" ? 2u : 0u;
        v.fields |= is_port || field == "SRCPORT" ? 4u : 0u;
        v.fields |= is_port || field == "DSTPORT" ? 8u : 0u;
        if (!is_addr && !is_port && field != "SRCADDR" && field != "DSTADDR" &&
            field != "SRCPORT" && field != "DSTPORT")
            return v;
    }
    v.is_accepted = true;
    return v;
}

verdict judge(const std::string& text) {
    const pieces parts = split_plainly(text, ':');
    if (parts.size() < 2)
        return {};
    if (parts[0] == "MASK")
        return judge_mask(text);
    return parts[0] == "AES" ? judge_aes(parts) : verdict{};
}

flow_record some_flow(uint8_t version) {
    flow_record flow;
    std::memset(&flow, 0x5A, sizeof flow);
    flow.l3protocol = version;
    flow.l4protocol = 6;
    return flow;
}

// Nothing that was not chosen may change; whether what was chosen does is for the unit tests.
void check_flow(anonymizer_state& state, const verdict& v, uint8_t version) {
    const flow_record before = some_flow(version);
    flow_record after = before;
    if (anonymizer_process(&state, &after) != 0)
        kestrel_fuzz::fail("the flow was not kept");
    flow_record allowed = before;
    if ((v.fields & 1) != 0 || (!v.is_ipv4.empty() && version == 4))
        std::memcpy(allowed.ipv6.srcipv6, after.ipv6.srcipv6, version == 4 ? 4 : 16);
    if (version == 4 && ((v.fields & 2) != 0 || !v.is_ipv4.empty()))
        allowed.ipv4.dstipv4 = after.ipv4.dstipv4;
    if (version == 6 && (v.fields & 2) != 0)
        std::memcpy(allowed.ipv6.dstipv6, after.ipv6.dstipv6, 16);
    if ((v.fields & 4) != 0)
        allowed.srcport = after.srcport;
    if ((v.fields & 8) != 0)
        allowed.dstport = after.dstport;
    if (std::memcmp(&allowed, &after, sizeof after) != 0)
        kestrel_fuzz::fail("more than the chosen fields changed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    verbose_level = -2;
    const auto* start = reinterpret_cast<const char*>(data);
    const std::string text(start, strnlen(start, size));
    const verdict expected = judge(text);
    if (expected.has_name)
        return 0;
    std::optional<anonymizer_state> state = read_anonymizer_params(text.c_str());
    if (state.has_value() != expected.is_accepted)
        kestrel_fuzz::fail("another verdict");
    if (!state)
        return 0;
    if (state->fields != expected.fields || state->prefixes4.size() != expected.is_ipv4.size())
        kestrel_fuzz::fail("other fields or positions");
    for (size_t i = 0; i < state->prefixes4.size(); ++i)
        if (state->prefixes4[i].has_value() != expected.is_ipv4[i])
            kestrel_fuzz::fail("another kind of position");
    check_flow(*state, expected, 4);
    check_flow(*state, expected, 6);
    return 0;
}
