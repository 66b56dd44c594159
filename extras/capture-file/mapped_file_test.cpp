// Tests of files in memory that are cut while they are read.
#include "mapped_file.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csetjmp>
#include <csignal>
#include <string>

namespace capture_file {
namespace {

constexpr size_t page = 4096;

// A file without a name that has so many letters.
int make_file(size_t size, char letter) {
    const int descriptor = memfd_create("mapped_file_test", 0);
    const std::string content(size, letter);
    EXPECT_EQ(write(descriptor, content.data(), size), static_cast<ssize_t>(size));
    return descriptor;
}

class MappedFile : public testing::Test {
  protected:
    ~MappedFile() override {
        unmap_file(file_);
        close(descriptor_);
    }

    void map() { ASSERT_TRUE(map_file(descriptor_, 1, file_)); }
    void cut(size_t size) { ASSERT_EQ(ftruncate(descriptor_, static_cast<off_t>(size)), 0); }
    uint8_t byte(size_t at) const { return *const_cast<const volatile uint8_t*>(file_.data + at); }

    int descriptor_ = make_file(10 * page, 'x');
    mapped_file file_{};
};

TEST_F(MappedFile, HoldsTheBytesOfTheFile) {
    map();
    EXPECT_EQ(file_.size, 10 * page);
    EXPECT_EQ(mapping_advance(file_, 0), SIZE_MAX);
    EXPECT_EQ(byte(0), 'x');
    EXPECT_EQ(byte(10 * page - 1), 'x');
    EXPECT_TRUE(mapping_has(file_, 10 * page));
    EXPECT_FALSE(mapping_was_cut(file_));
}

TEST_F(MappedFile, IsNoneOfAFileThatIsTooSmallNorOfAPipe) {
    EXPECT_FALSE(map_file(descriptor_, 10 * page + 1, file_));
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_FALSE(map_file(ends[0], 0, file_));
    close(ends[0]);
    close(ends[1]);
}

TEST_F(MappedFile, GivesZerosInThePlaceOfWhatWasCutOff) {
    map();
    cut(4 * page + 100);
    EXPECT_TRUE(mapping_was_cut(file_));
    EXPECT_EQ(byte(9 * page), 0);
    EXPECT_EQ(byte(5 * page), 0);
    EXPECT_EQ(byte(4 * page + 100), 0);
    EXPECT_EQ(byte(4 * page + 99), 'x');
    EXPECT_EQ(byte(0), 'x');
    EXPECT_TRUE(mapping_has(file_, 4 * page + 100));
    EXPECT_FALSE(mapping_has(file_, 4 * page + 101));
}

TEST_F(MappedFile, KeepsWhatWasLostLostWhenTheFileGrowsAgain) {
    map();
    cut(4 * page);
    EXPECT_EQ(byte(6 * page), 0);
    cut(10 * page);
    EXPECT_TRUE(mapping_has(file_, 6 * page));
    EXPECT_FALSE(mapping_has(file_, 6 * page + 1));
}

TEST_F(MappedFile, SurvivesAdviceOverPagesThatAreGone) {
    map();
    cut(0);
    EXPECT_EQ(mapping_advance(file_, 2 * page), SIZE_MAX);
    EXPECT_EQ(byte(2 * page), 0);
}

sigjmp_buf way_out;
int caught;

void leave(int number) {
    caught = number;
    siglongjmp(way_out, 1);
}

TEST_F(MappedFile, LeavesOtherFaultsToWhoTookThemBefore) {
    struct sigaction before {
    }, former{};
    before.sa_handler = leave;
    ASSERT_EQ(sigaction(SIGBUS, &before, &former), 0);
    map();
    const int descriptor = make_file(page, 'y');
    const auto* const foreign =
        static_cast<volatile uint8_t*>(mmap(nullptr, page, PROT_READ, MAP_SHARED, descriptor, 0));
    ASSERT_EQ(ftruncate(descriptor, 0), 0);
    if (sigsetjmp(way_out, 1) == 0)
        (void)*foreign;
    EXPECT_EQ(caught, SIGBUS);
    caught = 0;
    if (sigsetjmp(way_out, 1) == 0)
        (void)raise(SIGBUS);  // sent, not met
    EXPECT_EQ(caught, SIGBUS);
    unmap_file(file_);
    close(descriptor);
    ASSERT_EQ(sigaction(SIGBUS, &former, &before), 0);
    EXPECT_EQ(before.sa_handler, leave);  // as it was before the file was mapped
}

}  // namespace
}  // namespace capture_file
