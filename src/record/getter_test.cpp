#include "kestrelexp/getter.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kestrelexp/service.h"

namespace {

// A table that goes with the test.
struct owned_table {
    ~owned_table() { std::free(entries); }
    void add(const char* name, uint32_t length = 8, getter_valid_function* valid = record_valid_ok,
             void* context = nullptr) {
        getter_add(&entries, name, length, context, valid, record_length_8, record_get_zero);
    }
    std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const getter* entry = entries; entry && entry->name; ++entry)
            result.emplace_back(entry->name);
        return result;
    }
    getter* entries = nullptr;
};

// Room for the names of a whole table.
const char* numbered_name(unsigned n) {
    static std::vector<std::string> names = [] {
        std::vector<std::string> made;
        for (unsigned i = 0; i < 80; ++i)
            made.push_back("F" + std::to_string(100 + i));
        return made;
    }();
    return names[n].c_str();
}

void fill(owned_table& table, unsigned count) {
    for (unsigned i = 0; i < count; ++i)
        table.add(numbered_name(i));
}

class GetterTable : public testing::Test {
  protected:
    void TearDown() override {
        kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0;
        verbose_level = -1;
    }
    owned_table table_;
};

TEST_F(GetterTable, FirstEntryStartsATable) {
    int context = 0;
    getter_add(&table_.entries, "ONE", 2, &context, record_tcp_ok, record_length_2,
               record_get_srcport);
    const getter& entry = table_.entries[0];
    EXPECT_EQ(0u, entry.index);
    EXPECT_STREQ("ONE", entry.name);
    EXPECT_EQ(2u, entry.length);
    EXPECT_EQ(&context, entry.context);
    EXPECT_EQ(record_tcp_ok, entry.valid);
    EXPECT_EQ(record_length_2, entry.length_fn);
    EXPECT_EQ(record_get_srcport, entry.get);
}

TEST_F(GetterTable, TerminatorFollowsTheLastEntry) {
    fill(table_, 3);
    const getter& end = table_.entries[3];
    EXPECT_EQ(nullptr, end.name);
    EXPECT_EQ(0xFFFFFFFFu, end.length);
    EXPECT_EQ(nullptr, end.context);
    EXPECT_EQ(nullptr, end.valid);
    EXPECT_EQ(nullptr, end.length_fn);
    EXPECT_EQ(nullptr, end.get);
}

TEST_F(GetterTable, IndicesArePositions) {
    fill(table_, 10);
    for (uint32_t i = 0; i < 10; ++i)
        EXPECT_EQ(i, table_.entries[i].index);
}

TEST_F(GetterTable, NamesAreFoundByTheirBeginning) {
    table_.add("L3_PROTO");
    table_.add("L3_IPV4_ADDR_SRC");
    table_.add("L3_IPV4_ADDR_DST");
    EXPECT_STREQ("L3_IPV4_ADDR_SRC", getter_by_name(table_.entries, "L3_IPV4_ADDR")->name);
    EXPECT_STREQ("L3_IPV4_ADDR_DST", getter_by_name(table_.entries, "L3_IPV4_ADDR_DST")->name);
    EXPECT_STREQ("L3_PROTO", getter_by_name(table_.entries, "")->name);
}

TEST_F(GetterTable, LongerNamesAreNotFound) {
    table_.add("ZERO");
    EXPECT_EQ(nullptr, getter_by_name(table_.entries, "ZEROES"));
    EXPECT_EQ(nullptr, getter_by_name(table_.entries, "A_NAME_LONGER_THAN_EVERY_OTHER"));
}

TEST_F(GetterTable, NothingIsFoundInAnEmptyTable) {
    EXPECT_EQ(nullptr, getter_by_name(nullptr, "ZERO"));
    EXPECT_EQ(nullptr, getter_by_name(nullptr, ""));
    EXPECT_EQ(0u, getter_bitmap_from_list(nullptr));
    const flow_record record = {};
    EXPECT_EQ(0u, getter_bitmap_from_record(nullptr, &record));
}

TEST_F(GetterTable, DuplicateEndsTheProgram) {
    table_.add("ONE");
    EXPECT_EXIT(table_.add("ONE"), testing::ExitedWithCode(255), "^Duplicate getter found: ONE\n$");
}

TEST_F(GetterTable, BeginningOfAnOlderNameIsADuplicate) {
    table_.add("L2_MPLS_0");
    EXPECT_EXIT(table_.add("L2_MPLS"), testing::ExitedWithCode(255),
                "^Duplicate getter found: L2_MPLS\n$");
}

TEST_F(GetterTable, ContinuationOfAnOlderNameIsNoDuplicate) {
    table_.add("SRC_AS", 2);
    table_.add("SRC_AS32", 4);
    EXPECT_EQ((std::vector<std::string>{"SRC_AS", "SRC_AS32"}), table_.names());
    EXPECT_EQ(2u, getter_by_name(table_.entries, "SRC_AS")->length);
}

TEST_F(GetterTable, SixtyFourthEntryIsTheLast) {
    fill(table_, 64);
    EXPECT_EQ(63u, table_.entries[63].index);
    EXPECT_EXIT(table_.add("ONE_MORE"), testing::ExitedWithCode(255),
                "^Limit of 64 fields exceeded\n$");
}

TEST_F(GetterTable, BitmapOfTheListHasABitForEachIndex) {
    fill(table_, 64);
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFu, getter_bitmap_from_list(table_.entries));
    table_.entries[2].index = 67;  // counted modulo 64
    EXPECT_EQ(0xFFFFFFFFFFFFFFFBu | 0x8u, getter_bitmap_from_list(table_.entries));
}

TEST_F(GetterTable, BitmapOfARecordHasTheValidFieldsOnly) {
    table_.add("A", 8, record_tcp_ok);
    table_.add("B", 8, record_valid_ok);
    table_.add("C", 8, record_ipv6_ok);
    table_.add("D", 8, record_ipv4_ok);
    flow_record record = {};
    record.l3protocol = 4;
    record.l4protocol = 6;
    EXPECT_EQ(0b1011u, getter_bitmap_from_record(table_.entries, &record));
    record.l3protocol = 6;
    record.l4protocol = 17;
    EXPECT_EQ(0b0110u, getter_bitmap_from_record(table_.entries, &record));
}

TEST_F(GetterTable, ValidityTestsGetTheirContext) {
    int yes = 1, no = 0;
    const auto from_context = [](void* context, const flow_record*) {
        return *static_cast<int*>(context);
    };
    table_.add("A", 8, from_context, &no);
    table_.add("B", 8, from_context, &yes);
    const flow_record record = {};
    EXPECT_EQ(0b10u, getter_bitmap_from_record(table_.entries, &record));
}

TEST_F(GetterTable, LengthFunctionsReturnTheirNumber) {
    for (const uint32_t length : {1u, 2u, 4u, 6u, 8u, 16u})
        EXPECT_EQ(length, __length_helper(length)());
    EXPECT_EQ(3u, record_length_3());
}

TEST_F(GetterTable, OtherLengthsEndTheProgram) {
    EXPECT_EXIT(__length_helper(3), testing::ExitedWithCode(255), "^Invalid field length\n$");
    EXPECT_EXIT(__length_helper(0), testing::ExitedWithCode(255), "^Invalid field length\n$");
}

TEST_F(GetterTable, CopyOfAFullBaseTableKeepsItsIndices) {
    kestrel_vlan_offset = 88;
    kestrel_mpls_offset = 98;
    kestrel_mac_offset = 142;
    owned_table base;
    base.entries = getter_base_init();
    verbose_level = 2;
    testing::internal::CaptureStderr();
    getter_copy_list(&table_.entries, base.entries);
    EXPECT_EQ("VERBOSE: 2:gcpy: 54 0\n", testing::internal::GetCapturedStderr());
    ASSERT_EQ(54u, table_.names().size());
    EXPECT_EQ(base.names(), table_.names());
    for (uint32_t i = 0; i < 54; ++i)
        EXPECT_EQ(i, table_.entries[i].index);
    EXPECT_EQ(0xFFFFFFFFu, table_.entries[54].length);
}

TEST_F(GetterTable, CopiedListsAreAppendedWithoutRenumberingOrTests) {
    fill(table_, 2);
    owned_table other;
    fill(other, 3);
    verbose_level = 2;
    testing::internal::CaptureStderr();
    getter_copy_list(&table_.entries, other.entries);
    EXPECT_EQ("VERBOSE: 2:gcpy: 3 2\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ((std::vector<std::string>{"F100", "F101", "F100", "F101", "F102"}), table_.names());
    EXPECT_EQ(0u, table_.entries[2].index);
    EXPECT_EQ(2u, table_.entries[4].index);
}

TEST_F(GetterTable, CopyIsSilentBelowLevelTwo) {
    owned_table other;
    fill(other, 1);
    verbose_level = 1;
    testing::internal::CaptureStderr();
    getter_copy_list(&table_.entries, other.entries);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(GetterTable, EmptyTablesCopyToAnEmptyTable) {
    getter_copy_list(&table_.entries, nullptr);
    EXPECT_EQ(std::vector<std::string>{}, table_.names());
    ASSERT_NE(nullptr, table_.entries);
    EXPECT_EQ(0xFFFFFFFFu, table_.entries[0].length);
}

TEST_F(GetterTable, TableMayBeCopiedBehindItself) {
    fill(table_, 2);
    getter_copy_list(&table_.entries, table_.entries);
    EXPECT_EQ((std::vector<std::string>{"F100", "F101", "F100", "F101"}), table_.names());
}

TEST_F(GetterTable, CopiedEntryKeepsItsIndexInTheNewList) {
    fill(table_, 10);
    owned_table list;
    getter_copy_to(&list.entries, &table_.entries[7]);
    getter_copy_to(&list.entries, &table_.entries[3]);
    getter_copy_to(&list.entries, &list.entries[0]);
    EXPECT_EQ((std::vector<std::string>{"F107", "F103", "F107"}), list.names());
    EXPECT_EQ(7u, list.entries[0].index);
    EXPECT_EQ((uint64_t{1} << 7) | (uint64_t{1} << 3), getter_bitmap_from_list(list.entries));
}

}  // namespace
