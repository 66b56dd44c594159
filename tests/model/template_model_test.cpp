// Both template exporters against a second encoder: random template files, random records, random
// clocks; every packet that a loopback socket receives is compared byte by byte.
//
// Not under the thread sanitizer: it is all one thread, and takes minutes there.
#include <random>
#include <string>
#include <vector>

#include "tests/model/template_model.h"
#include "tests/support/export_fixture.h"

namespace {

using namespace kestrel_test;
namespace model = template_model;

constexpr uint64_t vlan_at = sizeof(flow_record);
constexpr uint64_t mpls_at = vlan_at + sizeof(vlan_block);
constexpr uint64_t mac_at = mpls_at + sizeof(mpls_block);

struct whole_record {
    flow_record base;
    uint8_t blocks[sizeof(vlan_block) + sizeof(mpls_block) + sizeof(mac_block)];
};
static_assert(sizeof(whole_record) >= mac_at + sizeof(mac_block));

class TemplateModel : public export_fixture {
  protected:
    void TearDown() override {
        kestrel_vlan_offset = kestrel_mpls_offset = kestrel_mac_offset = 0;
        export_fixture::TearDown();
    }

    size_t below(size_t limit) { return random_() % limit; }
    template <typename Container>
    auto one_of(const Container& values) {
        return values[below(std::size(values))];
    }

    void draw_blocks() {
        kestrel_vlan_offset = below(3) ? vlan_at : 0;
        kestrel_mpls_offset = below(3) ? mpls_at : 0;
        kestrel_mac_offset = below(2) ? mac_at : 0;
        keep(table_);  // the exporter before borrows it
        table_ = getter_base_init();
    }

    // By name, or by number; enterprises are IPFIX's.
    model::element draw_element(const std::vector<model::element>& elements, bool is_ipfix) {
        if (below(4) > 0)
            return one_of(elements);
        model::element drawn = {"id", 1 + static_cast<unsigned>(below(32767)),
                                1 + static_cast<unsigned>(below(below(10) ? 9 : 40)), true, 0};
        if (is_ipfix && below(2)) {
            drawn.enterprise = 1 + static_cast<uint32_t>(below(0xFFFFFFFF));
            drawn.name += std::to_string(drawn.enterprise) + ".";
        }
        drawn.name += std::to_string(drawn.id) + "/" + std::to_string(drawn.length);
        return drawn;
    }

    // Templates that leave room in a packet, as definitions and as the text of a file.
    std::vector<std::vector<model::field>> draw_templates(
        const std::vector<model::element>& elements, bool is_ipfix, std::string* text) {
        const std::vector<std::string> getters = model::getter_names();
        // A third of the files is crammed.
        const size_t room = below(3) ? 100 + below(500) : 1450;
        size_t sets = 4;
        size_t longest = 0;
        std::vector<std::vector<model::field>> templates;
        for (size_t count = 1 + below(12); count > 0; --count) {
            std::vector<model::field> fields;
            size_t length = 0;
            size_t size = 4;
            for (size_t number = 1 + below(25); number > 0; --number) {
                fields.push_back({draw_element(elements, is_ipfix), one_of(getters)});
                length += fields.back().to.length;
                size += fields.back().to.enterprise != 0 ? 8 : 4;
            }
            const size_t new_longest = std::max(longest, length);
            if (sets + size + 4 + (new_longest + 3) / 4 * 4 > room)
                continue;
            sets += size;
            longest = new_longest;
            templates.push_back(fields);
        }
        if (templates.empty())
            templates.push_back({{elements[0], "BYTES"}});
        for (const auto& fields : templates)
            append(fields, text);
        return templates;
    }

    void append(const std::vector<model::field>& fields, std::string* text) {
        const char* const noise[] = {"", "# a comment\n", "\n", "  # BEGIN-TEMPLATE\n", "\r\n"};
        *text += one_of(noise);
        *text += below(2) ? "BEGIN-TEMPLATE\n" : "BEGIN-TEMPLATE with a name\r\n";
        for (const model::field& field : fields) {
            *text += one_of(noise);
            *text += field.to.name + "=" + (below(4) ? "" : "*") + field.from;
            *text += below(3) ? "\n" : ",\n";
        }
    }

    const flow_record& draw_record() {
        constexpr uint8_t l3[] = {4, 6, 4, 6, 4, 0};
        constexpr uint8_t l4[] = {6, 17, 132, 1, 58, 47, 6, 17};
        auto* byte = reinterpret_cast<uint8_t*>(&record_);
        for (size_t i = 0; i < sizeof record_; ++i)
            byte[i] = static_cast<uint8_t>(random_());
        record_.base.l3protocol = one_of(l3);
        record_.base.l4protocol = one_of(l4);
        record_.base.sampling = below(20) ? sampling_ : static_cast<uint16_t>(below(3) * 1000);
        sampling_ = record_.base.sampling;
        record_.base.end = below(50) ? wall_ns - below(100 * second) : wall_ns + 1 + below(second);
        record_.base.start = record_.base.end - below(60 * second);
        // The counts of the blocks, where both are where their offsets say.
        record_.blocks[8] = static_cast<uint8_t>(below(6));
        record_.blocks[9] = 0;
        record_.blocks[sizeof(vlan_block) + 40] = static_cast<uint8_t>(below(11));
        record_.blocks[sizeof(vlan_block) + 41] = 0;
        return record_.base;
    }

    void draw_time() {
        if (below(3) == 0)
            advance(below(300 * ms) / 1000 * 1000);
        if (below(100) == 0)
            advance(below(400) * second);
        if (below(200) == 0)
            wall_ns -= below(3) * second;
        if (below(500) == 0)
            uptime_ns -= below(20 * ms);
    }

    // Returns the number of records exported.
    template <typename Exporter>
    size_t compare_run(export_plugin exporter, const char* file_key,
                       const std::vector<model::element>& elements, unsigned set_id) {
        draw_blocks();
        std::string text;
        model::collection templates(draw_templates(elements, set_id == 2, &text), set_id);
        const model::settings settings = {static_cast<uint32_t>(below(1u << 31)),
                                          static_cast<int64_t>(below(5) ? below(300) : 0) - 1,
                                          1 + below(30)};
        std::string params = collector_->params(
            "," + std::string(file_key) + "=" + write_file(text) +
            ",source_id=" + std::to_string(settings.source_id) +
            ",template-refresh-time=" + std::to_string(settings.refresh_time_s) +
            ",template-refresh-packets=" + std::to_string(settings.refresh_packets));
        const auto now = [] { return model::world{wall_ns, uptime_ns, startup}; };
        Exporter expected(std::move(templates), settings, now());
        void* instance = keep(exporter.init(params.data(), table_));
        size_t exported = 0;
        size_t received = 0;
        for (int calls = 0; calls < 400; ++calls) {
            draw_time();
            if (below(40) == 0) {
                expected.flush(now());
                EXPECT_EQ(0u, exporter.flush(instance));
            } else {
                flow_record& record = const_cast<flow_record&>(draw_record());
                const bool fits = expected.add(record, now());
                EXPECT_EQ(fits ? 0u : 0xFFFFFFFFu, exporter.export_record(instance, &record));
                exported += fits;
            }
            for (; received < expected.sent.size(); ++received) {
                const bytes packet = receive();
                if (packet != expected.sent[received]) {
                    ADD_FAILURE() << "packet " << received << "\n" << text;
                    return 100'000;
                }
            }
        }
        EXPECT_TRUE(receive().empty());
        return exported;
    }

    std::mt19937_64 random_{20240607};
    whole_record record_;
    uint16_t sampling_ = 0;
};

TEST_F(TemplateModel, IpfixMessagesAreThoseOfTheModel) {
    const export_plugin ipfix = {exporter_ipfix_desc,
                                 exporter_ipfix_init,
                                 exporter_ipfix_export,
                                 exporter_ipfix_flush,
                                 nullptr,
                                 nullptr};
    for (size_t records = 0; records < 100'000 && !HasFailure();)
        records += compare_run<model::ipfix>(ipfix, "template_file", model::ipfix_elements(), 2);
}

TEST_F(TemplateModel, NetflowV9PacketsAreThoseOfTheModel) {
    const export_plugin nf9 = {exporter_nf9_desc,  exporter_nf9_init, exporter_nf9_export,
                               exporter_nf9_flush, nullptr,           nullptr};
    for (size_t records = 0; records < 100'000 && !HasFailure();)
        records += compare_run<model::nf9>(nf9, "template-file", model::nf9_elements(), 0);
}

}  // namespace
