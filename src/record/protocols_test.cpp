#include "record/protocols.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace kestrel;

std::vector<unsigned> protocols_with(bool (*property)(unsigned)) {
    std::vector<unsigned> found;
    for (unsigned protocol = 0; protocol < 256; ++protocol) {
        if (property(protocol))
            found.push_back(protocol);
    }
    return found;
}

TEST(Protocols, TcpUdpAndSctpHavePorts) {
    EXPECT_EQ((std::vector<unsigned>{6, 17, 132}), protocols_with(has_ports));
}

TEST(Protocols, IcmpOfBothVersionsHasTypeAndCode) {
    EXPECT_EQ((std::vector<unsigned>{1, 58}), protocols_with(has_type_and_code));
}

}  // namespace
