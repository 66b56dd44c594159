// Options templates and records as they are on the wire, derived by hand from the RFCs.
#include "export/options_form.h"

#include <gtest/gtest.h>

#include <vector>

namespace kestrel {
namespace {

using bytes = std::vector<uint8_t>;
constexpr auto ipfix = options_protocol::ipfix;
constexpr auto netflow_v9 = options_protocol::netflow_v9;

template <typename Write>
bytes written(Write write) {
    bytes buffer(1450, 0xEE);
    wire_writer out(buffer);
    write(out, std::span<uint8_t>(buffer));
    EXPECT_FALSE(out.overrun());
    buffer.resize(out.size());
    return buffer;
}

bytes template_of(options_protocol protocol, options_kind kind) {
    bytes found = written(
        [&](wire_writer& out, std::span<uint8_t>) { write_options_template(out, protocol, kind); });
    EXPECT_EQ(found.size(), options_template_size(protocol, kind));
    return found;
}

// clang-format off
TEST(OptionsForm, TemplatesOfIpfixNameTheirScopesFirst) {
    EXPECT_EQ(template_of(ipfix, options_kind::sampling), (bytes{
        0, 3, 0, 24,   2, 0, 0, 3, 0, 1,  // set 3; template 512, 3 fields, 1 of them scope
        0, 149, 0, 4,   0, 34, 0, 4,   0, 35, 0, 1,   0, 0}));
    EXPECT_EQ(template_of(ipfix, options_kind::sampling_psamp), (bytes{
        0, 3, 0, 24,   2, 1, 0, 3, 0, 1,
        0, 149, 0, 4,   1, 49, 0, 4,   1, 50, 0, 4,   0, 0}));
    EXPECT_EQ(template_of(ipfix, options_kind::interfaces), (bytes{
        0, 3, 0, 24,   2, 2, 0, 3, 0, 1,
        0, 10, 0, 4,   0, 82, 255, 255,   0, 83, 255, 255,   0, 0}));
    EXPECT_EQ(template_of(ipfix, options_kind::sent), (bytes{
        0, 3, 0, 28,   2, 3, 0, 4, 0, 1,
        0, 149, 0, 4,   0, 40, 0, 8,   0, 41, 0, 8,   0, 42, 0, 8,   0, 0}));
    EXPECT_EQ(template_of(ipfix, options_kind::observed), (bytes{
        0, 3, 0, 24,   2, 4, 0, 3, 0, 1,
        0, 149, 0, 4,   0, 163, 0, 8,   0, 164, 0, 8,   0, 0}));
    EXPECT_EQ(template_of(ipfix, options_kind::unsent), (bytes{
        0, 3, 0, 28,   2, 5, 0, 4, 0, 1,
        0, 144, 0, 4,   0, 166, 0, 8,   0, 167, 0, 8,   0, 168, 0, 8,   0, 0}));
}

TEST(OptionsForm, TemplatesOfNetflowV9AreAboutTheSystem) {
    EXPECT_EQ(template_of(netflow_v9, options_kind::sampling), (bytes{
        0, 1, 0, 24,   2, 0, 0, 4, 0, 8,  // set 1; template 512, bytes of scope and of fields
        0, 1, 0, 4,   0, 34, 0, 4,   0, 35, 0, 1,   0, 0}));
    EXPECT_EQ(template_of(netflow_v9, options_kind::sampling_psamp), (bytes{
        0, 1, 0, 24,   2, 1, 0, 4, 0, 8,
        0, 1, 0, 4,   1, 49, 0, 4,   1, 50, 0, 4,   0, 0}));
    EXPECT_EQ(template_of(netflow_v9, options_kind::interfaces), (bytes{
        0, 1, 0, 28,   2, 2, 0, 4, 0, 12,
        0, 1, 0, 4,   0, 10, 0, 4,   0, 82, 0, 32,   0, 83, 0, 64,   0, 0}));
    EXPECT_EQ(template_of(netflow_v9, options_kind::sent), (bytes{
        0, 1, 0, 28,   2, 3, 0, 4, 0, 12,
        0, 1, 0, 4,   0, 40, 0, 8,   0, 41, 0, 8,   0, 42, 0, 8,   0, 0}));
    EXPECT_EQ(template_of(netflow_v9, options_kind::observed), (bytes{
        0, 1, 0, 24,   2, 4, 0, 4, 0, 8,
        0, 1, 0, 4,   0, 163, 0, 8,   0, 164, 0, 8,   0, 0}));
    EXPECT_EQ(template_of(netflow_v9, options_kind::unsent), (bytes{
        0, 1, 0, 28,   2, 5, 0, 4, 0, 12,
        0, 1, 0, 4,   0, 166, 0, 8,   0, 167, 0, 8,   0, 168, 0, 8,   0, 0}));
}

TEST(OptionsForm, RecordsHaveTheWidthsOfTheirTemplates) {
    const uint64_t rate[] = {0x01020304, 2};
    const bytes sampling = {2, 0, 0, 16,   9, 8, 7, 6,   1, 2, 3, 4,   2,   0, 0, 0};
    const uint64_t counts[] = {0x0102030405060708, 0xFFFFFFFFFFFFFFFF, 3};
    const bytes unsent = {
        2, 5, 0, 32,   9, 8, 7, 6,
        1, 2, 3, 4, 5, 6, 7, 8,   255, 255, 255, 255, 255, 255, 255, 255,   0, 0, 0, 0, 0, 0, 0, 3};
    for (const options_protocol protocol : {ipfix, netflow_v9}) {
        EXPECT_EQ(written([&](wire_writer& out, std::span<uint8_t>) {
            write_options_record(out, protocol, options_kind::sampling, 0x09080706, rate);
        }), sampling);
        EXPECT_EQ(written([&](wire_writer& out, std::span<uint8_t>) {
            write_options_record(out, protocol, options_kind::unsent, 0x09080706, counts);
        }), unsent);
        EXPECT_EQ(options_record_size(protocol, options_kind::sampling), 16U);
        EXPECT_EQ(options_record_size(protocol, options_kind::unsent), 32U);
    }
}

TEST(OptionsForm, InterfacesOfIpfixHaveTextsOfAnyLength) {
    EXPECT_EQ(written([](wire_writer& out, std::span<uint8_t> buffer) {
        const size_t set = begin_options_set(out, options_kind::interfaces);
        write_interface_record(out, ipfix, 99, 0x01020304, "eth0", "up");
        write_interface_record(out, ipfix, 99, 5, "lo", "");
        end_options_set(out, buffer, set);
    }), (bytes{
        2, 2, 0, 24,
        1, 2, 3, 4,   4, 'e', 't', 'h', '0',   2, 'u', 'p',
        0, 0, 0, 5,   2, 'l', 'o',   0}));
    EXPECT_EQ(interface_record_size(ipfix, "eth0", "up"), 12U);
    EXPECT_EQ(interface_record_size(ipfix, "lo", ""), 8U);
}
// clang-format on

TEST(OptionsForm, ASetOfInterfacesIsPadded) {
    const bytes set = written([](wire_writer& out, std::span<uint8_t> buffer) {
        out.u32(0);  // something before it
        const size_t begin = begin_options_set(out, options_kind::interfaces);
        write_interface_record(out, ipfix, 99, 1, "a", "");
        end_options_set(out, buffer, begin);
    });
    EXPECT_EQ(set, (bytes{0, 0, 0, 0, 2, 2, 0, 12, 0, 0, 0, 1, 1, 'a', 0, 0}));
}

TEST(OptionsForm, InterfacesOfNetflowV9HaveTextsOfOneLength) {
    bytes expected = {2, 2, 0, 108, 0, 0, 0, 99, 1, 2, 3, 4, 'e', 't', 'h', '0'};
    expected.resize(4 + 4 + 4 + 32);
    expected.insert(expected.end(), {'u', 'p'});
    expected.resize(4 + 4 + 4 + 32 + 64);
    EXPECT_EQ(written([](wire_writer& out, std::span<uint8_t> buffer) {
                  const size_t set = begin_options_set(out, options_kind::interfaces);
                  write_interface_record(out, netflow_v9, 99, 0x01020304, "eth0", "up");
                  end_options_set(out, buffer, set);
              }),
              expected);
    EXPECT_EQ(interface_record_size(netflow_v9, "eth0", "up"), 104U);
}

TEST(OptionsForm, LongTextsAreCutBetweenTwoCharacters) {
    const std::string euro = "\xE2\x82\xAC";  // three bytes
    // 253 bytes and a character of three, of which one byte would fit.
    const std::string text = std::string(253, 'x') + euro;
    bytes expected = {0, 0, 0, 1, 253};
    expected.resize(expected.size() + 253, 'x');
    expected.push_back(254);
    expected.resize(expected.size() + 254, 'y');
    EXPECT_EQ(written([&](wire_writer& out, std::span<uint8_t>) {
                  write_interface_record(out, ipfix, 0, 1, text, std::string(255, 'y'));
              }),
              expected);
    EXPECT_EQ(interface_record_size(ipfix, text, std::string(255, 'y')), expected.size());

    bytes fixed = {0, 0, 0, 0, 0, 0, 0, 1};
    fixed.resize(fixed.size() + 31, 'x');
    fixed.push_back(0);
    fixed.resize(fixed.size() + 64, 'y');
    EXPECT_EQ(written([&](wire_writer& out, std::span<uint8_t>) {
                  write_interface_record(out, netflow_v9, 0, 1, std::string(31, 'x') + euro,
                                         std::string(65, 'y'));
              }),
              fixed);
}

}  // namespace
}  // namespace kestrel
