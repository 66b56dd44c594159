#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "flow_encoding.h"

namespace {

using namespace flow_encoding;

struct outcome {
    bool is_good;
    json_settings settings;
    std::string fault;
};

outcome read(json_parameters parameters) {
    outcome found{};
    found.is_good = read_json_settings(parameters, found.settings, found.fault);
    return found;
}

TEST(JsonSettings, AreThoseOfGoflow2UnlessSaidOtherwise) {
    const outcome found = read({});
    EXPECT_TRUE(found.is_good);
    EXPECT_EQ(found.settings.style, FIELD_STYLE_GOFLOW2);
    EXPECT_EQ(found.settings.fields, "");
    EXPECT_EQ(found.settings.seed, std::nullopt);
    EXPECT_EQ(found.settings.sampler, machine_address());
}

TEST(JsonSettings, TheMachineHasAnAddress) {
    in6_addr address;
    const std::string text = machine_address();
    EXPECT_TRUE(inet_pton(AF_INET, text.c_str(), &address) == 1 ||
                inet_pton(AF_INET6, text.c_str(), &address) == 1)
        << text;
}

TEST(JsonSettings, AreTakenFromParameters) {
    char style[] = "ecs";
    char fields[] = "BYTES#PACKETS";
    char sampler[] = "2001:DB8:0::1";
    const outcome found = read({style, fields, 65'535, sampler});
    EXPECT_TRUE(found.is_good);
    EXPECT_EQ(found.settings.style, FIELD_STYLE_ECS);
    EXPECT_EQ(found.settings.fields, "BYTES#PACKETS");
    EXPECT_EQ(found.settings.seed, 65'535);
    EXPECT_EQ(found.settings.sampler, "2001:db8::1");
}

TEST(JsonSettings, ASeedOf0IsOneThatWasGiven) {
    EXPECT_EQ(read({nullptr, nullptr, 0, nullptr}).settings.seed, 0);
}

TEST(JsonSettings, FaultsAreSaid) {
    char style[] = "ECS";
    char sampler[] = "probe.example";
    EXPECT_EQ(read({style, nullptr, 0, nullptr}).fault, "style=ECS is none of goflow2 and ecs");
    EXPECT_EQ(read({nullptr, nullptr, 65'536, nullptr}).fault, "seed is from 0 to 65535");
    EXPECT_EQ(read({nullptr, nullptr, -1, nullptr}).fault, "seed is from 0 to 65535");
    EXPECT_EQ(read({nullptr, nullptr, 0, sampler}).fault,
              "sampler=probe.example is no IPv4 or IPv6 address");
}

}  // namespace
