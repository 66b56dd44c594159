// Not under the thread sanitizer: it is all one thread.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/log.h"
#include "kestrelexp/template.h"
#include "tests/support/export_fixture.h"

namespace {

using kestrel_test::bytes;
using kestrel_test::join;
using kestrel_test::keep;

class TemplateFill : public kestrel_test::export_fixture {
  protected:
    void define(std::vector<std::string> definitions) {
        std::vector<char*> array;
        for (std::string& text : definitions)
            array.push_back(text.data());
        array.push_back(nullptr);
        collection_ = exporter_template_init(array.data(), static_field_ipfix, table_);
        keep(collection_);
    }
    uint32_t add(int32_t index = -1) {
        return exporter_template_add_record(collection_, &flow_, index);
    }
    void add_many(int count) {
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(0u, add());
    }
    uint16_t size() { return exporter_template_current_data_size(collection_); }
    // What a fill wrote at the cursor; the bytes after it are untouched.
    template <typename Fill>
    bytes written(Fill fill) {
        std::vector<uint8_t> buffer(4096, 0xEE);
        cursor_.buffer = buffer.data();
        const uint32_t before = cursor_.offset;
        fill(collection_, &cursor_);
        for (size_t i = 0; i < buffer.size(); ++i)
            if (i < before || i >= cursor_.offset) {
                EXPECT_EQ(0xEE, buffer[i]) << i;
            }
        return {buffer.begin() + before, buffer.begin() + cursor_.offset};
    }
    bytes data_sets() { return written(exporter_template_fill_packet_data); }
    bytes template_set() { return written(exporter_template_fill_packet_templates); }

    template_collection* collection_ = nullptr;
    template_cursor cursor_ = {};
};

// ---- Choosing ----

TEST_F(TemplateFill, RecordTakesTheTemplateThatNeedsMost) {
    define({"IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC", "IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,TOS=L4_TCP_FLAGS"});
    int32_t index = 7;
    EXPECT_EQ(5u, exporter_template_find(collection_, &flow_, &index));
    EXPECT_EQ(0, index);
    flow_.l4protocol = 17;
    EXPECT_EQ(4u, exporter_template_find(collection_, &flow_, &index));
    EXPECT_EQ(1, index);
}

TEST_F(TemplateFill, Ipv6FlowTakesNoIpv4Template) {
    define({"IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC"});
    flow_.l3protocol = 6;
    int32_t index = 7;
    EXPECT_EQ(0u, exporter_template_find(collection_, &flow_, &index));
    EXPECT_EQ(-1, index);
    EXPECT_EQ(0xFFFFFFFFu, add());
    EXPECT_EQ(0u, collection_->records_added);
}

TEST_F(TemplateFill, GivenTemplateIsTakenUnasked) {
    define({"IN_BYTES=BYTES", "IPV6_SRC_ADDR=L3_IPV6_ADDR_SRC"});
    EXPECT_EQ(0u, add(1));
    EXPECT_EQ(16, collection_->templates[1].data->length);
}

TEST_F(TemplateFill, PositionBehindTheLastTemplateIsRefused) {
    define({"IN_BYTES=BYTES"});
    EXPECT_EQ(0xFFFFFFFFu, add(1));
    EXPECT_EQ(0xFFFFFFFFu, add(0x7FFFFFFF));
    EXPECT_EQ(0u, collection_->records_added);
}

TEST_F(TemplateFill, RecordIsPrintedAtLevelFive) {
    define({"IN_BYTES=BYTES"});
    verbose_level = 5;
    const std::string text = messages_of([&] { add(); });
    EXPECT_EQ(0u, text.find("VERBOSE: 5:flow: FLOW: ")) << text;
    verbose_level = 4;
    EXPECT_EQ("", messages_of([&] { add(); }));
}

// ---- Records ----

TEST_F(TemplateFill, ValuesAreBigEndianAndAsWideAsTheirElements) {
    define(
        {"PROTOCOL=L4_PROTO,L4_SRC_PORT=L4_PORT_SRC,IN_BYTES=L4_PORT_DST,TOS=BYTES,"
         "FLOW_START_MILLISECONDS=FLOW_START_MSEC,FIRST_SWITCHED=FLOW_START_MSEC"});
    add();
    // 1,600,000,001,500 ms are 0x174'876E'85DC.
    EXPECT_EQ((bytes{1,    0,    0,    24,   0x06, 0x21, 0x22, 0,    0,    0x23, 0x24, 0x08,
                     0x00, 0x00, 0x01, 0x74, 0x87, 0x6E, 0x85, 0xDC, 0x87, 0x6E, 0x85, 0xDC}),
              data_sets());
}

TEST_F(TemplateFill, RecordsStandOneBehindTheOther) {
    define({"L4_SRC_PORT=L4_PORT_SRC"});
    add_many(2);
    EXPECT_EQ(4, collection_->templates[0].data->length);
    EXPECT_EQ(2u, collection_->templates[0].buffered_records);
    EXPECT_EQ(2u, collection_->records_added);
    EXPECT_EQ((bytes{1, 0, 0, 8, 0x21, 0x22, 0x21, 0x22}), data_sets());
}

TEST_F(TemplateFill, OneByteIsPaddedByThree) {
    define({"PROTOCOL=L4_PROTO"});
    add();
    EXPECT_EQ((bytes{1, 0, 0, 8, 6, 0, 0, 0}), data_sets());
    EXPECT_EQ(8u, cursor_.offset);
    EXPECT_EQ(1u, cursor_.count);
}

TEST_F(TemplateFill, PaddingIsWhatWasThere) {
    define({"PROTOCOL=L4_PROTO"});
    add_many(4);
    data_sets();
    flow_.l4protocol = 17;
    add();
    EXPECT_EQ((bytes{1, 0, 0, 8, 17, 6, 6, 6}), data_sets());
}

// An odd width takes the whole value, of which the next field overwrites what is too much.
TEST_F(TemplateFill, OddWidthsTakeWholeValues) {
    define({"MPLS_LABEL_1=L3_IPV4_ADDR_SRC,PROTOCOL=L4_PROTO,MPLS_LABEL_2=FLOW_START_MSEC"});
    add();
    EXPECT_EQ((bytes{1, 0, 0, 12, 0x01, 0x02, 0x00, 0x06, 0xDC, 0x85, 0x6E, 0x87}), data_sets());
}

TEST_F(TemplateFill, FieldsOfABlockThatIsOffLeaveTheBufferAlone) {
    kestrel_vlan_offset = 88;
    std::free(table_);
    table_ = getter_base_init();
    kestrel_vlan_offset = 0;
    define({"VLAN_ID=L2_VLAN_0,L4_SRC_PORT=L4_PORT_SRC"});
    EXPECT_EQ(0xFFFFFFFFu, add());
    add(0);
    EXPECT_EQ((bytes{1, 0, 0, 8, 0, 0, 0x21, 0x22}), data_sets());
}

getter seen;
void remember(void* context, const flow_record*, void* to, uint32_t length, uint32_t order,
              const getter* self) {
    seen = *self;
    seen.context = context;
    seen.index = order;
    seen.length = length;
    std::memset(to, 0x5A, length);
}

TEST_F(TemplateFill, AccessorsGetTheirContextAndEntry) {
    int context = 0;
    getter_add(&table_, "MINE", 4, &context, record_valid_ok, record_length_4, remember);
    define({"L4_SRC_PORT=MINE"});
    add();
    EXPECT_STREQ("MINE", seen.name);
    EXPECT_EQ(&context, seen.context);
    EXPECT_EQ(2u, seen.length);
    EXPECT_EQ(1u, seen.index);
    EXPECT_EQ((bytes{1, 0, 0, 8, 0x5A, 0x5A, 0, 0}), data_sets());
}

// ---- Sizes ----

TEST_F(TemplateFill, EmptyTemplatesCountFourBytesEach) {
    define({"PROTOCOL=L4_PROTO", "TOS=L3_IPV4_TOS", "FLOWS=ZERO"});
    EXPECT_EQ(12u, size());
    add();
    EXPECT_EQ(16u, size());
    add_many(3);
    EXPECT_EQ(16u, size());
    add();
    EXPECT_EQ(20u, size());
}

TEST_F(TemplateFill, DataSetsFollowOneAnother) {
    define({"IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC", "FLOWS=ZERO,TOS=L4_ICMP_TYPE_CODE", "TOS=L4_PROTO"});
    add();
    flow_.l4protocol = 1;
    add();
    add();
    flow_.l3protocol = 6;
    flow_.l4protocol = 47;
    add();
    EXPECT_EQ((bytes{1, 0, 0, 16, 0,    0, 0, 0, 0x26, 0, 0, 0, 0, 0x26, 0, 0,  //
                     1, 1, 0, 8,  0xC0, 0, 2, 1,                                //
                     1, 2, 0, 8,  47,   0, 0, 0}),
              data_sets());
    EXPECT_EQ(4u, cursor_.count);
    EXPECT_EQ(32u, cursor_.offset);
}

TEST_F(TemplateFill, FillEmptiesTheBuffers) {
    define({"IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC"});
    add_many(3);
    data_sets();
    EXPECT_EQ(0, collection_->templates[0].data->length);
    EXPECT_EQ(0u, collection_->templates[0].buffered_records);
    EXPECT_EQ(1u, collection_->packets_built);
    EXPECT_EQ(3u, collection_->records_added);
    EXPECT_EQ(bytes{}, data_sets());
    EXPECT_EQ(2u, collection_->packets_built);
    EXPECT_EQ(3u, cursor_.count);
}

// ---- Template sets ----

TEST_F(TemplateFill, TemplateSetListsAllTemplates) {
    define({"TOS=L3_IPV4_TOS", "FLOW_END_MILLISECONDS=FLOW_END_MSEC,SRC_AS32=ZERO"});
    collection_->set_id = 2;
    cursor_.offset = 16;
    cursor_.count = 1;
    EXPECT_EQ((bytes{0, 2, 0, 24,                             //
                     1, 0, 0, 2,  0, 153, 0, 8, 0, 16, 0, 4,  //
                     1, 1, 0, 1,  0, 5,   0, 1}),
              template_set());
    EXPECT_EQ(40u, cursor_.offset);
    EXPECT_EQ(3u, cursor_.count);
}

TEST_F(TemplateFill, TemplateSetSaysHowManyTemplatesItHas) {
    define({"TOS=ZERO", "FLOWS=ZERO"});
    std::vector<uint8_t> buffer(64);
    cursor_.buffer = buffer.data();
    EXPECT_EQ(2u, exporter_template_fill_packet_templates(collection_, &cursor_));
}

TEST_F(TemplateFill, NoTemplatesAreABareHeader) {
    define({"TOS=ZERO"});
    collection_->count = 0;
    collection_->set_id = 0;
    EXPECT_EQ((bytes{0, 0, 0, 4}), template_set());
    EXPECT_EQ(0u, cursor_.count);
    collection_->count = 1;
}

// ---- Limits: what a caller that never flushes meets ----

TEST_F(TemplateFill, FullBufferIsSilent) {
    define({"PROTOCOL=L4_PROTO"});
    EXPECT_EQ("", messages_of([&] { add_many(1450); }));
    EXPECT_EQ(1450, collection_->templates[0].data->length);
}

TEST_F(TemplateFill, EveryValueBehindTheBufferIsReported) {
    define({"PROTOCOL=L4_PROTO,IPV6_SRC_ADDR=ZERO,L4_SRC_PORT=L4_PORT_SRC"});
    add_many(76);  // 76 * 19 = 1444
    EXPECT_EQ(
        "template add processing BUG length: 1461, template: 0, field: 1\n"
        "template add processing BUG length: 1463, template: 0, field: 2\n",
        messages_of([&] { EXPECT_EQ(0u, add()); }));
    EXPECT_EQ(77u, collection_->templates[0].buffered_records);
    EXPECT_EQ(6, collection_->templates[0].data->records[1444]);
    EXPECT_EQ(0, collection_->templates[0].data->records[1445]);
}

TEST_F(TemplateFill, LongestSetTakesThePacket) {
    define({"IN_BYTES=BYTES,L4_SRC_PORT=L4_PORT_SRC"});
    add_many(241);  // 1446 bytes and a header are 1450, rounded up 1452
    EXPECT_EXIT(data_sets(), testing::ExitedWithCode(214), "^TEMPLATE PROCESSING BUG\n$");
}

TEST_F(TemplateFill, SetOf1448BytesIsWritten) {
    define({"IN_BYTES=BYTES"});
    add_many(361);
    EXPECT_EQ(1448u, data_sets().size());
    add_many(362);
    EXPECT_EXIT(data_sets(), testing::ExitedWithCode(214), "^TEMPLATE PROCESSING BUG\n$");
}

// The count of bytes does not wrap, so an overfull buffer is never taken for a good one.
TEST_F(TemplateFill, BufferThatOverflowsForLongStaysOverfull) {
    define({"IPV6_SRC_ADDR=ZERO"});
    testing::internal::CaptureStderr();
    add_many(10000);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(0xFFFF, collection_->templates[0].data->length);
    EXPECT_EXIT(data_sets(), testing::ExitedWithCode(214), "^TEMPLATE PROCESSING BUG\n$");
}

// Whole copies at the very end of the buffer: 1450 = 3 * 483 + 1.
TEST_F(TemplateFill, WholeCopyAtTheEndOfTheBufferHasRoom) {
    kestrel_mac_offset = 88;
    struct {
        flow_record flow;
        mac_block mac;
    } whole = {flow_, {{1, 2, 3, 4, 5, 6}, {7, 8, 9, 10, 11, 12}}};
    std::free(table_);
    table_ = getter_base_init();
    define({"MPLS_LABEL_1=L2_SRC_MAC"});
    for (int i = 0; i < 483; ++i)
        exporter_template_add_record(collection_, &whole.flow, -1);
    kestrel_mac_offset = 0;
    const template_data& data = *collection_->templates[0].data;
    EXPECT_EQ(1449, data.length);
    EXPECT_EQ(0, std::memcmp(data.records + 1444, "\2\3\1\2\3\4", 6));
}

}  // namespace
