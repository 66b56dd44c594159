// One rtnetlink request and its answer; see network_link.h.
#include "network_link.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace af_packet {
namespace {

constexpr size_t answer_bytes = size_t{16} * 1024;  // some 2 KiB are usual

struct request {
    nlmsghdr header;
    ifinfomsg link;
    rtattr name_head;
    char name[IF_NAMESIZE];
};

template <typename T>
T load(const uint8_t* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

void take_attribute(uint16_t type, const uint8_t* value, size_t size, link_sight& sight) {
    if (type == IFLA_MTU && size >= sizeof(uint32_t))
        sight.mtu = load<uint32_t>(value);
    if (type == IFLA_IFALIAS && size > 0 && size <= sizeof sight.alias) {
        std::memcpy(sight.alias, value, size);
        sight.alias[size - 1] = '\0';  // the kernel's has one there
    }
    // Newer kernels have more counters at the end.
    constexpr size_t needed = offsetof(rtnl_link_stats64, rx_missed_errors) + sizeof(uint64_t);
    if (type == IFLA_STATS64 && size >= needed)
        sight.card_lost = load<uint64_t>(value + offsetof(rtnl_link_stats64, rx_missed_errors)) +
                          load<uint64_t>(value + offsetof(rtnl_link_stats64, rx_fifo_errors));
}

void take_attributes(const uint8_t* data, size_t size, link_sight& sight) {
    while (size >= sizeof(rtattr)) {
        const auto head = load<rtattr>(data);
        if (head.rta_len < sizeof(rtattr) || head.rta_len > size)
            return;
        take_attribute(head.rta_type, data + sizeof(rtattr), head.rta_len - sizeof(rtattr), sight);
        const size_t step = std::min<size_t>(RTA_ALIGN(head.rta_len), size);
        data += step;
        size -= step;
    }
}

request make_request(const char* name) {
    request made{};
    made.header.nlmsg_len = sizeof made;
    made.header.nlmsg_type = RTM_GETLINK;
    made.header.nlmsg_flags = NLM_F_REQUEST;
    made.link.ifi_family = AF_UNSPEC;
    made.name_head.rta_type = IFLA_IFNAME;
    made.name_head.rta_len = sizeof made.name_head + sizeof made.name;
    std::memcpy(made.name, name, std::strlen(name));
    return made;
}

}  // namespace

std::optional<link_sight> read_link_answer(const uint8_t* data, size_t size) {
    if (size < sizeof(nlmsghdr))
        return std::nullopt;
    const auto header = load<nlmsghdr>(data);
    if (header.nlmsg_len > size)
        return std::nullopt;
    if (header.nlmsg_type == NLMSG_ERROR &&
        header.nlmsg_len >= sizeof(nlmsghdr) + sizeof(nlmsgerr)) {
        const int error = load<nlmsgerr>(data + sizeof(nlmsghdr)).error;
        return error == -ENODEV ? std::optional(link_sight{}) : std::nullopt;
    }
    constexpr size_t fixed = sizeof(nlmsghdr) + sizeof(ifinfomsg);
    if (header.nlmsg_type != RTM_NEWLINK || header.nlmsg_len < fixed)
        return std::nullopt;
    const auto link = load<ifinfomsg>(data + sizeof(nlmsghdr));
    link_sight sight;
    sight.index = link.ifi_index;
    sight.is_up = (link.ifi_flags & IFF_UP) != 0;
    sight.hardware = link.ifi_type;
    take_attributes(data + fixed, header.nlmsg_len - fixed, sight);
    return sight;
}

std::optional<link_sight> look_at_link(const char* name) {
    if (std::strlen(name) >= IF_NAMESIZE)
        return link_sight{};
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (descriptor < 0)
        return std::nullopt;
    const request asked = make_request(name);
    alignas(8) uint8_t answer[answer_bytes];
    ssize_t size = -1;
    // The kernel answers before the request returns.
    if (send(descriptor, &asked, sizeof asked, 0) == ssize_t{sizeof asked})
        size = recv(descriptor, answer, sizeof answer, MSG_DONTWAIT);
    (void)close(descriptor);
    return size > 0 ? read_link_answer(answer, static_cast<size_t>(size)) : std::nullopt;
}

}  // namespace af_packet
