// The plugin over an emulated capture module. Contexts live as long as the process, as in the
// program.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kestrelexp/builtin.h"
#include "tests/support/lifelong.h"
#include "tests/support/rawnetcap_fixture.h"

namespace {

using kestrel_test::rawnetcap_module;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using lines = std::vector<std::string>;

constexpr int needs_packets = 1, needs_headers = 0;

void* init(std::string params, int needs = needs_headers) {
    return kestrel_test::keep(input_rawnetcap_init(params.data(), needs, 0));
}

TEST(InputRawnetcap, DescribesItself) {
    const plugin_description& description = *input_rawnetcap_desc();
    EXPECT_STREQ("rawnetcap", description.name);
    EXPECT_STREQ(
        "Rawnetcap packet input driver, get packet from rawnetcap and pass it directly to "
        "exporter.\nThis driver may be used with process plugins.\nParameters (delimited by ',':\n"
        " device=devname (mandatory)\n sampling=value (samples per second)\n"
        " cache-size=value (in KiB, default is set by rawnetcap module)",
        description.description);
    EXPECT_EQ(0, description.data_size);
}

TEST(InputRawnetcap, PassesItsParametersOn) {
    rawnetcap_module module;
    ASSERT_NE(nullptr, init("device=eth0#eth1,sampling=100,cache-size=4096"));
    EXPECT_EQ((lines{"open read-only", "ioctl ff15 pointer = 262151", "ioctl ff00 eth0 = 0",
                     "ioctl ff00 eth1 = 0", "ioctl ff17 128 = 0", "ioctl ff44 4096 = 0"}),
              module.log("ioctl ff02"));
    EXPECT_EQ(1u, module.count("ioctl ff03 100 = 0"));
}

TEST(InputRawnetcap, SkipsEmptyNamesOfDevices) {
    rawnetcap_module module;
    ASSERT_NE(nullptr, init("device=eth0##eth1#"));
    EXPECT_EQ((lines{"open read-only", "ioctl ff15 pointer = 262151", "ioctl ff00 eth0 = 0",
                     "ioctl ff00 eth1 = 0"}),
              module.log("ioctl ff17"));
}

TEST(InputRawnetcap, WantsWholePacketsForProcessPluginsOnly) {
    rawnetcap_module module;
    ASSERT_NE(nullptr, init("device=eth0", needs_packets));
    EXPECT_EQ(1u, module.count("ioctl ff17 10000 = 0"));
    ASSERT_NE(nullptr, init("device=eth0", needs_headers));
    EXPECT_EQ(1u, module.count("ioctl ff17 128 = 0"));
    EXPECT_EQ(0u, module.count("ioctl ff44"));
    EXPECT_EQ(0u, module.count("ioctl ff03"));
}

TEST(InputRawnetcap, TellsItsSampling) {
    rawnetcap_module module;
    EXPECT_EQ(0u, input_rawnetcap_sampling(init("device=eth0")));
    EXPECT_EQ(1000u, input_rawnetcap_sampling(init("device=eth0,sampling=1000")));
}

TEST(InputRawnetcap, DoubtsASamplingOf1001AndGoesOn) {
    rawnetcap_module module;
    CaptureStderr();
    ASSERT_NE(nullptr, init("device=eth0,sampling=1000"));
    EXPECT_EQ("", GetCapturedStderr());
    CaptureStderr();
    void* input = init("device=eth0,sampling=1001");
    ASSERT_NE(nullptr, input);
    EXPECT_EQ("Sampling set to unbelievable value: 1001\n", GetCapturedStderr());
    EXPECT_EQ(1001u, input_rawnetcap_sampling(input));
}

TEST(InputRawnetcap, EndsTheProgramWithoutADevice) {
    EXPECT_EXIT(init("sampling=5"), testing::ExitedWithCode(255),
                "^Device parameter is mandatory for rawnetcap input.\n$");
    EXPECT_EXIT(input_rawnetcap_init(nullptr, 0, 0), testing::ExitedWithCode(255),
                "^Device parameter is mandatory for rawnetcap input.\n$");
}

TEST(InputRawnetcap, EndsTheProgramAtParametersThatItCannotRead) {
    EXPECT_EXIT(init("device=eth0,sampling"), testing::ExitedWithCode(255),
                "Parameters decoding problem\n$");
}

TEST(InputRawnetcap, FailsWhereTheDeviceFails) {
    rawnetcap_module module({{"ANSWERS", "ff05=-1"}});
    CaptureStderr();
    EXPECT_EQ(nullptr, init("device=eth0"));
    EXPECT_EQ("RAWNETCAP: Unable to start rawnetcap capture process\n", GetCapturedStderr());
}

TEST(InputRawnetcap, FillsTheHeaderFromTheRecord) {
    rawnetcap_module module({{"TIME", "1700000000:123456789"}});
    module.capture({"a frame", "another one"}, 1400);
    void* input = init("device=eth0#eth1");
    ASSERT_NE(nullptr, input);

    packet_header header{0, 0, 0, 77, 77};
    const uint8_t* frame = input_rawnetcap_packet(input, &header);
    EXPECT_EQ("a frame", std::string(reinterpret_cast<const char*>(frame), 7));
    EXPECT_EQ(1'700'000'000'123'456'789u, header.timestamp);
    EXPECT_EQ(7u, header.captured_length);
    EXPECT_EQ(1407u, header.wire_length);
    EXPECT_EQ(1u, header.input_interface);
    EXPECT_EQ(0u, header.output_interface);

    frame = input_rawnetcap_packet(input, &header);
    EXPECT_EQ("another one", std::string(reinterpret_cast<const char*>(frame), 11));
    EXPECT_EQ(11u, header.captured_length);
    EXPECT_EQ(2u, header.input_interface);
    EXPECT_EQ(nullptr, input_rawnetcap_packet(input, &header));
}

bool is_up(void* input) {
    input_counts counts{};
    counts.is_up = 1;
    input_rawnetcap_counters(input, 0, &counts);
    return counts.is_up == 1;
}

TEST(InputRawnetcap, IsDownOnceTheCaptureHasEnded) {
    rawnetcap_module module({{"LIE", "1:65535"}});
    module.capture({"one", "two"});
    void* input = init("device=eth0");
    packet_header header{};
    ASSERT_NE(nullptr, input_rawnetcap_packet(input, &header));
    EXPECT_TRUE(is_up(input));
    CaptureStderr();
    EXPECT_EQ(nullptr, input_rawnetcap_packet(input, &header));
    EXPECT_NE("", GetCapturedStderr());
    EXPECT_FALSE(is_up(input));
    EXPECT_EQ(nullptr, input_rawnetcap_packet(input, &header));
    EXPECT_FALSE(is_up(input));
}

TEST(InputRawnetcap, IsDownWhileRecordsCannotBeAskedFor) {
    for (const char* answers : {"ff42=-1,poll=1", "ff42=0,poll=-1", "ff42=0,poll=8"}) {  // POLLERR
        rawnetcap_module module({{"ANSWERS", answers}});
        void* input = init("device=eth0");
        packet_header header{};
        EXPECT_TRUE(is_up(input)) << answers;
        CaptureStderr();
        EXPECT_EQ(nullptr, input_rawnetcap_packet(input, &header));
        EXPECT_EQ("RAWNETCAP: Unable to get records\n", GetCapturedStderr()) << answers;
        EXPECT_FALSE(is_up(input)) << answers;
    }
}

TEST(InputRawnetcap, IsUpAgainWithTheNextFrame) {
    rawnetcap_module module({{"BATCH", "1"}, {"IDLE", "2"}, {"ANSWERS", "poll=8"}});  // POLLERR
    module.capture({"one", "two"});
    void* input = init("device=eth0");
    packet_header header{};
    ASSERT_NE(nullptr, input_rawnetcap_packet(input, &header));
    CaptureStderr();
    EXPECT_EQ(nullptr, input_rawnetcap_packet(input, &header));
    EXPECT_NE("", GetCapturedStderr());
    EXPECT_FALSE(is_up(input));
    ASSERT_NE(nullptr, input_rawnetcap_packet(input, &header));
    EXPECT_TRUE(is_up(input));
}

TEST(InputRawnetcap, KeepsNanosecondsBelowASecond) {
    rawnetcap_module module({{"TIME", "4294967295:4294967295"}});
    module.capture({"a frame"});
    void* input = init("device=eth0");
    packet_header header{};
    ASSERT_NE(nullptr, input_rawnetcap_packet(input, &header));
    EXPECT_EQ(4'294'967'295'294'967'295u, header.timestamp);
}

TEST(InputRawnetcap, CutsFramesAtTheSnapLength) {
    rawnetcap_module module;
    module.capture({std::string(1500, 'x')});
    void* input = init("device=eth0");
    packet_header header{};
    ASSERT_NE(nullptr, input_rawnetcap_packet(input, &header));
    EXPECT_EQ(128u, header.captured_length);
    EXPECT_EQ(1500u, header.wire_length);
}

}  // namespace
