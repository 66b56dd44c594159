#include "input/rawnetcap.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <new>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/rawnetcap_fixture.h"

namespace {

using kestrel_test::rawnetcap_module;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using lines = std::vector<std::string>;

constexpr int timeout_ms = 10;

// The context, given back at the end of the test as the end of the program would.
class Rawnetcap : public testing::Test {
  protected:
    ~Rawnetcap() override { give_back(); }

    void give_back() {
        if (context_ == nullptr)
            return;
        if (context_->ring != nullptr)
            munmap(const_cast<uint8_t*>(context_->ring), context_->ring_size);
        if (context_->descriptor >= 0)
            close(context_->descriptor);
        free(context_);
        context_ = nullptr;
    }

    rawnetcap_context* init(const char* devices, uint32_t sampling = 0, uint32_t snap_length = 128,
                            uint32_t cache_size = 0) {
        return context_ = rawnetcap_init(devices, sampling, snap_length, cache_size);
    }

    std::string next_frame() {
        const rawnetcap_record* record = rawnetcap_get_next(context_, timeout_ms);
        if (record == nullptr)
            return "none";
        return {reinterpret_cast<const char*>(record + 1), record->captured_length};
    }

    uint64_t offset_of(const rawnetcap_record* record) {
        return static_cast<uint64_t>(reinterpret_cast<const uint8_t*>(record) - context_->ring);
    }

    rawnetcap_context* context_ = nullptr;
};

class RawnetcapStart : public Rawnetcap {};

TEST_F(RawnetcapStart, AsksForEverythingInThisOrder) {
    rawnetcap_module module;
    ASSERT_NE(nullptr, init("eth0,eth1", 7, 128, 4096));
    EXPECT_EQ((lines{
                  "open read-only",
                  "ioctl ff15 pointer = 262151",
                  "ioctl ff00 eth0 = 0",
                  "ioctl ff00 eth1 = 0",
                  "ioctl ff17 128 = 0",
                  "ioctl ff44 4096 = 0",
                  "ioctl ff02 = 128",
                  "ioctl ff12 = 64",
                  "mmap 65536 prot 1 flags 1 at 0",
                  "ioctl ff03 7 = 0",
                  "ring of 16 pages, 16 touched",
                  "ioctl ff05 = 0",
              }),
              module.log());
    EXPECT_EQ(65536u, rawnetcap_get_buffer_size(context_));
}

TEST_F(RawnetcapStart, LeavesToTheModuleWhatIsZero) {
    rawnetcap_module module({{"LARGEST", "2000"}});
    ASSERT_NE(nullptr, init("eth0", 0, 0, 0));
    for (const char* setting : {"ioctl ff17", "ioctl ff44", "ioctl ff03"})
        EXPECT_EQ(0u, module.count(setting)) << setting;
    EXPECT_EQ(2000u, context_->largest_record);
}

TEST_F(RawnetcapStart, SkipsEmptyNamesOfDevices) {
    rawnetcap_module module;
    ASSERT_NE(nullptr, init(",eth1,,eth0,"));
    const lines log = module.log("ioctl ff17");
    EXPECT_EQ((lines{"ioctl ff00 eth1 = 0", "ioctl ff00 eth0 = 0"}),
              lines(log.begin() + 2, log.end()));
}

TEST_F(RawnetcapStart, SaysWhichSettingsAreRefusedAndGoesOn) {
    rawnetcap_module module({{"ANSWERS", "ff17=-1,ff44=-1,ff03=-1"}, {"LARGEST", "128"}});
    CaptureStderr();
    ASSERT_NE(nullptr, init("eth0", 5, 128, 9));
    EXPECT_EQ(
        "RAWNETCAP: Unable to set snap length: 128\n"
        "RAWNETCAP: Unable to set cache size: 9\n"
        "RAWNETCAP: Unable to set sampling: 5\n",
        GetCapturedStderr());
    EXPECT_EQ(1u, module.count("ioctl ff05 = 0"));
}

TEST_F(RawnetcapStart, TakesALargestRecordThatFillsTheRing) {
    rawnetcap_module module({{"LARGEST", "65520"}});  // 16 + 65520 = 64 KiB
    EXPECT_NE(nullptr, init("eth0"));
}

struct refusal {
    const char* name;
    const char* answers;
    const char* largest;
    const char* message;
    lines last_calls;
};

void PrintTo(const refusal& of, std::ostream* to) {
    *to << of.name;
}

class RawnetcapRefusal : public RawnetcapStart, public testing::WithParamInterface<refusal> {};

TEST_P(RawnetcapRefusal, IsReportedAndLeavesNothingOpen) {
    rawnetcap_module module({{"ANSWERS", GetParam().answers}, {"LARGEST", GetParam().largest}});
    CaptureStderr();
    EXPECT_EQ(nullptr, init("eth0,eth1"));
    EXPECT_EQ(GetParam().message, GetCapturedStderr());
    const lines log = module.log();
    const lines& last = GetParam().last_calls;
    ASSERT_GE(log.size(), last.size());
    EXPECT_EQ(last, lines(log.end() - static_cast<ptrdiff_t>(last.size()), log.end()));
}

const refusal refusals[] = {
    {"NoDevice", "open=-1", "128", "", {"open read-only"}},
    {"Version3",
     "ff15=0x3FFFF",
     "128",
     "RAWNETCAP: bad module version detected\n",
     {"open read-only", "ioctl ff15 pointer = 262143", "close"}},
    {"Version5",
     "ff15=0x50000",
     "128",
     "RAWNETCAP: bad module version detected\n",
     {"open read-only", "ioctl ff15 pointer = 327680", "close"}},
    {"NoVersion",
     "ff15=-1",
     "128",
     "RAWNETCAP: bad module version detected\n",
     {"open read-only", "ioctl ff15 pointer = -1", "close"}},
    {"DeviceFails",
     "ff00=5",
     "128",
     "RAWNETCAP: Unable to add device: eth0\n",
     {"ioctl ff15 pointer = 262151", "ioctl ff00 eth0 = 5", "close"}},
    {"NoRing",
     "ff12=0",
     "128",
     "RAWNETCAP: bad ring size: 0 KiB\n",
     {"ioctl ff02 = 128", "ioctl ff12 = 0", "close"}},
    {"NoRingSize",
     "ff12=-1",
     "128",
     "RAWNETCAP: bad ring size: -1 KiB\n",
     {"ioctl ff02 = 128", "ioctl ff12 = -1", "close"}},
    {"NoLargestRecord",
     "ff02=-1",
     "128",
     "RAWNETCAP: bad largest record: -1 bytes in a ring of 64 KiB\n",
     {"ioctl ff02 = -1", "ioctl ff12 = 64", "close"}},
    {"LargestRecordLargerThanTheRing",
     "",
     "65521",
     "RAWNETCAP: bad largest record: 65521 bytes in a ring of 64 KiB\n",
     {"ioctl ff02 = 65521", "ioctl ff12 = 64", "close"}},
    {"NullMapping",
     "mmap=0",
     "128",
     "RAWNETCAP: mmap failed\n",
     {"ioctl ff12 = 64", "mmap 65536 prot 1 flags 1 at 0", "close"}},
    {"FailedMapping",
     "mmap=-1",
     "128",
     "RAWNETCAP: mmap failed\n",
     {"ioctl ff12 = 64", "mmap 65536 prot 1 flags 1 at 0", "close"}},
    {"RingLargerThanTheDevicesMemory",
     "ff12=128",
     "128",
     "RAWNETCAP: mmap failed\n",
     {"ioctl ff12 = 128", "mmap 131072 prot 1 flags 1 at 0", "close"}},
    {"NoStart",
     "ff05=-1",
     "128",
     "RAWNETCAP: Unable to start rawnetcap capture process\n",
     {"mmap 65536 prot 1 flags 1 at 0", "ioctl ff05 = -1", "munmap 65536", "close"}},
    {"StartSaysOne",
     "ff05=1",
     "128",
     "RAWNETCAP: Unable to start rawnetcap capture process\n",
     {"ioctl ff05 = 1", "munmap 65536", "close"}},
};

INSTANTIATE_TEST_SUITE_P(Each, RawnetcapRefusal, testing::ValuesIn(refusals),
                         [](const auto& of) { return std::string(of.param.name); });

TEST_F(RawnetcapStart, NamesTheDeviceThatCannotBeAdded) {
    rawnetcap_module module({{"DEVICES", "eth0,eth2"}});
    CaptureStderr();
    EXPECT_EQ(nullptr, init("eth0,eth1,eth2"));
    EXPECT_EQ("RAWNETCAP: Unable to add device: eth1\n", GetCapturedStderr());
    EXPECT_EQ((lines{"open read-only", "ioctl ff15 pointer = 262151", "ioctl ff00 eth0 = 0",
                     "ioctl ff00 eth1 = -1", "close"}),
              module.log());
}

TEST_F(RawnetcapStart, ASizeOfNoContextIsNothing) {
    EXPECT_EQ(0u, rawnetcap_get_buffer_size(nullptr));
}

class RawnetcapRecords : public Rawnetcap {};

TEST_F(RawnetcapRecords, ComeInOrderAndInPlace) {
    rawnetcap_module module;
    module.capture({"first frame", "second", "", "fourth"});
    ASSERT_NE(nullptr, init("eth0"));
    EXPECT_EQ("first frame", next_frame());
    EXPECT_EQ("second", next_frame());
    EXPECT_EQ("", next_frame());
    EXPECT_EQ("fourth", next_frame());
    EXPECT_EQ("none", next_frame());
}

TEST_F(RawnetcapRecords, OfManyLengthsComeWholeWhileTheRingIsWrapped) {
    lines frames;
    for (unsigned n = 0; n < 3001; ++n)
        frames.emplace_back(n % 129, static_cast<char>('a' + n % 26));
    rawnetcap_module module({{"RING", "4"}, {"BATCH", "1000"}});
    module.capture(frames);
    ASSERT_NE(nullptr, init("eth0"));
    for (unsigned n = 0; n < frames.size(); ++n)
        ASSERT_EQ(frames[n], next_frame()) << n;
    EXPECT_EQ("none", next_frame());
    EXPECT_EQ(1u, module.count("drained 3001 frames, 62 wraps"));
}

struct stride {
    size_t captured;
    uint64_t next_offset;
};

TEST_F(RawnetcapRecords, ArePaddedToEightBytes) {
    const stride strides[] = {{0, 16}, {1, 24},  {7, 24},    {8, 24},
                              {9, 32}, {60, 80}, {127, 144}, {128, 144}};
    for (const auto& [captured, next_offset] : strides) {
        rawnetcap_module module;
        module.capture({std::string(captured, 'x'), "next"});
        ASSERT_NE(nullptr, init("eth0"));
        EXPECT_EQ(0u, offset_of(rawnetcap_get_next(context_, timeout_ms)));
        EXPECT_EQ(next_offset, offset_of(rawnetcap_get_next(context_, timeout_ms))) << captured;
        give_back();
    }
}

// A ring without a device: records of zeros, each of captured length 0 until a test says more.
class RawnetcapRing : public Rawnetcap {
  protected:
    static constexpr uint64_t size = 4096;

    void SetUp() override {
        context_ = static_cast<rawnetcap_context*>(calloc(1, sizeof *context_));
        new (context_) rawnetcap_context;
        // Nobody may touch the page after the ring.
        ring_ = static_cast<uint8_t*>(
            mmap(nullptr, 2 * size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        ASSERT_EQ(0, mprotect(ring_ + size, size, PROT_NONE));
        context_->ring = ring_;
        context_->ring_size = size;
        context_->largest_record = 128;
        context_->records_left = 100;
    }

    // Reads a record of that length at that offset; returns where the next one is expected.
    uint64_t step(uint64_t offset, uint16_t captured) {
        reinterpret_cast<rawnetcap_record*>(ring_ + offset)->captured_length = captured;
        context_->read_offset = offset;
        const rawnetcap_record* record = rawnetcap_get_next(context_, timeout_ms);
        EXPECT_EQ(ring_ + offset, reinterpret_cast<const uint8_t*>(record));
        return context_->read_offset;
    }

    uint8_t* ring_;
};

TEST_F(RawnetcapRing, WrapsWhereTheLargestRecordWouldNotFit) {
    // The largest one takes 128 + 16 of the 4096 bytes: 3952 is the first place that is too late.
    EXPECT_EQ(3944u, step(3928, 0));
    EXPECT_EQ(0u, step(3936, 0));
    EXPECT_EQ(3944u, step(3800, 128));
    EXPECT_EQ(0u, step(3808, 128));
    EXPECT_EQ(0u, step(3800, 129));
    context_->largest_record = 121;  // padded to 128
    EXPECT_EQ(3944u, step(3928, 0));
    EXPECT_EQ(0u, step(3936, 0));
    context_->largest_record = 120;
    EXPECT_EQ(3952u, step(3936, 0));
    EXPECT_EQ(0u, step(3944, 0));
}

TEST_F(RawnetcapRing, TakesARecordUpToItsLastByte) {
    EXPECT_EQ(0u, step(3944, 4096 - 3944 - 16));
    EXPECT_EQ(0u, step(0, 4096 - 16));
}

TEST_F(RawnetcapRing, EndsTheCaptureAtARecordThatRunsPastIt) {
    reinterpret_cast<rawnetcap_record*>(ring_ + 3944)->captured_length = 4096 - 3944 - 16 + 1;
    context_->read_offset = 3944;
    CaptureStderr();
    EXPECT_EQ(nullptr, rawnetcap_get_next(context_, timeout_ms));
    EXPECT_EQ(nullptr, rawnetcap_get_next(context_, timeout_ms));
    EXPECT_EQ("RAWNETCAP: record at offset 3944 runs past the ring, capture ended\n",
              GetCapturedStderr());
}

TEST_F(RawnetcapRecords, OfImpossibleLengthGiveTheDeviceBackOnce) {
    rawnetcap_module module({{"RING", "4"}, {"LIE", "2:65535"}});
    module.capture({"one", "two", "three", "four"});
    ASSERT_NE(nullptr, init("eth0"));
    CaptureStderr();
    EXPECT_EQ("one", next_frame());
    EXPECT_EQ("two", next_frame());
    EXPECT_EQ("none", next_frame());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ("none", next_frame());
    EXPECT_EQ("none", next_frame());
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(2 * timeout_ms));
    EXPECT_EQ("RAWNETCAP: record at offset 48 runs past the ring, capture ended\n",
              GetCapturedStderr());
    const lines log = module.log();
    EXPECT_EQ((lines{"ioctl ff42 = 4", "munmap 4096", "close"}), lines(log.end() - 3, log.end()));
}

class RawnetcapWait : public Rawnetcap {};

TEST_F(RawnetcapWait, PollsForItsTimeOutAndAsksForABatch) {
    rawnetcap_module module({{"BATCH", "2"}});
    module.capture({"one", "two", "three"});
    ASSERT_NE(nullptr, init("eth0"));
    for (const char* expected : {"one", "two", "three", "none"})
        EXPECT_EQ(expected, next_frame());
    const lines log = module.log("drained");
    EXPECT_EQ((lines{"ioctl ff05 = 0", "poll 10 ms = 1", "ioctl ff42 = 2", "poll 10 ms = 1",
                     "ioctl ff42 = 1", "poll 10 ms = 0"}),
              lines(log.end() - 6, log.end()));
}

TEST_F(RawnetcapWait, GoesOnAfterTimeOuts) {
    rawnetcap_module module({{"BATCH", "1"}, {"IDLE", "2"}});
    module.capture({"one", "two"});
    ASSERT_NE(nullptr, init("eth0"));
    for (const char* expected : {"one", "none", "two", "none"})
        EXPECT_EQ(expected, next_frame());
}

TEST_F(RawnetcapWait, AsksForRecordsEvenWhenPollSawNone) {
    for (const char* answers : {"poll=0", "poll=-1"}) {
        rawnetcap_module module({{"ANSWERS", answers}});
        module.capture({"one"});
        ASSERT_NE(nullptr, init("eth0"));
        EXPECT_EQ("one", next_frame());
        give_back();
    }
}

TEST_F(RawnetcapWait, SaysOnceThatTheDeviceFailsAndDoesNotSpin) {
    for (const char* answers : {"ff42=-1,poll=1", "ff42=0,poll=-1", "ff42=0,poll=8"}) {  // POLLERR
        rawnetcap_module module({{"ANSWERS", answers}});
        ASSERT_NE(nullptr, init("eth0"));
        CaptureStderr();
        const auto before = std::chrono::steady_clock::now();
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ("none", next_frame());
        EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(30));
        EXPECT_EQ("RAWNETCAP: Unable to get records\n", GetCapturedStderr()) << answers;
        give_back();
    }
}

TEST_F(RawnetcapWait, SaysNotMoreThanOnceInTenSecondsThatTheDeviceFails) {
    rawnetcap_module module({{"BATCH", "1"}, {"IDLE", "2"}, {"ANSWERS", "poll=8"}});  // POLLERR
    module.capture({"one", "two", "three"});
    ASSERT_NE(nullptr, init("eth0"));
    CaptureStderr();
    for (const char* expected : {"one", "none", "two", "none", "three", "none"})
        EXPECT_EQ(expected, next_frame());
    EXPECT_EQ("RAWNETCAP: Unable to get records\n", GetCapturedStderr());
}

}  // namespace
