// The ring of an outlet: order, room, the unused end, messages that are held.
#include "base/message_ring.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>
#include <string_view>
#include <thread>

namespace kestrel {
namespace {

outlet_message message_of(std::string& text, uint64_t number = 0) {
    return {text.data(), static_cast<uint32_t>(text.size()), 1, 2, number, 3};
}

bool put(message_ring& ring, std::string text, uint64_t number = 0) {
    return ring.put(message_of(text, number));
}

std::string text_of(const outlet_message* message) {
    return message != nullptr
               ? std::string(static_cast<const char*>(message->data), message->length)
               : "(none)";
}

void take(message_ring& ring) {
    ring.hold();
    ring.end(ring.held());
}

TEST(MessageRing, GivesMessagesBackInTheirOrder) {
    message_ring ring(1024);
    EXPECT_TRUE(ring.is_empty());
    EXPECT_EQ(ring.waiting(), nullptr);
    ASSERT_TRUE(put(ring, "one", 7));
    ASSERT_TRUE(put(ring, ""));
    ASSERT_TRUE(put(ring, "three"));
    EXPECT_EQ(text_of(ring.waiting()), "one");
    EXPECT_EQ(ring.waiting()->records, 1U);
    EXPECT_EQ(ring.waiting()->packets, 2U);
    EXPECT_EQ(ring.waiting()->number, 7U);
    EXPECT_EQ(ring.waiting()->mark, 0U);
    take(ring);
    EXPECT_EQ(text_of(ring.waiting()), "");
    take(ring);
    EXPECT_EQ(text_of(ring.waiting()), "three");
    EXPECT_FALSE(ring.is_empty());
    take(ring);
    EXPECT_EQ(ring.waiting(), nullptr);
    EXPECT_TRUE(ring.is_empty());
}

TEST(MessageRing, TakesWhatFitsAndNoMore) {
    // Each takes 48 bytes and 16 more: four of them are 256.
    message_ring ring(256);
    for (int n = 0; n < 4; ++n)
        EXPECT_TRUE(put(ring, "0123456789abcde"));
    EXPECT_FALSE(put(ring, ""));
    take(ring);
    EXPECT_TRUE(put(ring, "0123456789abcdef"));
    EXPECT_FALSE(put(ring, ""));
}

TEST(MessageRing, AMessageLargerThanTheRingNeverFits) {
    message_ring ring(256);
    EXPECT_FALSE(put(ring, std::string(209, 'x')));
    EXPECT_TRUE(put(ring, std::string(208, 'x')));
}

TEST(MessageRing, AMessageDoesNotLieAcrossTheEnd) {
    message_ring ring(256);
    ASSERT_TRUE(put(ring, std::string(48, 'a')));  // 96 bytes
    ASSERT_TRUE(put(ring, std::string(48, 'b')));  // 96 more, so 64 are left
    take(ring);
    // 72 bytes: they go to the start, where 96 are free; what is left of those is not enough.
    ASSERT_TRUE(put(ring, std::string(24, 'c')));
    EXPECT_FALSE(put(ring, ""));
    EXPECT_EQ(text_of(ring.waiting()), std::string(48, 'b'));
    take(ring);
    EXPECT_EQ(ring.held(), nullptr);
    EXPECT_EQ(text_of(ring.waiting()), std::string(24, 'c'));
    EXPECT_EQ(ring.held(), nullptr);
    take(ring);
    EXPECT_TRUE(ring.is_empty());
}

TEST(MessageRing, TheUnusedEndMayBeOneWord) {
    message_ring ring(320);
    ASSERT_TRUE(put(ring, std::string(24, 'a')));   // 72 bytes
    ASSERT_TRUE(put(ring, std::string(192, 'b')));  // 240 more, so 8 are left
    take(ring);
    ASSERT_TRUE(put(ring, "c"));
    take(ring);
    EXPECT_EQ(text_of(ring.waiting()), "c");
}

TEST(MessageRing, AnEmptyOneTakesAMessageOfItsWholeSize) {
    message_ring ring(256);
    for (const char* text : {"a", "b"}) {
        ASSERT_TRUE(put(ring, text));
        take(ring);
        ASSERT_TRUE(put(ring, std::string(208, 'x')));
        EXPECT_FALSE(put(ring, ""));
        EXPECT_EQ(text_of(ring.waiting()), std::string(208, 'x'));
        take(ring);
    }
}

TEST(MessageRing, HeldMessagesKeepTheirRoomUntilTheyEnd) {
    message_ring ring(192);
    ASSERT_TRUE(put(ring, "0123456789abcdef"));
    ASSERT_TRUE(put(ring, "b"));
    ring.hold();
    ring.hold();
    EXPECT_EQ(ring.waiting(), nullptr);
    EXPECT_FALSE(ring.is_empty());
    EXPECT_FALSE(put(ring, std::string(25, 'x')));  // 72 bytes are free, 80 are wanted
    EXPECT_EQ(text_of(ring.held()), "0123456789abcdef");
    ring.end(ring.held());
    EXPECT_TRUE(put(ring, "c"));
    EXPECT_EQ(text_of(ring.held()), "b");
    EXPECT_EQ(text_of(ring.waiting()), "c");
}

TEST(MessageRing, HeldMessagesWaitAgainButNotThoseThatEnded) {
    message_ring ring(1024);
    for (const char* text : {"a", "b", "c", "d"})
        ASSERT_TRUE(put(ring, text));
    ring.hold();
    ring.hold();
    outlet_message* const second = ring.waiting();
    ring.hold();
    ring.end(second);  // "c", while "a" and "b" are on their way
    ring.end(ring.held());
    EXPECT_EQ(text_of(ring.held()), "b");
    ring.unhold();
    EXPECT_EQ(ring.held(), nullptr);
    EXPECT_EQ(text_of(ring.waiting()), "b");
    take(ring);
    EXPECT_EQ(text_of(ring.waiting()), "d");
    take(ring);
    EXPECT_TRUE(ring.is_empty());
}

TEST(MessageRing, DoesWhatAListDoes) {
    std::mt19937 random(7);
    message_ring ring(2048);
    std::deque<std::string> held;
    std::deque<std::string> waiting;
    uint64_t refused = 0;
    for (int step = 0; step < 200'000; ++step) {
        switch (random() % 6) {
            case 0:
            case 1:
            case 2: {
                const std::string text(random() % 500, static_cast<char>('a' + step % 26));
                if (put(ring, text))
                    waiting.push_back(text);
                else
                    ++refused;
                break;
            }
            case 3:
                if (!waiting.empty()) {
                    ring.hold();
                    held.push_back(waiting.front());
                    waiting.pop_front();
                }
                break;
            case 4:
                if (!held.empty()) {
                    ring.end(ring.held());
                    held.pop_front();
                }
                break;
            default:
                if (random() % 16 == 0) {
                    ring.unhold();
                    waiting.insert(waiting.begin(), held.begin(), held.end());
                    held.clear();
                }
        }
        ASSERT_EQ(text_of(ring.waiting()), waiting.empty() ? "(none)" : waiting.front());
        ASSERT_EQ(text_of(ring.held()), held.empty() ? "(none)" : held.front());
        ASSERT_EQ(ring.is_empty(), waiting.empty() && held.empty());
    }
    EXPECT_GT(refused, 1000U);
}

TEST(MessageRing, OneThreadPutsWhileAnotherTakes) {
    constexpr uint64_t count = 50'000;
    message_ring ring(4096);
    std::thread producer([&ring] {
        for (uint64_t n = 0; n < count;)
            n += put(ring, std::string(n % 300, static_cast<char>(n)), n) ? 1 : 0;
    });
    for (uint64_t n = 0; n < count;) {
        const outlet_message* const message = ring.waiting();
        if (message == nullptr)
            continue;
        ASSERT_EQ(message->number, n);
        ASSERT_EQ(text_of(message), std::string(n % 300, static_cast<char>(n)));
        take(ring);
        ++n;
    }
    producer.join();
    EXPECT_TRUE(ring.is_empty());
}

}  // namespace
}  // namespace kestrel
