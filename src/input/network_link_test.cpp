#include "input/network_link.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace kestrel {
namespace {

using bytes = std::vector<uint8_t>;

// Numbers as linux/rtnetlink.h has them, in the machine's order.
constexpr uint16_t new_link = 16, removed_link = 17, new_address = 20;
constexpr uint16_t attribute_mtu = 4, attribute_name = 3;
constexpr uint32_t flag_up = 1, flag_running = 0x40;

void put(bytes& to, const void* value, size_t size) {
    const auto* from = static_cast<const uint8_t*>(value);
    to.insert(to.end(), from, from + size);
}

template <typename T>
void put(bytes& to, T value) {
    put(to, &value, sizeof value);
}

bytes attribute(uint16_t type, const bytes& value) {
    bytes result;
    put(result, static_cast<uint16_t>(4 + value.size()));
    put(result, type);
    put(result, value.data(), value.size());
    result.resize((result.size() + 3) / 4 * 4);
    return result;
}

bytes name(const char* text) {
    return attribute(attribute_name, bytes(text, text + std::strlen(text) + 1));
}

bytes message(uint16_t type, int32_t index, uint32_t flags, const std::vector<bytes>& attributes,
              uint8_t family = 0) {
    bytes rest = {family, 0};
    put(rest, uint16_t{1});  // Ethernet
    put(rest, index);
    put(rest, flags);
    put(rest, uint32_t{0xFFFFFFFF});
    for (const bytes& one : attributes)
        put(rest, one.data(), one.size());
    bytes result;
    put(result, static_cast<uint32_t>(16 + rest.size()));
    put(result, type);
    put(result, uint16_t{0});
    put(result, uint64_t{0});  // sequence number and sender
    put(result, rest.data(), rest.size());
    return result;
}

link_event event_of(const bytes& message) {
    link_event event;
    EXPECT_EQ(message.size(), read_link_message(message.data(), message.size(), event));
    return event;
}

TEST(network_link, reads_a_link_that_is_up) {
    const link_event event =
        event_of(message(new_link, 7, flag_up | flag_running,
                         {attribute(attribute_mtu, {220, 5, 0, 0}), name("eth0")}));
    EXPECT_EQ(7, event.index);
    EXPECT_TRUE(event.is_up);
    EXPECT_FALSE(event.is_removed);
    EXPECT_STREQ("eth0", event.name);
}

TEST(network_link, tells_up_from_running) {
    EXPECT_FALSE(event_of(message(new_link, 7, flag_running, {name("eth0")})).is_up);
}

TEST(network_link, reads_one_that_is_removed) {
    const link_event event = event_of(message(removed_link, 9, 0, {name("veth12345678901")}));
    EXPECT_TRUE(event.is_removed);
    EXPECT_EQ(9, event.index);
    EXPECT_STREQ("veth12345678901", event.name);
}

TEST(network_link, passes_over_other_messages) {
    EXPECT_EQ(0, event_of(message(new_address, 7, flag_up, {})).index);
    constexpr uint8_t bridge = 7;
    EXPECT_EQ(0, event_of(message(removed_link, 7, 0, {name("eth0")}, bridge)).index);
}

TEST(network_link, reads_a_message_cut_anywhere_within_its_bounds) {
    const bytes whole = message(new_link, 7, flag_up, {name("eth0")});
    for (size_t size = 0; size < whole.size(); ++size) {
        const bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        link_event event;
        EXPECT_EQ(0u, read_link_message(cut.data(), cut.size(), event)) << size;
        EXPECT_EQ(0, event.index) << size;
    }
}

TEST(network_link, takes_no_name_that_lies) {
    for (const uint8_t length : bytes{0, 3, 13, 255}) {  // of 9 bytes in a space of 12
        bytes lying = message(new_link, 7, flag_up, {name("eth0")});
        lying[32] = length;
        EXPECT_STREQ("", event_of(lying).name) << int{length};
    }
    const bytes long_name = attribute(attribute_name, bytes(17, 'a'));
    EXPECT_STREQ("", event_of(message(new_link, 7, flag_up, {long_name})).name);
    const bytes endless_name = attribute(attribute_name, bytes(16, 'a'));
    EXPECT_STREQ("aaaaaaaaaaaaaaa", event_of(message(new_link, 7, flag_up, {endless_name})).name);
}

TEST(network_link, says_whether_loopback_is_there) {
    const auto loopback = look_at_link("lo");
    ASSERT_TRUE(loopback);
    EXPECT_EQ(1, loopback->index);
    EXPECT_TRUE(loopback->is_loopback);
    EXPECT_EQ(772, loopback->hardware);
    const auto none = look_at_link("no-such-device");
    ASSERT_TRUE(none);
    EXPECT_EQ(0, none->index);
}

}  // namespace
}  // namespace kestrel
