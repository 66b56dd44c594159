// Not under the thread sanitizer: it is all one thread.
#include "export/template_exporter.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "base/memory.h"
#include "tests/support/export_fixture.h"

namespace {

using namespace kestrel;
using kestrel_test::keep;
using kestrel_test::second;

// What IPFIX and NetFlow v9 share, tried with a protocol of the tests' own.
class TemplateExporter : public kestrel_test::export_fixture {
  protected:
    void SetUp() override {
        export_fixture::SetUp();
        default_file_ = testing::TempDir() + "no-templates-here";
        protocol_ = {.default_file = default_file_.c_str(),
                     .builtin_head = "IN_BYTES=BYTES,",
                     .file_key = "the-file",
                     .elements = static_field_ipfix,
                     .template_set_id = 2,
                     .header_length = 16};
    }
    void read(const std::string& params, std::initializer_list<config_setting> more = {}) {
        std::string text = params;
        read_parameters(self_, text.data(), more);
        keep(self_.to.host);
        keep(self_.template_file);
    }
    void load(const std::string& file_text) {
        std::string path = write_file(file_text);
        self_.template_file = path.data();
        load();
        self_.template_file = nullptr;
    }
    void load() {
        load_templates(self_, table_);
        keep(self_.templates);
    }

    std::string default_file_;
    template_protocol protocol_;
    template_exporter self_ = {.protocol = &protocol_};
};

// ---- Parameters ----

TEST_F(TemplateExporter, DefaultsAreThoseOfTheHelpText) {
    read("host=collector");
    EXPECT_STREQ("collector", self_.to.host);
    EXPECT_EQ(3001, self_.to.port);
    EXPECT_EQ(46, self_.to.ip);
    EXPECT_EQ(17, self_.to.protocol);
    EXPECT_EQ(0, self_.source_id);
    EXPECT_EQ(600, self_.refresh_time_s);
    EXPECT_EQ(2048, self_.refresh_packets);
    EXPECT_EQ(nullptr, self_.template_file);
}

TEST_F(TemplateExporter, ParametersAreTaken) {
    char* extra = nullptr;
    read(
        "source_id=7,host=h,port=4739,ip=6,template-refresh-time=30,template-refresh-packets=20,"
        "the-file=f,extra=e",
        {{"extra", &extra, CONFIG_STRING}});
    EXPECT_EQ(7, self_.source_id);
    EXPECT_EQ(4739, self_.to.port);
    EXPECT_EQ(6, self_.to.ip);
    EXPECT_EQ(30, self_.refresh_time_s);
    EXPECT_EQ(20, self_.refresh_packets);
    EXPECT_STREQ("f", self_.template_file);
    EXPECT_STREQ("e", extra);
}

TEST_F(TemplateExporter, UnknownParametersAreIgnored) {
    read("host=h,the_file=f,unknown=1");
    EXPECT_EQ(nullptr, self_.template_file);
}

TEST_F(TemplateExporter, RefreshPacketsBelowOneAreOne) {
    for (const char* value : {"0", "-1", "-2048", "none"}) {
        read("host=h,template-refresh-packets=" + std::string(value));
        EXPECT_EQ(1, self_.refresh_packets) << value;
    }
}

TEST_F(TemplateExporter, BadParametersEndTheProgram) {
    EXPECT_EXIT(read("host="), testing::ExitedWithCode(255),
                "^Cfgline problem: host\nParameters decoding problem\n$");
    EXPECT_EXIT(read("port=1"), testing::ExitedWithCode(255),
                "^Hostname parameter is mandatory for netflow v9 export\n$");
    EXPECT_EXIT(read_parameters(self_, nullptr, {}), testing::ExitedWithCode(255),
                "^Hostname parameter is mandatory for netflow v9 export\n$");
}

// ---- Definitions ----

TEST_F(TemplateExporter, BuiltinDefinitionsAreEight) {
    char** definitions = builtin_definitions("HEAD,");
    const std::vector<std::string> expected = {
        "HEAD,IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,IPV4_DST_ADDR=L3_IPV4_ADDR_DST",
        "HEAD,IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,IPV4_DST_ADDR=L3_IPV4_ADDR_DST,"
        "L4_SRC_PORT=L4_PORT_SRC,L4_DST_PORT=L4_PORT_DST",
        "HEAD,IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,IPV4_DST_ADDR=L3_IPV4_ADDR_DST,"
        "L4_SRC_PORT=L4_PORT_SRC,L4_DST_PORT=L4_PORT_DST,TCP_FLAGS=L4_TCP_FLAGS",
        "HEAD,IPV4_SRC_ADDR=L3_IPV4_ADDR_SRC,IPV4_DST_ADDR=L3_IPV4_ADDR_DST,"
        "ICMP_TYPE_CODE=L4_ICMP_TYPE_CODE",
        "HEAD,IPV6_SRC_ADDR=L3_IPV6_ADDR_SRC,IPV6_DST_ADDR=L3_IPV6_ADDR_DST",
        "HEAD,IPV6_SRC_ADDR=L3_IPV6_ADDR_SRC,IPV6_DST_ADDR=L3_IPV6_ADDR_DST,"
        "L4_SRC_PORT=L4_PORT_SRC,L4_DST_PORT=L4_PORT_DST",
        "HEAD,IPV6_SRC_ADDR=L3_IPV6_ADDR_SRC,IPV6_DST_ADDR=L3_IPV6_ADDR_DST,"
        "L4_SRC_PORT=L4_PORT_SRC,L4_DST_PORT=L4_PORT_DST,TCP_FLAGS=L4_TCP_FLAGS",
        "HEAD,IPV6_SRC_ADDR=L3_IPV6_ADDR_SRC,IPV6_DST_ADDR=L3_IPV6_ADDR_DST,"
        "ICMP_TYPE_CODE=L4_ICMP_TYPE_CODE"};
    std::vector<std::string> found;
    for (char** definition = definitions; *definition; ++definition)
        found.emplace_back(*definition);
    std::free(definitions);
    EXPECT_EQ(expected, found);
}

TEST_F(TemplateExporter, MissingDefaultFileIsReportedAndReplaced) {
    EXPECT_EQ(
        "Default template config (" + default_file_ + ") NOT found. Using minimalistic built in.\n",
        messages_of([&] { load(); }));
    EXPECT_EQ(8, self_.templates->count);
}

TEST_F(TemplateExporter, DefaultFileIsReadWhenItIsThere) {
    default_file_ = write_file("BEGIN-TEMPLATE\nTOS=ZERO\n");
    protocol_.default_file = default_file_.c_str();
    EXPECT_EQ("", messages_of([&] { load(); }));
    EXPECT_EQ(1, self_.templates->count);
}

TEST_F(TemplateExporter, GivenFileComesBeforeTheDefaultOne) {
    default_file_ = write_file("BEGIN-TEMPLATE\nTOS=ZERO\n");
    protocol_.default_file = default_file_.c_str();
    load(
        "# comment\nBEGIN-TEMPLATE\nTOS=ZERO\n\nFLOWS=ZERO,IN_BYTES=BYTES\n"
        "PROTOCOL=L4_PROTO # dropped\nBEGIN-TEMPLATE of the rest\nTOS=ZERO");
    ASSERT_EQ(2, self_.templates->count);
    EXPECT_EQ(3, self_.templates->templates[0].field_count);
    EXPECT_EQ(2, self_.templates->set_id);
}

TEST_F(TemplateExporter, ProgressIsReportedAtLevelTwo) {
    std::string path = write_file("BEGIN-TEMPLATE\nTOS=ZERO\n");
    self_.template_file = path.data();
    verbose_level = 2;
    EXPECT_EQ("VERBOSE: 2:init templates\nVERBOSE: 0:Templates OK\n", messages_of([&] { load(); }));
}

TEST_F(TemplateExporter, FilesWithoutTemplatesEndTheProgram) {
    EXPECT_EXIT(
        {
            self_.template_file = default_file_.data();
            load();
        },
        testing::ExitedWithCode(255), "^Template config error\n$");
    EXPECT_EXIT(load(""), testing::ExitedWithCode(255), "^No templates found\n$");
    EXPECT_EXIT(load("BEGIN-TEMPLATE\nBEGIN-TEMPLATE\nTOS=ZERO\n"), testing::ExitedWithCode(255),
                "^No templates found\n$");
    EXPECT_EXIT(load("TOS=ZERO\n"), testing::ExitedWithCode(255),
                "^Template definition not begins with BEGIN-TEMPLATE\n$");
}

TEST_F(TemplateExporter, NoConnectionEndsTheProgram) {
    read("host=127.0.0.1,ip=5");
    auto& silent = *make_lifelong<conversation>();  // as exports have theirs
    EXPECT_EXIT(connect_collector(self_, "tested", silent), testing::ExitedWithCode(255),
                "^Can't connect to collector\n$");
}

// ---- Room ----

std::string file_of(const std::string& items, int templates = 1) {
    std::string text;
    for (; templates > 0; --templates)
        text += "BEGIN-TEMPLATE\n" + items + "\n";
    return text;
}

std::string repeated(const std::string& text, int count) {
    std::string result;
    for (; count > 0; --count)
        result += text;
    return result;
}

// 71 addresses: the set of one template takes 4 + 4 + 4 * 71 = 292 bytes, a record 1136, and in a
// set of its own 1140: together 1432. With one field of 2 bytes more it would be 296 + 1144 = 1440,
// with 72 addresses 296 + 1156 = 1452.
TEST_F(TemplateExporter, LargestTemplateFillsAPacketWithOneRecord) {
    load(file_of(repeated("IPV6_SRC_ADDR=ZERO,", 71)));
    EXPECT_EQ(292u, self_.templates_length);
    EXPECT_EXIT(load(file_of(repeated("IPV6_SRC_ADDR=ZERO,", 72))), testing::ExitedWithCode(255),
                "^Templates too large for a packet: 296 bytes of templates and a record of 1152 "
                "bytes\n$");
}

// 179 templates of one field take 4 + 8 * 179 = 1436 bytes, and a record of one byte 8.
TEST_F(TemplateExporter, MostTemplatesLeaveRoomForOneRecord) {
    load(file_of("TOS=ZERO", 179));
    EXPECT_EQ(1436u, self_.templates_length);
    EXPECT_EXIT(load(file_of("TOS=ZERO", 180)), testing::ExitedWithCode(255),
                "^Templates too large for a packet: 1444 bytes of templates and a record of 1 "
                "bytes\n$");
}

TEST_F(TemplateExporter, ThousandsOfFieldsAreRefused) {
    EXPECT_EXIT(load(file_of(repeated("TOS=ZERO\n", 5000))), testing::ExitedWithCode(255),
                "^Templates too large for a packet: 20008 bytes of templates and a record of 5000 "
                "bytes\n$");
}

TEST_F(TemplateExporter, PacketIsFullBeyond1450Bytes) {
    load(file_of("TOS=ZERO"));
    self_.data_size = 1000;
    self_.cursor.offset = 400;
    EXPECT_FALSE(is_full(self_, 34));
    EXPECT_TRUE(is_full(self_, 35));
    protocol_.header_length = 20;
    EXPECT_TRUE(is_full(self_, 34));
    EXPECT_FALSE(is_full(self_, 30));
}

// ---- Refreshing templates ----

class TemplateRefresh : public TemplateExporter {
  protected:
    void SetUp() override {
        TemplateExporter::SetUp();
        load(file_of("TOS=ZERO", 2));  // a set of 20 bytes
        open_packet(self_);
        start_packet(self_);
        self_.templates->packets_built = 1;
    }
    uint32_t refresh() { return refresh_templates(self_, timer_get_sec()); }
};

TEST_F(TemplateRefresh, NothingIsDueRightBehindASet) {
    EXPECT_EQ(0u, refresh());
    EXPECT_EQ(0u, self_.cursor.offset);
}

TEST_F(TemplateRefresh, SetIsDueEvery2048Packets) {
    for (const uint32_t packets : {2047u, 2049u, 4095u}) {
        self_.templates->packets_built = packets;
        EXPECT_EQ(0u, refresh()) << packets;
    }
    self_.templates->packets_built = 2048;
    EXPECT_EQ(2u, refresh());
    EXPECT_EQ(20u, self_.cursor.offset);
    EXPECT_EQ(2u, self_.cursor.count);
}

TEST_F(TemplateRefresh, SetIsDueAfterMoreThan600Seconds) {
    advance(600 * second);
    EXPECT_EQ(0u, refresh());
    advance(1 * second);
    EXPECT_EQ(2u, refresh());
    start_packet(self_);
    EXPECT_EQ(0u, refresh());
    advance(601 * second);
    EXPECT_EQ(2u, refresh());
}

// The set that the packets brought sets the time back as well.
TEST_F(TemplateRefresh, PacketsAndTimeTogetherAreOneSet) {
    advance(601 * second);
    self_.templates->packets_built = 2048;
    EXPECT_EQ(2u, refresh());
    EXPECT_EQ(20u, self_.cursor.offset);
    start_packet(self_);
    self_.templates->packets_built = 2049;
    EXPECT_EQ(0u, refresh());
}

TEST_F(TemplateRefresh, NegativeTimeIsAlwaysOver) {
    self_.refresh_time_s = -1;
    EXPECT_EQ(2u, refresh());
    start_packet(self_);
    EXPECT_EQ(2u, refresh());
}

TEST_F(TemplateRefresh, NegativeTimeAndPacketsAreTwoSetsInARow) {
    self_.refresh_time_s = -600;
    self_.templates->packets_built = 4096;
    EXPECT_EQ(4u, refresh());
    EXPECT_EQ(40u, self_.cursor.offset);
}

TEST_F(TemplateRefresh, ZeroTimeIsOverWithTheNextSecond) {
    self_.refresh_time_s = 0;
    EXPECT_EQ(0u, refresh());
    advance(1 * second);
    EXPECT_EQ(2u, refresh());
}

// 100 templates take 804 bytes.
TEST_F(TemplateRefresh, SecondSetGivesWayWhereItDoesNotFit) {
    load(file_of("TOS=ZERO", 100));
    self_.refresh_time_s = -1;
    self_.templates->packets_built = 2048;
    EXPECT_EQ(100u, refresh());
    EXPECT_EQ(804u, self_.cursor.offset);
}

TEST_F(TemplateRefresh, SecondSetIsWrittenWhereItJustFits) {
    self_.refresh_time_s = -1;
    // 90 templates: two sets of 724 bytes are 1448. 89: two of 716 are 1432, and 8 for a record.
    load(file_of("TOS=ZERO", 90));
    self_.templates->packets_built = 2048;
    EXPECT_EQ(90u, refresh());
    start_packet(self_);
    load(file_of("TOS=ZERO", 89));
    self_.templates->packets_built = 2048;
    EXPECT_EQ(178u, refresh());
    EXPECT_EQ(1432u, self_.cursor.offset);
}

}  // namespace
