// Tests of the walk over files laid out by hand.
#include "record_walk.h"

#include <gtest/gtest.h>

#include <vector>

namespace capture_file {
namespace {

using bytes = std::vector<uint8_t>;

const bytes little_us{0xD4, 0xC3, 0xB2, 0xA1, 2, 0, 4, 0, 0, 0, 0, 0,
                      0,    0,    0,    0,    0, 4, 0, 0, 1, 0, 0, 0};
const bytes big_ns{0xA1, 0xB2, 0x3C, 0x4D, 0, 2, 0, 4, 0, 0, 0, 0,
                   0,    0,    0,    0,    0, 0, 4, 0, 0, 0, 0, 1};

bytes operator+(bytes sum, const bytes& more) {
    sum.insert(sum.end(), more.begin(), more.end());
    return sum;
}

// A frame of three bytes, 0x01020304 s and 5 us, of 9 bytes on the wire.
const bytes little_record{4, 3, 2, 1, 5, 0, 0, 0, 3, 0, 0, 0, 9, 0, 0, 0, 0xAA, 0xBB, 0xCC};
// The same of 7 ns.
const bytes big_record{1, 2, 3, 4, 0, 0, 0, 7, 0, 0, 0, 3, 0, 0, 0, 9, 0xAA, 0xBB, 0xCC};

struct started {
    bytes content;
    record_walk walk{};
    bool is_walk;

    explicit started(bytes file)
        : content(std::move(file)), is_walk(walk_start(content.data(), content.size(), walk)) {}

    walk_step look() { return walk_look(walk, record); }
    walk_step take() {
        const walk_step step = look();
        walk.at = record.end;
        return step;
    }

    walked record{};
};

TEST(RecordWalk, TakesARecordAsItLiesInTheFile) {
    started file(little_us + little_record + little_record);
    ASSERT_TRUE(file.is_walk);
    EXPECT_EQ(file.take(), walk_step::record);
    EXPECT_EQ(file.record.header.ts.tv_sec, 0x01020304);
    EXPECT_EQ(file.record.header.ts.tv_usec, 5000);  // ns
    EXPECT_EQ(file.record.header.caplen, 3u);
    EXPECT_EQ(file.record.header.len, 9u);
    EXPECT_EQ(file.record.frame, file.content.data() + 40);
    EXPECT_EQ(file.record.end, 43u);
}

TEST(RecordWalk, KnowsTheOtherByteOrderAndNanoseconds) {
    started file(big_ns + big_record + big_record);
    ASSERT_TRUE(file.is_walk);
    EXPECT_EQ(file.take(), walk_step::record);
    EXPECT_EQ(file.record.header.ts.tv_sec, 0x01020304);
    EXPECT_EQ(file.record.header.ts.tv_usec, 7);
    EXPECT_EQ(file.record.header.caplen, 3u);
    EXPECT_EQ(file.record.header.len, 9u);
}

TEST(RecordWalk, EndsAfterTheLastRecord) {
    started file(little_us + little_record);
    EXPECT_EQ(file.take(), walk_step::unproven);  // nothing follows that would prove its end
    EXPECT_EQ(file.look(), walk_step::rest);
}

TEST(RecordWalk, DoesNotTrustARecordThatZerosFollow) {
    started file(little_us + little_record + bytes(16));
    EXPECT_EQ(file.take(), walk_step::unproven);
    EXPECT_EQ(file.take(), walk_step::unproven);  // a frame of no bytes
    EXPECT_EQ(file.record.header.caplen, 0u);
    EXPECT_EQ(file.look(), walk_step::rest);
}

TEST(RecordWalk, StopsAtARecordThatBreaksOffAnywhere) {
    const bytes whole = little_us + little_record;
    for (size_t size = 24; size < whole.size(); ++size) {
        started file(bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)));
        ASSERT_TRUE(file.is_walk) << size;
        EXPECT_EQ(file.look(), walk_step::rest) << size;
        EXPECT_EQ(file.walk.at, 24u) << size;
    }
}

TEST(RecordWalk, StopsAtALengthThatRunsPastTheFile) {
    for (const uint32_t length : {4u, 0x00040000u, 0x00040001u, 0x7FFFFFFFu, 0xFFFFFFF0u}) {
        bytes file = little_us + little_record;
        std::memcpy(file.data() + 32, &length, sizeof length);
        EXPECT_EQ(started(file).look(), walk_step::rest) << length;
    }
}

TEST(RecordWalk, StopsAtAFrameThatIsLongerThanAnyThoughItIsThere) {
    bytes file = little_us + little_record;
    file.resize(file.size() + 400'000);
    file[32] = 0, file[34] = 4;  // 0x40000
    EXPECT_NE(started(file).look(), walk_step::rest);
    file[32] = 1;
    EXPECT_EQ(started(file).look(), walk_step::rest);
}

TEST(RecordWalk, CutsFramesToTheLengthThatTheFileSays) {
    started file(little_us + little_record + little_record);
    walk_cut_frames(file.walk, 2);
    EXPECT_EQ(file.take(), walk_step::record);
    EXPECT_EQ(file.record.header.caplen, 2u);
    EXPECT_EQ(file.record.header.len, 9u);
    EXPECT_EQ(file.record.end, 43u);  // all the same
}

TEST(RecordWalk, LeavesEverythingElseToLibpcap) {
    const bytes others[] = {
        {},  // nothing
        bytes(little_us.begin(), little_us.end() - 1),
        {0x0A, 0x0D, 0x0D, 0x0A},  // pcapng
    };
    for (const bytes& other : others)
        EXPECT_FALSE(started(other).is_walk) << other.size();
    bytes modified = little_us + little_record;
    modified[0] = 0x34, modified[1] = 0xCD;
    EXPECT_FALSE(started(modified).is_walk);
    bytes old = little_us + little_record;
    old[6] = 3;  // 2.3 may have its lengths in the other order
    EXPECT_FALSE(started(old).is_walk);
}

}  // namespace
}  // namespace capture_file
