// Binding and leaving; see packet_socket.h.
#include "input/packet_socket.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

namespace kestrel {
namespace {

// Whether the interface is asked for the frames that are for others. What it answers changes
// nothing: then there are only ours.
void set_promiscuous(int descriptor, int index, bool is_wanted) {
    packet_mreq request{};
    request.mr_ifindex = index;
    request.mr_type = PACKET_MR_PROMISC;
    (void)setsockopt(descriptor, SOL_PACKET,
                     is_wanted ? PACKET_ADD_MEMBERSHIP : PACKET_DROP_MEMBERSHIP, &request,
                     sizeof request);
}

}  // namespace

bool packet_socket_bind(int descriptor, int index) {
    // What the socket has still to tell is about the interface before: that it went away.
    int old_error = 0;
    socklen_t size = sizeof old_error;
    (void)getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &old_error, &size);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = index;
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return false;
    set_promiscuous(descriptor, index, true);
    const int unused = 0;
    (void)setsockopt(descriptor, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused);
    return true;
}

// By a filter that takes nothing: a socket that is bound to no interface takes the frames of all.
void packet_socket_leave(int descriptor, int index) {
    sock_filter nothing = BPF_STMT(BPF_RET | BPF_K, 0);
    const sock_fprog program = {1, &nothing};
    (void)setsockopt(descriptor, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program);
    set_promiscuous(descriptor, index, false);
}

}  // namespace kestrel
