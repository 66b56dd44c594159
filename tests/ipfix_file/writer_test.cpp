// The worker's part on a clock of the test, with an outlet that has no worker.
#include "writer.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/outlet.h"
#include "message_builder.h"
#include "scratch_directory.h"
#include "size_limit.h"
#include "tests/support/lifelong.h"
#include "tests/support/outlet_fixture.h"

namespace ipfix_file {
namespace {

using kestrel::counts_of;
using kestrel::records_of;
using names = std::vector<std::string>;

constexpr uint64_t T = 631'152'000;  // 1990-01-01 00:00:00
const std::vector<uint8_t> opening = {'T', '.', '.', '.', 0, 0, 0, 0, 'T', 'E', 'M', 'P'};

std::string be32(uint64_t value) {
    std::string bytes(4, '\0');
    store_be32(reinterpret_cast<uint8_t*>(bytes.data()), static_cast<uint32_t>(value));
    return bytes;
}

// As they are written: of a time, with the sequence number, and 16 bytes long.
std::string message(uint64_t time_s, uint64_t sequence) {
    return "M..." + be32(time_s) + be32(sequence) + "DATA";
}
std::string templates(uint64_t time_s) {
    return "T..." + be32(time_s) + "TEMP";
}

class Writer : public testing::Test {
  protected:
    // Records of 10 packets each.
    void offer(uint64_t time_s, uint64_t number, uint32_t records = 1) {
        std::string bytes = message(time_s, 0xFFFFFFFF);
        const outlet_message offered = {bytes.data(), static_cast<uint32_t>(bytes.size()),
                                        records,      records * uint64_t{10},
                                        number,       0};
        ASSERT_EQ(1, outlet_offer(queue(), &offered));
    }
    kestrel::outlet_round round() { return kestrel::run_round(*queue()); }
    // Up to the time at which the disk is asked.
    void rounds() {
        (void)round();
        now.uptime_ns += writer::sync_interval_ns;
        (void)round();
    }
    void pass(uint64_t seconds) {
        now.uptime_ns += seconds * ns_per_second;
        now.wall_s += seconds;
    }
    void end() { files().end(queue(), now); }

    writer& files() {
        if (!files_)
            files_ = std::make_unique<writer>(wanted, opening, account);
        return *files_;
    }
    outlet* queue() {
        if (queue_ == nullptr)
            queue_ = kestrel_test::keep(
                kestrel::make_outlet({this, tend, deliver, nullptr}, wanted.queue_bytes, 0));
        return queue_;
    }

    const kestrel_test::scratch_directory directory;
    settings wanted = {.directory = directory.path(), .pattern = "flows", .queue_bytes = 1 << 16};
    moment now = {100 * ns_per_second, T, false};
    bool is_closing = false;
    file_account account;

  private:
    static int32_t tend(void* context, outlet* queue, int32_t, outlet_wait* wait) {
        auto& self = *static_cast<Writer*>(context);
        return self.files().tend(queue, self.is_closing, self.now, *wait) ? 1 : 0;
    }
    static int32_t deliver(void* context, outlet* queue, outlet_message* message) {
        return static_cast<Writer*>(context)->files().deliver(queue, *message);
    }

    std::unique_ptr<writer> files_;
    outlet* queue_ = nullptr;
};

TEST_F(Writer, CountsAsSentWhatTheDiskHas) {
    offer(T + 1, 0, 3);
    offer(T + 2, 3, 2);
    const kestrel::outlet_round first = round();
    EXPECT_EQ(2u, first.delivered);
    EXPECT_EQ(templates(T + 1) + message(T + 1, 0) + message(T + 2, 3),
              directory.content("flows.part"));
    EXPECT_EQ(0u, records_of(queue(), OUTLET_SENT));
    now.uptime_ns += writer::sync_interval_ns - 1;
    EXPECT_EQ(1, round().wait.timeout_ms);
    EXPECT_EQ(0u, records_of(queue(), OUTLET_SENT));
    now.uptime_ns += 1;
    EXPECT_EQ(-1, round().wait.timeout_ms);
    EXPECT_EQ(5u, records_of(queue(), OUTLET_SENT));
    EXPECT_EQ(50u, counts_of(queue()).fates[OUTLET_SENT].packets);
    EXPECT_EQ(0u, counts_of(queue()).queued.messages);
    EXPECT_EQ(names{"flows.part"}, directory.names());
    end();
    EXPECT_EQ(names{"flows"}, directory.names());
}

TEST_F(Writer, AsksTheDiskSoonerWhenMuchWaits) {
    wanted.queue_bytes = 4 * 48;  // a quarter of which is three messages
    for (uint64_t n = 0; n < 2; ++n) {
        offer(T, n);
        (void)round();
    }
    (void)round();
    EXPECT_EQ(0u, records_of(queue(), OUTLET_SENT));
    offer(T, 2);
    (void)round();
    (void)round();
    EXPECT_EQ(3u, records_of(queue(), OUTLET_SENT));
}

TEST_F(Writer, NumbersEachFileFromNothing) {
    wanted.rotate_s = 60;
    wanted.pattern = "flows-%H%M";
    offer(T + 59, 1000, 7);
    offer(T + 60, 1007);
    offer(T + 119, 1008);
    offer(T + 3600, 1009);
    rounds();
    end();
    EXPECT_EQ((names{"flows-0000", "flows-0001", "flows-0100"}), directory.names());
    EXPECT_EQ(templates(T + 59) + message(T + 59, 0), directory.content("flows-0000"));
    EXPECT_EQ(templates(T + 60) + message(T + 60, 0) + message(T + 119, 1),
              directory.content("flows-0001"));
    EXPECT_EQ(templates(T + 3600) + message(T + 3600, 0), directory.content("flows-0100"));
    EXPECT_EQ(10u, records_of(queue(), OUTLET_SENT));
}

TEST_F(Writer, ShowsTheRecordsThatWereDroppedAsAGap) {
    offer(T, 10, 2);
    offer(T, 17);
    rounds();
    end();
    EXPECT_EQ(templates(T) + message(T, 0) + message(T, 7), directory.content("flows"));
}

TEST_F(Writer, BeginsAnotherFileBeforeOneIsTooLarge) {
    wanted.rotate_bytes = 12 + 2 * 16;
    for (uint64_t n = 0; n < 5; ++n)
        offer(T, n);
    rounds();
    end();
    EXPECT_EQ((names{"flows", "flows.1", "flows.2"}), directory.names());
    EXPECT_EQ(templates(T) + message(T, 0) + message(T, 1), directory.content("flows.1"));
    EXPECT_EQ(templates(T) + message(T, 0), directory.content("flows.2"));
}

TEST_F(Writer, AFileOfOneMessageMayBeTooLarge) {
    wanted.rotate_bytes = 1;
    offer(T, 0);
    offer(T, 1);
    rounds();
    end();
    EXPECT_EQ((names{"flows", "flows.1"}), directory.names());
}

TEST_F(Writer, CompletesAFileInASilence) {
    wanted.rotate_s = 60;
    now.wall_s = T + 58;
    offer(T + 58, 0);
    rounds();
    pass(3);
    EXPECT_EQ(1'002, round().wait.timeout_ms);  // up to T + 62
    EXPECT_EQ(names{"flows.part"}, directory.names());
    pass(1);
    EXPECT_EQ(-1, round().wait.timeout_ms);
    EXPECT_EQ(names{"flows"}, directory.names());
}

TEST_F(Writer, ASilenceOfPacketsTellsNothingOfAReplay) {
    wanted.rotate_s = 60;
    now.is_replay = true;
    offer(T, 0);
    rounds();
    pass(3600);
    EXPECT_EQ(-1, round().wait.timeout_ms);
    EXPECT_EQ(names{"flows.part"}, directory.names());
}

TEST_F(Writer, TriesAgainEverySecondWhenTheDiskIsFull) {
    offer(T, 0);
    offer(T, 1);
    {
        const kestrel_test::size_limit limit(12 + 16 + 15);
        EXPECT_EQ(kestrel::outlet_round::later, round().end);
        EXPECT_TRUE(files().is_failing());
        EXPECT_EQ(templates(T) + message(T, 0), directory.content("flows.part"));
        now.uptime_ns += writer::pause_ns - 1;
        const kestrel::outlet_round waiting = round();
        EXPECT_EQ(kestrel::outlet_round::blocked, waiting.end);
        EXPECT_EQ(1, waiting.wait.timeout_ms);
        now.uptime_ns += 1;
        EXPECT_EQ(kestrel::outlet_round::later, round().end);
        // What had been written before has reached the disk: that is no recovery.
        EXPECT_EQ(1u, records_of(queue(), OUTLET_SENT));
        EXPECT_TRUE(files().is_failing());
    }
    now.uptime_ns += writer::pause_ns;
    (void)round();
    (void)round();
    EXPECT_FALSE(files().is_failing());
    EXPECT_EQ(2u, records_of(queue(), OUTLET_SENT));
    end();
    EXPECT_EQ(templates(T) + message(T, 0) + message(T, 1), directory.content("flows"));
}

TEST_F(Writer, NeedsRoomForTheTemplates) {
    offer(T, 0);
    {
        const kestrel_test::size_limit limit(5);
        EXPECT_EQ(kestrel::outlet_round::later, round().end);
        EXPECT_EQ(names{}, directory.names());
    }
    now.uptime_ns += writer::pause_ns;
    rounds();
    end();
    EXPECT_EQ(templates(T) + message(T, 0), directory.content("flows"));
}

TEST_F(Writer, WritesAgainWhatWasDeletedBeforeTheDiskHadIt) {
    offer(T, 0);
    rounds();
    offer(T, 1);
    (void)round();
    std::filesystem::remove(directory.path() + "/flows.part");
    now.uptime_ns += writer::sync_interval_ns;
    EXPECT_EQ(kestrel::outlet_round::blocked, round().end);
    EXPECT_EQ(1u, records_of(queue(), OUTLET_SENT));
    now.uptime_ns += writer::pause_ns;
    rounds();
    EXPECT_EQ(2u, records_of(queue(), OUTLET_SENT));
    end();
    EXPECT_EQ(templates(T) + message(T, 0), directory.content("flows"));
}

TEST_F(Writer, WaitsForADirectoryThatVanished) {
    directory.remove();
    offer(T, 0);
    EXPECT_EQ(kestrel::outlet_round::later, round().end);
    EXPECT_TRUE(files().is_failing());
    now.uptime_ns += writer::pause_ns;
    EXPECT_EQ(kestrel::outlet_round::later, round().end);
    directory.make();
    now.uptime_ns += writer::pause_ns;
    rounds();
    EXPECT_FALSE(files().is_failing());
    EXPECT_EQ(names{"flows.part"}, directory.names());
}

TEST_F(Writer, TriesAtOnceWhenTheProgramEnds) {
    directory.remove();
    offer(T, 0);
    (void)round();
    directory.make();
    EXPECT_EQ(kestrel::outlet_round::blocked, round().end);
    is_closing = true;
    EXPECT_EQ(1u, round().delivered);
    (void)round();  // and the disk is not given time
    EXPECT_EQ(1u, records_of(queue(), OUTLET_SENT));
    end();
    EXPECT_EQ(names{"flows"}, directory.names());
}

TEST_F(Writer, LeavesAFileWithTemplatesOfARunWithoutFlows) {
    wanted.pattern = "flows-%H";
    now.wall_s = T + 7200;
    (void)round();
    end();
    EXPECT_EQ(names{"flows-02"}, directory.names());
    EXPECT_EQ(templates(T + 7200), directory.content("flows-02"));
}

}  // namespace
}  // namespace ipfix_file
