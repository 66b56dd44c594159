#include "input/capture_counts.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

TEST(capture_counts, goes_on_where_the_kernels_numbers_wrap) {
    capture_counts counts;
    counts.take({4'294'967'290, 4'294'967'290, 2'000'000'000});
    counts.take({10, 4, 4'000'000'000});
    counts.take({20, 5, 704});
    EXPECT_EQ(4'294'967'301u, counts.ring_dropped());
    EXPECT_EQ(4'294'968'000u, counts.card_dropped());
    EXPECT_EQ(15u, counts.unread());
}

TEST(capture_counts, tells_what_was_not_read_yet) {
    capture_counts counts;
    counts.take({10, 2, 0});
    EXPECT_EQ(8u, counts.unread());
    counts.add_delivered();
    counts.add_delivered();
    EXPECT_EQ(6u, counts.unread());
    counts.take({13, 4, 0});
    EXPECT_EQ(7u, counts.unread());
}

TEST(capture_counts, takes_no_other_interface_for_four_billion_lost_frames) {
    capture_counts counts;
    counts.take({0, 0, 1000});
    counts.take({0, 0, 4'294'967'296 - 500});  // a new one began at 0, and the sum went back
    EXPECT_EQ(1000u, counts.card_dropped());
    counts.take({0, 0, 4'294'967'296 - 490});
    EXPECT_EQ(1010u, counts.card_dropped());
}

TEST(capture_counts, goes_on_with_another_handle) {
    capture_counts counts;
    counts.take({10, 3, 5});
    for (int frame = 0; frame < 6; ++frame)
        counts.add_delivered();
    counts.begin_anew();
    EXPECT_EQ(4u, counts.ring_dropped());  // the one that was left was lost
    EXPECT_EQ(0u, counts.unread());
    counts.take({7, 2, 1});
    EXPECT_EQ(6u, counts.ring_dropped());
    EXPECT_EQ(6u, counts.card_dropped());
    EXPECT_EQ(5u, counts.unread());
}

}  // namespace
}  // namespace kestrel
