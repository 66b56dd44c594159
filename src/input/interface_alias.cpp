// One request and its answer; see interface_alias.h.
#include "input/interface_alias.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/wire.h"

namespace kestrel {
namespace {

constexpr size_t answer_bytes = size_t{16} * 1024;  // some 2 KiB are usual

struct request {
    nlmsghdr header;
    ifinfomsg link;
    rtattr name_head;
    char name[IF_NAMESIZE];
};

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

interface_alias read_alias_answer(const uint8_t* data, size_t size) {
    interface_alias alias;
    constexpr size_t fixed = sizeof(nlmsghdr) + sizeof(ifinfomsg);
    if (size < fixed)
        return alias;
    const auto header = load_native<nlmsghdr>(data);
    if (header.nlmsg_type != RTM_NEWLINK || header.nlmsg_len < fixed || header.nlmsg_len > size)
        return alias;
    for (size_t at = fixed; header.nlmsg_len - at >= sizeof(rtattr);) {
        const auto head = load_native<rtattr>(data + at);
        if (head.rta_len < sizeof(rtattr) || head.rta_len > header.nlmsg_len - at)
            break;
        const size_t length = head.rta_len - sizeof(rtattr);
        if (head.rta_type == IFLA_IFALIAS && length > 0 && length <= sizeof alias.text) {
            std::memcpy(alias.text, data + at + sizeof(rtattr), length);
            alias.text[length - 1] = '\0';  // the kernel's has one there
        }
        at += std::min<size_t>(RTA_ALIGN(head.rta_len), header.nlmsg_len - at);
    }
    return alias;
}

interface_alias look_up_alias(const char* name) {
    if (std::strlen(name) >= IF_NAMESIZE)
        return {};
    const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (descriptor < 0)
        return {};
    const request asked = make_request(name);
    alignas(8) uint8_t answer[answer_bytes];
    ssize_t size = -1;
    // The kernel answers before the request returns.
    if (send(descriptor, &asked, sizeof asked, 0) == ssize_t{sizeof asked})
        size = recv(descriptor, answer, sizeof answer, MSG_DONTWAIT);
    (void)close(descriptor);
    return size > 0 ? read_alias_answer(answer, static_cast<size_t>(size)) : interface_alias{};
}

}  // namespace kestrel
