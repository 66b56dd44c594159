// Interface requests and rtnetlink messages; see network_link.h.
#include "input/network_link.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kestrel {
namespace {

constexpr size_t padded(size_t size) {
    return (size + 3) & ~size_t{3};
}

template <typename T>
T load(const uint8_t* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

// The interface's name among its attributes, if it is there as a whole.
void read_name(const uint8_t* data, size_t size, link_event& event) {
    while (size >= sizeof(rtattr)) {
        const auto attribute = load<rtattr>(data);
        if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > size)
            return;
        const size_t length = attribute.rta_len - sizeof(rtattr);
        if (attribute.rta_type == IFLA_IFNAME && length <= sizeof event.name) {
            std::memcpy(event.name, data + sizeof(rtattr), length);
            event.name[sizeof event.name - 1] = '\0';
            return;
        }
        const size_t step = std::min(padded(attribute.rta_len), size);
        data += step;
        size -= step;
    }
}

}  // namespace

std::optional<link_sight> look_at_link(const char* name) {
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return std::nullopt;
    ifreq request{};
    (void)snprintf(request.ifr_name, sizeof request.ifr_name, "%s", name);
    link_sight sight;
    bool is_told = ioctl(descriptor, SIOCGIFINDEX, &request) == 0;
    if (is_told) {
        sight.index = request.ifr_ifindex;
        is_told = ioctl(descriptor, SIOCGIFFLAGS, &request) == 0;
        sight.is_up = (request.ifr_flags & IFF_UP) != 0;
        sight.is_loopback = (request.ifr_flags & IFF_LOOPBACK) != 0;
    }
    if (is_told) {
        is_told = ioctl(descriptor, SIOCGIFHWADDR, &request) == 0;
        sight.hardware = request.ifr_hwaddr.sa_family;
    }
    const bool is_missing = !is_told && errno == ENODEV;
    (void)close(descriptor);
    if (is_missing)
        return link_sight{};
    return is_told ? std::optional(sight) : std::nullopt;
}

size_t read_link_message(const uint8_t* data, size_t size, link_event& event) {
    if (size < sizeof(nlmsghdr))
        return 0;
    const auto header = load<nlmsghdr>(data);
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > size)
        return 0;
    const bool is_link = header.nlmsg_type == RTM_NEWLINK || header.nlmsg_type == RTM_DELLINK;
    constexpr size_t fixed = sizeof(nlmsghdr) + sizeof(ifinfomsg);
    if (is_link && header.nlmsg_len >= fixed) {
        const auto link = load<ifinfomsg>(data + sizeof(nlmsghdr));
        // Members of a bridge have messages of their own kind, under the same types.
        if (link.ifi_family == AF_UNSPEC) {
            event = {};
            event.index = link.ifi_index;
            event.is_removed = header.nlmsg_type == RTM_DELLINK;
            event.is_up = (link.ifi_flags & IFF_UP) != 0;
            read_name(data + fixed, header.nlmsg_len - fixed, event);
        }
    }
    return std::min(padded(header.nlmsg_len), size);
}

bool link_events::open() {
    descriptor_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (descriptor_ >= 0 &&
        bind(descriptor_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        close();
    return descriptor_ >= 0;
}

void link_events::close() {
    if (descriptor_ >= 0)
        (void)::close(descriptor_);
    descriptor_ = -1;
}

// A report that some were lost is passed over; what comes after it is there.
bool link_events::receive() {
    used_ = filled_ = 0;
    if (descriptor_ < 0)
        return false;
    ssize_t size;
    do
        size = recv(descriptor_, buffer_, sizeof buffer_, 0);
    while (size < 0 && (errno == EINTR || errno == ENOBUFS));
    filled_ = size > 0 ? static_cast<size_t>(size) : 0;
    return filled_ > 0;
}

bool link_events::next(link_event& event) {
    event = {};
    while (event.index == 0) {
        if (used_ == filled_ && !receive())
            return false;
        const size_t length = read_link_message(buffer_ + used_, filled_ - used_, event);
        used_ = length != 0 ? used_ + length : filled_;
    }
    return true;
}

}  // namespace kestrel
