// Tests of the kernel's answers about an interface: messages as bytes, whole and broken.
#include "network_link.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

using af_packet::link_sight;
using af_packet::look_at_link;
using bytes = std::vector<uint8_t>;

template <typename T>
void append(bytes& to, const T& value) {
    const auto* const from = reinterpret_cast<const uint8_t*>(&value);
    to.insert(to.end(), from, from + sizeof value);
}

void append_attribute(bytes& to, uint16_t type, const bytes& value) {
    append(to, rtattr{static_cast<uint16_t>(sizeof(rtattr) + value.size()), type});
    to.insert(to.end(), value.begin(), value.end());
    to.resize(RTA_ALIGN(to.size()));
}

bytes finished(bytes message) {
    const auto size = static_cast<uint32_t>(message.size());
    std::memcpy(message.data(), &size, sizeof size);
    return message;
}

bytes error_message(int error) {
    bytes message;
    append(message, nlmsghdr{0, NLMSG_ERROR, 0, 0, 0});
    append(message, nlmsgerr{error, {}});
    return finished(message);
}

bytes link_message() {
    bytes message;
    append(message, nlmsghdr{0, RTM_NEWLINK, 0, 0, 0});
    append(message, ifinfomsg{AF_UNSPEC, 0, 1, 17, IFF_UP | IFF_RUNNING, 0});
    append_attribute(message, IFLA_IFNAME, {'e', 't', 'h', '0', 0});
    append_attribute(message, IFLA_MTU, {0xDC, 0x05, 0, 0});
    append_attribute(message, IFLA_IFALIAS, {'u', 'p', 0});
    rtnl_link_stats64 counters{};
    counters.rx_packets = 1000;
    counters.rx_dropped = 500;
    counters.rx_missed_errors = 30;
    counters.rx_fifo_errors = 4;
    bytes stats;
    append(stats, counters);
    append_attribute(message, IFLA_STATS64, stats);
    return finished(message);
}

// Each message lies in an allocation of its own size, so that the address sanitizer sees a byte
// read past its end.
std::optional<link_sight> read(const bytes& message) {
    const auto exact = std::make_unique<uint8_t[]>(message.size());
    std::copy(message.begin(), message.end(), exact.get());
    return af_packet::read_link_answer(exact.get(), message.size());
}

TEST(AfPacketLink, AnAnswerTellsOfTheInterface) {
    const auto sight = read(link_message());
    ASSERT_TRUE(sight);
    EXPECT_EQ(sight->index, 17);
    EXPECT_TRUE(sight->is_up);
    EXPECT_EQ(sight->hardware, 1);
    EXPECT_EQ(sight->mtu, 1500u);
    EXPECT_EQ(sight->card_lost, 34u);
    EXPECT_STREQ(sight->alias, "up");
}

TEST(AfPacketLink, AnAliasThatIsTooLongIsNone) {
    for (const size_t size : {af_packet::alias_size, af_packet::alias_size + 1}) {
        bytes message = link_message();
        append_attribute(message, IFLA_IFALIAS, bytes(size, 'x'));
        const auto sight = read(finished(message));
        ASSERT_TRUE(sight);
        const std::string longest(af_packet::alias_size - 1, 'x');
        EXPECT_EQ(sight->alias, size == af_packet::alias_size ? longest : "up");
    }
}

TEST(AfPacketLink, AnErrorIsNoInterfaceOrNoAnswer) {
    const auto missing = read(error_message(-ENODEV));
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->index, 0);
    EXPECT_FALSE(read(error_message(-EPERM)));
    EXPECT_FALSE(read(error_message(0)));
}

TEST(AfPacketLink, MessagesThatAreCutAnywhereAreRefusedOrReadAsFarAsTheyGo) {
    const bytes whole = link_message();
    for (size_t size = 0; size < whole.size(); ++size) {
        const bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_FALSE(read(cut)) << size;
        if (size < sizeof(nlmsghdr))
            continue;
        const auto sight = read(finished(cut));
        EXPECT_EQ(sight.has_value(), size >= sizeof(nlmsghdr) + sizeof(ifinfomsg)) << size;
        EXPECT_EQ(sight.value_or(link_sight{}).card_lost, 0u);
    }
    for (size_t size = 0; size < error_message(-ENODEV).size(); ++size) {
        bytes cut = error_message(-ENODEV);
        cut.resize(size);
        EXPECT_FALSE(read(size >= sizeof(nlmsghdr) ? finished(cut) : cut)) << size;
    }
}

TEST(AfPacketLink, AttributesOfImpossibleLengthsEndTheWalk) {
    for (const int wrong : {0, 3, 5, 200, 0xFFFF}) {
        const auto length = static_cast<uint16_t>(wrong);
        bytes message = link_message();
        std::memcpy(message.data() + sizeof(nlmsghdr) + sizeof(ifinfomsg), &length, sizeof length);
        const auto sight = read(message);
        ASSERT_TRUE(sight);
        EXPECT_EQ(sight->index, 17);
    }
}

TEST(AfPacketLink, LoopbackIsThereAndOthersAreNot) {
    const auto loopback = look_at_link("lo");
    ASSERT_TRUE(loopback);
    EXPECT_EQ(loopback->index, 1);
    EXPECT_EQ(loopback->hardware, 772);
    EXPECT_GT(loopback->mtu, 0u);
    for (const char* name : {"", "no-such-device", "a-name-longer-than-any-may-be"}) {
        const auto sight = look_at_link(name);
        EXPECT_TRUE(!sight || sight->index == 0) << name;
    }
}

}  // namespace
