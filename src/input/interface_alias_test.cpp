#include "input/interface_alias.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace kestrel {
namespace {

using bytes = std::vector<uint8_t>;

// Numbers as linux/rtnetlink.h has them, in the machine's order.
constexpr uint16_t new_link = 16, attribute_name = 3, attribute_alias = 20;

template <typename T>
void put(bytes& to, T value) {
    const auto* const from = reinterpret_cast<const uint8_t*>(&value);
    to.insert(to.end(), from, from + sizeof value);
}

void put_attribute(bytes& to, uint16_t type, const bytes& value) {
    put(to, static_cast<uint16_t>(4 + value.size()));
    put(to, type);
    to.insert(to.end(), value.begin(), value.end());
    to.resize((to.size() + 3) / 4 * 4);
}

bytes finished(bytes message) {
    const auto size = static_cast<uint32_t>(message.size());
    std::memcpy(message.data(), &size, sizeof size);
    return message;
}

bytes link_message(const bytes& alias, uint16_t type = new_link) {
    bytes message(4);
    put(message, type);
    message.resize(16 + 16);  // the rest of the header, and the interface's
    put_attribute(message, attribute_name, {'e', 't', 'h', '0', 0});
    put_attribute(message, attribute_alias, alias);
    return finished(message);
}

// In an allocation of its own size, so that the address sanitizer sees a byte read past its end.
std::string read(const bytes& message) {
    const auto exact = std::make_unique<uint8_t[]>(message.size());
    std::copy(message.begin(), message.end(), exact.get());
    return read_alias_answer(exact.get(), message.size()).text;
}

TEST(InterfaceAlias, IsInTheAnswer) {
    EXPECT_EQ(read(link_message({'u', 'p', 0})), "up");
    EXPECT_EQ(read(link_message({0})), "");
    EXPECT_EQ(read(link_message({})), "");
    EXPECT_EQ(read(link_message({'u', 'p', 0}, new_link + 1)), "");
}

TEST(InterfaceAlias, HasItsEndWithinItsRoom) {
    EXPECT_EQ(read(link_message(bytes(256, 'x'))), std::string(255, 'x'));
    EXPECT_EQ(read(link_message(bytes(257, 'x'))), "");
}

TEST(InterfaceAlias, IsNoneInAMessageThatIsCut) {
    const bytes whole = link_message({'u', 'p', 'l', 0});
    for (size_t size = 0; size < whole.size(); ++size) {
        bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_EQ(read(cut), "") << size;
        cut.resize(std::max(size, sizeof(uint32_t)));
        EXPECT_EQ(read(finished(cut)), "") << size;
    }
}

TEST(InterfaceAlias, AttributesOfImpossibleLengthsEndTheWalk) {
    for (const int wrong : {0, 3, 200, 0xFFFF}) {
        const auto length = static_cast<uint16_t>(wrong);
        bytes message = link_message({'u', 'p', 0});
        std::memcpy(message.data() + 32, &length, sizeof length);
        EXPECT_EQ(read(message), "") << length;
    }
}

TEST(InterfaceAlias, OfNoInterfaceIsNone) {
    for (const char* name : {"", "no-such-device", "a-name-longer-than-any-may-be"})
        EXPECT_STREQ(look_up_alias(name).text, "");
}

}  // namespace
}  // namespace kestrel
