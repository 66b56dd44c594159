// Tests of the parser: its entry points, and the packet of a record. Expected keys were worked
// out apart from the program, from the polynomial up.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "flow/parser.h"
#include "kestrelexp/service.h"
#include "tests/support/parser_fixture.h"

namespace {

using namespace kestrel_test;

using ParserPosition = parser_fixture;

// ---- The reader ----

struct driver {
    frame_bytes frame;
    packet_header header;
};

const uint8_t* give_frame(void* context, packet_header* header) {
    const auto* from = static_cast<const driver*>(context);
    *header = from->header;
    return from->frame.data();
}

const uint8_t* give_nothing(void*, packet_header*) {
    return nullptr;
}

class ParserReader : public parser_fixture {
  protected:
    uint64_t read(uint16_t input_interface) {
        driver_ = {udp_frame(), {1'700'000'000'000'000'001, 1500, 42, input_interface, 77}};
        packet_reader reader{0x1234'5678, &driver_, give_frame};
        return static_cast<uint64_t>(packet_to_flow_reader(&reader, &record()));
    }

    driver driver_;
};

TEST_F(ParserReader, TakesTimeInterfacesAndSamplingFromTheDriver) {
    read(5);
    EXPECT_EQ(1'700'000'000'000'000'001u, record().start);
    EXPECT_EQ(1'700'000'000'000'000'001u, record().end);
    EXPECT_EQ(5u, record().inputsnmp);
    EXPECT_EQ(77u, record().outputsnmp);
    EXPECT_EQ(0x5678u, record().sampling);
}

TEST_F(ParserReader, LeavesThePacketCountToItsCaller) {
    record().packets = 9;
    read(5);
    EXPECT_EQ(9u, record().packets);
}

TEST_F(ParserReader, GivesNoKeyWhenTheDriverHasNoFrame) {
    packet_reader reader{0, nullptr, give_nothing};
    EXPECT_EQ(0, packet_to_flow_reader(&reader, &record()));
    EXPECT_EQ(0xEEEE'EEEE'EEEE'EEEEu, record().start);
}

TEST_F(ParserReader, InputInterfaceChangesTheKeyWhenItIsHashed) {
    EXPECT_EQ(0xE0AF'EDCF'75B9'2A08u, read(0));
    EXPECT_EQ(0x9DD3'CD03'7963'DEE0u, read(0x1234));
}

TEST_F(ParserReader, InputInterfaceLeavesTheKeyWhenItIsNotHashed) {
    kestrel::parser_set_flow_mask(FLOW_MASK_IP);
    EXPECT_EQ(0xF478'EAF7'37DB'0219u, read(0));
    EXPECT_EQ(0xF478'EAF7'37DB'0219u, read(0x1234));
}

TEST_F(ParserReader, HashesTheInterfaceAloneWithItsBit) {
    kestrel::parser_set_flow_mask(FLOW_MASK_INTERFACE);
    EXPECT_EQ(0xA3F4'2BA3'B5A7'8445u, read(0x1234));
}

// 0x12 of the interface falls off the 32-bit word.
TEST_F(ParserReader, IpVersionPushesTheInterfaceUp) {
    kestrel::parser_set_flow_mask(FLOW_MASK_INTERFACE | FLOW_MASK_L3_ID | FLOW_MASK_L4_ID);
    EXPECT_EQ(0xDBD7'5CBB'077F'81E9u, read(0x1234));
}

TEST_F(ParserPosition, RecordProcessPacketClearsWhatADriverWouldHaveSet) {
    parse(udp_frame());
    EXPECT_EQ(0u, record().inputsnmp);
    EXPECT_EQ(0u, record().outputsnmp);
    EXPECT_EQ(0u, record().sampling);
    EXPECT_EQ(0u, record().export_flag);
    EXPECT_EQ(0xEEEE'EEEE'EEEE'EEEEu, record().start);
    EXPECT_EQ(0xEEEE'EEEE'EEEE'EEEEu, record().end);
}

// ---- The parse position ----

TEST_F(ParserPosition, PacketDataIsTheFrameParsedLast) {
    parse(udp_frame());
    uint32_t captured = 0;
    uint32_t header = 0;
    EXPECT_EQ(frame_.data(), get_packet_data(&captured, &header));
    EXPECT_EQ(42u, captured);
    EXPECT_EQ(42u, header);
}

class CutFrame : public parser_fixture {
  protected:
    void parse_cut_tcp() {
        frame_bytes frame =
            frame_builder().macs().u16(0x0800).ipv4(6, 60).tcp(80, 50000, 0x10).done();
        frame[46] = 0xA0;  // a header of 40 bytes, of which 20 were captured
        parse(frame);
    }
    const uint8_t* packet_data() {
        uint32_t captured;
        uint32_t header;
        testing::internal::CaptureStderr();
        const uint8_t* data = get_packet_data(&captured, &header);
        messages_ = testing::internal::GetCapturedStderr();
        verbose_level = -1;
        return data;
    }
    std::string messages_;
};

TEST_F(CutFrame, HasNoPacketData) {
    parse_cut_tcp();
    verbose_level = 2;
    EXPECT_EQ(nullptr, packet_data());
    EXPECT_EQ("VERBOSE: 2:PACKET ERR\n", messages_);
}

TEST_F(CutFrame, IsReportedAtLevelTwoOnly) {
    parse_cut_tcp();
    verbose_level = 1;
    EXPECT_EQ(nullptr, packet_data());
    EXPECT_EQ("", messages_);
}

TEST_F(ParserPosition, APacketInHandIsWhatPacketDataReportsUntilItIsDone) {
    const uint8_t frame[4] = {};
    uint32_t captured = 0;
    uint32_t header = 0;
    {
        const kestrel::packet_in_hand in_hand({frame, 4, 3});
        EXPECT_EQ(frame, get_packet_data(&captured, &header));
        EXPECT_EQ(4u, captured);
        EXPECT_EQ(3u, header);
    }
    EXPECT_EQ(nullptr, get_packet_data(&captured, &header));
}

TEST_F(ParserPosition, ThreadThatParsedNothingHasNoPacketData) {
    parse(udp_frame());
    const uint8_t* data = frame_.data();
    std::thread([&] {
        uint32_t captured;
        uint32_t header;
        data = get_packet_data(&captured, &header);
    }).join();
    EXPECT_EQ(nullptr, data);
}

}  // namespace
