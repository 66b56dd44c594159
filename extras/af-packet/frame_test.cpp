// Tests of frames as the kernel puts them into the ring: bytes and status words laid out by hand.
#include "frame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;

bytes operator+(const bytes& a, const bytes& b) {
    bytes sum = a;
    sum.insert(sum.end(), b.begin(), b.end());
    return sum;
}

const bytes addresses{1, 2, 3, 4, 5, 6, 11, 12, 13, 14, 15, 16};
const bytes ip4{0x08, 0x00};
const bytes packet{0x45, 0x00, 0x00, 0x14, 0xAB, 0xCD};

// A frame in its place, after the kernel's header and its address, where the bytes asked for are
// free.
struct placed_frame {
    static constexpr size_t head_size = 48;
    static constexpr size_t link_size = 20;
    static constexpr size_t mac_at = head_size + link_size + 8;

    alignas(16) uint8_t memory[512] = {};
    tpacket3_hdr& header = *reinterpret_cast<tpacket3_hdr*>(memory);
    sockaddr_ll& link = *reinterpret_cast<sockaddr_ll*>(memory + head_size);

    explicit placed_frame(const bytes& frame) {
        std::copy(frame.begin(), frame.end(), memory + mac_at);
        header.tp_mac = mac_at;
        header.tp_net = mac_at + 14;
        header.tp_snaplen = static_cast<uint32_t>(frame.size());
        header.tp_len = header.tp_snaplen;
        link.sll_hatype = 1;  // Ethernet
        link.sll_ifindex = 9;
        link.sll_pkttype = PACKET_HOST;
    }

    // What was in the header when it was there.
    void remove_tag(uint16_t control, uint32_t more_status = 0, uint16_t type = 0) {
        header.tp_status |= TP_STATUS_VLAN_VALID | more_status;
        header.hv1.tp_vlan_tci = control;
        header.hv1.tp_vlan_tpid = type;
    }

    bool describe(uint32_t mtu = 1500) {
        return af_packet::describe_frame(header, {mtu}, told) != 0;
    }

    bytes shown() const { return {told.data, told.data + told.header.captured_length}; }

    input_frame told{};
};

TEST(AfPacketFrame, AFrameIsShownWhereItLies) {
    placed_frame frame(addresses + ip4 + packet);
    frame.header.tp_sec = 1'700'000'000;
    frame.header.tp_nsec = 123'456'789;
    frame.header.tp_len = 1000;
    EXPECT_FALSE(frame.describe());
    EXPECT_EQ(frame.shown(), (addresses + ip4 + packet));
    EXPECT_EQ(frame.told.data, frame.memory + placed_frame::mac_at);
    EXPECT_EQ(frame.told.header.timestamp, 1'700'000'000'123'456'789u);
    EXPECT_EQ(frame.told.header.wire_length, 1000u);
}

TEST(AfPacketFrame, ATagThatWasTakenOutIsPutBack) {
    placed_frame frame(addresses + ip4 + packet);
    frame.remove_tag(0xE123);
    frame.describe();
    EXPECT_EQ(frame.shown(), (addresses + bytes{0x81, 0x00, 0xE1, 0x23} + ip4 + packet));
    EXPECT_EQ(frame.told.header.wire_length, 24u);
    EXPECT_EQ(frame.link.sll_ifindex, 9);  // what lies in front of the frame is untouched
}

TEST(AfPacketFrame, TheStatusSaysWhetherThereWasATagNotItsValue) {
    placed_frame zero(addresses + ip4 + packet);
    zero.remove_tag(0);
    zero.describe();
    EXPECT_EQ(zero.shown(), (addresses + bytes{0x81, 0x00, 0x00, 0x00} + ip4 + packet));
    placed_frame none(addresses + ip4 + packet);
    none.header.hv1.tp_vlan_tci = 5;
    none.describe();
    EXPECT_EQ(none.shown(), (addresses + ip4 + packet));
}

TEST(AfPacketFrame, TheTypeOfATagIsThatOfTheFrameUnlessItIsAProviders) {
    for (const auto& [type, shown] : {std::pair{0x9100, bytes{0x91, 0x00}},
                                      {0x8100, bytes{0x81, 0x00}},
                                      {0x88A8, bytes{0x81, 0x00}}}) {
        placed_frame frame(addresses + bytes{0x81, 0x00, 0x00, 0x07} + ip4 + packet);
        frame.remove_tag(5, TP_STATUS_VLAN_TPID_VALID, static_cast<uint16_t>(type));
        frame.describe();
        EXPECT_EQ(frame.shown(),
                  (addresses + shown + bytes{0x00, 0x05, 0x81, 0x00, 0x00, 0x07} + ip4 + packet));
    }
}

TEST(AfPacketFrame, AProvidersTagInTheFrameIsRewritten) {
    placed_frame frame(addresses + bytes{0x88, 0xA8, 0x00, 0x07, 0x88, 0xA8, 0x00, 0x08} + ip4);
    frame.describe();
    EXPECT_EQ(frame.shown(),
              (addresses + bytes{0x81, 0x00, 0x00, 0x07, 0x81, 0x00, 0x00, 0x08} + ip4));
}

TEST(AfPacketFrame, FramesThatAreCutKeepTheirBytes) {
    const bytes whole = addresses + ip4;
    for (size_t size = 0; size <= whole.size(); ++size) {
        const bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        placed_frame plain(cut);
        plain.describe();
        EXPECT_EQ(plain.shown(), cut);
        placed_frame tagged(cut);
        tagged.remove_tag(5);
        tagged.describe();
        EXPECT_EQ(tagged.told.header.captured_length, size < 12 ? size : size + 4);
    }
}

TEST(AfPacketFrame, SentAndReceivedFramesHaveTheInterfaceOnTheirSide) {
    for (const uint8_t type :
         bytes{PACKET_HOST, PACKET_BROADCAST, PACKET_MULTICAST, PACKET_OTHERHOST}) {
        placed_frame received(addresses + ip4 + packet);
        received.link.sll_pkttype = type;
        received.describe();
        EXPECT_EQ(received.told.header.input_interface, 9);
        EXPECT_EQ(received.told.header.output_interface, 0);
    }
    placed_frame sent(addresses + ip4 + packet);
    sent.link.sll_pkttype = PACKET_OUTGOING;
    sent.describe();
    EXPECT_EQ(sent.told.header.input_interface, 0);
    EXPECT_EQ(sent.told.header.output_interface, 9);
}

TEST(AfPacketFrame, AnInterfaceNumberOfMoreThanSixteenBitsIsNone) {
    for (const auto& [index, shown] : {std::pair{65535, 65535}, {65536, 0}, {70000, 0}}) {
        placed_frame frame(addresses + ip4 + packet);
        frame.link.sll_ifindex = index;
        frame.describe();
        EXPECT_EQ(frame.told.header.input_interface, shown);
    }
}

TEST(AfPacketFrame, ABarePacketGetsAHeader) {
    for (const uint8_t skipped : bytes{0, 2, 24}) {
        placed_frame frame(bytes(skipped, 0xEE) + packet);
        frame.link.sll_hatype = 0xFFFE;    // a tunnel
        frame.link.sll_protocol = 0x0008;  // in network order
        frame.header.tp_net = static_cast<uint16_t>(placed_frame::mac_at + skipped);
        frame.describe();
        EXPECT_EQ(frame.shown(), bytes(12, 0) + ip4 + packet);
        EXPECT_EQ(frame.told.header.wire_length, 20u);
    }
}

TEST(AfPacketFrame, ABarePacketThatIsCutBeforeItBeginsIsEmpty) {
    placed_frame frame(bytes(4, 0xEE));
    frame.link.sll_hatype = 512;  // PPP
    frame.header.tp_net = placed_frame::mac_at + 4;
    frame.describe();
    EXPECT_EQ(frame.shown(), bytes{});
}

TEST(AfPacketFrame, FramesLongerThanTheMtuAreJoinedOnes) {
    const auto is_joined = [](const bytes& lead, uint32_t wire, bool has_removed_tag = false) {
        placed_frame frame(addresses + lead + ip4 + packet);
        frame.header.tp_len = wire;
        if (has_removed_tag)
            frame.remove_tag(5);
        return frame.describe(1500);
    };
    const bytes one_tag{0x81, 0x00, 0x00, 0x01};
    EXPECT_FALSE(is_joined({}, 1514));
    EXPECT_TRUE(is_joined({}, 1515));
    EXPECT_FALSE(is_joined({}, 1514, true));
    EXPECT_TRUE(is_joined({}, 1515, true));
    EXPECT_FALSE(is_joined(one_tag, 1518));
    EXPECT_TRUE(is_joined(one_tag, 1519));
    EXPECT_FALSE(is_joined(one_tag + one_tag, 1522));
    EXPECT_TRUE(is_joined(one_tag + one_tag, 1523));
}

}  // namespace
