#include "tests/model/rule_generator.h"

namespace kestrel_model {

namespace {

// A label of 64 letters is no name, so nobody is asked for it.
const std::string no_host(64, 'x');

}  // namespace

std::string rule_generator::side() {
    return pick({"", "src ", "dst ", "src ", "dst "});
}

std::string rule_generator::host4() {
    if (one_in(4))
        return std::to_string(below(256)) + "." + std::to_string(below(256)) + "." +
               std::to_string(below(256)) + "." + std::to_string(below(256));
    return pick({"0.0.0.0", "0.0.0.1", "10.0.0.0", "10.0.0.1", "10.0.0.255", "10.0.1.0",
                 "10.255.255.255", "11.0.0.0", "127.255.255.255", "128.0.0.0", "192.0.2.1",
                 "192.0.2.200", "255.255.255.254", "255.255.255.255", "10.1"});
}

std::string rule_generator::host6() {
    if (one_in(4)) {
        char text[64];
        snprintf(text, sizeof text, "2001:db8:%x:%x:%x:%x:%x:%x", below(3), below(65536),
                 below(65536), below(3), below(65536), below(65536));
        return text;
    }
    return pick({"::", "::1", "::ffff:0", "2001:db8::", "2001:db8::1", "2001:db8::ffff:ffff",
                 "2001:db8:0:1::", "2001:db8:0:1::1", "2001:db8:ffff:ffff::1",
                 "2001:db9::", "8000::", "fe80::1", "0:0:1::", "1:2:3:4:5:6:7:8", "::ffff:10.0.0.1",
                 "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
                 "ffff:ffff:ffff:ffff:7fff:ffff:ffff:fffe"});
}

std::string rule_generator::address() {
    const bool four = families_ == 0 ? one_in(2) : families_ == 1;
    const std::string host = four ? host4() : host6();
    switch (below(6)) {
        case 0:
            return host;
        case 1:
            return host + "-" + (four ? host4() : host6());  // the higher one may stand first
        case 2:
            return host + "/" + pick({"0", "1", "8", "31", "32"});
        default:
            return host + "/" + std::to_string(below(four ? 33 : 129));
    }
}

std::string rule_generator::range(uint32_t limit) {
    const uint32_t low = below(limit);
    switch (below(5)) {
        case 0:
            return std::to_string(low);
        case 1:
            return std::to_string(low) + "-MAX";
        case 2:
            return pick({"0", "0-0", "1-65535", "65535", "65536", "0-100", "3000000000",
                         "4294967295", "0-MAX", "99999999999", "abc-def", "5-5-1"});
        default:
            return std::to_string(low) + "-" + std::to_string(low + below(limit - low));
    }
}

std::string rule_generator::ports() {
    return one_in(4) ? pick({"ssh", "domain", "http", "53", "0-1023", "1024-MAX"}) : range(65536);
}

std::string rule_generator::group() {
    switch (below(14)) {
        case 0:
        case 1:
        case 2:
        case 3:
            return side() + "addr " + address();
        case 4:
        case 5:
        case 6:
            return side() + "port " + ports();
        case 7:
            return "vlan " + range(4096);
        case 8:
            return one_in(3) ? "phy " + std::to_string(below(4)) : "";
        case 9:
            return one_in(3) ? "packets " + std::to_string(below(2000)) + "-" +
                                   std::to_string(2000 + below(3000))
                             : "";
        case 10:
            return one_in(3) ? "bytes " + range(1u << (1 + below(20))) : "";
        case 11:
        case 12:
            return side() + "proto " + pick({"tcp", "udp", "icmp", "6", "17", "132", "1", "262"});
        default:
            return side() + "ipproto " + pick({"ipv4", "ipv6"});
    }
}

std::string rule_generator::fast_rule() {
    std::string rule = one_in(5) ? "fast not" : "fast";
    const uint32_t groups = 1 + below(3);
    for (uint32_t i = 0; i < groups; ++i)
        rule += " " + (one_in(12) ? "" : pick({"src ", "dst ", "src "})) + "addr " + address();
    return rule;
}

std::string rule_generator::slow_rule() {
    if (one_in(12))
        return pick({"any", "not any", "not", " any "});
    std::string rule = one_in(3) ? "not" : "";
    const uint32_t groups = 1 + below(4);
    for (uint32_t i = 0; i < groups; ++i)
        rule += " " + group();
    return rule;
}

std::string rule_generator::faulty_rule() {
    return pick({"fast",
                 "fast not",
                 "fast src",
                 "fast addr",
                 "fast not not addr 10.0.0.1",
                 "fast src port 53",
                 "fast src addr " + no_host,
                 "fast src addr 10.0.0.0/33",
                 "fast destination addr 10.0.0.1",
                 "any port 80",
                 "not any any",
                 "src addr",
                 "src src addr 10.0.0.1",
                 "port",
                 "port 80-",
                 "port -80",
                 "vlan ssh",
                 "vlan 5-4",
                 "bytes 3000000000-5",
                 "packets x",
                 "src vlan 5",
                 "dst phy 1",
                 "src packets 1",
                 "dst bytes 1",
                 "proto nosuchproto",
                 "ipproto ipv5",
                 "ipproto 4",
                 "nonsense 1",
                 "addr 10.0.0.0/8/8",
                 "addr /8",
                 "addr 10.0.0.1-",
                 "addr 10.0.0.1-10.0.0.2-10.0.0.3",
                 "addr 10.0.0.1-::1",
                 "addr ::1-10.0.0.1",
                 "addr ::/129",
                 "addr " + no_host,
                 "addr 10.0.0.1-" + no_host,
                 "port nosuchservice",
                 "Any",
                 "FAST src addr 10.0.0.1",
                 "any\tport 80"});
}

std::vector<std::string> rule_generator::file() {
    constexpr uint32_t lengths[] = {0, 1, 2, 3, 5, 8, 20, 60, 200};
    spoilt_ = one_in(8);
    families_ = below(3);
    const uint32_t length = lengths[below(9)];
    const uint32_t fast_share = below(3);  // of 2
    const uint32_t fault = spoilt_ ? below(length + 1) : length + 1;
    std::vector<std::string> lines;
    for (uint32_t i = 0; i <= length; ++i) {
        if (i == fault)
            lines.push_back(faulty_rule());
        if (one_in(20))
            lines.push_back(pick({"", "   ", "#any", "not any #", "a"}));
        if (i < length)
            lines.push_back(below(2) < fast_share ? fast_rule() : slow_rule());
    }
    return lines;
}

}  // namespace kestrel_model
