// Not under the thread sanitizer: it is all one thread, and takes minutes there.
#include <gtest/gtest.h>

#include "kestrelexp/packet.h"
#include "tests/model/frame_generator.h"
#include "tests/model/parser_check.h"
#include "tests/model/parser_model.h"

namespace {

using namespace kestrel_model;

// The default, none, each bit, all that are known, all there are; the last is drawn.
constexpr uint32_t masks[] = {0x077, 0x000, 0x001, 0x002, 0x004, 0x008,      0x010,
                              0x020, 0x040, 0x080, 0x100, 0x1FF, 0xFFFF'FFFF};

// Feeds frames to both parsers and keeps the first few differences.
class ParserAgainstModel : public testing::Test {
  protected:
    void compare(const std::vector<uint8_t>& frame) {
        check_settings settings;
        const uint32_t turn = static_cast<uint32_t>(frames_ % (std::size(masks) + 3));
        settings.mask = turn < std::size(masks) ? masks[turn] : generator_.below(0x200);
        settings.blocks = generator_.below(16);
        settings.filling = static_cast<uint8_t>(generator_.below(256));
        settings.through_reader = generator_.one_in(2);
        ++frames_;
        const std::string difference = compare_parsers(frame, settings);
        if (difference.empty() || ++failures_ > 5)
            return;
        ADD_FAILURE() << difference << "\nmask " << std::hex << settings.mask << " blocks "
                      << settings.blocks << " reader " << settings.through_reader << "\n"
                      << hex_of(frame);
    }

    frame_generator generator_{20'240'101};
    uint64_t frames_ = 0;
    int failures_ = 0;
};

TEST_F(ParserAgainstModel, AgreesOnWellFormedFrames) {
    for (int i = 0; i < 60'000; ++i)
        compare(generator_.well_formed());
    EXPECT_EQ(0, failures_);
}

TEST_F(ParserAgainstModel, AgreesOnMutatedFrames) {
    for (int i = 0; i < 60'000; ++i)
        compare(generator_.mutated());
    EXPECT_EQ(0, failures_);
}

TEST_F(ParserAgainstModel, AgreesOnRandomBytes) {
    for (int i = 0; i < 40'000; ++i)
        compare(generator_.random_bytes());
    EXPECT_EQ(0, failures_);
}

TEST_F(ParserAgainstModel, AgreesOnFramesCutAtEveryLength) {
    while (frames_ < 80'000) {
        const std::vector<uint8_t> frame = generator_.well_formed();
        for (size_t length = 0; length <= frame.size(); ++length)
            compare({frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length)});
    }
    EXPECT_EQ(0, failures_);
}

// Stacks of tags and labels longer than anything that a copy of bounded size would hold.
TEST_F(ParserAgainstModel, AgreesOnVeryLongStacks) {
    for (size_t depth = 0; depth < 400; ++depth) {
        kestrel_test::frame_builder tags;
        tags.macs();
        for (size_t i = 0; i < depth; ++i)
            tags.vlan(generator_.below(4096));
        compare(tags.done());
        compare(tags.u16(0x0800).ipv4(17, 28).udp(1, 2).done());

        kestrel_test::frame_builder entries;
        entries.macs().u16(0x8847);
        for (size_t i = 0; i < depth; ++i)
            entries.mpls_entry(generator_.below(1 << 20), false);
        compare(entries.done());
        compare(entries.mpls_entry(7, true).ipv6(17, 8).udp(1, 2).done());
    }
    EXPECT_EQ(0, failures_);
}

TEST(ParserModel, TablesAgreeWithThoseMadeBitByBit) {
    for (unsigned table = 0; table < 4; ++table) {
        for (unsigned index = 0; index < 256; ++index)
            ASSERT_EQ(crc_table_entry(table, index), crc64_table[table][index])
                << table << " " << index;
    }
}

// The model is a witness only if it is right itself: keys worked out apart from it.
TEST(ParserModel, KnowsTheKeyOfAKnownFrame) {
    kestrel_test::frame_builder frame;
    frame.macs().u16(0x0800).ipv4(17, 28).udp(53, 4444);
    const parsed_frame parsed = parse_frame(frame.done(), 0x77, 0);
    EXPECT_EQ(0xE0AF'EDCF'75B9'2A08u, static_cast<uint64_t>(parsed.key));
    EXPECT_EQ(42u, parsed.header_length);
}

}  // namespace
