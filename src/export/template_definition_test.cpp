// Not under the thread sanitizer: it is all one thread.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "base/log.h"
#include "kestrelexp/template.h"
#include "tests/support/lifelong.h"

namespace {

using kestrel_test::keep;
using texts = std::vector<std::string>;

std::vector<char*> pointers(texts& from) {
    std::vector<char*> result;
    for (std::string& text : from)
        result.push_back(text == "<null>" ? nullptr : text.data());
    result.push_back(nullptr);
    return result;
}

// ---- Grouping lines ----

// The first count definitions; "<null>" for those without text.
texts grouped(texts lines, size_t count) {
    std::vector<char*> array = pointers(lines);
    char** definitions = exporter_template_convert_config(array.data());
    texts result;
    for (size_t i = 0; i < count; ++i)
        result.emplace_back(definitions[i] ? definitions[i] : "<null>");
    EXPECT_EQ(nullptr, definitions[count]);
    std::free(definitions);
    return result;
}

TEST(TemplateLines, NoLinesAreNoDefinitions) {
    EXPECT_EQ(texts{}, grouped({}, 0));
    char** definitions = exporter_template_convert_config(nullptr);
    ASSERT_NE(nullptr, definitions);
    EXPECT_EQ(nullptr, definitions[0]);
    std::free(definitions);
}

TEST(TemplateLines, LineBreaksAreCommas) {
    EXPECT_EQ((texts{"A=B,C=D,E=F"}), grouped({"BEGIN-TEMPLATE", "A=B", "C=D,E=F"}, 1));
}

TEST(TemplateLines, EachOpeningLineStartsADefinition) {
    EXPECT_EQ((texts{"A=B", "C=D"}),
              grouped({"BEGIN-TEMPLATE", "A=B", "BEGIN-TEMPLATE", "C=D"}, 2));
}

TEST(TemplateLines, RestOfTheOpeningLineIsIgnored) {
    EXPECT_EQ((texts{"A=B"}), grouped({"BEGIN-TEMPLATES,X=Y", "A=B"}, 1));
}

TEST(TemplateLines, OpeningWordElsewhereInALineIsText) {
    EXPECT_EQ((texts{" BEGIN-TEMPLATE,A=B"}),
              grouped({"BEGIN-TEMPLATE", " BEGIN-TEMPLATE", "A=B"}, 1));
}

TEST(TemplateLines, DefinitionWithoutLinesIsNull) {
    EXPECT_EQ((texts{"<null>", "A=B", "<null>"}),
              grouped({"BEGIN-TEMPLATE", "BEGIN-TEMPLATE", "A=B", "BEGIN-TEMPLATE"}, 3));
}

TEST(TemplateLines, LinesBeforeTheFirstOpeningEndTheProgram) {
    EXPECT_EXIT(grouped({"A=B", "BEGIN-TEMPLATE"}, 0), testing::ExitedWithCode(255),
                "^Template definition not begins with BEGIN-TEMPLATE\n$");
}

// ---- Building collections ----

class TemplateInit : public testing::Test {
  protected:
    void SetUp() override { table_ = getter_base_init(); }
    void TearDown() override {
        verbose_level = -1;
        keep(table_);  // collections borrow it
    }

    template_collection* init(texts definitions,
                              const template_element* elements = static_field_ipfix) {
        std::vector<char*> array = pointers(definitions);
        return keep(exporter_template_init(array.data(), elements, table_));
    }
    uint64_t bits(std::initializer_list<const char*> names) {
        uint64_t sum = 0;
        for (const char* name : names)
            sum |= uint64_t{1} << getter_by_name(table_, name)->index;
        return sum;
    }

    getter* table_ = nullptr;
};

TEST_F(TemplateInit, NothingDefinedIsNoCollection) {
    EXPECT_EQ(nullptr, init({}));
    EXPECT_EQ(nullptr, exporter_template_init(nullptr, static_field_ipfix, table_));
}

TEST_F(TemplateInit, FieldsKeepTheirOrder) {
    const template_collection* made = init({"TOS=L3_IPV4_TOS,IN_BYTES=BYTES"});
    ASSERT_EQ(1, made->count);
    const export_template& only = made->templates[0];
    EXPECT_EQ(2, only.field_count);
    EXPECT_EQ(5, only.record_length);
    EXPECT_STREQ("TOS", only.elements[0]->name);
    EXPECT_STREQ("IN_BYTES", only.elements[1]->name);
    EXPECT_STREQ("L3_IPV4_TOS", only.getters[0].name);
    EXPECT_STREQ("BYTES", only.getters[1].name);
    EXPECT_EQ(nullptr, only.getters[2].name);
    EXPECT_EQ(getter_by_name(table_, "BYTES")->index, only.getters[1].index);
    EXPECT_EQ(bits({"L3_IPV4_TOS", "BYTES"}), only.required);
}

TEST_F(TemplateInit, CollectionStartsEmpty) {
    const template_collection* made = init({"TOS=L3_IPV4_TOS"});
    EXPECT_EQ(0u, made->records_added);
    EXPECT_EQ(0u, made->packets_built);
    EXPECT_EQ(0, made->set_id);
    EXPECT_EQ(table_, made->getters);
    const export_template& only = made->templates[0];
    EXPECT_EQ(0u, only.buffered_records);
    EXPECT_EQ(0, only.data->set_id_be);
    EXPECT_EQ(0, only.data->length);
    for (const uint8_t byte : only.data->records)
        EXPECT_EQ(0, byte);
}

TEST_F(TemplateInit, LargestRecordIsThatOfAllTemplates) {
    const template_collection* made =
        init({"TOS=ZERO", "IPV6_SRC_ADDR=L3_IPV6_ADDR_SRC", "IN_BYTES=BYTES"});
    EXPECT_EQ(16u, made->largest_record);
}

TEST_F(TemplateInit, MoreGettersComeFirstAndEqualCountsKeepTheirOrder) {
    const template_collection* made =
        init({"TOS=ZERO", "IN_BYTES=BYTES,IN_PKTS=PACKETS", "PROTOCOL=L4_PROTO",
              "L4_SRC_PORT=L4_PORT_SRC", "TOS=L3_IPV4_TOS,TCP_FLAGS=L4_TCP_FLAGS,FLOWS=ZERO"});
    std::vector<std::string> order;
    for (int i = 0; i < made->count; ++i)
        order.push_back(made->templates[i].getters[0].name);
    EXPECT_EQ((texts{"L3_IPV4_TOS", "BYTES", "ZERO", "L4_PROTO", "L4_PORT_SRC"}), order);
}

TEST_F(TemplateInit, GetterThatServesTwoFieldsCountsOnce) {
    const template_collection* made =
        init({"IN_BYTES=BYTES,OUT_BYTES=BYTES,FLOWS=BYTES", "TOS=ZERO,PROTOCOL=L4_PROTO"});
    EXPECT_STREQ("ZERO", made->templates[0].getters[0].name);
}

TEST_F(TemplateInit, ValuesThatFellBackToZeroCountAsOne) {
    testing::internal::CaptureStderr();
    const template_collection* made =
        init({"TOS=L4_PROTO,FLOWS=BYTES", "FLOWS=BYTES,TOS=*NONE,PROTOCOL=*NEITHER,IN_PKTS=PACKETS",
              "PROTOCOL=L4_PROTO,TOS=L3_PROTO,IN_PKTS=PACKETS,FLOWS=BYTES"});
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(bits({"L4_PROTO", "L3_PROTO", "PACKETS", "BYTES"}), made->templates[0].required);
    EXPECT_EQ(bits({"BYTES", "ZERO", "PACKETS"}), made->templates[1].required);
    EXPECT_EQ(bits({"L4_PROTO", "BYTES"}), made->templates[2].required);
}

TEST_F(TemplateInit, OrderComparesBitsOnly) {
    export_template three = {}, two = {}, other_two = {};
    three.required = 0b10101;
    two.required = 0b11;
    other_two.required = uint64_t{3} << 62;
    EXPECT_LT(exporter_template_cmp_rev(&three, &two), 0);
    EXPECT_GT(exporter_template_cmp_rev(&two, &three), 0);
    EXPECT_EQ(0, exporter_template_cmp_rev(&two, &other_two));
}

TEST_F(TemplateInit, InitStopsAtTheFirstEmptyDefinition) {
    EXPECT_EQ(1, init({"TOS=ZERO", "<null>", "FLOWS=ZERO"})->count);
    EXPECT_EQ(nullptr, init({"<null>", "FLOWS=ZERO"}));
}

TEST_F(TemplateInit, EmptyPiecesOfADefinitionAreDropped) {
    EXPECT_EQ(2, init({",,TOS=ZERO,,FLOWS=ZERO,"})->templates[0].field_count);
}

TEST_F(TemplateInit, DefinitionOfCommasIsATemplateWithoutFields) {
    const template_collection* made = init({",,,"});
    EXPECT_EQ(1, made->count);
    EXPECT_EQ(0, made->templates[0].field_count);
    EXPECT_EQ(0u, made->templates[0].required);
}

TEST_F(TemplateInit, DefinitionsAreLeftAsTheyAre) {
    std::string definition = "TOS=*L3_IPV4_TOS,FLOWS=ZERO";
    char* array[] = {definition.data(), nullptr};
    ASSERT_NE(nullptr, keep(exporter_template_init(array, static_field_ipfix, table_)));
    EXPECT_EQ("TOS=*L3_IPV4_TOS,FLOWS=ZERO", definition);
}

TEST_F(TemplateInit, OptionalValueThatExistsIsTaken) {
    EXPECT_EQ(bits({"L4_PROTO"}), init({"PROTOCOL=*L4_PROTO"})->templates[0].required);
}

TEST_F(TemplateInit, OptionalValueThatDoesNotExistIsZero) {
    testing::internal::CaptureStderr();
    const template_collection* made = init({"PROTOCOL=*NO_SUCH_GETTER"});
    EXPECT_EQ("Fallback to ZERO getter for value: NO_SUCH_GETTER\n",
              testing::internal::GetCapturedStderr());
    EXPECT_STREQ("PROTOCOL", made->templates[0].elements[0]->name);
    EXPECT_EQ(bits({"ZERO"}), made->templates[0].required);
}

TEST_F(TemplateInit, ValueIsFoundByItsBeginning) {
    EXPECT_EQ(bits({"L4_PORT_SRC"}), init({"L4_SRC_PORT=L4_PORT"})->templates[0].required);
}

TEST_F(TemplateInit, SuccessIsReportedAtLevelZero) {
    verbose_level = 0;
    testing::internal::CaptureStderr();
    init({"TOS=ZERO"});
    EXPECT_EQ("VERBOSE: 0:Templates OK\n", testing::internal::GetCapturedStderr());
}

TEST_F(TemplateInit, FaultsEndTheProgram) {
    struct expectation {
        const char* definition;
        const char* message;
    };
    for (const auto& [definition, message] :
         {expectation{"TOS", "^Field: TOS has invalid format\n$"},
          expectation{"TOS=", "^Field: TOS= has invalid format\n$"},
          expectation{"=ZERO", "^Field: =ZERO has invalid format\n$"},
          expectation{"=", "^Field: = has invalid format\n$"},
          expectation{"FLOWS=ZERO,   ", "^Field:     has invalid format\n$"},
          expectation{"NOTHING=ZERO", "^Bad field: NOTHING\nAllowed fields are:\n$"},
          expectation{" TOS=ZERO", "^Bad field:  TOS\nAllowed fields are:\n$"},
          expectation{"TOS=NOTHING", "^Unable to found record value: NOTHING\n$"},
          expectation{"TOS=ZERO=BYTES", "^Unable to found record value: ZERO=BYTES\n$"}})
        EXPECT_EXIT(init({definition}), testing::ExitedWithCode(255), message) << definition;
}

TEST_F(TemplateInit, FaultsEndTheProgramAlsoUnprinted) {
    EXPECT_EXIT(
        {
            verbose_level = -2;
            init({"TOS"});
        },
        testing::ExitedWithCode(255), "^$");
}

TEST_F(TemplateInit, BadFieldPrintsTheTable) {
    constexpr template_element one[] = {{"ONLY", 1, 3}, {nullptr, 0, 0}};
    EXPECT_EXIT(
        {
            dup2(2, 1);
            init({"TOS=ZERO"}, one);
        },
        testing::ExitedWithCode(255),
        "^Bad field: TOS\nAllowed fields are:\nName,Length\nONLY,3\n$");
}

TEST_F(TemplateInit, MissingElementTableEndsTheProgram) {
    EXPECT_EXIT(init({"TOS=ZERO"}, nullptr), testing::ExitedWithCode(255),
                "^blank field definition\n$");
}

TEST_F(TemplateInit, TableWithoutZeroServesNoOptionalValue) {
    std::free(table_);
    table_ = nullptr;
    getter_add(&table_, "BYTES", 4, nullptr, record_valid_ok, record_length_4, record_get_bytes);
    EXPECT_EXIT(init({"TOS=*NOTHING"}), testing::ExitedWithCode(255),
                "^Fallback to ZERO getter for value: NOTHING\n"
                "Unable to found record value: NOTHING\n$");
}

TEST_F(TemplateInit, FieldsOfVariableLengthAreRefused) {
    getter_add(&table_, "NOLENGTH", 0, nullptr, record_valid_ok, record_length_1, record_get_zero);
    getter_add(&table_, "ENDLESS", 0xFFFFFFFF, nullptr, record_valid_ok, record_length_1,
               record_get_zero);
    EXPECT_EXIT(init({"TOS=NOLENGTH"}), testing::ExitedWithCode(255),
                "^Unable to use variable length field: NOLENGTH,field_val\\[1\\]\n$");
    EXPECT_EXIT(init({"TOS=*ENDLESS"}), testing::ExitedWithCode(255),
                "^Unable to use variable length field: ENDLESS,field_val\\[1\\]\n$");
}

std::string repeated(const char* item, int count) {
    std::string text;
    while (count-- > 0)
        text += item;
    return text;
}

TEST_F(TemplateInit, RecordLongerThanAPacketIsATemplate) {
    EXPECT_EQ(1600, init({repeated("IPV6_SRC_ADDR=ZERO,", 100)})->templates[0].record_length);
}

TEST_F(TemplateInit, LengthsBeyond16BitsAreRefused) {
    EXPECT_EXIT(init({repeated("IPV6_SRC_ADDR=ZERO,", 4096)}), testing::ExitedWithCode(255),
                "^Templates too large: 16392 bytes, record 65536 bytes\n$");
    EXPECT_EXIT(init(texts(8193, "TOS=ZERO")), testing::ExitedWithCode(255),
                "^Templates too large: 65540 bytes, record 1 bytes\n$");
    // Without fields each takes 4 bytes in a template set that has 4 itself.
    EXPECT_EXIT(init(texts(16383, ",")), testing::ExitedWithCode(255),
                "^Templates too large: 65536 bytes, record 0 bytes\n$");
}

}  // namespace
