// Tests of the parameters that make sense; those that are refused are tested with the program.
#include "settings.h"

#include <gtest/gtest.h>

namespace {

using af_packet::settings;
using names = std::vector<std::string>;

settings read(const char* params, bool needs_frames = false) {
    settings wanted;
    EXPECT_TRUE(af_packet::read_settings(params, needs_frames, wanted)) << params;
    return wanted;
}

TEST(AfPacketSettings, WhatIsNotNamedHasItsDefault) {
    const settings wanted = read("device=eth0");
    EXPECT_EQ(wanted.devices, names{"eth0"});
    EXPECT_EQ(wanted.expression, "");
    EXPECT_EQ(wanted.lanes, 1u);
    EXPECT_EQ(wanted.group, -1);
    EXPECT_EQ(wanted.ring_bytes, 16u << 20);
    EXPECT_EQ(wanted.sampling, 0u);
    EXPECT_TRUE(wanted.is_promiscuous);
    EXPECT_EQ(wanted.snap_bytes, 136u);
}

TEST(AfPacketSettings, EverythingCanBeNamedInAnyOrder) {
    const settings wanted =
        read("snap=200,promiscuous=0,sampling=10,ring=64,fanout=7,lanes=4,device=eth0#eth1##eth2");
    EXPECT_EQ(wanted.devices, (names{"eth0", "eth1", "eth2"}));
    EXPECT_EQ(wanted.lanes, 4u);
    EXPECT_EQ(wanted.group, 7);
    EXPECT_EQ(wanted.ring_bytes, 64u << 20);
    EXPECT_EQ(wanted.sampling, 10u);
    EXPECT_FALSE(wanted.is_promiscuous);
    EXPECT_EQ(wanted.snap_bytes, 200u);
}

TEST(AfPacketSettings, ProcessPluginsGetWholeFramesUnlessALengthIsNamed) {
    EXPECT_GE(read("device=eth0", true).snap_bytes, 65'549u);
    EXPECT_EQ(read("device=eth0,snap=200", true).snap_bytes, 200u);
}

TEST(AfPacketSettings, AllThatFollowsTheExpressionBelongsToIt) {
    const settings wanted = read("device=eth0,filter=ip[0]=69 and host 1::2, lanes=7,filter=x");
    EXPECT_EQ(wanted.expression, "ip[0]=69 and host 1::2, lanes=7,filter=x");
    EXPECT_EQ(wanted.lanes, 1u);
    EXPECT_EQ(read("device=eth0,filter=").expression, "");
}

TEST(AfPacketSettings, ADeviceMayHaveTheNameOfAParameter) {
    const settings wanted = read("device=filter,lanes=2");
    EXPECT_EQ(wanted.devices, names{"filter"});
    EXPECT_EQ(wanted.lanes, 2u);
}

}  // namespace
