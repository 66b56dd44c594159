#include "base/memory.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/log.h"

namespace {

using namespace kestrel;

// Length of the mapping that begins at the address, 0 when none does.
uint64_t mapped_bytes(const void* begin) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        uint64_t from = 0, to = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx", &from, &to) == 2 &&
            from == reinterpret_cast<uintptr_t>(begin))
            return to - from;
    }
    return 0;
}

bool all_zero(const void* block, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(block);
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

// A directory that stands in for hugetlbfs, and goes with the test.
class HugeMemory : public testing::Test {
  protected:
    void SetUp() override {
        char path[] = "/tmp/kestrel_huge_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(path));
        directory_ = path;
    }
    void TearDown() override { std::filesystem::remove_all(directory_); }

    std::string directory_;
};

TEST(Memory, PlainBlocksAreZeroed) {
    for (const size_t size : {size_t{1}, size_t{100}, size_t{5000}}) {
        void* dirty = std::malloc(size);
        std::fill_n(static_cast<volatile uint8_t*>(dirty), size, uint8_t{0xAA});
        std::free(dirty);
        void* block = malloc_wrapper(size, 0);
        EXPECT_TRUE(all_zero(block, size));
        std::free(block);
    }
}

TEST(Memory, AlignedBlocksStartOn128Bytes) {
    for (const size_t size : {size_t{1}, size_t{129}, size_t{5'000'000}}) {
        void* block = malloc_wrapper(size, 1);
        EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block) % 128);
        EXPECT_TRUE(all_zero(block, size));
        std::free(block);
    }
}

TEST(Memory, EmptyBlocksAreNotNull) {
    void* plain = malloc_wrapper(0, 0);
    void* aligned = malloc_wrapper(0, 1);
    EXPECT_NE(nullptr, plain);
    EXPECT_NE(nullptr, aligned);
    std::free(plain);
    std::free(aligned);
}

TEST(Memory, BigArrayWithoutDirectoryIsAlignedMemory) {
    void* block = big_array(6'000'000, nullptr, "unused");
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(block) % 0x200000);
    EXPECT_TRUE(all_zero(block, 6'000'000));
    std::fill_n(static_cast<uint8_t*>(block), 6'000'000, uint8_t{0xAA});
}

TEST(Memory, LifelongObjectsAreInitialised) {
    struct pair {
        int a;
        int b;
    };
    pair* made = make_lifelong<pair>(3, 4);
    EXPECT_EQ(3, made->a);
    EXPECT_EQ(4, made->b);
    std::free(made);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers' allocators end the process in their own way.
TEST(Memory, ExhaustedMemoryEndsTheProcess) {
    EXPECT_EXIT(malloc_wrapper(SIZE_MAX / 2, 0), testing::ExitedWithCode(102),
                "^Malloc problem\nUnable to get 9223372036854775807 bytes of memory\n$");
}

TEST(Memory, ExhaustedAlignedMemoryEndsTheProcess) {
    EXPECT_EXIT(malloc_wrapper(SIZE_MAX / 2 - 1, 1), testing::ExitedWithCode(102),
                "^Posix memalign problem \\(malloc\\)\n"
                "Unable to get 9223372036854775806 bytes of memory\n$");
}

// What the language asks for is asked for without its size.
TEST(Memory, FailingNewEndsTheProcess) {
    const auto exhaust = [] {
        install_memory_handler();
        ::operator delete(::operator new(SIZE_MAX / 2));
    };
    EXPECT_EXIT(exhaust(), testing::ExitedWithCode(102), "^Malloc problem\n$");
}
#endif

TEST_F(HugeMemory, OneByteMapsTwoMebibytes) {
    void* block = malloc_huge(1, directory_.c_str(), "one");
    EXPECT_EQ(0x200000u, mapped_bytes(block));
    EXPECT_TRUE(all_zero(block, 0x200000));
}

TEST_F(HugeMemory, WholePagesStayAsTheyAre) {
    void* block = malloc_huge(0x400000, directory_.c_str(), "two");
    EXPECT_EQ(0x400000u, mapped_bytes(block));
    EXPECT_TRUE(all_zero(block, 0x400000));
}

TEST_F(HugeMemory, FileIsGoneAtOnce) {
    malloc_huge(1, directory_.c_str(), "gone");
    EXPECT_TRUE(std::filesystem::is_empty(directory_));
}

TEST_F(HugeMemory, BigArrayUsesTheDirectory) {
    void* block = big_array(1, directory_.c_str(), "array");
    EXPECT_EQ(0x200000u, mapped_bytes(block));
}

TEST_F(HugeMemory, MissingDirectoryEndsTheProcess) {
    EXPECT_EXIT(malloc_huge(1, "/nonexistent", "x"), testing::ExitedWithCode(214),
                "^hugetlb open failed: No such file or directory\n$");
}

TEST_F(HugeMemory, ImpossibleSizesEndTheProcess) {
    EXPECT_EXIT(malloc_huge(SIZE_MAX, directory_.c_str(), "x"), testing::ExitedWithCode(214),
                "^hugetlb mmap failed: Cannot allocate memory\n"
                "Unable to get 18446744073709551615 bytes of memory\n$");
    EXPECT_EXIT(malloc_huge(PTRDIFF_MAX / 2, directory_.c_str(), "x"), testing::ExitedWithCode(214),
                "^hugetlb mmap failed: [^\n]*\n"
                "Unable to get 4611686018427387903 bytes of memory\n$");
}

TEST_F(HugeMemory, NothingToMapEndsTheProcess) {
    EXPECT_EXIT(malloc_huge(0, directory_.c_str(), "x"), testing::ExitedWithCode(214),
                "^hugetlb mmap failed: ");
}

}  // namespace
